# Flags for every target of this project, and functions that declare targets.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

add_library(corvid_flags INTERFACE)
target_compile_options(corvid_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${CORVID_WERROR}>:-Werror>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # GCC 12, when it optimises, sees overflows in std::string that are not there (its bugs 105329
  # and 105651).
  target_compile_options(corvid_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict> $<$<COMPILE_LANGUAGE:CXX>:-Wno-stringop-overflow>
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-array-bounds>)
endif()
target_include_directories(corvid_flags INTERFACE ${CMAKE_SOURCE_DIR})
include(CorvidHardening)
corvid_harden(corvid_flags)
if(CORVID_SANITIZE)
  target_compile_options(corvid_flags INTERFACE
    -fsanitize=${CORVID_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all
    # Instrumented code makes GCC see uninitialised members where there are none.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(corvid_flags INTERFACE -fsanitize=${CORVID_SANITIZE})
endif()

if(CORVID_FUZZ)
  target_compile_options(corvid_flags INTERFACE -fsanitize=fuzzer-no-link)
  target_link_options(corvid_flags INTERFACE -fsanitize=fuzzer-no-link)
endif()
# Two classes of one name are one to the linker, which takes either's functions for both. gold tells,
# from what is written for debuggers of functions that were not inlined.
find_program(CORVID_GOLD ld.gold)
mark_as_advanced(CORVID_GOLD)
if(CORVID_GOLD AND CMAKE_BUILD_TYPE STREQUAL "Debug" AND NOT CORVID_SANITIZE AND NOT CORVID_FUZZ)
  target_link_options(corvid_flags INTERFACE -fuse-ld=gold -Wl,--detect-odr-violations
    $<$<BOOL:${CORVID_WERROR}>:-Wl,--fatal-warnings>)
endif()
if(CORVID_TIDY)
  set(CMAKE_CXX_CLANG_TIDY ${CORVID_CLANG_TIDY} --quiet)
endif()

find_program(CORVID_CCACHE ccache)
if(CORVID_CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CORVID_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${CORVID_CCACHE})
endif()

# corvid_library(name SOURCES a.cpp ... [LINK targets ...] [PRIVATE_LINK targets ...])
function(corvid_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK;PRIVATE_LINK" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC ${arg_LINK} PRIVATE corvid_flags ${arg_PRIVATE_LINK})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR})
  corvid_precompile(${name} libraries)
endfunction()

# corvid_program(name SOURCES main.cpp ... LINK targets ...)
function(corvid_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE corvid_flags ${arg_LINK})
endfunction()

# corvid_bundle(name SOURCES ...): code for the daemon to load, name.so.
function(corvid_bundle name)
  cmake_parse_arguments(arg "" "" "SOURCES" ${ARGN})
  add_library(${name} MODULE ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE corvid_flags)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/include)
  set_target_properties(${name} PROPERTIES PREFIX "" C_VISIBILITY_PRESET default)
endfunction()

# corvid_add_project(folder): a folder that others can build by itself, here with this project's flags.
function(corvid_add_project folder)
  add_subdirectory(${folder})
  get_property(programs DIRECTORY ${folder} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(program IN LISTS programs)
    target_link_libraries(${program} PRIVATE corvid_flags)
    # What clang's sanitizers need of C++ is not there for programs in C.
    if(CORVID_SANITIZE)
      set_target_properties(${program} PROPERTIES LINKER_LANGUAGE CXX)
    endif()
  endforeach()
endfunction()

# corvid_test(name SOURCES a_test.cpp ... LINK targets ... [TIMEOUT seconds] [ALONE] [TOGETHER]): one test
# program, each case a CTest test. ALONE: no other test runs beside it. TOGETHER: no two of its sources have
# something of their own under the same name, so that they can be compiled several at a time, which takes a
# third of the time.
function(corvid_test name)
  cmake_parse_arguments(arg "ALONE;TOGETHER" "TIMEOUT" "SOURCES;LINK" ${ARGN})
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 60)
    if(CORVID_SANITIZE)  # they make everything slower
      set(arg_TIMEOUT 180)
    endif()
  endif()
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE corvid_flags corvid_fakes corvid_test_support ${arg_LINK} GTest::gmock GTest::gtest_main)
  if(CORVID_UNITY AND arg_TOGETHER)
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 6)
  endif()
  corvid_precompile(${name} tests LINK GTest::gmock HEADERS <gtest/gtest.h>)
  include(GoogleTest)
  gtest_discover_tests(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} RUN_SERIAL ${arg_ALONE}
                       DISCOVERY_TIMEOUT 60)
endfunction()

# corvid_precompile(name set [LINK targets ...] [HEADERS headers ...]): headers that nearly all sources
# include, compiled once for all targets of the same set, which have the same flags.
function(corvid_precompile name set)
  if(NOT CORVID_PCH)
    return()
  endif()
  cmake_parse_arguments(arg "" "" "LINK;HEADERS" ${ARGN})
  set(compiled corvid_headers_of_${set})
  if(NOT TARGET ${compiled})
    set(source ${CMAKE_BINARY_DIR}/${compiled}.cpp)
    file(CONFIGURE OUTPUT ${source} CONTENT "" @ONLY)
    add_library(${compiled} OBJECT ${source})
    target_link_libraries(${compiled} PRIVATE corvid_flags fmt::fmt Threads::Threads ${arg_LINK})
    target_precompile_headers(${compiled} PRIVATE
      <atomic> <functional> <map> <memory> <optional> <string> <string_view> <vector>
      <fmt/format.h> ${arg_HEADERS})
  endif()
  target_precompile_headers(${name} REUSE_FROM ${compiled})
endfunction()

# corvid_check_headers(name LINK targets ... FOLDERS ... [WITHOUT headers ...]): compiles each header of the
# folders alone that has no source, but for those that are left out. The others are the first thing that their
# sources include, which is as good in builds without precompiled headers, as the preset clang.
# Not in builds with sanitizers, which have nothing to find in that.
function(corvid_check_headers name)
  if(CORVID_SANITIZE)
    return()
  endif()
  cmake_parse_arguments(arg "" "" "LINK;FOLDERS;WITHOUT" ${ARGN})
  set(sources)
  foreach(folder IN LISTS arg_FOLDERS)
    file(GLOB_RECURSE headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_SOURCE_DIR}
         ${CMAKE_SOURCE_DIR}/${folder}/*.h ${CMAKE_SOURCE_DIR}/${folder}/*.hpp)
    list(REMOVE_ITEM headers ${arg_WITHOUT})
    foreach(header IN LISTS headers)
      string(REGEX REPLACE "[.]h(pp)?$" ".cpp" own ${header})
      if(EXISTS ${CMAKE_SOURCE_DIR}/${own})
        continue()
      endif()
      set(source ${CMAKE_CURRENT_BINARY_DIR}/${name}/${header}.cpp)
      file(CONFIGURE OUTPUT ${source} CONTENT "#include \"${header}\"\n#include \"${header}\"\n" @ONLY)
      list(APPEND sources ${source})
    endforeach()
  endforeach()
  add_library(${name} OBJECT ${sources})
  target_link_libraries(${name} PRIVATE corvid_flags ${arg_LINK})
  set_target_properties(${name} PROPERTIES CXX_CLANG_TIDY "")
endfunction()
