#!/usr/bin/env bash
# Runs tests/dns/DnsScenarios in a network namespace of its own whose
# resolv.conf points at the test's DNS responder on 127.53.0.1; removes the
# namespace and its /etc/netns files however the run ends. Needs root (or sudo).
#   tests/dns/run-dns.sh BUILD_DIR [GTEST_FILTER]
# DNS_JITTER_S sets the length of the jitter run (default 60 s).
set -euo pipefail
build=${1:?usage: run-dns.sh BUILD_DIR [GTEST_FILTER]}
filter=${2:-*}
[ "$(id -u)" = 0 ] || exec sudo -E "$0" "$@"

ns=gate-dns-$$
server=127.53.0.1
cleanup() {
    ip netns del "$ns" 2>/dev/null || true
    rm -rf "/etc/netns/$ns"
}
trap cleanup EXIT

ip netns add "$ns"
ip -n "$ns" link set lo up
# `ip netns exec` mounts each of these files over its namesake in /etc.
mkdir -p "/etc/netns/$ns"
printf 'nameserver %s\noptions timeout:5 attempts:1\n' "$server" >"/etc/netns/$ns/resolv.conf"
printf 'hosts: files dns\n' >"/etc/netns/$ns/nsswitch.conf"
printf '127.0.0.1 localhost\n' >"/etc/netns/$ns/hosts"

DNS_NETNS=$ns DNS_SERVER=$server DNS_JITTER_S=${DNS_JITTER_S:-60} \
    ip netns exec "$ns" "$(realpath "$build")/bin/DnsScenarios" --gtest_filter="$filter"
