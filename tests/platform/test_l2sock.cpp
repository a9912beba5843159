// The packet layer on real interfaces: veth pairs in a network namespace of
// a forked child, the relay's ports on one end and a peer writing or
// capturing raw frames on the other. Needs root; skipped otherwise.
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

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "qor/bytes.h"
#include "qor/ha.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr int kSkipped = 77;

uint32_t ifIdx(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}
uint32_t vlanIf(uint32_t vid) { return ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, vid); }

void sh(const std::string& cmd) { ASSERT_EQ(std::system((cmd + " >/dev/null 2>&1").c_str()), 0) << cmd; }

// veth pairs "a<->b ..." , both ends up, no duplicate address detection.
void veths(std::initializer_list<std::pair<const char*, const char*>> pairs) {
    for (const auto& [a, b] : pairs) {
        sh(std::string("ip link add ") + a + " type veth peer name " + b);
        for (const char* end : {a, b}) {
            sh(std::string("sysctl -qw net.ipv6.conf.") + end + ".accept_dad=0");
            sh(std::string("ip link set ") + end + " up");
        }
    }
}

void installMap(const std::string& text) {
    QorHostMap map;
    std::string err;
    ASSERT_EQ(qorHostMapParse(text, map, err), 0) << err;
    qorHostMapInstall(std::move(map));
}

// A DHCPv6-shaped frame: multicast to All_DHCP_Relay_Agents_and_Servers,
// UDP from 546, a 4-byte marker as payload.
Bytes udpFrame(uint16_t vlan, uint16_t dport, uint32_t marker) {
    const size_t l2 = vlan != 0 ? 18 : 14;
    Bytes f(l2 + 40 + 8 + 4, 0);
    const qor::MutByteView b(f);
    const uint8_t macs[12] = {0x33, 0x33, 0, 1, 0, 2, 0x02, 0, 0, 0, 0, 0x99};
    qor::putBytes(b, 0, macs, sizeof macs);
    if (vlan != 0) qor::putU16(b, 12, ETH_P_8021Q), qor::putU16(b, 14, vlan);
    qor::putU16(b, l2 - 2, ETH_P_IPV6);
    qor::putU32(b, l2, 0x60000000);
    qor::putU16(b, l2 + 4, 12);             // payload length
    qor::putU8(b, l2 + 6, 17);              // UDP
    qor::putU8(b, l2 + 7, 255);
    qor::putU16(b, l2 + 8, 0xfe80), qor::putU16(b, l2 + 22, 0x99);
    qor::putU16(b, l2 + 24, 0xff02), qor::putU16(b, l2 + 36, 0x0001), qor::putU16(b, l2 + 38, 0x0002);
    qor::putU16(b, l2 + 40, 546);
    qor::putU16(b, l2 + 42, dport);
    qor::putU16(b, l2 + 44, 12);
    qor::putU32(b, l2 + 48, marker);
    return f;
}

// The one's-complement sum of a UDP datagram with its pseudo-header is all
// ones when its checksum is right.
bool udpChecksumRight(qor::ByteView ip) {
    const uint16_t udpLen = qor::u16At(ip, 44);
    uint32_t sum = 17 + uint32_t(udpLen);
    for (size_t i = 8; i < 40; i += 2) sum += qor::u16At(ip, i);
    for (size_t i = 0; i < udpLen; i += 2) sum += i + 1 < udpLen ? qor::u16At(ip, 40 + i) : uint32_t(ip[40 + i]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

// A client's own stack sending to the relays' multicast address on ifName.
void kernelSend(const char* ifName, uint32_t marker) {
    const int fd = socket(AF_INET6, SOCK_DGRAM, 0);
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(547);
    inet_pton(AF_INET6, "ff02::1:2", &to.sin6_addr);
    to.sin6_scope_id = if_nametoindex(ifName);
    const Bytes payload{uint8_t(marker >> 24), uint8_t(marker >> 16), uint8_t(marker >> 8), uint8_t(marker)};
    // The link-local address comes a moment after the link.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    bool sent = false;
    while (!sent && std::chrono::steady_clock::now() < deadline)
        sent = sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) == 4;
    EXPECT_TRUE(sent) << "cannot send on " << ifName << ": " << strerror(errno);
    close(fd);
}

bool waitReadable(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, ms) == 1;
}

