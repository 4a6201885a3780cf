# Everything comes from Debian packages; scripts/setup installs them.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(CapnProto REQUIRED)
find_package(CURL REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(ZLIB REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
pkg_check_modules(seccomp REQUIRED IMPORTED_TARGET libseccomp)
pkg_check_modules(systemd REQUIRED IMPORTED_TARGET libsystemd)
if(CORVID_TESTS)
  find_package(GTest REQUIRED)
  # An independent reader and writer of property lists to compare with.
  pkg_check_modules(plist REQUIRED IMPORTED_TARGET libplist-2.0)
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
