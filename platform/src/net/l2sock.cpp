// l2sock.cpp -- the platform's socket layer on Linux: the DHCPv6 protocol
// socket (one AF_PACKET socket over every mapped port), frames sent and
// flooded out of mapped ports with the VLAN tag written in user space, and
// the relay socket's VRF and source-interface options. Every other family
// and option goes to the kernel.
#include "qor/l2sock.h"

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "netintf.h"
#include "qor/bytes.h"
#include "qor/ifm.h"

namespace {

// ---- descriptors made here and what they were told ---------------------------------

enum class SockKind { Protocol, Send, Flood, Other };

struct SockState {
    SockKind kind = SockKind::Other;
    uint32_t vlanId = 0;                // QOR_SO_L2_VLAN; 0: the frame's own tag
    std::optional<QorIpv6Addr> source;  // QOR_IPV6_SRC_INTF's address
};

class Sockets {
public:
    void add(int fd, SockKind kind) {
        std::lock_guard lock(mu_);
        socks_[fd] = SockState{kind, 0, std::nullopt};
    }
    void erase(int fd) {
        std::lock_guard lock(mu_);
        socks_.erase(fd);
    }
    SockState get(int fd) {
        std::lock_guard lock(mu_);
        const auto it = socks_.find(fd);
        return it == socks_.end() ? SockState{} : it->second;
    }
    template <typename Fn>
    void update(int fd, Fn fn) {
        std::lock_guard lock(mu_);
        fn(socks_[fd]);
    }

private:
    std::mutex mu_;
    std::map<int, SockState> socks_;
};

Sockets& sockets() {
    static Sockets s;
    return s;
}

bool isL2(SockKind kind) { return kind != SockKind::Other; }

bool validFd(int fd) { return fd >= 0 && fcntl(fd, F_GETFD) != -1; }

int fail(int err) {
    errno = err;
    return -1;
}

// Option values are 32-bit words in host order, as any setsockopt value.
uint32_t optWord(const void* value, size_t i) {
    uint32_t w = 0;
    std::memcpy(&w, static_cast<const uint8_t*>(value) + 4 * i, sizeof w);
    return w;
}

// ---- Linux interfaces by name, asked through a descriptor of the caller's namespace --

std::string linuxNameOf(int fd, int linuxIfIndex) {
    ifreq req{};
    req.ifr_ifindex = linuxIfIndex;
    if (ioctl(fd, SIOCGIFNAME, &req) != 0) return {};
    return std::string(req.ifr_name, strnlen(req.ifr_name, IFNAMSIZ));
}

bool fillIfName(ifreq& req, const std::string& name) {
    if (name.empty() || name.size() >= IFNAMSIZ) return false;
    std::memcpy(req.ifr_name, name.c_str(), name.size() + 1);
    return true;
}

int linuxIfIndexOf(int fd, const std::string& name) {
    ifreq req{};
    if (!fillIfName(req, name) || ioctl(fd, SIOCGIFINDEX, &req) != 0) return 0;
    return req.ifr_ifindex;
}

bool linkUp(int fd, const std::string& name) {
    ifreq req{};
    if (!fillIfName(req, name) || ioctl(fd, SIOCGIFFLAGS, &req) != 0) return false;
    return (req.ifr_flags & IFF_UP) != 0 && (req.ifr_flags & IFF_RUNNING) != 0;
}

// ---- VLAN membership -----------------------------------------------------------------

bool isPort(uint32_t ifIndex) {
    const uint32_t type = ifmIfIndexToIfType(ifIndex);
    return type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET;
}

bool carriesTagged(const QorHostIf& cfg, uint32_t vlan) {
    return vlan != 0 && std::binary_search(cfg.taggedVlans.begin(), cfg.taggedVlans.end(), vlan);
}

bool carries(const QorHostIf& cfg, uint32_t vlan) {
    return vlan != 0 && (cfg.untaggedVlan == vlan || carriesTagged(cfg, vlan));
}

bool isRouted(const QorHostIf& cfg) { return cfg.untaggedVlan == 0 && cfg.taggedVlans.empty(); }

// A port-channel member carries what its port-channel carries.
const QorHostIf& vlanConfigOf(const QorHostMap& map, const QorHostIf& port) {
    const QorHostIf* lag = map.find(map.lagOf(port.ifIndex));
    return lag != nullptr ? *lag : port;
}

// ---- the protocol socket ---------------------------------------------------------------

constexpr uint32_t kAcceptBytes = 0x40000;
constexpr uint16_t kTpid = ETH_P_8021Q;

// IPv6 UDP to port 546 or 547, untagged or with one inline 802.1Q tag (the
// kernel usually moves a received tag into the metadata, where the filter
// does not see it); never a copy of a frame this host sends.
constexpr sock_filter kProtoFilter[] = {
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, uint32_t(SKF_AD_OFF + SKF_AD_PKTTYPE)),  // 0
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 15, 0),                 // 1 -> drop
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 12),                                       // 2 EtherType
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 7, 0),                       // 3 -> 11
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_8021Q, 0, 12),                     // 4 -> drop
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 16),                                       // 5 inner EtherType
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, ETH_P_IPV6, 0, 10),                      // 6 -> drop
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 18 + 6),                                   // 7 next header
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 8),                      // 8 -> drop
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 18 + 40 + 2),                              // 9 UDP dst port
    BPF_STMT(BPF_JMP | BPF_JA, 3),                                                // 10 -> 14
    BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 14 + 6),                                   // 11 next header
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, IPPROTO_UDP, 0, 4),                      // 12 -> drop
    BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 14 + 40 + 2),                              // 13 UDP dst port
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 546, 1, 0),                              // 14 -> accept
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 547, 0, 1),                              // 15 -> drop
    BPF_STMT(BPF_RET | BPF_K, kAcceptBytes),                                      // 16 accept
    BPF_STMT(BPF_RET | BPF_K, 0),                                                 // 17 drop
};