// A raw socket on the far end of a link: what a client or a switch sees.
struct Peer {
    int fd = -1;
    explicit Peer(const std::string& ifName) {
        fd = socket(AF_PACKET, SOCK_RAW, htons(ETH_P_ALL));
        const int on = 1;
        setsockopt(fd, SOL_PACKET, PACKET_AUXDATA, &on, sizeof on);
        sockaddr_ll at{};
        at.sll_family = AF_PACKET;
        at.sll_protocol = htons(ETH_P_ALL);
        at.sll_ifindex = int(if_nametoindex(ifName.c_str()));
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&at), sizeof at), 0) << ifName;
    }
    ~Peer() { close(fd); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    void send(const Bytes& frame) const { EXPECT_EQ(::send(fd, frame.data(), frame.size(), 0), ssize_t(frame.size())); }

    struct Rx {
        int tag;  // the 802.1Q VLAN id, -1 untagged
        Bytes frame;
    };
    // The next frame that came in (outgoing copies skipped), within 5 s.
    std::optional<Rx> next() const {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (std::chrono::steady_clock::now() < deadline) {
            if (!waitReadable(fd, 100)) continue;
            Bytes buf(2048);
            sockaddr_ll from{};
            iovec iov{buf.data(), buf.size()};
            alignas(cmsghdr) uint8_t ctl[CMSG_SPACE(sizeof(tpacket_auxdata))];
            msghdr msg{&from, sizeof from, &iov, 1, ctl, sizeof ctl, 0};
            const ssize_t n = recvmsg(fd, &msg, 0);
            if (n <= 0 || from.sll_pkttype == PACKET_OUTGOING) continue;
            buf.resize(size_t(n));
            int tag = -1;
            for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
                if (c->cmsg_type != PACKET_AUXDATA) continue;
                tpacket_auxdata aux;
                std::memcpy(&aux, CMSG_DATA(c), sizeof aux);
                if (aux.tp_status & TP_STATUS_VLAN_VALID) tag = aux.tp_vlan_tci & 0xfff;
            }
            return Rx{tag, buf};
        }
        return std::nullopt;
    }
    // The markers (and tags) of the UDP frames received up to `sentinel`.
    std::vector<std::pair<uint32_t, int>> markersUntil(uint32_t sentinel) const {
        std::vector<std::pair<uint32_t, int>> seen;
        while (auto rx = next()) {
            const qor::ByteView f(rx->frame);
            if (qor::u16At(f, 12) != ETH_P_IPV6 || f.size() < 66 || f[20] != 17) continue;
            const uint32_t marker = qor::u32At(f, 62);
            if (marker == sentinel) return seen;
            seen.push_back({marker, rx->tag});
        }
        ADD_FAILURE() << "sentinel " << sentinel << " never arrived";
        return seen;
    }
};

class L2Sock : public ::testing::Test {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "needs root for network namespaces and packet sockets";
        if (std::system("ip -V >/dev/null 2>&1") != 0) GTEST_SKIP() << "needs iproute2 (ip)";
    }
    // Runs body in a forked child inside a fresh network namespace; the
    // child's failures print there and fail the test here.
    void inNamespace(const std::function<void()>& body) {
        std::fflush(stdout);
        const pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            if (unshare(CLONE_NEWNET) != 0) _exit(kSkipped);
            if (std::system("ip link set lo up") != 0) _exit(kSkipped);
            body();
            std::fflush(stdout);
            _exit(::testing::Test::HasFailure() ? 1 : 0);
        }
        int status = 0;
        ASSERT_EQ(waitpid(pid, &status, 0), pid);
        ASSERT_TRUE(WIFEXITED(status)) << "the child died by signal " << WTERMSIG(status);
        if (WEXITSTATUS(status) == kSkipped) GTEST_SKIP() << "cannot create a network namespace";
        EXPECT_EQ(WEXITSTATUS(status), 0) << "the namespace child failed (see above)";
    }
};

