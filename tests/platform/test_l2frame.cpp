// The packet layer: which frames the daemon is handed and as what, where a
// frame it sends or floods leaves, and, on veth pairs in a network namespace
// (root only), that frames not for the daemon never reach it.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <net/if.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2frame.h"
#include "qor/l2sock.h"

namespace {

namespace l2 = qor::l2frame;
using Bytes = std::vector<uint8_t>;

QorHostMap parseMap(const std::string& text) {
    QorHostMap map;
    std::string err;
    EXPECT_EQ(qorHostMapParse(text, map, err), 0) << err;
    return map;
}

uint32_t ifIdx(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}

// A client's UDP datagram to the relays' multicast address: `marker` then
// 0xA5 up to `payloadLen` bytes, checksum 0x1234 (what a device would
// overwrite), an inline tag with priority bits unless tag < 0, then `padding` zeros.
Bytes clientFrame(int tag, size_t payloadLen, size_t padding = 0, uint16_t dport = 547, uint32_t marker = 0) {
    const size_t l2Len = tag >= 0 ? 18 : 14, udpLen = 8 + payloadLen;
    Bytes f(l2Len + 40 + udpLen + padding, 0);
    const qor::MutByteView b(f);
    const uint8_t macs[12] = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0x11, 0x22, 0x33, 0x44, 0x01};
    qor::putBytes(b, 0, macs, sizeof macs);
    if (tag >= 0) qor::putU16(b, 12, 0x8100), qor::putU16(b, 14, uint16_t(0xE000 | tag));
    qor::putU16(b, l2Len - 2, 0x86DD), qor::putU32(b, l2Len, 0x60000000);
    qor::putU16(b, l2Len + 4, uint16_t(udpLen)), qor::putU8(b, l2Len + 6, 17), qor::putU8(b, l2Len + 7, 1);
    qor::putU16(b, l2Len + 8, 0xfe80), qor::putU16(b, l2Len + 22, 0x4401);                        // fe80::4401
    qor::putU16(b, l2Len + 24, 0xff02), qor::putU8(b, l2Len + 37, 1), qor::putU8(b, l2Len + 39, 2);  // ff02::1:2
    qor::putU16(b, l2Len + 40, 546), qor::putU16(b, l2Len + 42, dport);
    qor::putU16(b, l2Len + 44, uint16_t(udpLen)), qor::putU16(b, l2Len + 46, 0x1234);
    for (size_t i = 0; i < payloadLen; ++i) f[l2Len + 48 + i] = 0xA5;
    qor::putU32(b, l2Len + 48, marker);
    return f;
}

