# The two header-only Debian packages Kest::Net is built with, found here so
# that a missing one stops the configure with the package to install.
#
# msgpack-cxx (libmsgpack-cxx-dev): its CMake package insists on Boost, which
# we do not use, so the header is found directly and MSGPACK_NO_BOOST keeps
# msgpack from reaching for Boost. nlohmann-json (nlohmann-json3-dev): its
# CMake package as it is.

find_path(KEST_MSGPACK_INCLUDE_DIR msgpack.hpp)
if(NOT KEST_MSGPACK_INCLUDE_DIR)
  message(FATAL_ERROR "Kest::Net needs msgpack-cxx: install the Debian package libmsgpack-cxx-dev "
                      "(scripts/ensure-packages.sh libmsgpack-cxx-dev), or configure with -DKEST_BUILD_NET=OFF")
endif()
find_package(nlohmann_json 3.2 CONFIG QUIET)
if(NOT nlohmann_json_FOUND)
  message(FATAL_ERROR "Kest::Net needs nlohmann-json: install the Debian package nlohmann-json3-dev "
                      "(scripts/ensure-packages.sh nlohmann-json3-dev), or configure with -DKEST_BUILD_NET=OFF")
endif()

if(NOT TARGET kest_msgpack)
  add_library(kest_msgpack INTERFACE)
  # SYSTEM: the package's own warnings are not ours to fix under -Werror.
  target_include_directories(kest_msgpack SYSTEM INTERFACE ${KEST_MSGPACK_INCLUDE_DIR})
  target_compile_definitions(kest_msgpack INTERFACE MSGPACK_NO_BOOST MSGPACK_DEFAULT_API_VERSION=3)
endif()

# ZeroMQ (libzmq3-dev) and its C++ header cppzmq (cppzmq-dev), for the
# bridge: linked privately into libKestNet, never seen by its users.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(KEST_ZMQ QUIET IMPORTED_TARGET libzmq)
endif()
find_path(KEST_CPPZMQ_INCLUDE_DIR zmq.hpp)
if(NOT KEST_ZMQ_FOUND OR NOT KEST_CPPZMQ_INCLUDE_DIR)
  message(FATAL_ERROR "Kest::Net needs ZeroMQ and cppzmq: install the Debian packages libzmq3-dev, "
                      "cppzmq-dev and pkg-config (scripts/ensure-packages.sh libzmq3-dev cppzmq-dev pkg-config), "
                      "or configure with -DKEST_BUILD_NET=OFF")
endif()
if(NOT TARGET kest_zmq)
  add_library(kest_zmq INTERFACE)
  target_include_directories(kest_zmq SYSTEM INTERFACE ${KEST_CPPZMQ_INCLUDE_DIR})
  target_link_libraries(kest_zmq INTERFACE PkgConfig::KEST_ZMQ)
endif()
