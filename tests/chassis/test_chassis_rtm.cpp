// The RTM service as its client (the relay manager), the kernel and an
// operator see it: route updates become kernel routes in the VRF's table
// through the mapped Linux interface, and "clear ipv6 route dhcp" takes them
// out again and sends the client the clear-route message.
#include <arpa/inet.h>

#include "CliCommands.h"
#include "chassis_test_util.h"
#include "qor/ifm.h"
#include "qor/rtm.h"

namespace {

using namespace chassistest;

using Addr = std::array<uint8_t, 16>;

Addr addr(const char* text) {
    Addr a{};
    inet_pton(AF_INET6, text, a.data());
    return a;
}

class Rtm : public ChassisFixture {
protected:
    // Registers the relay manager's queue as an RTM client: its handle.
    uint32_t registerClient(PeerQueue& relay) {
        Bytes reg = message(132, QOR_MT_RTM_REGISTER, relay.id(), queueOf(QOR_APP_RTM, instance_));
        putWords(reg, 80, {23, 0xFFFF, 0, QOR_RTM_AF_IPV6});
        qor::putBytes(reg, 96, "Dhcpv6RelayMgr", 14);
        EXPECT_TRUE(request(QOR_APP_RTM, instance_, reg));
        EXPECT_EQ(qor::u32At(reg, QOR_IPC_OFF_STATUS), 0u);
        return qor::u32At(reg, 128);
    }
    // The next message that is not an acknowledgement.
    static std::optional<Bytes> nextMessage(PeerQueue& relay) {
        for (;;) {
            auto m = relay.recv();
            if (!m || qor::u32At(*m, QOR_IPC_OFF_TYPE) != MT_SWP_ACK) return m;
        }
    }
    std::string clear(const std::string& line) {
        CliSession session;
        session.instance = instance_;
        std::string out, err;
        return cliExecute(session, line, out, err) == 0 ? "" : err;
    }
};

struct ClearCase {
    const char* line;
    uint32_t all;
    uint8_t prefixLen;
    const char* prefix;
};

// What the client receives: an SWP message from the RTM's queue, numbered
// from 1, with its handle and address family, and the prefix as routed.
TEST_F(Rtm, OperatorsClearReachesTheClientAsTheClearRouteMessage) {
    ASSERT_EQ(startChassis(), 0);
    PeerQueue relay(QOR_APP_RELAYMGR, instance_);
    ASSERT_TRUE(relay.ok());
    const uint32_t handle = registerClient(relay);
    const ClearCase cases[] = {{"clear ipv6 route dhcp", 1, 0, "::"},
                               {"clear ipv6 route dhcp 2001:db8:1:ff::5/48", 0, 48, "2001:db8:1::"},
                               {"CLEAR IPV6 ROUTE DHCP 2001:db8:7::1/128", 0, 128, "2001:db8:7::1"}};
    uint32_t seq = 0;
    for (const ClearCase& c : cases) {
        ASSERT_EQ(clear(c.line), "") << c.line;
        const auto m = nextMessage(relay);
        ASSERT_TRUE(m.has_value()) << c.line;
        Bytes want(QOR_RTM_CLR_LEN, 0);
        putWords(want, 0, {++seq, queueOf(QOR_APP_RTM, instance_)});
        putWords(want, QOR_RTM_CLR_OFF_HANDLE, {handle, QOR_RTM_AF_IPV6});
        qor::putU32(want, QOR_RTM_CLR_OFF_ALL, c.all);
        qor::putU8(want, QOR_RTM_CLR_OFF_PREFIX_LEN, c.prefixLen);
        const Addr prefix = addr(c.prefix);
        qor::putBytes(want, QOR_RTM_CLR_OFF_PREFIX, prefix.data(), prefix.size());
        ASSERT_EQ(m->size(), want.size()) << c.line;
        EXPECT_EQ(qor::u32At(*m, QOR_IPC_OFF_TYPE), QOR_MT_RTM6_CLR_ROUTE) << c.line;
        EXPECT_EQ(qor::u32At(*m, QOR_IPC_OFF_DST_QUEUE), relay.id()) << c.line;
        EXPECT_TRUE(std::equal(want.begin(), want.begin() + 8, m->begin())) << c.line;
        EXPECT_TRUE(std::equal(want.begin() + QOR_CHASSIS_OFF_BODY, want.end(), m->begin() + QOR_CHASSIS_OFF_BODY))
            << c.line;
    }
    for (const char* bad : {"clear ipv6 route dhcp 2001:db8::/129", "clear ipv6 route dhcp 2001:db8::",
                            "clear ipv6 route dhcp 2001:db8::/48 extra"})
        EXPECT_NE(clear(bad), "") << bad;
    EXPECT_FALSE(relay.pending().has_value()) << "a refused line sends nothing";
}

// ---- in the kernel (root, network namespace) ---------------------------------------

struct RouteCase {
    const char* what;
    uint32_t op;
    uint32_t ifIndex;
    const char* prefix;
    uint8_t prefixLen;
    const char* via;
    const char* table;  // where `ip -6 route` must show it; null: nowhere after this update
    const char* shown;  // the route as `ip -6 route show table T` starts it
};

const uint32_t kE11 = ifmEthernetIfIndex(1, 1, 0), kE12 = ifmEthernetIfIndex(1, 2, 0);
const uint32_t kV10 = ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 10), kV20 = ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 20);

