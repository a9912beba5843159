// The relay as its peers see it where tests/e2e cannot reach: odd lengths, hop counts, ignored
// types, refusals, the Interface-IDs of a switch's port kinds, route elections and the sweep.
#include "qor/rtm.h"
#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using pkt::Bytes;

constexpr uint32_t kXid = 0x123456;
const pkt::Addr kClientLL = pkt::addr("fe80::c1");

Bytes solicit(const Bytes& duid, uint8_t type = 1) {
    return pkt::message(type, kXid, {pkt::option(1, duid), pkt::option(8, Bytes{0, 0})});
}
// A downstream relay's Relay-Forward of a Solicit.
Bytes relayed(uint8_t hop) {
    return pkt::relay(12, hop, pkt::addr("2001:db8:1::1"), kClientLL,
                      {pkt::option(9, solicit(pkt::duid(14, hop)))});
}
Bytes text(const char* t) { return Bytes(t, t + strlen(t)); }

class Relay : public PacketFixture {
protected:
    void bringUp() override {
        PacketFixture::bringUp();
        addHelper(vlan10, "2001:db8:ff::2");
        qorfake::addLocalAddress(0, kVlanAddr.data());
    }
};

// DECLINE and INFORMATION-REQUEST are kept out on purpose; type 12 here is no
// valid Relay-Forward and goes nowhere.
TEST_F(Relay, MessageTypesSortedIntoRelayedAnswersAndIgnored) {
    const Bytes client = {1, 3, 4, 5, 6, 8, 12}, server = {2, 7, 13};
    for (int t = 0; t < 256; ++t) {
        const bool c = std::count(client.begin(), client.end(), t) == 1,
                   s = std::count(server.begin(), server.end(), t) == 1;
        const size_t before = forwards().size();
        pkt::Frame f;
        f.payload = solicit(pkt::duid(14), uint8_t(t));
        const std::string out = debugOf(
            DHCPV6_DBG_PKT, [&] { EXPECT_EQ(receive(f.build(), vlan10, port1, port1), 0u) << t; });
        EXPECT_EQ(out.find("Packets from Client/Relay..\r") != std::string::npos, c) << t;
        EXPECT_EQ(out.find("Packets fromServer/Relay .. \r") != std::string::npos, s) << t;
        EXPECT_EQ(forwards().size() - before, c && t != 12 ? 1u : 0u) << t;
    }
}

