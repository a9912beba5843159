// The control-message dispatcher as its senders see it: which messages are
// answered and with what status, which are not, what the log-level command
// writes into the running configuration, and the debug lines an operator reads.
#include <algorithm>
#include <tuple>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

constexpr uint32_t kSentinelStatus = 0x5A5A5A5A;
constexpr uint32_t kMinusOne = 0xFFFFFFFF;

class Dispatch : public RelayFixture {
protected:
    std::string run(std::vector<uint8_t>& m) {
        CaptureStdout();
        dispatch(m);
        return GetCapturedStdout();
    }
    // The log-level command with its switch and level.
    static std::vector<uint8_t> logLevel(uint32_t debugSwitch, uint32_t level) {
        auto m = cmdMsg(DHCP_LOG_LEVEL, DHCPV6_LOG_MSG_LEN);
        qor::putU32(m, DHCPV6_LOG_OFF_DEBUG_SWITCH, debugSwitch);
        qor::putU32(m, DHCPV6_LOG_OFF_LEVEL, level);
        return m;
    }
};

TEST_F(Dispatch, NullMessageIsRefusedAndEntryIsTracedUnderTheDetailBit) {
    EXPECT_EQ(dhcpv6RelayProcCliCmd(dhcpv6Msg()), -1);
    EXPECT_TRUE(replies().empty());
    dhcpv6_debug_flag = DHCPV6_DBG_DETAIL;
    auto m = typeMsg(MT_DHCPV6_TRANS_SYNC, 232);
    EXPECT_EQ(run(m), "DHCPv6RelayMgr : Inside dhcpv6RelayProcCliCmd \r");
}

// An unknown type is answered with status 0 so that no sender hangs; an
// unknown command, or a command message too short for its command word, is
// not answered at all, and nothing else is touched.
TEST_F(Dispatch, UnknownTypeIsAnsweredWithZeroAndUnknownCommandNotAtAll) {
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    for (uint32_t type : {46405u, 46406u, 0u, 403u, 2807u, 46414u, 99999u}) {
        markCalls();
        auto m = typeMsg(type, 100);
        qor::putU32(m, QOR_IPC_OFF_STATUS, kSentinelStatus);
        EXPECT_EQ(run(m), "Default case \r") << type;
        const auto r = replies();
        ASSERT_EQ(r.size(), 1u) << type;
        EXPECT_EQ(r[0].size(), 100u) << "the reply is as long as the request says";
        EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_STATUS), 0u);
        EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_TYPE), type);
    }
    const std::pair<uint32_t, uint32_t> commands[] = {{MT_DHCPV6_CMD, 7},   {MT_DHCPV6_CMD, 11},
                                                      {MT_DHCPV6_CMD_2, 7}, {MT_DHCPV6_CMD_2, 11},
                                                      {MT_DHCPV6_CMD, 0},   {MT_DHCPV6_CMD, 40032},
                                                      {MT_DHCPV6_CMD_2, 100260}};
    for (const auto& [type, command] : commands) {
        markCalls();
        auto m = cmdMsg(command, 700, type);
        EXPECT_EQ(run(m), "") << type << " " << command;
        EXPECT_TRUE(callNamesSince().empty()) << type << " " << command;
    }
    auto cut = typeMsg(MT_DHCPV6_CMD, QOR_IPC_OFF_COMMAND + 2);
    dispatch(cut);
    EXPECT_TRUE(replies().empty());
}

struct AnsweredCase {
    uint32_t command;
    size_t length;
    bool statusKnown;  // the status is the contract of the relay itself
    uint32_t status;
    const char* name;
};
void PrintTo(const AnsweredCase& c, std::ostream* os) { *os << c.name; }

class AnsweredCommand : public Dispatch, public ::testing::WithParamInterface<std::tuple<AnsweredCase, uint32_t>> {};

