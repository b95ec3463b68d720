# Checks of the sources that are part of every build: each public header compiles alone, and nobody includes what its
# component may not see.

file(GLOB_RECURSE GVND_NTHOST_HEADERS CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/nthost/include
    ${PROJECT_SOURCE_DIR}/nthost/include/*.h)
file(GLOB_RECURSE GVND_BOUNDARY_HEADERS CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/include
    ${PROJECT_SOURCE_DIR}/include/*.h)
file(GLOB_RECURSE GVND_WORKBENCH_HEADERS CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/workbench/include
    ${PROJECT_SOURCE_DIR}/workbench/include/*.h)
file(GLOB_RECURSE GVND_CHECKER_HEADERS CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/checker/include
    ${PROJECT_SOURCE_DIR}/checker/include/*.h)

# Writes a file that includes one header twice, so that a missing #pragma once shows too.
function(gvnd_header_probe out header extension)
    string(MAKE_C_IDENTIFIER ${header} name)
    set(probe ${PROJECT_BINARY_DIR}/header_check/${name}.${extension})
    file(CONFIGURE OUTPUT ${probe} CONTENT "#include <${header}>\n#include <${header}>\n")
    set(${out} ${probe} PARENT_SCOPE)
endfunction()

set(GVND_PROBES "")
foreach(header IN LISTS GVND_NTHOST_HEADERS GVND_BOUNDARY_HEADERS GVND_WORKBENCH_HEADERS
        GVND_CHECKER_HEADERS)
    gvnd_header_probe(probe ${header} cpp)
    list(APPEND GVND_PROBES ${probe})
endforeach()
# A plugin may be written in C.
foreach(header gvnd/plugin.h gvnd/plugin_entry.h ntifs.h workbench/workbench_c.h)
    if(${header} IN_LIST GVND_NTHOST_HEADERS OR ${header} IN_LIST GVND_BOUNDARY_HEADERS OR
       ${header} IN_LIST GVND_WORKBENCH_HEADERS)
        gvnd_header_probe(probe ${header} c)
        list(APPEND GVND_PROBES ${probe})
    endif()
endforeach()

if(GVND_PROBES)
    add_library(header_check OBJECT ${GVND_PROBES})
    target_compile_options(header_check PRIVATE ${GVND_HOSTED_FLAGS} -fshort-wchar)
    target_compile_definitions(header_check PRIVATE NTHOST_CHECKS=$<BOOL:${GVND_CHECKS}>)
    target_include_directories(header_check PRIVATE ${PROJECT_SOURCE_DIR}/nthost/include ${PROJECT_SOURCE_DIR}/include
        ${PROJECT_SOURCE_DIR}/workbench/include ${PROJECT_SOURCE_DIR}/checker/include ${PROJECT_SOURCE_DIR}/plugins)
endif()

file(GLOB_RECURSE GVND_RULED_FILES CONFIGURE_DEPENDS
    ${PROJECT_SOURCE_DIR}/driver/*.h ${PROJECT_SOURCE_DIR}/driver/*.cpp
    ${PROJECT_SOURCE_DIR}/plugins/memfs/*.h ${PROJECT_SOURCE_DIR}/plugins/memfs/*.cpp
    ${PROJECT_SOURCE_DIR}/plugins/entry/*.cpp
    ${PROJECT_SOURCE_DIR}/nthost/*.h ${PROJECT_SOURCE_DIR}/nthost/*.cpp)
add_custom_command(
    OUTPUT ${PROJECT_BINARY_DIR}/check-includes.stamp
    COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-includes
    COMMAND ${CMAKE_COMMAND} -E touch ${PROJECT_BINARY_DIR}/check-includes.stamp
    DEPENDS ${GVND_RULED_FILES} ${PROJECT_SOURCE_DIR}/scripts/check-includes
    COMMENT "Checking the include rules"
    VERBATIM)
add_custom_target(check_includes ALL DEPENDS ${PROJECT_BINARY_DIR}/check-includes.stamp)
