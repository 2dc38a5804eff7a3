# The installed package: CMake's find_package(sl3d) and pkg-config's sl3d.pc.
include(CMakePackageConfigHelpers)

set(SL3D_CMAKE_INSTALL_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/sl3d)

install(EXPORT sl3dTargets NAMESPACE sl3d:: FILE sl3dTargets.cmake
  DESTINATION ${SL3D_CMAKE_INSTALL_DIR})

# sl3dConfig.cmake finds the OpenCV modules the library is linked with
# (SL3D_OPENCV_COMPONENTS) again for the imported target sl3d::sl3d.
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sl3dConfig.cmake.in
  ${PROJECT_BINARY_DIR}/sl3dConfig.cmake
  INSTALL_DESTINATION ${SL3D_CMAKE_INSTALL_DIR})
# Before 1.0 a minor release may change the interface, so a request for 0.2
# is met by 0.2.x only.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sl3dConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sl3dConfig.cmake ${PROJECT_BINARY_DIR}/sl3dConfigVersion.cmake
  DESTINATION ${SL3D_CMAKE_INSTALL_DIR})

# sl3d.pc finds its prefix relative to its own directory, so the installed
# tree may be moved (and `cmake --install --prefix` may choose it late).
file(RELATIVE_PATH SL3D_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" SL3D_PC_TO_PREFIX "${SL3D_PC_TO_PREFIX}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/sl3d.pc.in ${PROJECT_BINARY_DIR}/sl3d.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sl3d.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
