# SPDX-License-Identifier: MIT
# Installed layout, the man page and the Debian packages.
include(${CMAKE_CURRENT_LIST_DIR}/Install.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/Extcap.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/ManPage.cmake)
include(${CMAKE_CURRENT_LIST_DIR}/DebianPackages.cmake)
