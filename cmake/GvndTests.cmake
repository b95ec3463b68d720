# Tests and benchmarks. tests/<name>/ becomes the executable <name>_tests; if the name begins with a component's, the
# tests see that component's private headers too. Four directories are special: support is linked into all of them,
# layout is compiled only (its assertions are the test), outsider is a project of its own that uses the installed
# package, scripts has the tests of scripts, and mounted has a program that uses a mount from outside.

find_package(GTest REQUIRED)
include(GoogleTest)

# Compile time counts most here, so the tests' own code is not optimised, whatever the rest is.
set(GVND_TEST_FLAGS -O0)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # g++ takes the else inside of GoogleTest's macros for the author's.
    list(APPEND GVND_TEST_FLAGS -Wno-dangling-else)
endif()

gvnd_sources(GVND_SUPPORT_SOURCES tests/support)
set(GVND_TEST_MAIN ${PROJECT_SOURCE_DIR}/tests/support/main.cpp)
if(${GVND_TEST_MAIN} IN_LIST GVND_SUPPORT_SOURCES)
    list(REMOVE_ITEM GVND_SUPPORT_SOURCES ${GVND_TEST_MAIN})
    set(GVND_GTEST GTest::gtest)
else()
    set(GVND_TEST_MAIN "")
    set(GVND_GTEST GTest::gtest GTest::gtest_main)
endif()

if(TARGET gvnd_nthost AND GVND_SUPPORT_SOURCES)
    add_library(gvnd_testsupport STATIC ${GVND_SUPPORT_SOURCES})
    target_compile_options(gvnd_testsupport PRIVATE ${GVND_HOSTED_FLAGS} ${GVND_TEST_FLAGS})
    target_link_libraries(gvnd_testsupport PUBLIC ${GVND_LINK_ALL} gvnd_plugin GTest::gtest)
    target_include_directories(gvnd_testsupport PUBLIC ${PROJECT_SOURCE_DIR}/tests)
endif()

# GoogleTest's header takes longer to read than most tests do. Preset gcc builds without this, and so notices a test that
# forgot to include it.
if(TARGET gvnd_nthost)
    add_library(gvnd_test_header OBJECT ${PROJECT_SOURCE_DIR}/cmake/test_header.cpp)
    target_compile_options(gvnd_test_header PRIVATE ${GVND_HOSTED_FLAGS} ${GVND_TEST_FLAGS})
    target_link_libraries(gvnd_test_header PRIVATE gvnd_nthost GTest::gtest)
    target_precompile_headers(gvnd_test_header PRIVATE <gtest/gtest.h> <atomic> <condition_variable>
        <functional> <map> <mutex> <string> <thread> <vector>)
endif()

set(GVND_PRIVATE_nthost nthost)
set(GVND_PRIVATE_driver driver)
set(GVND_PRIVATE_memfs plugins/memfs)
set(GVND_PRIVATE_hostfs plugins/hostfs plugins/posixfs)

function(gvnd_test_directory name)
    gvnd_sources(sources tests/${name})
    if(NOT sources)
        return()
    endif()
    set(target ${name}_tests)
    gvnd_executable(${target} ${sources} ${GVND_TEST_MAIN})
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/driver)
    string(REGEX REPLACE "_.*" "" component ${name})
    if(DEFINED GVND_PRIVATE_${component})
        target_include_directories(${target} PRIVATE ${GVND_PRIVATE_${component}})
    endif()
    target_compile_options(${target} PRIVATE ${GVND_TEST_FLAGS})
    target_link_libraries(${target} PRIVATE $<TARGET_NAME_IF_EXISTS:gvnd_testsupport> ${GVND_LINK_ALL} gvnd_plugin
        ${GVND_GTEST})
    target_precompile_headers(${target} REUSE_FROM gvnd_test_header)
    if("NOT_DISCOVERED" IN_LIST ARGN)
        return()
    endif()
    gtest_discover_tests(${target} DISCOVERY_MODE PRE_TEST TEST_PREFIX ${name}. PROPERTIES TIMEOUT 120)
