# Installs BUILD_DIR to a fresh prefix under WORK_DIR and sets `prefix` to it.
set(prefix "${WORK_DIR}/prefix")
file(REMOVE_RECURSE "${WORK_DIR}")
execute_process(COMMAND ${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}"
  RESULT_VARIABLE failed OUTPUT_QUIET)
if(failed)
  message(FATAL_ERROR "cmake --install failed")
endif()