// What the protocol socket hands the daemon for each frame a client or a
// switch puts on a port: the link header with the frame's VLAN, the three
// interfaces, and nothing for frames that are not the relay's.
TEST_F(L2Sock, ProtocolSocketDeliversEachTrappedFrameOnceWithItsVlanAndInterfaces) {
    inNamespace([] {
        veths({{"p1", "q1"}, {"p2", "q2"}, {"p3", "q3"}, {"p4", "q4"}, {"m0", "qm"}, {"u0", "qu"}});
        // A bridge above the access port sees every frame a second time.
        sh("ip link add br10 type bridge");
        sh("ip link set p1 master br10");
        sh("ip link set br10 up");
        installMap("[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n"
                   "[interface ethernet 1/2]\nlinux = p2\ntagged = 20,30\n"
                   "[interface ethernet 1/3]\nlinux = p3\n"
                   "[interface ethernet 1/4]\nlinux = p4\n"
                   "[interface port-channel 3]\nmembers = ethernet 1/4\nuntagged = 40\n"
                   "[interface management 1/0]\nlinux = m0\n");
        const int fd = qorSocket(AF_QORL2, QOR_SOCK_RAW, QOR_L2_PROTO_DHCPV6);
        ASSERT_GE(fd, 0) << strerror(errno);
        const uint8_t addr[QOR_L2_ADDR_LEN] = {QOR_L2_ADDR_LEN, AF_QORL2};
        ASSERT_EQ(qorBind(fd, addr, sizeof addr), 0);

        const uint32_t e11 = ifIdx("ethernet 1/1"), e12 = ifIdx("ethernet 1/2"), e13 = ifIdx("ethernet 1/3"),
                       e14 = ifIdx("ethernet 1/4"), po3 = ifIdx("port-channel 3"), mgmt = ifIdx("management 1/0");
        struct Case {
            const char* peer;
            uint16_t tag, dport;
            bool delivered;
            uint16_t vlan;
            uint32_t logical, physical, recv;
        };
        const std::vector<Case> cases = {
            {"q1", 0, 547, true, 10, vlanIf(10), e11, e11},     // access port: its untagged VLAN
            {"q1", 0, 53, false, 0, 0, 0, 0},                               // not DHCPv6
            {"q2", 20, 546, true, 20, vlanIf(20), e12, e12},    // trunk: the frame's VLAN
            {"q2", 40, 547, false, 0, 0, 0, 0},                             // a VLAN the trunk does not carry
            {"q2", 0, 547, false, 0, 0, 0, 0},                              // a trunk without a native VLAN
            {"q3", 0, 547, true, 0, e13, e13, e13},             // routed port
            {"q3", 20, 547, false, 0, 0, 0, 0},                             // tagged on a routed port
            {"q4", 0, 547, true, 40, vlanIf(40), e14, po3},     // port-channel member
            {"qm", 0, 547, true, 0, mgmt, mgmt, mgmt},          // the daemon drops these itself
            {"qu", 0, 547, false, 0, 0, 0, 0},                              // not a mapped port
        };
        std::map<std::string, Peer> peers;
        for (const char* p : {"q1", "q2", "q3", "q4", "qm", "qu"}) peers.try_emplace(p, p);
        std::map<uint32_t, Bytes> sent;
        for (uint32_t i = 0; i < cases.size(); ++i) {
            sent[i] = udpFrame(cases[i].tag, cases[i].dport, i);
            peers.at(cases[i].peer).send(sent[i]);
        }
        constexpr uint32_t kFromStack = 500;  // its UDP checksum is left to the device
        kernelSend("q3", kFromStack);
        constexpr uint32_t kSentinel = 999;
        peers.at("q1").send(udpFrame(0, 547, kSentinel));  // its bridge copy is queued last

        // Read until the sentinel and every frame to deliver came.
        std::map<uint32_t, int> times;
        auto allCame = [&] {
            for (uint32_t i = 0; i < cases.size(); ++i)
                if (cases[i].delivered && times[i] == 0) return false;
            return times[kFromStack] == 1;
        };
        uint8_t buf[12000];
        for (bool sentinel = false; !sentinel || !allCame();) {
            ASSERT_TRUE(waitReadable(fd, 5000)) << "a frame to deliver never came";
            uint32_t logical = 0, physical = 0, recvPort = 0;
            unsigned srcLen = QOR_L2_ADDR_LEN;
            uint8_t src[QOR_L2_ADDR_LEN];
            const ssize_t n = qorRecvfrom4(fd, buf, sizeof buf, 0, src, &srcLen, &logical, &physical, &recvPort);
            ASSERT_GT(n, ssize_t(QOR_L2_HDR_LEN + 48)) << "a readable protocol socket gave no frame: " << strerror(errno);
            const qor::ByteView got(buf, size_t(n));
            const uint32_t marker = qor::u32At(got, 66);
            if (marker == kSentinel) {
                sentinel = true;
                continue;
            }
            if (marker == kFromStack) {
                ++times[marker];
                EXPECT_TRUE(udpChecksumRight(got.subspan(QOR_L2_HDR_LEN))) << "the checksum as on a wire";
                EXPECT_EQ(logical, e13);
                continue;
            }
            ASSERT_LT(marker, cases.size());
            ++times[marker];
            const Case& c = cases[marker];
            SCOPED_TRACE("frame " + std::to_string(marker) + " from " + c.peer);
            EXPECT_TRUE(c.delivered);
            EXPECT_EQ(qor::u16At(got, 12), 0x8100);
            EXPECT_EQ(qor::u16At(got, 14), c.vlan);
            EXPECT_EQ(qor::u16At(got, 16), 0x86DD);
            const Bytes& orig = sent[marker];
            const size_t l2 = c.tag != 0 ? 18 : 14;
            EXPECT_EQ(Bytes(got.begin(), got.begin() + 12), Bytes(orig.begin(), orig.begin() + 12)) << "MACs";
            EXPECT_EQ(Bytes(got.begin() + 18, got.end()), Bytes(orig.begin() + long(l2), orig.end())) << "IPv6 packet";
            EXPECT_EQ(logical, c.logical);
            EXPECT_EQ(physical, c.physical);
            EXPECT_EQ(recvPort, c.recv);
        }
        for (uint32_t i = 0; i < cases.size(); ++i)
            EXPECT_EQ(times[i], cases[i].delivered ? 1 : 0) << "frame " << i << " from " << cases[i].peer;
        // The daemon's loop reads whenever the socket is readable: a frame
        // that is not the daemon's must not leave it readable.
        if (waitReadable(fd, 200)) {
            EXPECT_GT(qorRecvfrom4(fd, buf, sizeof buf, 0, nullptr, nullptr, nullptr, nullptr, nullptr), 0)
                << "readable with no frame for the daemon";
        }
        qorClose(fd);
    });
}

