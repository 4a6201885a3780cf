# Where everything goes. The daemon looks for its files below its root, so the prefix is the folder
# usr of that root: "/usr" for the machine itself, or DIR/usr for a root to try things in.
install(CODE [[
  if(NOT CMAKE_INSTALL_PREFIX MATCHES "/usr/?$")
    message(FATAL_ERROR " the daemon looks for its files in the folder usr of its root: the prefix is /usr or DIR/usr, not ${CMAKE_INSTALL_PREFIX}")
  endif()]])
install(TARGETS corvidd RUNTIME DESTINATION sbin)  # where its unit looks for it
install(TARGETS corvidctl corvid-lab corvid-storebag RUNTIME)
install(TARGETS corvid LIBRARY)
install(DIRECTORY client/include/corvid include/corvid DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

if(TARGET corvid_static)
  install(FILES ${CMAKE_BINARY_DIR}/client/libcorvid.a DESTINATION ${CMAKE_INSTALL_LIBDIR})
endif()

file(RELATIVE_PATH CORVID_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" CORVID_PC_TO_PREFIX ${CORVID_PC_TO_PREFIX})
configure_file(packaging/corvid.pc.in corvid.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvid.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# find_package(corvid) in other projects.
include(CMakePackageConfigHelpers)
set(CORVID_CMAKE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/corvid)
configure_package_config_file(packaging/corvid-config.cmake.in corvid-config.cmake
  INSTALL_DESTINATION ${CORVID_CMAKE_FOLDER}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(corvid-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/corvid-config.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/corvid-config-version.cmake
        DESTINATION ${CORVID_CMAKE_FOLDER})

# The Python package, where Debian's Python looks for modules of all its versions.
set(CORVID_PYTHON_FOLDER lib/python3/dist-packages)
configure_file(packaging/METADATA.in METADATA @ONLY)
install(DIRECTORY python/corvid DESTINATION ${CORVID_PYTHON_FOLDER} PATTERN __pycache__ EXCLUDE)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/METADATA
        DESTINATION ${CORVID_PYTHON_FOLDER}/corvid-${PROJECT_VERSION}.dist-info)
install(FILES examples/python_client.py DESTINATION share/doc/python3-corvid/examples)

configure_file(packaging/Info.plist.in Info.plist @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/Info.plist DESTINATION share/corvid)
install(FILES packaging/sandbox/com.halcyon.corvidd.plist DESTINATION share/corvid/sandbox)
# Each works as it is, save for the names of hosts.
install(FILES packaging/examples/deployment.plist packaging/examples/device.plist
              packaging/examples/entitlement.plist packaging/examples/storebag.plist
        DESTINATION share/doc/corvidd/examples)
install(DIRECTORY examples/ DESTINATION share/doc/libcorvid-dev/examples
        FILES_MATCHING PATTERN *.c PATTERN *.cpp PATTERN *.md PATTERN CMakeLists.txt
        PATTERN bundle EXCLUDE)
install(FILES packaging/examples/nginx.conf DESTINATION share/doc/corvid-storebag/examples)
install(FILES packaging/man/corvidctl.1 packaging/man/corvid-lab.1 packaging/man/corvid-storebag.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# Section 3: each page, and a link to it from every other function that it is about.
file(GLOB pages CONFIGURE_DEPENDS packaging/man/*.3)
install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
file(MAKE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/man3)
set(links)
foreach(page IN LISTS pages)
  get_filename_component(target ${page} NAME)
  file(STRINGS ${page} names REGEX "^\\.Nm ")
  foreach(name IN LISTS names)
    string(REGEX REPLACE "^\\.Nm ([^ ]+).*" "\\1.3" link ${name})
    if(NOT link STREQUAL target)
      file(CREATE_LINK ${target} ${CMAKE_CURRENT_BINARY_DIR}/man3/${link} SYMBOLIC)
      list(APPEND links ${CMAKE_CURRENT_BINARY_DIR}/man3/${link})
    endif()
  endforeach()
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${page})
endforeach()
install(FILES ${links} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3)
install(FILES packaging/man/corvid-deployment.5 packaging/man/corvid-device.5
              packaging/man/corvid-entitlements.5 packaging/man/corvid-storebag.5
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man5)
install(FILES packaging/man/corvid.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
install(FILES packaging/man/corvidd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES packaging/systemd/corvidd.service packaging/systemd/corvidd.socket
        DESTINATION lib/systemd/system)
install(FILES packaging/sysusers/corvidd.conf DESTINATION lib/sysusers.d)
if(CORVID_BUILD_FLEET)
  install(TARGETS corvid-gateway corvid-loader RUNTIME DESTINATION sbin)
  install(TARGETS corvid-fleet RUNTIME)
  install(FILES packaging/man/corvid-fleet.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES packaging/man/corvid-gateway.8 packaging/man/corvid-loader.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
  install(FILES packaging/systemd/corvid-gateway.service packaging/systemd/corvid-loader.service
          DESTINATION lib/systemd/system)
  install(FILES packaging/sysusers/corvid-gateway.conf packaging/sysusers/corvid-loader.conf DESTINATION lib/sysusers.d)
  install(FILES packaging/examples/gateway.conf packaging/examples/corvid-gateway.default
                packaging/examples/nginx-gateway.conf
          DESTINATION share/doc/corvid-gateway/examples)
  install(FILES packaging/examples/corvid-loader.default DESTINATION share/doc/corvid-loader/examples)
endif()
# A folder that is missing when the daemon enters its sandbox stays out of its reach.
foreach(folder entitlements.d keys.d)
  install(DIRECTORY DESTINATION ../etc/corvid/${folder})
endforeach()