TEST_P(AnsweredCommand, IsAnsweredOnceWithTheRequestAndItsStatus) {
    const auto& [c, type] = GetParam();
    auto m = cmdMsg(c.command, c.length, type);
    qor::putU32(m, DHCPV6_LOG_OFF_LEVEL, 6);  // a level the log-level command accepts
    qor::putU32(m, QOR_IPC_OFF_STATUS, kSentinelStatus);
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u) << c.name;
    EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_TYPE), type);
    EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_COMMAND), c.command);
    EXPECT_NE(qor::u32At(r[0], QOR_IPC_OFF_STATUS), kSentinelStatus) << "a status was written";
    if (c.statusKnown) {
        EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_STATUS), c.status) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    EveryAnsweredRow, AnsweredCommand,
    ::testing::Combine(
        ::testing::Values(
            AnsweredCase{DHCP_SOURCE_INTERFACE, DHCPV6_SRC_MSG_LEN, true, 0, "source interface"},
            AnsweredCase{DHCP_IF_SOURCE_INTERFACE, DHCPV6_IFSRC_MSG_LEN, true, 0, "interface source interface"},
            AnsweredCase{DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN, true, 0,
                         "helper removal on an unconfigured interface"},
            AnsweredCase{DHCP_LOG_LEVEL, DHCPV6_LOG_MSG_LEN, true, 0, "log level"},
            AnsweredCase{DHCP_SNOOP_CLEAR_BINDING, 76, true, 0, "clear bindings: none exist"},
            AnsweredCase{DHCP_SNOOP_WRITE_DB, 76, true, 0, "write file: snooping is off"},
            AnsweredCase{DHCP_SNOOP_LOAD_DB, 76, true, kMinusOne, "load file: snooping is off"},
            AnsweredCase{DHCP_SNOOP_CONFIG, 436, false, 0, "snooping configuration"},
            AnsweredCase{DHCP_SNOOP_TRUST, 96, false, 0, "snooping trust"},
            AnsweredCase{DHCP_SHOW_SNOOPING, 76, false, 0, "show snooping"},
            AnsweredCase{DHCP_SHOW_TRUST, 76, false, 0, "show trust"},
            AnsweredCase{DHCP_SHOW_SNOOP_VLANS, 76, false, 0, "show snooped VLANs"},
            AnsweredCase{DHCP_SHOW_BINDING, 76, false, 0, "show bindings"},
            AnsweredCase{DHCP_SHOW_BINDING_COUNT, 76, false, 0, "show binding count"}),
        ::testing::Values(MT_DHCPV6_CMD, MT_DHCPV6_CMD_2)));

class ShortCommand : public Dispatch, public ::testing::WithParamInterface<std::pair<uint32_t, size_t>> {};

TEST_P(ShortCommand, OneByteShortIsRefusedWithMinusOneAndChangesNothing) {
    auto m = cmdMsg(GetParam().first, GetParam().second - 1);
    qor::putU32(m, 80, 1);  // "add" / "set" where the command has an operation
    qor::putU32(m, 84, vlanIf(10));
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_STATUS), kMinusOne);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(since("qorCfgInsert").empty());
    EXPECT_TRUE(since("qorPortCfgNotif").empty());
}

INSTANTIATE_TEST_SUITE_P(BodiesShorterThanTheirFields, ShortCommand,
                         ::testing::Values(std::pair<uint32_t, size_t>{DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN},
                                           std::pair<uint32_t, size_t>{DHCP_SOURCE_INTERFACE, DHCPV6_SRC_MSG_LEN},
                                           std::pair<uint32_t, size_t>{DHCP_IF_SOURCE_INTERFACE,
                                                                       DHCPV6_IFSRC_MSG_LEN},
                                           std::pair<uint32_t, size_t>{DHCP_LOG_LEVEL, DHCPV6_LOG_MSG_LEN}));

TEST_F(Dispatch, CaseLinesOfTheRelayCommandsArePrinted) {
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    auto relay = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
    qor::putU32(relay, DHCPV6_RLY_OFF_OPERATION, 2);
    EXPECT_EQ(run(relay), "case : DHCP_RELAYADDR_CONFIG \rHELPERv6 DELETE ENTRY \r");
    auto level = logLevel(0, 6);
    EXPECT_EQ(run(level), "case : DHCP_LOG_LEVEL \r");
}

// (level, status, the event log's severity mask afterwards)
class LogLevel : public Dispatch, public ::testing::WithParamInterface<std::tuple<uint32_t, int32_t, uint32_t>> {};

