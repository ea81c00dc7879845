# SPDX-License-Identifier: MIT
# cmake -DTOOL=wcan -DHELP2MAN=help2man -DGZIP=gzip -DSECTIONS=wcan.h2m
#       -DOUTPUT=wcan.1.gz -P MakeManPage.cmake
#
# help2man turns `wcan --help` and `wcan --version` into the page; every
# command listed there adds its own `wcan COMMAND --help` under COMMANDS, and
# SECTIONS adds the hand-written parts (environment, files, examples).

function(run_tool out)
  execute_process(COMMAND ${TOOL} ${ARGN} OUTPUT_VARIABLE text RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${ARGN} exited with ${rc}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Help text as roff lines that print as written.
function(roff_literal out text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Usage lines ("usage: wcan ...", continued by indented lines) up to the
# first empty line; the rest of the text.
function(split_usage text usage_out rest_out)
  string(FIND "${text}" "\n\n" end)
  if(end LESS 0)
    message(FATAL_ERROR "${TOOL}: no empty line after the usage in\n${text}")
  endif()
  string(SUBSTRING "${text}" 0 ${end} usage)
  math(EXPR end "${end} + 2")
  string(SUBSTRING "${text}" ${end} -1 rest)
  string(REGEX REPLACE "^usage: *" "" usage "${usage}")
  string(REGEX REPLACE "\n +" "\n" usage "${usage}")
  set(${usage_out} "${usage}\n" PARENT_SCOPE)
  set(${rest_out} "${rest}" PARENT_SCOPE)
endfunction()

run_tool(main_help --help)
run_tool(version --version)
split_usage("${main_help}" synopsis description)
string(REGEX MATCH "\nCommands:\n(.*)" commands_on "\n${description}")
string(REGEX REPLACE "\n\n.*" "" command_lines "${CMAKE_MATCH_1}")
string(REGEX MATCHALL "(^|\n)  [a-z][a-z0-9-]*" commands "${command_lines}")
if(NOT commands)
  message(FATAL_ERROR "${TOOL} --help lists no commands")
endif()

set(command_sections "")
foreach(command IN LISTS commands)
  string(STRIP "${command}" command)
  run_tool(help ${command} --help)
  split_usage("${help}" usage details)
  string(APPEND synopsis "${usage}")
  # The first usage line heads the command's section; further ones (other
  # forms of the command) open its text.
  string(FIND "${usage}" "\n" end)
  string(SUBSTRING "${usage}" 0 ${end} heading)
  math(EXPR end "${end} + 1")
  string(SUBSTRING "${usage}" ${end} -1 other_forms)
  if(NOT other_forms STREQUAL "")
    string(PREPEND details "${other_forms}\n")
  endif()
  roff_literal(heading "${heading}")
  roff_literal(details "${details}")
  string(APPEND command_sections ".SS \"${heading}\"\n.nf\n${details}.fi\n")
endforeach()
roff_literal(synopsis "${synopsis}")
file(READ ${SECTIONS} sections)

# help2man reads the help through a stand-in that prints the text without its
# usage lines, which go to SYNOPSIS instead.
get_filename_component(page ${OUTPUT} NAME_WLE)
set(work ${OUTPUT}.d)
file(REMOVE_RECURSE ${work})
file(MAKE_DIRECTORY ${work}/text)
file(WRITE ${work}/text/help "${description}")
file(WRITE ${work}/text/version "${version}")
file(WRITE ${work}/text/wcan "#!/bin/sh\ncase $1 in --version) cat '${work}/text/version' ;; *) cat '${work}/text/help' ;; esac\n")
file(COPY ${work}/text/wcan DESTINATION ${work}
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
file(WRITE ${work}/include.h2m
  "[SYNOPSIS]\n.nf\n${synopsis}.fi\n\n[COMMANDS]\n${command_sections}\n${sections}")
execute_process(COMMAND ${HELP2MAN} --no-info --section=1
    "--name=command line tool for USB-to-CAN and USB-to-CAN-FD adapters"
    --include=${work}/include.h2m --output=${work}/${page} ${work}/wcan
  RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "help2man failed on ${TOOL}")
endif()
# -n leaves the name and time stamp out: the same page gives the same bytes.
execute_process(COMMAND ${GZIP} -9n -c ${work}/${page} OUTPUT_FILE ${OUTPUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "gzip failed on ${work}/${page}")
endif()
