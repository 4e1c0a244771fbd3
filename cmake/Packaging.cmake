# Debian packages of the install components: `cmake --build build --target package`.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME hdscmd)
set(CPACK_PACKAGE_VENDOR "hdscmd")
set(CPACK_PACKAGE_CONTACT "hdscmd maintainers <hdscmd@localhost>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
  "Storage-array command layer for block-array snapshots through the CCI tools")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL lib dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)

# The library package is named after its SONAME, so that two major versions can be installed
# side by side; the others ask for exactly this build of it.
set(hds_lib_package libhdscmd${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIB_PACKAGE_NAME ${hds_lib_package})
set(CPACK_DEBIAN_LIB_PACKAGE_DEPENDS "libc6, libstdc++6, libgcc-s1")
set(CPACK_COMPONENT_LIB_DESCRIPTION
  "The shared library, which drives block storage arrays through the CCI command-line tools.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libhdscmd-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${hds_lib_package} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION
  "Headers, CMake package and pkg-config file of the hdscmd library.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME hdscmd-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${hds_lib_package} (= ${PROJECT_VERSION}), tar, gzip")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
  "hdsctl, the operator's tool over the library, and ccisim, a simulated array.")
include(CPack)
