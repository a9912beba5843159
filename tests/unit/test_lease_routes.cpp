// Delegated prefixes and their routes as the route table manager sees them:
// which lease of a client carries the route, what interface, RTM-clear and
// role events re-send or withdraw, and which malformed lease options leave
// no lease at all.
#include "qor/rtm.h"
#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using pkt::Bytes;

constexpr uint8_t kRequest = 3, kReply = 7, kRelease = 8;
constexpr uint16_t kDelIf = 2, kUp = 3, kDown = 4;
const pkt::Addr kPrefixA = pkt::addr("2001:db8:100::");
const pkt::Addr kPrefixB = pkt::addr("2001:db8:200::");

struct Client {
    Bytes duid;
    pkt::Addr linkLocal;
    pkt::Mac mac;
};
const Client kAlice{pkt::duid(10, 1), pkt::addr("fe80::c1"), {2, 0, 0, 0, 0, 0xc1}};
const Client kBob{pkt::duid(10, 9), pkt::addr("fe80::c2"), {2, 0, 0, 0, 0, 0xc2}};

Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

// IA Prefix: preferred and valid lifetime, length, prefix.
Bytes iaPrefix(uint8_t len, const pkt::Addr& prefix = kPrefixA, uint32_t valid = 3600) {
    Bytes d = be32(valid / 2);
    pkt::putAll(d, be32(valid));
    d.push_back(len);
    pkt::putAll(d, prefix);
    return pkt::option(26, d);
}

// IA_PD 1 (IAID, T1, T2) holding `inner` as its options.
Bytes iaPd(std::initializer_list<Bytes> inner) {
    Bytes d = be32(1);
    pkt::putAll(d, be32(0));
    pkt::putAll(d, be32(0));
    for (const auto& o : inner) pkt::putAll(d, o);
    return pkt::option(25, d);
}

// One route update as the RTM receives it.
struct Route {
    int op;
    int len;
    pkt::Addr prefix;
    pkt::Addr nextHop;
    uint32_t ifIndex;
    bool operator==(const Route&) const = default;
};

class LeaseRoutes : public PacketFixture {
protected:
    uint32_t xid = 0x100;

    void bringUp() override {
        PacketFixture::bringUp();
        startTimerService();
        ASSERT_EQ(dhcpv6RelayMgrTimerInit(), 0);
        qorTickAdvance(100 * uint64_t(sysClkRateGet()));  // the sweep's clock taken at up-time 100
        sweep();
        ASSERT_EQ(dhcpv6RelayMgrRtmInit(), 0);
    }
    static void sweep() {
        timerCancel(dhcpv6RelayTimert.transTimer);
        dhcpv6ProcTransDb(0, nullptr);
    }

    // The client's message through the relay, then the lease options of the
    // message that answers it (Reply) or of the message itself (Release).
    int exchange(const Client& c, uint8_t type, std::initializer_list<Bytes> options,
                 uint8_t noGlobalAddr = 0, int xidDelta = 0) {
        ++xid;
        pkt::Frame f;
        f.srcMac = c.mac;
        f.src = c.linkLocal;
        f.dst = kVlanAddr;
        f.payload = pkt::message(type == kReply ? kRequest : type, xid, {pkt::option(1, c.duid)});
        EXPECT_EQ(receive(f.build(), vlan10, port1, port1), 0u);
        Bytes m = pkt::message(type, xid + uint32_t(xidDelta), {pkt::option(1, c.duid)});
        for (const auto& o : options) pkt::putAll(m, o);
        return dhcpv6ProcClientLeaseOptions(vlan10, m.data(), uint32_t(m.size()), noGlobalAddr);
    }
    int lease(uint8_t len, uint32_t valid = 3600, const Client& c = kAlice,
              const pkt::Addr& prefix = kPrefixA) {
        return exchange(c, kReply, {iaPd({iaPrefix(len, prefix, valid)})});
    }