// The relay's UDP socket keeps port 547 bound, so the kernel does not answer
// servers with port-unreachable, but never queues what arrives: replies are
// read from the protocol socket, as the switch's trap delivers them.
constexpr sock_filter kDropAll[] = {BPF_STMT(BPF_RET | BPF_K, 0)};

template <size_t N>
int attachFilter(int fd, const sock_filter (&prog)[N]) {
    sock_fprog fprog{uint16_t(N), const_cast<sock_filter*>(prog)};
    return setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &fprog, sizeof fprog);
}

// Room for bursts of trapped frames while the loop serves other descriptors.
constexpr int kProtoRcvBuf = 2 << 20;

int protoSocket() {
    // Made deaf (protocol 0) and bound to every frame only once filtered, so
    // no unfiltered frame is ever queued.
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int on = 1;
    sockaddr_ll all{};
    all.sll_family = AF_PACKET;
    all.sll_protocol = htons(ETH_P_ALL);
    if (attachFilter(fd, kProtoFilter) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0 ||
        bind(fd, reinterpret_cast<const sockaddr*>(&all), sizeof all) != 0) {
        const int err = errno;
        close(fd);
        return fail(err);
    }
#ifdef PACKET_IGNORE_OUTGOING
    setsockopt(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING, &on, sizeof on);  // the filter drops them anyway
#endif
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kProtoRcvBuf, sizeof kProtoRcvBuf) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kProtoRcvBuf, sizeof kProtoRcvBuf);
    sockets().add(fd, SockKind::Protocol);
    return fd;
}

// One frame as read: where it came from and its VLAN tag from the metadata.
struct RxFrame {
    sockaddr_ll from{};
    bool metaTag = false;
    bool checksumPending = false;  // sent by this host with the checksum left to the NIC
    uint16_t metaTci = 0;
    uint16_t metaTpid = kTpid;
};

ssize_t readFrame(int fd, uint8_t* buf, size_t len, int flags, RxFrame& rx) {
    iovec iov{buf, len};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    msghdr msg{};
    msg.msg_name = &rx.from;
    msg.msg_namelen = sizeof rx.from;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    const ssize_t n = recvmsg(fd, &msg, flags | MSG_DONTWAIT);
    if (n < 0) return -1;
    for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_PACKET || c->cmsg_type != PACKET_AUXDATA ||
            c->cmsg_len < CMSG_LEN(sizeof(tpacket_auxdata)))
            continue;
        tpacket_auxdata aux;
        std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
        rx.metaTag = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
        rx.metaTci = aux.tp_vlan_tci;
        rx.checksumPending = (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
        if ((aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) rx.metaTpid = aux.tp_vlan_tpid;
    }
    return n;
}

