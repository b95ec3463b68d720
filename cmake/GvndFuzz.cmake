# The fuzz targets: fuzz/<name>.cpp becomes fuzz_<name>, its corpus is fuzz/corpus/<name>. What they have in common is in
# fuzz/support. The libraries are compiled with -fsanitize=fuzzer-no-link (preset fuzz), so that their branches count.

gvnd_sources(GVND_FUZZ_SUPPORT fuzz/support)
add_library(gvnd_fuzzsupport STATIC ${GVND_FUZZ_SUPPORT})
target_compile_options(gvnd_fuzzsupport PRIVATE ${GVND_HOSTED_FLAGS})
target_include_directories(gvnd_fuzzsupport PUBLIC ${PROJECT_SOURCE_DIR}/fuzz)
target_link_libraries(gvnd_fuzzsupport PUBLIC ${GVND_LINK_ALL} gvnd_plugin)

file(GLOB GVND_FUZZ_TARGETS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/fuzz/*.cpp)
foreach(source IN LISTS GVND_FUZZ_TARGETS)
    get_filename_component(name ${source} NAME_WE)
    gvnd_executable(fuzz_${name} ${source})
    target_include_directories(fuzz_${name} PRIVATE ${PROJECT_SOURCE_DIR}/nthost)
    target_link_libraries(fuzz_${name} PRIVATE gvnd_fuzzsupport)
    target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
endforeach()
