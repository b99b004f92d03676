# Debian package of gate and gatecat, built with CPack into build-deb/packages/.
#   make deb     build a release tree and the .deb (needs dpkg-dev for the dependencies)
.PHONY: deb

deb: deps
	$(call configure_and_build,build-deb,-DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr -DBUILD_TESTING=OFF -DGATE_BENCH=OFF)
	@cd build-deb && cpack -G DEB >/dev/null
	@ls build-deb/packages/*.deb
