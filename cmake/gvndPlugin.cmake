# gvnd_add_plugin(NAME SOURCES FILE... [INCLUDE_DIRECTORIES DIRECTORY...] [NO_IMAGE]
#                 [VERSION A.B.C [DATE MM/DD/YYYY] [PROVIDER TEXT] [DESCRIPTION TEXT] [ARGUMENTS TEXT]])
#
# Makes of the same sources, in C or C++:
# - the shared object NAME.so, target NAME, which `gvnd shell -p so:NAME.so` and `gvnd mount` load;
# - the kernel driver NAME.sys with its PDB, target NAME_sys, in all. It needs clang, lld-link, Python and the MinGW-w64
#   headers and import libraries, and llvm-rc for a version; where one of them is missing, a line says so and there is no
#   such target.
#   With VERSION the driver has a version resource, and NAME.inf beside it, which installs its service; DATE is today's by
#   default, and ARGUMENTS are what the service's volume is made with.
#
# The sources define GvndGetPlugin (gvnd/plugin_entry.h) and use nothing but <ntifs.h> and the C++ language: what else the
# shared object needs is linked with target_link_libraries(NAME ...), and then there can be no image (NO_IMAGE).

include("${CMAKE_CURRENT_LIST_DIR}/GvndNtFlags.cmake")
include("${CMAKE_CURRENT_LIST_DIR}/gvndService.cmake")
set(GVND_PLUGIN_CMAKE_DIR "${CMAKE_CURRENT_LIST_DIR}")

find_program(GVND_CROSS_CLANG NAMES clang clang-14 clang-15 clang-16)
find_program(GVND_LLD_LINK NAMES lld-link lld-link-14 lld-link-15 lld-link-16)
find_program(GVND_PYTHON NAMES python3)
set(GVND_MINGW_DIR /usr/x86_64-w64-mingw32 CACHE PATH "Where the NT headers and import libraries are")
mark_as_advanced(GVND_CROSS_CLANG GVND_LLD_LINK GVND_PYTHON GVND_MINGW_DIR)

function(gvnd_add_plugin name)
    cmake_parse_arguments(ARG "NO_IMAGE" "VERSION;DATE;PROVIDER;DESCRIPTION;ARGUMENTS" "SOURCES;INCLUDE_DIRECTORIES"
        ${ARGN})
    if(NOT ARG_SOURCES)
        message(FATAL_ERROR "gvnd_add_plugin(${name} ...) has no SOURCES")
    endif()
    add_library(${name} MODULE ${ARG_SOURCES})
    set_target_properties(${name} PROPERTIES PREFIX "" C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden)
    target_compile_features(${name} PRIVATE cxx_std_20)
    target_include_directories(${name} PRIVATE ${ARG_INCLUDE_DIRECTORIES})
    target_link_libraries(${name} PRIVATE gvnd::ntifs gvnd::plugin)
    if(ARG_NO_IMAGE)
        return()
    endif()
    if(NOT GVND_CROSS_CLANG OR NOT GVND_LLD_LINK OR NOT GVND_PYTHON OR NOT EXISTS "${GVND_MINGW_DIR}/include/ddk" OR
       (ARG_VERSION AND NOT GVND_LLVM_RC))
        message(STATUS
            "${name}: no ${name}.sys, for want of clang, lld-link, llvm-rc, python3 or ${GVND_MINGW_DIR}/include/ddk")
        return()
    endif()
    _gvnd_plugin_image(${name})
endfunction()

function(_gvnd_plugin_image name)
    set(includes "")
    get_target_property(boundary gvnd::plugin INTERFACE_INCLUDE_DIRECTORIES)
    foreach(directory IN LISTS boundary ARG_INCLUDE_DIRECTORIES)
        get_filename_component(directory "${directory}" ABSOLUTE)
        list(APPEND includes -I${directory})
    endforeach()
    set(objects "")
    foreach(source IN LISTS ARG_SOURCES ITEMS "${GVND_PLUGIN_DRIVER_SOURCE}")
        get_filename_component(path "${source}" ABSOLUTE)
        get_filename_component(file "${source}" NAME)
        string(MD5 place "${path}")
        set(object "${CMAKE_CURRENT_BINARY_DIR}/${name}.sys.dir/${place}/${file}.obj")
        set(language ${GVND_NT_CXX_FLAGS} -x c++ -std=c++20)
        if(file MATCHES "\\.c$")
            set(language -x c -std=c11)
        endif()
        add_custom_command(OUTPUT "${object}"
            COMMAND ${CMAKE_COMMAND} -E make_directory "${CMAKE_CURRENT_BINARY_DIR}/${name}.sys.dir/${place}"
            COMMAND ${GVND_CROSS_CLANG} --target=x86_64-w64-windows-gnu ${GVND_NT_COMPILE_FLAGS} ${language}
                -Wno-multichar -isystem ${GVND_MINGW_DIR}/include -isystem ${GVND_MINGW_DIR}/include/ddk ${includes}
                -MD -MF "${object}.d" -c "${path}" -o "${object}"
            DEPENDS "${path}" DEPFILE "${object}.d"
            COMMENT "Building ${name}.sys: ${file}" VERBATIM)
        list(APPEND objects "${object}")
    endforeach()
    if(ARG_VERSION)
        if(NOT ARG_DATE)
            string(TIMESTAMP ARG_DATE "%m/%d/%Y" UTC)
        endif()
        gvnd_service_files(${name} INF "${GVND_PLUGIN_INF_TEMPLATE}" VERSION ${ARG_VERSION} DATE ${ARG_DATE}
            PROVIDER "${ARG_PROVIDER}" DESCRIPTION "${ARG_DESCRIPTION}" ARGUMENTS "${ARG_ARGUMENTS}")
        list(APPEND objects "${CMAKE_CURRENT_BINARY_DIR}/${name}.res")
    endif()
    add_custom_command(OUTPUT "${CMAKE_CURRENT_BINARY_DIR}/${name}.sys"
        COMMAND ${GVND_LLD_LINK} ${GVND_NT_LINK_FLAGS} /pdb:${name}.pdb /out:${name}.sys ${objects}
            ${GVND_MINGW_DIR}/lib/libntoskrnl.a
        COMMAND ${GVND_PYTHON} "${GVND_PLUGIN_CHECKSUM}" ${name}.sys
        DEPENDS ${objects} WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
        COMMENT "Linking ${name}.sys" VERBATIM)
    add_custom_target(${name}_sys ALL DEPENDS "${CMAKE_CURRENT_BINARY_DIR}/${name}.sys")
endfunction()
