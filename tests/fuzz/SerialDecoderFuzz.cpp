// The serial framing decoder fed a stream in chunks whose sizes come from the
// input itself, with small buffers so that the overflow paths run too.
#include <cstdint>
#include <cstring>

#include "vostrelka/net_device/SerialEncoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;

namespace {

struct CheckingHandler : SerialEncoderHandlerI {
    uint64_t sum = 0;
    void on_frame(const Frame& frame) override {
        // Touch every payload byte: a view past the buffer shows up under ASan.
        for (uint64_t i = 0; i < frame.payload.size; i++) sum += frame.payload.data[i];
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    // First byte: receive capacity 1..256; second: chunk size seed.
    const size_t rx_capacity = 1 + data[0];
    size_t chunk_seed = data[1];
    data += 2;
    size -= 2;

    uint8_t rx_storage[256];
    uint8_t tx_storage[64];
    Slice<unsigned char> rx(rx_storage, 0, rx_capacity);
    Slice<unsigned char> tx(tx_storage, 0, sizeof tx_storage);
    CheckingHandler handler;
    SerialEncoder codec(tx, rx, handler);
    SerialEncoderErrorStats stats;

    size_t offset = 0;
    while (offset < size) {
        const size_t chunk = 1 + (chunk_seed % 64);
        const size_t take = chunk < size - offset ? chunk : size - offset;
        codec.decode(ConstSlice<unsigned char>(data + offset, take), stats);
        offset += take;
        chunk_seed = chunk_seed * 1103515245u + 12345u;
        if (rx.size > rx.capacity) __builtin_trap();
    }

    // Whatever the decoder went through, a fresh frame must still round-trip.
    const uint8_t payload[3] = {0x42, 0x55, 0x00};
    Frame frame;
    frame.proto_id = 7;
    frame.src = 0x42;
    frame.dst = 0x55;
    frame.payload = ConstSlice<unsigned char>(payload, sizeof payload);
    tx.clear();
    if (codec.encode(frame, stats) == 0) __builtin_trap();
    return 0;
}