// What the daemon is told about an accepted frame.
struct Delivery {
    uint16_t vlan = 0;
    uint32_t logical = 0, physical = 0, recv = 0;
    size_t ipOffset = 0;  // of the IPv6 header in the frame as read
};

// The frame's VLAN id (0: untagged or priority-tagged) and where its IPv6
// header starts; nothing for frames of another shape.
std::optional<std::pair<uint16_t, size_t>> frameVlan(const RxFrame& rx, qor::ByteView frame) {
    const uint16_t etherType = qor::u16At(frame, 12);
    std::pair<uint16_t, size_t> v{0, 14};
    if (rx.metaTag) {
        if (rx.metaTpid != kTpid || etherType != ETH_P_IPV6) return std::nullopt;
        v.first = rx.metaTci & 0x0FFF;
    } else if (etherType == kTpid) {
        if (qor::u16At(frame, 16) != ETH_P_IPV6) return std::nullopt;
        v = {uint16_t(qor::u16At(frame, 14) & 0x0FFF), 18};
    } else if (etherType != ETH_P_IPV6) {
        return std::nullopt;
    }
    if (!qor::fits(frame.size(), v.second, 48)) return std::nullopt;  // IPv6 and UDP headers
    return v;
}

// Decides whether a frame is delivered and as what. Frames of Linux
// interfaces that are not mapped ports (a bridge above a port sees the same
// frame again) and tagged frames of a VLAN the port does not carry are not.
std::optional<Delivery> classify(int fd, const QorHostMap& map, const RxFrame& rx, qor::ByteView frame) {
    if (rx.from.sll_pkttype == PACKET_OUTGOING) return std::nullopt;
    const auto vlanAt = frameVlan(rx, frame);
    if (!vlanAt) return std::nullopt;
    const QorHostIf* port = map.portByLinuxName(linuxNameOf(fd, rx.from.sll_ifindex));
    if (port == nullptr) return std::nullopt;
    Delivery d;
    d.ipOffset = vlanAt->second;
    if (ifmIfIndexToIfType(port->ifIndex) == IFM_IFTYPE_MGMT) {
        // The daemon drops these itself, by their physical interface.
        d.logical = d.physical = d.recv = port->ifIndex;
        return d;
    }
    const uint32_t lag = map.lagOf(port->ifIndex);
    const QorHostIf& cfg = vlanConfigOf(map, *port);
    const uint16_t tag = vlanAt->first;
    if (tag != 0 && !carries(cfg, tag)) return std::nullopt;
    if (tag == 0 && cfg.untaggedVlan == 0 && !isRouted(cfg)) return std::nullopt;  // a trunk without a native VLAN
    d.vlan = tag != 0 ? tag : uint16_t(cfg.untaggedVlan);
    d.physical = port->ifIndex;
    d.recv = lag != 0 ? lag : port->ifIndex;
    d.logical = d.vlan != 0 ? ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, d.vlan) : d.recv;
    return d;
}

