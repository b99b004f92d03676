// The peer tables on their own: moving local peers, refreshing and
// replacing MANet links, ageing in address order, the caps and which link
// makes room, and the limit on the lines that report all of it.
#include <gtest/gtest.h>

#include <chrono>

#include "PeerTables.h"
#include "support/InProcessGate.h"
#include "vostrelka/ResolverPool.h"
#include "vostrelka/Time.h"

using namespace test_support;
using vostrelka::AddressResolver;
using vostrelka::GateInterface;
using vostrelka::InetAddress;
using vostrelka::PeerTables;
using Origin = PeerTables::Origin;

namespace {

constexpr int64_t SECOND_US = 1000000;

std::unique_ptr<AddressResolver> resolver(const std::string& text) {
    return std::make_unique<AddressResolver>(*vostrelka::HostPort::from(text), false);
}

uint64_t now_us() {
    return static_cast<uint64_t>(vostrelka::time_us());
}

GateInterface interface(uint32_t id, uint8_t type) {
    GateInterface made;
    made.id = id, made.type = type;
    return made;
}

// Local links 1 and 2, the MANet link 3.
class PeerTablesTest : public ::testing::Test {
protected:
    GateInterface ifaces[3] = {interface(1, GateInterface::LOCAL), interface(2, GateInterface::LOCAL),
                               interface(3, GateInterface::MANET)};
    vostrelka::ResolverPool resolvers;
    PeerTables tables{resolvers};

    Lines local(uint32_t iface, uint8_t addr, const char* address = nullptr) {
        return log_lines_of([&] {
            tables.add_local_peer(ifaces[iface - 1], addr, address ? InetAddress::from(address) : std::nullopt);
        });
    }
    Lines link(uint32_t iface, uint32_t manet_addr, uint8_t local_addr,
               std::unique_ptr<AddressResolver> by_name = nullptr, const char* address = nullptr,
               Origin origin = Origin::LEARNED) {
        return log_lines_of([&] {
            tables.add_manet_peer(ifaces[iface - 1], manet_addr, local_addr, std::move(by_name),
                                  address ? InetAddress::from(address) : std::nullopt, origin);
        });
    }
    const std::vector<PeerTables::MANetPeer>& links_of(uint32_t manet_addr) {
        return tables.manet_peers().at(manet_addr);
    }
};

TEST_F(PeerTablesTest, LocalPeerFollowsTheLastInterfaceAndAddressItWasHeardOn) {
    EXPECT_EQ(local(1, 0x05), Lines{"add local peer on iface 1: 0x05"});
    EXPECT_EQ(local(1, 0x05), Lines{});
    EXPECT_EQ(local(2, 0x05), (Lines{"remove old local peer on iface 1: 0x05", "add local peer on iface 2: 0x05"}));
    // An address appearing, changing or vanishing counts as a move.
    EXPECT_EQ(local(2, 0x05, "127.0.0.1:9000"),
              (Lines{"remove old local peer on iface 2: 0x05", "add local peer on iface 2: 0x05 / 127.0.0.1:9000"}));
    EXPECT_EQ(local(2, 0x05, "127.0.0.1:9000"), Lines{});
    EXPECT_EQ(local(2, 0x05, "127.0.0.1:9001"), (Lines{"remove old local peer on iface 2: 0x05 / 127.0.0.1:9000",
                                                       "add local peer on iface 2: 0x05 / 127.0.0.1:9001"}));
    EXPECT_EQ(local(2, 0x05).size(), 2u);
    ASSERT_EQ(tables.local_peers().size(), 1u);
    EXPECT_EQ(tables.local_peers().at(0x05).iface, &ifaces[1]);
}

TEST_F(PeerTablesTest, ASightingOfAKnownLinkRefreshesTheGatewaysFirstLink) {
    link(1, 0x0A000001, 0x10);
    link(2, 0x0A000001, 0x10);
    const uint64_t long_ago = now_us() - 60 * SECOND_US;
    for (size_t i : {0, 1}) tables.set_last_seen(0x0A000001, i, long_ago);
    // Matched on iface 2, refreshed on iface 1.
    EXPECT_EQ(link(2, 0x0A000001, 0x10), Lines{});
    ASSERT_EQ(links_of(0x0A000001).size(), 2u);
    EXPECT_GT(links_of(0x0A000001)[0].last_seen, long_ago);
    EXPECT_EQ(links_of(0x0A000001)[1].last_seen, long_ago);
}

TEST_F(PeerTablesTest, ANewAddressOrHostReplacesTheLinkOnThatInterfaceOnly) {
    link(1, 0x0A000001, 0x10);
    link(3, 0x0A000001, 0x11, nullptr, "10.0.0.1:5000");
    EXPECT_EQ(link(3, 0x0A000001, 0x22), Lines{});  // no address matches any link
    EXPECT_EQ(link(3, 0x0A000001, 0x12, nullptr, "10.0.0.2:5000"),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x11 / 10.0.0.1:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000"}));
    // A host name never matches a link that has none.
    EXPECT_EQ(link(3, 0x0A000001, 0xFF, resolver("localhost:5000")),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0x12 / 10.0.0.2:5000",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / localhost:5000 / UNKNOWN INET ADDR"}));
    // The same host text only refreshes; the new resolver is dropped.
    const AddressResolver* kept = links_of(0x0A000001)[1].resolver.get();
    EXPECT_EQ(link(3, 0x0A000001, 0xFF, resolver("localhost:5000")), Lines{});
    EXPECT_EQ(links_of(0x0A000001)[1].resolver.get(), kept);
    ASSERT_EQ(links_of(0x0A000001).size(), 2u);
    EXPECT_EQ(links_of(0x0A000001)[0].iface, &ifaces[0]);
    // Both a name and an address: refused, nothing changes.
    EXPECT_EQ(link(2, 0x0A000001, 0x13, resolver("localhost:5000"), "10.0.0.3:5000"), Lines{});
    EXPECT_EQ(links_of(0x0A000001).size(), 2u);
}

