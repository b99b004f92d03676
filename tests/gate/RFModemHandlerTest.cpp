#include <gtest/gtest.h>

#include "RFModemHandler.h"
#include "support/InProcessGate.h"

using test_support::log_lines_of;
using test_support::RecordingNetDevice;
using vostrelka::Gate;
using vostrelka::RFModemHandler;
using Lines = std::vector<std::string>;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr long T0_US = 7000000;

TEST(RFModemHandlerTest, SendsFirstThenOnlyAfterStrictlyMoreThanAPeriod) {
    RecordingNetDevice device;
    RFModemHandler handler(&device, 5, 1.0f, 3);
    std::vector<long> sent_at;
    for (int step = 0; step <= 8; ++step) {
        const long now = T0_US + step * 500000L;
        const size_t before = device.sent.size();
        handler.update(now);
        if (device.sent.size() != before) sent_at.push_back(now - T0_US);
    }
    EXPECT_EQ(sent_at, (std::vector<long>{0, 1500000, 3000000}));
}

class GateRFModemTest : public ::testing::Test {
protected:
    test_support::InProcessGate bench;
    Gate& gate = bench.gate;
    std::shared_ptr<RecordingNetDevice> radio1 = bench.add_recording_iface(1);
    std::shared_ptr<RecordingNetDevice> radio2 = bench.add_recording_iface(2);

    void know_manet(uint32_t manet_addr) {
        log_lines_of([&] { gate.add_manet_peer(bench.iface(1), manet_addr, 0x10, nullptr, {}); });
    }
};

TEST_F(GateRFModemTest, WithoutManetPeersNothingIsConfigured) {
    EXPECT_EQ(log_lines_of([&] {
                  gate.parse_rfmodem_config(bench.iface(1), {{"channel", 3}, {"power", 1.0}});
              }),
              Lines{});
    EXPECT_TRUE(gate.handlers.empty());
}

TEST_F(GateRFModemTest, ModemGetsTheLowestManetAddressAndAnEightBitChannel) {
    know_manet(0x00000005);
    know_manet(0x00000002);
    EXPECT_EQ(log_lines_of([&] {
                  gate.parse_rfmodem_config(bench.iface(2), {{"channel", 300}, {"power", 20}});
              }),
              Lines{"RFModem on iface 2: addr=0x00000002 channel=44 power=20.0"});
    ASSERT_EQ(gate.handlers.size(), 1u);
    gate.handlers[0]->update(T0_US);
    ASSERT_EQ(radio2->sent.size(), 1u);
    EXPECT_TRUE(radio1->sent.empty());
    EXPECT_EQ(radio2->sent[0].proto_id, 14);
    EXPECT_EQ(radio2->sent[0].src, radio2->address);
    EXPECT_EQ(radio2->sent[0].dst, 9);
    EXPECT_EQ(radio2->sent[0].payload, (Bytes{0x01, 0x09, 0, 0, 0, 0x02, 0, 0, 0, 0x00, 0x00, 0xA0, 0x41, 44}));
}

TEST_F(GateRFModemTest, TwoInterfacesGetIndependentHandlers) {
    know_manet(0x00000005);
    log_lines_of([&] {
        gate.parse_rfmodem_config(bench.iface(1), {{"channel", 1}, {"power", 1.5}});
        gate.parse_rfmodem_config(bench.iface(2), {{"channel", 2}, {"power", 2.5}});
    });
    ASSERT_EQ(gate.handlers.size(), 2u);
    gate.handlers[0]->update(T0_US);
    gate.handlers[1]->update(T0_US + 100);
    gate.handlers[0]->update(T0_US + 1000001);
    EXPECT_EQ(radio1->sent.size(), 2u);
    ASSERT_EQ(radio2->sent.size(), 1u);
    EXPECT_EQ(radio2->sent[0].payload.back(), 2);
}

using GateRFModemDeathTest = GateRFModemTest;

TEST_F(GateRFModemDeathTest, ChannelAndPowerAreRequired) {
    know_manet(0x00000005);
    EXPECT_EXIT(gate.parse_rfmodem_config(bench.iface(1), {{"channel", 3}}), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(gate.parse_rfmodem_config(bench.iface(1), {{"power", 3}}), ::testing::ExitedWithCode(1), "");
}

}  // namespace
