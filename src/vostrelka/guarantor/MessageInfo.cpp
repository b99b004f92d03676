#include "vostrelka/guarantor/MessageInfo.h"

namespace vostrelka {
namespace tessera {

bool read_message_record(ConstSlice<uint8_t> data, MessageInfo& out) {
    if (data.size < MESSAGE_HEADER_SIZE) return false;
    const uint32_t size = static_cast<uint32_t>(data[1]) | static_cast<uint32_t>(data[2]) << 8 |
                          static_cast<uint32_t>(data[3]) << 16 | static_cast<uint32_t>(data[4]) << 24;
    if (data.size - MESSAGE_HEADER_SIZE < size) return false;
    out.id = data[0];
    out.size = size;
    out.payload = data.data + MESSAGE_HEADER_SIZE;
    return true;
}

}  // namespace tessera
}  // namespace vostrelka