TEST_F(PeerTablesTest, PeerTextIsCutAt127Characters) {
    const std::string host(200, 'h');
    EXPECT_EQ(PeerTables::full_addr_s_manet(1, 2, resolver(host + ":1"), std::nullopt).size(), 127u);
    InetAddress long_local = *InetAddress::from("1.2.3.4:5");
    long_local.host = host;
    EXPECT_EQ(PeerTables::full_addr_s_local(0x05, long_local).size(), 127u);
}

// Links on local links go once silent for PEER_TIMEOUT_US, those of one pass
// in ascending MANet address order whatever order they fell due in; links
// on the MANet link never age, and a refresh after a link's time was filed
// for ageing keeps it.
TEST_F(PeerTablesTest, SilentLinksOnLocalLinksAgeOutInAddressOrder) {
    const uint64_t now = now_us();
    const uint64_t stale = now - PeerTables::PEER_TIMEOUT_US - SECOND_US;
    const struct {
        uint32_t manet_addr, iface;
        uint8_t local_addr;
        uint64_t last_seen;
    } links[] = {
        {0x0B000003, 1, 0x07, stale - 2 * SECOND_US},
        {0x0B000002, 1, 0x08, stale},
        {0x0B000002, 3, 0x09, stale},  // on the MANet interface: never ages
        {0x0B000001, 2, 0x0A, stale - SECOND_US},
        {0x0B000004, 1, 0x0B, now - PeerTables::PEER_TIMEOUT_US + SECOND_US},
        {0x0B000005, 1, 0x0C, stale},  // heard again below
    };
    for (const auto& l : links) {
        link(l.iface, l.manet_addr, l.local_addr);
        tables.set_last_seen(l.manet_addr, links_of(l.manet_addr).size() - 1, l.last_seen);
    }
    link(1, 0x0B000005, 0x0C);
    auto removed = [](const char* iface, uint64_t seen, const char* text) {
        return std::string("Remove MANet peer on iface ") + iface + ", last seen " + std::to_string(seen) + ": " + text;
    };
    EXPECT_EQ(log_lines_of([&] { tables.age_learned_links(static_cast<int64_t>(now)); }),
              (Lines{removed("2", stale - SECOND_US, "0x0B000001 / 0x0A"), removed("1", stale, "0x0B000002 / 0x08"),
                     removed("1", stale - 2 * SECOND_US, "0x0B000003 / 0x07")}));
    const PeerTables::MANetPeers& table = tables.manet_peers();
    EXPECT_EQ(table.count(0x0B000001) + table.count(0x0B000003), 0u);
    ASSERT_EQ(links_of(0x0B000002).size(), 1u);
    EXPECT_EQ(links_of(0x0B000002)[0].local_addr, 0x09);
    EXPECT_EQ(table.count(0x0B000004) + table.count(0x0B000005), 2u);
}

