# Headers, library, CMake package and pkg-config file. Programs install themselves in apps/.
include(CMakePackageConfigHelpers)

install(TARGETS bsp EXPORT bspTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/bsp/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/bsp
        COMPONENT dev FILES_MATCHING PATTERN "*.h")
install(EXPORT bspTargets NAMESPACE bsp:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/bsp
        COMPONENT dev)

configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/bspConfig.cmake.in
  ${PROJECT_BINARY_DIR}/bspConfig.cmake INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/bsp)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/bspConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/bspConfig.cmake ${PROJECT_BINARY_DIR}/bspConfigVersion.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/bsp COMPONENT dev)

# A program that links the archive links what the library needs as well.
if(NOT BUILD_SHARED_LIBS)
  set(BSP_PC_LIBS " -lsqlite3 -lstdc++")
endif()

# bsp.pc stands two folders below the prefix or, with a multiarch library folder, three.
file(RELATIVE_PATH BSP_PC_PREFIX /p/${CMAKE_INSTALL_LIBDIR}/pkgconfig /p)
configure_file(${CMAKE_CURRENT_LIST_DIR}/bsp.pc.in ${PROJECT_BINARY_DIR}/bsp.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/bsp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT dev)
