# Installation layout and the Debian package.
#   cmake --install build --prefix /usr     the programs, their man pages,
#                                           the examples and the systemd unit
#   make deb                                the same as a .deb (mk/deb.mk)
include(GNUInstallDirs)

install(TARGETS gate gatecat RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/man/gate.1 ${CMAKE_SOURCE_DIR}/packaging/man/gatecat.1
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
# Under share/gate rather than share/doc: minimal systems often drop
# /usr/share/doc, and the examples are meant to be copied to /etc/gate.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/gate/examples
        FILES_MATCHING PATTERN "*.json")
# Wireshark loads every Lua file in its global plugin folder, which Debian
# keeps under the multiarch library folder.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/wireshark/gate.lua
        DESTINATION lib/${CMAKE_LIBRARY_ARCHITECTURE}/wireshark/plugins)
# systemd looks here for units shipped by packages, whatever the prefix.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/systemd/gate@.service DESTINATION lib/systemd/system)

set(CPACK_PACKAGE_NAME gate)
set(CPACK_PACKAGE_VENDOR "gate developers")
set(CPACK_PACKAGE_CONTACT "gate developers <gate@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Net device gateway for serial, CAN and UDP links")
set(CPACK_PACKAGE_DESCRIPTION
    "gate joins serial lines, SocketCAN buses and UDP sockets to each other and to a MANet of other gateways, \
learns where each device lives and forwards every frame where its destination requires. gatecat sends and \
watches frames on the same interfaces, asks a running gateway for its counters, tables and traffic, and writes \
captures that Wireshark reads with the dissector the package installs.")
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
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
include(CPack)
