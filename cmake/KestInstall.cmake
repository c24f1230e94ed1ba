# Install rules: headers, the libraries with their SONAME links, the CMake
# package KestMessaging and the pkg-config modules kest-messaging,
# kest-messaging-interfaces and (with Kest::Net) kest-net.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

get_property(kest_libraries GLOBAL PROPERTY KEST_LIBRARIES)
install(TARGETS ${kest_libraries}
  EXPORT KestMessagingTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set(kest_header_excludes PATTERN "internal" EXCLUDE)
if(NOT KEST_BUILD_NET)
  list(APPEND kest_header_excludes PATTERN "net" EXCLUDE PATTERN "net.h" EXCLUDE)
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/kest
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h"
  ${kest_header_excludes})

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
# kest-net, for a program that also puts messages on the wire, is a module of
# its own so that linking the dispatcher does not pull in libKestNet.
set(kest_pc_modules kest-messaging kest-messaging-interfaces)
if(KEST_BUILD_NET)
  list(APPEND kest_pc_modules kest-net)
endif()
foreach(module ${kest_pc_modules})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${module}.pc.in
    ${PROJECT_BINARY_DIR}/${module}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${module}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()
