# SPDX-License-Identifier: BSD-3-Clause
# Every package the project links, found once. packages.txt installs them.
# Their targets are global, for a project that has this one as a subdirectory.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(Protobuf REQUIRED)
find_package(fmt REQUIRED)

pkg_check_modules(DPDK REQUIRED IMPORTED_TARGET GLOBAL libdpdk)
pkg_check_modules(URCU REQUIRED IMPORTED_TARGET GLOBAL liburcu-qsbr liburcu-cds)
pkg_check_modules(GLOG REQUIRED IMPORTED_TARGET GLOBAL libglog)

# Debian's libdpdk.pc carries -march=corei7, which comes last on the command line and would override
# the baseline that OpenFlowHelpers.cmake sets.
get_target_property(dpdk_options PkgConfig::DPDK INTERFACE_COMPILE_OPTIONS)
list(FILTER dpdk_options EXCLUDE REGEX "^-march=")
set_target_properties(PkgConfig::DPDK PROPERTIES INTERFACE_COMPILE_OPTIONS "${dpdk_options}")

if(NOT BESS_CORE_DIR)
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json REQUIRED)
  find_package(OpenSSL REQUIRED)
  pkg_check_modules(PCAP REQUIRED IMPORTED_TARGET GLOBAL libpcap)
  pkg_check_modules(GRPC REQUIRED IMPORTED_TARGET GLOBAL grpc++)
  pkg_check_modules(PROMETHEUS REQUIRED IMPORTED_TARGET GLOBAL prometheus-cpp-pull)
  pkg_check_modules(YAML REQUIRED IMPORTED_TARGET GLOBAL yaml-cpp)
  find_program(GRPC_CPP_PLUGIN grpc_cpp_plugin REQUIRED)
  if(BUILD_TESTING)
    find_package(GTest REQUIRED)
  endif()
endif()
