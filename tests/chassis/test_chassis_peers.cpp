// The ACL manager, the RTM and the MRTM as the relay manager sees them: SWP
// messages acknowledged and applied once, registrations answered, multicast
// group indexes handed out and taken back.
#include "chassis_test_util.h"
#include "qor/mrtm.h"

namespace {

using namespace chassistest;

constexpr uint32_t kAclRelay = 30;
constexpr uint32_t kAclSnoop = 39;
constexpr uint32_t kClientSwpQueue = 5;

// The relay manager's side: its request queue, from which its SWP queues send.
class Peers : public ChassisFixture {
protected:
    void SetUp() override {
        ASSERT_EQ(startChassis(), 0);
        relay = std::make_unique<PeerQueue>(QOR_APP_RELAYMGR, instance_);
        ASSERT_TRUE(relay->ok());
    }
    // An SWP message of `length` bytes with sequence number `seq`.
    Bytes swpMessage(int app, uint32_t type, size_t length, uint32_t seq) {
        Bytes m = message(length, type, relay->id(), queueOf(app, instance_));
        qor::putU32(m, QOR_SWP_OFF_SEQ, seq);
        qor::putU32(m, QOR_SWP_OFF_QUEUE, kClientSwpQueue);
        return m;
    }
    // The next message must acknowledge `seq` from the service `app`.
    void expectAck(int app, uint32_t seq) {
        const auto ack = relay->recv();
        ASSERT_TRUE(ack.has_value());
        EXPECT_EQ(qor::u32At(*ack, QOR_IPC_OFF_TYPE), MT_SWP_ACK);
        EXPECT_EQ(qor::u32At(*ack, QOR_SWP_OFF_SEQ), seq);
        EXPECT_EQ(qor::u32At(*ack, QOR_SWP_OFF_QUEUE), kClientSwpQueue);
        EXPECT_EQ(qor::u32At(*ack, QOR_IPC_OFF_SRC_QUEUE), queueOf(app, instance_));
    }