// Frames the daemon sends: tagged only where the port carries the VLAN
// tagged, a port-channel through a member that is up, and a flood on every
// port of the VLAN but the one the packet came in on.
TEST_F(L2Sock, FramesLeaveTaggedOnlyOnTaggedPortsAndFloodsSkipTheIngress) {
    inNamespace([] {
        veths({{"p1", "q1"}, {"p2", "q2"}, {"p3", "q3"}, {"p4", "q4"}, {"p5", "q5"}, {"p6", "q6"}});
        sh("ip link set q5 down");  // the port-channel's first member has no link
        installMap("[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n"
                   "[interface ethernet 1/2]\nlinux = p2\ntagged = 10,20\n"
                   "[interface ethernet 1/3]\nlinux = p3\nuntagged = 10\n"
                   "[interface ethernet 1/4]\nlinux = p4\n"
                   "[interface ethernet 1/5]\nlinux = p5\n"
                   "[interface ethernet 1/6]\nlinux = p6\n"
                   "[interface port-channel 3]\nmembers = ethernet 1/5, ethernet 1/6\ntagged = 10\n");
        std::map<std::string, Peer> peers;
        for (const char* p : {"q1", "q2", "q3", "q4", "q6"}) peers.try_emplace(p, p);
        const int out = qorSocket(AF_QORL2, QOR_SOCK_RAW, 0);
        ASSERT_GE(out, 0) << strerror(errno);
        const uint8_t to[QOR_L2_ADDR_LEN] = {QOR_L2_ADDR_LEN, AF_QORL2};
        auto setVlan = [&](uint32_t vid) {
            const uint32_t words[5] = {vid != 0 ? 1u : 0u, 0, 0, vid, 0};
            ASSERT_EQ(qorSetsockopt(out, QOR_SOL_SOCKET, QOR_SO_L2_VLAN, words, sizeof words), 0);
        };
        auto send = [&](uint16_t tag, uint32_t marker, const char* egress) {
            const Bytes f = udpFrame(tag, 547, marker);
            return qorSendto(out, f.data(), f.size(), 0, to, sizeof to, ifIdx(egress)) == ssize_t(f.size());
        };
        struct Case {
            uint16_t headerTag, optionVlan;
            const char* egress;
            bool accepted;
        };
        const std::vector<Case> cases = {
            {10, 0, "ethernet 1/2", true},       // 0: q2 sees tag 10
            {0, 20, "ethernet 1/2", true},       // 1: the option's VLAN wins: tag 20
            {10, 0, "ethernet 1/1", true},       // 2: access port: untagged
            {0, 0, "ethernet 1/4", true},        // 3: routed port: untagged
            {10, 0, "port-channel 3", true},     // 4: out of ethernet 1/6, tagged
            {20, 0, "ethernet 1/1", false},      // 5: VLAN 20 is not on the access port
        };
        for (uint32_t i = 0; i < cases.size(); ++i) {
            setVlan(cases[i].optionVlan);
            EXPECT_EQ(send(cases[i].headerTag, i, cases[i].egress), cases[i].accepted) << "case " << i;
        }
        setVlan(0);

        // Flood of a client packet that came in on ethernet 1/1 in VLAN 10.
        const int flood = qorSocket(AF_QORL2, QOR_SOCK_RAW, QOR_L2_PROTO_FLOOD);
        ASSERT_GE(flood, 0);
        const Bytes frame = udpFrame(10, 547, 100);
        Bytes msg(QOR_L2_FLOOD_HDR_LEN + frame.size(), 0);
        qor::putU32(msg, 0, QOR_L2_FLOOD_CMD);
        qor::putU32(msg, 4, ifIdx("ethernet 1/1"));
        qor::putU32(msg, 8, 7);  // the forwarding plane's group: meaningless here
        qor::putU32(msg, 12, vlanIf(10));
        qor::putBytes(msg, QOR_L2_FLOOD_HDR_LEN, frame.data(), frame.size());
        EXPECT_EQ(qorSendto(flood, msg.data(), msg.size(), 0, to, sizeof to, 0), ssize_t(msg.size()));
        qorClose(flood);

        constexpr uint32_t kSentinel = 999;
        for (const char* e : {"ethernet 1/1", "ethernet 1/2", "ethernet 1/3", "ethernet 1/4", "port-channel 3"})
            EXPECT_TRUE(send(0, kSentinel, e)) << e;
        using Seen = std::vector<std::pair<uint32_t, int>>;
        EXPECT_EQ(peers.at("q1").markersUntil(kSentinel), (Seen{{2, -1}})) << "never flooded back to its ingress";
        EXPECT_EQ(peers.at("q2").markersUntil(kSentinel), (Seen{{0, 10}, {1, 20}, {100, 10}}));
        EXPECT_EQ(peers.at("q3").markersUntil(kSentinel), (Seen{{100, -1}}));
        EXPECT_EQ(peers.at("q4").markersUntil(kSentinel), (Seen{{3, -1}}));
        EXPECT_EQ(peers.at("q6").markersUntil(kSentinel), (Seen{{4, 10}, {100, 10}}));
        qorClose(out);
    });
}

