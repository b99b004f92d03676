// The service message codec: the RF modem's base_config, sent by every
// handler once a second, and device_config, read from every service frame.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>

#include "vostrelka/firmware_configurator/metadata.h"

using namespace vostrelka;
using namespace vostrelka::msgs;

namespace {

void BaseConfigRecordEncode(benchmark::State& state) {
    uint8_t storage[32];
    rfmodem::base_config config{5, 1.0f, 3};
    for (auto _ : state) {
        Slice<uint8_t> out(storage, 0, sizeof storage);
        benchmark::DoNotOptimize(encode_record(config, out));
        benchmark::ClobberMemory();
        config.addr++;
    }
}
BENCHMARK(BaseConfigRecordEncode);

void DeviceConfigDecode(benchmark::State& state) {
    firmware_configurator::device_config config;
    std::memcpy(config.device_serial, "SN-0042", 7);
    std::memcpy(config.manet_config.utm_inet_host, "utm.example.net", 15);
    config.manet_config.utm_inet_port = 5000;
    uint8_t body[256];
    Slice<uint8_t> out(body, 0, sizeof body);
    const uint64_t size = encode(config, out);
    firmware_configurator::device_config back;
    for (auto _ : state) {
        benchmark::DoNotOptimize(decode(ConstSlice<uint8_t>(body, size), back));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(DeviceConfigDecode);

}  // namespace

BENCHMARK_MAIN();
