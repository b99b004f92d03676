#include <gtest/gtest.h>

#include "support/InProcessGate.h"
#include "vostrelka/Time.h"

using test_support::log_lines_of;
using vostrelka::AddressResolver;
using vostrelka::Gate;
using vostrelka::HostPort;
using vostrelka::InetAddress;
using Lines = std::vector<std::string>;

namespace {

std::optional<InetAddress> inet(const char* text) {
    return InetAddress::from(std::string(text));
}
std::unique_ptr<AddressResolver> resolver(const char* text) {
    return std::make_unique<AddressResolver>(*HostPort::from(std::string(text)), false);
}

class GatePeersTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    Gate::Interface& serial1 = (bench.add_recording_iface(1), bench.iface(1));
    Gate::Interface& serial2 = (bench.add_recording_iface(2), bench.iface(2));
    Gate::Interface& manet3 = (bench.add_recording_iface(3, Gate::MANET), bench.iface(3));
};

TEST_F(GatePeersTest, LocalPeerHeardAgainWhereItLivesChangesNothingAndPrintsNothing) {
    EXPECT_EQ(log_lines_of([&] { EXPECT_TRUE(gate.add_local_peer(serial1, 0x05, std::nullopt)); }),
              Lines{"add local peer on iface 1: 0x05"});
    EXPECT_EQ(log_lines_of([&] { EXPECT_FALSE(gate.add_local_peer(serial1, 0x05, std::nullopt)); }), Lines{});

    gate.add_local_peer(serial1, 0x06, inet("10.0.0.6:700"));
    EXPECT_EQ(log_lines_of([&] { EXPECT_FALSE(gate.add_local_peer(serial1, 0x06, inet("10.0.0.6:700"))); }), Lines{});
}

TEST_F(GatePeersTest, LocalPeerFollowsTheLastInterfaceAndAddressItWasHeardOn) {
    gate.add_local_peer(serial1, 0x05, std::nullopt);
    EXPECT_EQ(log_lines_of([&] { EXPECT_TRUE(gate.add_local_peer(serial2, 0x05, std::nullopt)); }),
              (Lines{"remove old local peer on iface 1: 0x05", "add local peer on iface 2: 0x05"}));
    ASSERT_EQ(gate.local_peers.size(), 1u);
    EXPECT_EQ(gate.local_peers.at(0x05).iface, &serial2);

    // A new sender address on the same interface, and an address appearing
    // or vanishing, each count as a move.
    EXPECT_EQ(log_lines_of([&] { EXPECT_TRUE(gate.add_local_peer(serial2, 0x05, inet("127.0.0.1:9000"))); }),
              (Lines{"remove old local peer on iface 2: 0x05", "add local peer on iface 2: 0x05 / 127.0.0.1:9000"}));
    EXPECT_EQ(log_lines_of([&] { EXPECT_TRUE(gate.add_local_peer(serial2, 0x05, inet("127.0.0.1:9001"))); }),
              (Lines{"remove old local peer on iface 2: 0x05 / 127.0.0.1:9000",
                     "add local peer on iface 2: 0x05 / 127.0.0.1:9001"}));
    EXPECT_TRUE(gate.add_local_peer(serial2, 0x05, std::nullopt));
    EXPECT_FALSE(gate.local_peers.at(0x05).inet_addr.has_value());
}

TEST_F(GatePeersTest, ManetPeerWithBothResolverAndAddressIsRefusedSilently) {
    auto given = resolver("localhost:5000");
    EXPECT_EQ(log_lines_of([&] {
                  EXPECT_FALSE(gate.add_manet_peer(manet3, 0x0A000001, 0x10, std::move(given), inet("10.0.0.1:5000")));
              }),
              Lines{});
    EXPECT_TRUE(gate.manet_peers.empty());
}

TEST_F(GatePeersTest, ManetPeerTextShowsResolverAndAddressAsKnown) {
    EXPECT_EQ(log_lines_of([&] { gate.add_manet_peer(manet3, 0x0A000001, 0xFF, resolver("localhost:5000"), {}); }),
              Lines{"add MANet peer on iface 3: 0x0A000001 / 0xFF / localhost:5000 / UNKNOWN INET ADDR"});
    EXPECT_EQ(log_lines_of([&] { gate.add_manet_peer(serial1, 0x0A000002, 0x07, nullptr, {}); }),
              Lines{"add MANet peer on iface 1: 0x0A000002 / 0x07"});
    EXPECT_EQ(log_lines_of([&] { gate.add_manet_peer(manet3, 0x0A000003, 0x08, nullptr, inet("10.0.0.3:1")); }),
              Lines{"add MANet peer on iface 3: 0x0A000003 / 0x08 / 10.0.0.3:1"});

    Gate::MANetPeer& named = gate.manet_peers.at(0x0A000001).front();
    named.inet_addr = inet("10.0.0.1:5000");
    EXPECT_EQ(gate.full_addr_s_manet(0x0A000001, named), "0x0A000001 / 0xFF / localhost:5000 / 10.0.0.1:5000");
}

