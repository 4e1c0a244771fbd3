# Writes the man page of a tool from its own --help and --version, so the page never drifts from
# the program: cmake -DPROGRAM=path/to/hdsctl -DNAME=hdsctl -DSUMMARY=... -DOUTPUT=hdsctl.1
#   -P ManPage.cmake
# Each subcommand listed under "Subcommands:" gets a section with its own --help.

function(roff_text text out)
  string(REPLACE "\\" "\\e" text "${text}")
  # A line that starts with a dot or a quote would be read as a request.
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

function(help_of args out)
  execute_process(COMMAND ${PROGRAM} ${args} --help
    OUTPUT_VARIABLE text RESULT_VARIABLE rc ERROR_QUIET)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${PROGRAM} ${args} --help failed (${rc})")
  endif()
  roff_text("${text}" text)
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

execute_process(COMMAND ${PROGRAM} --version OUTPUT_VARIABLE version
  OUTPUT_STRIP_TRAILING_WHITESPACE)
help_of("" main)
string(TOUPPER "${NAME}" upper)
set(page ".TH ${upper} 1 \"\" \"${version}\" \"User Commands\"\n")
string(APPEND page ".SH NAME\n${NAME} \\- ${SUMMARY}\n")
string(APPEND page ".SH SYNOPSIS\n.B ${NAME}\n[\\fIOPTIONS\\fR] \\fICOMMAND\\fR [\\fIARGS\\fR]\n")
string(APPEND page ".SH DESCRIPTION\n.nf\n${main}.fi\n")

# The names under "Subcommands:", one a line, up to the next blank line.
string(REPLACE "\n" ";" lines "${main}")
set(in_list FALSE)
set(commands "")
foreach(line IN LISTS lines)
  if(line MATCHES "^Subcommands:")
    set(in_list TRUE)
  elseif(in_list AND line MATCHES "^  ([a-z][a-z-]*)")
    list(APPEND commands "${CMAKE_MATCH_1}")
  elseif(in_list AND line STREQUAL "")
    set(in_list FALSE)
  endif()
endforeach()
foreach(command IN LISTS commands)
  help_of("${command}" text)
  string(TOUPPER "${command}" heading)
  string(APPEND page ".SH ${upper} ${heading}\n.nf\n${text}.fi\n")
endforeach()
file(WRITE "${OUTPUT}" "${page}")
