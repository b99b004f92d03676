# What `cmake --install` puts where; the Debian package (debian/, built by
# `make deb`) installs the same files through debhelper.
#   cmake --install build     the programs, their man pages, the examples, the
#                             systemd units, the alerting rules and the
#                             example configuration (in
#                             /etc/gate when configured with
#                             -DCMAKE_INSTALL_PREFIX=/usr, as the package is)
include(GNUInstallDirs)

install(TARGETS gate gatecat gate-check gate-exporter RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/man/gate.1 ${CMAKE_SOURCE_DIR}/packaging/man/gatecat.1
              ${CMAKE_SOURCE_DIR}/packaging/man/gate-check.1 ${CMAKE_SOURCE_DIR}/packaging/man/gate-exporter.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# Under share/gate rather than share/doc: minimal systems often drop
# /usr/share/doc, and the examples are meant to be copied to /etc/gate.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/gate/examples
        FILES_MATCHING PATTERN "*.json")
# Wireshark loads every Lua file in its global plugin folder, which Debian
# keeps under the multiarch library folder.
install(FILES ${GATE_DISSECTOR}
        DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
# /etc with the prefix /usr, else under the prefix.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/etc/example.json DESTINATION ${CMAKE_INSTALL_FULL_SYSCONFDIR}/gate)
# systemd looks here for units shipped by packages, whatever the prefix.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/gate@.service ${CMAKE_SOURCE_DIR}/packaging/systemd/gate.target
              ${CMAKE_SOURCE_DIR}/packaging/systemd/gate-exporter.service
        DESTINATION lib/systemd/system)
# Alerting rules for the Prometheus server that scrapes the exporter; they
# are copied to that server, which is seldom this machine.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/prometheus/gate.rules.yml
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gate-exporter)
# The group that owns the control sockets, made by systemd-sysusers
# (the package runs it when installed).
install(FILES ${CMAKE_SOURCE_DIR}/packaging/sysusers/gate.conf DESTINATION lib/sysusers.d)

# The package's version is the project's with a Debian revision, taken from
# the newest entry of debian/changelog, which must be for this project
# version: the two cannot drift apart unnoticed.
file(STRINGS ${CMAKE_SOURCE_DIR}/debian/changelog GATE_CHANGELOG_TOP LIMIT_COUNT 1)
if(NOT GATE_CHANGELOG_TOP MATCHES "^gate \\(${PROJECT_VERSION}-([0-9A-Za-z.+~]+)\\) ")
  message(FATAL_ERROR "debian/changelog: the newest entry, \"${GATE_CHANGELOG_TOP}\", "
                      "is not for version ${PROJECT_VERSION}-<revision>")
endif()