TEST_P(LogLevel, SetsTheSeverityMaskOrRefusesTheLevel) {
    const auto [level, status, mask] = GetParam();
    dhcpv6RelayGlobalVar.debugOn = 1;  // a refused level must leave it as it is
    auto m = logLevel(0, level);
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(int32_t(qor::u32At(r[0], QOR_IPC_OFF_STATUS)), status);
    EXPECT_EQ(qorEvtGetSeverityLevel(dhcpv6RelayGlobalVar.evtLogHandle), mask);
    EXPECT_EQ(dhcpv6RelayGlobalVar.debugOn, status != 0 ? 1 : 0);
    if (status != 0) {
        EXPECT_TRUE(since("qorCfgInsert").empty());
        EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Levels, LogLevel,
                         ::testing::Values(std::make_tuple(0u, -1, 0x7Fu), std::make_tuple(8u, -1, 0x7Fu),
                                           std::make_tuple(23u, -1, 0x7Fu), std::make_tuple(25u, -1, 0x7Fu),
                                           std::make_tuple(0xFFFFFFFFu, -1, 0x7Fu), std::make_tuple(1u, 0, 0x3u),
                                           std::make_tuple(6u, 0, 0x7Fu), std::make_tuple(7u, 0, 0xFFu),
                                           std::make_tuple(24u, 0, 0x1FFFFFFu)));

TEST_F(Dispatch, DebuggingOnLineIsRecordedAndRemoved) {
    auto on = logLevel(1, 24);
    dispatch(on);
    const auto inserts = since("qorCfgInsert");
    ASSERT_EQ(inserts.size(), 1u);
    const auto& rec = inserts[0].bytes;
    ASSERT_EQ(rec.size(), QOR_CFG_RECORD_LEN);
    EXPECT_EQ(qor::u32At(rec, 256), 366u);
    EXPECT_EQ(qor::u32At(rec, 264), 0u) << "the line has no key";
    EXPECT_EQ(std::vector<uint8_t>(rec.begin(), rec.begin() + 256), std::vector<uint8_t>(256, 0));
    EXPECT_EQ(textAt(rec, 268), "DHCPv6RelayMgr: \r\n DHCPv6 debugging is on");
    EXPECT_EQ(dhcpv6RelayGlobalVar.debugOn, 1);
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{DHCPV6_DEBUG_ON_LINE});

    auto off = logLevel(2, 6);
    dispatch(off);
    const auto removals = since("qorCfgRemoveExact");
    ASSERT_EQ(removals.size(), 1u);
    EXPECT_EQ(qor::u32At(removals[0].bytes, 256), 366u);
    EXPECT_EQ(textAt(removals[0].bytes, 268), "");
    EXPECT_EQ(dhcpv6RelayGlobalVar.debugOn, 0);
    EXPECT_TRUE(qorfake::cfgLines().empty());
}

TEST_F(Dispatch, DebugFlagCommandSetsTheSwitchesAndAnswersWithThem) {
    auto m = typeMsg(MT_DHCPV6_SET_DEBUG_FLAG, DHCPV6_DBGFLAG_MSG_LEN);
    qor::putU32(m, DHCPV6_DBGFLAG_OFF_VALUE, DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT);
    qor::putU32(m, QOR_IPC_OFF_STATUS, kSentinelStatus);
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(qor::u32At(r[0], QOR_IPC_OFF_STATUS), 0u);
    EXPECT_EQ(qor::u32At(r[0], DHCPV6_DBGFLAG_OFF_CURRENT), DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT);
    auto unknown = typeMsg(46405, 80);
    EXPECT_EQ(run(unknown), "Default case \r") << "the new switches are in force";
}

TEST_F(Dispatch, SwpAckFreesTheAcknowledgedBlockAndNothingElse) {
    const int q = dhcpv6RelayGlobalVar.aclSwpQueue;
    for (int i = 0; i < 2; ++i) {
        void* block = qorSwpAllocBlock(q, 200);
        ASSERT_NE(block, nullptr);
        ASSERT_EQ(qorSwpEnqueue(q, block, 200), 0);
    }
    ASSERT_EQ(qorMemVarLiveCount(DHCPV6_MEM_MODULE), 2u);
    const auto pending = qorfake::swpPending(q);
    ASSERT_EQ(pending.size(), 2u);
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    auto ack = qorfake::swpAck(q, pending[0].seq);
    EXPECT_EQ(run(ack), "case : MT_SWP_ACK \r");
    EXPECT_EQ(qorMemVarLiveCount(DHCPV6_MEM_MODULE), 1u);
    EXPECT_EQ(qorSwpQueueDepth(q), 1);
    EXPECT_TRUE(replies().empty()) << "an acknowledgement is not answered";
    auto again = qorfake::swpAck(q, pending[0].seq);
    dispatch(again);
    EXPECT_EQ(qorMemVarLiveCount(DHCPV6_MEM_MODULE), 1u) << "a repeated ack frees nothing";
    auto last = qorfake::swpAck(q, pending[1].seq);
    dispatch(last);
    EXPECT_EQ(qorMemVarLiveCount(DHCPV6_MEM_MODULE), 0u);
}