// A UDP datagram a local sender handed to a device that computes checksums
// (a veth does) reaches a packet socket with the checksum not yet written;
// it is written here, as the frame would carry it on a wire.
void completeUdpChecksum(qor::MutByteView ip) {
    uint16_t udpLen = 0;
    if (qor::u16At(ip, 4) + size_t(40) > ip.size() || ip[6] != IPPROTO_UDP || !qor::getU16(ip, 44, udpLen) ||
        udpLen < 8 || !qor::fits(ip.size(), 40, udpLen))
        return;
    qor::putU16(ip, 46, 0);
    uint32_t sum = IPPROTO_UDP + uint32_t(udpLen);
    for (size_t i = 8; i < 40; i += 2) sum += qor::u16At(ip, i);
    for (size_t i = 0; i + 1 < udpLen; i += 2) sum += qor::u16At(ip, 40 + i);
    if (udpLen % 2 != 0) sum += uint32_t(ip[40 + udpLen - 1]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    const uint16_t checksum = uint16_t(~sum);
    qor::putU16(ip, 46, checksum != 0 ? checksum : 0xFFFF);
}

// An untagged frame is read this far into the caller's buffer, so that its
// IPv6 packet already sits where the 18-byte link header ends.
constexpr size_t kLead = QOR_L2_HDR_LEN - 14;

// Rewrites the frame read at buf + kLead into the link header and the IPv6
// packet (without Ethernet padding). The bytes written.
size_t deliver(uint8_t* buf, size_t len, qor::ByteView frame, const Delivery& d, bool checksumPending) {
    uint8_t hdr[QOR_L2_HDR_LEN];
    std::memcpy(hdr, frame.data(), 12);  // destination and source MAC
    const qor::MutByteView h(hdr, sizeof hdr);
    qor::putU16(h, 12, kTpid);
    qor::putU16(h, 14, d.vlan);
    qor::putU16(h, 16, ETH_P_IPV6);
    const qor::ByteView ip = frame.subspan(d.ipOffset);
    const size_t ipLen = std::min({ip.size(), size_t(40) + qor::u16At(ip, 4), len - QOR_L2_HDR_LEN});
    std::memmove(buf + QOR_L2_HDR_LEN, ip.data(), ipLen);
    std::memcpy(buf, hdr, sizeof hdr);
    if (checksumPending) completeUdpChecksum(qor::MutByteView(buf + QOR_L2_HDR_LEN, ipLen));
    return QOR_L2_HDR_LEN + ipLen;
}

// A bound on the frames one read drops, so the loop is never held here.
constexpr int kMaxFramesPerRead = 64;

// Frames that would be dropped are taken off the queue now, so the
// descriptor is readable only when a frame for the daemon waits.
void dropQueuedStrays(int fd, const QorHostMap& map) {
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        uint8_t head[128];
        RxFrame rx;
        const ssize_t n = readFrame(fd, head, sizeof head, MSG_PEEK, rx);
        if (n < 0 || classify(fd, map, rx, qor::ByteView(head, std::min(size_t(n), sizeof head)))) return;
        if (recv(fd, head, sizeof head, MSG_DONTWAIT) < 0) return;
    }
}

void fillSource(void* src, unsigned* srcLen) {
    if (srcLen == nullptr) return;
    if (src != nullptr && *srcLen >= QOR_L2_ADDR_LEN) {
        auto* a = static_cast<uint8_t*>(src);
        std::memset(a, 0, QOR_L2_ADDR_LEN);
        a[0] = QOR_L2_ADDR_LEN;
        a[1] = AF_QORL2;
    }
    *srcLen = QOR_L2_ADDR_LEN;
}

ssize_t protoRecv(int fd, uint8_t* buf, size_t len, void* src, unsigned* srcLen, uint32_t* logical,
                  uint32_t* physical, uint32_t* recvPort) {
    if (buf == nullptr || len < QOR_L2_HDR_LEN + 48) return fail(EINVAL);
    const auto map = qorHostMapGet();
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        RxFrame rx;
        const ssize_t n = readFrame(fd, buf + kLead, len - kLead, 0, rx);
        if (n < 0) return -1;
        const qor::ByteView frame(buf + kLead, std::min(size_t(n), len - kLead));
        const auto d = classify(fd, *map, rx, frame);
        if (!d) continue;
        const size_t out = deliver(buf, len, frame, *d, rx.checksumPending);
        dropQueuedStrays(fd, *map);
        fillSource(src, srcLen);
        if (logical) *logical = d->logical;
        if (physical) *physical = d->physical;
        if (recvPort) *recvPort = d->recv;
        return ssize_t(out);
    }
    return fail(EAGAIN);
}

// ---- layer-2 sends ---------------------------------------------------------------------

// A frame as the daemon gives it: MACs, an optional 802.1Q tag, the rest.
struct TxFrame {
    const uint8_t* macs = nullptr;  // 12 bytes
    uint16_t tag = 0;               // the VLAN id of the tag, 0 when none
    uint16_t etherType = 0;
    qor::ByteView payload;
};

std::optional<TxFrame> parseTx(qor::ByteView b) {
    if (b.size() < 14) return std::nullopt;
    TxFrame f;
    f.macs = b.data();
    f.etherType = qor::u16At(b, 12);
    size_t off = 14;
    if (f.etherType == kTpid) {
        if (b.size() < QOR_L2_HDR_LEN) return std::nullopt;
        f.tag = qor::u16At(b, 14) & 0x0FFF;
        f.etherType = qor::u16At(b, 16);
        off = QOR_L2_HDR_LEN;
    }
    f.payload = b.subspan(off);
    return f;
}

// Where a frame leaves: the port whose Linux interface sends it and the
// interface whose VLANs apply (the port-channel's for a member).
struct Egress {
    const QorHostIf* port;
    const QorHostIf* cfg;
};

