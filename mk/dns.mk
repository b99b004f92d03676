# Name resolution against a DNS server the tests control, in a network
# namespace (needs root or sudo): slow, failing and dead servers, a thousand
# names, UTM host changes under traffic, and a jitter run of DNS_JITTER_S.
#   make test-dns   build, then tests/dns/run-dns.sh
DNS_JITTER_S ?= $(if $(CI),20,60)

.PHONY: test-dns
test-dns: build
	DNS_JITTER_S=$(DNS_JITTER_S) tests/dns/run-dns.sh $(BUILD)
