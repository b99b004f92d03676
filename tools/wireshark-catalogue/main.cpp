// Writes the Wireshark dissector: its source with the tables it needs from
// the gateway's own code put in place of the line "-- @CATALOGUE@", so that
// the transport kinds and the message layouts are stated only there. Run by
// the build:
//
//   wireshark-catalogue packaging/wireshark/gate.lua.in build/wireshark/gate.lua
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

#include "vostrelka/ProtoIds.h"
#include "vostrelka/firmware_configurator/metadata.h"
#include "vostrelka/net_device/NetDeviceFactory.h"

namespace {

using namespace vostrelka;

constexpr const char* MARKER = "-- @CATALOGUE@";

template <size_t N>
void catalogue(std::ostream& out, const char* table, const std::array<msgs::CatalogueEntry, N>& entries) {
    out << "local " << table << " = {\n";
    for (const msgs::CatalogueEntry& entry : entries) {
        out << "    [" << unsigned{entry.id} << "] = { \"" << entry.message->name << "\", \"" << entry.message->schema
            << "\" },\n";
    }
    out << "}\n";
}

// Nested messages by name; every one reachable from the catalogues.
void nested(std::ostream& out, const msgs::MessageMetadata& message, std::string& seen) {
    for (const msgs::MessageMetadata* const* inner = message.nested; *inner != nullptr; inner++) {
        const std::string name = (*inner)->name;
        if (seen.find(" " + name + " ") != std::string::npos) continue;
        seen += " " + name + " ";
        out << "    " << name << " = \"" << (*inner)->schema << "\",\n";
        nested(out, **inner, seen);
    }
}

std::string tables() {
    std::ostringstream out;
    out << "-- Written by the build from the gateway's transport kinds and message catalogue.\n";
    out << "local MEDIA = { [0] = \"unknown\"";
    for (const net_device::TransportKind& kind : net_device::TRANSPORT_KINDS)
        out << ", [" << unsigned{kind.capture_medium} << "] = \"" << kind.type << "\"";
    out << " }\nlocal SERIAL_FRAMED_MEDIA = {";
    for (const net_device::TransportKind& kind : net_device::TRANSPORT_KINDS) {
        if (kind.serial_framed) out << " [" << unsigned{kind.capture_medium} << "] = true,";
    }
    out << " }\n";
    out << "local PROTO_SERVICE = " << unsigned{SERVICE_PROTO_ID} << "\n";
    out << "local PROTO_MANET = " << unsigned{MANET_PROTO_ID} << "\n";
    out << "local PROTO_RFMODEM = " << unsigned{RFMODEM_PROTO_ID} << "\n";
    catalogue(out, "SERVICE_MESSAGES", msgs::firmware_configurator::CATALOGUE);
    catalogue(out, "MODEM_MESSAGES", msgs::rfmodem::CATALOGUE);
    out << "local NESTED_SCHEMAS = {\n";
    std::string seen;
    for (const msgs::CatalogueEntry& entry : msgs::firmware_configurator::CATALOGUE) nested(out, *entry.message, seen);
    for (const msgs::CatalogueEntry& entry : msgs::rfmodem::CATALOGUE) nested(out, *entry.message, seen);
    out << "}\n";
    return out.str();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: wireshark-catalogue TEMPLATE OUTPUT\n");
        return 2;
    }
    std::ifstream in(argv[1]);
    std::ostringstream text;
    text << in.rdbuf();
    std::string lua = text.str();
    const size_t marker = lua.find(MARKER);
    if (!in || marker == std::string::npos) {
        std::fprintf(stderr, "wireshark-catalogue: %s: no line \"%s\"\n", argv[1], MARKER);
        return 1;
    }
    lua.replace(marker, std::string(MARKER).size() + 1, tables());
    std::ofstream out(argv[2], std::ios::trunc);
    out << lua;
    if (!out.flush()) {
        std::fprintf(stderr, "wireshark-catalogue: cannot write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
