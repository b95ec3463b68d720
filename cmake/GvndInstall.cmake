# Installation and the package that find_package(gvnd) finds. ntifs.h and what it includes go to a directory of their
# own, which only those who link gvnd::nthost search: the name must not be found by accident.

include(CMakePackageConfigHelpers)
set(GVND_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/gvnd)

install(DIRECTORY include/gvnd DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY nthost/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gvnd-nthost FILES_MATCHING PATTERN "*.h")

set(GVND_DATA_DIR ${CMAKE_INSTALL_DATADIR}/gvnd)
install(FILES plugins/entry/plugin_driver.cpp packaging/nt/set_checksum.py packaging/nt/pe.py DESTINATION ${GVND_DATA_DIR})
install(FILES cmake/gvndPlugin.cmake cmake/GvndNtFlags.cmake DESTINATION ${GVND_CONFIG_DIR})

install(EXPORT gvndTargets NAMESPACE gvnd:: DESTINATION ${GVND_CONFIG_DIR})
configure_package_config_file(cmake/gvndConfig.cmake.in ${PROJECT_BINARY_DIR}/gvndConfig.cmake
    INSTALL_DESTINATION ${GVND_CONFIG_DIR} PATH_VARS GVND_DATA_DIR NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/gvndConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/gvndConfig.cmake ${PROJECT_BINARY_DIR}/gvndConfigVersion.cmake
    DESTINATION ${GVND_CONFIG_DIR})
