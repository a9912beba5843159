// The transaction table as the relay's answers depend on it: where a client
// was last seen, how long it is remembered, when it is forgotten, and the
// flooding of client messages the relay records in a VLAN.
#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using pkt::Bytes;

const Bytes kDuid = pkt::duid(14);

Bytes clientMsg(uint8_t type, uint32_t xid) {
    return pkt::message(type, xid, {pkt::option(1, kDuid)});
}

dhcpv6TransEntry* entryOf(const Bytes& duid) {
    uint8_t key[DHCPV6_DUID_MAX] = {};
    std::memcpy(key, duid.data(), duid.size());
    return dhcpv6TransLookup(key);
}

class TransTbl : public PacketFixture {
protected:
    void bringUp() override {
        PacketFixture::bringUp();
        startTimerService();
        ASSERT_EQ(dhcpv6RelayMgrTimerInit(), 0);
        // Up-time past 0 and the sweep's clock taken, before any entry exists.
        qorTickAdvance(100 * uint64_t(sysClkRateGet()));
        sweep();
    }
    // One sweep, as the timer delivers it.
    static void sweep() {
        timerCancel(dhcpv6RelayTimert.transTimer);
        dhcpv6ProcTransDb(0, nullptr);
    }
    static void elapse(uint32_t seconds) { qorTickAdvance(uint64_t(seconds) * sysClkRateGet()); }
    uint32_t record(uint8_t type = 1, uint32_t xid = 1,
                    const pkt::Mac& mac = {2, 0, 0, 0, 0, 0xc1}) {
        pkt::Frame f;
        f.srcMac = mac;
        f.dst = kVlanAddr;  // for the relay: nothing flooded
        f.payload = clientMsg(type, xid);
        return receive(f.build(), vlan10, port1, port1);
    }
};

// A client is remembered 60 seconds after its last message; only the
// primary forgets it, the standby waits for the primary's delete.
TEST_F(TransTbl, EntriesAgeOutAfterSixtySilentSecondsOnThePrimary) {
    struct Row {
        uint32_t elapsed;
        bool primary;
        bool kept;
        uint32_t left;
    } rows[] = {
        {59, true, true, 1}, {60, true, false, 0}, {61, true, false, 0}, {60, false, true, 60}};
    for (const Row& r : rows) {
        SCOPED_TRACE(std::to_string(r.elapsed) + (r.primary ? " primary" : " standby"));
        qorHaSetPrimary(r.primary);
        ASSERT_EQ(record(), 0u);
        elapse(r.elapsed);
        sweep();
        dhcpv6TransEntry* e = entryOf(kDuid);
        ASSERT_EQ(e != nullptr, r.kept);
        if (e != nullptr) {
            EXPECT_EQ(e->leaseTime, r.left);
        }
        qorHaSetPrimary(true);
        elapse(60);
        sweep();
    }
    EXPECT_EQ(qorMemLiveCount(DHCPV6_TRANS_POOL), 0u) << "expired entries are given back";
}

TEST_F(TransTbl, SameClientOnAnotherInterfaceMovesItsEntry) {
    ASSERT_EQ(record(1, 0xAAAAAA), 0u);
    pkt::Frame f;
    f.vlan = 0;
    f.srcMac = {2, 0, 0, 0, 0, 0xd9};
    f.src = pkt::addr("fe80::d9");
    f.payload = clientMsg(3, 0xBBBBBB);
    ASSERT_EQ(receive(f.build(), routedPort, routedPort, routedPort), 0u);
    const dhcpv6TransEntry* e = entryOf(kDuid);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(qorRadixCount(dhcpv6RelayGlobalVar.transTbl), 1u);
    EXPECT_EQ(e->ifIndex, routedPort);
    EXPECT_EQ(e->portIfIndex, routedPort);
    EXPECT_EQ(e->msgType, 3);
    EXPECT_EQ(Bytes(e->transId, e->transId + 3), (Bytes{0xBB, 0xBB, 0xBB}));
    EXPECT_EQ(Bytes(e->clientMac, e->clientMac + 6), (Bytes{2, 0, 0, 0, 0, 0xd9}));
    const pkt::Addr peer = pkt::addr("fe80::d9");
    EXPECT_EQ(Bytes(e->peerIp, e->peerIp + 16), Bytes(peer.begin(), peer.end()));
}

// The reply to a client's message ends its transaction only when that
// message was a RELEASE and the transaction ids agree.
TEST_F(TransTbl, ReplyForgetsTheClientOnlyAfterItsRelease) {
    struct Row {
        uint8_t lastType;
        uint32_t replyXid;
        int result;
        bool kept;
    } rows[] = {{8, 7, 0, false}, {8, 9, -1, true}, {3, 7, 0, true}};
    uint8_t key[DHCPV6_DUID_MAX] = {};
    std::memcpy(key, kDuid.data(), kDuid.size());
    for (const Row& r : rows) {
        SCOPED_TRACE(int(r.lastType));
        ASSERT_EQ(record(r.lastType, 7), 0u);
        const Bytes reply = pkt::message(7, r.replyXid, {});
        EXPECT_EQ(dhcpv6TransactionTblDel(0, reply.data(), key), r.result);
        EXPECT_EQ(entryOf(kDuid) != nullptr, r.kept);
    }
    uint8_t unknown[DHCPV6_DUID_MAX] = {9};
    EXPECT_EQ(dhcpv6TransactionTblDel(0, pkt::message(7, 7, {}).data(), unknown), 0)
        << "no entry: nothing to do";
}

