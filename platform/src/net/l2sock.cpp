// l2sock.cpp -- the platform's socket layer on Linux: the DHCPv6 protocol
// socket (one AF_PACKET socket over every mapped port), frames sent and
// flooded out of mapped ports with the VLAN tag written in user space, and
// the relay socket's VRF and source-interface options. Every other family
// and option goes to the kernel. What a frame means (qor/l2frame.h) is
// decided over its bytes; this file reads, writes and names interfaces.
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

#include "netintf.h"
#include "qor/bytes.h"
#include "qor/l2frame.h"

namespace {

namespace l2frame = qor::l2frame;

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

// ---- the protocol socket ---------------------------------------------------------------

constexpr uint32_t kAcceptBytes = 0x40000;

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

// One frame as read: what the socket layer learnt besides its bytes.
ssize_t readFrame(int fd, uint8_t* buf, size_t len, int flags, l2frame::RxMeta& meta) {
    iovec iov{buf, len};
    sockaddr_ll from{};
    alignas(cmsghdr) uint8_t control[CMSG_SPACE(sizeof(tpacket_auxdata))];
    msghdr msg{};
    msg.msg_name = &from;
    msg.msg_namelen = sizeof from;
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
        meta.metaTag = (aux.tp_status & TP_STATUS_VLAN_VALID) != 0;
        meta.metaTci = aux.tp_vlan_tci;
        meta.checksumPending = (aux.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
        if ((aux.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) meta.metaTpid = aux.tp_vlan_tpid;
    }
    meta.outgoing = from.sll_pkttype == PACKET_OUTGOING;
    if (!meta.outgoing) meta.linuxName = linuxNameOf(fd, from.sll_ifindex);
    return n;
}

// A bound on the frames one read drops, so the loop is never held here.
constexpr int kMaxFramesPerRead = 64;

// Frames that would be dropped are taken off the queue now, so the
// descriptor is readable only when a frame for the daemon waits.
void dropQueuedStrays(int fd, const QorHostMap& map) {
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        uint8_t head[128];
        l2frame::RxMeta meta;
        const ssize_t n = readFrame(fd, head, sizeof head, MSG_PEEK, meta);
        if (n < 0 || l2frame::classify(map, meta, qor::ByteView(head, std::min(size_t(n), sizeof head)))) return;
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
    if (buf == nullptr || len < l2frame::kMinRxBuffer) return fail(EINVAL);
    const auto map = qorHostMapGet();
    const qor::MutByteView out(buf, len);
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        l2frame::RxMeta meta;
        const ssize_t n = readFrame(fd, buf + l2frame::kRxLead, len - l2frame::kRxLead, 0, meta);
        if (n < 0) return -1;
        const size_t frameLen = std::min(size_t(n), len - l2frame::kRxLead);
        const auto d = l2frame::classify(*map, meta, out.subspan(l2frame::kRxLead, frameLen));
        if (!d) continue;
        const size_t delivered = l2frame::deliver(out, frameLen, *d, meta.checksumPending);
        dropQueuedStrays(fd, *map);
        fillSource(src, srcLen);
        if (logical) *logical = d->logical;
        if (physical) *physical = d->physical;
        if (recvPort) *recvPort = d->recv;
        return ssize_t(delivered);
    }
    return fail(EAGAIN);
}

// ---- layer-2 sends ---------------------------------------------------------------------

// Writes the frame out of one port.
int sendOut(int fd, const l2frame::Egress& e, const l2frame::TxFrame& f, uint32_t vlan) {
    const auto hdr = l2frame::txHeader(e, f, vlan);
    if (!hdr) return fail(EINVAL);
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(hdr->tagged ? l2frame::kTpid : f.etherType);
    to.sll_ifindex = linuxIfIndexOf(fd, e.port->linuxName);
    to.sll_halen = 6;
    std::memcpy(to.sll_addr, f.macs.data(), 6);
    if (to.sll_ifindex == 0) return fail(ENODEV);
    iovec iov[2] = {{const_cast<uint8_t*>(hdr->bytes), hdr->len},
                    {const_cast<uint8_t*>(f.payload.data()), f.payload.size()}};
    msghdr msg{};
    msg.msg_name = &to;
    msg.msg_namelen = sizeof to;
    msg.msg_iov = iov;
    msg.msg_iovlen = 2;
    const ssize_t n = sendmsg(fd, &msg, 0);
    if (n < 0) return -1;
    return size_t(n) == hdr->len + f.payload.size() ? 0 : fail(EMSGSIZE);
}

// Sends on every egress of the plan; a failure on one does not stop the
// others. The whole length given when every port took the frame.
ssize_t sendAll(int fd, const l2frame::TxPlan& plan, size_t len) {
    int firstErr = 0;
    for (const l2frame::Egress& e : plan.egresses)
        if (sendOut(fd, e, plan.frame, plan.vlan) != 0 && firstErr == 0) firstErr = errno;
    return firstErr == 0 ? ssize_t(len) : fail(firstErr);
}

ssize_t l2Send(int fd, const SockState& st, qor::ByteView b, uint32_t egress) {
    const auto map = qorHostMapGet();
    const l2frame::LinkUp up = [fd](const std::string& name) { return linkUp(fd, name); };
    l2frame::TxPlan plan;
    const int err = st.kind == SockKind::Flood ? l2frame::planFlood(*map, st.vlanId, b, up, plan)
                                               : l2frame::planSend(*map, st.vlanId, b, egress, up, plan);
    if (err != 0) return fail(err);
    return sendAll(fd, plan, b.size());
}

int sendSocket(SockKind kind) {
    // The relay opens a flood socket for every flooded client message and
    // closes it after one send. Closing a packet socket waits for a kernel
    // grace period (milliseconds), so every caller gets a duplicate of one
    // send-only socket (protocol 0: it never queues a frame) and its close
    // only drops a reference. Per-socket state (the VLAN option) is kept by
    // descriptor, so duplicates do not share it.
    static std::mutex mu;
    static int shared = -1;
    int fd = -1;
    {
        std::lock_guard lock(mu);
        // Made again later if it could not be made (no CAP_NET_RAW yet).
        if (shared < 0) shared = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        if (shared >= 0) fd = fcntl(shared, F_DUPFD_CLOEXEC, 0);
    }
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