// Peer sync, agents and peers' notices are handled without an answer; the
// texts are printed under the event bit.
TEST_F(Dispatch, SilentTypesAreHandledWithoutAnAnswer) {
    const struct {
        uint32_t type;
        size_t length;
        const char* text;
    } cases[] = {{MT_DHCPV6_TRANS_SYNC, 232, "case MT_DHCPV6_TRANS_SYNC \r"},
                 {MT_DHCPV6_TRANS_SYNC_INIT, 232, "case MT_DHCPV6_TRANS_SYNC_INIT \r"},
                 {MT_DHCPV6_LEASEIP_SYNC, 240, "case MT_DHCPV6_LEASEIP_SYNC \r"},
                 {MT_DHCPV6_LEASEIP_SYNC_INIT, 240, "case MT_DHCPV6_LEASEIP_SYNC_INIT \r"},
                 {MT_DHCPV6_SNOOP_SYNC, 124, "case MT_DHCPV6_SNOOP_SYNC \r"},
                 {MT_DHCPV6_SNOOP_SYNC_INIT, 124, "MT_DHCPV6_SNOOP_SYNC_INIT \r"},
                 {MT_DHCPV6AGT_REG_WITH_MGR, 92, "DHCPv6RelayMgr :MT_DHCPV6AGT_REG_WITH_MGR case\r"},
                 {MT_DHCPV6_SNOOP_TBL_PUSH, 424, ""},
                 {MT_DHCPV6_SNOOP_TBL_UPDATE, 424, ""},
                 {MT_DHCPV6_CLIENT_REG, 100, ""},
                 {MT_DHCPV6_INIT_COMPLETE, 64, ""},
                 {MT_RTM6_CLR_ROUTE, 177, "case : MT_RTM6_CLR_ROUTE \r"},
                 {MT_IFM_NOTIF_MSG, 140, "case : MT_IFM_NOTIF_MSG \r"},
                 {MT_MRTM_MCIDX_RESP, 168, ""}};
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    for (const auto& c : cases) {
        auto m = typeMsg(c.type, c.length);
        EXPECT_EQ(run(m), c.text) << "type " << c.type;
    }
    EXPECT_TRUE(replies().empty());
}

TEST_F(Dispatch, SnoopSyncInitAndInitCompleteTryTheBindingFileFirst) {
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT | DHCPV6_DBG_SNOOP;
    auto sync = typeMsg(MT_DHCPV6_SNOOP_SYNC_INIT, 124);
    // The file step reports first (snooping is off), then the peer push.
    EXPECT_EQ(run(sync), "snooping not enabled.\rMT_DHCPV6_SNOOP_SYNC_INIT \r");
    dhcpv6_debug_flag = DHCPV6_DBG_SNOOP;
    auto done = typeMsg(MT_DHCPV6_INIT_COMPLETE, 64);
    EXPECT_EQ(run(done), "DHCPV6 Snooping not enabled\r");
    EXPECT_EQ(dhcpv6IsInitComplete, 1);
}

class HaControl : public Dispatch, public ::testing::WithParamInterface<bool> {};

TEST_P(HaControl, EveryRoleChangeRegistersWithTheMrtmAgain) {
    qorHaSetPrimary(GetParam());
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    auto m = typeMsg(MT_HA_CONTROL, 64);
    EXPECT_EQ(run(m), "case : MT_HA_CONTROL \r");
    EXPECT_EQ(since("mrtmapiIpcSendAndRecv").size(), 1u);
    const int firstQueue = dhcpv6RelayGlobalVar.mrtmSwpQueue;
    const auto requests = qorfake::swpPending(firstQueue);
    ASSERT_EQ(requests.size(), 1u) << "a new index request";
    EXPECT_EQ(qor::u32At(requests[0].bytes, QOR_IPC_OFF_TYPE), 15672u);
    EXPECT_TRUE(replies().empty());
    // The next role change replaces that queue and its waiting request.
    run(m);
    EXPECT_EQ(since("mrtmapiIpcSendAndRecv").size(), 2u);
    EXPECT_EQ(qorSwpQueueDepth(firstQueue), -1) << "the old queue is gone";
    EXPECT_EQ(qorfake::swpPending(dhcpv6RelayGlobalVar.mrtmSwpQueue).size(), 1u);
    EXPECT_EQ(qorMemVarLiveCount(DHCPV6_MEM_MODULE), 1u) << "one request block, not two";
}

