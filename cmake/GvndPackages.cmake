# Debian packages of the installed files, by `cpack` in a build directory: the tool, what a plugin is developed with, the
# plugins that come as shared objects, and the documents. What no install rule puts elsewhere is for developers.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME gvnd)
set(CPACK_PACKAGE_VENDOR gvnd)
set(CPACK_PACKAGE_CONTACT "gvnd maintainers <gvnd@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "NT file systems of storage plugins, in a Linux process")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development plugins doc)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE gzip) # static libraries take xz half a minute
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME gvnd)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Command line tool of gvnd
 Mounts the volume of a storage plugin in an ordinary process, by the gvnd
 driver's own sources on an NT kernel interface, and works on it: a shell,
 import and export of trees, a mount for any program.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "fuse3")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS "gvnd-plugins, gvnd-doc")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME gvnd-dev)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "Headers and libraries for storage plugins of gvnd
 The plugin boundary, the workbench and the NT kernel interface that plugins
 are tested on, and a CMake package that builds a plugin for the tool and, as
 a driver, for the kernel.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_RECOMMENDS "gvnd, cmake, clang, lld, mingw-w64-x86-64-dev, python3")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "gvnd-doc")

set(CPACK_DEBIAN_PLUGINS_PACKAGE_NAME gvnd-plugins)
set(CPACK_COMPONENT_PLUGINS_DESCRIPTION "Storage plugins of gvnd that have dependencies of their own
 Shared objects that the tool finds by name, such as `archive', which shows
 what is in a tar or zip file.")
set(CPACK_DEBIAN_PLUGINS_PACKAGE_DEPENDS "gvnd (= ${PROJECT_VERSION})")

set(CPACK_DEBIAN_DOC_PACKAGE_NAME gvnd-doc)
set(CPACK_COMPONENT_DOC_DESCRIPTION "Documents and examples of gvnd
 The guide for authors of plugins, the notes for operators and maintainers,
 the reference of the interfaces, and the sources of example plugins.")
set(CPACK_DEBIAN_DOC_PACKAGE_SECTION doc)
set(CPACK_DEBIAN_DOC_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_DOC_PACKAGE_SHLIBDEPS OFF) # asks of each file what it is

include(CPack)