    std::unique_ptr<PeerQueue> relay;
};

// ---- ACL manager ------------------------------------------------------------------

class Acl : public Peers {
protected:
    // iAclEnableSysFlowProtocolEntries's message (protocol, 0, 0, instance, task key, 2, enable).
    void sysFlow(uint32_t seq, uint32_t protocol, bool enable) {
        Bytes m = swpMessage(QOR_APP_ACL, QOR_MT_ACL_SYS_FLOW, 108, seq);
        qor::putU32(m, 80, protocol);
        qor::putU32(m, 92, uint32_t(instance_));
        qor::putU32(m, 96, 1);
        qor::putU32(m, 100, 2);
        qor::putU32(m, 104, enable ? 1 : 0);
        ASSERT_TRUE(relay->send(m));
    }
    // The show: (protocol, on) pairs.
    std::vector<std::pair<uint32_t, uint32_t>> show() {
        Bytes m = message(1024, QOR_MT_ACL_SHOW, 0, queueOf(QOR_APP_ACL, instance_));
        std::vector<std::pair<uint32_t, uint32_t>> out;
        if (!request(QOR_APP_ACL, instance_, m) || qor::u32At(m, QOR_IPC_OFF_STATUS) != 0) return out;
        const uint32_t n = qor::u32At(m, 80);
        for (uint32_t i = 0; i < n && 84 + 8 * i + 8 <= m.size(); ++i)
            out.emplace_back(qor::u32At(m, 84 + 8 * i), qor::u32At(m, 88 + 8 * i));
        return out;
    }
    using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;
};

TEST_F(Acl, NothingIsOnAtStart) { EXPECT_EQ(show(), Pairs{}); }

TEST_F(Acl, SysFlowRequestsAreAcknowledgedAndRecorded) {
    sysFlow(1, kAclRelay, true);
    expectAck(QOR_APP_ACL, 1);
    EXPECT_EQ(show(), (Pairs{{kAclRelay, 1}}));
    // Snooping replaces the relay's trap entries.
    sysFlow(2, kAclRelay, false);
    expectAck(QOR_APP_ACL, 2);
    sysFlow(3, kAclSnoop, true);
    expectAck(QOR_APP_ACL, 3);
    EXPECT_EQ(show(), (Pairs{{kAclRelay, 0}, {kAclSnoop, 1}}));
}

TEST_F(Acl, RetransmittedRequestIsAcknowledgedAgainButNotReapplied) {
    sysFlow(1, kAclRelay, true);
    expectAck(QOR_APP_ACL, 1);
    sysFlow(2, kAclRelay, false);
    expectAck(QOR_APP_ACL, 2);
    // A late copy of the first request: applying it would switch the trap back on.
    sysFlow(1, kAclRelay, true);
    expectAck(QOR_APP_ACL, 1);
    EXPECT_EQ(show(), (Pairs{{kAclRelay, 0}}));
}

TEST_F(Acl, RequestOutOfSequenceIsNotApplied) {
    sysFlow(3, kAclSnoop, true);
    EXPECT_EQ(show(), Pairs{});
}

// ---- RTM --------------------------------------------------------------------------

class Rtm : public Peers {
protected:
    // Registration; the answered handle, or nothing when refused or unanswered.
    std::optional<uint32_t> registerClient(uint32_t owner, uint32_t family, const std::string& name) {
        Bytes m = message(132, QOR_MT_RTM_REGISTER, relay->id(), queueOf(QOR_APP_RTM, instance_));
        qor::putU32(m, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
        qor::putU32(m, 80, owner);
        qor::putU32(m, 84, 0xFFFF);
        qor::putU32(m, 88, uint32_t(instance_));
        qor::putU32(m, 92, family);
        qor::putBytes(m, 96, name.data(), std::min<size_t>(name.size(), 32));
        if (!request(QOR_APP_RTM, instance_, m) || qor::u32At(m, QOR_IPC_OFF_STATUS) != 0)
            return std::nullopt;
        return qor::u32At(m, 128);
    }
};

TEST_F(Rtm, EachClientGetsItsOwnHandleAndKeepsIt) {
    const auto relayV6 = registerClient(23, 2, "Dhcpv6RelayMgr");
    const auto other = registerClient(23, 1, "Dhcpv6RelayMgr");
    const auto again = registerClient(23, 2, "Dhcpv6RelayMgr");
    ASSERT_TRUE(relayV6 && other && again);
    EXPECT_NE(*relayV6, 0u);
    EXPECT_NE(*relayV6, *other);
    EXPECT_EQ(*again, *relayV6);
}

TEST_F(Rtm, RouteUpdatesAreAcknowledged) {
    ASSERT_TRUE(registerClient(23, 2, "Dhcpv6RelayMgr"));
    for (uint32_t seq = 1; seq <= 3; ++seq) {
        ASSERT_TRUE(relay->send(swpMessage(QOR_APP_RTM, 12804, 80 + 1872, seq)));
        expectAck(QOR_APP_RTM, seq);
    }
}

// ---- MRTM -------------------------------------------------------------------------

constexpr uint32_t kMrtmIndexRequest = 15672;
constexpr uint32_t kAllocate = 0;
constexpr uint32_t kRelease = 1;

class Mrtm : public Peers {
protected:
    void SetUp() override {
        Peers::SetUp();
        Bytes m = message(MRTM_REG_LEN, MT_MRTM_REGISTER, relay->id(), queueOf(QOR_APP_MRTM, instance_));
        qor::putU32(m, MRTM_REG_OFF_STATUS, 0xFFFFFFFF);
        qor::putU32(m, MRTM_REG_OFF_CLIENT_ID, 0xFFFFFFFF);
        qor::putBytes(m, MRTM_REG_OFF_NAME, "DHCPV6 MCIDX Clnt", 16);
        qor::putU32(m, MRTM_REG_OFF_QUEUE, relay->id());
        qor::putU32(m, MRTM_REG_OFF_NAME_LENGTH, 16);
        ASSERT_TRUE(request(QOR_APP_MRTM, instance_, m));
        ASSERT_EQ(qor::u32At(m, MRTM_REG_OFF_STATUS), 0u);
        clientId = qor::u32At(m, MRTM_REG_OFF_CLIENT_ID);
        ASSERT_NE(clientId, 0xFFFFFFFFu);
    }
    // Sends an index request and returns the response that follows its acknowledgement.
    Bytes indexRequest(uint32_t seq, uint32_t operation, uint32_t count, uint32_t index = 0) {
        Bytes m = swpMessage(QOR_APP_MRTM, kMrtmIndexRequest, 168, seq);
        qor::putU32(m, 128, clientId);
        qor::putU32(m, 140, operation);
        qor::putU32(m, 148, count);
        qor::putU32(m, 160, index);
        EXPECT_TRUE(relay->send(m));
        expectAck(QOR_APP_MRTM, seq);
        const auto resp = relay->recv();
        if (!resp) {
            ADD_FAILURE() << "no index response";
            return {};
        }
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_TYPE), MT_MRTM_MCIDX_RESP);
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_DST_QUEUE), relay->id());
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_LENGTH), resp->size());
        EXPECT_GE(resp->size(), 164u);
        return *resp;
    }
    static uint32_t word(const Bytes& m, size_t n) { return qor::u32At(m, 4 * n); }

    uint32_t clientId = 0;
};

