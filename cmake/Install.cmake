# SPDX-License-Identifier: MIT
# What `cmake --install` puts where, split into the components the Debian
# packages are made of: runtime (the library, the simulated adapters, the udev
# rule), dev (header, pkg-config file, the link for -lwcan) and tool (wcan and
# its man page). python/ adds the component python.

set(WCAN_UDEV_RULES_DIR "lib/udev/rules.d"
  CACHE STRING "Where the udev rule goes, relative to the install prefix")

install(TARGETS wcan
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
if(TARGET wcan-sim)
  install(TARGETS wcan-sim LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime)
  install(TARGETS wcan-simhost RUNTIME DESTINATION ${CMAKE_INSTALL_LIBDIR}/wcan COMPONENT runtime)
endif()
install(FILES ${PROJECT_SOURCE_DIR}/packaging/udev/99-wcan.rules DESTINATION ${WCAN_UDEV_RULES_DIR}
  COMPONENT runtime)

# The pkg-config file finds its prefix from its own place, so a tree installed
# with --prefix or DESTDIR still builds host programs.
file(RELATIVE_PATH WCAN_PC_RELATIVE_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
  "${CMAKE_INSTALL_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/wcan.pc.in ${PROJECT_BINARY_DIR}/wcan.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/wcan.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)

# The tool loads libwcan.so.1 and libwcan-sim.so through the dynamic loader:
# a run path relative to the binary lets an installed tree run from wherever it
# was installed or moved. It is an old-style DT_RPATH, which the loader also
# searches when the dlopen call reaches it through a sanitizer's interceptor
# (a DT_RUNPATH only counts for the calling object, then the sanitizer runtime).
if(TARGET wcan_tool)
  file(RELATIVE_PATH _wcan_bin_to_lib "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set_target_properties(wcan_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${_wcan_bin_to_lib}")
  target_link_options(wcan_tool PRIVATE -Wl,--disable-new-dtags)
  install(TARGETS wcan_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tool)
endif()
