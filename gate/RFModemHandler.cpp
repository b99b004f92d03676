#include "RFModemHandler.h"

#include "vostrelka/ProtoIds.h"

namespace vostrelka {

RFModemHandler::RFModemHandler(net_device::NetDevice* device_, uint32_t addr, float power, uint8_t channel)
    : RunnerHandler(device_), sender{device_, &output} {
    base_config.addr = addr;
    base_config.power = power;
    base_config.channel = channel;
}

RFModemHandler::~RFModemHandler() = default;

void RFModemHandler::update(const long& now_us) {
    if (last_sent_us != 0 && now_us - last_sent_us <= period_us) return;
    last_sent_us = now_us;

    // The 14-byte record always fits the 32-byte buffer; were it not to, an
    // empty payload goes out and the modem keeps its old settings.
    Slice<uint8_t>& out = *sender.buffer;
    out.clear();
    msgs::encode_record(base_config, out);

    net_device::Frame frame;
    frame.proto_id = RFMODEM_PROTO_ID;
    frame.src = sender.device->address;
    frame.dst = RFMODEM_DST;
    frame.payload = ConstSlice<unsigned char>(out);
    sender.device->send_raw(frame);
}

}  // namespace vostrelka
