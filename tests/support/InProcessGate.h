#pragma once
// A Gate built in the test process, with interfaces added as the
// configuration adds them, and the small builders the gateway tests share.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Gate.h"
#include "support/frame_recorder.h"

namespace test_support {

using Lines = std::vector<std::string>;

struct InProcessGate {
    vostrelka::Gate gate;

    vostrelka::Gate::Interface& add_iface(uint32_t id, uint8_t type,
                                          std::shared_ptr<vostrelka::net_device::NetDevice> device) {
        vostrelka::Gate::Interface* iface = gate.add_interface(id, type, std::move(device));
        if (iface == nullptr) throw std::runtime_error("interface " + std::to_string(id) + " refused");
        return *iface;
    }
    std::shared_ptr<RecordingNetDevice> add_recording_iface(uint32_t id, uint8_t type = vostrelka::Gate::LOCAL) {
        auto device = std::make_shared<RecordingNetDevice>();
        add_iface(id, type, device);
        return device;
    }
    vostrelka::Gate::Interface& iface(uint32_t id) { return *gate.find_interface(id); }
};

// Appends the `size` lowest bytes of `value`, least significant first.
inline void put_le(Bytes& out, uint64_t value, size_t size) {
    for (size_t i = 0; i < size; i++) out.push_back(static_cast<uint8_t>(value >> (8 * i)));
}

// A service record (seq 4 | type 1 | message id 1 | body size 4 | body)
// holding a device_config body, cut to `cut_to` bytes, that names a UTM
// server on port 5000:
//   device_serial 32 | hash 16 | cfg_id 1 | node_manet_addr 4 | utm_manet_addr 4 |
//   utm_inet_port 2 | node_manet_key 16 | utm_inet_host 32 | json length 4 | json
inline Bytes device_config(uint32_t utm_manet_addr, const char* host = "127.0.0.1", std::string json = "",
                           size_t cut_to = 200, uint8_t id = 4) {
    Bytes body(49, 3);
    put_le(body, 0x0B000001, 4);
    put_le(body, utm_manet_addr, 4);
    put_le(body, 5000, 2);
    body.resize(body.size() + 16 + 32);
    std::memcpy(&body[body.size() - 32], host, std::strlen(host));
    put_le(body, json.size(), 4);
    body.insert(body.end(), json.begin(), json.end());
    body.resize(std::min(body.size(), cut_to));
    Bytes record{42, 0, 0, 0, 1, id};
    put_le(record, body.size(), 4);
    record.insert(record.end(), body.begin(), body.end());
    return record;
}

// A MANet packet: src_addr (4, LE) | dst_addr (4, LE) | kind | flag | data
inline Bytes manet_payload(uint32_t src_addr, uint32_t dst_addr, Bytes data = {}, uint8_t kind = 0, uint8_t flag = 0) {
    Bytes bytes;
    put_le(bytes, src_addr, 4), put_le(bytes, dst_addr, 4);
    bytes.push_back(kind), bytes.push_back(flag);
    bytes.insert(bytes.end(), data.begin(), data.end());
    return bytes;
}

// Standard output of `action`, split into lines. Lines of resolver threads
// ("Resolver: ...") come on their own schedule and are left out.
template <typename Action>
Lines log_lines_of(Action&& action) {
    testing::internal::CaptureStdout();
    action();
    std::istringstream text(testing::internal::GetCapturedStdout());
    Lines lines;
    for (std::string line; std::getline(text, line);) {
        if (line.rfind("Resolver: ", 0) != 0) lines.push_back(line);
    }
    return lines;
}

}  // namespace test_support
