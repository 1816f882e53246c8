# SPDX-License-Identifier: BSD-3-Clause
# Configures the project for CORE_DIR and compiles the module, as its README tells people to.
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${BINARY_DIR} -G Ninja -D BESS_CORE_DIR=${CORE_DIR}
          -D CMAKE_BUILD_TYPE=Debug -D CMAKE_CXX_COMPILER=${CXX_COMPILER}
  COMMAND_ERROR_IS_FATAL ANY)
execute_process(
  COMMAND ${CMAKE_COMMAND} --build ${BINARY_DIR} --target openflow_module_objects --parallel 2
  COMMAND_ERROR_IS_FATAL ANY)