    // The routes sent since the last call, every fixed field of the record checked.
    std::vector<Route> routes() {
        std::vector<Route> out;
        for (const auto& call : since("qorRtmUpdateRoute")) {
            const Bytes& r = call.bytes;
            EXPECT_EQ(r.size(), QOR_RTM_ROUTE_LEN);
            if (r.size() != QOR_RTM_ROUTE_LEN) continue;
            const int64_t handle = call.ints[0], count = call.ints[4], af = call.ints[5];
            EXPECT_EQ(handle, int64_t(dhcpv6RelayGlobalVar.rtmHandle));
            EXPECT_EQ(call.ints[3], dhcpv6RelayGlobalVar.rtmSwpQueue);
            EXPECT_EQ(count, 1);
            EXPECT_EQ(af, 2);
            EXPECT_EQ(qor::u16At(r, 0), 1u);
            EXPECT_EQ(qor::u32At(r, 8), 23u) << "route owner";
            EXPECT_EQ(qor::u16At(r, 32), 1u) << "one next hop";
            Route rt{int(call.ints[1]), r[43], {}, {}, qor::u32At(r, 96)};
            std::copy_n(r.begin() + 64, 16, rt.prefix.begin());
            std::copy_n(r.begin() + 80, 16, rt.nextHop.begin());
            out.push_back(rt);
        }
        markCalls();
        return out;
    }

    // (prefix length, routed) of every lease, in key order.
    static std::vector<std::pair<int, int>> leases() {
        std::vector<std::pair<int, int>> out;
        auto* t = dhcpv6RelayGlobalVar.leaseIpTbl;
        for (QOR_RADIX_NODE* n = qorRadixGetNext(t, nullptr, 0); n != nullptr;
             n = qorRadixGetNext(t, n->rnKey, DHCPV6_LEASEIP_KEY_BITS)) {
            const auto* e = reinterpret_cast<const dhcpv6LeaseIpEntry*>(n);
            out.emplace_back(int(qor::u32At(e->prefixLen, 0)), int(e->IsRouteAdded));
        }
        return out;
    }

    int ifmEvent(uint16_t code, uint32_t ifIndex) {
        auto m = ifmDeleteNotice(ifIndex);
        qor::putU16(m, 140, code);
        return dispatch(m);
    }
};

Route add(int len, const Client& c = kAlice, const pkt::Addr& p = kPrefixA) {
    return {QOR_RTM_OP_ADD, len, p, c.linkLocal, vlanIf(10)};
}
Route del(int len, const Client& c = kAlice, const pkt::Addr& p = kPrefixA) {
    return {QOR_RTM_OP_DELETE, len, p, c.linkLocal, vlanIf(10)};
}

// ---- election ------------------------------------------------------------------------

struct Step {
    char what;      // 'L' lease (Reply), 'R' release, 'T' seconds pass and the sweep runs
    int value;      // prefix length, or seconds
    uint32_t valid;
};
struct ElectionRow {
    const char* name;
    std::vector<Step> steps;
    std::vector<Route> sent;
    std::vector<std::pair<int, int>> after;  // (length, routed) left in the table
};

class Election : public LeaseRoutes, public ::testing::WithParamInterface<ElectionRow> {};

TEST_P(Election, OnlyTheShortestLeaseOfAPrefixIsRouted) {
    const ElectionRow& row = GetParam();
    for (const Step& s : row.steps) {
        if (s.what == 'L') {
            ASSERT_EQ(lease(uint8_t(s.value), s.valid), 0);
        } else if (s.what == 'R') {
            ASSERT_EQ(exchange(kAlice, kRelease, {iaPd({iaPrefix(uint8_t(s.value))})}), 0);
        } else {
            qorTickAdvance(uint64_t(s.value) * sysClkRateGet());
            sweep();
        }
    }
    EXPECT_EQ(routes(), row.sent);
    EXPECT_EQ(leases(), row.after);
}

INSTANTIATE_TEST_SUITE_P(
    LeaseOrders, Election,
    ::testing::Values(
        ElectionRow{"48_then_56", {{'L', 48, 3600}, {'L', 56, 3600}}, {add(48)}, {{48, 1}, {56, 0}}},
        ElectionRow{"56_then_48",
                    {{'L', 56, 3600}, {'L', 48, 3600}},
                    {add(56), del(56), add(48)},
                    {{48, 1}, {56, 0}}},
        ElectionRow{"64_48_56",
                    {{'L', 64, 3600}, {'L', 48, 3600}, {'L', 56, 3600}},
                    {add(64), del(64), add(48)},
                    {{48, 1}, {56, 0}, {64, 0}}},
        ElectionRow{"48_expires_56_takes_over",
                    {{'L', 48, 30}, {'L', 56, 3600}, {'T', 31, 0}},
                    {add(48), del(48), add(56)},
                    {{56, 1}}},
        ElectionRow{"48_released_nothing_routed",
                    {{'L', 48, 3600}, {'L', 56, 3600}, {'R', 48, 0}},
                    {add(48), del(48)},
                    {{56, 0}}},
        ElectionRow{"0_then_56", {{'L', 0, 3600}, {'L', 56, 3600}}, {add(0)}, {{0, 1}, {56, 0}}},
        ElectionRow{"refresh_sends_nothing_again",
                    {{'L', 48, 3600}, {'L', 48, 7200}},
                    {add(48)},
                    {{48, 1}}}),
    [](const auto& p) { return std::string(p.param.name); });

