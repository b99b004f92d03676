#pragma once
// "udpserial" interfaces: the serial framing carried in UDP datagrams, so a
// serial link can be tunnelled unchanged. Each frame is sent as one datagram;
// received datagrams are fed to the decoder as stream chunks, so one datagram
// may carry several frames or part of one.
//
// Memory: the base's buffers are sized for twice `buffer_size` (a frame whose
// every byte is escaped still fits), plus a `buffer_size` decode buffer that
// holds one unescaped message: payloads up to buffer_size - 8 bytes arrive.
#include <cstdint>
#include <memory>

#include "vostrelka/net_device/SerialEncoder.h"
#include "vostrelka/net_device/SerialEncoderHandlerI.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

namespace vostrelka {
namespace net_device {

class NetDeviceUDPSerial : public NetDeviceUDP, public SerialEncoderHandlerI {
public:
    NetDeviceUDPSerial(unsigned long buffer_size, unsigned char address);

    int send_raw(const Frame& frame) override;
    void do_read() override;
    // From the decoder: destination filter, then the handler.
    void on_frame(const Frame& frame) override;

private:
    std::unique_ptr<uint8_t[]> decode_storage;
    Slice<unsigned char> decode_buffer;
    SerialEncoder encoder;
};

}  // namespace net_device
}  // namespace vostrelka
