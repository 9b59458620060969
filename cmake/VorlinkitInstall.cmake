# What an installation holds. Component "development": headers, static libraries, the CMake package and the
# pkg-config file. Component "python": see VorlinkitInstallPython. Nothing in it names the prefix, so that an installed
# tree may be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(vorlinkit_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/vorlinkit)

install(TARGETS vorlinkit vorlinkit_commands
  EXPORT vorlinkit
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vorlinkit ${PROJECT_BINARY_DIR}/generated/include/vorlinkit
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  COMPONENT development
  FILES_MATCHING PATTERN "*.hpp")
install(EXPORT vorlinkit
  NAMESPACE vorlinkit::
  FILE vorlinkitTargets.cmake
  DESTINATION ${vorlinkit_package_dir}
  COMPONENT development)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vorlinkitConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/vorlinkitConfig.cmake
  INSTALL_DESTINATION ${vorlinkit_package_dir}
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/vorlinkitConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/package/vorlinkitConfig.cmake
  ${PROJECT_BINARY_DIR}/package/vorlinkitConfigVersion.cmake
  DESTINATION ${vorlinkit_package_dir}
  COMPONENT development)

# pkg-config finds the prefix from where the file lies.
set(vorlinkit_pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH vorlinkit_pc_prefix /prefix/${vorlinkit_pc_dir} /prefix)
string(REGEX REPLACE "/$" "" vorlinkit_pc_prefix ${vorlinkit_pc_prefix})
if(VORLINKIT_HAVE_STD_FORMAT)
  set(vorlinkit_pc_flags -DVORLINKIT_FORMAT_FMT=0)
  set(vorlinkit_pc_requires "")
else()
  set(vorlinkit_pc_flags "-DVORLINKIT_FORMAT_FMT=1 -DFMT_HEADER_ONLY=1")
  set(vorlinkit_pc_requires fmt)
endif()
set(vorlinkit_pc_system "")
if(WIN32)
  set(vorlinkit_pc_system " -lws2_32 -lmswsock -lbcrypt")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/vorlinkit.pc.in ${PROJECT_BINARY_DIR}/package/vorlinkit.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/package/vorlinkit.pc DESTINATION ${vorlinkit_pc_dir} COMPONENT development)

if(VORLINKIT_BUILD_PYTHON)
  include(VorlinkitInstallPython)
endif()
