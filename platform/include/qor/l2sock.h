// qor/l2sock.h -- the platform's socket layer for the families and options
// only the switch OS knows: the layer-2 packet family AF_QORL2 (36) on which
// DHCPv6 frames trapped to the CPU arrive with their interface indexes, and
// the IPv6 source-interface option (level 41, option 77).
//
// On Linux an AF_QORL2 socket is, for now, a descriptor that is valid,
// selectable and never readable (one end of a socket pair whose other end
// the platform keeps open): the daemon starts and its event loop runs, but no
// frame arrives on it. Frames arrive only once the AF_PACKET implementation
// lands (one packet socket for every mapped port, with the VLAN tag and the
// logical, physical and receiving-port ifIndex of each frame). Every other
// family, and every option the platform does not know, goes to the kernel.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr int AF_QORL2 = 36;
constexpr int QOR_SOCK_RAW = 3;
constexpr int QOR_L2_PROTO_DHCPV6 = 38;  // the DHCPv6 trap
constexpr size_t QOR_L2_ADDR_LEN = 16;   // sockaddr: length byte, family byte, 14 zeros
constexpr int QOR_IPPROTO_IPV6 = 41;
constexpr int QOR_IPV6_SRC_INTF = 77;    // value: 20 bytes; all zero clears it

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
// 0, or -1 (errno set).
int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len);
// Closes a descriptor of qorSocket (and whatever the platform holds for it).
int qorClose(int fd);
