// Every decoded frame ends here: learn where its sender lives, then send it
// on where its destination requires. Log text is built only when the level
// lets it through.
#include "Gate.h"
#include "vostrelka/ProtoIds.h"
#include "vostrelka/debug.h"
#include "vostrelka/manet/MAPacket.h"
#include "vostrelka/net_device_udp/NetDeviceUDP.h"

namespace vostrelka {

namespace {
constexpr int32_t LEVEL_WARNING = 1;
constexpr int32_t LEVEL_FORWARD = 2;
constexpr int32_t LEVEL_RECEIVE = 3;

const std::unique_ptr<AddressResolver> NO_RESOLVER;
const std::optional<InetAddress> NO_INET_ADDR;

// A UDP device sends to one destination at a time, so it is pointed at the
// peer right before each send; a peer without a socket address on a UDP
// device cannot be reached and is skipped (false).
bool send_on(Gate::Interface& iface, const std::optional<InetAddress>& inet_addr, const net_device::Frame& frame) {
    if (net_device::NetDeviceUDP* udp = iface.udp) {
        if (!inet_addr) return false;
        udp->set_destination_address(*inet_addr);
        udp->send_raw(frame);
        return true;
    }
    iface.net_device->send_raw(frame);
    return true;
}
}  // namespace

void Gate::on_frame(net_device::NetDevice& device, const net_device::Frame& frame) {
    auto found = find_iface_by_ref(device);
    if (found == ifaces.end()) {
        debug("ERROR: device is not in list");
        return;
    }
    Interface& iface = found->second;

    // Borrowed from the device, not copied: nothing in this call reads
    // another datagram, so it stays the same until the call returns.
    net_device::NetDeviceUDP* udp = iface.udp;
    const std::optional<InetAddress>& from_inet = udp != nullptr ? udp->sender_inet_addr() : NO_INET_ADDR;

    // A proto_id 10 payload too short for its header carries no addresses:
    // it is never read, logged or forwarded. Its sender is still learned on a
    // local link, as the sender of every frame is.
    manet::MAPacket packet;
    const bool is_manet = frame.proto_id == MANET_PROTO_ID;
    const bool header_ok = !is_manet || manet::MAPacket::parse(frame.payload, packet);

    if (debug_level >= LEVEL_RECEIVE && header_ok) {
        if (!is_manet) {
            debug("recv frame on iface %i: %s -> 0x%02X, size=%u, proto_id %u", static_cast<int>(iface.id),
                  full_addr_s_local(frame.src, from_inet).c_str(), frame.dst, static_cast<unsigned>(frame.payload.size),
                  frame.proto_id);
        } else {
            debug("recv MANet frame on iface %i: %s -> %s, size=%u", static_cast<int>(iface.id),
                  full_addr_s_manet(packet.src_addr, frame.src, NO_RESOLVER, from_inet).c_str(),
                  full_addr_s_manet(packet.dst_addr, frame.dst, NO_RESOLVER, NO_INET_ADDR).c_str(),
                  static_cast<unsigned>(frame.payload.size));
        }
    }

    // Frames that find no way on are counted against the interface they
    // came in on, whatever the debug level.
    if (iface.type == LOCAL) {
        add_local_peer(iface, frame.src, from_inet);
        if (!is_manet) {
            if (!forward_local_frame(device, frame, from_inet)) device.count_unroutable();
            if (frame.proto_id == SERVICE_PROTO_ID) handle_service_frame(frame);
            return;
        }
        if (!header_ok) {
            device.count_unroutable();
            return;
        }
        add_manet_peer(iface, packet.src_addr, frame.src, nullptr, from_inet, Origin::LEARNED);
        if (!forward_manet_frame(iface, frame, packet, from_inet)) device.count_unroutable();
    } else if (iface.type == MANET) {
        if (!is_manet) {
            if (debug_level >= LEVEL_WARNING) {
                debug("WARNING: non-MANet protocol on MANet interface, iface %u: %s -> 0x%02X, proto_id %u", iface.id,
                      full_addr_s_local(frame.src, from_inet).c_str(), frame.dst, frame.proto_id);
            }
            device.count_unroutable();
            return;
        }
        // Only gateways already known (configured, announced or learned on
        // a local link) may send MANet traffic in; nothing is learned here.
        if (!header_ok || manet_peer_table().count(packet.src_addr) == 0 ||
            !forward_manet_frame(iface, frame, packet, from_inet)) {
            device.count_unroutable();
        }
    }
    // Any other interface type is inert.
}

// False when a unicast has no peer to go to, or only one without a socket
// address. A broadcast, and a unicast to the sender's own link, are not
// failures: they reached every peer that should have them.
bool Gate::forward_local_frame(const net_device::NetDevice& from_device, const net_device::Frame& frame,
                               const std::optional<InetAddress>& from_inet) {
    // On a bus without socket addresses every peer of the sending device is
    // the sender, so nothing is ever echoed back onto the bus it came from.
    auto is_sender = [&](const LocalPeer& peer) {
        return peer.iface->net_device.get() == &from_device && peer.inet_addr == from_inet;
    };
    auto forward_to = [&](const LocalPeer& peer) {
        if (debug_level >= LEVEL_FORWARD) {
            debug("forw frame to iface %u: 0x%02X -> %s, proto_id %u", peer.iface->id, frame.src,
                  full_addr_s_local(frame.dst, peer).c_str(), frame.proto_id);
        }
        return send_on(*peer.iface, peer.inet_addr, frame);
    };

    const LocalPeers& local_peers = tables.local_peers();
    if (frame.dst != net_device::BROADCAST_ADDR) {
        auto found = local_peers.find(frame.dst);
        if (found == local_peers.end()) {
            if (debug_level >= LEVEL_WARNING) {
                debug("WARNING: local peer not found to route 0x%02X -> 0x%02X, proto_id %u", frame.src, frame.dst,
                      frame.proto_id);
            }
            return false;
        }
        return is_sender(found->second) || forward_to(found->second);
    }

    // Once per peer, not once per interface: an interface with three peers
    // gets the frame three times. Deliberate.
    for (const auto& [addr, peer] : local_peers) {
        if (addr == frame.src || is_sender(peer)) continue;
        forward_to(peer);
    }
    return true;
}

// False when no link of the destination could take the packet: none known,
// only links on interfaces of the sender's kind, or none with an address yet.
bool Gate::forward_manet_frame(const Interface& from_iface, const net_device::Frame& frame,
                               const manet::MAPacket& packet, const std::optional<InetAddress>& from_inet) {
    const MANetPeers& manet_peers = tables.manet_peers();
    auto found = manet_peers.find(packet.dst_addr);
    if (found == manet_peers.end()) {
        if (debug_level >= LEVEL_WARNING) {
            debug("WARNING: MANet peer not found for: %s -> %s",
                  full_addr_s_manet(packet.src_addr, frame.src, NO_RESOLVER, from_inet).c_str(),
                  full_addr_s_manet(packet.dst_addr, frame.dst, NO_RESOLVER, NO_INET_ADDR).c_str());
        }
        return false;
    }

    // MANet packets only cross between local links and gateway links; a
    // gateway never relays gateway to gateway nor local link to local link.
    bool sent = false;
    for (const MANetPeer& link : found->second) {
        if (link.iface->type == from_iface.type) {
            if (debug_level >= LEVEL_WARNING) {
                debug("WARNING: not forwarding MANet packet to interface of the same type as source (%i): %s -> %s",
                      static_cast<int>(from_iface.id),
                      full_addr_s_manet(packet.src_addr, frame.src, NO_RESOLVER, from_inet).c_str(),
                      full_addr_s_manet(packet.dst_addr, frame.dst, NO_RESOLVER, link.inet_addr).c_str());
            }
            continue;
        }
        net_device::Frame out = frame;
        out.dst = link.local_addr;
        if (debug_level >= LEVEL_FORWARD) {
            debug("forw MANet packet to iface %u: %s -> %s", link.iface->id,
                  full_addr_s_manet(packet.src_addr, frame.src, NO_RESOLVER, from_inet).c_str(),
                  full_addr_s_manet(packet.dst_addr, link.local_addr, NO_RESOLVER, link.inet_addr).c_str());
        }
        sent = send_on(*link.iface, link.inet_addr, out) || sent;
    }
    return sent;
}

}  // namespace vostrelka
