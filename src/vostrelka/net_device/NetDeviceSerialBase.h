#pragma once
// The portable half of a serial-line device: frames go out as encoded bytes
// through a transmit queue drained as fast as the port takes them, and bytes
// coming in are decoded into frames. It knows nothing of descriptors; the
// platform half decides when to read and write.
#include <cstdint>

#include "vostrelka/DataPort.h"
#include "vostrelka/Slice.h"
#include "vostrelka/net_device/NetDevice.h"
#include "vostrelka/net_device/SerialEncoder.h"
#include "vostrelka/net_device/SerialEncoderHandlerI.h"

namespace vostrelka {
namespace net_device {

class NetDeviceSerialBase : public NetDevice, public SerialEncoderHandlerI {
public:
    // Only references are kept: the buffers may belong to a derived class
    // and are not touched until the first send or read.
    NetDeviceSerialBase(drivers::DataPort& port, Slice<unsigned char>& read_buffer, Slice<unsigned char>& tx_buffer,
                        Slice<unsigned char>& rx_buffer, unsigned char address);

    // Queues the encoded frame behind what is still waiting, then writes
    // the queue once. -1 when the frame does not fit the queue (counted in
    // encode_errors and as a queue-full drop); earlier queued bytes still
    // move either way.
    int send_raw(const Frame& frame) override;
    // Called by the codec for every good frame.
    void on_frame(const Frame& frame) override;

    // Reads until the port has nothing more, decoding as it goes.
    void do_read();
    // Writes as much of the queue as the port takes.
    void do_write();

    drivers::DataPort& get_port() { return port; }
    // Encoded bytes still waiting for the port.
    uint64_t queued_bytes() const { return tx_buffer.size; }

protected:
    drivers::DataPort& port;
    Slice<unsigned char>& read_buffer;
    Slice<unsigned char>& tx_buffer;
    Slice<unsigned char>& rx_buffer;
    SerialEncoder codec;

private:
    void write_queue();
};

}  // namespace net_device
}  // namespace vostrelka
