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
#include <sys/mman.h>
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
#include "qor/evtlog.h"
#include "qor/l2frame.h"

namespace {

namespace l2frame = qor::l2frame;

// ---- descriptors made here and what they were told ---------------------------------

enum class SockKind { Protocol, Send, Flood, Other };

struct SockState {
    SockKind kind = SockKind::Other;
    uint32_t vlanId = 0;                // QOR_SO_L2_VLAN; 0: the frame's own tag
    std::optional<QorIpv6Addr> source;  // QOR_IPV6_SRC_INTF's address
    std::optional<uint32_t> mark;       // SO_MARK as last read or set here
};

class Sockets {
public:
    void add(int fd, SockKind kind) {
        std::lock_guard lock(mu_);
        socks_[fd] = SockState{kind, 0, std::nullopt, std::nullopt};
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
    // Only for descriptors made here: another one's number may be closed and
    // reused without this layer knowing.
    std::optional<uint32_t> mark(int fd) {
        std::lock_guard lock(mu_);
        const auto it = socks_.find(fd);
        return it == socks_.end() ? std::nullopt : it->second.mark;
    }
    void setMark(int fd, std::optional<uint32_t> mark) {
        std::lock_guard lock(mu_);
        const auto it = socks_.find(fd);
        if (it != socks_.end()) it->second.mark = mark;
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

// ---- Linux interfaces by name ------------------------------------------------------------
// Answered from the interface cache; a name or index it does not know yet
// is asked of the kernel through a descriptor of the caller's namespace.

std::string linuxNameOf(int fd, int linuxIfIndex) {
    std::string name = qorLinuxNameOfIndex(linuxIfIndex);
    if (!name.empty()) return name;
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
    if (const int index = qorLinuxIndexOfName(name); index != 0) return index;
    ifreq req{};
    if (!fillIfName(req, name) || ioctl(fd, SIOCGIFINDEX, &req) != 0) return 0;
    return req.ifr_ifindex;
}

bool linkUp(int fd, const std::string& name) {
    auto flags = qorLinuxIntfFlags(name);
    if (!flags) {
        ifreq req{};
        if (!fillIfName(req, name) || ioctl(fd, SIOCGIFFLAGS, &req) != 0) return false;
        flags = unsigned(req.ifr_flags);
    }
    return (*flags & IFF_UP) != 0 && (*flags & IFF_RUNNING) != 0;
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

// The protocol socket's receive ring: the kernel writes each accepted frame
// into a slot this process maps, so taking a frame, and looking whether the
// next one is a stray, cost no system call; select() reports the socket
// readable while the newest slot holds a frame not yet given back. A slot
// holds a jumbo frame, more than the daemon's buffer takes; 256 slots, as
// many frames as the 2 MB queue of a socket without a ring.
constexpr unsigned kRingFrameSize = 16384;
constexpr unsigned kRingFramesPerBlock = 4;
constexpr unsigned kRingBlocks = 64;

struct RxRing {
    uint8_t* base = nullptr;
    size_t bytes = 0;
    unsigned frames = 0;
    unsigned next = 0;  // the slot the next frame is taken from

    tpacket2_hdr* slot() const { return reinterpret_cast<tpacket2_hdr*>(base + size_t(next) * kRingFrameSize); }
    // The next slot when the kernel has handed it a frame.
    tpacket2_hdr* ready() const {
        tpacket2_hdr* h = slot();
        return (__atomic_load_n(&h->tp_status, __ATOMIC_ACQUIRE) & TP_STATUS_USER) != 0 ? h : nullptr;
    }
    void release() {
        __atomic_store_n(&slot()->tp_status, uint32_t(TP_STATUS_KERNEL), __ATOMIC_RELEASE);
        next = (next + 1) % frames;
    }
};

class Rings {
public:
    void add(int fd, RxRing ring) {
        std::lock_guard lock(mu_);
        rings_[fd] = ring;
    }
    // Stable while the descriptor is open: only qorClose removes it.
    RxRing* find(int fd) {
        std::lock_guard lock(mu_);
        const auto it = rings_.find(fd);
        return it == rings_.end() ? nullptr : &it->second;
    }
    bool anyReady() {
        std::lock_guard lock(mu_);
        return std::any_of(rings_.begin(), rings_.end(), [](const auto& r) { return r.second.ready() != nullptr; });
    }
    void erase(int fd) {
        std::lock_guard lock(mu_);
        const auto it = rings_.find(fd);
        if (it == rings_.end()) return;
        munmap(it->second.base, it->second.bytes);
        rings_.erase(it);
    }

private:
    std::mutex mu_;
    std::map<int, RxRing> rings_;
};

Rings& rings() {
    static Rings r;
    return r;
}

// Without a ring (a kernel that refuses one) frames are read with recvmsg.
std::optional<RxRing> mapRing(int fd) {
    const int version = TPACKET_V2;
    tpacket_req req{};
    req.tp_block_size = kRingFrameSize * kRingFramesPerBlock;
    req.tp_block_nr = kRingBlocks;
    req.tp_frame_size = kRingFrameSize;
    req.tp_frame_nr = kRingFramesPerBlock * kRingBlocks;
    if (setsockopt(fd, SOL_PACKET, PACKET_VERSION, &version, sizeof version) != 0 ||
        setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &req, sizeof req) != 0)
        return std::nullopt;
    RxRing ring;
    ring.bytes = size_t(req.tp_block_size) * req.tp_block_nr;
    void* base = mmap(nullptr, ring.bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
        tpacket_req none{};
        setsockopt(fd, SOL_PACKET, PACKET_RX_RING, &none, sizeof none);
        return std::nullopt;
    }
    ring.base = static_cast<uint8_t*>(base);
    ring.frames = req.tp_frame_nr;
    return ring;
}

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
        setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on) != 0) {
        const int err = errno;
        close(fd);
        return fail(err);
    }
    const std::optional<RxRing> ring = mapRing(fd);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&all), sizeof all) != 0) {
        const int err = errno;
        if (ring) munmap(ring->base, ring->bytes);
        close(fd);
        return fail(err);
    }
    if (ring) {
        rings().add(fd, *ring);
        // A frame in the ring: the loop will not wait, its events may wait for it.
        qorEvtSetInputProbe([] { return rings().anyReady(); });
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

// What the ring's slot tells of its frame, as readFrame learns it from
// recvmsg and its auxiliary data.
// The slot's kernel headers are copied out, as the auxiliary data is.
qor::ByteView ringFrame(int fd, const tpacket2_hdr* slotHdr, l2frame::RxMeta& meta) {
    const auto* slot = reinterpret_cast<const uint8_t*>(slotHdr);
    tpacket2_hdr h;
    std::memcpy(&h, slot, sizeof h);
    sockaddr_ll from{};
    std::memcpy(&from, slot + TPACKET_ALIGN(sizeof(tpacket2_hdr)), sizeof from);
    meta.metaTag = (h.tp_status & TP_STATUS_VLAN_VALID) != 0;
    meta.metaTci = h.tp_vlan_tci;
    meta.checksumPending = (h.tp_status & TP_STATUS_CSUMNOTREADY) != 0;
    if ((h.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) meta.metaTpid = h.tp_vlan_tpid;
    meta.outgoing = from.sll_pkttype == PACKET_OUTGOING;
    if (!meta.outgoing) meta.linuxName = linuxNameOf(fd, from.sll_ifindex);
    // The kernel keeps the frame inside its slot; checked all the same.
    const size_t mac = std::min<size_t>(h.tp_mac, kRingFrameSize);
    return qor::ByteView(slot + mac, std::min<size_t>(h.tp_snaplen, kRingFrameSize - mac));
}

// A bound on the frames one read drops, so the loop is never held here.
constexpr int kMaxFramesPerRead = 64;

// The ring's strays, given back to the kernel up to the next frame for the
// daemon.
void dropRingStrays(int fd, RxRing& ring, const QorHostMap& map) {
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        const tpacket2_hdr* h = ring.ready();
        if (h == nullptr) return;
        l2frame::RxMeta meta;
        const qor::ByteView frame = ringFrame(fd, h, meta);
        if (l2frame::classify(map, meta, frame)) return;
        ring.release();
    }
}

// One frame from the ring into buf, as readFrame reads it; -1 with EAGAIN
// when none waits.
ssize_t readRingFrame(int fd, RxRing& ring, uint8_t* buf, size_t len, l2frame::RxMeta& meta) {
    const tpacket2_hdr* h = ring.ready();
    if (h == nullptr) return fail(EAGAIN);
    const qor::ByteView frame = ringFrame(fd, h, meta);
    const size_t n = std::min(frame.size(), len);
    std::memcpy(buf, frame.data(), n);
    ring.release();
    return ssize_t(n);
}

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
    RxRing* ring = rings().find(fd);
    for (int i = 0; i < kMaxFramesPerRead; ++i) {
        l2frame::RxMeta meta;
        const ssize_t n = ring != nullptr
                              ? readRingFrame(fd, *ring, buf + l2frame::kRxLead, len - l2frame::kRxLead, meta)
                              : readFrame(fd, buf + l2frame::kRxLead, len - l2frame::kRxLead, 0, meta);
        if (n < 0) return -1;
        const size_t frameLen = std::min(size_t(n), len - l2frame::kRxLead);
        const auto d = l2frame::classify(*map, meta, out.subspan(l2frame::kRxLead, frameLen));
        if (!d) continue;
        const size_t delivered = l2frame::deliver(out, frameLen, *d, meta.checksumPending);
        if (ring != nullptr)
            dropRingStrays(fd, *ring, *map);
        else
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

// The relay opens a flood socket for every flooded client message and
// closes it after one send. Closing a packet socket waits for a kernel
// grace period (milliseconds), so every caller gets a duplicate of one
// send-only socket (protocol 0: it never queues a frame) and its close
// only drops a reference. A few closed duplicates are kept for the next
// callers, so a send socket opened and closed per message costs no system
// call. Per-socket state (the VLAN option) is kept by descriptor and
// cleared with it, so duplicates do not share it.
class SendSockets {
public:
    int open() {
        std::lock_guard lock(mu_);
        if (!spare_.empty()) {
            const int fd = spare_.back();
            spare_.pop_back();
            return fd;
        }
        // Made again later if it could not be made (no CAP_NET_RAW yet).
        if (shared_ < 0) shared_ = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
        return shared_ >= 0 ? fcntl(shared_, F_DUPFD_CLOEXEC, 0) : -1;
    }
    // False when the descriptor is to be closed after all.
    bool keep(int fd) {
        std::lock_guard lock(mu_);
        if (spare_.size() >= kSpares) return false;
        spare_.push_back(fd);
        return true;
    }

private:
    static constexpr size_t kSpares = 4;
    std::mutex mu_;
    int shared_ = -1;
    std::vector<int> spare_;
};

SendSockets& sendSockets() {
    static SendSockets s;
    return s;
}

int sendSocket(SockKind kind) {
    const int fd = sendSockets().open();
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
    // The relay sets the VRF before every send: the mark is read once and
    // remembered for a descriptor made here.
    std::optional<uint32_t> mark = sockets().mark(fd);
    if (!mark) {
        uint32_t current = 0;
        socklen_t markLen = sizeof current;
        if (getsockopt(fd, SOL_SOCKET, SO_MARK, &current, &markLen) != 0) return -1;
        mark = current;
        sockets().setMark(fd, mark);
    }
    // Marking needs CAP_NET_ADMIN; the default VRF on an unmarked socket does not.
    if (*mark == table) return 0;
    if (setsockopt(fd, SOL_SOCKET, SO_MARK, &table, sizeof table) != 0) return -1;
    sockets().setMark(fd, table);
    return 0;
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
    if (level == SOL_SOCKET && option == SO_MARK) sockets().setMark(fd, std::nullopt);  // read again
    return setsockopt(fd, level, option, value, socklen_t(len));
}

int qorClose(int fd) {
    const SockKind kind = sockets().get(fd).kind;
    sockets().erase(fd);
    rings().erase(fd);
    if ((kind == SockKind::Send || kind == SockKind::Flood) && sendSockets().keep(fd)) return 0;
    return close(fd);
}
