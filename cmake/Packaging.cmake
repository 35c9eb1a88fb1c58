# What `cmake --install` lays down: the library, its headers in one folder, a CMake package
# (Orv::AppConfigService) and a pkg-config module; and the Debian package cpack builds from it.
include(CMakePackageConfigHelpers)

set(ORV_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/OrvAppConfigService)

install(TARGETS OrvAppConfigService EXPORT OrvAppConfigServiceTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Development
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Development)
install(FILES ${ORV_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/OrvAppConfigService COMPONENT Development)
install(EXPORT OrvAppConfigServiceTargets NAMESPACE Orv:: FILE OrvAppConfigServiceTargets.cmake
  DESTINATION ${ORV_CMAKE_PACKAGE_DIR} COMPONENT Development)

# A static library brings its private dependencies (libcurl, libssl) to the host's link line, so the
# package finds them too; a shared one carries them itself. pkg-config gets them as plain requirements:
# as private ones they would only appear with --static, which also asks for curl's own static needs.
get_target_property(ORV_LIBRARY_TYPE OrvAppConfigService TYPE)
if(ORV_LIBRARY_TYPE STREQUAL "STATIC_LIBRARY")
  set(ORV_PACKAGE_STATIC TRUE)
  set(ORV_PC_REQUIRES "libcrypto >= 3.0 libcurl libssl")
else()
  set(ORV_PACKAGE_STATIC FALSE)
  set(ORV_PC_REQUIRES "libcrypto >= 3.0")
endif()
configure_package_config_file(cmake/OrvAppConfigServiceConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigServiceConfig.cmake INSTALL_DESTINATION ${ORV_CMAKE_PACKAGE_DIR})
# Until 2.0, a newer release keeps what older ones promised.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigServiceConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigServiceConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigServiceConfigVersion.cmake
  DESTINATION ${ORV_CMAKE_PACKAGE_DIR} COMPONENT Development)

# Relative, so that the module stays right wherever the tree is unpacked.
file(RELATIVE_PATH ORV_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" ORV_PC_TO_PREFIX "${ORV_PC_TO_PREFIX}")
configure_file(cmake/OrvAppConfigService.pc.in ${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigService.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/OrvAppConfigService.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT Development)

# cpack -G DEB: one -dev package with the library, headers, CMake and pkg-config files and the tools.
set(CPACK_PACKAGE_NAME "liborvappconfigservice-dev")
set(CPACK_PACKAGE_VENDOR "Varnel Systems, Inc.")
set(CPACK_PACKAGE_CONTACT "OrvAppConfigService developers <appconfig-dev@varnel.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Signed app configuration from one line of user input (C++ library)")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "libdevel")
# The tools' own shared-library needs are read off the binaries; what a host compiles and links
# against is named here, since a static library's needs cannot be read off it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libssl-dev (>= 3.0), libcurl4-openssl-dev, libboost1.81-dev, libboost-url1.81-dev, libboost-json1.81-dev")
include(CPack)
