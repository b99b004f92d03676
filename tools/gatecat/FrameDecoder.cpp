#include "gatecat/FrameDecoder.h"

#include <array>
#include <cstdio>
#include <iterator>

#include "gatecat/MessagePrinter.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/firmware_configurator/metadata.h"
#include "vostrelka/guarantor/unpack_msgs.h"
#include "vostrelka/manet/MAPacket.h"

namespace vostrelka {
namespace gatecat {

namespace {

// Ids are per carrier: service records (proto_id 8) and RF modem records
// (proto_id 14) number their messages independently.
template <size_t N>
const msgs::MessageMetadata* find_message(const std::array<msgs::CatalogueEntry, N>& catalogue, uint8_t id) {
    for (const msgs::CatalogueEntry& entry : catalogue) {
        if (entry.id == id) return entry.message;
    }
    return nullptr;
}

template <size_t N>
void append_message(const std::array<msgs::CatalogueEntry, N>& catalogue, const tessera::MessageInfo& info,
                    std::string& out) {
    if (const msgs::MessageMetadata* message = find_message(catalogue, info.id)) {
        print_message(*message, info.body(), out);
    } else {
        out += "unknown message id=" + std::to_string(info.id) + " size=" + std::to_string(info.size);
    }
}

std::string record_type_name(uint8_t type) {
    // By GuarantorHeader::TYPE_DATA, TYPE_REQUEST and TYPE_RESPONSE.
    static constexpr const char* NAMES[] = {"data", "request", "response"};
    static_assert(guarantor::GuarantorHeader::TYPE_RESPONSE == std::size(NAMES) - 1, "a name for every type");
    return type < std::size(NAMES) ? NAMES[type] : std::to_string(type);
}

std::string decode_manet(const ConstSlice<unsigned char>& payload) {
    manet::MAPacket packet;
    if (!manet::MAPacket::parse(payload, packet)) {
        return "manet header cut short (" + std::to_string(payload.size) + " of " +
               std::to_string(manet::MAPacket::HEADER_SIZE) + " bytes)";
    }
    char text[96];
    std::snprintf(text, sizeof text, "manet 0x%08X -> 0x%08X kind=%u flag=%u data=%llu", packet.src_addr,
                  packet.dst_addr, packet.kind, packet.flag ? 1u : 0u,
                  static_cast<unsigned long long>(packet.data.size));
    return text;
}

std::string decode_service(const ConstSlice<unsigned char>& payload) {
    std::string out;
    const int32_t result = guarantor::unpack_msgs(
        payload, [&](const guarantor::GuarantorHeader& header, const tessera::MessageInfo& info) {
            if (!out.empty()) out += " | ";
            out += "seq=" + std::to_string(header.seq) + " type=" + record_type_name(header.type) + " ";
            append_message(msgs::firmware_configurator::CATALOGUE, info, out);
        });
    if (result != 0) out += out.empty() ? "service record cut short" : " | record cut short";
    if (out.empty()) out = "no service record";
    return out;
}

std::string decode_rfmodem(const ConstSlice<unsigned char>& payload) {
    std::string out;
    uint64_t offset = 0;
    while (offset < payload.size) {
        tessera::MessageInfo info;
        if (!tessera::read_message_record(ConstSlice<uint8_t>(payload.data + offset, payload.size - offset), info)) {
            out += out.empty() ? "modem record cut short" : " | record cut short";
            break;
        }
        if (!out.empty()) out += " | ";
        append_message(msgs::rfmodem::CATALOGUE, info, out);
        offset += tessera::MESSAGE_HEADER_SIZE + info.size;
    }
    if (out.empty()) out = "no modem record";
    return out;
}

}  // namespace

std::string decode_frame(const net_device::Frame& frame) {
    switch (frame.proto_id) {
        case MANET_PROTO_ID:
            return decode_manet(frame.payload);
        case SERVICE_PROTO_ID:
            return decode_service(frame.payload);
        case RFMODEM_PROTO_ID:
            return decode_rfmodem(frame.payload);
        default:
            return std::string();
    }
}

}  // namespace gatecat
}  // namespace vostrelka