// What the server receives of a client's or a downstream relay's message: the
// hop count one above the relay's up to 32, the message cut to its 8-bit
// length, a Remote-ID of zeros without a chassis MAC. A client that cannot be
// recorded is not relayed; on a VLAN without a global address it is recorded
// but not relayed. Intake refuses other ports, bad checksums, lying lengths.
TEST_F(Relay, ClientSideIntakeRelaysRecordsOrRefuses) {
    qorfake::setChassisMac(nullptr);
    std::memset(dhcpv6RelayGlobalVar.chassisMac, 0, 6);
    // clang-format off
    struct Row {
        const char* name;
        pkt::Frame frame = {};  // with a Solicit of its own client when it carries none
        bool sumsToOnes = false, management = false, globalAddr = true;
        size_t cut = 9999;
        int hop = 0;                            // of the Relay-Forward sent, -1: none
        bool recorded = true, refused = false;  // refused: -1, nothing recorded or sent
        const char* debug = "";  // printed under 0x110; when refused, "" = nothing at all
    } rows[] = {
        {.name = "duid 128", .frame = {.payload = solicit(pkt::duid(128))}, .debug = "Packets from Client/Relay..\r"},
        {.name = "duid 129", .frame = {.payload = solicit(pkt::duid(129))}, .hop = -1, .recorded = false,
         .debug = "DHCPV6_OPTION_CLIENTID length exceeds 128 bytes \r"},
        {.name = "300 bytes", .frame = {.payload = pkt::cat({solicit(pkt::duid(14, 99)), pkt::option(99, Bytes(268, 7))})}},
        {.name = "relay hop 31", .frame = {.payload = relayed(31)}, .hop = 32},
        {.name = "relay hop 32", .frame = {.payload = relayed(32)}, .hop = -1,
         .debug = "DHCPV6RelayMgr: dhcpv6 max hop count(32) is exceeded\r\n"},
        {.name = "no global address", .globalAddr = false, .hop = -1, .debug = "No helper address configured \r"},
        {.name = "port 546", .frame = {.dstPort = 546}},
        {.name = "port 548", .frame = {.dstPort = 548}, .refused = true},
        {.name = "port 545", .frame = {.dstPort = 545}, .refused = true},
        {.name = "management", .frame = {.checksum = 1}, .management = true, .hop = -1, .recorded = false,
         .debug = " Mgmt Interface.. Not processing dhcpv6 packet\r"},
        {.name = "sum 0 sent as FFFF", .sumsToOnes = true},
        {.name = "checksum 0", .frame = {.checksum = 0}, .refused = true, .debug = "Invalid Checksum.. Not processing dhcpv6 packet\r"},
        {.name = "udp over ipv6 length, FFFF", .frame = {.udpLenDelta = 1, .checksum = 0xFFFF}},
        {.name = "udp over ipv6 length", .frame = {.udpLenDelta = 1}, .refused = true, .debug = "Invalid Checksum"},
        {.name = "lengths past the frame", .frame = {.udpLenDelta = 40, .ip6LenDelta = 40}, .refused = true,
         .debug = "Invalid Checksum"},
        {.name = "cut in udp header", .cut = 65, .refused = true, .debug = "Udp header not present. Not our packet \r"}};
    // clang-format on
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        setIntf(vlan10, r.globalAddr ? &kVlanAddr : nullptr);
        pkt::Frame f = r.frame;
        if (f.payload.empty()) f.payload = solicit(pkt::duid(14, uint8_t(&r - rows)));
        if (r.sumsToOnes) {  // the elapsed time that makes the datagram sum to all ones
            std::copy_n(f.build().begin() + 64, 2, f.payload.end() - 2);
            f.checksum = 0xFFFF;
        }
        const Bytes wire = pkt::slice(f.build(), 0, r.cut);
        const size_t sent = forwards().size(), known = qorRadixCount(dhcpv6RelayGlobalVar.transTbl);
        uint32_t rc = 99;
        const std::string out = debugOf(DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT, [&] {
            rc = receive(wire, vlan10, port1, r.management ? ifIndexOf("management 1/0") : port1);
        });
        EXPECT_EQ(rc, r.refused ? uint32_t(-1) : 0u);
        EXPECT_EQ(qorRadixCount(dhcpv6RelayGlobalVar.transTbl), known + (r.recorded && !r.refused));
        EXPECT_TRUE(*r.debug ? out.find(r.debug) != std::string::npos : !r.refused || out.empty())
            << out;
        ASSERT_EQ(forwards().size() - sent, r.hop < 0 || r.refused ? 0u : 1u);
        if (r.hop < 0 || r.refused) continue;
        const auto opts = pkt::options(forwards().back().bytes, 34);
        EXPECT_EQ(forwards().back().bytes[1], r.hop);
        ASSERT_EQ(opts.size(), 3u);
        EXPECT_EQ(opts[0].second, pkt::slice(wire, 66, (wire.size() - 66) % 256));
        EXPECT_EQ(opts[2].second, pkt::cat({pkt::be32(DHCPV6_REMOTE_ID_ENTERPRISE),
                                            text("0:0:0:0:0:0"), Bytes(6, 0)}));
    }
    EXPECT_NE(eventLog().find("SOLICIT from fe80::c1 on vlan 10 relayed to servers"),
              std::string::npos);
}

struct PortCase {
    const char* name;
    const char *recv = "ethernet 1/1", *physical = nullptr, *interfaceId = "10:0:1:1";
    bool fourTuple = false;
    uint16_t vlan = 10;  // 0: a routed port
    uint8_t hop = 0;
    const char* replyId = nullptr;  // the Interface-ID the server returns, when not the relay's
    uint8_t duidSeed = 1;           // of the client the server answers
    const char* refusal = nullptr;  // what the relay says dropping the answer
};

class RoundTrip : public Relay, public ::testing::WithParamInterface<PortCase> {};

