// qor/l2sock.h -- the platform's socket layer for the families and options
// only the switch OS knows, and the interface lookups of the packet path.
//
// On Linux (DESIGN section 3), reading the installed host map (qor/hostmap.h):
// - An AF_QORL2 socket of protocol QOR_L2_PROTO_DHCPV6 is the protocol
//   socket: one AF_PACKET socket over every mapped port, with a BPF filter for
//   IPv6 UDP to ports 546/547, tagged or not. qorRecvfrom4 gives each frame
//   with an 18-byte link header (destination MAC, source MAC, 0x8100, the
//   VLAN tag, 0x86DD; the tag is the frame's VLAN id, or the port's untagged
//   VLAN, or 0 on a routed port) and its logical (VLAN, routed port or
//   port-channel), physical and receiving-port ifIndex (the port-channel when
//   the port is a member of one). Outgoing copies, frames on unmapped
//   interfaces, tagged frames of a VLAN the port does not carry, untagged
//   frames on a port without an untagged VLAN (unless routed) and frames
//   seen twice are dropped; a read that finds only such frames fails with
//   EAGAIN, and frames to drop queued behind a delivered one are taken off
//   with it, so the descriptor is readable only for a frame to deliver. A
//   management port's frames are delivered (its ifIndex as all three) for
//   the daemon to refuse. A UDP checksum a local sender left to the device
//   is written in, as the frame carries it on a wire.
// - Any other AF_QORL2 socket sends frames: qorSendto writes a frame given
//   with that 18-byte header out of the egress port, tagged when the port
//   carries the VLAN (the QOR_SO_L2_VLAN option's, or the header's) tagged,
//   untagged on its untagged VLAN, with no VLAN or on a routed port; a VLAN
//   the port does not carry is refused (EINVAL). A port-channel sends out of
//   its first member that is up (IFF_UP and IFF_RUNNING; none: ENETDOWN). An
//   egress of 0 or a VLAN interface sends out of every port of the VLAN. A
//   socket of protocol QOR_L2_PROTO_FLOOD takes a 24-byte flood header
//   before the frame and sends out of every port of the VLAN (the option's,
//   else the header's VLAN interface, else the frame's tag) but the ingress
//   and its port-channel's members; the multicast group word is the
//   forwarding plane's and unused here; no VLAN floods to nobody. A send
//   returns the whole length given (flood header included) when every port
//   took the frame.
//   QOR_SO_L2_VLAN, per socket: word 0 = 1 sets the VLAN (word 3, 0-4094;
//   0 means the frame's own tag), word 0 = 0 clears it.
// - QOR_SO_VRF on an IPv6 socket sets SO_MARK to the VRF's table (0 for
//   the default VRF; a VRF id the host map does not know: ENXIO) and adds,
//   once, the IPv6 rule "pref 1000 fwmark T lookup T".
//   QOR_IPV6_SRC_INTF makes every later qorSendto on the socket carry
//   IPV6_PKTINFO with that interface's first global address (ifindex 0);
//   word 0 = 0 clears it; an interface without a global address:
//   EADDRNOTAVAIL (and none is applied). Plain sendto does not see it.
//   Option values are 32-bit words in host order, as any setsockopt value.
//   An AF_INET6 UDP socket made by qorSocket never queues incoming
//   datagrams (a drop-all socket filter): DHCPv6 arrives through the
//   protocol socket, as the switch's trap delivers it.
// Every other family and option goes to the kernel.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr int AF_QORL2 = 36;
constexpr int QOR_SOCK_RAW = 3;
constexpr int QOR_L2_PROTO_DHCPV6 = 38;  // the DHCPv6 trap
constexpr int QOR_L2_PROTO_FLOOD = 36;   // frames with a flood header
constexpr size_t QOR_L2_ADDR_LEN = 16;   // sockaddr: length byte, family byte, 14 zeros
constexpr int QOR_IPPROTO_IPV6 = 41;
constexpr int QOR_IPV6_SRC_INTF = 77;    // value: 20 bytes, word 0 the ifIndex; all zero clears it
constexpr int QOR_SOL_SOCKET = 1;        // SOL_SOCKET
constexpr int QOR_SO_VRF = 0x40000;      // value: 32-bit VRF id
constexpr int QOR_SO_L2_VLAN = 0x8000;   // value: 20 bytes, word 0 = 1 on, word 3 the VLAN id
constexpr size_t QOR_L2_HDR_LEN = 18;    // the link header of every frame
constexpr size_t QOR_L2_FLOOD_HDR_LEN = 24;
constexpr uint32_t QOR_L2_FLOOD_CMD = 6; // flood header word 0

// A descriptor, or -1 (errno set).
int qorSocket(int family, int type, int protocol);
// 0, or -1 (errno set). An AF_QORL2 socket takes a 16-byte address whose
// family byte (offset 1) is 36.
int qorBind(int fd, const void* addr, unsigned len);
// Receives one frame: its length, 0, or -1 (errno set). The three indexes are
// the logical interface (VLAN or routed port), the physical interface and the
// receiving port of the frame; 0 when unknown.
ssize_t qorRecvfrom4(int fd, void* buf, size_t len, int flags, void* src, unsigned* srcLen,
                     uint32_t* logicalIfIndex, uint32_t* physIfIndex, uint32_t* recvIfIndex);
// Sends one frame on an AF_QORL2 socket out of egressIfIndex (0: decide from
// the header and options), or a datagram on any other socket (egress ignored).
// The byte count, or -1 (errno set).
ssize_t qorSendto(int fd, const void* buf, size_t len, int flags, const void* dst, unsigned dstLen,
                  uint32_t egressIfIndex);
// 0, or -1 (errno set).
int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len);
// Closes a descriptor of qorSocket (and whatever the platform holds for it).
int qorClose(int fd);

// ---- interface lookups -------------------------------------------------------------
struct nbsdIntfInfo {
    uint32_t ifIndex;          // the switch interface asked about
    uint8_t hasGlobalIpv6;     // 1 when the Linux interface has a global IPv6 address
    uint8_t ipv6Addr[16];      // its first global IPv6 address
    uint8_t mac[6];
    uint32_t vrfId;
};
// The interface named "QORS<ifIndex in lower-case hex>": 1 and *info, or 0
// when the name is not of that form or the interface is not mapped or has no
// Linux interface (a port-channel without one answers with its first
// member's). Global: not link-local, multicast, loopback or unspecified.
// Answers come from a copy of the system's addresses refreshed whenever the
// kernel announces a link or IPv6 address change.
int nbsdGetIntfInfoForName(const char* name, nbsdIntfInfo* info);
// 1 when addr is an address of a mapped interface of VRF vrfId (interfaces the
// map does not name count in the default VRF), else 0.
int nbsdGetIntfInfoFromIpv6Addr(const uint8_t addr[16], int vrfId);
// The VRF id of an interface from the host map (0 for the default VRF and for
// unmapped interfaces); -1 for ifIndex 0.
int getVrfIdForIfIndex(uint32_t ifIndex);
