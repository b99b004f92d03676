#include <gtest/gtest.h>

#include <cstring>

#include "support/InProcessGate.h"
#include "vostrelka/firmware_configurator/metadata.h"

using test_support::log_lines_of;
using test_support::make_frame;
using test_support::RecordingNetDevice;
using vostrelka::Gate;
using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;
namespace fc = vostrelka::msgs::firmware_configurator;

namespace {

constexpr const char* PARSE_ERROR = "ERROR: failed to parse device config message";

fc::device_config utm_config(uint32_t utm_manet_addr, const char* host = "127.0.0.1", uint16_t port = 5000) {
    fc::device_config config;
    config.cfg_id = 3;
    config.manet_config.node_manet_addr = 0x0B000001;
    config.manet_config.utm_manet_addr = utm_manet_addr;
    config.manet_config.utm_inet_port = port;
    std::memcpy(config.manet_config.utm_inet_host, host, std::strlen(host));
    return config;
}

// One guarantor-framed record carrying `body` as message `id`.
Bytes service_record(uint8_t id, const Bytes& body) {
    Bytes bytes{0x2A, 0, 0, 0, vostrelka::guarantor::GuarantorHeader::TYPE_REQUEST, id};
    const auto size = static_cast<uint32_t>(body.size());
    for (int shift = 0; shift < 32; shift += 8) bytes.push_back(static_cast<uint8_t>(size >> shift));
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

Bytes body_of(const fc::device_config& config) {
    Bytes storage(512);
    vostrelka::Slice<uint8_t> out(storage.data(), 0, storage.size());
    fc::encode(config, out);
    storage.resize(out.size);
    return storage;
}

class GateServiceTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<RecordingNetDevice> serial1 = bench.add_recording_iface(1);
    std::shared_ptr<RecordingNetDevice> manet3 = bench.add_recording_iface(3, Gate::MANET);

    Lines deliver(const Bytes& payload) {
        return log_lines_of([&] { serial1->receive(make_frame(Gate::SERVICE_PROTO_ID, 0x01, 0xFF, payload)); });
    }
};

TEST_F(GateServiceTest, DeviceConfigNamingAUtmAddsItOnEveryManetInterface) {
    bench.add_recording_iface(2, Gate::MANET);
    EXPECT_EQ(deliver(service_record(fc::device_config::ID, body_of(utm_config(0x0A000001)))),
              (Lines{"add local peer on iface 1: 0x01",
                     "add MANet peer on iface 2: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR"}));
    const auto& links = gate.manet_peers.at(0x0A000001);
    ASSERT_EQ(links.size(), 2u);
    EXPECT_EQ(links[0].iface, &bench.iface(2));
    EXPECT_EQ(links[1].iface, &bench.iface(3));
}

TEST_F(GateServiceTest, SameUtmAgainOnlyRefreshesAndANewHostReplaces) {
    const Bytes record = service_record(fc::device_config::ID, body_of(utm_config(0x0A000001)));
    deliver(record);
    EXPECT_EQ(deliver(record), Lines{});
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).size(), 1u);

    EXPECT_EQ(deliver(service_record(fc::device_config::ID, body_of(utm_config(0x0A000001, "127.0.0.2")))),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.2:5000 / UNKNOWN INET ADDR"}));
}

TEST_F(GateServiceTest, MalformedOrUnusableDeviceConfigChangesNothing) {
    gate.add_local_peer(bench.iface(1), 0x01, std::nullopt);
    const Bytes full = body_of(utm_config(0x0A000001));
    fc::device_config with_text = utm_config(0x0A000001);
    with_text.manet_config.generic_config_json = "{";

    struct Case {
        const char* what;
        Bytes body;
        Lines expected;
    };
    const std::vector<Case> cases = {
        {"cut inside the fixed fields", Bytes(full.begin(), full.begin() + 48), {PARSE_ERROR}},
        {"cut inside manet_config", Bytes(full.begin(), full.begin() + 106), {PARSE_ERROR}},
        {"110 bytes", Bytes(full.begin(), full.begin() + 110), {PARSE_ERROR}},
        {"configuration text", body_of(with_text), {PARSE_ERROR}},
        {"no UTM", body_of(utm_config(0)), {}},
        {"empty host", body_of(utm_config(0x0A000001, "")), {"ERROR: failed to parse UTM host and port. :5000"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(deliver(service_record(fc::device_config::ID, c.body)), c.expected) << c.what;
        EXPECT_TRUE(gate.manet_peers.empty()) << c.what;
    }
}

TEST_F(GateServiceTest, OtherMessagesAndOtherProtocolsAreNotReadAsDeviceConfig) {
    gate.add_local_peer(bench.iface(1), 0x01, std::nullopt);
    const Bytes body = body_of(utm_config(0x0A000001));
    EXPECT_EQ(deliver(service_record(fc::set_config::ID, body)), Lines{});
    log_lines_of([&] { serial1->receive(make_frame(7, 0x01, 0xFF, service_record(fc::device_config::ID, body))); });
    EXPECT_TRUE(gate.manet_peers.empty());
}

TEST_F(GateServiceTest, ServiceFrameIsForwardedLikeAnyOtherFirst) {
    auto serial2 = bench.add_recording_iface(2);
    gate.add_local_peer(bench.iface(2), 0x05, std::nullopt);
    const Bytes record = service_record(fc::device_config::ID, body_of(utm_config(0x0A000001)));
    deliver(record);
    ASSERT_EQ(serial2->sent.size(), 1u);
    EXPECT_EQ(serial2->sent[0].payload, record);
    EXPECT_EQ(gate.manet_peers.count(0x0A000001), 1u);
}

}  // namespace
