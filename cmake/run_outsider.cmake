# Installs BUILD_DIR into a prefix that is made anew, builds the project in SOURCE_DIR against that prefix, and runs it.

set(work ${BUILD_DIR}/outsider)
file(REMOVE_RECURSE ${work})

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "${command}\n${output}\nended with ${result}")
    endif()
endfunction()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${work}/prefix)
run(${CMAKE_COMMAND} -G Ninja -S ${SOURCE_DIR} -B ${work}/build -D CMAKE_PREFIX_PATH=${work}/prefix
    -D CMAKE_CXX_COMPILER=${CXX} -D CMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${work}/build)
run(${work}/build/outsider)
run(${work}/build/hello_test)