endfunction()

file(GLOB GVND_TEST_DIRS CONFIGURE_DEPENDS LIST_DIRECTORIES true RELATIVE ${PROJECT_SOURCE_DIR}/tests
    ${PROJECT_SOURCE_DIR}/tests/*)
list(REMOVE_ITEM GVND_TEST_DIRS support layout outsider scripts mounted soak image_driver nthost_image)
if(TARGET gvnd_nthost)
    foreach(directory IN LISTS GVND_TEST_DIRS)
        if(IS_DIRECTORY ${PROJECT_SOURCE_DIR}/tests/${directory})
            gvnd_test_directory(${directory})
        endif()
    endforeach()
endif()

gvnd_sources(GVND_LAYOUT_SOURCES tests/layout)
if(TARGET gvnd_nthost AND GVND_LAYOUT_SOURCES)
    add_library(gvnd_layout OBJECT ${GVND_LAYOUT_SOURCES})
    target_compile_options(gvnd_layout PRIVATE ${GVND_HOSTED_FLAGS})
    target_include_directories(gvnd_layout PRIVATE ${PROJECT_SOURCE_DIR}/driver)
    target_link_libraries(gvnd_layout PRIVATE gvnd_nthost gvnd_plugin)
endif()

gvnd_sources(GVND_BENCH_SOURCES bench)
if(GVND_BUILD_BENCH AND GVND_BENCH_SOURCES AND TARGET gvnd_driver)
    find_package(benchmark REQUIRED)
    gvnd_executable(gvnd_bench ${GVND_BENCH_SOURCES})
    target_include_directories(gvnd_bench PRIVATE ${PROJECT_SOURCE_DIR}/driver)
    target_link_libraries(gvnd_bench PRIVATE $<TARGET_NAME_IF_EXISTS:gvnd_testsupport> ${GVND_LINK_ALL} gvnd_plugin
        benchmark::benchmark)
    if(NOT ${PROJECT_SOURCE_DIR}/bench/main.cpp IN_LIST GVND_BENCH_SOURCES)
        target_link_libraries(gvnd_bench PRIVATE benchmark::benchmark_main)
    endif()
    # That each case runs and leaves nothing behind; how long it takes is nobody's business here.
    add_test(NAME bench.EachCaseRuns COMMAND gvnd_bench --benchmark_repetitions=1 --benchmark_min_time=0.0001
        "--benchmark_filter=-among 100000")
    set_tests_properties(bench.EachCaseRuns PROPERTIES TIMEOUT 120)
    # The counts are those of one compiler, without checks.
    find_program(GVND_VALGRIND valgrind)
    if(GVND_VALGRIND AND CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang"
            AND NOT GVND_CHECKS AND NOT GVND_MS_ABI)
        add_test(NAME bench.InstructionsAreAsRecorded
            COMMAND ${PROJECT_SOURCE_DIR}/bench/instructions.py $<TARGET_FILE:gvnd_bench> --check)
        set_tests_properties(bench.InstructionsAreAsRecorded PROPERTIES TIMEOUT 300)
    endif()
endif()

# Everything at once: a moment here, hours by hand.
if(TARGET gvnd_workbench)
    gvnd_sources(GVND_SOAK_SOURCES tests/soak)
    gvnd_executable(gvnd_soak ${GVND_SOAK_SOURCES})
    target_include_directories(gvnd_soak PRIVATE ${PROJECT_SOURCE_DIR}/tests ${PROJECT_SOURCE_DIR}/driver)
    target_link_libraries(gvnd_soak PRIVATE ${GVND_LINK_ALL} gvnd_plugin)
    add_test(NAME soak.AMoment COMMAND gvnd_soak 12)
    set_tests_properties(soak.AMoment PROPERTIES TIMEOUT 300)
endif()

# The scripts that the build leans on.
add_test(NAME scripts.CheckIncludesRefusesBadOnes COMMAND ${PROJECT_SOURCE_DIR}/tests/scripts/check_includes.py)

# The tool, by its command line.
if(TARGET gvnd)
    add_test(NAME tool.CommandLine COMMAND ${PROJECT_SOURCE_DIR}/tests/tool/run.sh $<TARGET_FILE:gvnd> ${PROJECT_SOURCE_DIR})
    set_tests_properties(tool.CommandLine PROPERTIES TIMEOUT 300)
endif()

# The plugin over a store of several machines, by servers that the test starts; skipped where there are none to start.
if(TARGET gvnd AND TARGET gvnd_glusterfs AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT GVND_MS_ABI)
    add_test(NAME tool.Distributed COMMAND ${PROJECT_SOURCE_DIR}/scripts/try-distributed -g $<TARGET_FILE:gvnd>
        ${PROJECT_SOURCE_DIR}/tests/tool/distributed.sh)
    set_tests_properties(tool.Distributed PROPERTIES TIMEOUT 600 SKIP_RETURN_CODE 77)
endif()

# The stranger's test of a plugin in C, built here too, where the sanitizers and nthost's checks see it.
if(TARGET gvnd_workbench)
    gvnd_executable(hello_c_test tests/outsider/hello.c tests/outsider/hello_test.c)
    target_link_libraries(hello_c_test PRIVATE gvnd_workbench)
    add_test(NAME outsider.TestsAPluginInC COMMAND hello_c_test)
endif()

# The example plugins, with the compiler and sanitizers of the preset.
if(TARGET gvnd)
    add_test(NAME examples.ToolUsesThem COMMAND ${PROJECT_SOURCE_DIR}/tests/outsider/use_examples.sh
        $<TARGET_FILE:gvnd> ${PROJECT_BINARY_DIR}/examples)
endif()

# The tool's mount, by programs that know nothing of it.
if(TARGET gvnd)
    add_executable(mount_exerciser tests/mounted/exerciser.cpp)
    target_compile_options(mount_exerciser PRIVATE ${GVND_WARNING_FLAGS})
    add_test(NAME tool.Mount COMMAND ${PROJECT_SOURCE_DIR}/tests/tool/mount.sh $<TARGET_FILE:gvnd>
        $<TARGET_FILE:mount_exerciser>)
    set_tests_properties(tool.Mount PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77)
endif()

# The installed package, used by a stranger. One build kind is enough to prove it, and a sanitized one would need the
# stranger to be sanitized too.
if(TARGET gvnd_driver AND NOT GVND_SANITIZE AND NOT GVND_CHECKS AND EXISTS ${PROJECT_SOURCE_DIR}/tests/outsider/main.cpp)
    add_test(NAME outsider.InstalledPackageBuildsAndRuns
        COMMAND ${CMAKE_COMMAND} -D SOURCE_DIR=${PROJECT_SOURCE_DIR}/tests/outsider -D BUILD_DIR=${PROJECT_BINARY_DIR}
            -D CXX=${CMAKE_CXX_COMPILER} -P ${PROJECT_SOURCE_DIR}/cmake/run_outsider.cmake)
    # What is installed is not to be changed, by the making of the reference, while somebody installs it.
    set_tests_properties(outsider.InstalledPackageBuildsAndRuns PROPERTIES TIMEOUT 300 RESOURCE_LOCK installed_files)
    if(TARGET gvnd)
        add_test(NAME packages.InstallRunAndGo
            COMMAND ${PROJECT_SOURCE_DIR}/tests/scripts/packages.sh ${PROJECT_BINARY_DIR})
        set_tests_properties(packages.InstallRunAndGo PROPERTIES TIMEOUT 300 SKIP_RETURN_CODE 77
            RESOURCE_LOCK installed_files)
    endif()
endif()

if(GVND_MS_ABI)
    gvnd_test_directory(nthost_image NOT_DISCOVERED)
    include(GvndImageTests)
endif()
