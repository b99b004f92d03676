# Installation layout and the Debian package.
#   cmake --install build     the programs, their man pages, the examples, the
#                             systemd unit and the example configuration (in
#                             /etc/gate when configured with
#                             -DCMAKE_INSTALL_PREFIX=/usr, as the package is)
#   make deb                  the same as a .deb (mk/deb.mk)
include(GNUInstallDirs)

# Debian wants manual pages and the changelog compressed, and the same bytes
# from the same sources (-n: no name or time stamp in the gzip header).
set(GATE_PACKAGING_DIR ${CMAKE_BINARY_DIR}/packaging)
set(GATE_COMPRESSED_DOCS)
foreach(source packaging/man/gate.1 packaging/man/gatecat.1 packaging/man/gate-check.1 packaging/debian/changelog)
  get_filename_component(name ${source} NAME)
  if(name STREQUAL "changelog")
    set(name changelog.Debian)
  endif()
  set(compressed ${GATE_PACKAGING_DIR}/${name}.gz)
  add_custom_command(OUTPUT ${compressed}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${GATE_PACKAGING_DIR}
    COMMAND gzip -9n < ${CMAKE_SOURCE_DIR}/${source} > ${compressed}
    DEPENDS ${CMAKE_SOURCE_DIR}/${source}
    VERBATIM)
  list(APPEND GATE_COMPRESSED_DOCS ${compressed})
endforeach()
add_custom_target(gate_compressed_docs ALL DEPENDS ${GATE_COMPRESSED_DOCS})

install(TARGETS gate gatecat gate-check RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${GATE_PACKAGING_DIR}/gate.1.gz ${GATE_PACKAGING_DIR}/gatecat.1.gz ${GATE_PACKAGING_DIR}/gate-check.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${GATE_PACKAGING_DIR}/changelog.Debian.gz ${CMAKE_SOURCE_DIR}/packaging/debian/copyright
        DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/debian/lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME gate)
# Under share/gate rather than share/doc: minimal systems often drop
# /usr/share/doc, and the examples are meant to be copied to /etc/gate.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/gate/examples
        FILES_MATCHING PATTERN "*.json")
# Wireshark loads every Lua file in its global plugin folder, which Debian
# keeps under the multiarch library folder.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/wireshark/gate.lua
        DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
# /etc with the prefix /usr, else under the prefix.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/etc/example.json DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/gate)
# systemd looks here for units shipped by packages, whatever the prefix.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/gate@.service DESTINATION lib/systemd/system)

# The package's version is the project's with the Debian revision of the
# changelog's newest entry, which must be for this project version: the two
# cannot drift apart unnoticed. The revision sorts below 1 ("1~upstream"):
# the package is built outside Debian, and one from the archive should win.
file(STRINGS ${CMAKE_SOURCE_DIR}/packaging/debian/changelog GATE_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT GATE_CHANGELOG_TOP MATCHES "^gate \\(${PROJECT_VERSION}-([0-9A-Za-z.+~]+)\\) ")
  message(FATAL_ERROR "packaging/debian/changelog: the newest entry, \"${GATE_CHANGELOG_TOP}\", "
                      "is not for version ${PROJECT_VERSION}-<revision>")
endif()
set(CPACK_DEBIAN_PACKAGE_RELEASE ${CMAKE_MATCH_1})

# Whoever builds packages for others sets the address that reaches them.
set(GATE_MAINTAINER "gate maintainers <gate-maintainers@example.org>"
    CACHE STRING "Maintainer of the Debian package, \"Name <address>\"")

set(CPACK_PACKAGE_NAME gate)
set(CPACK_PACKAGE_VENDOR "gate developers")
set(CPACK_PACKAGE_CONTACT ${GATE_MAINTAINER})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Net device gateway for serial, CAN and UDP links")
# One paragraph, lines under 80 columns: Debian shows it as written.
set(CPACK_PACKAGE_DESCRIPTION
    "gate joins serial lines, SocketCAN buses and UDP sockets to each other
and to a MANet of other gateways over UDP. It learns where each device
lives and forwards every frame where its destination requires. gatecat
sends and watches frames on the same interfaces, asks a running gateway
for its counters, tables and traffic, and writes captures that Wireshark
reads with the dissector the package installs. gate-check checks a
configuration file before the gateway starts on it.")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps reads the libraries the binaries link and names their packages.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SUGGESTS systemd)
# An administrator's edits to the example survive upgrades.
file(WRITE ${GATE_PACKAGING_DIR}/conffiles "/etc/gate/example.json\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${GATE_PACKAGING_DIR}/conffiles)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
include(CPack)
