# The kernel images: the sources of the hosted build, compiled for NT and linked by lld-link into gvnd.sys and
# gvmemfs.sys, each with its PDB. Images carry no time and no path, so two builds anywhere are byte-identical.

include(GvndNtFlags)
set(GVND_VERSION_TEMPLATE ${PROJECT_SOURCE_DIR}/packaging/nt/version.rc.in)
include(gvndService)
set(GVND_NT_FLAGS ${GVND_WARNING_FLAGS} ${GVND_KERNEL_FLAGS} ${GVND_NT_COMPILE_FLAGS} -fno-threadsafe-statics
    -ffile-prefix-map=${PROJECT_SOURCE_DIR}=. -ffile-compilation-dir=.)

file(CREATE_LINK ${PROJECT_SOURCE_DIR} ${PROJECT_BINARY_DIR}/source SYMBOLIC)
# Instead of the compiler cache, which would leave its mark on the recorded command line.
set(CMAKE_CXX_COMPILER_LAUNCHER ${PROJECT_SOURCE_DIR}/cmake/nt-compile.sh ${PROJECT_SOURCE_DIR})

set(GVND_NT_SYSTEM_DIRS ${GVND_MINGW_DIR}/include ${GVND_MINGW_DIR}/include/ddk)

list(JOIN GVND_NT_LINK_FLAGS " " link_flags)
string(REPLACE "\\" "\\\\" link_flags "${link_flags}") # for the shell
set(CMAKE_CXX_LINK_EXECUTABLE
    "<GVND_LINKER> ${link_flags} <LINK_FLAGS> /out:<TARGET> <OBJECTS> <LINK_LIBRARIES>")
string(REPLACE "<GVND_LINKER>" "${GVND_LLD_LINK}" CMAKE_CXX_LINK_EXECUTABLE "${CMAKE_CXX_LINK_EXECUTABLE}")

# An image named <name>.sys from the sources below the directories; private headers are found in the first.
function(gvnd_nt_image name directory)
    gvnd_sources(sources ${directory})
    foreach(other IN LISTS ARGN)
        gvnd_sources(more ${other})
        list(APPEND sources ${more})
    endforeach()
    if(NOT sources)
        return()
    endif()
    add_executable(${name} ${sources})
    set_target_properties(${name} PROPERTIES SUFFIX .sys)
    target_include_directories(${name} SYSTEM PRIVATE ${GVND_NT_SYSTEM_DIRS})
    target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/${directory} ${PROJECT_SOURCE_DIR}/include)
    target_compile_options(${name} PRIVATE ${GVND_NT_FLAGS})
    set_property(TARGET ${name} PROPERTY LINK_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/nt/set_checksum.py)
    target_link_libraries(${name} PRIVATE ${GVND_MINGW_DIR}/lib/libntoskrnl.a)
    target_link_options(${name} PRIVATE /pdb:${name}.pdb /map:${name}.map)
    add_custom_command(TARGET ${name} POST_BUILD
        COMMAND ${PROJECT_SOURCE_DIR}/packaging/nt/set_checksum.py ${name}.sys VERBATIM)
    set_property(TARGET ${name} APPEND PROPERTY ADDITIONAL_CLEAN_FILES ${name}.pdb ${name}.map)
endfunction()

# One that is shipped: with its INF and version, its PDB, and its map, by which nthost names its functions.
function(gvnd_nt_product name directory)
    cmake_parse_arguments(ARG "" "INF;DESCRIPTION;ARGUMENTS" "DIRECTORIES" ${ARGN})
    gvnd_nt_image(${name} ${directory} ${ARG_DIRECTORIES})
    gvnd_service_files(${name} INF ${PROJECT_SOURCE_DIR}/packaging/nt/${ARG_INF} VERSION ${PROJECT_VERSION}
        DATE ${GVND_RELEASE_DATE} PROVIDER gvnd DESCRIPTION "${ARG_DESCRIPTION}" ARGUMENTS "${ARG_ARGUMENTS}")
    target_link_options(${name} PRIVATE ${name}.res)
    target_sources(${name} PRIVATE ${PROJECT_BINARY_DIR}/${name}.res)
    set_property(TARGET ${name} APPEND PROPERTY LINK_DEPENDS ${PROJECT_BINARY_DIR}/${name}.res)
    foreach(extension sys inf pdb map)
        install(FILES ${PROJECT_BINARY_DIR}/${name}.${extension} DESTINATION drivers)
    endforeach()
    add_test(NAME nt.${name}.ImageIsSound
        COMMAND ${PROJECT_SOURCE_DIR}/packaging/nt/check_image.py $<TARGET_FILE:${name}>)
endfunction()

enable_testing()
gvnd_nt_product(gvnd driver INF gvnd.inf.in DESCRIPTION "File system whose storage is a plugin's")
gvnd_nt_product(gvmemfs plugins/memfs DIRECTORIES plugins/entry INF plugin.inf.in
    DESCRIPTION "File system in memory, a plugin of gvnd" ARGUMENTS "capacity=1G,label=Memory")
# A driver for the tests of nthost's loader.
gvnd_nt_image(exerciser tests/image_driver)

gvnd_sources(GVND_LAYOUT_SOURCES tests/layout)
if(GVND_LAYOUT_SOURCES)
    add_library(gvnd_layout OBJECT ${GVND_LAYOUT_SOURCES})
    target_compile_options(gvnd_layout PRIVATE ${GVND_NT_FLAGS})
    target_include_directories(gvnd_layout SYSTEM PRIVATE ${GVND_NT_SYSTEM_DIRS})
    target_include_directories(gvnd_layout PRIVATE ${PROJECT_SOURCE_DIR}/driver ${PROJECT_SOURCE_DIR}/include)
endif()

add_test(NAME nt.ImageCheckRefusesWrongReads
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/nt/check_image_test.py)
# On the smaller of the two, since each damage means another disassembly.
add_test(NAME nt.DamagedImagesAreRefused
    COMMAND ${PROJECT_SOURCE_DIR}/tests/scripts/check_image.py $<TARGET_FILE:gvmemfs>)
add_test(NAME nt.Delivery COMMAND ${PROJECT_SOURCE_DIR}/tests/scripts/nt_delivery.py ${PROJECT_BINARY_DIR}
    ${PROJECT_VERSION})
add_test(NAME nt.ImagesAreReproducible
    COMMAND ${PROJECT_SOURCE_DIR}/packaging/nt/check_reproducible.sh ${PROJECT_BINARY_DIR})
