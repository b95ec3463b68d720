# The libraries and the tool of the hosted build. A component exists as soon as its directory has sources. What may
# depend on what is one way: nthost on nothing, driver and plugins on nthost's ntifs.h and on the plugin boundary.

find_package(Threads REQUIRED)

gvnd_sources(GVND_NTHOST_SOURCES nthost)
gvnd_sources(GVND_DRIVER_SOURCES driver)
gvnd_sources(GVND_MEMFS_SOURCES plugins/memfs)
gvnd_sources(GVND_ENTRY_SOURCES plugins/entry)
gvnd_sources(GVND_POSIXFS_SOURCES plugins/posixfs)
gvnd_sources(GVND_HOSTFS_SOURCES plugins/hostfs)
gvnd_sources(GVND_LAYER_SOURCES plugins/layer)
gvnd_sources(GVND_WORKBENCH_SOURCES workbench)
gvnd_sources(GVND_CHECKER_SOURCES checker)
gvnd_sources(GVND_TOOL_SOURCES tools/gvnd)

set(GVND_LIBRARIES "")

# The boundary header. Installed, all headers of the boundary live in one directory.
add_library(gvnd_plugin INTERFACE)
add_library(gvnd::plugin ALIAS gvnd_plugin)
set_target_properties(gvnd_plugin PROPERTIES EXPORT_NAME plugin)
target_include_directories(gvnd_plugin INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
install(TARGETS gvnd_plugin EXPORT gvndTargets)

# <ntifs.h> without the host: for what is loaded into a program that has it.
add_library(gvnd_ntifs INTERFACE)
add_library(gvnd::ntifs ALIAS gvnd_ntifs)
set_target_properties(gvnd_ntifs PROPERTIES EXPORT_NAME ntifs)
target_include_directories(gvnd_ntifs INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/nthost/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gvnd-nthost>)
# WCHAR is wchar_t in NT code, and has 16 bits there. A pool tag is written as a character constant of four.
target_compile_options(gvnd_ntifs INTERFACE -fshort-wchar -Wno-multichar)
target_compile_definitions(gvnd_ntifs INTERFACE NTHOST_CHECKS=$<BOOL:${GVND_CHECKS}>)
install(TARGETS gvnd_ntifs EXPORT gvndTargets)

if(GVND_NTHOST_SOURCES)
    gvnd_library(nthost SOURCES ${GVND_NTHOST_SOURCES})
    target_include_directories(gvnd_nthost
        PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/nthost/include>
               $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gvnd-nthost>
        PRIVATE ${PROJECT_SOURCE_DIR}/nthost)
    target_compile_features(gvnd_nthost PUBLIC cxx_std_20)
    # WCHAR is wchar_t in NT code, and has 16 bits there.
    target_compile_options(gvnd_nthost PUBLIC -fshort-wchar)
    target_compile_definitions(gvnd_nthost PUBLIC NTHOST_CHECKS=$<BOOL:${GVND_CHECKS}>
        NTHOST_MS_ABI=$<BOOL:${GVND_MS_ABI}>)
    target_link_libraries(gvnd_nthost PUBLIC Threads::Threads)
    # Reports name the functions of a stack, which only exported symbols allow.
    target_link_options(gvnd_nthost INTERFACE -rdynamic)
    list(APPEND GVND_LIBRARIES nthost)
endif()

if(TARGET gvnd_nthost AND GVND_DRIVER_SOURCES)
    gvnd_library(driver KERNEL ENTRY GvndDriverEntry SOURCES ${GVND_DRIVER_SOURCES})
    target_include_directories(gvnd_driver PRIVATE ${PROJECT_SOURCE_DIR}/driver)
    target_link_libraries(gvnd_driver PUBLIC gvnd_nthost gvnd_plugin)
    list(APPEND GVND_LIBRARIES driver)
endif()

if(TARGET gvnd_nthost AND GVND_MEMFS_SOURCES)
    gvnd_library(memfs KERNEL ENTRY GvMemfsDriverEntry PLUGIN GvMemfsPlugin
        SOURCES ${GVND_MEMFS_SOURCES} ${GVND_ENTRY_SOURCES})
    target_include_directories(gvnd_memfs PRIVATE ${PROJECT_SOURCE_DIR}/plugins/memfs)
    target_link_libraries(gvnd_memfs PUBLIC gvnd_nthost gvnd_plugin)
    list(APPEND GVND_LIBRARIES memfs)
endif()

if(TARGET gvnd_nthost AND GVND_HOSTFS_SOURCES)
    gvnd_library(hostfs PLUGIN GvHostfsPlugin SOURCES ${GVND_HOSTFS_SOURCES} ${GVND_POSIXFS_SOURCES})
    target_include_directories(gvnd_hostfs PRIVATE ${PROJECT_SOURCE_DIR}/plugins/hostfs
        ${PROJECT_SOURCE_DIR}/plugins/posixfs)
    target_link_libraries(gvnd_hostfs PUBLIC gvnd_nthost gvnd_plugin)
    list(APPEND GVND_LIBRARIES hostfs)
endif()

# Records and disturbs the calls of any plugin table.
if(TARGET gvnd_nthost AND GVND_LAYER_SOURCES)
    gvnd_library(layer SOURCES ${GVND_LAYER_SOURCES})
    target_link_libraries(gvnd_layer PUBLIC gvnd_nthost gvnd_plugin)
    list(APPEND GVND_LIBRARIES layer)
endif()

# Hosted users name a plugin's header by its directory: <memfs/memfs.h>.
foreach(plugin IN ITEMS hostfs layer)
    if(TARGET gvnd_${plugin})
        target_include_directories(gvnd_${plugin} PUBLIC
            $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/plugins>
            $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gvnd-plugins>)
        install(FILES plugins/${plugin}/${plugin}.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gvnd-plugins/${plugin})
    endif()
endforeach()

# Everything around the driver that a program wants which mounts a plugin and uses the volume.
if(TARGET gvnd_driver AND TARGET gvnd_layer AND GVND_WORKBENCH_SOURCES)
    gvnd_library(workbench SOURCES ${GVND_WORKBENCH_SOURCES})
    target_include_directories(gvnd_workbench PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/workbench/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gvnd-workbench>)
    target_link_libraries(gvnd_workbench PUBLIC gvnd_layer gvnd_driver gvnd_nthost gvnd_plugin)
    install(DIRECTORY workbench/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gvnd-workbench
        FILES_MATCHING PATTERN "*.h")
    list(APPEND GVND_LIBRARIES workbench)
endif()

# Holds a plugin to its contract.
if(TARGET gvnd_workbench AND GVND_CHECKER_SOURCES)
    gvnd_library(checker SOURCES ${GVND_CHECKER_SOURCES})
    target_include_directories(gvnd_checker PUBLIC
        $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/checker/include>
        $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/gvnd-checker>)
    target_link_libraries(gvnd_checker PUBLIC gvnd_workbench)
    install(DIRECTORY checker/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gvnd-checker FILES_MATCHING PATTERN "*.h")
    list(APPEND GVND_LIBRARIES checker)
endif()

list(TRANSFORM GVND_LIBRARIES PREPEND gvnd:: OUTPUT_VARIABLE GVND_LINK_ALL)

if(GVND_BUILD_TOOL AND GVND_TOOL_SOURCES AND TARGET gvnd_driver)
    find_package(CLI11 REQUIRED)
    find_package(fmt REQUIRED)
    find_package(nlohmann_json REQUIRED)
    find_package(PkgConfig REQUIRED)
    pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3>=3.12)
    find_library(GVND_READLINE readline REQUIRED)
    mark_as_advanced(GVND_READLINE)
    gvnd_executable(gvnd ${GVND_TOOL_SOURCES})
    # hostfs is also used below its table, where its headers name those of the shared part.
    target_include_directories(gvnd PRIVATE ${PROJECT_SOURCE_DIR}/tools ${PROJECT_SOURCE_DIR}/plugins/posixfs)
    target_compile_definitions(gvnd PRIVATE GVND_TOOL_VERSION="${PROJECT_VERSION}")
    target_compile_definitions(gvnd PRIVATE GVND_PLUGIN_DIRECTORY="${CMAKE_INSTALL_LIBDIR}/gvnd")
    # A plugin that is loaded may use any routine of the host, also one that nobody here uses.
    target_link_options(gvnd PRIVATE
        LINKER:--whole-archive,$<TARGET_FILE:gvnd_nthost>,--no-whole-archive)
    target_link_libraries(gvnd PRIVATE ${GVND_LINK_ALL} ${CMAKE_DL_LIBS} CLI11::CLI11 fmt::fmt nlohmann_json::nlohmann_json
        PkgConfig::FUSE3 ${GVND_READLINE})
    set_target_properties(gvnd PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
    install(TARGETS gvnd COMPONENT runtime)
endif()