// A Solicit leaves with the Interface-ID of its port; the answer that carries
// it back reaches the client on that VLAN and port, to UDP 547 when the hop
// count says a relay is the peer. An answer that cannot be placed is dropped.
TEST_P(RoundTrip, AnswerReachesTheClientWhereItsSolicitCameFrom) {
    const auto& c = GetParam();
    installMap(c.fourTuple);
    const uint32_t recv = ifIndexOf(c.recv), logical = c.vlan ? vlan10 : recv;
    addHelper(logical, "2001:db8:ff::2");
    pkt::Frame in;
    in.vlan = c.vlan;
    in.payload = solicit(pkt::duid(14));
    ASSERT_EQ(receive(in.build(), logical, recv, c.physical ? ifIndexOf(c.physical) : recv), 0u);
    ASSERT_EQ(forwards().size(), 1u);
    const Bytes rf = forwards()[0].bytes, interfaceId = pkt::options(rf, 34).at(1).second;
    EXPECT_EQ(interfaceId, text(c.interfaceId));
    pkt::Addr link{};
    std::copy_n(rf.begin() + 2, 16, link.begin());
    // The server's Relay-Reply to the relay's address, the Advertise inside.
    const Bytes advertise = pkt::message(
        2, kXid, {pkt::option(1, pkt::duid(14, c.duidSeed)), pkt::option(2, pkt::duid(10, 9))});
    const Bytes id = c.replyId ? text(c.replyId) : interfaceId;
    pkt::Frame reply{
        .vlan = 0, .src = pkt::addr("2001:db8:ff::2"), .dst = kVlanAddr, .srcPort = 547};
    reply.payload =
        pkt::relay(13, c.hop, link, kClientLL, {pkt::option(18, id), pkt::option(9, advertise)});
    const std::string out = debugOf(DHCPV6_DBG_EVENT, [&] {
        EXPECT_EQ(receive(reply.build(), serverPort, serverPort, serverPort), 0u);
    });
    ASSERT_EQ(portSends().size(), c.refusal ? 0u : 1u);
    EXPECT_NE(out.find(c.refusal ? c.refusal : ""), std::string::npos) << out;
    if (c.refusal) return;
    EXPECT_EQ(portSends()[0].egressIfIndex, recv);
    const uint16_t port = c.hop ? 547 : 546;  // a relay's answer goes to its server port
    const pkt::Frame sent{in.srcMac, kRouterMac, c.vlan, link, kClientLL, 547, port, advertise};
    EXPECT_EQ(portSends()[0].bytes, sent.build());
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Relay, RoundTrip, ::testing::Values(
    PortCase{.name = "plain"},
    PortCase{.name = "for_a_relay", .hop = 1},
    PortCase{.name = "sub_port", .recv = "ethernet 1/2:3", .interfaceId = "10:0:1:2:3"},
    PortCase{.name = "four_part", .recv = "ethernet 1/7:2", .interfaceId = "10:0:1:2:3:2", .fourTuple = true},
    PortCase{.name = "four_part_plain", .interfaceId = "10:0:1:1:1", .fourTuple = true},
    PortCase{.name = "port_channel", .recv = "port-channel 3", .physical = "ethernet 1/4", .interfaceId = "10:3:1:4"},
    PortCase{.name = "port_extender", .recv = "pe-ethernet 0/1/5", .interfaceId = "10:0:49:1:5"},
    PortCase{.name = "routed_port", .recv = "ethernet 1/9", .interfaceId = "0:0:1:9", .vlan = 0},
    PortCase{.name = "id_without_fields", .replyId = "10",
             .refusal = "DHCPV6_OPTION_INTERFACE_ID option is not in correct format length:len [2:2]\r\n"},
    PortCase{.name = "unknown_client", .duidSeed = 77, .refusal = "No matching lease \r"},
    PortCase{.name = "other_interface", .replyId = "0:0:1:9", .refusal = " Interface Id doesnt match.. \r"},
    PortCase{.name = "no_card_in_slot", .replyId = "10:0:5:1",
             .refusal = "DHCPV6: cardType not present for slotId 5 \r\n"}),
    [](const auto& p) { return std::string(p.param.name); });
// clang-format on

// ---- delegated prefixes, their routes and the sweep ----------------------------------

const Bytes kDuid = pkt::duid(10);
const pkt::Addr kPrefixA = pkt::addr("2001:db8:100::"), kPrefixB = pkt::addr("2001:db8:200::");

// An IA_PD 1 (IAID, T1, T2) of the options given; an IA Prefix (lifetimes,
// length, prefix).
Bytes iaPd(std::initializer_list<Bytes> inner) {
    return pkt::option(25, pkt::cat({pkt::be32(1), Bytes(8, 0), pkt::cat(inner)}));
}
Bytes iaPrefix(int len, const pkt::Addr& prefix = kPrefixA, uint32_t valid = 3600) {
    const Bytes lifetimes = pkt::cat({pkt::be32(valid / 2), pkt::be32(valid)});
    return pkt::option(26, pkt::cat({lifetimes, Bytes(1, uint8_t(len)), pkt::bytes(prefix)}));
}

// A route as the RTM receives it: operation, length, prefix, next hop, interface.
using Rtm = std::tuple<int64_t, int, pkt::Addr, pkt::Addr, uint32_t>;
Rtm add(int len, const pkt::Addr& p = kPrefixA) {
    return {QOR_RTM_OP_ADD, len, p, kClientLL, vlanIf(10)};
}
Rtm del(int len) { return {QOR_RTM_OP_DELETE, len, kPrefixA, kClientLL, vlanIf(10)}; }

