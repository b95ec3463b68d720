# Installs BUILD_DIR into a prefix that is made anew. Then, against that prefix: builds the project in SOURCE_DIR and runs
# it; builds the installed examples, each from a directory of its own, has the installed tool use them, and checks their
# images.

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
run(${work}/build/contract_test)

set(plugins ${work}/plugins)
foreach(example hello slots archive)
    set(source ${work}/prefix/share/doc/gvnd/examples/${example})
    set(build ${work}/${example})
    run(${CMAKE_COMMAND} -G Ninja -S ${source} -B ${build} -D CMAKE_PREFIX_PATH=${work}/prefix
        -D CMAKE_CXX_COMPILER=${CXX} -D CMAKE_BUILD_TYPE=Release)
    run(${CMAKE_COMMAND} --build ${build})
    file(COPY ${build}/${example}.so DESTINATION ${plugins})
endforeach()
run(${SOURCE_DIR}/use_examples.sh ${work}/prefix/bin/gvnd ${plugins})
foreach(example hello slots)
    run(${SOURCE_DIR}/../../packaging/nt/check_image.py ${work}/${example}/${example}.sys)
endforeach()
# What installs and describes the service that the example asked for, by the installed scripts.
run(${work}/prefix/share/gvnd/inf_to_reg.py ${work}/slots/slots.inf)
run(${work}/prefix/share/gvnd/symbol_store.py ${work}/symbols ${work}/slots/slots.sys)
file(STRINGS ${work}/slots/slots.sys version ENCODING UTF-16LE REGEX "^1\\.2\\.0\\.0$")
if(NOT version)
    message(FATAL_ERROR "slots.sys does not tell its version")
endif()
