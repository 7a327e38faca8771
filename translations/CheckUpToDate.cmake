# Fails when the code has texts that a .ts file lacks, or the .ts file keeps texts that the
# code no longer has: lupdate run over a copy must leave it unchanged.
# Arguments: LUPDATE, SOURCES (directory scanned), TS (the file), WORK_DIR.
file(MAKE_DIRECTORY ${WORK_DIR})
get_filename_component(name ${TS} NAME)
set(copy ${WORK_DIR}/${name})
configure_file(${TS} ${copy} COPYONLY)
execute_process(
  COMMAND ${LUPDATE} -silent -locations none -no-obsolete ${SOURCES} -ts ${copy}
  RESULT_VARIABLE result
  ERROR_QUIET)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "lupdate failed: ${result}")
endif()
file(READ ${TS} expected)
file(READ ${copy} actual)
if(NOT expected STREQUAL actual)
  message(FATAL_ERROR "${name} is out of date with the code; run the update_translations target")
endif()
