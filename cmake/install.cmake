# Installs the library, its headers, a CMake package (kiv-core, target kiv::core) and a pkg-config file (kiv-core).
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/kiv-core)

install(TARGETS kiv-core EXPORT kiv-core-targets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/kiv DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(EXPORT kiv-core-targets NAMESPACE kiv:: FILE kiv-core-config.cmake DESTINATION ${package_dir})

write_basic_package_version_file(${PROJECT_BINARY_DIR}/kiv-core-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kiv-core-config-version.cmake DESTINATION ${package_dir})

configure_file(cmake/kiv-core.pc.in kiv-core.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kiv-core.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
