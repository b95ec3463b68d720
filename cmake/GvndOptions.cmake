# Options, and the flags that every file of the project is compiled with. The flags are kept in lists that
# GvndFunctions.cmake applies per target, so that a project which adds this one as a subdirectory keeps its own.

option(GVND_CHECKS "Build nthost with its checks (lock order, request life cycle, leaks)" ON)
option(GVND_MS_ABI "NT routines and callbacks have the Microsoft calling convention, so that kernel images can be loaded"
    OFF)
option(GVND_BUILD_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(GVND_BUILD_TOOL "Build the gvnd command line tool" ${PROJECT_IS_TOP_LEVEL})
option(GVND_BUILD_FUZZ "Build the fuzz targets; needs clang and -fsanitize=fuzzer-no-link" OFF)
option(GVND_BUILD_BENCH "Build the benchmarks" OFF)
option(GVND_BUILD_CHECKS "Compile every public header alone and check the include rules" ${PROJECT_IS_TOP_LEVEL})
set(GVND_SANITIZE "" CACHE STRING "Value of -fsanitize= for everything, or empty")

if(CMAKE_SYSTEM_NAME STREQUAL "Generic")
    set(GVND_NT TRUE)
endif()

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_C_STANDARD_REQUIRED ON)
set(CMAKE_C_EXTENSIONS OFF)

if(PROJECT_IS_TOP_LEVEL)
    set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
    find_program(GVND_CCACHE ccache)
    mark_as_advanced(GVND_CCACHE)
    if(GVND_CCACHE)
        # Without these the cache would leave out all that uses a precompiled header.
        set(CMAKE_CXX_COMPILER_LAUNCHER
            ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${GVND_CCACHE})
        set(CMAKE_C_COMPILER_LAUNCHER ${CMAKE_CXX_COMPILER_LAUNCHER})
    endif()
endif()

# A pool tag is written as a character constant of four.
set(GVND_WARNING_FLAGS -Wall -Wextra -Werror -Wno-multichar)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Too often wrong about out parameters that are set on success only; clang's analysis covers the rest.
    list(APPEND GVND_WARNING_FLAGS -Wno-maybe-uninitialized)
endif()

# Pool blocks are cast to what they hold, and stacks are walked for reports: hence the two -fno-.
set(GVND_HOSTED_FLAGS ${GVND_WARNING_FLAGS} -fno-strict-aliasing -fno-omit-frame-pointer -pthread)

# What becomes a kernel image is compiled without exceptions in both builds, so that neither can come to lean on them.
set(GVND_KERNEL_FLAGS -fno-exceptions -fno-rtti)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    list(APPEND GVND_KERNEL_FLAGS -Wthread-safety)
endif()

if(GVND_SANITIZE)
    add_compile_options(-fsanitize=${GVND_SANITIZE})
    add_link_options(-fsanitize=${GVND_SANITIZE})
    if(GVND_SANITIZE MATCHES "undefined")
        # Classes and types come from callers as any number and are checked as numbers.
        add_compile_options(-fno-sanitize-recover=undefined -fno-sanitize=enum)
    endif()
endif()
