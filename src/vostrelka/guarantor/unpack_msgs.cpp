#include "vostrelka/guarantor/unpack_msgs.h"

namespace vostrelka {
namespace guarantor {

namespace {

constexpr uint64_t MIN_RECORD_BYTES = 8;  // less than this left: no record
constexpr uint64_t RECORD_STRIDE_EXTRA = 5;

uint32_t read_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
           static_cast<uint32_t>(p[3]) << 24;
}

}  // namespace

WalkStep next_record(ConstSlice<uint8_t> data, uint64_t& offset, GuarantorHeader& header, tessera::MessageInfo& info) {
    if (offset >= data.size || data.size - offset < MIN_RECORD_BYTES) return WalkStep::END;
    const uint8_t* record = data.data + offset;
    // The lengths below are measured from byte 5 of the record, where the
    // message record begins.
    const uint64_t rest = data.size - offset - GUARANTOR_HEADER_SIZE;
    if (rest < tessera::MESSAGE_HEADER_SIZE) return WalkStep::CUT_SHORT;
    const uint32_t size = read_u32(record + 6);
    if (rest < static_cast<uint64_t>(size) + tessera::MESSAGE_HEADER_SIZE) return WalkStep::CUT_SHORT;

    header.seq = read_u32(record);
    header.type = record[4];
    info.id = record[5];
    info.size = size;
    info.payload = record + GUARANTOR_HEADER_SIZE + tessera::MESSAGE_HEADER_SIZE;
    offset += static_cast<uint64_t>(size) + RECORD_STRIDE_EXTRA;
    return WalkStep::RECORD;
}

}  // namespace guarantor
}  // namespace vostrelka
