// The ACL manager, the RTM and the MRTM as the relay manager sees them: SWP
// messages acknowledged and applied once, registrations answered, multicast
// group indexes handed out and taken back.
#include "chassis_test_util.h"
#include "qor/mrtm.h"

namespace {

using namespace chassistest;
using Pairs = std::vector<std::pair<uint32_t, uint32_t>>;

constexpr uint32_t kAclRelay = 30, kAclSnoop = 39;
constexpr uint32_t kClientSwpQueue = 5;

// The relay manager's side: its request queue, from which its SWP queues send.
class Peers : public ChassisFixture {
protected:
    void SetUp() override {
        ASSERT_EQ(startChassis(), 0);
        relay = std::make_unique<PeerQueue>(QOR_APP_RELAYMGR, instance_);
        ASSERT_TRUE(relay->ok());
    }
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

class Acl : public Peers {
protected:
    // iAclEnableSysFlowProtocolEntries's message (protocol, 0, 0, instance, task key, 2, enable).
    void sysFlow(uint32_t seq, uint32_t protocol, bool enable) {
        Bytes m = swpMessage(QOR_APP_ACL, QOR_MT_ACL_SYS_FLOW, 108, seq);
        putWords(m, 80, {protocol, 0, 0, uint32_t(instance_), 1, 2, enable ? 1u : 0u});
        ASSERT_TRUE(relay->send(m));
    }
    // The show: (protocol, on) pairs.
    Pairs show() {
        Bytes m = message(1024, QOR_MT_ACL_SHOW, 0, queueOf(QOR_APP_ACL, instance_));
        if (!request(QOR_APP_ACL, instance_, m) || qor::u32At(m, QOR_IPC_OFF_STATUS) != 0) return {{0xDEAD, 0}};
        Pairs out;
        for (uint32_t i = 0; i < qor::u32At(m, 80) && 92 + 8 * i <= m.size(); ++i)
            out.emplace_back(qor::u32At(m, 84 + 8 * i), qor::u32At(m, 88 + 8 * i));
        return out;
    }
};

TEST_F(Acl, SysFlowRequestsAreAcknowledgedAndAppliedOnce) {
    EXPECT_EQ(show(), Pairs{});
    sysFlow(1, kAclRelay, true);
    expectAck(QOR_APP_ACL, 1);
    EXPECT_EQ(show(), (Pairs{{kAclRelay, 1}}));
    // Snooping replaces the relay's trap entries.
    sysFlow(2, kAclRelay, false);
    expectAck(QOR_APP_ACL, 2);
    sysFlow(3, kAclSnoop, true);
    expectAck(QOR_APP_ACL, 3);
    // A late copy of the first request is acknowledged again; applying it
    // would switch the trap back on.
    sysFlow(1, kAclRelay, true);
    expectAck(QOR_APP_ACL, 1);
    EXPECT_EQ(show(), (Pairs{{kAclRelay, 0}, {kAclSnoop, 1}}));
}

TEST_F(Acl, RequestOutOfSequenceIsNotApplied) {
    sysFlow(3, kAclSnoop, true);
    EXPECT_EQ(show(), Pairs{});
}

TEST_F(Peers, RtmGivesEachClientItsOwnHandleAndAcknowledgesRouteUpdates) {
    // Registration (owner 23); the answered handle, or nothing when refused or unanswered.
    auto registerClient = [&](uint32_t family) -> std::optional<uint32_t> {
        Bytes m = message(132, QOR_MT_RTM_REGISTER, relay->id(), queueOf(QOR_APP_RTM, instance_));
        qor::putU32(m, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
        putWords(m, 80, {23, 0xFFFF, uint32_t(instance_), family});
        qor::putBytes(m, 96, "Dhcpv6RelayMgr", 14);
        if (!request(QOR_APP_RTM, instance_, m) || qor::u32At(m, QOR_IPC_OFF_STATUS) != 0) return std::nullopt;
        return qor::u32At(m, 128);
    };
    const auto v6 = registerClient(2), v4 = registerClient(1), again = registerClient(2);
    ASSERT_TRUE(v6 && v4 && again);
    EXPECT_NE(*v6, 0u);
    EXPECT_NE(*v6, *v4);
    EXPECT_EQ(*again, *v6);
    for (uint32_t seq = 1; seq <= 3; ++seq) {
        ASSERT_TRUE(relay->send(swpMessage(QOR_APP_RTM, 12804, 80 + 1872, seq)));
        expectAck(QOR_APP_RTM, seq);
    }
}

// An index response's words 35 (operation), 38 (bit 0: success), 39 (count), 40 (index).
using Resp = std::array<uint32_t, 4>;

class Mrtm : public Peers {
protected:
    void SetUp() override {
        Peers::SetUp();
        clientId = registerClient(true);
        ASSERT_NE(clientId, 0xFFFFFFFFu);
    }
    uint32_t registerClient(bool named) {
        Bytes m = message(MRTM_REG_LEN, MT_MRTM_REGISTER, relay->id(), queueOf(QOR_APP_MRTM, instance_));
        qor::putU32(m, MRTM_REG_OFF_QUEUE, relay->id());
        if (named) {
            qor::putU32(m, MRTM_REG_OFF_STATUS, 0xFFFFFFFF);
            qor::putU32(m, MRTM_REG_OFF_CLIENT_ID, 0xFFFFFFFF);
            qor::putBytes(m, MRTM_REG_OFF_NAME, "DHCPV6 MCIDX Clnt", 16);
            qor::putU32(m, MRTM_REG_OFF_NAME_LENGTH, 16);
        }
        if (!request(QOR_APP_MRTM, instance_, m) || qor::u32At(m, MRTM_REG_OFF_STATUS) != 0) return 0xFFFFFFFF;
        return qor::u32At(m, MRTM_REG_OFF_CLIENT_ID);
    }
    // An index request: allocate `count`, or release (operation 1) `index`.
    bool sendIndexRequest(uint32_t seq, uint32_t release, uint32_t count, uint32_t index) {
        Bytes m = swpMessage(QOR_APP_MRTM, 15672, 168, seq);
        putWords(m, 128, {clientId, 0, 0, release, 0, count, 0, 0, index});
        return relay->send(m);
    }
    // Sends a request and returns the response that follows its acknowledgement.
    Resp indexRequest(uint32_t seq, bool release, uint32_t count = 1, uint32_t index = 0) {
        EXPECT_TRUE(sendIndexRequest(seq, release ? 1 : 0, count, index));
        expectAck(QOR_APP_MRTM, seq);
        const auto resp = relay->recv();
        if (!resp || resp->size() < 164) {
            ADD_FAILURE() << "no index response";
            return {};
        }
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_TYPE), MT_MRTM_MCIDX_RESP);
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_DST_QUEUE), relay->id());
        EXPECT_EQ(qor::u32At(*resp, QOR_IPC_OFF_LENGTH), resp->size());
        EXPECT_EQ(qor::u32At(*resp, QOR_SWP_OFF_SEQ), seq) << "responses are sequenced";
        return {qor::u32At(*resp, 140), qor::u32At(*resp, 152) & 1, qor::u32At(*resp, 156), qor::u32At(*resp, 160)};
    }

    uint32_t clientId = 0;
};