TEST_F(GatePeersTest, PeerTextIsCutAt127Characters) {
    const std::string host(200, 'h');
    auto long_name = std::make_unique<AddressResolver>(*HostPort::from(host, 1), false);
    const std::string text = gate.full_addr_s_manet(1, 2, long_name, std::nullopt);
    EXPECT_EQ(text.size(), 127u);
    EXPECT_EQ(text.substr(0, 22), "0x00000001 / 0x02 / hh");

    InetAddress local_long = *inet("1.2.3.4:5");
    local_long.host = host;
    EXPECT_EQ(gate.full_addr_s_local(0x05, local_long).size(), 127u);
}

TEST_F(GatePeersTest, LinksOfOneGatewayOnTwoInterfacesLiveSideBySide) {
    EXPECT_TRUE(gate.add_manet_peer(serial1, 0x0A000001, 0x10, nullptr, {}));
    EXPECT_TRUE(gate.add_manet_peer(manet3, 0x0A000001, 0x11, nullptr, inet("10.0.0.1:5000")));
    const auto& links = gate.manet_peers.at(0x0A000001);
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].iface, &serial1);
    EXPECT_EQ(links[1].iface, &manet3);
    EXPECT_EQ(links[1].local_addr, 0x11);
}

TEST_F(GatePeersTest, SameLinkRefreshesTheFirstLinkOfTheGatewayWhicheverMatched) {
    gate.add_manet_peer(serial1, 0x0A000001, 0x10, nullptr, {});
    gate.add_manet_peer(serial2, 0x0A000001, 0x10, nullptr, {});
    auto& links = gate.manet_peers.at(0x0A000001);
    const uint64_t long_ago = static_cast<uint64_t>(vostrelka::time_us()) - 60000000;
    links[0].last_seen = long_ago;
    links[1].last_seen = long_ago;

    EXPECT_EQ(log_lines_of([&] { EXPECT_FALSE(gate.add_manet_peer(serial2, 0x0A000001, 0x10, nullptr, {})); }),
              Lines{});
    ASSERT_EQ(links.size(), 2u);
    EXPECT_GT(links[0].last_seen, long_ago);
    EXPECT_EQ(links[1].last_seen, long_ago);
}

TEST_F(GatePeersTest, SameHostTextOnlyRefreshesAndDropsTheNewResolver) {
    gate.add_manet_peer(manet3, 0x0A000001, 0xFF, resolver("localhost:5000"), {});
    AddressResolver* kept = gate.manet_peers.at(0x0A000001).front().resolver.get();
    EXPECT_EQ(log_lines_of(
                  [&] { EXPECT_FALSE(gate.add_manet_peer(manet3, 0x0A000001, 0xFF, resolver("localhost:5000"), {})); }),
              Lines{});
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).front().resolver.get(), kept);
}

TEST_F(GatePeersTest, ANewAddressOrHostReplacesTheLinkOnThatInterfaceOnly) {
    gate.add_manet_peer(serial1, 0x0A000001, 0x10, nullptr, {});
    gate.add_manet_peer(manet3, 0x0A000001, 0x11, nullptr, inet("10.0.0.1:5000"));
    EXPECT_EQ(log_lines_of(
                  [&] { EXPECT_TRUE(gate.add_manet_peer(manet3, 0x0A000001, 0x12, nullptr, inet("10.0.0.2:5000"))); }),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x11 / 10.0.0.1:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000"}));

    // A host name never matches a link that has none.
    EXPECT_EQ(log_lines_of(
                  [&] { EXPECT_TRUE(gate.add_manet_peer(manet3, 0x0A000001, 0xFF, resolver("localhost:5000"), {})); }),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / localhost:5000 / UNKNOWN INET ADDR"}));
    EXPECT_TRUE(gate.add_manet_peer(manet3, 0x0A000001, 0xFF, resolver("localhost:5001"), {}));

    const auto& links = gate.manet_peers.at(0x0A000001);
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].iface, &serial1);
    EXPECT_EQ(links[1].resolver->to_s(), "localhost:5001");
}

TEST_F(GatePeersTest, SightingWithoutAddressMatchesAnyLinkOnThatInterface) {
    gate.add_manet_peer(manet3, 0x0A000001, 0x11, nullptr, inet("10.0.0.1:5000"));
    EXPECT_FALSE(gate.add_manet_peer(manet3, 0x0A000001, 0x22, nullptr, {}));
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).front().local_addr, 0x11);
}

TEST_F(GatePeersTest, TwoMatchingLinksOnOneInterfaceAreAnErrorAndChangeNothing) {
    gate.add_manet_peer(serial1, 0x0A000001, 0x10, nullptr, {});
    Gate::MANetPeer twin;
    twin.iface = &serial1;
    twin.local_addr = 0x11;
    gate.manet_peers.at(0x0A000001).push_back(std::move(twin));

    EXPECT_EQ(log_lines_of([&] { EXPECT_FALSE(gate.add_manet_peer(serial1, 0x0A000001, 0x12, nullptr, {})); }),
              Lines{"ERROR: more than one manet link on iface 1"});
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).size(), 2u);
}

TEST_F(GatePeersTest, FindsTheInterfaceHoldingThatVeryDevice) {
    test_support::RecordingNetDevice stranger;
    EXPECT_EQ(gate.find_iface_by_ref(*serial2.net_device)->first, 2u);
    EXPECT_EQ(gate.find_iface_by_ref(stranger), gate.ifaces.end());
}

}  // namespace
