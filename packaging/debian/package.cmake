# SPDX-License-Identifier: BSD-3-Clause
# The Debian package: "cpack --config BUILD/CPackConfig.cmake".
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ofswitch)
set(CPACK_PACKAGE_CONTACT "OpenFlow module authors <authors@openflow-module.invalid>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "OpenFlow switch on DPDK")
set(CPACK_PACKAGE_DESCRIPTION
"Packets through up to 32 OpenFlow tables: live between network cards, kernel
interfaces and taps, or from captures. Flows are written as for ovs-ofctl
and change while packets run. A packet's way can be explained, and every
drop has a name and a counter.
.
The package also holds what modules for the switch are built with.")

# CPack's install scripts must see the final paths, which the service names.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
foreach(library IN LISTS libraries host_libraries)
  get_target_property(dir ${library} BINARY_DIR)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${dir})
endforeach()
list(REMOVE_DUPLICATES CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
# DPDK loads its drivers by file name, which shlibdeps cannot see: packet buffers need the first, ports the others.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "librte-mempool-ring23, librte-bus-vdev23, librte-net-af-packet23, librte-net-null23, librte-net-tap23")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS
    "dpdk, librte-bus-pci23, librte-meta-net")
# What modules are compiled against.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "g++, libdpdk-dev, libgoogle-glog-dev, libprotobuf-dev, liburcu-dev, pkg-config")

set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/conffiles ${CMAKE_CURRENT_LIST_DIR}/postinst ${CMAKE_CURRENT_LIST_DIR}/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
