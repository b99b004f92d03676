#include "vostrelka/net_device/NetDeviceCanBase.h"

#include "vostrelka/debug.h"
#include "vostrelka/net_device/CanEncoder.h"

namespace vostrelka {
namespace net_device {

namespace {
constexpr uint8_t TRANSFER_COUNTER_MODULO = 8;
constexpr uint8_t PRIORITY_NORMAL = 1;
constexpr uint8_t PRIORITY_HIGH = 0;
}  // namespace

NetDeviceCanBase::NetDeviceCanBase(uint8_t address_, ArrayList<CanDeviceReceiver>& receivers_,
                                   RingBuffer<CanFrame>& tx_queue_, RingBuffer<CanFrame>* tx_queue_highprio_)
    : NetDevice(address_, DecodeErrorKind::CAN),
      tx_queue(tx_queue_),
      tx_queue_highprio(tx_queue_highprio_),
      receivers(receivers_) {}

int NetDeviceCanBase::send_raw(const Frame& frame) {
    return send_raw_with_buffer(frame, tx_queue, PRIORITY_NORMAL);
}

int NetDeviceCanBase::send_raw_highprio(const Frame& frame) {
    if (tx_queue_highprio == nullptr || tx_queue_highprio->capacity() == 0) return -1;
    return send_raw_with_buffer(frame, *tx_queue_highprio, PRIORITY_HIGH);
}

int NetDeviceCanBase::send_raw_with_buffer(const Frame& frame, RingBuffer<CanFrame>& queue, uint8_t priority_bit) {
    CanEncoder encoder(frame, transfer_counter, priority_bit);
    // The counter moves on even for a refused frame: receivers only ever see
    // it grow, and a refused message never reuses a counter.
    transfer_counter = (transfer_counter + 1) % TRANSFER_COUNTER_MODULO;

    const uint32_t frames = encoder.get_frames_number();
    // The sequence number cannot count past 255 data frames.
    if (frames > CAN_MAX_DATA_FRAMES + 1) {
        counts.drops.send_error++;
        return -1;
    }
    if (frames > queue.room()) {
        counts.can.tx_queue_full++;
        counts.drops.queue_full++;
        return -1;
    }
    while (!encoder.finished()) queue.push(encoder.next());
    count_sent(frame);
    do_write();
    return 0;
}

bool NetDeviceCanBase::has_queued_frames() const {
    return !tx_queue.empty() || (tx_queue_highprio != nullptr && !tx_queue_highprio->empty());
}

bool NetDeviceCanBase::do_write() {
    if (tx_queue_highprio != nullptr && !tx_queue_highprio->empty()) {
        if (!do_write_from_buffer(*tx_queue_highprio)) return false;
    }
    return do_write_from_buffer(tx_queue);
}

void NetDeviceCanBase::handle_can_frame(CanFrame can_frame) {
    counts.bytes_in += can_frame.len;
    Frame frame;
    if (can_id_is_multi_frame(can_frame.id)) {
        CanDeviceReceiver* receiver = get_receiver(can_id_src(can_frame.id), can_id_transfer_counter(can_frame.id));
        if (receiver == nullptr) return;
        const CANDecoderStatus status = receiver->decoder.decode(can_frame, frame);
        if (status == CANDecoderStatus::IN_PROGRESS) {
            receiver->last_used = activity_tick++;
            return;
        }
        if (status != CANDecoderStatus::COMPLETE) {
            count_decoder_errors(status);
            debug_tagged("NetDeviceCan", "ERROR decoding frame: %i, seq=%u", static_cast<int>(status),
                         static_cast<unsigned>(receiver->transfer_counter));
            return;
        }
    } else {
        CanDecoder single_frame_decoder;
        single_frame_decoder.decode(can_frame, frame);
    }
    deliver(frame);
}

// A sender may have up to three messages in flight (counters 1 or 2 apart,
// either way); a counter 3 to 5 ahead of a slot's means that slot's message
// will never finish, so the slot is taken over.
CanDeviceReceiver* NetDeviceCanBase::get_receiver(uint8_t src, uint8_t counter) {
    for (CanDeviceReceiver& receiver : receivers) {
        if (!receiver.decoder.is_used() || receiver.src != src) continue;
        if (receiver.transfer_counter == counter) return &receiver;
        const uint8_t diff = static_cast<uint8_t>(counter - receiver.transfer_counter) % TRANSFER_COUNTER_MODULO;
        if (diff >= 3 && diff <= 5) {
            debug_tagged("NetDeviceCanBase",
                         "WARNING: stall receiver for addr=0x%02X, resetting decoder, last_seq=%u, seq=%u",
                         static_cast<unsigned>(src), static_cast<unsigned>(receiver.transfer_counter),
                         static_cast<unsigned>(counter));
            counts.can.receivers_stalled++;
            receiver.transfer_counter = counter;
            receiver.decoder.reset();
            return &receiver;
        }
    }

    for (CanDeviceReceiver& receiver : receivers) {
        if (receiver.decoder.is_used()) continue;
        receiver.src = src;
        receiver.transfer_counter = counter;
        return &receiver;
    }

    CanDeviceReceiver* oldest = nullptr;
    for (CanDeviceReceiver& receiver : receivers) {
        if (oldest == nullptr || receiver.last_used < oldest->last_used) oldest = &receiver;
    }
    if (oldest == nullptr) return nullptr;
    debug_tagged("NetDeviceCan", "WARNING: overwriting receiver for addr=0x%02X", static_cast<unsigned>(src));
    counts.can.receivers_overwritten++;
    oldest->src = src;
    oldest->transfer_counter = counter;
    oldest->decoder.reset();
    return oldest;
}

void NetDeviceCanBase::count_decoder_errors(CANDecoderStatus status) {
    switch (status) {
        case CANDecoderStatus::CRC_ERROR:
            counts.can.crc_errors++;
            break;
        case CANDecoderStatus::DUPLICATE_SEQ:
            counts.can.duplicate_seq++;
            break;
        case CANDecoderStatus::OVERFLOW:
            counts.can.rx_overflows++;
            break;
        default:
            break;
    }
}

}  // namespace net_device
}  // namespace vostrelka
