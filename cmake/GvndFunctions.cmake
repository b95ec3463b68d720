# Helpers that the other modules share.

# All C++ files below a directory. Asked again at every build, so that a new file is noticed.
function(gvnd_sources out directory)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${directory}/*.cpp)
    set(${out} ${found} PARENT_SCOPE)
endfunction()

# A static library that is exported as gvnd::<name>.
function(gvnd_library name)
    cmake_parse_arguments(ARG "KERNEL" "ENTRY;PLUGIN" "SOURCES" ${ARGN})
    set(target gvnd_${name})
    add_library(${target} STATIC ${ARG_SOURCES})
    add_library(gvnd::${name} ALIAS ${target})
    set_target_properties(${target} PROPERTIES EXPORT_NAME ${name} LINKER_LANGUAGE CXX)
    target_compile_options(${target} PRIVATE ${GVND_HOSTED_FLAGS})
    if(ARG_KERNEL)
        target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:${GVND_KERNEL_FLAGS}>)
    endif()
    if(GVND_SANITIZE)
        # Whoever links the installed library needs the runtimes that it was built for, and their interceptors see only
        # what is compiled for them.
        target_compile_options(${target} INTERFACE $<INSTALL_INTERFACE:-fsanitize=${GVND_SANITIZE}>)
        target_link_options(${target} INTERFACE $<INSTALL_INTERFACE:-fsanitize=${GVND_SANITIZE}>)
    endif()
    if(ARG_ENTRY)
        # Several drivers and plugins stand side by side in one process, each with an entry of its own name.
        target_compile_definitions(${target} PRIVATE DriverEntry=${ARG_ENTRY})
    endif()
    if(ARG_PLUGIN)
        target_compile_definitions(${target} PRIVATE GvndGetPlugin=${ARG_PLUGIN})
    endif()
    install(TARGETS ${target} EXPORT gvndTargets)
endfunction()

# An executable of the project. Sanitizer options that the process needs are compiled in, so that a run by hand behaves
# like a run under ctest.
function(gvnd_executable target)
    add_executable(${target} ${ARGN})
    target_compile_options(${target} PRIVATE ${GVND_HOSTED_FLAGS})
    if(GVND_SANITIZE)
        target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/cmake/sanitizer_options.cpp)
    endif()
endfunction()
