# Options of every target of this repository.
if(VLM_CCACHE)
  find_program(CCACHE_PROGRAM ccache)
  if(CCACHE_PROGRAM)
    # Paths relative to the build folder, so that clones share the cache.
    set(CMAKE_CXX_COMPILER_LAUNCHER
      "${CMAKE_COMMAND}" -E env "CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}" CCACHE_NOHASHDIR=1 "${CCACHE_PROGRAM}")
  endif()
endif()

add_library(vlm_options INTERFACE)
add_library(vlm::options ALIAS vlm_options)
target_compile_options(vlm_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual)
if(VLM_WERROR)
  target_compile_options(vlm_options INTERFACE -Werror)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(vlm_options INTERFACE -Wno-error=unknown-warning-option -Wno-unknown-warning-option)
endif()
string(REPLACE "," ";" VLM_SANITIZERS "${VLM_SANITIZE}")
if(VLM_SANITIZE)
  add_compile_options(-fsanitize=${VLM_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VLM_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # With the address sanitizer the compiler wrongly reports uninitialised members in <regex> (used by
    # cxxopts).
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
if(VLM_COVERAGE)
  # Atomic counters: lost updates of threads would give negative counts, which gcovr refuses.
  add_compile_options(--coverage -O0 -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

# vlm_library(NAME SOURCES... DEPS...): a static library of this repository, with the alias vlm::NAME.
# Its headers are included with their path from the root ("bus/Message.h").
function(vlm_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(vlm_${name} STATIC ${ARG_SOURCES})
  add_library(vlm::${name} ALIAS vlm_${name})
  target_include_directories(vlm_${name} PUBLIC "${PROJECT_SOURCE_DIR}")
  target_link_libraries(vlm_${name} PUBLIC ${ARG_DEPS} PRIVATE vlm::options)
endfunction()

# Everything for the labels unit and integration; the sanitizer presets build only this.
add_custom_target(vlm_unit_and_integration_tests)

# vlm_test(NAME LABEL unit SOURCES... DEPS... [TIMEOUT s] [PLATFORM p] [ONE_THREAD]): one GoogleTest program
# and one test of ctest, on platform/linux/ unless PLATFORM names another. ONE_THREAD programs are slow and
# have one thread, so the thread sanitizer leaves them out.
function(vlm_test name)
  cmake_parse_arguments(ARG "ONE_THREAD" "LABEL;TIMEOUT;PLATFORM" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_PLATFORM)
    set(ARG_PLATFORM vlm::platform)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(CMAKE_CROSSCOMPILING) # in qemu
    math(EXPR ARG_TIMEOUT "${ARG_TIMEOUT} * 10")
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE "${PROJECT_SOURCE_DIR}")
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