std::string v6Text(const uint8_t* a) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, a, text, sizeof text);
    return text;
}

std::string hex(uint32_t v) {
    char text[12];
    snprintf(text, sizeof text, "%x", v);
    return text;
}

Bytes v6(const char* text) {
    Bytes a(16);
    EXPECT_EQ(inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

// The relay socket reaches a server only through the helper's VRF table and
// speaks from the source interface's address; the interface lookups answer
// from the mapped Linux interfaces.
TEST_F(L2Sock, RelaySocketSendsThroughTheVrfTableFromTheSourceInterface) {
    inNamespace([] {
        veths({{"r1", "s1"}, {"x1", "x2"}});
        sh("ip link set r1 address 02:00:00:00:01:01");
        sh("ip link set x1 address 02:00:00:00:07:01");
        sh("ip -6 addr add 2001:db8:1::1/64 dev r1");
        sh("ip -6 addr add 2001:db8:5::7/64 dev x1");
        // The server is reachable only in table 101; its neighbour entry is
        // fixed so the datagram leaves at once.
        sh("ip -6 route add 2001:db8:99::/64 dev r1 table 101");
        sh("ip -6 neigh add 2001:db8:99::5 lladdr 02:00:00:00:99:05 dev r1 nud permanent");
        installMap("[vrf red]\nid = 1\ntable = 101\n"
                   "[interface ethernet 1/1]\nlinux = r1\nvrf = red\n"
                   "[interface ethernet 1/7]\nlinux = x1\n");
        const Peer server("s1");
        const int fd = qorSocket(AF_INET6, SOCK_DGRAM, 0);
        ASSERT_GE(fd, 0);
        sockaddr_in6 any{};
        any.sin6_family = AF_INET6;
        any.sin6_port = htons(547);
        ASSERT_EQ(qorBind(fd, &any, sizeof any), 0) << strerror(errno);
        sockaddr_in6 to = any;
        std::memcpy(&to.sin6_addr, v6("2001:db8:99::5").data(), 16);
        const char payload[] = "\x0c relay-forward";
        auto sendVia = [&](uint32_t vrf) {
            if (qorSetsockopt(fd, QOR_SOL_SOCKET, QOR_SO_VRF, &vrf, sizeof vrf) != 0) return false;
            return qorSendto(fd, payload, sizeof payload, 0, &to, sizeof to, 0) == ssize_t(sizeof payload);
        };
        auto srcIntf = [&](uint32_t ifIndex) {
            const uint32_t words[5] = {ifIndex, 0, 0, 0, 0};
            return qorSetsockopt(fd, QOR_IPPROTO_IPV6, QOR_IPV6_SRC_INTF, words, sizeof words);
        };
        // The source of the next datagram the server sees.
        auto serverSeesFrom = [&]() -> std::string {
            while (auto rx = server.next()) {
                const qor::ByteView f(rx->frame);
                if (qor::u16At(f, 12) == ETH_P_IPV6 && f.size() > 62 && f[20] == 17 && qor::u16At(f, 56) == 547)
                    return v6Text(f.data() + 22);
            }
            return "nothing";
        };

        EXPECT_FALSE(sendVia(0)) << "the main table has no route to the server";
        EXPECT_FALSE(sendVia(9)) << "a VRF the host map does not know";
        ASSERT_EQ(srcIntf(ifIdx("ethernet 1/7")), 0);
        EXPECT_TRUE(sendVia(1)) << strerror(errno);
        EXPECT_EQ(serverSeesFrom(), "2001:db8:5::7");
        ASSERT_EQ(srcIntf(0), 0);
        EXPECT_TRUE(sendVia(1));
        EXPECT_EQ(serverSeesFrom(), "2001:db8:1::1");
        EXPECT_NE(srcIntf(ifIdx("ethernet 1/9")), 0) << "an unmapped source interface";
        // A restarted daemon finds its rule already there.
        const pid_t again = fork();
        if (again == 0) {
            const uint32_t red = 1;
            _exit(qorSetsockopt(qorSocket(AF_INET6, SOCK_DGRAM, 0), QOR_SOL_SOCKET, QOR_SO_VRF, &red, 4) == 0 ? 0 : 1);
        }
        int status = -1;
        waitpid(again, &status, 0);
        EXPECT_EQ(status, 0) << "the VRF option in a second process";
        EXPECT_EQ(std::system("test $(ip -6 rule | grep -c 'fwmark 0x65 lookup 101') = 1"), 0) << "one rule";

        // Datagrams to port 547 are never queued on the relay socket.
        const int client = socket(AF_INET6, SOCK_DGRAM, 0);
        sockaddr_in6 self = any;
        self.sin6_addr = in6addr_loopback;
        ASSERT_EQ(sendto(client, "x", 1, 0, reinterpret_cast<sockaddr*>(&self), sizeof self), 1);
        char sink[8];
        EXPECT_EQ(recv(fd, sink, sizeof sink, MSG_DONTWAIT), -1);
        close(client);
        qorClose(fd);

        nbsdIntfInfo info{};
        auto infoOf = [&](const char* port) { return nbsdGetIntfInfoForName(("QORS" + hex(ifIdx(port))).c_str(), &info); };
        ASSERT_EQ(infoOf("ethernet 1/7"), 1);
        EXPECT_EQ(info.hasGlobalIpv6, 1);
        EXPECT_EQ(v6Text(info.ipv6Addr), "2001:db8:5::7") << "the global address, not the link-local one";
        EXPECT_EQ(Bytes(info.mac, info.mac + 6), (Bytes{2, 0, 0, 0, 7, 1}));
        ASSERT_EQ(infoOf("ethernet 1/1"), 1);
        EXPECT_EQ(info.vrfId, 1u);
        EXPECT_EQ(infoOf("ethernet 1/9"), 0) << "not mapped";
        EXPECT_EQ(nbsdGetIntfInfoForName("QORSxyz", &info), 0);

        sh("ip -6 addr add 2001:db8:1::2/64 dev r1");  // after the first lookups
        const std::tuple<const char*, int, int> ours[] = {
            {"2001:db8:1::1", 1, 1}, {"2001:db8:1::1", 0, 0} /* another VRF's */, {"2001:db8:5::7", 0, 1},
            {"2001:db8:99::5", 1, 0} /* the server's */, {"2001:db8:1::2", 1, 1}};
        for (const auto& [addr, vrf, answer] : ours)
            EXPECT_EQ(nbsdGetIntfInfoFromIpv6Addr(v6(addr).data(), vrf), answer) << addr << " in VRF " << vrf;

        uint8_t mac[6];
        ASSERT_EQ(qorHaGetChassisMacAddr(mac), 0);
        EXPECT_EQ(Bytes(mac, mac + 6), (Bytes{2, 0, 0, 0, 1, 1})) << "the first port's MAC";
    });
}

}  // namespace
