# The Debian packages: cpack in the build folder, or the target "package". One holds the daemon, its
# client library and their tools, as they are of one version; another the tool for authors of
# storebags, who need no daemon.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGE_CONTACT "corvidd developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_DAEMON_PACKAGE_NAME corvidd)
set(CPACK_DEBIAN_STOREBAG_PACKAGE_NAME corvid-storebag)
set(CPACK_DEBIAN_DAEMON_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_STOREBAG_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each has its own
set(CPACK_DEBIAN_DAEMON_DESCRIPTION
"${PROJECT_DESCRIPTION}
Takes reporting events from the programs of this device, decides by a signed
configuration and the user's consent what may leave it, and posts the rest to
its collectors. This package holds the daemon, the client library with its
headers, a command-line client and a laboratory of servers to try them with.")
set(CPACK_DEBIAN_STOREBAG_DESCRIPTION
"Tool for authors of corvidd's configuration
Writes, checks, signs and verifies storebags, the configuration that devices
with corvidd fetch. It needs no daemon, and runs on a build server as well as
at a desk.")

# The linker knows every library but libcurl, which the first exchange loads.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/client)
set(CPACK_DEBIAN_STOREBAG_PACKAGE_DEPENDS "libcurl4 (>= ${CURL_VERSION_STRING})")
set(CPACK_DEBIAN_DAEMON_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_STOREBAG_PACKAGE_DEPENDS}, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)

# Programs of other packages that use the library depend on the one that has it.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_DAEMON_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)
include(CPack)
