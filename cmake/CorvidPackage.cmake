# The Debian package: cpack in the build folder, or the target "package". One package holds it all,
# as the daemon, its client library and its tools are of one version.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_CONTACT "corvidd developers")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
# Below the project's own line.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION
"Takes reporting events from the programs of this device, decides by a signed
configuration and the user's consent what may leave it, and posts the rest to
its collectors. This package holds the daemon, the client library with its
headers, a command-line client and a laboratory of servers to try them with.")

# The linker knows every library but libcurl, which the first exchange loads.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/client)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "libcurl4 (>= ${CURL_VERSION_STRING}), systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)

# Programs of other packages that use the library depend on this one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${CMAKE_SOURCE_DIR}/packaging/debian/postinst ${CMAKE_SOURCE_DIR}/packaging/debian/prerm
    ${CMAKE_SOURCE_DIR}/packaging/debian/postrm ${CMAKE_SOURCE_DIR}/packaging/debian/triggers)
include(CPack)
