# Installation and the package that find_package(gvnd) finds. ntifs.h and what it includes go to a directory of their
# own, which only those who link gvnd::nthost search: the name must not be found by accident.

include(CMakePackageConfigHelpers)
set(GVND_CONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/gvnd)

install(DIRECTORY include/gvnd DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY nthost/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/gvnd-nthost FILES_MATCHING PATTERN "*.h")

set(GVND_DATA_DIR ${CMAKE_INSTALL_DATADIR}/gvnd)
install(FILES plugins/entry/plugin_driver.cpp packaging/nt/set_checksum.py packaging/nt/pe.py packaging/nt/plugin.inf.in
    packaging/nt/version.rc.in DESTINATION ${GVND_DATA_DIR})
install(PROGRAMS packaging/nt/inf_to_reg.py packaging/nt/symbol_store.py packaging/nt/sign DESTINATION ${GVND_DATA_DIR})
install(FILES cmake/gvndPlugin.cmake cmake/gvndService.cmake cmake/GvndNtFlags.cmake DESTINATION ${GVND_CONFIG_DIR})

install(EXPORT gvndTargets NAMESPACE gvnd:: DESTINATION ${GVND_CONFIG_DIR})
configure_package_config_file(cmake/gvndConfig.cmake.in ${PROJECT_BINARY_DIR}/gvndConfig.cmake
    INSTALL_DESTINATION ${GVND_CONFIG_DIR} PATH_VARS GVND_DATA_DIR NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/gvndConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/gvndConfig.cmake ${PROJECT_BINARY_DIR}/gvndConfigVersion.cmake
    DESTINATION ${GVND_CONFIG_DIR})

# What belongs to the tool, if it has been written, is recognised by its name.
file(GLOB_RECURSE GVND_MANUAL_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/*.1 ${PROJECT_SOURCE_DIR}/docs/*.1)
install(FILES ${GVND_MANUAL_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
function(gvnd_install_completion name destination)
    file(GLOB_RECURSE found CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/${name})
    install(FILES ${found} DESTINATION ${CMAKE_INSTALL_DATADIR}/${destination} COMPONENT runtime ${ARGN})
endfunction()
gvnd_install_completion(gvnd.bash bash-completion/completions RENAME gvnd)
gvnd_install_completion(_gvnd zsh/vendor-completions)
gvnd_install_completion(gvnd.fish fish/vendor_completions.d)

# Documents and examples.
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT doc)
if(PROJECT_IS_TOP_LEVEL)
    add_custom_target(doc COMMAND ${PROJECT_SOURCE_DIR}/scripts/doc ${PROJECT_BINARY_DIR}/reference
        COMMENT "Making the reference" VERBATIM)
endif()
install(DIRECTORY ${PROJECT_BINARY_DIR}/reference/html DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT doc OPTIONAL)
