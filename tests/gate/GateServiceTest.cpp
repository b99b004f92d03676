// Service frames: a device's configuration message naming its UTM server
// becomes a MANet peer on every MANet interface.
#include <gtest/gtest.h>

#include <cstring>

#include "support/InProcessGate.h"

using namespace test_support;
using vostrelka::Gate;

namespace {

constexpr uint8_t DEVICE_CONFIG_ID = 4;
constexpr const char* PARSE_ERROR = "ERROR: failed to parse device config message";

void put_le(Bytes& out, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; i++) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// A device_config body naming a UTM server:
//   device_serial 32 | hash 16 | cfg_id 1 | node_manet_addr 4 | utm_manet_addr 4 |
//   utm_inet_port 2 | node_manet_key 16 | utm_inet_host 32 | json length 4 | json
Bytes device_config(uint32_t utm_manet_addr, const std::string& host = "127.0.0.1", const std::string& json = "") {
    Bytes body(48, 'S');
    body.push_back(3);
    put_le(body, 0x0B000001, 4);
    put_le(body, utm_manet_addr, 4);
    put_le(body, 5000, 2);
    body.insert(body.end(), 16, 'K');
    Bytes host_field(32, 0);
    std::memcpy(host_field.data(), host.data(), host.size());
    body.insert(body.end(), host_field.begin(), host_field.end());
    put_le(body, json.size(), 4);
    body.insert(body.end(), json.begin(), json.end());
    return body;
}

// One record: seq 4 | type 1 | message id 1 | body size 4 | body.
Bytes record(const Bytes& body, uint8_t id = DEVICE_CONFIG_ID) {
    Bytes bytes;
    put_le(bytes, 42, 4);
    bytes.push_back(1);  // request
    bytes.push_back(id);
    put_le(bytes, body.size(), 4);
    bytes.insert(bytes.end(), body.begin(), body.end());
    return bytes;
}

class GateServiceTest : public ::testing::Test {
protected:
    InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<RecordingNetDevice> serial1 = bench.add_recording_iface(1);
    std::shared_ptr<RecordingNetDevice> serial2 = bench.add_recording_iface(2);
    std::shared_ptr<RecordingNetDevice> manet3 = bench.add_recording_iface(3, Gate::MANET);
    std::shared_ptr<RecordingNetDevice> manet4 = bench.add_recording_iface(4, Gate::MANET);

    Lines deliver(const Bytes& payload, uint8_t proto_id = Gate::SERVICE_PROTO_ID) {
        return log_lines_of([&] { serial1->receive(make_frame(proto_id, 0x01, 0xFF, payload)); });
    }
};

TEST_F(GateServiceTest, DeviceConfigIsForwardedThenAddsItsUtmOnEveryManetInterface) {
    log_lines_of([&] { gate.add_local_peer(bench.iface(2), 0x05, std::nullopt); });
    const Bytes config = record(device_config(0x0A000001));
    EXPECT_EQ(deliver(config),
              (Lines{"add local peer on iface 1: 0x01",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 4: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR"}));
    EXPECT_EQ(serial2->sent, (std::vector<RecordedFrame>{{Gate::SERVICE_PROTO_ID, 0x01, 0xFF, config}}));

    // The same UTM again only refreshes; another host replaces the links.
    EXPECT_EQ(deliver(config), Lines{});
    EXPECT_EQ(deliver(record(device_config(0x0A000001, "127.0.0.2"))),
              (Lines{"Replace MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 3: 0x0A000001 / 0xFF / 127.0.0.2:5000 / UNKNOWN INET ADDR",
                     "Replace MANet peer on iface 4: 0x0A000001 / 0xFF / 127.0.0.1:5000 / UNKNOWN INET ADDR",
                     "add MANet peer on iface 4: 0x0A000001 / 0xFF / 127.0.0.2:5000 / UNKNOWN INET ADDR"}));
    EXPECT_EQ(gate.manet_peers.at(0x0A000001).size(), 2u);
}

TEST_F(GateServiceTest, MalformedUnusableOrOtherMessagesChangeNothing) {
    log_lines_of([&] { gate.add_local_peer(bench.iface(1), 0x01, std::nullopt); });
    const Bytes full = device_config(0x0A000001);
    struct Case {
        const char* what;
        Bytes payload;
        uint8_t proto_id;
        Lines expected;
    };
    const Case cases[] = {
        {"cut inside the fixed fields", record(Bytes(full.begin(), full.begin() + 48)), 8, {PARSE_ERROR}},
        {"cut inside manet_config", record(Bytes(full.begin(), full.begin() + 106)), 8, {PARSE_ERROR}},
        {"110 bytes", record(Bytes(full.begin(), full.begin() + 110)), 8, {PARSE_ERROR}},
        {"configuration text", record(device_config(0x0A000001, "127.0.0.1", "{")), 8, {PARSE_ERROR}},
        {"no UTM", record(device_config(0)), 8, {}},
        {"empty host", record(device_config(0x0A000001, "")), 8, {"ERROR: failed to parse UTM host and port. :5000"}},
        {"another message", record(full, 5), 8, {}},
        {"another protocol", record(full), 7, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(deliver(c.payload, c.proto_id), c.expected) << c.what;
        EXPECT_TRUE(gate.manet_peers.empty()) << c.what;
    }
}

}  // namespace
