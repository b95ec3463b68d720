# The plugin over a store of several machines: glusterfs.so, where the store's client library is.

if(NOT TARGET gvnd_nthost OR NOT PROJECT_IS_TOP_LEVEL)
    return()
endif()

find_package(PkgConfig REQUIRED)
pkg_check_modules(GFAPI IMPORTED_TARGET glusterfs-api)
if(NOT GFAPI_FOUND)
    message(STATUS "glusterfs.so: left out, for want of libgfapi (Debian: libglusterfs-dev)")
    return()
endif()

gvnd_sources(GVND_GLUSTERFS_SOURCES plugins/glusterfs)
add_library(gvnd_glusterfs MODULE ${GVND_GLUSTERFS_SOURCES} ${GVND_POSIXFS_SOURCES})
set_target_properties(gvnd_glusterfs PROPERTIES PREFIX "" OUTPUT_NAME glusterfs CXX_VISIBILITY_PRESET hidden
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/plugins)
target_include_directories(gvnd_glusterfs PRIVATE plugins/glusterfs plugins/posixfs)
target_compile_options(gvnd_glusterfs PRIVATE ${GVND_HOSTED_FLAGS})
target_compile_features(gvnd_glusterfs PRIVATE cxx_std_20)
target_compile_definitions(gvnd_glusterfs PRIVATE NTHOST_MS_ABI=$<BOOL:${GVND_MS_ABI}>)
target_link_libraries(gvnd_glusterfs PRIVATE gvnd_ntifs gvnd_plugin PkgConfig::GFAPI)
# The client library's threads outlive the plugin (cluster.cpp).
target_link_options(gvnd_glusterfs PRIVATE -Wl,-z,nodelete)
