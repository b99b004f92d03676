#include "gatecat/Usage.h"

#include <algorithm>
#include <vector>

#include "vostrelka/net_device/NetDeviceFactory.h"

namespace vostrelka {
namespace gatecat {

namespace {

// One line per transport kind, its form and what it is, in two columns.
std::string kind_lines() {
    std::vector<std::string> forms;
    size_t width = 0;
    for (const net_device::TransportKind& kind : net_device::TRANSPORT_KINDS) {
        forms.push_back(std::string("  ") + kind.type + "://" + kind.params);
        width = std::max(width, forms.back().size() + 2);
    }
    std::string lines;
    for (size_t i = 0; i < forms.size(); i++) {
        forms[i].resize(width, ' ');
        lines += forms[i] + net_device::TRANSPORT_KINDS[i].note + "\n";
    }
    return lines;
}

const char* HEAD = R"USAGE(gatecat - send and watch frames on serial, CAN and UDP interfaces, and
look inside a running gateway

Usage:
  gatecat dump IFACE [-d] [-c N] [-t S] [-w FILE]
  gatecat send IFACE [FRAME...]
  gatecat stats SOCKET
  gatecat peers SOCKET
  gatecat tap SOCKET [-d] [-c N] [-t S] [-w FILE]
  gatecat -h | --help | -V | --version

IFACE is an interface description as the gateway's configuration file
writes it:
)USAGE";

const char* TAIL = R"USAGE(HOST:PORT is where gatecat listens (its own end); DEST_HOST:DEST_PORT is
where it sends, and `send` needs it. Hosts are numeric IPv4 addresses. A
trailing /ADDRESS (0x10 or 16) makes the device keep only frames for that
address or broadcast; without one a dump shows every frame.

FRAME is PROTO:SRC>DST#PAYLOAD, every field in hex (either case):
  PROTO    proto_id, 1 or 2 hex digits     (0A is 10, the MANet packet)
  SRC      source address, 1 or 2 hex digits
  DST      destination address, 1 or 2 hex digits (FF is broadcast)
  PAYLOAD  0 to 2048 bytes as hex digit pairs; a '.' may separate bytes
  e.g.  07:01>02#DEADBEEF   7:1>2#DE.AD.BE.EF   08:01>FF#   (empty payload)
On a shell command line quote a frame, or write SRC-DST for SRC>DST: the
shell takes an unquoted '>' as a redirection.

dump
  Prints one line per frame received, the frame in the form above as its
  second field, so that the output replays through `gatecat send`:
    (1732170000.123456) 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4
  The first field is the wall-clock time in seconds. At the end it prints
  the number of frames and the device's codec error counters on standard
  error. Stops after N frames, after S seconds, or on Ctrl-C.
  -d, --decode      add what the payload holds: the MANet header of
                    proto_id 10 (0A), the service messages of proto_id 8
                    and the RF modem records of proto_id 14 (0E), by their
                    field names
  -c, --count N     stop after N frames
  -t, --timeout S   stop after S seconds (fractions allowed)
  -w, --write FILE  also write every frame to FILE, a pcap capture that
                    Wireshark opens with the gate dissector (see gatecat(1));
                    "-" is standard output, frame by frame and instead of
                    the frame lines, for a live view in Wireshark

send
  Sends each FRAME given, in order; with none, reads frames from standard
  input, one per line. A line may be a `gatecat dump` or `gatecat tap`
  line: a leading "(time stamp)" field, a tap's "iface N in|out" and
  everything after the frame are ignored; blank lines are skipped.

stats, peers
  Ask a running gateway, through the control socket its configuration
  names, for its counters per interface (stats) or its tables of local
  peers and MANet links (peers), and print them as tables. Under systemd,
  gate@NAME's socket is in /run/gate/NAME/ and belongs to the group gate:
  root and the group's members may use it.

tap
  Prints every frame the gateway receives and sends, as dump does, with
  the interface id and the direction after the time stamp:
    (1732170000.123456) iface 1 in 07:01>02#DEADBEEF  proto_id 7  0x01 -> 0x02  len 4
  Frames the gateway dropped because gatecat did not keep up are reported
  on standard error. Takes the options of dump.

Examples:
  gatecat dump udp://127.0.0.1:6001
  gatecat dump --decode --count 1 serial:///dev/ttyUSB0:115200
  gatecat send udp://127.0.0.1:6002:127.0.0.1:5001 '07:01>02#DEADBEEF'
  gatecat send udpserial://0.0.0.0:7000:10.0.0.2:7000 08:10-FF#
  gatecat dump udp://127.0.0.1:6001 > frames.txt
  gatecat send udp://127.0.0.1:6002:127.0.0.1:5001 < frames.txt
  gatecat dump -c 100 -w link.pcap udpserial://0.0.0.0:7002
  gatecat stats /run/gate/site/control.sock
  gatecat tap -d /run/gate/site/control.sock
  gatecat tap /run/gate/site/control.sock -w - | wireshark -k -i -

Log lines of the devices go to standard error; standard output holds only
the frames of `dump` and `tap` (or their capture, with -w -) and the tables
of `stats` and `peers`.

Exit status:
  0  done: the frames were sent, or the dump stopped as asked
  1  runtime failure: the interface or the control socket did not open,
     a serial adapter was unplugged, the gateway closed the socket or
     answered nonsense, a frame was refused or not sent, the capture file
     could not be written, or --count frames did not arrive before
     --timeout
  2  usage error: a bad command, option, interface description or frame,
     with one line on standard error
)USAGE";

}  // namespace

const std::string& usage_text() {
    static const std::string TEXT = HEAD + kind_lines() + TAIL;
    return TEXT;
}

}  // namespace gatecat
}  // namespace vostrelka
