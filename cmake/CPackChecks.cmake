# SPDX-License-Identifier: MIT
# Read by cpack before it builds each kind of package.
if(CPACK_GENERATOR STREQUAL "DEB")
  # Paths fixed at configure time (the Python package's library directory)
  # must be the paths the package installs to.
  if(NOT CPACK_PACKAGING_INSTALL_PREFIX STREQUAL "/usr")
    message(FATAL_ERROR "Debian packages install into /usr, but this build was configured for "
      "${CPACK_PACKAGING_INSTALL_PREFIX}: configure a build with -DCMAKE_INSTALL_PREFIX=/usr "
      "and run cpack there")
  endif()
  file(STRINGS ${CPACK_WCAN_CHANGELOG} _wcan_changelog_head LIMIT_COUNT 1)
  if(NOT _wcan_changelog_head MATCHES "^wcan \\(${CPACK_PACKAGE_VERSION}\\) ")
    message(FATAL_ERROR "packaging/changelog has no entry for version ${CPACK_PACKAGE_VERSION} "
      "on top: add one before packaging")
  endif()
endif()