std::optional<Egress> lagEgress(int fd, const QorHostMap& map, const QorHostIf& lag) {
    for (uint32_t member : lag.members) {
        const QorHostIf* port = map.find(member);
        if (port != nullptr && !port->linuxName.empty() && linkUp(fd, port->linuxName)) return Egress{port, &lag};
    }
    return std::nullopt;
}

std::optional<Egress> portEgress(int fd, const QorHostMap& map, uint32_t ifIndex) {
    const QorHostIf* itf = map.find(ifIndex);
    if (itf == nullptr) return std::nullopt;
    if (ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_LAG) return lagEgress(fd, map, *itf);
    if (!isPort(ifIndex) || itf->linuxName.empty()) return std::nullopt;
    return Egress{itf, &vlanConfigOf(map, *itf)};
}

// Every port of a VLAN (a port-channel once, through a member that is up),
// but the one given and its port-channel.
std::vector<Egress> vlanEgresses(int fd, const QorHostMap& map, uint32_t vlan, uint32_t except) {
    const uint32_t exceptLag = ifmIfIndexToIfType(except) == IFM_IFTYPE_LAG ? except : map.lagOf(except);
    std::vector<Egress> out;
    for (const auto& [ifIndex, itf] : map.interfaces) {
        if (!carries(itf, vlan) || ifIndex == except) continue;
        if (isPort(ifIndex) && !itf.linuxName.empty() && map.lagOf(ifIndex) == 0) {
            out.push_back({&itf, &itf});
        } else if (ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_LAG && ifIndex != exceptLag) {
            if (auto e = lagEgress(fd, map, itf)) out.push_back(*e);
        }
    }
    return out;
}

// Writes the frame out of one port: tagged when the port carries the VLAN
// tagged, untagged on its untagged VLAN, with no VLAN, or on a routed port.
int sendOut(int fd, const Egress& e, const TxFrame& f, uint32_t vlan) {
    const bool tagged = carriesTagged(*e.cfg, vlan);
    if (vlan != 0 && !tagged && e.cfg->untaggedVlan != vlan && !isRouted(*e.cfg)) return fail(EINVAL);
    uint8_t hdr[QOR_L2_HDR_LEN];
    const qor::MutByteView h(hdr, sizeof hdr);
    qor::putBytes(h, 0, f.macs, 12);
    size_t hdrLen = 14;
    if (tagged) {
        qor::putU16(h, 12, kTpid);
        qor::putU16(h, 14, uint16_t(vlan));
        hdrLen = QOR_L2_HDR_LEN;
    }
    qor::putU16(h, hdrLen - 2, f.etherType);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(tagged ? kTpid : f.etherType);
    to.sll_ifindex = linuxIfIndexOf(fd, e.port->linuxName);
    to.sll_halen = 6;
    std::memcpy(to.sll_addr, f.macs, 6);
    if (to.sll_ifindex == 0) return fail(ENODEV);
    iovec iov[2] = {{hdr, hdrLen}, {const_cast<uint8_t*>(f.payload.data()), f.payload.size()}};
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    const ssize_t n = sendmsg(fd, &msg, 0);
    if (n < 0) return -1;
    return size_t(n) == hdrLen + f.payload.size() ? 0 : fail(EMSGSIZE);
}

// Sends on every egress; a failure on one does not stop the others.
ssize_t sendAll(int fd, const std::vector<Egress>& egresses, const TxFrame& f, uint32_t vlan, size_t len) {
    int firstErr = 0;
    for (const Egress& e : egresses)
        if (sendOut(fd, e, f, vlan) != 0 && firstErr == 0) firstErr = errno;
    return firstErr == 0 ? ssize_t(len) : fail(firstErr);
}

// A flood header (command, ingress port, multicast group, VLAN interface)
// before the frame. The multicast group is the forwarding plane's; here the
// VLAN's ports are written to one by one.
ssize_t floodSend(int fd, const SockState& st, qor::ByteView b) {
    if (b.size() < QOR_L2_FLOOD_HDR_LEN || qor::u32At(b, 0) != QOR_L2_FLOOD_CMD) return fail(EINVAL);
    const auto f = parseTx(b.subspan(QOR_L2_FLOOD_HDR_LEN));
    if (!f) return fail(EINVAL);
    const uint32_t ingress = qor::u32At(b, 4);
    const uint32_t vlanIf = qor::u32At(b, 12);
    uint32_t vlan = st.vlanId;
    if (vlan == 0) vlan = ifmIfIndexToIfType(vlanIf) == IFM_IFTYPE_VLAN ? ifmIfIndexToVlanId(vlanIf) : f->tag;
    if (vlan == 0) return ssize_t(b.size());  // a routed port has no VLAN to flood in
    const auto map = qorHostMapGet();
    return sendAll(fd, vlanEgresses(fd, *map, vlan, ingress), *f, vlan, b.size());
}

