// A CAN bus anyone can write to: sequences of frames handed to the device's
// receive path (receivers per sender, reassembly, CRC, stall and overwrite
// rules) and to a lone decoder with a small buffer.
//
// Input: records of 13 bytes, identifier (4, LE) | length (1, low 4 bits as
// the kernel's dlc is read) | data (8).
#include <cstdint>
#include <cstring>

#include "support/can_test_device.h"
#include "support/frame_recorder.h"
#include "vostrelka/net_device/CanDecoder.h"

using namespace vostrelka;
using namespace vostrelka::net_device;

constexpr size_t RECORD_BYTES = 13;
using Device = test_support::CanTestDevice<4, 64, 8>;  // small, so that overwrite and overflow happen often

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Device* device = new Device(0xFF);
    static test_support::FrameRecorder handler;  // its copy reads every payload byte
    device->set_handler(&handler);
    handler.frames.clear();

    uint8_t buffer[24];
    CanDecoder decoder(Slice<uint8_t>(buffer, 0, sizeof buffer));

    for (size_t at = 0; at + RECORD_BYTES <= size; at += RECORD_BYTES) {
        CanFrame frame;
        std::memcpy(&frame.id, data + at, 4);
        frame.id &= CAN_ID_MASK;
        frame.len = data[at + 4] & 0xF;
        std::memcpy(frame.data, data + at + 5, CAN_MAX_DATA_BYTES);

        device->handle_can_frame(frame);

        Frame out;
        if (decoder.decode(frame, out) == CANDecoderStatus::COMPLETE) handler.on_frame(*device, out);
    }
    // Whatever state the device is left in, it must still send.
    device->written.clear();
    if (device->send_raw(test_support::make_frame(5, 0, 0, test_support::Bytes(20))) != 0) __builtin_trap();
    return 0;
}
