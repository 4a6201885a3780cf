# Everything comes from Debian packages; scripts/setup installs them.

# Ends the configuration unless `found`, saying which package to install.
function(corvid_require found what package)
  if(NOT found)
    corvid_refuse("${what} is missing: install the Debian package ${package}, or run scripts/setup")
  endif()
endfunction()

# corvid_find(name package [version]): find_package that names the Debian package.
macro(corvid_find name package)
  find_package(${name} ${ARGN} QUIET)
  corvid_require("${${name}_FOUND}" "${name}" ${package})
endmacro()

# corvid_find_module(name module package): the same for a pkg-config module.
macro(corvid_find_module name module package)
  pkg_check_modules(${name} QUIET IMPORTED_TARGET ${module})
  corvid_require("${${name}_FOUND}" ${module} ${package})
endmacro()

find_package(Threads REQUIRED)
corvid_find(PkgConfig pkg-config)
corvid_find(OpenSSL libssl-dev 3)  # before Cap'n Proto, which looks for it as well
corvid_find(CapnProto libcapnp-dev)
find_program(CAPNP_EXECUTABLE capnp)
corvid_require("${CAPNP_EXECUTABLE}" "The Cap'n Proto compiler" capnproto)
corvid_find(CURL libcurl4-openssl-dev)
corvid_find(ZLIB zlib1g-dev)
corvid_find(fmt libfmt-dev)
corvid_find(CLI11 libcli11-dev)
corvid_find(spdlog libspdlog-dev)
corvid_find_module(seccomp libseccomp libseccomp-dev)
find_path(CORVID_RAPIDJSON rapidjson/reader.h)
mark_as_advanced(CORVID_RAPIDJSON)
corvid_require("${CORVID_RAPIDJSON}" RapidJSON rapidjson-dev)
# A package that is made without it would lack its dependencies and say nothing.
find_program(CORVID_SHLIBDEPS dpkg-shlibdeps)
mark_as_advanced(CORVID_SHLIBDEPS)
corvid_require("${CORVID_SHLIBDEPS}" dpkg-shlibdeps dpkg-dev)
if(CORVID_TESTS)
  corvid_find(GTest libgtest-dev)
  if(NOT TARGET GTest::gmock)
    corvid_require(NO GMock libgmock-dev)
  endif()
  # An independent reader and writer of property lists to compare with.
  corvid_find_module(plist libplist-2.0 libplist-dev)
  # The system's own, which Debian's pytest is for.
  find_program(CORVID_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
  mark_as_advanced(CORVID_PYTHON)
  corvid_require("${CORVID_PYTHON}" "Python 3" python3)
  execute_process(COMMAND ${CORVID_PYTHON} -c "import pytest" RESULT_VARIABLE lacks_pytest ERROR_QUIET)
  if(lacks_pytest)
    corvid_require(NO pytest python3-pytest)
  endif()
endif()

# What the programs in gateway/ need. Where CORVID_FLEET is AUTO and one is missing, they are left out.
set(CORVID_BUILD_FLEET ${CORVID_FLEET})
if(CORVID_FLEET)
  find_path(CORVID_BEAST boost/beast.hpp)
  mark_as_advanced(CORVID_BEAST)
  pkg_check_modules(libpq QUIET IMPORTED_TARGET libpq)
  pkg_check_modules(librabbitmq QUIET IMPORTED_TARGET librabbitmq)
  set(CORVID_BUILD_FLEET ON)
  foreach(need "CORVID_BEAST Boost.Beast libboost-dev" "libpq_FOUND libpq libpq-dev"
               "librabbitmq_FOUND librabbitmq librabbitmq-dev")
    separate_arguments(need)
    list(GET need 0 found)
    if(NOT ${found})
      if(NOT CORVID_FLEET STREQUAL "AUTO")
        list(GET need 1 what)
        list(GET need 2 package)
        corvid_refuse("CORVID_FLEET takes ${what}: install the Debian package ${package}, or run scripts/setup fleet")
      endif()
      set(CORVID_BUILD_FLEET OFF)
    endif()
  endforeach()
  # For the comparison of logs (tests/gateway/rounds), which tries one log where this is missing.
  pkg_check_modules(libnats QUIET IMPORTED_TARGET libnats)
  if(CORVID_BUILD_FLEET AND CORVID_TESTS AND NOT libnats_FOUND)
    message(STATUS "tests/gateway/rounds tries one log: it compares two with libnats-dev")
  endif()
  if(NOT CORVID_BUILD_FLEET)
    message(STATUS "gateway/ is left out: scripts/setup fleet installs what it needs")
  endif()
endif()

# Cap'n Proto. A program with the property CORVID_CAPNP_ARCHIVES takes its archives where they are
# installed: that saves relocations at each start and memory for as long as it runs.
set(capnp_archives "")
foreach(name capnp-rpc capnp kj-async kj)
  find_library(CORVID_ARCHIVE_${name} lib${name}.a)
  mark_as_advanced(CORVID_ARCHIVE_${name})
  list(APPEND capnp_archives ${CORVID_ARCHIVE_${name}})
endforeach()
add_library(corvid_capnp INTERFACE)
if(capnp_archives MATCHES NOTFOUND)
  target_link_libraries(corvid_capnp INTERFACE CapnProto::capnp-rpc)
else()
  set(takes_archives $<BOOL:$<TARGET_PROPERTY:CORVID_CAPNP_ARCHIVES>>)
  target_link_libraries(corvid_capnp INTERFACE
    "$<${takes_archives}:${capnp_archives}>"
    $<$<NOT:${takes_archives}>:CapnProto::capnp-rpc>)
endif()