// ---- interface, RTM and role events ----------------------------------------------------

TEST_F(LeaseRoutes, InterfaceDownWithdrawsUpRestoresDeleteForgets) {
    ASSERT_EQ(lease(48), 0);
    ASSERT_EQ(lease(56), 0);
    EXPECT_NE(eventLog().find("Delegated prefix 2001:db8:100::/48 leased"), std::string::npos);
    routes();
    ifmEvent(kDown, vlan10);
    EXPECT_EQ(routes(), std::vector<Route>{del(48)});
    EXPECT_EQ(leases(), (std::vector<std::pair<int, int>>{{48, 1}, {56, 0}}));
    ifmEvent(kUp, vlan10);
    EXPECT_EQ(routes(), std::vector<Route>{add(48)});
    ifmEvent(kUp, routedPort);
    EXPECT_EQ(routes(), std::vector<Route>{}) << "another interface's leases";
    ifmEvent(kDelIf, vlan10);
    EXPECT_EQ(routes(), std::vector<Route>{del(48)});
    EXPECT_TRUE(leases().empty());
    EXPECT_EQ(qorMemLiveCount(DHCPV6_LEASEIP_POOL), 0u);
}

struct ClearRow {
    const char* name;
    uint32_t all;
    pkt::Addr prefix;
    int seqResult;  // what the SWP sequence check says
    std::vector<Route> resent;
    bool acked;
};

class RtmClear : public LeaseRoutes, public ::testing::WithParamInterface<ClearRow> {};