TEST_F(Mrtm, IndexesStartAtOneAndReleasedOnesAreGivenOutAgain) {
    EXPECT_EQ(indexRequest(1, false), (Resp{0, 1, 1, 1}));
    EXPECT_EQ(indexRequest(2, false)[3], 2u);
    const Resp released = indexRequest(3, true, 1, 1);
    EXPECT_EQ(released[0], 1u);
    EXPECT_EQ(released[1], 1u);
    EXPECT_EQ(indexRequest(4, false)[3], 1u);
    EXPECT_EQ(indexRequest(5, false)[3], 3u);
    // A client registering again keeps its id.
    EXPECT_EQ(registerClient(false), clientId);
}

TEST_F(Mrtm, ReleaseOfZeroSucceedsAndARequestForSeveralFailsTakingNothing) {
    // The relay manager releases 0 after an allocation that gave it 0.
    const Resp released = indexRequest(1, true, 1, 0);
    EXPECT_EQ(released[0], 1u);
    EXPECT_EQ(released[1], 1u);
    EXPECT_EQ(indexRequest(2, false, 2)[1], 0u);
    EXPECT_EQ(indexRequest(3, false)[3], 1u);
}

TEST_F(Mrtm, DuplicateRequestIsAcknowledgedWithoutASecondIndex) {
    ASSERT_EQ(indexRequest(1, false)[3], 1u);
    ASSERT_TRUE(sendIndexRequest(1, 0, 1, 0));
    expectAck(QOR_APP_MRTM, 1);
    // The next response answers the next request, not the copy.
    EXPECT_EQ(indexRequest(2, false)[3], 2u);
}

}  // namespace
