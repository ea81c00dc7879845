# SPDX-License-Identifier: MIT
# wcan.1.gz, written at build time from the tool's own help text so the page
# never drifts from the program (see MakeManPage.cmake).
find_program(WCAN_HELP2MAN help2man)
find_program(WCAN_GZIP gzip)
if(NOT TARGET wcan_tool OR CMAKE_CROSSCOMPILING)
  return()
endif()
if(NOT WCAN_HELP2MAN OR NOT WCAN_GZIP)
  message(STATUS "help2man or gzip not found: no man page for wcan (scripts/install-deps.sh installs them)")
  return()
endif()

set(WCAN_MAN_PAGE ${PROJECT_BINARY_DIR}/wcan.1.gz)
add_custom_command(OUTPUT ${WCAN_MAN_PAGE}
  COMMAND ${CMAKE_COMMAND} -DTOOL=$<TARGET_FILE:wcan_tool> -DHELP2MAN=${WCAN_HELP2MAN}
    -DGZIP=${WCAN_GZIP} -DSECTIONS=${PROJECT_SOURCE_DIR}/packaging/wcan.h2m
    -DOUTPUT=${WCAN_MAN_PAGE} -P ${CMAKE_CURRENT_LIST_DIR}/MakeManPage.cmake
  DEPENDS wcan_tool ${PROJECT_SOURCE_DIR}/packaging/wcan.h2m
    ${CMAKE_CURRENT_LIST_DIR}/MakeManPage.cmake
  COMMENT "Writing the wcan man page from its help text"
  VERBATIM)
add_custom_target(wcan_man_page ALL DEPENDS ${WCAN_MAN_PAGE})
install(FILES ${WCAN_MAN_PAGE} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
