# Installs BUILD_DIR into a prefix that is made anew. Then, against that prefix: builds the project in SOURCE_DIR and runs
# it; builds the plugin of the guide from a directory of its own, and has the installed tool read its file.

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

set(plugin ${work}/hello)
file(COPY ${SOURCE_DIR}/plugin/CMakeLists.txt ${SOURCE_DIR}/../plugin_example/hello_plugin.cpp DESTINATION ${plugin})
run(${CMAKE_COMMAND} -G Ninja -S ${plugin} -B ${plugin}/build -D CMAKE_PREFIX_PATH=${work}/prefix
    -D CMAKE_CXX_COMPILER=${CXX} -D CMAKE_BUILD_TYPE=Release)
run(${CMAKE_COMMAND} --build ${plugin}/build)
execute_process(COMMAND ${work}/prefix/bin/gvnd shell -p so:${plugin}/build/hello.so -c "cat /hello.txt"
    OUTPUT_VARIABLE output RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT output STREQUAL "Hello, volume.\n")
    message(FATAL_ERROR "the plugin's file reads '${output}', exit code ${result}")
endif()
if(NOT EXISTS ${plugin}/build/hello.sys)
    message(FATAL_ERROR "the plugin has no image")
endif()
run(${SOURCE_DIR}/../../packaging/nt/check_image.py ${plugin}/build/hello.sys)
