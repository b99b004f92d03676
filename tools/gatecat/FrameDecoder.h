#pragma once
// `gatecat dump --decode`: what the gateway and its devices read inside a
// frame, as one line of text.
//
//   proto_id  payload                          printed as
//   10        MANet packet header + data       manet 0x00000001 -> 0x00000002 kind=3 flag=1 data=4
//   8         guarantor-framed service records seq=7 type=request device_config{...}
//   14        bare RF modem message records    base_config{addr=5 power=1 channel=3}
//
// Several records are separated by " | ". Every other proto_id is opaque
// local traffic and decodes to nothing.
#include <string>

#include "vostrelka/net_device/Frame.h"

namespace vostrelka {
namespace gatecat {

// The decoded text, empty for an opaque proto_id. A payload that does not
// hold what its proto_id promises says so in the text ("cut short"); it
// never reads past the payload.
std::string decode_frame(const net_device::Frame& frame);

}  // namespace gatecat
}  // namespace vostrelka
