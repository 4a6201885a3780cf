# What may be asked for; what cannot be had is refused with the reason and the way out.
option(CORVID_TESTS "Build the tests" ON)
option(CORVID_BENCH "Build the benchmarks" OFF)
option(CORVID_FUZZ "Build the fuzz targets as programs that fuzz (clang)" OFF)
option(CORVID_WERROR "Treat warnings as errors, as every preset does" OFF)
option(CORVID_HARDEN "Build with the compiler's and the linker's protections" ON)
option(CORVID_PCH "Use precompiled headers" ON)
option(CORVID_TIDY "Run clang-tidy on everything that is compiled" OFF)
set(CORVID_SANITIZE "" CACHE STRING "Sanitizers to build with, such as address,undefined")

function(corvid_refuse reason)
  # The blank keeps the line whole.
  message(FATAL_ERROR " ${reason}")
endfunction()

if(CORVID_FUZZ AND NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
  corvid_refuse("CORVID_FUZZ takes clang's libFuzzer: use the preset fuzz, or -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14")
endif()

if(CORVID_SANITIZE)
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_FLAGS -fsanitize=${CORVID_SANITIZE})
  check_cxx_source_compiles("int main() {}" CORVID_CAN_SANITIZE_${CORVID_SANITIZE})
  unset(CMAKE_REQUIRED_FLAGS)
  if(NOT CORVID_CAN_SANITIZE_${CORVID_SANITIZE})
    corvid_refuse("${CMAKE_CXX_COMPILER} cannot build with -fsanitize=${CORVID_SANITIZE}: the names in CORVID_SANITIZE are wrong, exclude each other or lack their library")
  endif()
endif()

if(CORVID_TIDY)
  find_program(CORVID_CLANG_TIDY NAMES clang-tidy-14 clang-tidy)
  mark_as_advanced(CORVID_CLANG_TIDY)
  if(NOT CORVID_CLANG_TIDY)
    corvid_refuse("CORVID_TIDY takes clang-tidy: install the Debian package clang-tidy")
  endif()
  if(CORVID_PCH)
    corvid_refuse("clang-tidy cannot read another compiler's precompiled headers: CORVID_TIDY takes CORVID_PCH=OFF, as in the preset clang")
  endif()
endif()

# The daemon looks for its files in usr/share/corvid below its root, and its unit for the daemon in
# /usr/sbin.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT)
  set_property(CACHE CMAKE_INSTALL_PREFIX PROPERTY VALUE /usr)
endif()
if(NOT CMAKE_INSTALL_PREFIX MATCHES "/usr/?$")
  corvid_refuse("CMAKE_INSTALL_PREFIX is ${CMAKE_INSTALL_PREFIX}, but the daemon looks for its files in the folder usr of its root: take /usr, or DIR/usr for a root to try things in")
endif()
