# Writes a tool's man page from its --help, in the layout bv::cli::print_help
# gives every tool (tools/cli/cli.h):
#   Usage: TOOL ...          -> SYNOPSIS (with its continuation lines)
#   the first line after it  -> NAME and the start of DESCRIPTION
#   Title:                   -> a section
#     term                   -> a tagged paragraph
#         text               -> its description
#   cmake -DTOOL=path -DPAGE=out.1 -DVERSION=1.1 -P man_page.cmake
cmake_policy(VERSION 3.20)
execute_process(COMMAND "${TOOL}" --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${TOOL} --help exited with ${status}")
endif()
get_filename_component(name "${TOOL}" NAME)
string(TOUPPER "${name}" title)

# roff: a backslash is \e, a minus sign \-.
string(REPLACE "\\" "\\e" help "${help}")
string(REPLACE "-" "\\-" help "${help}")
# A CMake list splits at ';' and keeps bracketed runs together: both are
# hidden while the text is a list of lines.
string(REPLACE ";" "@semicolon@" help "${help}")
string(REPLACE "[" "@open@" help "${help}")
string(REPLACE "]" "@close@" help "${help}")
string(REPLACE "\n" ";" lines "${help}")

set(synopsis "")
set(summary "")
set(body "")
set(state usage)
foreach(line IN LISTS lines)
  # A line starting with a dot or quote would be a roff request.
  string(REGEX REPLACE "^([.'])" "\\\\&\\1" line "${line}")
  if(state STREQUAL "usage")
    if(line STREQUAL "")
      set(state summary)
    else()
      string(REGEX REPLACE "^(Usage: |       )" "" line "${line}")
      string(REGEX REPLACE "^([^ ]+)(.*)$" "\\\\fB\\1\\\\fR\\2" line "${line}")
      string(APPEND synopsis "${line}\n.br\n")
    endif()
  elseif(state STREQUAL "summary")
    set(summary "${line}")
    string(APPEND body ".SH DESCRIPTION\n${line}\n")
    set(state text)
  elseif(line MATCHES "^[A-Z][^ :]*( [^ :]+)*:$")
    string(REGEX REPLACE ":$" "" section "${line}")
    string(TOUPPER "${section}" section)
    string(APPEND body ".SH ${section}\n")
  elseif(line MATCHES "^      ")
    string(REGEX REPLACE "^ +" "" line "${line}")
    # An option or argument explained on a line of its own keeps its line.
    if(line MATCHES "^(\\\\-|[A-Z]+:)")
      string(APPEND body ".br\n")
    endif()
    string(APPEND body "${line}\n")
  elseif(line MATCHES "^  [^ ]")
    string(REGEX REPLACE "^ +" "" line "${line}")
    string(APPEND body ".TP\n.B ${line}\n")
  elseif(line STREQUAL "")
    string(APPEND body ".PP\n")
  else()
    string(APPEND body "${line}\n")
  endif()
endforeach()

set(page ".TH ${title} 1 \"\" \"bvsapssf ${VERSION}\" \"User Commands\"\n")
string(APPEND page ".SH NAME\n${name} \\- ${summary}\n.SH SYNOPSIS\n${synopsis}${body}")
string(REGEX REPLACE "\\.PP\n(\\.SH|\\.TP)" "\\1" page "${page}")
string(REPLACE "@semicolon@" ";" page "${page}")
string(REPLACE "@open@" "[" page "${page}")
string(REPLACE "@close@" "]" page "${page}")
file(WRITE "${PAGE}" "${page}")
