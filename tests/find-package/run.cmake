# Installs the build tree into a scratch prefix, then configures, builds and runs the
# consumer project's two programs against it with find_package.
file(REMOVE_RECURSE "${WORK_DIR}")
set(prefix "${WORK_DIR}/prefix")

function(run_step)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "step failed (${result}): ${ARGN}")
  endif()
endfunction()

run_step(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${prefix}")
run_step(${CMAKE_COMMAND} -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build"
         "-DCMAKE_PREFIX_PATH=${prefix}" "-DQt5_DIR=${Qt5_DIR}")
run_step(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
run_step("${WORK_DIR}/build/consumer")
run_step("${WORK_DIR}/build/consumer_own_services")
