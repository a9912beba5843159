// qor/l2frame.h -- the byte-level half of the packet layer (qor/l2sock.h),
// internal to the platform: which received frame the protocol socket
// delivers and as what (port, VLAN, the 18-byte link header, the UDP
// checksum a local sender left to the device), and how a frame the daemon
// sends or floods is read and where it leaves. Everything here works on
// bytes and the host map only; what needs a descriptor (the Linux name of
// an arrival interface, whether a link is up) is found by the socket layer
// and passed in as plain data.
//
// Every function stays inside the spans it is given whatever the lengths
// in the frame say.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/hostmap.h"
#include "qor/l2sock.h"

namespace qor::l2frame {

constexpr uint16_t kTpid = 0x8100;           // 802.1Q
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr uint8_t kIpProtoUdp = 17;
// A frame is read this far into the caller's buffer, so that an untagged
// frame's IPv6 packet already sits where the 18-byte link header ends.
constexpr size_t kRxLead = QOR_L2_HDR_LEN - 14;
// The smallest buffer a frame is received into: the link header, the IPv6
// and the UDP header.
constexpr size_t kMinRxBuffer = QOR_L2_HDR_LEN + 48;

// ---- receiving ---------------------------------------------------------------

// What the socket learnt of a frame besides its bytes.
struct RxMeta {
    std::string linuxName;         // the Linux interface it arrived on; empty when unknown
    bool outgoing = false;         // a copy of a frame this host sent
    bool metaTag = false;          // the device took the VLAN tag off into metadata
    uint16_t metaTci = 0;
    uint16_t metaTpid = kTpid;
    bool checksumPending = false;  // sent by this host with the UDP checksum left to the device
};

// What the daemon is told about a frame it is given.
struct Delivery {
    uint16_t vlan = 0;                        // in the link header: 0 on a routed or management port
    uint32_t logical = 0, physical = 0, recv = 0;
    size_t ipOffset = 0;                      // of the IPv6 header in the frame as received
};

struct FrameVlan {
    uint16_t vlan = 0;      // 0: untagged or priority-tagged
    size_t ipOffset = 14;
};

// The VLAN id and the IPv6 header of an IPv6 frame, untagged or with one
// 802.1Q tag (inline or in the metadata), with room for the IPv6 and UDP
// headers; nothing for a frame of another shape.
std::optional<FrameVlan> frameVlan(const RxMeta& meta, ByteView frame);

// Whether a frame is delivered, and as what. Outgoing copies, frames of
// Linux interfaces that are not mapped ports (a bridge above a port sees the
// same frame again), tagged frames of a VLAN the port does not carry and
// untagged frames on a trunk without a native VLAN are not. A management
// port's frames are, with its ifIndex as all three interfaces.
std::optional<Delivery> classify(const QorHostMap& map, const RxMeta& meta, ByteView frame);

// Rewrites a frame received at buf[kRxLead, kRxLead + frameLen) into the
// link header (MACs, 0x8100, the delivery's VLAN, 0x86DD) and the IPv6
// packet without Ethernet padding, cut to the buffer; completes a pending
// UDP checksum. The bytes written (0 when the frame does not lie in buf).
size_t deliver(MutByteView buf, size_t frameLen, const Delivery& d, bool checksumPending);

// Writes the UDP checksum of an IPv6 packet whose UDP header follows the
// IPv6 header directly, when the whole datagram is there; leaves any other
// packet as it is.
void completeUdpChecksum(MutByteView ip);

// ---- sending -------------------------------------------------------------------

// A frame as the daemon gives it: MACs, an optional 802.1Q tag, the rest.
// The views point into the bytes parsed.
struct TxFrame {
    ByteView macs;         // destination and source, 12 bytes
    uint16_t tag = 0;      // the VLAN id of the tag, 0 when none
    uint16_t etherType = 0;
    ByteView payload;
};

std::optional<TxFrame> parseTx(ByteView b);

// The flood header (command, ingress port, multicast group, VLAN interface)
// before a flooded frame. The multicast group is the forwarding plane's and
// not read here.
struct FloodHeader {
    uint32_t ingress = 0;
    uint32_t vlanIf = 0;
};

// Nothing when b is too short for the header or does not start with the
// flood command.
std::optional<FloodHeader> parseFloodHeader(ByteView b);

// Where a frame leaves: the port whose Linux interface sends it and the
// interface whose VLANs apply (the port-channel's for a member). Both point
// into the host map the egress was found in.
struct Egress {
    const QorHostIf* port = nullptr;
    const QorHostIf* cfg = nullptr;
};

// Whether the Linux interface of that name is up and running.
using LinkUp = std::function<bool(const std::string& linuxName)>;

// Everything a send needs: the frame, the VLAN it is sent in (0: none) and
// every port it leaves by.
struct TxPlan {
    TxFrame frame;
    uint32_t vlan = 0;
    std::vector<Egress> egresses;
};

// A frame given to a send socket for egressIfIndex (0 or a VLAN interface:
// every port of the VLAN), optionVlan the socket's VLAN option (0: the
// frame's own tag). 0 and *out, or the errno the send fails with.
int planSend(const QorHostMap& map, uint32_t optionVlan, ByteView b, uint32_t egressIfIndex,
             const LinkUp& linkUp, TxPlan& out);
// A flood header and frame given to a flood socket: every port of the VLAN
// (the option's, else the header's VLAN interface, else the frame's tag) but
// the ingress and its port-channel; no VLAN floods to nobody. 0 and *out, or
// the errno.
int planFlood(const QorHostMap& map, uint32_t optionVlan, ByteView b, const LinkUp& linkUp, TxPlan& out);

// The link header a frame leaves one port with: tagged when the port
// carries the VLAN tagged; untagged on its untagged VLAN, with no VLAN, or
// on a routed port. Nothing when the port does not carry the VLAN.
struct TxHeader {
    uint8_t bytes[QOR_L2_HDR_LEN] = {};
    size_t len = 0;  // 14 or 18
    bool tagged = false;
};
std::optional<TxHeader> txHeader(const Egress& e, const TxFrame& f, uint32_t vlan);

}  // namespace qor::l2frame
