# The Debian package, built by debhelper from debian/ into build-deb/.
#   make deb     gate_<version>_<arch>.deb, gate-exporter_<version>_<arch>.deb
#                and their debug symbols, with the .buildinfo and .changes
#                files, in build-deb/
# dpkg-buildpackage writes its results beside the source tree, so it runs on
# a copy of the tree in build-deb/src (the files git tracks or would track:
# nothing ignored, no build folder) and they land in build-deb/.
.PHONY: deb

deb:
	@scripts/install-deps deb
	@rm -rf build-deb && mkdir -p build-deb/src
	@git ls-files -z --cached --others --exclude-standard | \
	  while IFS= read -r -d '' f; do [[ -e $$f ]] && printf '%s\0' "$$f"; done | \
	  tar --null -T - -cf - | tar -C build-deb/src -xf -
	cd build-deb/src && dpkg-buildpackage -us -uc -b -j$(JOBS)
	@ls build-deb/*.deb