class Tables : public PacketFixture {
protected:
    uint32_t xid = 0x100;

    void bringUp() override {
        PacketFixture::bringUp();
        startTimerService();
        ASSERT_EQ(dhcpv6RelayMgrTimerInit(), 0);
        elapse(100);  // the sweep's clock taken at up-time 100, before any entry exists
        ASSERT_EQ(dhcpv6RelayMgrRtmInit(), 0);
    }
    // Seconds pass, then one sweep as the timer delivers it.
    static void elapse(uint32_t seconds) {
        qorTickAdvance(uint64_t(seconds) * sysClkRateGet());
        timerCancel(dhcpv6RelayTimert.transTimer);
        dhcpv6ProcTransDb(0, nullptr);
    }
    // The client's message through the relay, then the lease options of the
    // Reply that answers it (or of the Release itself) in a buffer of its size.
    int exchange(uint8_t type, const Bytes& options, uint32_t xidDelta = 0) {
        pkt::Frame f;
        f.dst = kVlanAddr;  // for the relay: nothing flooded
        f.payload = pkt::message(type == 7 ? 3 : type, ++xid, {pkt::option(1, kDuid)});
        EXPECT_EQ(receive(f.build(), vlan10, port1, port1), 0u);
        Bytes m = pkt::cat({pkt::message(type, xid + xidDelta, {pkt::option(1, kDuid)}), options});
        m.shrink_to_fit();
        return dhcpv6ProcClientLeaseOptions(vlan10, m.data(), uint32_t(m.size()), 0);
    }
    // The routes the RTM received, the fixed fields of each call and record checked.
    std::vector<Rtm> rtm() const {
        std::vector<Rtm> out;
        for (const auto& [name, ints, r] : qorfake::calls()) {
            if (name != "qorRtmUpdateRoute") continue;
            EXPECT_EQ(std::vector<int64_t>(ints.begin() + 2, ints.begin() + 6),
                      (std::vector<int64_t>{0, dhcpv6RelayGlobalVar.rtmSwpQueue, 1, 2}));
            EXPECT_EQ(pkt::cat({pkt::slice(r, 0, 12), pkt::slice(r, 32, 2)}),
                      (Bytes{0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 23, 0, 1}));  // owner 23, 1 next hop
            if (r.size() != QOR_RTM_ROUTE_LEN) continue;  // and missing from what is compared
            pkt::Addr prefix{}, nextHop{};
            std::copy_n(r.begin() + 64, 16, prefix.begin());
            std::copy_n(r.begin() + 80, 16, nextHop.begin());
            out.emplace_back(ints[1], r[43], prefix, nextHop, qor::u32At(r, 96));
        }
        return out;
    }
    // (prefix length, routed) of every lease, in key order.
    static std::vector<std::pair<int, int>> leases() {
        std::vector<std::pair<int, int>> out;
        auto* t = dhcpv6RelayGlobalVar.leaseIpTbl;
        for (auto* n = qorRadixGetNext(t, nullptr, 0); n;
             n = qorRadixGetNext(t, n->rnKey, DHCPV6_LEASEIP_KEY_BITS)) {
            const auto* e = reinterpret_cast<const dhcpv6LeaseIpEntry*>(n);
            out.emplace_back(int(qor::u32At(e->prefixLen, 0)), int(e->IsRouteAdded));
        }
        return out;
    }
};

struct Step {
    char what;  // S the client's Solicit, L a lease of A (a Reply), R its Release, T seconds
                // pass and a sweep runs, H a role change (1: primary)
    int value = 0;
    uint32_t valid = 3600;
};
struct RouteRow {
    const char* name;
    Bytes reply;  // the options of a Reply to the client before the steps
    std::vector<Step> steps;
    std::vector<Rtm> sent;
    std::vector<std::pair<int, int>> after;  // (length, routed) left in the table
    uint32_t xidDelta = 0;                   // of that Reply from the client's message
    bool remembered = true;                  // the client's transaction is left
};

class Routes : public Tables, public ::testing::WithParamInterface<RouteRow> {};

