# The plugins in examples/ are projects of their own, which the tests build as their reader would. Built here as well,
# the presets' compilers and sanitizers see them; and those that come with libraries of their own are shipped.

if(NOT TARGET gvnd_nthost OR NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

# The shared object examples/<name>.so from examples/<name>/.
function(gvnd_example name)
    file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/examples/${name}/*.c
        ${PROJECT_SOURCE_DIR}/examples/${name}/*.cpp)
    add_library(gvnd_${name} MODULE ${sources})
    set_target_properties(gvnd_${name} PROPERTIES PREFIX "" OUTPUT_NAME ${name} C_VISIBILITY_PRESET hidden
        CXX_VISIBILITY_PRESET hidden LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/examples)
    target_compile_options(gvnd_${name} PRIVATE ${GVND_HOSTED_FLAGS})
    target_compile_definitions(gvnd_${name} PRIVATE NTHOST_MS_ABI=$<BOOL:${GVND_MS_ABI}>)
    target_link_libraries(gvnd_${name} PRIVATE gvnd_ntifs gvnd_plugin ${ARGN})
endfunction()

gvnd_example(hello)
gvnd_example(slots)
find_package(LibArchive REQUIRED)
gvnd_example(archive LibArchive::LibArchive)
install(TARGETS gvnd_archive DESTINATION ${CMAKE_INSTALL_LIBDIR}/gvnd COMPONENT plugins)