// Delegated prefixes age with the same sweep by their valid lifetime.
TEST_F(TransTbl, LeasesExpireByTheirLifetimeOnThePrimary) {
    auto addLease = [](uint8_t prefixLen, uint32_t lifetime, uint8_t routed) {
        auto* e = static_cast<dhcpv6LeaseIpEntry*>(
            dhcpv6LeaseIpTblRadixAlloc(sizeof(dhcpv6LeaseIpEntry)));
        ASSERT_NE(e, nullptr);
        std::memset(e, 0, sizeof *e);
        qor::putU32(e->ifIndex, 0, vlanIf(10));
        std::memcpy(e->duid, kDuid.data(), kDuid.size());
        const pkt::Addr prefix = pkt::addr("2001:db8:100::");
        std::memcpy(e->leaseIp, prefix.data(), 16);
        qor::putU32(e->prefixLen, 0, prefixLen);
        e->leaseTime = lifetime;
        e->IsRouteAdded = routed;
        e->node.rnKey = e->ifIndex;
        ASSERT_EQ(
            qorRadixInsert(dhcpv6RelayGlobalVar.leaseIpTbl, &e->node, DHCPV6_LEASEIP_KEY_BITS), 0);
    };
    addLease(48, 30, 1);
    addLease(56, 100, 0);
    qorHaSetPrimary(false);
    elapse(30);
    sweep();
    EXPECT_EQ(qorRadixCount(dhcpv6RelayGlobalVar.leaseIpTbl), 2u)
        << "the standby keeps expired leases";
    qorHaSetPrimary(true);
    elapse(30);
    sweep();
    ASSERT_EQ(qorRadixCount(dhcpv6RelayGlobalVar.leaseIpTbl), 1u);
    const auto* left = reinterpret_cast<const dhcpv6LeaseIpEntry*>(
        qorRadixGetNext(dhcpv6RelayGlobalVar.leaseIpTbl, nullptr, 0));
    EXPECT_EQ(qor::u32At(left->prefixLen, 0), 56u);
    EXPECT_EQ(left->leaseTime, 100u - 30 - 30) << "the standby's run aged it too";
    EXPECT_EQ(qorMemLiveCount(DHCPV6_LEASEIP_POOL), 1u);
}

// A client message in a VLAN that is not addressed to the relay goes on to
// the VLAN's other ports: from this unit through a flood socket, from
// another unit through that unit's agent.
TEST_F(TransTbl, VlanMessagesNotForTheRelayAreFloodedWithTheIngressLeftOut) {
    struct Row {
        const char* name;
        const char* port;
        bool toRelay;
        bool routed;
        int localFloods, agentFloods;
    } rows[] = {{"this unit", "ethernet 1/1", false, false, 1, 0},
                {"another unit", "ethernet 2/1", false, false, 0, 1},
                {"addressed to the relay", "ethernet 1/1", true, false, 0, 0},
                {"routed port", "ethernet 1/9", false, true, 0, 0}};
    for (const Row& r : rows) {
        SCOPED_TRACE(r.name);
        markCalls();
        const size_t sentBefore = qorfake::sent().size();
        const uint32_t port = ifIndexOf(r.port), logical = r.routed ? port : vlan10;
        pkt::Frame f;
        f.vlan = r.routed ? 0 : 10;
        f.dst = r.toRelay ? kVlanAddr : pkt::addr("ff02::1:2");
        f.payload = clientMsg(1, 5);
        const Bytes wire = f.build();
        ASSERT_EQ(receive(wire, logical, port, port), 0u);
        std::vector<qorfake::Sent> floods;
        const auto sent = qorfake::sent();
        for (size_t i = sentBefore; i < sent.size(); ++i)
            if (sent[i].fd != dhcpv6RelayGlobalVar.outSockFd &&
                sent[i].dst.size() == QOR_L2_ADDR_LEN)
                floods.push_back(sent[i]);
        ASSERT_EQ(floods.size(), size_t(r.localFloods));
        if (r.localFloods) {
            Bytes expected(24, 0);
            qor::putU32(expected, 0, 6);
            qor::putU32(expected, 4, port);
            qor::putU32(expected, 12, vlan10);
            expected.insert(expected.end(), wire.begin(), wire.end());
            EXPECT_EQ(floods[0].bytes, expected);
            EXPECT_EQ(since("qorSocket").at(0).ints, (std::vector<int64_t>{36, 3, 36}));
            EXPECT_EQ(since("qorClose").size(), 1u) << "the flood socket serves one send";
        }
        const auto ipc = since("qorIpcSend");
        ASSERT_EQ(ipc.size(), size_t(r.agentFloods));
        if (r.agentFloods) {
            const Bytes& m = ipc[0].bytes;
            EXPECT_EQ(qor::u32At(m, 12), 20810u);
            EXPECT_EQ(qor::u32At(m, 8), 72 + wire.size());
            EXPECT_EQ(qor::u32At(m, 56), qor_getQueueId(250, 2, QOR_QUEUE_REQUEST))
                << "unit 2's agent";
            EXPECT_EQ(qor::u32At(m, 60), vlan10);
            EXPECT_EQ(qor::u32At(m, 64), port);
            EXPECT_EQ(qor::u32At(m, 68), wire.size());
            EXPECT_EQ(pkt::slice(m, 72, wire.size()), wire);
        }
    }
}

}  // namespace
