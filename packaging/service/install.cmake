# SPDX-License-Identifier: BSD-3-Clause
# Part of the installation: bindir, sysconfdir, service_dir and scratch_dir are set.
cmake_path(ABSOLUTE_PATH bindir BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  set(sysconfdir /etc)
else()
  cmake_path(ABSOLUTE_PATH sysconfdir BASE_DIRECTORY ${CMAKE_INSTALL_PREFIX})
endif()
set(config ${sysconfdir}/ofswitch/switch.yaml)

configure_file(${service_dir}/ofswitch.service.in ${scratch_dir}/ofswitch.service @ONLY)
file(INSTALL DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system" TYPE FILE
     FILES ${scratch_dir}/ofswitch.service)

# What the operator has written there stays.
if(NOT EXISTS "$ENV{DESTDIR}${config}")
  cmake_path(GET config PARENT_PATH config_dir)
  file(INSTALL DESTINATION "${config_dir}" TYPE FILE FILES ${service_dir}/switch.yaml ${service_dir}/flows.txt)
endif()
