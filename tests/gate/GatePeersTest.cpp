// The peer tables: when a sighting adds, replaces, refreshes or is refused,
// and the text each peer is printed as.
#include <gtest/gtest.h>

#include "support/InProcessGate.h"
#include "vostrelka/Time.h"

using test_support::Lines;
using test_support::log_lines_of;
using vostrelka::AddressResolver;
using vostrelka::Gate;
using vostrelka::HostPort;
using vostrelka::InetAddress;

namespace {

std::optional<InetAddress> inet(const char* text) {
    return InetAddress::from(std::string(text));
}
std::unique_ptr<AddressResolver> resolver(const std::string& text) {
    return std::make_unique<AddressResolver>(*HostPort::from(text), false);
}

class GatePeersTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    Gate::Interface& serial1 = (bench.add_recording_iface(1), bench.iface(1));
    Gate::Interface& serial2 = (bench.add_recording_iface(2), bench.iface(2));
    Gate::Interface& manet3 = (bench.add_recording_iface(3, Gate::MANET), bench.iface(3));

    // Adds (or not) a local peer and returns its lines.
    Lines local(Gate::Interface& iface, uint8_t addr, const char* address, bool added) {
        return log_lines_of(
            [&] { EXPECT_EQ(gate.add_local_peer(iface, addr, address ? inet(address) : std::nullopt), added); });
    }
    Lines link(Gate::Interface& iface, uint8_t local_addr, std::unique_ptr<AddressResolver> by_name,
               const char* address, bool added) {
        return log_lines_of([&] {
            EXPECT_EQ(gate.add_manet_peer(iface, 0x0A000001, local_addr, std::move(by_name),
                                          address ? inet(address) : std::nullopt),
                      added);
        });
    }
};

TEST_F(GatePeersTest, LocalPeerFollowsTheLastInterfaceAndAddressItWasHeardOn) {
    EXPECT_EQ(local(serial1, 0x05, nullptr, true), Lines{"add local peer on iface 1: 0x05"});
    EXPECT_EQ(local(serial1, 0x05, nullptr, false), Lines{});
    EXPECT_EQ(local(serial2, 0x05, nullptr, true),
              (Lines{"remove old local peer on iface 1: 0x05", "add local peer on iface 2: 0x05"}));
    // An address appearing, changing or vanishing counts as a move.
    EXPECT_EQ(local(serial2, 0x05, "127.0.0.1:9000", true),
              (Lines{"remove old local peer on iface 2: 0x05", "add local peer on iface 2: 0x05 / 127.0.0.1:9000"}));
    EXPECT_EQ(local(serial2, 0x05, "127.0.0.1:9000", false), Lines{});
    EXPECT_EQ(local(serial2, 0x05, "127.0.0.1:9001", true),
              (Lines{"remove old local peer on iface 2: 0x05 / 127.0.0.1:9000",
                     "add local peer on iface 2: 0x05 / 127.0.0.1:9001"}));
    local(serial2, 0x05, nullptr, true);
    ASSERT_EQ(gate.local_peers.size(), 1u);
    EXPECT_EQ(gate.local_peers.at(0x05).iface, &serial2);
    EXPECT_FALSE(gate.local_peers.at(0x05).inet_addr.has_value());
}

TEST_F(GatePeersTest, ManetPeerTextShowsWhatIsKnownCutAt127Characters) {
    EXPECT_EQ(link(manet3, 0xFF, resolver("localhost:5000"), nullptr, true),
              Lines{"add MANet peer on iface 3: 0x0A000001 / 0xFF / localhost:5000 / UNKNOWN INET ADDR"});
    EXPECT_EQ(link(serial1, 0x07, nullptr, nullptr, true), Lines{"add MANet peer on iface 1: 0x0A000001 / 0x07"});
    EXPECT_EQ(link(serial2, 0x08, nullptr, "10.0.0.3:1", true),
              Lines{"add MANet peer on iface 2: 0x0A000001 / 0x08 / 10.0.0.3:1"});
    Gate::MANetPeer& named = gate.manet_peers.at(0x0A000001).front();
    named.inet_addr = inet("10.0.0.1:5000");
    EXPECT_EQ(gate.full_addr_s_manet(0x0A000001, named), "0x0A000001 / 0xFF / localhost:5000 / 10.0.0.1:5000");

    const std::string host(200, 'h');
    EXPECT_EQ(gate.full_addr_s_manet(1, 2, resolver(host + ":1"), std::nullopt).size(), 127u);
    InetAddress long_local = *inet("1.2.3.4:5");
    long_local.host = host;
    EXPECT_EQ(gate.full_addr_s_local(0x05, long_local).size(), 127u);
}

TEST_F(GatePeersTest, ASightingOfAKnownLinkRefreshesTheGatewaysFirstLink) {
    link(serial1, 0x10, nullptr, nullptr, true);
    link(serial2, 0x10, nullptr, nullptr, true);
    auto& links = gate.manet_peers.at(0x0A000001);
    const uint64_t long_ago = static_cast<uint64_t>(vostrelka::time_us()) - 60000000;
    links[0].last_seen = links[1].last_seen = long_ago;
    // Matched on iface 2, refreshed on iface 1.
    EXPECT_EQ(link(serial2, 0x10, nullptr, nullptr, false), Lines{});
    ASSERT_EQ(links.size(), 2u);
    EXPECT_GT(links[0].last_seen, long_ago);
    EXPECT_EQ(links[1].last_seen, long_ago);
}

TEST_F(GatePeersTest, ANewAddressOrHostReplacesTheLinkOnThatInterfaceOnly) {
    link(serial1, 0x10, nullptr, nullptr, true);
    link(manet3, 0x11, nullptr, "10.0.0.1:5000", true);
    EXPECT_EQ(link(manet3, 0x22, nullptr, nullptr, false), Lines{});  // no address matches any link
    EXPECT_EQ(link(manet3, 0x12, nullptr, "10.0.0.2:5000", true),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x11 / 10.0.0.1:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000"}));
    // A host name never matches a link that has none.
    EXPECT_EQ(link(manet3, 0xFF, resolver("localhost:5000"), nullptr, true),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / localhost:5000 / UNKNOWN INET ADDR"}));
    // The same host text only refreshes; the new resolver is dropped.
    const AddressResolver* kept = gate.manet_peers.at(0x0A000001)[1].resolver.get();
    EXPECT_EQ(link(manet3, 0xFF, resolver("localhost:5000"), nullptr, false), Lines{});
    EXPECT_EQ(gate.manet_peers.at(0x0A000001)[1].resolver.get(), kept);
    // Both a host name and an address: refused without a word.
    EXPECT_EQ(link(manet3, 0x13, resolver("localhost:5001"), "10.0.0.3:5000", false), Lines{});
    ASSERT_EQ(gate.manet_peers.at(0x0A000001).size(), 2u);
    EXPECT_EQ(gate.manet_peers.at(0x0A000001)[0].iface, &serial1);
}

TEST_F(GatePeersTest, TwoMatchingLinksOnOneInterfaceAreAnErrorAndChangeNothing) {
    link(serial1, 0x10, nullptr, nullptr, true);
    Gate::MANetPeer twin;
    twin.iface = &serial1;
    gate.manet_peers.at(0x0A000001).push_back(std::move(twin));
    EXPECT_EQ(link(serial1, 0x12, nullptr, nullptr, false), Lines{"ERROR: more than one manet link on iface 1"});
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).size(), 2u);
}

}  // namespace
