# SPDX-License-Identifier: BSD-3-Clause
# What every target of this project shares: language level, baseline processor, warnings, sanitizers.

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

# What people run does not tell where it was built, in the texts of its checks above all.
set(OF_NO_BUILD_PATHS $<$<CONFIG:Release>:-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=>)

# of_target(NAME): compile NAME as this project's own code. The processor baseline is the one that Debian's DPDK
# itself needs (SSE4.2); wider code is chosen at run time, never here.
function(of_target name)
  target_compile_features(${name} PUBLIC cxx_std_20)
  set_target_properties(${name} PROPERTIES CXX_EXTENSIONS ON POSITION_INDEPENDENT_CODE ON)
  target_compile_options(${name} PRIVATE
    -march=x86-64-v2 -Wall -Wextra -Wpedantic -Wno-gnu-zero-variadic-macro-arguments
    $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>  # g++ 12 sees overlaps in std::string concatenations where none are
    $<$<BOOL:${OPENFLOW_WERROR}>:-Werror> ${OF_NO_BUILD_PATHS})
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
  of_sanitize(${name})
  get_target_property(type ${name} TYPE)
  if(CMAKE_CXX_FLAGS MATCHES coverage AND type STREQUAL EXECUTABLE)
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/kept_counts.cc)
    target_link_libraries(${name} PRIVATE ${CMAKE_DL_LIBS})
  endif()
endfunction()

# of_fast_tls(NAME): thread-local variables, such as DPDK's lcore identity, which every packet buffer asks for, are read
# straight from the thread's block instead of through a call. For libraries that are there when a program starts, and
# for plug-ins that only use variables of such libraries.
function(of_fast_tls name)
  target_compile_options(${name} PRIVATE -ftls-model=initial-exec)
endfunction()

# of_build_fast(NAME): for code that only tests run. Compiling it takes longer than running it, so it is not optimised;
# what it tests is.
function(of_build_fast name)
  target_compile_options(${name} PRIVATE $<$<NOT:$<CONFIG:Release>>:-O0 -g1>)
endfunction()

function(of_sanitize name)
  if(OPENFLOW_SANITIZE)
    target_compile_options(${name} PRIVATE -fsanitize=${OPENFLOW_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(${name} PUBLIC -fsanitize=${OPENFLOW_SANITIZE})
  endif()
  get_target_property(type ${name} TYPE)
  if(OPENFLOW_SANITIZE MATCHES thread AND type STREQUAL EXECUTABLE)
    # First of its libraries, whether or not its own objects ask for it: it stands in front of liburcu and DPDK.
    target_link_libraries(${name} PRIVATE -Wl,--push-state,--no-as-needed tsan_models -Wl,--pop-state)
  endif()
endfunction()

# of_proto_library(NAME ROOT FILE...): a shared library of generated messages, importable by paths relative to
# ROOT. It stays loaded once loaded: a descriptor that registers twice aborts the process.
function(of_proto_library name root)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${name})
  file(MAKE_DIRECTORY ${out})
  set(generated)
  foreach(file IN LISTS ARGN)
    string(REGEX REPLACE "\\.proto$" "" stem ${file})
    add_custom_command(
      OUTPUT ${out}/${stem}.pb.cc ${out}/${stem}.pb.h
      COMMAND protobuf::protoc --cpp_out=${out} -I ${root} ${root}/${file}
      DEPENDS ${root}/${file} VERBATIM)
    list(APPEND generated ${out}/${stem}.pb.cc ${out}/${stem}.pb.h)
  endforeach()
  add_library(${name} SHARED ${generated})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_include_directories(${name} SYSTEM PUBLIC $<BUILD_INTERFACE:${out}>)
  target_link_libraries(${name} PUBLIC protobuf::libprotobuf)
  target_link_options(${name} PRIVATE -Wl,-z,nodelete)
  target_compile_options(${name} PRIVATE -g0 ${OF_NO_BUILD_PATHS})  # -g0: nobody steps through generated code
  of_sanitize(${name})
endfunction()

# of_grpc_library(NAME ROOT FILE...): the same for files with services: messages, and servers' and clients' side of
# each service ("FILE.grpc.pb.h").
function(of_grpc_library name root)
  of_proto_library(${name} ${root} ${ARGN})
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${name})
  foreach(file IN LISTS ARGN)
    string(REGEX REPLACE "\\.proto$" "" stem ${file})
    add_custom_command(
      OUTPUT ${out}/${stem}.grpc.pb.cc ${out}/${stem}.grpc.pb.h
      COMMAND protobuf::protoc --grpc_out=${out} --plugin=protoc-gen-grpc=${GRPC_CPP_PLUGIN} -I ${root} ${root}/${file}
      DEPENDS ${root}/${file} VERBATIM)
    target_sources(${name} PRIVATE ${out}/${stem}.grpc.pb.cc ${out}/${stem}.grpc.pb.h)
  endforeach()
  target_link_libraries(${name} PUBLIC PkgConfig::GRPC)
endfunction()

# How much more time than an ordinary build's the programs of this one may take: tests/support/time_limit.h.
if(OPENFLOW_SANITIZE MATCHES thread)
  set(OF_TIME_FACTOR 10)
elseif(OPENFLOW_SANITIZE OR CMAKE_CXX_FLAGS MATCHES coverage)
  set(OF_TIME_FACTOR 5)
else()
  set(OF_TIME_FACTOR 1)
endif()

# of_test_run(NAME SECONDS): how a ctest entry is run. SECONDS are its time limit in an ordinary build.
function(of_test_run name seconds)
  if(OF_TIME_FACTOR GREATER 1)
    math(EXPR seconds "${seconds} * 3")
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${seconds})
  # Memory of the C library's heap is never zero by chance: it fills what it hands out, but for what its caches keep.
  set_property(TEST ${name} APPEND PROPERTY
    ENVIRONMENT "MALLOC_PERTURB_=90;GLIBC_TUNABLES=glibc.malloc.tcache_count=0")
  if(OPENFLOW_SANITIZE MATCHES thread)
    set_property(TEST ${name} APPEND PROPERTY
      ENVIRONMENT "TSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/tsan.supp")
  endif()
endfunction()

# of_test(NAME SOURCES... [LIBS LIBS...] [LABELS ...]): one GoogleTest program and its ctest entry. A program is one
# entry because most of them start the EAL, which is done once a process.
function(of_test name)
  cmake_parse_arguments(arg "" "" "LIBS;LABELS" ${ARGN})
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  of_target(${name})
  of_build_fast(${name})
  target_link_libraries(${name} PRIVATE ${arg_LIBS} GTest::gmock GTest::gtest)
  add_test(NAME ${name} COMMAND ${name})
  of_test_run(${name} 600)
  set_tests_properties(${name} PROPERTIES LABELS "${arg_LABELS}")
  if(OF_TIME_FACTOR GREATER 1)
    target_compile_definitions(${name} PRIVATE OPENFLOW_TIME_FACTOR=${OF_TIME_FACTOR})
  endif()
endfunction()