// Waits until `ip -6 route show table T` does (or does not) hold text.
bool routeShown(const std::string& table, const std::string& text, bool wanted) {
    for (int i = 0; i < 200; ++i) {
        const bool shown = shOut("ip -6 route show table " + table).find(text) != std::string::npos;
        if (shown == wanted) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

TEST_F(Rtm, RoutesReachTheKernelInTheVrfTableAndAClearTakesThemOut) {
    inNamespace([&] {
        sh("ip link add r0 type veth peer name r1 && ip link add r2 type veth peer name r3");
        sh("for l in r0 r1 r2 r3; do ip link set $l up; done");
        ASSERT_EQ(startWithMap("[vrf red]\nid = 1\ntable = 101\n"
                               "[interface ethernet 1/1]\nlinux = r0\nuntagged = 10\n"
                               "[interface vlan 10]\nlinux = r0\n"
                               "[interface ethernet 1/2]\nlinux = r2\nvrf = red\n"),
                  0);
        PeerQueue relay(QOR_APP_RELAYMGR, instance_);
        const uint32_t handle = registerClient(relay);
        const RouteCase cases[] = {
            {"through a VLAN", QOR_RTM_OP_ADD, kV10, "2001:db8:1::", 48, "fe80::11", "main",
             "2001:db8:1::/48 via fe80::11 dev r0 proto dhcp"},
            {"a longer one of the same prefix", QOR_RTM_OP_ADD, kV10, "2001:db8:1::", 56, "fe80::11", "main",
             "2001:db8:1::/56 via fe80::11 dev r0 proto dhcp"},
            {"host bits are masked", QOR_RTM_OP_ADD, kE11, "2001:db8:4::1", 64, "fe80::12", "main",
             "2001:db8:4::/64 via fe80::12 dev r0 proto dhcp"},
            {"in the VRF's table, global next hop", QOR_RTM_OP_ADD, kE12, "2001:db8:2::", 64, "2001:db8:ff::9", "101",
             "2001:db8:2::/64 via 2001:db8:ff::9 dev r2 proto dhcp"},
            {"prefix length above 128", QOR_RTM_OP_ADD, kV10, "2001:db8:3::", 129, "fe80::11", nullptr, "2001:db8:3::"},
            {"interface without a Linux link", QOR_RTM_OP_ADD, kV20, "2001:db8:5::", 48, "fe80::11", nullptr,
             "2001:db8:5::"},
            {"deleted", QOR_RTM_OP_DELETE, kE11, "2001:db8:4::", 64, "fe80::12", nullptr, "2001:db8:4::/64"},
        };
        uint32_t seq = 0;
        for (const RouteCase& c : cases) {
            Bytes m = message(QOR_RTM_UPD_OFF_ROUTES + QOR_RTM_ROUTE_LEN, QOR_MT_RTM_ROUTE_UPDATE, relay.id(),
                              queueOf(QOR_APP_RTM, instance_));
            putWords(m, 0, {++seq, relay.id()});
            putWords(m, QOR_RTM_UPD_OFF_OPERATION, {c.op, handle, 1, QOR_RTM_AF_IPV6});
            const size_t r = QOR_RTM_UPD_OFF_ROUTES;
            qor::putU16(m, r + QOR_RTM_ROUTE_OFF_KIND, QOR_RTM_ROUTE_KIND_UNICAST);
            qor::putU16(m, r + QOR_RTM_ROUTE_OFF_NHOP_COUNT, 1);
            qor::putU8(m, r + QOR_RTM_ROUTE_OFF_PREFIX_LEN, c.prefixLen);
            const Addr prefix = addr(c.prefix), via = addr(c.via);
            qor::putBytes(m, r + QOR_RTM_ROUTE_OFF_PREFIX, prefix.data(), 16);
            qor::putBytes(m, r + QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_ADDR, via.data(), 16);
            qor::putU32(m, r + QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_IFINDEX, c.ifIndex);
            ASSERT_TRUE(relay.send(m)) << c.what;
            const auto ack = relay.recv();  // every update is acknowledged
            ASSERT_TRUE(ack && qor::u32At(*ack, QOR_IPC_OFF_TYPE) == MT_SWP_ACK && qor::u32At(*ack, 0) == seq)
                << c.what;
            if (c.table)
                EXPECT_TRUE(routeShown(c.table, c.shown, true)) << c.what << "\n" << shOut("ip -6 route show table all");
            else
                EXPECT_TRUE(routeShown("all", c.shown, false)) << c.what << "\n" << shOut("ip -6 route show table all");
        }
        // One prefix: every length of it goes, the VRF's route stays.
        ASSERT_EQ(clear("clear ipv6 route dhcp 2001:db8:1::/48"), "");
        EXPECT_TRUE(routeShown("main", "2001:db8:1::", false));
        EXPECT_TRUE(routeShown("101", "2001:db8:2::/64", true));
        ASSERT_TRUE(nextMessage(relay).has_value());
        ASSERT_EQ(clear("clear ipv6 route dhcp"), "");
        EXPECT_TRUE(routeShown("all", "proto dhcp", false)) << shOut("ip -6 route show table all");
        ASSERT_TRUE(nextMessage(relay).has_value());
    });
}

}  // namespace
