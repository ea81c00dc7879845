# SPDX-License-Identifier: MIT
# wcan-extcap, Wireshark's capture program, is the tool under a second name: a
# link in Wireshark's extcap folder, shipped with the wcan package. The folder
# is the one the installed Wireshark names (tshark -G folders); without tshark
# it is the Debian layout under the multiarch library folder.
set(WCAN_EXTCAP_DIR "" CACHE STRING
  "Wireshark's extcap folder, relative to the prefix (default: asked of tshark)")
if(TARGET wcan_tool AND NOT WCAN_EXTCAP_DIR)
  find_program(WCAN_TSHARK tshark)
  set(_wcan_extcap "")
  if(WCAN_TSHARK)
    execute_process(COMMAND ${WCAN_TSHARK} -G folders OUTPUT_VARIABLE _wcan_folders
      ERROR_QUIET TIMEOUT 60)
    if(_wcan_folders MATCHES "(^|\n)Extcap path:[ \t]*([^\n]*)")
      string(STRIP "${CMAKE_MATCH_2}" _wcan_extcap)
    endif()
  endif()
  # Wireshark's folder counts only when it lies under this install's prefix.
  if(_wcan_extcap MATCHES "^${CMAKE_INSTALL_PREFIX}/")
    file(RELATIVE_PATH _wcan_extcap "${CMAKE_INSTALL_PREFIX}" "${_wcan_extcap}")
  else()
    set(_wcan_extcap "${CMAKE_INSTALL_LIBDIR}/wireshark/extcap")
  endif()
  set(WCAN_EXTCAP_DIR "${_wcan_extcap}" CACHE STRING
    "Wireshark's extcap folder, relative to the prefix (default: asked of tshark)" FORCE)
endif()
if(TARGET wcan_tool)
  file(RELATIVE_PATH _wcan_extcap_to_tool "${CMAKE_INSTALL_PREFIX}/${WCAN_EXTCAP_DIR}"
    "${CMAKE_INSTALL_FULL_BINDIR}/wcan")
  file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/extcap")
  file(CREATE_LINK "${_wcan_extcap_to_tool}" "${PROJECT_BINARY_DIR}/extcap/wcan-extcap" SYMBOLIC)
  install(FILES "${PROJECT_BINARY_DIR}/extcap/wcan-extcap" DESTINATION ${WCAN_EXTCAP_DIR}
    COMPONENT tool)
endif()
