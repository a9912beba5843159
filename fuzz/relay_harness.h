// relay_harness.h -- the relay manager as the packet fuzz targets (relay_start,
// relay_reply) find it before each frame: started on the recording platform
// stand-in, with a host map installed, a helper address on VLAN 10 and one on
// VLAN 20 in VRF red, the interface addresses, the tables made, and one client
// (DUID-LL 00:11:22:33:44:01 on ethernet 0/5 in VLAN 10) already recorded by
// its Solicit. After the frame, what was sent is checked the way a server or
// a client would read it, the configuration is taken down through the
// daemon's own paths and no block may be left behind.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "fake.h"
#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"
#include "qor/evtlog.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"
#include "qor/mem.h"
#include "qor/radix.h"
#include "qor/swp.h"
#include "qor/task.h"
#include "qor/tlv.h"

namespace relayfuzz {

using Addr = std::array<uint8_t, 16>;
using Mac = std::array<uint8_t, 6>;

constexpr uint32_t kAllDebug = DHCPV6_DBG_INIT | DHCPV6_DBG_VLAN | DHCPV6_DBG_EVENT |
                               DHCPV6_DBG_PKT | DHCPV6_DBG_DETAIL | DHCPV6_DBG_SNOOP |
                               DHCPV6_DBG_MRTM;
constexpr uint32_t kStartupSeverityMask = 0x7F;
constexpr size_t kFrameIp6 = DHCPV6_L2_HDR_LEN;
constexpr size_t kFrameUdp = kFrameIp6 + 40;
constexpr size_t kFrameDhcp = kFrameUdp + 8;

constexpr Mac kRelayMac = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
constexpr Mac kClientMac = {0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
constexpr Mac kServerMac = {0x02, 0xaa, 0x00, 0x00, 0x00, 0x02};
constexpr Addr kVlan10Addr = {0x20, 0x01, 0x0d, 0xb8, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr Addr kServerSideAddr = {0x20, 0x01, 0x0d, 0xb8, 0, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr Addr kServerAddr = {0x20, 0x01, 0x0d, 0xb8, 0, 0xff, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
constexpr Addr kLagAddr = {0x20, 0x01, 0x0d, 0xb8, 0, 0x30, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr Addr kRedAddr = {0x20, 0x01, 0x0d, 0xb8, 0, 0x40, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
constexpr Addr kClientLinkLocal = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x01};
constexpr Addr kAllDhcp = {0xff, 0x02, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2};

constexpr const char* kHostMap = R"([system]
chassis-mac = 02:00:5e:10:00:01
[vrf red]
id = 1
table = 101
[interface ethernet 0/5]
linux = veth-c1
untagged = 10
[interface ethernet 0/6]
linux = veth-c2
tagged = 10,20
[interface ethernet 1/1]
linux = veth-s1
[interface ethernet 1/2]
linux = veth-l1
[interface ethernet 1/3]
linux = veth-l2
[interface ethernet 1/4]
linux = veth-r1
vrf = red
[interface port-channel 3]
members = ethernet 1/2, ethernet 1/3
untagged = 20
[interface vlan 10]
linux = veth-c1
[interface vlan 20]
linux = veth-c2
vrf = red
[interface management 1/0]
linux = eth0
[interface pe-ethernet 1/0/5]
linux = veth-p1
untagged = 10
)";

inline uint32_t vlanIf(uint32_t vlan) { return ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, vlan); }
inline uint32_t portIf(uint32_t slot, uint32_t port) { return ifmEthernetIfIndex(slot, port, 0); }
inline uint32_t lagIf(uint32_t lag) { return ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, lag); }

[[noreturn]] inline void harnessFailure(const char* what) {
    std::fprintf(stderr, "relay harness: %s\n", what);
    std::abort();
}

// ---- the process, made once --------------------------------------------------------

class RunDir {
public:
    RunDir() {
        char tmpl[] = "/tmp/dhcpv6-fuzz-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) path_ = tmpl;
    }
    ~RunDir() {
        std::error_code ec;
        if (!path_.empty()) std::filesystem::remove_all(path_, ec);
    }
    RunDir(const RunDir&) = delete;
    RunDir& operator=(const RunDir&) = delete;
    const std::string& path() const { return path_; }

private:
    std::string path_;
};

struct Process {
    std::string eventLog;
    dhcpv6RelayGlobal started{};  // the global record with the loop's queues and sockets
    QorHostMap map;
    int devNull = -1;
};

inline Process& process() {
    static RunDir runDir;
    static Process* p = [] {
        if (runDir.path().empty()) harnessFailure("no run directory");
        auto* made = new Process;
        qorSetRunDir(runDir.path().c_str());
        made->eventLog = qorEvtLogPath();
        qorTickSetManual(true);  // nothing may wait for the clock
        qorPlatformSetIdentity(DHCPV6_RELAY_APP_ID, 0);
        dhcpv6RelayGlobalVar = dhcpv6RelayGlobal{};
        dhcpv6RelayGlobalVar.taskKey = qorTaskStartup(0, nullptr, 0, 0);
        dhcpv6FdSet master{};
        int nfds = 0;
        if (dhcpv6RelayMgrVarInit(&master, &nfds) != 0 || dhcpv6RelayMgrCreateOutSockFd() != 0)
            harnessFailure("start-up failed");
        made->started = dhcpv6RelayGlobalVar;
        std::string err;
        if (qorHostMapParse(kHostMap, made->map, err) != 0) {
            std::fprintf(stderr, "relay harness: host map: %s\n", err.c_str());
            std::abort();
        }
        made->devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        return made;
    }();
    return *p;
}

// ---- state built for every frame -----------------------------------------------------

inline void resetDaemonGlobals() {
    dhcpv6RelayGlobalVar = process().started;
    dhcpv6RelayTimert = dhcpv6RelayTimers{};
    relayv6Head = nullptr;
    dhcpv6_debug_flag = 0;
    dhcpv6IsInitComplete = 0;
    isL2McZero = 0;
    dhcpv6RtmSeqNo = QOR_SWP_SEQ{};
    std::memset(dhcpv6AgtTbl, 0, sizeof dhcpv6AgtTbl);
    std::memset(dhcpv6SwAgtTbl, 0, sizeof dhcpv6SwAgtTbl);
    dhcpv6MsgOut = dhcpv6MsgPtrs{};
    std::memset(mac_addr, 0, sizeof mac_addr);
    chassisMacPresent = 0;
}

inline nbsdIntfInfo intfInfo(uint32_t ifIndex, const Addr* global, uint32_t vrfId) {
    nbsdIntfInfo info{};
    info.ifIndex = ifIndex;
    info.hasGlobalIpv6 = global != nullptr ? 1 : 0;
    if (global != nullptr) std::memcpy(info.ipv6Addr, global->data(), 16);
    std::memcpy(info.mac, kRelayMac.data(), kRelayMac.size());
    info.vrfId = vrfId;
    return info;
}

// What the interfaces of the host map hold on Linux: VLAN 10, the server-side
// port, port-channel 3 and the routed port in VRF red have global addresses;
// VLAN 20 has none.
inline void setInterfaces() {
    qorfake::setIntfInfo(vlanIf(10), intfInfo(vlanIf(10), &kVlan10Addr, 0));
    qorfake::setIntfInfo(vlanIf(20), intfInfo(vlanIf(20), nullptr, 1));
    qorfake::setIntfInfo(portIf(1, 1), intfInfo(portIf(1, 1), &kServerSideAddr, 0));
    qorfake::setIntfInfo(lagIf(3), intfInfo(lagIf(3), &kLagAddr, 0));
    qorfake::setIntfInfo(portIf(1, 4), intfInfo(portIf(1, 4), &kRedAddr, 1));
    for (const Addr* a : {&kVlan10Addr, &kServerSideAddr, &kLagAddr})
        qorfake::addLocalAddress(0, a->data());
    qorfake::addLocalAddress(1, kRedAddr.data());
    qorfake::setChassisMac(kRelayMac.data());
}

inline std::array<uint8_t, DHCPV6_RLY_MSG_LEN> helperCmd(uint32_t ifIndex, const Addr& server,
                                                         uint32_t vrfId, const char* vrfName) {
    std::array<uint8_t, DHCPV6_RLY_MSG_LEN> m{};
    qor::putU32(m, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(m, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
    qor::putBytes(m, DHCPV6_RLY_OFF_VRF_NAME, vrfName, std::strlen(vrfName));
    qor::putBytes(m, DHCPV6_RLY_OFF_ADDR, server.data(), server.size());
    qor::putU32(m, DHCPV6_RLY_OFF_VRF_ID, vrfId);
    return m;
}

// A DHCPv6 message in a frame as the protocol socket delivers it: link
// header, IPv6, UDP with the checksum the datagram should carry.
inline std::vector<uint8_t> udpFrame(const Mac& dstMac, const Mac& srcMac, uint16_t vlan,
                                     const Addr& src, const Addr& dst, uint16_t srcPort,
                                     uint16_t dstPort, const uint8_t* msg, size_t msgLen) {
    std::vector<uint8_t> f(kFrameDhcp + msgLen, 0);
    qor::putBytes(f, 0, dstMac.data(), dstMac.size());
    qor::putBytes(f, 6, srcMac.data(), srcMac.size());
    qor::putU16(f, 12, 0x8100);
    qor::putU16(f, 14, vlan);
    qor::putU16(f, 16, 0x86DD);
    qor::putU32(f, kFrameIp6, 0x60000000);
    qor::putU16(f, kFrameIp6 + 4, uint16_t(8 + msgLen));
    qor::putU8(f, kFrameIp6 + 6, 17);
    qor::putU8(f, kFrameIp6 + 7, 255);
    qor::putBytes(f, kFrameIp6 + 8, src.data(), src.size());
    qor::putBytes(f, kFrameIp6 + 24, dst.data(), dst.size());
    qor::putU16(f, kFrameUdp, srcPort);
    qor::putU16(f, kFrameUdp + 2, dstPort);
    qor::putU16(f, kFrameUdp + 4, uint16_t(8 + msgLen));
    qor::putBytes(f, kFrameDhcp, msg, msgLen);
    const uint16_t sum = dhcpv6_get_udp6_cksum(f.data() + kFrameIp6, f.data() + kFrameUdp);
    qor::putU16(f, kFrameUdp + 6, sum);
    return f;
}

// The recorded client's Solicit: transaction 0x123456, DUID-LL, Elapsed Time, IA_NA 1.
inline std::vector<uint8_t> clientSolicit() {
    static constexpr uint8_t kSolicit[] = {
        1, 0x12, 0x34, 0x56,
        0, 1, 0, 10, 0, 3, 0, 1, 0x00, 0x11, 0x22, 0x33, 0x44, 0x01,  // Client Identifier
        0, 8, 0, 2, 0, 0,                                             // Elapsed Time
        0, 3, 0, 12, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0,              // IA_NA 1
    };
    return udpFrame({0x33, 0x33, 0, 1, 0, 2}, kClientMac, 10, kClientLinkLocal, kAllDhcp, 546, 547,
                    kSolicit, sizeof kSolicit);
}

// Stdout goes nowhere while the daemon prints its debug lines.
class QuietStdout {
public:
    explicit QuietStdout(bool on) : saved_(on ? dup(STDOUT_FILENO) : -1) {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(process().devNull, STDOUT_FILENO);
    }
    ~QuietStdout() {
        if (saved_ < 0) return;
        std::fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
    }
    QuietStdout(const QuietStdout&) = delete;
    QuietStdout& operator=(const QuietStdout&) = delete;

private:
    int saved_;
};

// Hands a frame to the packet entry point from a buffer of exactly its
// length, as the loop does with what it received.
inline uint32_t relayFrame(const uint8_t* frame, size_t length, uint32_t logical, uint32_t recvPort,
                           uint32_t physical, uint32_t debug, std::vector<uint8_t>* after = nullptr) {
    auto buf = std::make_unique<uint8_t[]>(length == 0 ? 1 : length);
    if (length != 0) std::memcpy(buf.get(), frame, length);
    uint32_t rc = 0;
    {
        QuietStdout quiet(debug != 0);
        dhcpv6_debug_flag = debug;
        rc = dhcpv6RelayStart(buf.get(), uint32_t(length), logical, recvPort, physical);
        dhcpv6_debug_flag = 0;
    }
    if (after != nullptr) after->assign(buf.get(), buf.get() + length);
    return rc;
}

inline void bringUp() {
    resetDaemonGlobals();
    qorHostMapInstall(process().map);
    setInterfaces();
    if (dhcpv6RelayMgrMemInit() != 0 || dhcpv6SnoopingInit() != 0 ||
        dhcpv6RelayTableInit() != 0 || dhcpv6CreateIfmSwpQueue() != 0 ||
        dhcpv6CreateAclSwpQueue() != 0 || dhcpv6RegWithMrtmIdx() != 0 ||
        dhcpv6RelayMgrRtmInit() != 0)
        harnessFailure("bring-up failed");
    auto h10 = helperCmd(vlanIf(10), kServerAddr, 0, "default");
    auto h20 = helperCmd(vlanIf(20), kServerAddr, 1, "red");
    if (dhcpv6RlyHandle(h10) != 0 || dhcpv6RlyHandle(h20) != 0)
        harnessFailure("helper addresses not configured");
    const auto solicit = clientSolicit();
    if (relayFrame(solicit.data(), solicit.size(), vlanIf(10), portIf(0, 5), portIf(0, 5), 0) != 0 ||
        dhcpv6RelayGlobalVar.transTbl == nullptr ||
        qorRadixGetNext(dhcpv6RelayGlobalVar.transTbl, nullptr, 0) == nullptr)
        harnessFailure("the client's Solicit was not recorded");
}

// ---- what the peers see --------------------------------------------------------------

// A Relay-Forward as a server parses it: the relay header and then whole
// options, the first of them the Relay-Message.
inline void checkRelayForward(const std::vector<uint8_t>& d) {
    if (d.size() < DHCPV6_RELAY_HDR_LEN || d[0] != DHCPV6_RELAY_FORW)
        harnessFailure("a datagram to a server that is no Relay-Forward");
    dhcpv6TlvCursor cursor(qor::ByteView(d).subspan(DHCPV6_RELAY_HDR_LEN));
    dhcpv6Tlv opt;
    dhcpv6TlvStep step = cursor.next(opt);
    if (step != dhcpv6TlvStep::Item || opt.code != DHCPV6_OPTION_RELAY_MSG)
        harnessFailure("a Relay-Forward that does not start with its Relay-Message");
    while (step == dhcpv6TlvStep::Item) step = cursor.next(opt);
    if (step != dhcpv6TlvStep::End) harnessFailure("a Relay-Forward with a malformed option");
}

// A frame the relay built for a client: its IPv6 and UDP lengths say what the
// frame holds and its checksum is right.
inline void checkBuiltFrame(const std::vector<uint8_t>& f) {
    if (f.size() < kFrameDhcp) harnessFailure("a frame shorter than its headers");
    const auto payload = uint16_t(f.size() - kFrameUdp);
    if (qor::u16At(f, 16) != 0x86DD || (f[kFrameIp6] >> 4) != 6 || f[kFrameIp6 + 6] != 17 ||
        qor::u16At(f, kFrameIp6 + 4) != payload || qor::u16At(f, kFrameUdp + 4) != payload)
        harnessFailure("a frame whose headers do not describe it");
    std::vector<uint8_t> copy = f;
    const uint16_t stored = qor::u16At(f, kFrameUdp + 6);
    if (dhcpv6_get_udp6_cksum(copy.data() + kFrameIp6, copy.data() + kFrameUdp) != stored)
        harnessFailure("a frame with a wrong UDP checksum");
}

inline bool endsWith(const std::vector<uint8_t>& b, const std::vector<uint8_t>& tail) {
    return !tail.empty() && b.size() >= tail.size() &&
           std::equal(tail.begin(), tail.end(), b.end() - std::ptrdiff_t(tail.size()));
}

// Datagrams (an IPv6 socket address) go to servers; frames (the 16-byte
// link-layer address) go to clients, either built by the relay or the
// received frame passed on unchanged (flooded, or forwarded in its VLAN).
inline void checkSent(const std::vector<uint8_t>& received, size_t sentBefore) {
    const auto all = qorfake::sent();
    for (size_t i = sentBefore; i < all.size(); ++i) {
        const qorfake::Sent& s = all[i];
        if (s.dst.size() != QOR_L2_ADDR_LEN)
            checkRelayForward(s.bytes);
        else if (!endsWith(s.bytes, received))
            checkBuiltFrame(s.bytes);
    }
}

// ---- after the frame -------------------------------------------------------------------

// The entries a frame left in a table go back to their pool.
inline void emptyTable(QOR_RADIX_HANDLE table, uint32_t keyBits, void (*release)(void*)) {
    if (table == nullptr) return;
    while (QOR_RADIX_NODE* n = qorRadixGetNext(table, nullptr, 0)) {
        if (qorRadixRemove(table, n->rnKey, keyBits) != n) harnessFailure("a table out of order");
        release(n);
    }
}

inline void takeDown() {
    auto& g = dhcpv6RelayGlobalVar;
    dhcpv6_debug_flag = 0;
    g.srcIfSockFd = 0;
    while (relayv6Head != nullptr) {
        const uint32_t ifIndex = relayv6Head->ifIndex;
        dhcpv6RelayDelIntHelper(ifIndex);
        dhcpv6RelayDelSrcInterface(ifIndex);
        if (relayv6Head != nullptr && relayv6Head->ifIndex == ifIndex)
            harnessFailure("an interface node outlives its helpers");
    }
    for (int q : {g.ifmSwpQueue, g.aclSwpQueue, g.rtmSwpQueue, g.mrtmSwpQueue})
        if (q != 0) qorSwpQueueRemove(q);
    emptyTable(g.transTbl, DHCPV6_TRANS_KEY_BITS, dhcpv6TransactionTblRadixFree);
    emptyTable(g.leaseIpTbl, DHCPV6_LEASEIP_KEY_BITS, dhcpv6LeaseIpTblRadixFree);
    emptyTable(g.snoopTbl, DHCPV6_SNOOP_KEY_BITS, [](void* block) {
        qorMC_M_memBlockFree("fuzz_relay", __LINE__, DHCPV6_BINDING_POOL, block);
    });
    for (QOR_RADIX_HANDLE* t : {&g.transTbl, &g.leaseIpTbl, &g.snoopTbl}) {
        if (*t != nullptr) qorRadixDestroy(*t);
        *t = nullptr;
    }
    dhcpv6SwRbtInitDeInit(0);
    const auto live = qorMemLiveBlocks();
    for (const auto& b : live)
        std::fprintf(stderr, "left behind: %s:%d (pool 0x%x, %zu bytes)\n", b.unit.c_str(), b.line,
                     unsigned(b.poolId), b.size);
    if (!live.empty()) harnessFailure("blocks left behind");
    if (qorMemDoubleFreeCount() != 0) harnessFailure("a block was freed twice");
    qorfake::reset();
    qorMemReset();
    qorEvtSetSeverityLevel(g.evtLogHandle, kStartupSeverityMask);
    std::error_code ec;  // no file yet when nothing was logged
    std::filesystem::resize_file(process().eventLog, 0, ec);
}

}  // namespace relayfuzz