ssize_t l2Send(int fd, const SockState& st, qor::ByteView b, uint32_t egress) {
    if (st.kind == SockKind::Flood) return floodSend(fd, st, b);
    const auto f = parseTx(b);
    if (!f) return fail(EINVAL);
    uint32_t vlan = st.vlanId != 0 ? st.vlanId : f->tag;
    const auto map = qorHostMapGet();
    const uint32_t type = ifmIfIndexToIfType(egress);
    if (egress == 0 || type == IFM_IFTYPE_VLAN) {
        // No port named: every port of the VLAN.
        if (vlan == 0) vlan = ifmIfIndexToVlanId(egress);
        if (vlan == 0) return fail(EDESTADDRREQ);
        return sendAll(fd, vlanEgresses(fd, *map, vlan, 0), *f, vlan, b.size());
    }
    const auto e = portEgress(fd, *map, egress);
    if (!e) return fail(type == IFM_IFTYPE_LAG && map->hasInterface(egress) ? ENETDOWN : ENXIO);
    return sendAll(fd, {*e}, *f, vlan, b.size());
}

int sendSocket(SockKind kind) {
    // Protocol 0: a send-only packet socket never queues a frame.
    const int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd >= 0) sockets().add(fd, kind);
    return fd;
}

// ---- the relay socket --------------------------------------------------------------

int relaySocket(int type, int protocol) {
    const int fd = socket(AF_INET6, type, protocol);
    if (fd < 0) return -1;
    if (attachFilter(fd, kDropAll) != 0) {
        const int err = errno;
        close(fd);
        return fail(err);
    }
    return fd;
}

// A VRF is its table: packets marked with it are routed through it.
int setVrf(int fd, const void* value, unsigned len) {
    if (value == nullptr || len < 4) return fail(EINVAL);
    const uint32_t vrfId = optWord(value, 0);
    const auto map = qorHostMapGet();
    const bool known = vrfId == 0 || std::any_of(map->vrfs.begin(), map->vrfs.end(),
                                                 [&](const auto& v) { return v.second.id == vrfId; });
    if (!known) return fail(ENXIO);
    const uint32_t table = map->tableOfVrf(vrfId);
    if (table != 0 && qorVrfRuleEnsure(table) != 0) return -1;
    uint32_t mark = 0;
    socklen_t markLen = sizeof mark;
    if (getsockopt(fd, SOL_SOCKET, SO_MARK, &mark, &markLen) != 0) return -1;
    // Marking needs CAP_NET_ADMIN; the default VRF on an unmarked socket does not.
    if (mark == table) return 0;
    return setsockopt(fd, SOL_SOCKET, SO_MARK, &table, sizeof table);
}

// The kernel keeps no source address for a socket bound to [::] (a sticky
// IPV6_PKTINFO sets only the outgoing interface), so the address is kept here
// and given with every datagram qorSendto sends.
int setSourceIntf(int fd, const void* value, unsigned len) {
    if (value == nullptr || len < 4) return fail(EINVAL);
    if (!validFd(fd)) return fail(EBADF);
    const uint32_t ifIndex = optWord(value, 0);
    const std::optional<QorIpv6Addr> addr = ifIndex != 0 ? qorHostGlobalAddr(ifIndex) : std::nullopt;
    sockets().update(fd, [&](SockState& st) { st.source = addr; });
    return ifIndex != 0 && !addr ? fail(EADDRNOTAVAIL) : 0;
}

int setL2Vlan(int fd, const void* value, unsigned len) {
    if (!isL2(sockets().get(fd).kind)) return fail(EOPNOTSUPP);
    if (value == nullptr || len < 16) return fail(EINVAL);
    const uint32_t on = optWord(value, 0), vlan = optWord(value, 3);
    if (on > 1 || vlan > 4094) return fail(EINVAL);
    sockets().update(fd, [&](SockState& st) { st.vlanId = on != 0 ? vlan : 0; });
    return 0;
}