// The one's-complement sum of a UDP datagram with its pseudo-header is all ones when its checksum is right.
bool udpChecksumRight(qor::ByteView ip) {
    const size_t end = 40 + qor::u16At(ip, 44);
    uint32_t sum = 17 + uint32_t(end - 40);
    for (size_t i = 8; i < end; i += 2) sum += i + 1 < end ? qor::u16At(ip, i) : uint32_t(ip[i]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

const char* const kMap =
    "[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n[interface ethernet 1/2]\nlinux = p2\ntagged = 10,20\n"
    "[interface ethernet 1/3]\nlinux = p3\n[interface ethernet 1/4]\nlinux = p4\n[interface ethernet 1/5]\nlinux = p5\n"
    "[interface port-channel 3]\nmembers = ethernet 1/4, ethernet 1/5\ntagged = 10\n"
    "[interface management 1/0]\nlinux = m0\n[interface vlan 10]\nlinux = br10\n"
    "[interface ethernet 2/1]\nuntagged = 10\n";  // a port with no Linux interface here

// A frame handed over wrongly is relayed for the wrong VLAN or port, or
// carries padding or a stale checksum into the relayed message.
TEST(L2FrameRx, DaemonIsHandedTheLinkHeaderAndTheIpv6PacketOnly) {
    const QorHostMap map = parseMap(kMap);
    const struct {
        const char* arrival;
        int tag;          // < 0: untagged
        uint16_t tpid;    // 0: the tag inline, else in the metadata with this TPID
        size_t payloadLen, padding;
        bool pending;     // UDP checksum left to the device
        size_t bufLen;
        const char *logical, *physical, *recv;  // logical null: not delivered
        uint16_t vlan;
        size_t ipLen;     // of the IPv6 packet handed over
    } rows[] = {
        {"p1", -1, 0, 5, 9, false, 2048, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 53},  // padding dropped
        {"p1", -1, 0, 5, 0, true, 2048, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 53},   // odd datagram's checksum
        {"p1", -1, 0, 1, 7, true, 2048, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 49},
        {"p1", -1, 0, 100, 0, true, 90, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 72},  // cut: checksum left
        {"p1", 0, 0, 4, 0, false, 2048, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 52},  // priority-tagged
        {"p1", 0, 0x8100, 4, 0, false, 2048, "vlan 10", "ethernet 1/1", "ethernet 1/1", 10, 52},
        {"p1", 10, 0, 4, 0, false, 60, nullptr, nullptr, nullptr, 0, 0},  // shorter than IPv6 and UDP headers
        {"p2", 20, 0, 4, 0, false, 2048, "vlan 20", "ethernet 1/2", "ethernet 1/2", 20, 52},
        {"p2", 20, 0x8100, 4, 0, false, 2048, "vlan 20", "ethernet 1/2", "ethernet 1/2", 20, 52},
        {"p2", 20, 0x88A8, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0},  // 802.1ad
        {"p2", 30, 0, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0},       // a VLAN the trunk does not carry
        {"p2", -1, 0, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0},       // a trunk without a native VLAN
        {"p3", -1, 0, 4, 0, false, 2048, "ethernet 1/3", "ethernet 1/3", "ethernet 1/3", 0, 52},  // routed
        {"p3", 20, 0, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0},       // tagged on a routed port
        {"p4", 10, 0, 4, 0, false, 2048, "vlan 10", "ethernet 1/4", "port-channel 3", 10, 52},
        {"m0", -1, 0, 4, 0, false, 2048, "management 1/0", "management 1/0", "management 1/0", 0, 52},
        {"br10", -1, 0, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0},     // a bridge's copy
        {"", -1, 0, 4, 0, false, 2048, nullptr, nullptr, nullptr, 0, 0}};        // the interface's name gone
    for (size_t row = 0; row < std::size(rows); ++row) {
        const auto& r = rows[row];
        SCOPED_TRACE("row " + std::to_string(row) + " from " + r.arrival);
        const Bytes sent = clientFrame(r.tpid != 0 ? -1 : r.tag, r.payloadLen, r.padding);
        Bytes buf(r.bufLen);  // as the socket reads: at kRxLead, cut to the buffer
        const size_t frameLen = std::min(sent.size(), r.bufLen - l2::kRxLead);
        qor::putBytes(buf, l2::kRxLead, sent.data(), frameLen);
        l2::RxMeta meta{r.arrival, false, r.tpid != 0, uint16_t(0xA000 | r.tag), r.tpid, r.pending};
        const auto d = l2::classify(map, meta, qor::ByteView(buf).subspan(l2::kRxLead, frameLen));
        ASSERT_EQ(d.has_value(), r.logical != nullptr);
        if (!d) continue;
        EXPECT_EQ((std::vector{d->logical, d->physical, d->recv}),
                  (std::vector{ifIdx(r.logical), ifIdx(r.physical), ifIdx(r.recv)}));
        meta.outgoing = true;
        EXPECT_FALSE(l2::classify(map, meta, qor::ByteView(buf).subspan(l2::kRxLead, frameLen))) << "our own copy";
        const size_t n = l2::deliver(buf, frameLen, *d, r.pending);
        ASSERT_EQ(n, QOR_L2_HDR_LEN + r.ipLen);
        const qor::ByteView got(buf.data(), n), ip = got.subspan(QOR_L2_HDR_LEN);
        EXPECT_EQ(Bytes(got.begin(), got.begin() + 12), Bytes(sent.begin(), sent.begin() + 12)) << "MACs";
        EXPECT_EQ((std::vector{qor::u16At(got, 12), qor::u16At(got, 14), qor::u16At(got, 16)}),
                  (std::vector<uint16_t>{0x8100, r.vlan, 0x86DD})) << "the VLAN id alone, without priority bits";
        const size_t ipAt = r.tag >= 0 && r.tpid == 0 ? 18 : 14;
        Bytes expected(sent.begin() + long(ipAt), sent.begin() + long(ipAt + r.ipLen));
        const bool whole = r.ipLen == 48 + r.payloadLen;  // a cut datagram's checksum is left as it came
        EXPECT_TRUE(!whole || udpChecksumRight(ip) == r.pending) << "the checksum as on a wire";
        if (whole && r.pending) qor::putU16(expected, 46, qor::u16At(ip, 46));
        EXPECT_EQ(Bytes(ip.begin(), ip.end()), expected);
    }
}

// A frame the daemon sends must leave by the right ports, tagged only where
// the port carries its VLAN tagged, a flood never back to where it came from.
TEST(L2FrameTx, FramesLeaveByThePortsOfTheirVlanTaggedOnlyWhereCarriedTagged) {
    const QorHostMap map = parseMap(kMap);
    const struct {
        bool flood;
        const char* port;   // the egress of a send, the ingress of a flood
        uint32_t optionVlan;
        int tag;            // of the frame (a flood header's VLAN interface too)
        std::string down;   // Linux interfaces without link
        std::string out;    // the Linux interfaces, ".VLAN" when tagged, "!" when refused; or the errno
    } rows[] = {
        {true, "ethernet 1/4", 0, 10, "", "p1 p2.10"},     {true, "port-channel 3", 0, 10, "", "p1 p2.10"},
        {true, "ethernet 1/1", 0, 10, "", "p2.10 p4.10"},  {true, "ethernet 1/1", 0, 10, "p4", "p2.10 p5.10"},
        {true, "ethernet 1/2", 0, 10, "p4p5", "p1"},       {true, "ethernet 1/2", 20, 10, "", ""},
        {true, "ethernet 1/3", 0, -1, "", ""},             // a routed port has no VLAN to flood in
        {false, "ethernet 1/2", 20, 10, "", "p2.20"},      // the option's VLAN wins
        {false, "ethernet 1/1", 0, 10, "", "p1"},          {false, "ethernet 1/3", 0, -1, "", "p3"},
        {false, "port-channel 3", 0, 10, "p4", "p5.10"},   {false, "ethernet 1/1", 0, 20, "", "p1!"},
        {false, "vlan 10", 0, -1, "", "p1 p2.10 p4.10"},
        {false, "ethernet 1/9", 0, 10, "", "errno " + std::to_string(ENXIO)},
        {false, "port-channel 3", 0, 10, "p4p5", "errno " + std::to_string(ENETDOWN)}};
    for (const auto& r : rows) {
        SCOPED_TRACE(std::string(r.flood ? "flood from " : "send to ") + r.port);
        const Bytes frame = clientFrame(r.tag, 4);
        Bytes msg(QOR_L2_FLOOD_HDR_LEN + frame.size(), 0);
        qor::putU32(msg, 0, QOR_L2_FLOOD_CMD);
        qor::putU32(msg, 4, ifIdx(r.port));
        qor::putU32(msg, 12, r.tag > 0 ? ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, uint32_t(r.tag)) : 0);
        qor::putBytes(msg, QOR_L2_FLOOD_HDR_LEN, frame.data(), frame.size());
        const l2::LinkUp up = [&](const std::string& name) { return r.down.find(name) == std::string::npos; };
        l2::TxPlan plan;
        const int rc = r.flood ? l2::planFlood(map, r.optionVlan, msg, up, plan)
                               : l2::planSend(map, r.optionVlan, frame, ifIdx(r.port), up, plan);
        std::string out = rc != 0 ? "errno " + std::to_string(rc) : "";
        for (const l2::Egress& e : plan.egresses) {
            const auto hdr = l2::txHeader(e, plan.frame, plan.vlan);
            out += (out.empty() ? "" : " ") + e.port->linuxName;
            out += !hdr ? "!" : hdr->tagged ? "." + std::to_string(qor::u16At({hdr->bytes, hdr->len}, 14)) : "";
        }
        EXPECT_EQ(out, r.out);
    }
}

void sh(const std::string& cmd) { ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd; }

bool readable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// On real ports the protocol socket's filter and reads must keep every frame
// not for the daemon away, and leave the descriptor readable only for one
// that is: the daemon's loop reads whenever it is.
TEST(L2Sock, ProtocolSocketHandsOverTheDaemonsFramesOnceAndNothingElse) {
    if (geteuid() != 0 || std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs root and iproute2";
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {  // a fresh network namespace; failures print here and fail the test below
        if (unshare(CLONE_NEWNET) != 0) _exit(77);
        for (const std::string p : {"p1", "p2", "p3", "u0"}) {  // u0 is no mapped port
            const std::string q = "q" + p.substr(1);
            sh("ip link add " + p + " type veth peer name " + q + " && ip link set " + p + " up && ip link set " + q +
               " up && sysctl -qw net.ipv6.conf." + q + ".accept_dad=0");
        }
        sh("ip link add br10 type bridge && ip link set p1 master br10 && ip link set br10 up");  // a second copy
        qorHostMapInstall(parseMap(kMap));
        const int fd = qorSocket(AF_QORL2, QOR_SOCK_RAW, QOR_L2_PROTO_DHCPV6);
        const uint8_t addr[QOR_L2_ADDR_LEN] = {QOR_L2_ADDR_LEN, AF_QORL2};
        ASSERT_EQ(qorBind(fd, addr, sizeof addr), 0) << strerror(errno);
        // Frames a client or switch writes on the far end (port, tag, UDP port), the row their marker.
        const std::tuple<const char*, int, uint16_t> frames[] = {{"q1", -1, 547}, {"q1", -1, 53}, {"q2", 20, 546},
                                                                 {"q2", 30, 547}, {"q0", -1, 547}, {"q3", 5, 547},
                                                                 {"q1", -1, 547}};
        const uint32_t last = std::size(frames) - 1;
        for (uint32_t i = 0; i <= last; ++i) {
            const auto& [peer, tag, dport] = frames[i];
            const int raw = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
            sockaddr_ll at{};
            at.sll_family = AF_PACKET;
            at.sll_ifindex = int(if_nametoindex(peer));
            const Bytes f = clientFrame(tag, 4, 0, dport, i);
            EXPECT_EQ(sendto(raw, f.data(), f.size(), 0, reinterpret_cast<sockaddr*>(&at), sizeof at), long(f.size()));
            close(raw);
        }
        // Up to the last frame: each frame's marker and VLAN.
        std::map<uint32_t, uint16_t> got;
        for (uint8_t buf[2048]; !got.count(last);) {
            ASSERT_TRUE(readable(fd, 5000)) << "the last frame never came";
            const ssize_t n = qorRecvfrom4(fd, buf, sizeof buf, 0, nullptr, nullptr, nullptr, nullptr, nullptr);
            ASSERT_GE(n, 70) << "a readable protocol socket gave no frame: " << strerror(errno);
            EXPECT_TRUE(got.emplace(qor::u32At({buf, 70}, 66), qor::u16At({buf, 70}, 14)).second) << "twice";
        }
        EXPECT_EQ(got, (std::map<uint32_t, uint16_t>{{0, 10}, {2, 20}, {last, 10}}));
        EXPECT_FALSE(readable(fd, 200)) << "readable with no frame for the daemon";
        qorClose(fd);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "cannot create a network namespace";
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the namespace child failed (see above)";
}

}  // namespace
