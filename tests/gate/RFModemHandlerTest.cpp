// The RF modem's base configuration: its bytes and how often it goes out.
#include <gtest/gtest.h>

#include "RFModemHandler.h"
#include "support/InProcessGate.h"

using namespace test_support;
using vostrelka::Gate;

namespace {

constexpr long T0_US = 7000000;

TEST(RFModemHandlerTest, SendsFirstThenOnlyAfterStrictlyMoreThanAPeriod) {
    RecordingNetDevice device;
    vostrelka::RFModemHandler handler(&device, 5, 1.0f, 3);
    std::vector<long> sent_at;
    for (long now = T0_US; now <= T0_US + 4000000; now += 500000) {
        const size_t before = device.sent.size();
        handler.update(now);
        if (device.sent.size() != before) sent_at.push_back(now - T0_US);
    }
    EXPECT_EQ(sent_at, (std::vector<long>{0, 1500000, 3000000}));
}

TEST(RFModemHandlerTest, ModemGetsTheLowestManetAddressPowerAndChannelInOneMessage) {
    InProcessGate bench;
    auto radio = bench.add_recording_iface(2);
    radio->address = 0x31;
    log_lines_of([&] {
        for (uint32_t manet_addr : {5u, 2u}) bench.gate.add_manet_peer(bench.iface(2), manet_addr, 0x10, nullptr, {});
    });
    EXPECT_EQ(log_lines_of([&] {
                  bench.gate.parse_rfmodem_config(bench.iface(2), {{"channel", 300}, {"power", 20}});
              }),
              Lines{"RFModem on iface 2: addr=0x00000002 channel=44 power=20.0"});
    ASSERT_EQ(bench.gate.handlers.size(), 1u);
    bench.gate.handlers[0]->update(T0_US);
    // id 1 | size 9 (LE) | addr (LE) | power (float LE) | channel, from the
    // device's own address to the modem at 9.
    EXPECT_EQ(
        radio->sent,
        (std::vector<RecordedFrame>{{14, 0x31, 9, {0x01, 0x09, 0, 0, 0, 0x02, 0, 0, 0, 0x00, 0x00, 0xA0, 0x41, 44}}}));
}

}  // namespace
