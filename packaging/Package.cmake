# Installing Korvane Velgar like any other Debian desktop program: the
# desktop entry, the package's documents, and the Debian package itself,
# made in the build folder with `cpack -G DEB`. Included by the top-level
# CMakeLists.txt after every other install rule.

set(KV_PACKAGING_DIR ${CMAKE_CURRENT_LIST_DIR})
set(KV_PACKAGE_NAME korvane-velgar)

if(KV_BUILD_DESKTOP)
  install(FILES ${KV_PACKAGING_DIR}/com.korvane.KorvaneVelgar.desktop
          DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
endif()

# Debian wants the copyright notice and the changelog, compressed, in the
# package's documentation folder, and reads its tag overrides from
# share/lintian/overrides.
set(KV_PACKAGE_DOCS ${CMAKE_BINARY_DIR}/packaging)
add_custom_command(OUTPUT ${KV_PACKAGE_DOCS}/changelog.gz
  COMMAND ${CMAKE_COMMAND} -E make_directory ${KV_PACKAGE_DOCS}
  COMMAND gzip -9 --no-name --stdout ${KV_PACKAGING_DIR}/changelog > ${KV_PACKAGE_DOCS}/changelog.gz
  DEPENDS ${KV_PACKAGING_DIR}/changelog
  VERBATIM)
add_custom_target(kv_package_docs ALL DEPENDS ${KV_PACKAGE_DOCS}/changelog.gz)
install(FILES ${KV_PACKAGING_DIR}/copyright ${KV_PACKAGE_DOCS}/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${KV_PACKAGE_NAME})
install(FILES ${KV_PACKAGING_DIR}/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${KV_PACKAGE_NAME})

# The package installs under /usr; the maintainer scripts name the helper by
# its installed path.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(KV_PACKAGED_HELPER ${CPACK_PACKAGING_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/korvane-velgar/gfslogger)
configure_file(${KV_PACKAGING_DIR}/postinst.in ${KV_PACKAGE_DOCS}/postinst @ONLY)
configure_file(${KV_PACKAGING_DIR}/postrm.in ${KV_PACKAGE_DOCS}/postrm @ONLY)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ${KV_PACKAGE_NAME})
set(CPACK_PACKAGE_VENDOR "Korvane")
set(CPACK_PACKAGE_CONTACT "Korvane Velgar developers <support@korvane.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "on-access virus scanner for the desktop")
# Lines are kept under 80 columns, as dpkg shows them.
string(CONCAT CPACK_PACKAGE_DESCRIPTION
  "Korvane Velgar runs in the background for one logged-in user and watches\n"
  "the folders the user chooses. Every new file is scanned by ClamAV once it\n"
  "has stopped growing; infected files are moved to a quarantine folder or\n"
  "to the Trash, or left in place with a warning. Results go to a scan log\n"
  "and to desktop notifications.\n"
  "\n"
  "velgarctl sets up a per-user ClamAV engine, edits the preferences and\n"
  "talks to the running agent.")
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# The libraries (Qt 6 and the C++ runtime) come from dpkg-shlibdeps; these
# are the programs the agent runs.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "clamav-daemon, clamdscan, clamav-freshclam, pkexec, logrotate, bzip2, xdg-utils, libglib2.0-bin, dbus, procps")
# GNOME Files shows "Scan with Korvane" through nautilus-python.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "python3-nautilus")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${KV_PACKAGE_DOCS}/postinst ${KV_PACKAGE_DOCS}/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