ssize_t sendFromSource(int fd, const void* buf, size_t len, int flags, const void* dst, unsigned dstLen,
                       const QorIpv6Addr& source) {
    iovec iov{const_cast<void*>(buf), len};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(in6_pktinfo))] = {};
    msghdr msg{};
    msg.msg_name = const_cast<void*>(dst);
    msg.msg_namelen = dstLen;
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr* c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = IPPROTO_IPV6;
    c->cmsg_type = IPV6_PKTINFO;
    c->cmsg_len = CMSG_LEN(sizeof(in6_pktinfo));
    in6_pktinfo info{};
    std::memcpy(&info.ipi6_addr, source.data(), source.size());
    std::memcpy(CMSG_DATA(c), &info, sizeof info);
    return sendmsg(fd, &msg, flags);
}

}  // namespace

int qorSocket(int family, int type, int protocol) {
    if (family == AF_QORL2) {
        if (type != QOR_SOCK_RAW) return fail(EPROTONOSUPPORT);
        if (protocol == QOR_L2_PROTO_DHCPV6) return protoSocket();
        return sendSocket(protocol == QOR_L2_PROTO_FLOOD ? SockKind::Flood : SockKind::Send);
    }
    const int fd = family == AF_INET6 && (type & 0xF) == SOCK_DGRAM ? relaySocket(type, protocol)
                                                                    : socket(family, type, protocol);
    if (fd >= 0) sockets().add(fd, SockKind::Other);
    return fd;
}

int qorBind(int fd, const void* addr, unsigned len) {
    if (!isL2(sockets().get(fd).kind)) return bind(fd, static_cast<const sockaddr*>(addr), socklen_t(len));
    // The protocol socket already hears every port; the address only names the family.
    const auto* a = static_cast<const uint8_t*>(addr);
    if (a == nullptr || len != QOR_L2_ADDR_LEN || a[1] != AF_QORL2) return fail(EINVAL);
    return 0;
}

ssize_t qorRecvfrom4(int fd, void* buf, size_t len, int flags, void* src, unsigned* srcLen,
                     uint32_t* logicalIfIndex, uint32_t* physIfIndex, uint32_t* recvIfIndex) {
    if (logicalIfIndex) *logicalIfIndex = 0;
    if (physIfIndex) *physIfIndex = 0;
    if (recvIfIndex) *recvIfIndex = 0;
    const SockKind kind = sockets().get(fd).kind;
    if (kind == SockKind::Protocol)
        return protoRecv(fd, static_cast<uint8_t*>(buf), len, src, srcLen, logicalIfIndex, physIfIndex,
                         recvIfIndex);
    if (isL2(kind)) return fail(EAGAIN);  // a send socket hears nothing
    socklen_t sl = srcLen ? socklen_t(*srcLen) : 0;
    const ssize_t n = recvfrom(fd, buf, len, flags, static_cast<sockaddr*>(src), srcLen ? &sl : nullptr);
    if (srcLen) *srcLen = unsigned(sl);
    return n;
}

ssize_t qorSendto(int fd, const void* buf, size_t len, int flags, const void* dst, unsigned dstLen,
                  uint32_t egressIfIndex) {
    const SockState st = sockets().get(fd);
    if (isL2(st.kind)) {
        if (buf == nullptr) return fail(EINVAL);
        return l2Send(fd, st, qor::ByteView(static_cast<const uint8_t*>(buf), len), egressIfIndex);
    }
    if (st.source) return sendFromSource(fd, buf, len, flags, dst, dstLen, *st.source);
    return sendto(fd, buf, len, flags, static_cast<const sockaddr*>(dst), socklen_t(dstLen));
}

int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len) {
    if (level == QOR_SOL_SOCKET && option == QOR_SO_VRF) return setVrf(fd, value, len);
    if (level == QOR_SOL_SOCKET && option == QOR_SO_L2_VLAN) return setL2Vlan(fd, value, len);
    if (level == QOR_IPPROTO_IPV6 && option == QOR_IPV6_SRC_INTF) return setSourceIntf(fd, value, len);
    return setsockopt(fd, level, option, value, socklen_t(len));
}

int qorClose(int fd) {
    sockets().erase(fd);
    return close(fd);
}