INSTANTIATE_TEST_SUITE_P(PrimaryAndStandby, HaControl, ::testing::Bool());

TEST_F(Dispatch, EventNoticeIsAnsweredByItsHandlerBeforeTheAgentTablesChange) {
    dhcpv6AgtTbl[3] = {3, 1, 0};
    dhcpv6SwAgtTbl[3] = {3, 1, 0x40009};
    auto m = typeMsg(MT_DHCPV6_EVENT_NOTIF, 72);
    qor::putU32(m, DHCPV6_EVT_OFF_CODE, DHCPV6_EVT_AGENT_GONE);
    qor::putU32(m, DHCPV6_EVT_OFF_SLOT, 3);
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0], m) << "the notice itself goes back, as it came";
    const auto names = callNamesSince();
    const auto remove = std::find(names.begin(), names.end(), "qorSwpQueueRemove");
    ASSERT_NE(remove, names.end());
    EXPECT_LT(std::find(names.begin(), names.end(), "qorIpcReply"), remove);
    EXPECT_EQ(since("qorSwpQueueRemove")[0].ints[0], 0x40009);
    EXPECT_EQ(dhcpv6AgtTbl[3].inUse, 0u);
    EXPECT_EQ(dhcpv6SwAgtTbl[3].inUse, 0u);
}

TEST_F(Dispatch, OtherEventNoticesAndSlotsOutsideTheTablesAreOnlyAnswered) {
    dhcpv6AgtTbl[3] = {3, 1, 0};
    const std::pair<uint32_t, uint32_t> notices[] = {{0x118013, 3}, {DHCPV6_EVT_AGENT_GONE, 0xFFFFFFFF}};
    for (const auto& [code, slot] : notices) {
        auto m = typeMsg(MT_DHCPV6_EVENT_NOTIF, 72);
        qor::putU32(m, DHCPV6_EVT_OFF_CODE, code);
        qor::putU32(m, DHCPV6_EVT_OFF_SLOT, slot);
        dispatch(m);
    }
    EXPECT_EQ(replies().size(), 2u);
    EXPECT_EQ(dhcpv6AgtTbl[3].inUse, 1u);
    EXPECT_TRUE(since("qorSwpQueueRemove").empty());
}

TEST_F(Dispatch, IpAddressByMacIsAnsweredMinusOneWhileNoBindingExists) {
    auto m = typeMsg(MT_DHCPV6_SNOOPING_STATUS, 100);
    const uint8_t mac[6] = {0, 1, 2, 3, 4, 5};
    std::memcpy(m.data() + 60, mac, 6);
    std::memset(m.data() + 66, 0xEE, 16);  // stale answer bytes are cleared
    dispatch(m);
    const auto r = replies();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(qor::u32At(r[0], 84), kMinusOne);
    EXPECT_EQ(std::vector<uint8_t>(r[0].begin() + 66, r[0].begin() + 82), std::vector<uint8_t>(16, 0));
}

// (qorSwpCkSeqAndAck's answer, whether the notification is processed)
class IfmSequence : public Dispatch, public ::testing::WithParamInterface<std::pair<int, bool>> {};

TEST_P(IfmSequence, OnlyAnInOrderNotificationIsProcessed) {
    auto helper = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
    qor::putU32(helper, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(helper, DHCPV6_RLY_OFF_IFINDEX, vlanIf(10));
    helper[DHCPV6_RLY_OFF_ADDR] = 0x20;
    dispatch(helper);
    ASSERT_NE(relayv6Lookup(vlanIf(10)), nullptr);
    markCalls();
    qorfake::setNextResult("qorSwpCkSeqAndAck", GetParam().first);
    auto m = ifmDeleteNotice(vlanIf(10));
    dispatch(m);
    ASSERT_EQ(since("qorSwpCkSeqAndAck").size(), 1u);
    EXPECT_EQ(since("qorSwpCkSeqAndAck")[0].ints[0], dhcpv6RelayGlobalVar.dhcpv6RelayreqQfd);
    EXPECT_EQ(relayv6Lookup(vlanIf(10)) == nullptr, GetParam().second);
    EXPECT_TRUE(replies().empty()) << "the SWP layer acknowledges, nobody answers";
}

INSTANTIATE_TEST_SUITE_P(SequenceResults, IfmSequence,
                         ::testing::Values(std::pair{QOR_SWP_IN_ORDER, true}, std::pair{QOR_SWP_DUPLICATE, false},
                                           std::pair{QOR_SWP_OUT_OF_ORDER, false}));

}  // namespace
