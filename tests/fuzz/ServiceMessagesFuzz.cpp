// Service frame payloads: the guarantor record walk, then every catalogue
// message decoded from every record body. A body that decodes must encode
// back to the very bytes it was read from.
#include <cstdint>
#include <cstring>

#include "vostrelka/firmware_configurator/metadata.h"
#include "vostrelka/guarantor/unpack_msgs.h"

using namespace vostrelka;

namespace {

uint8_t scratch[70000];

template <typename Message>
void decode_and_reencode(ConstSlice<uint8_t> body) {
    Message message;
    if (!decode(body, message)) return;  // found by argument-dependent lookup
    Slice<uint8_t> out(scratch, 0, sizeof scratch);
    const uint64_t written = encode(message, out);
    if (written == 0 || written > body.size) __builtin_trap();
    if (std::memcmp(scratch, body.data, written) != 0) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    guarantor::unpack_msgs(ConstSlice<uint8_t>(data, size),
                           [](const guarantor::GuarantorHeader&, const tessera::MessageInfo& info) {
                               const ConstSlice<uint8_t> body = info.body();
                               using namespace msgs;
                               decode_and_reencode<firmware_configurator::utm_status>(body);
                               decode_and_reencode<firmware_configurator::ack>(body);
                               decode_and_reencode<firmware_configurator::manet_config>(body);
                               decode_and_reencode<firmware_configurator::set_config>(body);
                               decode_and_reencode<firmware_configurator::device_config>(body);
                               decode_and_reencode<rfmodem::base_config>(body);
                               decode_and_reencode<rfmodem::client_config>(body);
                               decode_and_reencode<rfmodem::stats>(body);
                           });
    tessera::MessageInfo info;
    tessera::read_message_record(ConstSlice<uint8_t>(data, size), info);
    return 0;
}
