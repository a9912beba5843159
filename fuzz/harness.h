// harness.h -- what the fuzz targets share: exact-size copies, and the relay manager as each input finds it
// (recording platform stand-in, host map, helpers on VLAN 10 and on VLAN 20 in VRF red, the client DUID-LL
// 00:11:22:33:44:01 on ethernet 0/5 in VLAN 10 recorded by its Solicit 0x123456). After the input the daemon's
// own paths take the configuration down, and no block may be left behind or freed twice.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "fake.h"
#include "qor/dhcpv6pkt.h"
#include "qor/evtlog.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/mem.h"
#include "qor/task.h"
#include "qor/tlv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fz {

using Addr = std::array<uint8_t, 16>;

inline void check(bool ok, const char* what) { if (!ok) std::fprintf(stderr, "fuzz oracle: %s\n", what), std::abort(); }

// A heap copy of exactly len bytes (one when empty), so ASan stops any read past it.
inline std::unique_ptr<uint8_t[]> exactCopy(const uint8_t* src, size_t len) {
    auto buf = std::make_unique<uint8_t[]>(std::max<size_t>(len, 1));
    std::copy_n(src, len, buf.get());
    return buf;
}

inline bool inside(const uint8_t* p, size_t len, const uint8_t* base, size_t size) {
    return p >= base && len <= size && size_t(p - base) <= size - len;
}

constexpr uint32_t kAllDebug = DHCPV6_DBG_INIT | DHCPV6_DBG_VLAN | DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT |
                               DHCPV6_DBG_DETAIL | DHCPV6_DBG_SNOOP | DHCPV6_DBG_MRTM;
constexpr size_t kFrameIp6 = DHCPV6_L2_HDR_LEN, kFrameUdp = kFrameIp6 + 40, kFrameDhcp = kFrameUdp + 8;
constexpr uint8_t kRelayMac[6] = {0x02, 0x00, 0x5e, 0x10, 0x00, 0x01};
constexpr Addr db8(uint8_t group, uint8_t last) {  // 2001:db8:<group>::<last>
    return {0x20, 0x01, 0x0d, 0xb8, 0, group, 0, 0, 0, 0, 0, 0, 0, 0, 0, last};
}
constexpr Addr kServerAddr = db8(0xff, 2);
constexpr Addr kClientLinkLocal = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0x02, 0x11, 0x22, 0xff, 0xfe, 0x33, 0x44, 0x01};

inline uint32_t vlanIf(uint32_t vlan) { return ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, vlan); }
inline uint32_t portIf(uint32_t slot, uint32_t port) { return ifmEthernetIfIndex(slot, port, 0); }
inline uint32_t lagIf(uint32_t lag) { return ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, lag); }

// Made once: the run directory (removed at exit), the task, the loop's queues and sockets, the host map. The daemon's
// debug lines are formatted when switched on, and go nowhere.
struct Process {
    std::string runDir = "/tmp/dhcpv6-fuzz-XXXXXX", eventLog;
    dhcpv6RelayGlobal started{};
    QorHostMap map;
    Process() {
        check(mkdtemp(runDir.data()) != nullptr && std::freopen("/dev/null", "w", stdout) != nullptr, "run directory");
        qorSetRunDir(runDir.c_str());
        eventLog = qorEvtLogPath();
        qorTickSetManual(true);  // a retry loop waiting for the clock would hang the run
        qorPlatformSetIdentity(DHCPV6_RELAY_APP_ID, 0);
        dhcpv6RelayGlobalVar.taskKey = qorTaskStartup(0, nullptr, 0, 0);
        dhcpv6FdSet master{};
        int nfds = 0;
        check(dhcpv6RelayMgrVarInit(&master, &nfds) == 0 && dhcpv6RelayMgrCreateOutSockFd() == 0, "start-up");
        started = dhcpv6RelayGlobalVar;
        std::string err;
        check(qorHostMapParse("[system]\nchassis-mac = 02:00:5e:10:00:01\n[vrf red]\nid = 1\ntable = 101\n"
                              "[interface ethernet 0/5]\nlinux = veth-c1\nuntagged = 10\n[interface ethernet 0/6]\n"
                              "linux = veth-c2\ntagged = 10,20\n[interface ethernet 1/1]\nlinux = veth-s1\n"
                              "[interface ethernet 1/2]\nlinux = veth-l1\n[interface ethernet 1/3]\nlinux = veth-l2\n"
                              "[interface ethernet 1/4]\nlinux = veth-r1\nvrf = red\n[interface port-channel 3]\n"
                              "members = ethernet 1/2, ethernet 1/3\nuntagged = 20\n[interface vlan 10]\n"
                              "linux = veth-c1\n[interface vlan 20]\nlinux = veth-c2\nvrf = red\n"
                              "[interface management 1/0]\nlinux = eth0\n[interface pe-ethernet 1/0/5]\n"
                              "linux = veth-p1\nuntagged = 10\n", map, err) == 0,
              "host map refused");
    }
    ~Process() { std::error_code ec; std::filesystem::remove_all(runDir, ec); }
};
inline Process& process() { static Process p; return p; }

