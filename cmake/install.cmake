include(CMakePackageConfigHelpers)

install(TARGETS quorlin EXPORT quorlin LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorlin)
install(FILES
  converter/Quorlin.h converter/CommonFun.h converter/AES.h converter/ADTSFrame.h
  converter/CLS_SingleAviIndex.h os/libos.h util/platform.h util/common_fun.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/quorlin)

# For programs that use the library. Both kinds of file find it from where they lie themselves, so that an installed
# tree can be moved.
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quorlin)
install(EXPORT quorlin NAMESPACE quorlin:: FILE quorlin-config.cmake DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quorlin-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quorlin-config-version.cmake DESTINATION ${package_dir})

cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig
  OUTPUT_VARIABLE up_to_prefix)
configure_file(cmake/quorlin.pc.in quorlin.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quorlin.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
