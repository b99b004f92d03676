#pragma once
// The proto_id values this system gives a meaning to. Every other value is
// carried through as opaque payload.
#include <cstdint>

namespace vostrelka {

// Service records: device configuration and its acknowledgements.
constexpr uint8_t SERVICE_PROTO_ID = 8;
// A MANet packet (manet/MAPacket.h) travelling between gateways.
constexpr uint8_t MANET_PROTO_ID = 10;
// RF modem records: the base configuration a gateway sends its modem.
constexpr uint8_t RFMODEM_PROTO_ID = 14;

}  // namespace vostrelka
