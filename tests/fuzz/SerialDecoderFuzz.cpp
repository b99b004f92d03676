// The serial framing decoder fed a stream in chunks whose sizes come from the
// input itself, with small buffers so that the overflow paths run too.
#include <algorithm>
#include <cstdint>

#include "support/frame_recorder.h"
#include "vostrelka/net_device/SerialEncoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;

namespace {

// Reads every payload byte: a view past the buffer shows up under ASan.
struct CheckingHandler : SerialEncoderHandlerI {
    std::vector<test_support::RecordedFrame> frames;
    void on_frame(const Frame& frame) override { frames.push_back(test_support::record(frame)); }
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

    for (size_t offset = 0, take; offset < size; offset += take, chunk_seed = chunk_seed * 1103515245u + 12345u) {
        take = std::min<size_t>(1 + chunk_seed % 64, size - offset);
        codec.decode(ConstSlice<unsigned char>(data + offset, take), stats);
        if (rx.size > rx.capacity) __builtin_trap();
    }

    // Whatever the decoder went through, a fresh frame must still round-trip.
    const uint8_t payload[3] = {0x42, 0x55, 0x00};
    tx.clear();
    if (codec.encode(Frame{7, 0x42, 0x55, ConstSlice<unsigned char>(payload, sizeof payload)}, stats) == 0)
        __builtin_trap();
    return 0;
}
