# Writes the manual page vexlor-schedule(1) from the program's own --help, that of each of its
# commands included, so that the page says what the program does.
#   cmake -DPROGRAM=path -DOUTPUT=file.1 -DVERSION=x.y -P ManPage.cmake

function(help_of out)
  execute_process(COMMAND "${PROGRAM}" ${ARGN} --help
    RESULT_VARIABLE failed OUTPUT_VARIABLE text ERROR_VARIABLE error)
  if(failed)
    message(FATAL_ERROR "${PROGRAM} ${ARGN} --help failed (${failed}): ${error}")
  endif()
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

# Text shown as it is: roff's escape character and control lines made literal.
function(verbatim out text)
  string(REPLACE "\\" "\\e" text "${text}")
  string(REPLACE "-" "\\-" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} ".nf\n${text}.fi\n" PARENT_SCOPE)
endfunction()

function(usage_of out text)
  string(REGEX MATCH "Usage: ([^\n]*)" line "${text}")
  set(${out} "${CMAKE_MATCH_1}" PARENT_SCOPE)
endfunction()

help_of(main)
# The commands as --help lists them: two spaces, the name, and its summary.
string(REGEX MATCH "\nSubcommands:\n(.*)" listing "${main}")
string(REGEX MATCHALL "\n  [a-z][a-z0-9-]*" commands "\n${CMAKE_MATCH_1}")
string(REGEX REPLACE "\n  " "" commands "${commands}")
if(NOT commands)
  message(FATAL_ERROR "no commands found in the output of ${PROGRAM} --help")
endif()

usage_of(synopsis "${main}")
set(synopsis "${synopsis}\n")
set(sections "")
foreach(command IN LISTS commands)
  help_of(help ${command})
  usage_of(usage "${help}")
  string(APPEND synopsis "${usage}\n")
  verbatim(text "${help}")
  string(APPEND sections ".SS ${command}\n${text}")
endforeach()
verbatim(synopsis "${synopsis}")
verbatim(description "${main}")

file(WRITE "${OUTPUT}" ".TH VEXLOR-SCHEDULE 1 \"\" \"vexlor-schedule ${VERSION}\" \"User Commands\"
.SH NAME
vexlor-schedule \\- plans recordings and runs them
.SH SYNOPSIS
${synopsis}.SH DESCRIPTION
${description}.SH COMMANDS
${sections}.SH FILES
.TP
.I ~/.config/vexlor-schedule/settings.ini
The default schedule and its on/off switch.
.SH SEE ALSO
.BR systemctl (1):
the user unit vexlor-schedule.service keeps
.B vexlor-schedule run
going in the background.
")
