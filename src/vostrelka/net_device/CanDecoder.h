#pragma once
// Reassembles the CAN frames of one sender into Frames (the format is
// described in CanEncoder.h).
#include <cstdint>

#include "vostrelka/Slice.h"
#include "vostrelka/net_device/CanFrame.h"
#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace net_device {

enum class CANDecoderStatus : uint8_t {
    IN_PROGRESS = 0,    // frame stored, message not yet complete
    OVERFLOW = 1,       // a data frame would end past the buffer; decoder reset
    CRC_ERROR = 2,      // every frame present but the CRC differs; decoder reset
    DUPLICATE_SEQ = 3,  // sequence number already received; decoder reset
    COMPLETE = 4,       // `out` is filled in
};

class CanDecoder {
public:
    // A decoder without a buffer still decodes single frames.
    CanDecoder() = default;
    // Reassembles into `buffer`, up to its capacity.
    explicit CanDecoder(const Slice<uint8_t>& buffer);

    // Feeds one CAN frame. Single frames complete at once, with the payload
    // pointing into `can_frame`, and abandon a reassembly in progress.
    // Multi-frame messages complete on whichever frame fills the last gap;
    // the payload then points into the buffer and stays valid until the
    // next decode. Every error status resets the decoder.
    CANDecoderStatus decode(const CanFrame& can_frame, Frame& out);

    void reset();
    bool is_used() const { return in_use; }

private:
    static constexpr uint32_t SEQUENCE_BITS = 256;

    uint8_t bitmap[SEQUENCE_BITS / 8] = {};
    uint32_t header_crc = 0;
    uint16_t header_len = 0;
    uint8_t header_proto_id = 0;
    Slice<uint8_t> buffer;  // `size` is the current message length
    bool in_use = false;

    bool has_sequence(uint32_t seq) const { return (bitmap[seq / 8] >> (seq % 8)) & 1; }
    bool is_complete() const;
};

}  // namespace net_device
}  // namespace vostrelka
