# Name resolution against a DNS server the tests control, in a network
# namespace (needs root or sudo): slow, failing and dead servers, a thousand
# names, UTM host changes under traffic, and a jitter run of DNS_JITTER_S.
#   make test-dns   build, then tests/dns/run-dns.sh
# `make sanitize` and `make tsan` repeat the jitter run with their builds.
DNS_JITTER_S ?= $(if $(CI),20,60)

.PHONY: test-dns
test-dns: build
	DNS_JITTER_S=$(DNS_JITTER_S) tests/dns/run-dns.sh $(BUILD)

# $(1) build folder, $(2) sanitizer settings. Skipped, with a note, where
# neither root nor sudo is at hand.
define dns_jitter_run
	@if [ "$$(id -u)" = 0 ] || sudo -n true 2>/dev/null; then \
	  $(2) DNS_JITTER_S=$(DNS_JITTER_S) tests/dns/run-dns.sh $(1) 'DnsScenarios.Jitter*'; \
	else echo "DNS jitter run skipped: it needs root or sudo"; fi
endef
