// Throughput of the serial framing codec on a short and a long frame, in
// payload bytes per second. Payload bytes are spread over all values, so
// about one in 128 is escaped, as in ordinary traffic.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "vostrelka/ProtoIds.h"
#include "vostrelka/net_device/SerialEncoder.h"

using vostrelka::ConstSlice;
using vostrelka::Slice;
using vostrelka::net_device::Frame;
using vostrelka::net_device::SerialEncoder;
using vostrelka::net_device::SerialEncoderErrorStats;
using vostrelka::net_device::SerialEncoderHandlerI;

namespace {

constexpr size_t BUFFER_SIZE = 8192;

struct CountingHandler : SerialEncoderHandlerI {
    void on_frame(const Frame& frame) override { bytes += frame.payload.size; }
    uint64_t bytes = 0;
};

struct Codec {
    explicit Codec(size_t payload_size) : payload(payload_size) {
        for (size_t i = 0; i < payload_size; ++i) payload[i] = static_cast<uint8_t>(i * 31 + 7);
        frame.proto_id = vostrelka::MANET_PROTO_ID;
        frame.src = 1;
        frame.dst = 2;
        frame.payload = ConstSlice<unsigned char>(payload.data(), payload.size());
    }

    std::vector<uint8_t> payload;
    Frame frame;
    std::vector<uint8_t> tx_storage = std::vector<uint8_t>(BUFFER_SIZE);
    std::vector<uint8_t> rx_storage = std::vector<uint8_t>(BUFFER_SIZE);
    Slice<unsigned char> tx{tx_storage.data(), 0, BUFFER_SIZE};
    Slice<unsigned char> rx{rx_storage.data(), 0, BUFFER_SIZE};
    CountingHandler handler;
    SerialEncoder encoder{tx, rx, handler};
    SerialEncoderErrorStats stats;
};

void BM_Encode(benchmark::State& state) {
    Codec codec(static_cast<size_t>(state.range(0)));
    for (auto _ : state) {
        codec.tx.clear();
        benchmark::DoNotOptimize(codec.encoder.encode(codec.frame, codec.stats));
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

void BM_Decode(benchmark::State& state) {
    Codec codec(static_cast<size_t>(state.range(0)));
    codec.encoder.encode(codec.frame, codec.stats);
    const ConstSlice<unsigned char> wire(codec.tx);
    for (auto _ : state) {
        benchmark::DoNotOptimize(codec.encoder.decode(wire, codec.stats));
    }
    if (codec.handler.bytes != static_cast<uint64_t>(state.iterations()) * state.range(0)) {
        state.SkipWithError("frames were lost");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}

}  // namespace

BENCHMARK(BM_Encode)->Arg(32)->Arg(2000);
BENCHMARK(BM_Decode)->Arg(32)->Arg(2000);

BENCHMARK_MAIN();
