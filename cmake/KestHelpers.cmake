# Small helpers that keep each target to a few lines.

# Compiler flags every target of ours gets.
add_library(kest_build_options INTERFACE)
target_compile_options(kest_build_options INTERFACE -Wall -Wextra -Wpedantic
                       $<$<BOOL:${KEST_WERROR}>:-Werror>)
# Components are deleted as their concrete class through the shared pointer
# that made them, never through an interface, so a concrete class without a
# virtual destructor is deliberate; clang warns about every such deletion.
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  target_compile_options(kest_build_options INTERFACE -Wno-delete-non-abstract-non-virtual-dtor)
endif()
if(KEST_SCHEDULE_PERTURBATION)
  target_compile_definitions(kest_build_options INTERFACE KEST_SCHEDULE_PERTURBATION)
endif()
if(KEST_SANITIZE STREQUAL "address")
  target_compile_options(kest_build_options INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(kest_build_options INTERFACE -fsanitize=address,undefined)
elseif(KEST_SANITIZE STREQUAL "thread")
  target_compile_options(kest_build_options INTERFACE -fsanitize=thread -fno-omit-frame-pointer)
  target_link_options(kest_build_options INTERFACE -fsanitize=thread)
elseif(KEST_SANITIZE STREQUAL "fuzz")
  # Coverage for libFuzzer everywhere; fuzz targets add -fsanitize=fuzzer themselves.
  target_compile_options(kest_build_options INTERFACE
    -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
  target_link_options(kest_build_options INTERFACE -fsanitize=address,undefined)
elseif(NOT KEST_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KEST_SANITIZE must be address, thread, fuzz or empty, not '${KEST_SANITIZE}'")
endif()

# kest_add_library(<Name> SOURCES ... [DEPENDS ...])
# Builds the shared library libKest<Name>.so.0 as target Kest<Name>, alias
# Kest::<Name>: hidden visibility (exports are marked in the headers), no
# undefined symbols, the repository root as include root.
function(kest_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS" ${ARGN})
  set(target Kest${name})
  add_library(${target} SHARED ${ARG_SOURCES})
  add_library(Kest::${name} ALIAS ${target})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME Kest${name}
    EXPORT_NAME ${name}
    VERSION ${PROJECT_VERSION}
    SOVERSION 0
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    INSTALL_RPATH "$ORIGIN")
  target_include_directories(${target} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:include>)
  target_compile_features(${target} PUBLIC cxx_std_17)
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} Threads::Threads
                        PRIVATE $<BUILD_INTERFACE:kest_build_options>)
  # Under libFuzzer the sanitizer runtime comes with the executable, so the
  # libraries are left with undefined references to it.
  if(NOT KEST_SANITIZE STREQUAL "fuzz")
    target_link_options(${target} PRIVATE -Wl,--no-undefined)
  endif()
  set_property(GLOBAL APPEND PROPERTY KEST_LIBRARIES ${target})
endfunction()

# kest_add_test(<name> SOURCES ... [LIBRARIES ...] [LABELS ...] [TIMEOUT s])
# A GoogleTest executable whose cases are registered one by one with ctest.
function(kest_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;LIBRARIES;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 60)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} GTest::gtest GTest::gtest_main
                        kest_build_options)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  # Tests that use the dispatcher library's test hooks skip without them.
  if(KEST_TEST_HOOKS)
    target_compile_definitions(${name} PRIVATE KEST_TEST_HOOKS)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT ${ARG_TIMEOUT} LABELS "${ARG_LABELS}")
endfunction()
