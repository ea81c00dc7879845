# SPDX-License-Identifier: MIT
# `cpack -G DEB` in a build configured with -DCMAKE_INSTALL_PREFIX=/usr gives
# one Debian package per install component, split the way Debian splits a
# library:
#   runtime -> libwcan1      the library, the simulated adapters, the udev rule
#   dev     -> libwcan-dev   header, wcan.pc, libwcan.so
#   tool    -> wcan          the command line tool and its man page
#   python  -> python3-wcan  the Python package (when python/ installs one)
set(WCAN_DEB_runtime libwcan${PROJECT_VERSION_MAJOR})
set(WCAN_DEB_dev libwcan-dev)
set(WCAN_DEB_tool wcan)
set(WCAN_DEB_python python3-wcan)

get_cmake_property(_wcan_installed_components COMPONENTS)
set(WCAN_DEB_COMPONENTS runtime dev tool)
if(python IN_LIST _wcan_installed_components)
  list(APPEND WCAN_DEB_COMPONENTS python)
endif()

# Every Debian package carries its own copyright and changelog. These and the
# lintian override go only into the packages (cpack installs component by
# component), not into a plain `cmake --install`.
set(_wcan_changelog ${PROJECT_SOURCE_DIR}/packaging/changelog)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${_wcan_changelog})
execute_process(COMMAND gzip -9n -c ${_wcan_changelog}
  OUTPUT_FILE ${PROJECT_BINARY_DIR}/changelog.gz RESULT_VARIABLE _wcan_gzip_status)
if(NOT _wcan_gzip_status EQUAL 0)
  message(FATAL_ERROR "gzip could not compress ${_wcan_changelog}")
endif()
foreach(component IN LISTS WCAN_DEB_COMPONENTS)
  install(FILES ${PROJECT_SOURCE_DIR}/packaging/copyright ${PROJECT_BINARY_DIR}/changelog.gz
    DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${WCAN_DEB_${component}} COMPONENT ${component}
    EXCLUDE_FROM_ALL)
endforeach()

install(FILES ${PROJECT_SOURCE_DIR}/packaging/libwcan/lintian-overrides
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${WCAN_DEB_runtime}
  COMPONENT runtime EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_PACKAGE_NAME wcan)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "wcan developers <wcan@example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE
  GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${WCAN_DEB_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/CPackChecks.cmake)
set(CPACK_WCAN_CHANGELOG ${_wcan_changelog})
foreach(component IN LISTS WCAN_DEB_COMPONENTS)
  string(TOUPPER ${component} upper)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${WCAN_DEB_${component}})
endforeach()

# The library reaches the adapters through libusb without linking it: the host
# program or the tool provides it, so the dependency is declared by hand.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libusb-1.0-0")
# Written here rather than by cpack, which would also try libwcan-sim.so and
# warn that it has no soname version.
file(WRITE ${PROJECT_BINARY_DIR}/shlibs
  "libwcan ${PROJECT_VERSION_MAJOR} ${WCAN_DEB_runtime} (>= ${PROJECT_VERSION})\n")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/shlibs
  ${PROJECT_SOURCE_DIR}/packaging/libwcan/postinst ${PROJECT_SOURCE_DIR}/packaging/libwcan/postrm
  ${PROJECT_SOURCE_DIR}/packaging/libwcan/triggers)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "driver library for USB-to-CAN and USB-to-CAN-FD adapters
libwcan drives USB-to-CAN and USB-to-CAN-FD adapters from user space through
libusb: CAN FD adapters with 2, 4 or 8 channels, classic dual-channel CAN
adapters and CAN recorders, behind one flat C interface.
This package holds the shared library, the simulated adapters (libwcan-sim.so,
an in-process stand-in for libusb) and a udev rule that lets the group plugdev
and the user at the seat open the adapters.")

set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libusb-1.0-0-dev")
set(CPACK_DEBIAN_DEV_DESCRIPTION "driver library for USB-to-CAN adapters - development files
libwcan drives USB-to-CAN and USB-to-CAN-FD adapters from user space through
libusb.
This package holds the header wcan.h, the pkg-config file wcan.pc and the link
to build host programs against libwcan.")

set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION electronics)
set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "libusb-1.0-0, libncurses6, libjs-dygraphs")
set(CPACK_DEBIAN_TOOL_DESCRIPTION "command line tool for USB-to-CAN and USB-to-CAN-FD adapters
wcan lists the adapters driven by libwcan, prints their board information,
dumps received frames as candump log lines, sends frames in cansend syntax,
generates traffic, configures CAN recorders and runs a demonstration on
simulated adapters.")

set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
set(CPACK_DEBIAN_PYTHON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS "python3")
set(CPACK_DEBIAN_PYTHON_PACKAGE_RECOMMENDS "python3-can")
set(CPACK_DEBIAN_PYTHON_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/python3-wcan/postinst
  ${PROJECT_SOURCE_DIR}/packaging/python3-wcan/prerm)
set(CPACK_DEBIAN_PYTHON_DESCRIPTION "Python 3 bindings for libwcan and its python-can interface
The wcan package calls libwcan, the driver library for USB-to-CAN and
USB-to-CAN-FD adapters, from Python 3, and registers the python-can interface
\"wcan\".")

include(CPack)
cpack_add_component(runtime DISPLAY_NAME "Library")
cpack_add_component(dev DISPLAY_NAME "Development files" DEPENDS runtime)
cpack_add_component(tool DISPLAY_NAME "Command line tool" DEPENDS runtime)
if(python IN_LIST WCAN_DEB_COMPONENTS)
  cpack_add_component(python DISPLAY_NAME "Python package" DEPENDS runtime)
endif()
