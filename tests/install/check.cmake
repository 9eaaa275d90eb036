# Run by ctest: installs the build, moves the prefix, then uses it from the consumer project.

# Runs a command and stops the test when it fails.
function(run)
  execute_process(COMMAND ${ARGV} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

# The package must work without help from the environment.
unset(ENV{LD_LIBRARY_PATH})
unset(ENV{CMAKE_PREFIX_PATH})

set(prefix "${WORK_DIR}/moved/here")
file(REMOVE_RECURSE "${WORK_DIR}")
file(MAKE_DIRECTORY "${WORK_DIR}/moved")

run("${CMAKE_COMMAND}" --install "${BUILD_DIR}" --prefix "${WORK_DIR}/installed")
file(RENAME "${WORK_DIR}/installed" "${prefix}")

run("${CMAKE_COMMAND}" -S "${CONSUMER_DIR}" -B "${WORK_DIR}/build" -G "${GENERATOR}"
    "-DCMAKE_CXX_COMPILER=${CXX_COMPILER}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_PREFIX_PATH=${prefix}")
run("${CMAKE_COMMAND}" --build "${WORK_DIR}/build")
run("${WORK_DIR}/build/consumer")

if(CHECK_TOOL)
  execute_process(COMMAND "${prefix}/bin/kyr" --version
                  OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
  string(FIND "${output}" "${VERSION}" position)
  if(position EQUAL -1)
    message(FATAL_ERROR "kyr --version does not name version ${VERSION}: ${output}")
  endif()
endif()
