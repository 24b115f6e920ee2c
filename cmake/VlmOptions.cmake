# What every target of this repository is compiled with.
if(VLM_CCACHE)
  find_program(CCACHE_PROGRAM ccache)
  if(CCACHE_PROGRAM)
    # Relative to the build folder, so that a second clone finds what the first one compiled.
    set(CMAKE_CXX_COMPILER_LAUNCHER
      "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}" CCACHE_NOHASHDIR=1 "${CCACHE_PROGRAM}")
  endif()
endif()

add_library(vlm_options INTERFACE)
add_library(vlm::options ALIAS vlm_options)
target_compile_options(vlm_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(vlm_options INTERFACE -Wno-error=unknown-warning-option -Wno-unknown-warning-option)
endif()
string(REPLACE "," ";" VLM_SANITIZERS "${VLM_SANITIZE}")
if(VLM_SANITIZE)
  add_compile_options(-fsanitize=${VLM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VLM_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the address sanitizer the compiler sees uninitialised members in <regex> (and so in cxxopts) that
    # are none; the sanitizer itself looks closer.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
if(VLM_COVERAGE)
  # Counters of several threads: lost updates show as negative counts, which gcovr does not take.
  add_compile_options(--coverage -O0 -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# vlm_library(NAME SOURCES... DEPS...): a static library of this repository, with the alias vlm::NAME.
# Its headers are found from the root of the repository ("bus/Message.h").
function(vlm_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(vlm_${name} STATIC ${ARG_SOURCES})
  add_library(vlm::${name} ALIAS vlm_${name})
  target_include_directories(vlm_${name} PUBLIC "${CMAKE_SOURCE_DIR}")
  target_link_libraries(vlm_${name} PUBLIC ${ARG_DEPS} PRIVATE vlm::options)
endfunction()

# All that the labels unit and integration need; the sanitizer presets build no more.
add_custom_target(vlm_unit_and_integration_tests)

# vlm_test(NAME LABEL unit SOURCES... DEPS... [TIMEOUT s] [PLATFORM p] [ONE_THREAD]): one GoogleTest program,
# registered whole with ctest, on platform/linux/ unless PLATFORM names another. Programs of ONE_THREAD compute much, and the thread
# sanitizer has nothing to see in them.
function(vlm_test name)
  cmake_parse_arguments(ARG "ONE_THREAD" "LABEL;TIMEOUT;PLATFORM" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_PLATFORM)
    set(ARG_PLATFORM vlm::platform)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE "${CMAKE_SOURCE_DIR}")
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} ${ARG_PLATFORM} vlm::options GTest::gmock GTest::gtest GTest::gtest_main)
  if(ARG_ONE_THREAD AND "thread" IN_LIST VLM_SANITIZERS)
    set_target_properties(${name} PROPERTIES EXCLUDE_FROM_ALL ON)
    return()
  endif()
  if(ARG_LABEL MATCHES "unit|integration")
    add_dependencies(vlm_unit_and_integration_tests ${name})
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABEL}" TIMEOUT ${ARG_TIMEOUT})
endfunction()
