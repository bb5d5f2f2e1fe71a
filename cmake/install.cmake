# Installation and the Debian package.
#
#   cmake --install <build> [--prefix P]   binaries, man pages, the library,
#                                          its headers, CMake package config
#                                          and pkg-config file
#   cpack --config <build>/CPackConfig.cmake   the .deb
#
# Another program then builds against the library with
#   find_package(wlinspector) + target_link_libraries(... wlinspector::wlinspector)
# or with `pkg-config --cflags --libs wlinspector`. Both are relocatable: they
# find the headers and the library relative to where they were installed.
include(CMakePackageConfigHelpers)

set(WL_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/wlinspector)
set(WL_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(TARGETS wlinspector RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS wlinspector_lib EXPORT wlinspectorTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(dir ${WL_LIB_DIRS})
  install(DIRECTORY ${CMAKE_SOURCE_DIR}/src/${dir}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/wlinspector
    FILES_MATCHING PATTERN "*.h")
endforeach()
install(FILES ${CMAKE_SOURCE_DIR}/man/wlinspector.1 ${CMAKE_SOURCE_DIR}/man/wlreceiver.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

install(EXPORT wlinspectorTargets NAMESPACE wlinspector:: DESTINATION ${WL_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/wlinspectorConfig.cmake.in
  ${CMAKE_BINARY_DIR}/wlinspectorConfig.cmake INSTALL_DESTINATION ${WL_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/wlinspectorConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/wlinspectorConfig.cmake
  ${CMAKE_BINARY_DIR}/wlinspectorConfigVersion.cmake DESTINATION ${WL_CMAKE_DIR})

# The .pc file names its prefix relative to its own directory.
file(RELATIVE_PATH WL_PC_TO_PREFIX /${WL_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" WL_PC_TO_PREFIX "${WL_PC_TO_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/wlinspector.pc.in ${CMAKE_BINARY_DIR}/wlinspector.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/wlinspector.pc DESTINATION ${WL_PKGCONFIG_DIR})

# One .deb holds everything above. Its run-time dependencies (C and C++
# libraries) come from dpkg-shlibdeps; the source-control clients are whatever
# the build machine uses, so they are only suggested.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME wlinspector)
set(CPACK_PACKAGE_VENDOR "Weftlane")
set(CPACK_PACKAGE_CONTACT "Weftlane build tools <buildtools@weftlane.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "wlinspector runs after a build: it takes an inventory of the build tree, asks\n"
  "the source-control client which version of each file was built, writes a\n"
  "change report against the previous inventory and uploads both to the build\n"
  "server. The package also holds wlreceiver (a loopback stand-in for the\n"
  "server), the static library with its headers, and CMake and pkg-config\n"
  "files for building against it.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "subversion, cvs, perl")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_INSTALL_DIRECTORY /usr)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
include(CPack)