// Alice holds a::/48, Bob a::/56 (another client: routed too) and b::/48.
TEST_P(RtmClear, ResendsWhatTheRtmLost) {
    const ClearRow& row = GetParam();
    ASSERT_EQ(lease(48), 0);
    ASSERT_EQ(lease(56, 3600, kBob), 0);
    ASSERT_EQ(lease(48, 3600, kBob, kPrefixB), 0);
    ASSERT_EQ(routes().size(), 3u);
    auto m = typeMsg(MT_RTM6_CLR_ROUTE, QOR_RTM_CLR_LEN);
    qor::putU32(m, QOR_SWP_OFF_SEQ, 1);
    qor::putU32(m, QOR_RTM_CLR_OFF_ALL, row.all);
    qor::putU8(m, QOR_RTM_CLR_OFF_PREFIX_LEN, 64);  // not compared: every routed length goes
    qor::putBytes(m, QOR_RTM_CLR_OFF_PREFIX, row.prefix.data(), 16);
    qorfake::setNextResult("qorSwpCkSeqAndAck", row.seqResult);
    dispatch(m);
    const auto acks = since("qorRtmClearIpRouteSwpAckAF");
    EXPECT_EQ(routes(), row.resent);
    ASSERT_EQ(acks.size(), row.acked ? 1u : 0u);
    if (row.acked) {
        EXPECT_EQ(acks[0].bytes, Bytes(m.begin(), m.begin() + QOR_RTM_CLR_MIN_LEN));
        EXPECT_EQ(acks[0].ints[1], dhcpv6RelayGlobalVar.rtmSwpQueue);
        EXPECT_EQ(acks[0].ints[2], 2);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Clears, RtmClear,
    ::testing::Values(
        ClearRow{"one_prefix", 0, kPrefixA, QOR_SWP_IN_ORDER, {add(48), add(56, kBob)}, false},
        ClearRow{"one_prefix_duplicate", 0, kPrefixA, QOR_SWP_DUPLICATE,
                 {add(48), add(56, kBob)}, false},
        ClearRow{"all", 1, {}, QOR_SWP_IN_ORDER,
                 {add(48), add(56, kBob), add(48, kBob, kPrefixB)}, true},
        ClearRow{"out_of_order", 1, {}, QOR_SWP_OUT_OF_ORDER, {}, false}),
    [](const auto& p) { return std::string(p.param.name); });

TEST_F(LeaseRoutes, NewPrimaryResendsRoutedLeasesStandbySendsNone) {
    ASSERT_EQ(lease(48), 0);
    ASSERT_EQ(lease(56), 0);
    routes();
    auto ha = typeMsg(MT_HA_CONTROL, 128);
    qorHaSetPrimary(false);
    dispatch(ha);
    EXPECT_EQ(routes(), std::vector<Route>{});
    qorHaSetPrimary(true);
    dispatch(ha);
    EXPECT_EQ(routes(), std::vector<Route>{add(48)});
}

// ---- the lease-option walk ----------------------------------------------------------

struct WalkRow {
    const char* name;
    Bytes options;           // after the Client Identifier
    std::vector<int> leased;  // prefix lengths that became leases
    int xidDelta = 0;
    uint8_t type = kReply;
};

Bytes cat(std::initializer_list<Bytes> parts) {
    Bytes b;
    for (const auto& p : parts) pkt::putAll(b, p);
    return b;
}

// An IA_PD whose last IA Prefix claims 25 bytes but whose own length ends
// 5 bytes into its prefix; those 5 bytes follow in the message.
Bytes iaPrefixPastItsIaPd() {
    Bytes pd = iaPd({iaPrefix(48)});
    qor::putU16(pd, 2, uint16_t(qor::u16At(pd, 2) - 5));
    return pd;
}

class LeaseWalk : public LeaseRoutes, public ::testing::WithParamInterface<WalkRow> {};

TEST_P(LeaseWalk, OnlyWholePrefixesInsideTheirIaPdBecomeLeases) {
    const WalkRow& row = GetParam();
    ++xid;
    pkt::Frame f;
    f.src = kAlice.linkLocal;
    f.dst = kVlanAddr;
    f.payload = pkt::message(kRequest, xid, {pkt::option(1, kAlice.duid)});
    ASSERT_EQ(receive(f.build(), vlan10, port1, port1), 0u);
    // The message in a buffer of exactly its size.
    Bytes m = cat({pkt::message(row.type, xid + uint32_t(row.xidDelta), {pkt::option(1, kAlice.duid)}),
                   row.options});
    dhcpv6ProcClientLeaseOptions(vlan10, m.data(), uint32_t(m.size()), 0);
    std::vector<int> leased;
    for (auto [len, routed] : leases()) leased.push_back(len);
    EXPECT_EQ(leased, row.leased);
    for (const Route& r : routes()) EXPECT_LE(r.len, 128);
}

INSTANTIATE_TEST_SUITE_P(
    Options, LeaseWalk,
    ::testing::Values(
        WalkRow{"whole", iaPd({iaPrefix(48), iaPrefix(56, kPrefixB)}), {48, 56}},
        WalkRow{"ia_pd_shorter_than_its_fields", pkt::option(25, Bytes(8, 0)), {}},
        WalkRow{"ia_prefix_shorter_than_its_fields",
                iaPd({pkt::option(26, Bytes(24, 0x30)), iaPrefix(56)}), {56}},
        WalkRow{"ia_prefix_past_its_ia_pd", cat({iaPrefixPastItsIaPd(), Bytes(5, 0xee)}), {}},
        WalkRow{"ia_pd_past_the_message", [] {
                    Bytes pd = iaPd({iaPrefix(48)});
                    pd.resize(pd.size() - 3);
                    return pd;
                }(), {}},
        WalkRow{"prefix_length_129", iaPd({iaPrefix(129), iaPrefix(56)}), {56}},
        WalkRow{"status_code_first_in_ia_pd",
                iaPd({pkt::option(13, Bytes{0, 6}), iaPrefix(48)}), {}},
        WalkRow{"top_level_status_code",
                cat({pkt::option(13, Bytes{0, 0}), iaPd({iaPrefix(48)})}), {}},
        WalkRow{"transaction_id_changed", iaPd({iaPrefix(48)}), {}, 1},
        WalkRow{"advertise", iaPd({iaPrefix(48)}), {}, 0, 2}),
    [](const auto& p) { return std::string(p.param.name); });

}  // namespace
