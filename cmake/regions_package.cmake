# An installed libroofline_events comes with its header, a pkg-config file and a CMake package. All of it can be moved
# as a whole.
include(CMakePackageConfigHelpers)

set(regions_package_folder "${CMAKE_INSTALL_LIBDIR}/cmake/roofline_events")
install(TARGETS roofline_events EXPORT roofline_events_targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT roofline_events NAMELINK_COMPONENT roofline_events)
install(FILES "${PROJECT_BINARY_DIR}/libroofline_events.a"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT roofline_events)
install(FILES "${PROJECT_SOURCE_DIR}/include/roofline_events.h"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT roofline_events)

install(EXPORT roofline_events_targets NAMESPACE roofline_events:: FILE roofline_events-targets.cmake
  DESTINATION "${regions_package_folder}" COMPONENT roofline_events)
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/roofline_events-config.cmake.in"
  "${PROJECT_BINARY_DIR}/generated/roofline_events-config.cmake"
  INSTALL_DESTINATION "${regions_package_folder}"
  PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/generated/roofline_events-config-version.cmake"
  VERSION "${PROJECT_VERSION}" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/generated/roofline_events-config.cmake"
  "${PROJECT_BINARY_DIR}/generated/roofline_events-config-version.cmake"
  DESTINATION "${regions_package_folder}" COMPONENT roofline_events)

# pkg-config derives the prefix from the place of the .pc file.
file(RELATIVE_PATH regions_pc_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" regions_pc_prefix "${regions_pc_prefix}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/roofline_events.pc.in"
  "${PROJECT_BINARY_DIR}/generated/roofline_events.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/generated/roofline_events.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT roofline_events)