// What traffic adds to the MANet table is capped; past a cap the oldest link
// of the same origin makes room and configured links are never the one.
TEST_F(PeerTablesTest, LearnedLinksAreCappedAndTheOneSeenLongestAgoMakesRoom) {
    link(1, 0x0C000001, 0x05, nullptr, nullptr, Origin::CONFIGURED);
    const uint64_t long_ago = now_us() - 60 * SECOND_US;
    tables.set_last_seen(0x0C000001, 0, long_ago - 1);  // older still, but configured
    const Lines lines = log_lines_of([&] {
        for (uint32_t i = 0; i < PeerTables::MAX_LEARNED_LINKS; ++i) {
            tables.add_manet_peer(ifaces[i % 2], 0x0B000000 + i, 0x07, nullptr, std::nullopt, Origin::LEARNED);
        }
        tables.set_last_seen(0x0B000005, 0, long_ago);
        tables.set_last_seen(0x0B000009, 0, long_ago + 1);
        for (uint32_t addr : {0x0D000001, 0x0D000002}) {
            tables.add_manet_peer(ifaces[1], addr, 0x07, nullptr, std::nullopt, Origin::LEARNED);
        }
    });
    const std::string warning =
        "WARNING: 4096 learned MANet links, the most kept: a new one now replaces the one seen longest ago";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), warning), 1) << lines.size();
    const PeerTables::MANetPeers& table = tables.manet_peers();
    EXPECT_EQ(table.size(), PeerTables::MAX_LEARNED_LINKS + 1);
    EXPECT_EQ(table.count(0x0B000005) + table.count(0x0B000009), 0u);
    EXPECT_EQ(table.count(0x0C000001) + table.count(0x0D000001) + table.count(0x0D000002), 3u);
}

TEST_F(PeerTablesTest, AnnouncedLinksAreCappedAndNeverTakeOverAConfiguredGateway) {
    link(3, 0x0A000001, 0x22, nullptr, "127.0.0.1:7000", Origin::CONFIGURED);
    auto announce = [&](uint32_t manet_addr) {
        return link(3, manet_addr, 0xFF, resolver("127.0.0.1:5000"), nullptr, Origin::ANNOUNCED);
    };
    for (uint32_t i = 0; i < PeerTables::MAX_ANNOUNCED_LINKS; ++i) announce(0x0E000000 + i);
    const uint64_t long_ago = now_us() - 60 * SECOND_US;
    tables.set_last_seen(0x0E000003, 0, long_ago);
    const std::string utm = " / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR";
    EXPECT_EQ(announce(0x0E0000FF),
              (Lines{"WARNING: 16 MANet links announced by device_config, the most kept: a new one now replaces the "
                     "one seen longest ago",
                     "Remove MANet peer on iface 3, last seen " + std::to_string(long_ago) + ": 0x0E000003" + utm,
                     "add MANet peer on iface 3: 0x0E0000FF" + utm}));
    EXPECT_EQ(announce(0x0E0000FE).size(), 2u);

    // The configured gateway keeps its address whatever a device says.
    EXPECT_EQ(announce(0x0A000001),
              Lines{"WARNING: device_config does not replace configured MANet peer on iface 3: 0x0A000001" + utm});
    ASSERT_EQ(links_of(0x0A000001).size(), 1u);
    EXPECT_EQ(PeerTables::full_addr_s_manet(0x0A000001, links_of(0x0A000001)[0]), "0x0A000001 / 0x22 / 127.0.0.1:7000");
    EXPECT_EQ(tables.manet_peers().size(), PeerTables::MAX_ANNOUNCED_LINKS + 1);
}

// The configuration's lines all show; traffic's are held back past a
// hundred a second and summed up once the second is over.
TEST_F(PeerTablesTest, TrafficLinesPastAHundredASecondAreSummedUpButNeverTheConfigurations) {
    tables.set_configuring(true);
    Lines lines = log_lines_of([&] {
        for (int addr = 0; addr < 120; ++addr) tables.add_local_peer(ifaces[0], static_cast<uint8_t>(addr), {});
    });
    EXPECT_EQ(lines.size(), 120u);
    tables.set_configuring(false);
    lines = log_lines_of([&] {
        for (int addr = 0; addr < 120; ++addr) tables.add_local_peer(ifaces[1], static_cast<uint8_t>(addr), {});
    });
    ASSERT_EQ(lines.size(), 100u);
    EXPECT_EQ(lines.back(), "add local peer on iface 2: 0x31");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    do {
        lines = log_lines_of([&] { tables.flush_log(); });
    } while (lines.empty() && std::chrono::steady_clock::now() < deadline);
    EXPECT_EQ(lines, Lines{"WARNING: 140 peer table lines not shown (more than 100 a second)"});
}

}  // namespace
