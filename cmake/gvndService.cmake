# gvnd_service_files(NAME INF TEMPLATE VERSION A[.B[.C[.D]]] DATE MM/DD/YYYY [PROVIDER TEXT] [DESCRIPTION TEXT]
#                    [ARGUMENTS TEXT])
#
# What a kernel image is installed with, in the current binary directory: NAME.inf, of the template, and NAME.res, the
# version resource, which the image is to be linked with. Nothing in them tells when or where they were made.

find_program(GVND_LLVM_RC NAMES llvm-rc llvm-rc-14 llvm-rc-15 llvm-rc-16)
mark_as_advanced(GVND_LLVM_RC)

function(gvnd_service_files name)
    cmake_parse_arguments(ARG "" "INF;VERSION;DATE;PROVIDER;DESCRIPTION;ARGUMENTS" "" ${ARGN})
    set(GVND_SERVICE ${name})
    set(GVND_IMAGE ${name}.sys)
    set(GVND_RELEASE_DATE ${ARG_DATE})
    set(GVND_ARGUMENTS "${ARG_ARGUMENTS}")
    foreach(field PROVIDER DESCRIPTION)
        set(GVND_${field} ${name})
        if(ARG_${field})
            set(GVND_${field} "${ARG_${field}}")
        endif()
    endforeach()
    string(REPLACE "." ";" numbers "${ARG_VERSION};0;0;0")
    list(SUBLIST numbers 0 4 numbers)
    list(JOIN numbers "." GVND_VERSION_DOTS)
    list(JOIN numbers "," GVND_VERSION_COMMAS)
    configure_file(${ARG_INF} ${CMAKE_CURRENT_BINARY_DIR}/${name}.inf @ONLY NEWLINE_STYLE DOS)
    configure_file(${GVND_VERSION_TEMPLATE} ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc @ONLY)
    add_custom_command(OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${name}.res
        COMMAND ${GVND_LLVM_RC} -no-preprocess -FO ${name}.res ${name}.rc
        DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/${name}.rc WORKING_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}
        COMMENT "Building ${name}.res" VERBATIM)
endfunction()
