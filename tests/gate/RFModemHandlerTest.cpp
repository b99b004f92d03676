// The RF modem's base configuration: its bytes and how often it goes out.
#include <gtest/gtest.h>

#include "RFModemHandler.h"
#include "support/frame_recorder.h"

using namespace test_support;

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

TEST(RFModemHandlerTest, BaseConfigGoesFromTheDeviceToTheModemAtNine) {
    RecordingNetDevice device(0x31);
    vostrelka::RFModemHandler(&device, 2, 20.0f, 44).update(T0_US);
    // id 1 | size 9 (LE) | addr (LE) | power (float LE) | channel
    EXPECT_EQ(
        device.sent,
        (std::vector<RecordedFrame>{{14, 0x31, 9, {0x01, 0x09, 0, 0, 0, 0x02, 0, 0, 0, 0x00, 0x00, 0xA0, 0x41, 44}}}));
}

}  // namespace
