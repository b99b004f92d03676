#pragma once
// Keeps an RF modem configured: once a period it sends the modem one
// base_config record (proto_id 14, dst 9) over the interface's device,
// whether or not the modem answers.
//
// base_config record, 14 bytes, little-endian:
//   offset  size  field
//   0       1     message id 1
//   1       4     body length 9
//   5       4     addr     (uint32)
//   9       4     power    (IEEE 754 single)
//   13      1     channel  (uint8)
#include <cstdint>

#include "RunnerHandler.h"
#include "vostrelka/Slice.h"
#include "vostrelka/firmware_configurator/metadata.h"

namespace vostrelka {

class RFModemHandler : public RunnerHandler {
public:
    static constexpr size_t OUTPUT_CAPACITY = 32;
    static constexpr uint8_t RFMODEM_DST = 9;
    static constexpr int64_t PERIOD_US = 1000000;

    RFModemHandler(net_device::NetDevice* device, uint32_t addr, float power, uint8_t channel);
    ~RFModemHandler() override;
    RFModemHandler(const RFModemHandler&) = delete;
    RFModemHandler& operator=(const RFModemHandler&) = delete;

    // Sends on the first call, then once strictly more than period_us has
    // passed since the last send; so the real interval is a period plus the
    // time to the loop's next pass. A failed send is simply repeated then.
    void update(const long& now_us) override;

    const msgs::rfmodem::base_config& config() const { return base_config; }
    int64_t last_sent() const { return last_sent_us; }

private:
    struct Sender {
        net_device::NetDevice* device;
        Slice<uint8_t>* buffer;
    };

    msgs::rfmodem::base_config base_config;
    uint8_t output_storage[OUTPUT_CAPACITY] = {};
    Slice<uint8_t> output{output_storage, 0, OUTPUT_CAPACITY};
    Sender sender;
    int64_t last_sent_us = 0;  // 0 = never sent
    int64_t period_us = PERIOD_US;
};

}  // namespace vostrelka
