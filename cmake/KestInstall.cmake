# Install rules: headers, the three libraries with their SONAME links, the
# CMake package KestMessaging and the pkg-config modules kest-messaging and
# kest-messaging-interfaces.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(kest_libraries GLOBAL PROPERTY KEST_LIBRARIES)
install(TARGETS ${kest_libraries}
  EXPORT KestMessagingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/kest
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  PATTERN "internal" EXCLUDE)

set(kest_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/KestMessaging)
install(EXPORT KestMessagingTargets NAMESPACE Kest:: DESTINATION ${kest_cmake_dir})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KestMessagingConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KestMessagingConfig.cmake
  INSTALL_DESTINATION ${kest_cmake_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KestMessagingConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KestMessagingConfig.cmake
              ${PROJECT_BINARY_DIR}/KestMessagingConfigVersion.cmake
        DESTINATION ${kest_cmake_dir})

# The prefix is found from the .pc file's own place, so the installed tree
# may be moved and `cmake --install --prefix` works after configuring.
file(RELATIVE_PATH kest_pc_to_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" kest_pc_to_prefix "${kest_pc_to_prefix}")
# Two modules: kest-messaging for a program that links the dispatcher, and
# kest-messaging-interfaces (which the first requires) for a host that loads
# the dispatcher as a plug-in and links only the interface libraries.
foreach(module kest-messaging kest-messaging-interfaces)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in
    ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