TEST_F(Mrtm, IndexesStartAtOneAndResponsesAreSequenced) {
    const Bytes first = indexRequest(1, kAllocate, 1);
    EXPECT_EQ(qor::u32At(first, QOR_SWP_OFF_SEQ), 1u);
    EXPECT_EQ(word(first, 35), 0u);
    EXPECT_EQ(word(first, 38) & 1, 1u);
    EXPECT_EQ(word(first, 39), 1u);
    EXPECT_EQ(word(first, 40), 1u);
    const Bytes second = indexRequest(2, kAllocate, 1);
    EXPECT_EQ(qor::u32At(second, QOR_SWP_OFF_SEQ), 2u);
    EXPECT_EQ(word(second, 40), 2u);
}

TEST_F(Mrtm, ReleasedIndexIsGivenOutAgain) {
    ASSERT_EQ(word(indexRequest(1, kAllocate, 1), 40), 1u);
    ASSERT_EQ(word(indexRequest(2, kAllocate, 1), 40), 2u);
    const Bytes released = indexRequest(3, kRelease, 1, 1);
    EXPECT_EQ(word(released, 35), 1u);
    EXPECT_EQ(word(released, 38) & 1, 1u);
    EXPECT_EQ(word(indexRequest(4, kAllocate, 1), 40), 1u);
    EXPECT_EQ(word(indexRequest(5, kAllocate, 1), 40), 3u);
}

TEST_F(Mrtm, ReleaseOfIndexZeroSucceeds) {
    // The relay manager releases 0 after an allocation that gave it 0.
    const Bytes released = indexRequest(1, kRelease, 1, 0);
    EXPECT_EQ(word(released, 35), 1u);
    EXPECT_EQ(word(released, 38) & 1, 1u);
}

TEST_F(Mrtm, RequestForSeveralIndexesFails) {
    const Bytes resp = indexRequest(1, kAllocate, 2);
    EXPECT_EQ(word(resp, 38) & 1, 0u);
    // The failure took nothing: the next index is still the first.
    EXPECT_EQ(word(indexRequest(2, kAllocate, 1), 40), 1u);
}

TEST_F(Mrtm, DuplicateRequestIsAcknowledgedWithoutASecondIndex) {
    ASSERT_EQ(word(indexRequest(1, kAllocate, 1), 40), 1u);
    Bytes again = swpMessage(QOR_APP_MRTM, kMrtmIndexRequest, 168, 1);
    qor::putU32(again, 128, clientId);
    qor::putU32(again, 148, 1);
    ASSERT_TRUE(relay->send(again));
    expectAck(QOR_APP_MRTM, 1);
    // The next response answers the next request, not the copy.
    const Bytes next = indexRequest(2, kAllocate, 1);
    EXPECT_EQ(qor::u32At(next, QOR_SWP_OFF_SEQ), 2u);
    EXPECT_EQ(word(next, 40), 2u);
}

TEST_F(Mrtm, ClientRegisteringAgainKeepsItsId) {
    Bytes m = message(MRTM_REG_LEN, MT_MRTM_REGISTER, relay->id(), queueOf(QOR_APP_MRTM, instance_));
    qor::putU32(m, MRTM_REG_OFF_QUEUE, relay->id());
    ASSERT_TRUE(request(QOR_APP_MRTM, instance_, m));
    EXPECT_EQ(qor::u32At(m, MRTM_REG_OFF_CLIENT_ID), clientId);
}

}  // namespace