inline auto helperCmd(uint32_t ifIndex, const Addr& to, uint32_t vrfId, const char* vrf) {
    std::array<uint8_t, DHCPV6_RLY_MSG_LEN> m{};
    qor::putU32(m, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(m, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
    qor::putBytes(m, DHCPV6_RLY_OFF_VRF_NAME, vrf, std::strlen(vrf));
    qor::putBytes(m, DHCPV6_RLY_OFF_ADDR, to.data(), 16);
    qor::putU32(m, DHCPV6_RLY_OFF_VRF_ID, vrfId);
    return m;
}

// A DHCPv6 message in a frame as the protocol socket delivers it: MACs and VLAN tag, IPv6, UDP with its checksum.
inline std::vector<uint8_t> udpFrame(const std::array<uint8_t, 12>& macs, uint16_t vlan, const Addr& src,
                                     const Addr& dst, uint32_t ports, const uint8_t* msg, size_t msgLen) {
    std::vector<uint8_t> f(kFrameDhcp + msgLen, 0);
    qor::putBytes(f, 0, macs.data(), 12);
    qor::putU32(f, 12, 0x81000000u | vlan);
    qor::putU16(f, 16, 0x86DD);
    qor::putU32(f, kFrameIp6, 0x60000000);
    qor::putU32(f, kFrameIp6 + 4, uint32_t(8 + msgLen) << 16 | 17 << 8 | 255);
    qor::putBytes(f, kFrameIp6 + 8, src.data(), 16);
    qor::putBytes(f, kFrameIp6 + 24, dst.data(), 16);
    qor::putU32(f, kFrameUdp, ports);
    qor::putU16(f, kFrameUdp + 4, uint16_t(8 + msgLen));
    qor::putBytes(f, kFrameDhcp, msg, msgLen);
    qor::putU16(f, kFrameUdp + 6, dhcpv6_get_udp6_cksum(f.data() + kFrameIp6, f.data() + kFrameUdp));
    return f;
}

// The packet entry point on a buffer of exactly the frame's length; the buffer as the relay left it.
inline std::vector<uint8_t> relayFrame(qor::ByteView frame, uint32_t logical, uint32_t port, uint32_t physical) {
    auto buf = exactCopy(frame.data(), frame.size());
    dhcpv6RelayStart(buf.get(), uint32_t(frame.size()), logical, port, physical);
    return {buf.get(), buf.get() + frame.size()};
}

inline void bringUp() {
    dhcpv6RelayGlobalVar = process().started;
    dhcpv6RelayTimert = dhcpv6RelayTimers{};
    relayv6Head = nullptr;
    dhcpv6IsInitComplete = isL2McZero = chassisMacPresent = 0;
    dhcpv6RtmSeqNo = QOR_SWP_SEQ{};
    std::memset(dhcpv6AgtTbl, 0, sizeof dhcpv6AgtTbl);
    std::memset(dhcpv6SwAgtTbl, 0, sizeof dhcpv6SwAgtTbl);
    dhcpv6MsgOut = dhcpv6MsgPtrs{};
    std::memset(mac_addr, 0, sizeof mac_addr);
    qorHostMapInstall(process().map);
    // Global addresses on VLAN 10, the server-side port, port-channel 3 and the routed port in red; none on VLAN 20.
    struct Itf { uint32_t ifIndex; Addr global; int vrf; };
    for (const Itf& i : {Itf{vlanIf(10), db8(0x10, 1), 0}, Itf{vlanIf(20), {}, 1}, Itf{portIf(1, 1), db8(0xff, 1), 0},
                         Itf{lagIf(3), db8(0x30, 1), 0}, Itf{portIf(1, 4), db8(0x40, 1), 1}}) {
        nbsdIntfInfo info{i.ifIndex, i.global[0] != 0, {}, {}, uint32_t(i.vrf)};
        std::memcpy(info.ipv6Addr, i.global.data(), 16);
        std::memcpy(info.mac, kRelayMac, 6);
        qorfake::setIntfInfo(i.ifIndex, info);
        if (info.hasGlobalIpv6) qorfake::addLocalAddress(i.vrf, i.global.data());
    }
    qorfake::setChassisMac(kRelayMac);
    auto h10 = helperCmd(vlanIf(10), kServerAddr, 0, "default"), h20 = helperCmd(vlanIf(20), kServerAddr, 1, "red");
    check(dhcpv6RelayMgrMemInit() == 0 && dhcpv6SnoopingInit() == 0 && dhcpv6RelayTableInit() == 0 &&
              dhcpv6CreateIfmSwpQueue() == 0 && dhcpv6CreateAclSwpQueue() == 0 && dhcpv6RegWithMrtmIdx() == 0 &&
              dhcpv6RelayMgrRtmInit() == 0 && dhcpv6RlyHandle(h10) == 0 && dhcpv6RlyHandle(h20) == 0,
          "bring-up");
    static constexpr uint8_t kSolicit[] = {1, 0x12, 0x34, 0x56, 0, 1, 0, 10, 0, 3, 0, 1, 0x00, 0x11,  // Client Id
                                           0x22, 0x33, 0x44, 0x01, 0, 8, 0, 2, 0, 0,  // Elapsed Time
                                           0, 3, 0, 12, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0};  // IA_NA 1
    const auto solicit = udpFrame({0x33, 0x33, 0, 1, 0, 2, 0, 0x11, 0x22, 0x33, 0x44, 1}, 10, kClientLinkLocal,
                                  {0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 2}, 546 << 16 | 547, kSolicit,
                                  sizeof kSolicit);
    relayFrame(solicit, vlanIf(10), portIf(0, 5), portIf(0, 5));
    check(qorRadixGetNext(dhcpv6RelayGlobalVar.transTbl, nullptr, 0) != nullptr, "the Solicit was not recorded");
}

// What the peers get never runs past its own bytes: a datagram to a server is a Relay-Forward of whole options; a
// frame built for a client (not the received one passed on) has IPv6 and UDP lengths that say what it holds.
inline void checkSent(const std::vector<uint8_t>& received) {
    for (const qorfake::Sent& s : qorfake::sent()) {
        const std::vector<uint8_t>& d = s.bytes;
        if (s.dst.size() != QOR_L2_ADDR_LEN) {
            dhcpv6TlvCursor cursor(qor::ByteView(d).subspan(std::min<size_t>(d.size(), DHCPV6_RELAY_HDR_LEN)));
            dhcpv6Tlv opt;
            dhcpv6TlvStep step = dhcpv6TlvStep::Item;
            while (step == dhcpv6TlvStep::Item) step = cursor.next(opt);
            check(d.size() > DHCPV6_RELAY_HDR_LEN && d[0] == DHCPV6_RELAY_FORW && step == dhcpv6TlvStep::End,
                  "a Relay-Forward with a malformed option");
        } else if (received.empty() || d.size() < received.size() ||
                   !std::equal(received.begin(), received.end(), d.end() - std::ptrdiff_t(received.size()))) {
            const auto payload = uint16_t(d.size() - kFrameUdp);
            check(d.size() >= kFrameDhcp && qor::u16At(d, 16) == 0x86DD && d[kFrameIp6 + 6] == 17 &&
                      qor::u16At(d, kFrameIp6 + 4) == payload && qor::u16At(d, kFrameUdp + 4) == payload,
                  "a frame whose headers do not describe it");
        }
    }
}

inline void takeDown() {
    auto& g = dhcpv6RelayGlobalVar;
    g.srcIfSockFd = dhcpv6_debug_flag = 0;
    while (relayv6Head != nullptr) {
        const uint32_t ifIndex = relayv6Head->ifIndex;
        dhcpv6RelayDelIntHelper(ifIndex);
        dhcpv6RelayDelSrcInterface(ifIndex);
        check(relayv6Head == nullptr || relayv6Head->ifIndex != ifIndex, "an interface node outlives its helpers");
    }
    for (int q : {g.ifmSwpQueue, g.aclSwpQueue, g.rtmSwpQueue, g.mrtmSwpQueue})
        if (q != 0) qorSwpQueueRemove(q);
    // Entries left in a table go back to their pool, then the tables go.
    struct Table { QOR_RADIX_HANDLE* t; uint32_t bits; void (*release)(void*); };
    for (const Table& t : {Table{&g.transTbl, DHCPV6_TRANS_KEY_BITS, dhcpv6TransactionTblRadixFree},
                           Table{&g.leaseIpTbl, DHCPV6_LEASEIP_KEY_BITS, dhcpv6LeaseIpTblRadixFree},
                           Table{&g.snoopTbl, DHCPV6_SNOOP_KEY_BITS, dhcpv6RadixFree}}) {
        while (QOR_RADIX_NODE* n = *t.t != nullptr ? qorRadixGetNext(*t.t, nullptr, 0) : nullptr) {
            check(qorRadixRemove(*t.t, n->rnKey, t.bits) == n, "a table out of order");
            t.release(n);
        }
        if (*t.t != nullptr) qorRadixDestroy(*t.t);
        *t.t = nullptr;
    }
    dhcpv6SwRbtInitDeInit(0);
    for (const auto& b : qorMemLiveBlocks()) check(false, (b.unit + ":" + std::to_string(b.line) + " leaked").c_str());
    check(qorMemDoubleFreeCount() == 0, "a block was freed twice");
    qorfake::reset();
    qorMemReset();
    qorEvtSetSeverityLevel(g.evtLogHandle, 0x7F);  // the start-up mask, which a log-level command changes
    std::error_code ec;
    std::filesystem::resize_file(process().eventLog, 0, ec);
}

}  // namespace fz
