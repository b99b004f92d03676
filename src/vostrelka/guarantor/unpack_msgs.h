#pragma once
// Walking the payload of a service frame: guarantor-framed message records.
//
// Guarantor-framed record (little-endian, packed):
//   offset  size  field
//   0       4     seq   } GuarantorHeader
//   4       1     type  }
//   5       1     id    } message record header
//   6       4     size  }
//   10      size  body
#include <cstdint>

#include "vostrelka/Slice.h"
#include "vostrelka/guarantor/GuarantorHeader.h"
#include "vostrelka/guarantor/MessageInfo.h"

namespace vostrelka {
namespace guarantor {

enum class WalkStep {
    RECORD,     // header and info hold the next record; call again
    END,        // the walk ended normally
    CUT_SHORT,  // a record claims more bytes than remain
};

// One step of the walk from `offset`, which it advances past the record.
//
// The advance is size + 5, not size + 10: deliberate, and kept because every
// receiver of these payloads walks them the same way. A payload normally holds
// one record, whose last 5 bytes then look like a remainder shorter than 8
// bytes and end the walk. Anything after a first record is read from that
// stride, not from the record's end.
WalkStep next_record(ConstSlice<uint8_t> data, uint64_t& offset, GuarantorHeader& header, tessera::MessageInfo& info);

// Calls handler(const GuarantorHeader&, const tessera::MessageInfo&) once per
// record, in order. Returns 0 when the walk ended normally, -1 when a record
// was cut short (records handed over before stay handed over). The body views
// point into `data`. Allocates nothing.
template <typename Handler>
int32_t unpack_msgs(ConstSlice<uint8_t> data, Handler&& handler) {
    uint64_t offset = 0;
    GuarantorHeader header;
    tessera::MessageInfo info;
    for (;;) {
        switch (next_record(data, offset, header, info)) {
            case WalkStep::RECORD:
                handler(static_cast<const GuarantorHeader&>(header), static_cast<const tessera::MessageInfo&>(info));
                break;
            case WalkStep::END:
                return 0;
            case WalkStep::CUT_SHORT:
                return -1;
        }
    }
}

}  // namespace guarantor
}  // namespace vostrelka