// Only the shortest lease of one client's prefix is routed, the RTM sees every
// change and a new primary sends the routes again. Only whole prefixes inside
// their IA_PD, in a Reply to the client's last message, become leases. Leases
// and clients expire on the primary only, a client 60 s after its last message.
TEST_P(Routes, OnlyTheShortestLeaseOfAPrefixIsRouted) {
    if (!GetParam().reply.empty()) exchange(7, GetParam().reply, GetParam().xidDelta);
    for (const Step& s : GetParam().steps) {
        if (s.what == 'T') {
            elapse(uint32_t(s.value));
        } else if (s.what == 'H') {
            auto m = typeMsg(MT_HA_CONTROL, 128);
            qorHaSetPrimary(s.value);
            dispatch(m);
        } else {
            const Bytes pd = s.what == 'S' ? Bytes{} : iaPd({iaPrefix(s.value, kPrefixA, s.valid)});
            ASSERT_EQ(exchange(s.what == 'S' ? 1 : s.what == 'L' ? 7 : 8, pd), 0);
        }
    }
    EXPECT_EQ(qorRadixCount(dhcpv6RelayGlobalVar.transTbl), GetParam().remembered ? 1u : 0u);
    EXPECT_EQ(rtm(), GetParam().sent);
    EXPECT_EQ(leases(), GetParam().after);
}

// An IA_PD whose length ends 5 bytes into its IA Prefix; those 5 bytes follow.
Bytes iaPrefixPastItsIaPd() {
    Bytes pd = pkt::cat({iaPd({iaPrefix(48)}), Bytes(5, 0xee)});
    qor::putU16(pd, 2, uint16_t(qor::u16At(pd, 2) - 5));
    return pd;
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Leases, Routes, ::testing::Values(
    RouteRow{"48_then_56", {}, {{'L', 48}, {'L', 56}}, {add(48)}, {{48, 1}, {56, 0}}},
    RouteRow{"56_then_48", {}, {{'L', 56}, {'L', 48}}, {add(56), del(56), add(48)}, {{48, 1}, {56, 0}}},
    RouteRow{"64_48_56", {}, {{'L', 64}, {'L', 48}, {'L', 56}}, {add(64), del(64), add(48)}, {{48, 1}, {56, 0}, {64, 0}}},
    RouteRow{"0_then_56", {}, {{'L', 0}, {'L', 56}}, {add(0)}, {{0, 1}, {56, 0}}},
    RouteRow{"refresh_sends_nothing_again", {}, {{'L', 48}, {'L', 48, 7200}}, {add(48)}, {{48, 1}}},
    RouteRow{"48_expires_56_takes_over", {}, {{'L', 48, 30}, {'L', 56}, {'T', 31}}, {add(48), del(48), add(56)}, {{56, 1}}},
    RouteRow{"48_released_nothing_routed", {}, {{'L', 48}, {'L', 56}, {'R', 48}}, {add(48), del(48)}, {{56, 0}}},
    RouteRow{"standby_keeps_expired_new_primary_resends", {}, {{'L', 48, 30}, {'L', 56}, {'H', 0}, {'T', 31}, {'H', 1},
             {'T', 30}}, {add(48), add(48), del(48), add(56)}, {{56, 1}}, 0, false},
    RouteRow{"client_remembered_59_s", {}, {{'S'}, {'T', 59}}, {}, {}},
    RouteRow{"client_forgotten_after_60_s", {}, {{'S'}, {'T', 60}}, {}, {}, 0, false},
    RouteRow{"standby_keeps_expired_client", {}, {{'S'}, {'H', 0}, {'T', 60}, {'H', 1}, {'T', 59}}, {}, {}},
    RouteRow{"two_prefixes", iaPd({iaPrefix(48), iaPrefix(56, kPrefixB)}), {}, {add(48), add(56, kPrefixB)}, {{48, 1}, {56, 1}}},
    RouteRow{"ia_pd_shorter_than_its_fields", pkt::option(25, Bytes(8, 0)), {}, {}, {}},
    RouteRow{"ia_prefix_shorter_than_its_fields", iaPd({pkt::option(26, Bytes(24, 0x30)), iaPrefix(56)}), {}, {add(56)}, {{56, 1}}},
    RouteRow{"ia_prefix_past_its_ia_pd", iaPrefixPastItsIaPd(), {}, {}, {}},
    RouteRow{"ia_pd_past_the_message", pkt::slice(iaPd({iaPrefix(48)}), 0, 42), {}, {}, {}},
    RouteRow{"prefix_length_129", iaPd({iaPrefix(129), iaPrefix(56)}), {}, {add(56)}, {{56, 1}}},
    RouteRow{"status_code_first_in_ia_pd", iaPd({pkt::option(13, Bytes{0, 6}), iaPrefix(48)}), {}, {}, {}},
    RouteRow{"top_level_status_code", pkt::cat({pkt::option(13, Bytes{0, 0}), iaPd({iaPrefix(48)})}), {}, {}, {}},
    RouteRow{"transaction_id_changed", iaPd({iaPrefix(48)}), {}, {}, {}, 1}),
    [](const auto& p) { return std::string(p.param.name); });
// clang-format on

}  // namespace
