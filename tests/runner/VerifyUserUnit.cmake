# Installs the build to a prefix of its own and has systemd-analyze check the user unit there,
# ExecStart included (it must name the installed, executable program).
find_program(ANALYZE systemd-analyze)
if(NOT ANALYZE)
  message("SKIPPED: systemd-analyze is not installed")
  return()
endif()
include("${CMAKE_CURRENT_LIST_DIR}/InstallToPrefix.cmake")
file(GLOB_RECURSE units "${prefix}/*/systemd/user/vexlor-schedule.service")
list(LENGTH units count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one installed user unit, found: ${units}")
endif()
file(READ "${units}" text)
message("${text}")
string(FIND "${text}" "ExecStart=${prefix}/bin/vexlor-schedule run\n" at)
if(at EQUAL -1)
  message(FATAL_ERROR "ExecStart does not name ${prefix}/bin/vexlor-schedule")
endif()
# --user needs a runtime folder; verify prints what it ignores and still exits 0.
file(MAKE_DIRECTORY "${WORK_DIR}/runtime")
execute_process(COMMAND ${CMAKE_COMMAND} -E env "XDG_RUNTIME_DIR=${WORK_DIR}/runtime"
    "${ANALYZE}" --user verify "${units}"
  RESULT_VARIABLE failed OUTPUT_VARIABLE said ERROR_VARIABLE said)
if(failed OR NOT said STREQUAL "")
  message(FATAL_ERROR "systemd-analyze verify refused the unit (${failed}): ${said}")
endif()
