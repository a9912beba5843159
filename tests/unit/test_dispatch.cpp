// Control messages as their senders see them: which are answered and with what status, and what the
// configuration commands leave behind: the stored lines, the IFM's port notices, the DHCPv6 trap.
#include <map>
#include <random>
#include <set>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using Bytes = std::vector<uint8_t>;

// A message with 32-bit words from `at` on and, at `lineAt`, a configuration line cut to its 281-byte field.
Bytes with(Bytes m, size_t at, std::vector<uint32_t> words, size_t lineAt = 0, const std::string& line = "") {
    for (size_t i = 0; i < words.size(); ++i) qor::putU32(m, at + 4 * i, words[i]);
    qor::putBytes(m, lineAt, line.data(), std::min<size_t>(line.size(), 281));
    return m;
}
Bytes ifSource(uint32_t client, uint32_t op, uint32_t source, const std::string& line) {
    return with(cmdMsg(DHCP_IF_SOURCE_INTERFACE, 373), 80, {client, op, source}, 92, line);
}

using Dispatch = RelayFixture;

// Each message's debug text and its answer: the request with a status written, kAsSent (the request
// as it came) or kSilent (none). Unknown types get 0 so that no sender hangs; unknown commands and a
// message too short for its command word get nothing; a repeated acknowledgement frees nothing. A
// role change (here to the standby) registers with the MRTM again. An event notice is answered
// first; only agent-gone for a known slot (the last row) then clears the agent tables.
TEST_F(Dispatch, EachMessageIsAnsweredOnceOrNotAtAll) {
    constexpr int32_t kSilent = -100, kAsSent = -101;
    const int acl = dhcpv6RelayGlobalVar.aclSwpQueue;
    for (int i = 0; i < 2; ++i) ASSERT_EQ(qorSwpEnqueue(acl, qorSwpAllocBlock(acl, 200), 200), 0);
    const auto pending = qorfake::swpPending(acl);
    dhcpv6AgtTbl[3] = {3, 1, 0};
    dhcpv6SwAgtTbl[3] = {3, 1, 0x40009};
    const auto notice = [](uint32_t code, uint32_t slot) { return with(typeMsg(MT_DHCPV6_EVENT_NOTIF, 72), 64, {code, slot}); };
    const std::tuple<Bytes, std::string, int32_t> rows[] = {
        {typeMsg(46405, 100), "Default case \r", 0}, {cmdMsg(7, 700), "", kSilent}, {cmdMsg(11, 700, MT_DHCPV6_CMD_2), "", kSilent},
        {typeMsg(MT_DHCPV6_CMD, QOR_IPC_OFF_COMMAND + 2), "", kSilent}, {typeMsg(MT_HA_CONTROL, 64), "case : MT_HA_CONTROL \r", kSilent},
        {qorfake::swpAck(acl, pending.at(0).seq), "case : MT_SWP_ACK \r", kSilent},
        {qorfake::swpAck(acl, pending[0].seq), "case : MT_SWP_ACK \r", kSilent}, {qorfake::swpAck(acl, pending.at(1).seq), "case : MT_SWP_ACK \r", kSilent},
        {typeMsg(MT_DHCPV6_LEASEIP_SYNC, 240), "case MT_DHCPV6_LEASEIP_SYNC \r", kSilent},
        {typeMsg(MT_DHCPV6_SNOOP_SYNC_INIT, 124), "snooping not enabled.\rMT_DHCPV6_SNOOP_SYNC_INIT \r", kSilent},  // file first
        {typeMsg(MT_DHCPV6AGT_REG_WITH_MGR, 92), "DHCPv6RelayMgr :MT_DHCPV6AGT_REG_WITH_MGR case\r", kSilent},
        {typeMsg(MT_DHCPV6_CLIENT_REG, 100), "", kSilent}, {typeMsg(MT_DHCPV6_INIT_COMPLETE, 64), "DHCPV6 Snooping not enabled\r", kSilent},
        {typeMsg(MT_RTM6_CLR_ROUTE, 177), "case : MT_RTM6_CLR_ROUTE \r", kSilent}, {notice(0x118013, 3), "", kAsSent},
        {notice(DHCPV6_EVT_AGENT_GONE, ~0u), "", kAsSent}, {notice(DHCPV6_EVT_AGENT_GONE, 3), "", kAsSent}};
    for (size_t i = 0; i < std::size(rows); ++i) {
        const auto& [m, text, want] = rows[i];
        SCOPED_TRACE(::testing::Message() << "type " << qor::u32At(m, QOR_IPC_OFF_TYPE) << ", command " << qor::u32At(m, 72));
        auto sent = want == kAsSent ? m : with(m, QOR_IPC_OFF_STATUS, {0x5A5A5A5A});  // a status no handler writes
        qorHaSetPrimary(qor::u32At(m, QOR_IPC_OFF_TYPE) != MT_HA_CONTROL);
        markCalls();
        EXPECT_EQ(debugOf(DHCPV6_DBG_EVENT | DHCPV6_DBG_SNOOP, [&] { dispatch(sent); }), text);
        std::vector<Bytes> replies, wantReplies;
        for (const auto& c : since("qorIpcReply")) replies.push_back(c.bytes);
        if (want != kSilent) wantReplies.push_back(want == kAsSent ? m : with(m, QOR_IPC_OFF_STATUS, {uint32_t(want)}));
        EXPECT_EQ(replies, wantReplies);
        EXPECT_EQ(dhcpv6SwAgtTbl[3].inUse + dhcpv6AgtTbl[3].inUse, i + 1 < std::size(rows) ? 2u : 0u);
    }
    EXPECT_EQ(since("")[0].name, "qorIpcReply") << "answered before the agent's queue goes";
    EXPECT_EQ(since("qorSwpQueueRemove").at(0).ints[0], 0x40009);
    EXPECT_EQ(qorSwpQueueDepth(acl), 0);
    EXPECT_EQ(qorfake::swpPending(dhcpv6RelayGlobalVar.mrtmSwpQueue).size(), 1u) << "an index request to the MRTM";
    EXPECT_EQ(dhcpv6IsInitComplete, 1);
}

// Every command of both command types is answered once, with the command and a
// status; a body one byte short of its fields is refused with -1 and changes nothing.
TEST_F(Dispatch, EveryCommandIsAnsweredOnceAndOneByteShortIsRefused) {
    constexpr int32_t kAny = 99;  // the snooping handlers' own status
    const std::tuple<uint32_t, size_t, int32_t> commands[] = {
        {DHCP_SOURCE_INTERFACE, 369, 0}, {DHCP_IF_SOURCE_INTERFACE, 373, 0}, {DHCP_RELAYADDR_CONFIG, 652, 0},
        {DHCP_LOG_LEVEL, 88, 0}, {DHCP_SNOOP_CLEAR_BINDING, 76, 0}, {DHCP_SNOOP_WRITE_DB, 76, 0}, {DHCP_SNOOP_LOAD_DB, 76, -1},
        {DHCP_SNOOP_CONFIG, 436, kAny}, {DHCP_SNOOP_TRUST, 96, kAny}, {DHCP_SHOW_SNOOPING, 76, kAny}, {DHCP_SHOW_TRUST, 76, kAny},
        {DHCP_SHOW_SNOOP_VLANS, 76, kAny}, {DHCP_SHOW_BINDING, 76, kAny}, {DHCP_SHOW_BINDING_COUNT, 76, kAny}};
    for (uint32_t type : {MT_DHCPV6_CMD, MT_DHCPV6_CMD_2})
        for (const auto& [cmd, length, want] : commands) {  // level 6 at 84 for the log-level command; 'ZZZZ', a status no handler writes
            const int32_t got = status(with(cmdMsg(cmd, length, type), 84, {6}, QOR_IPC_OFF_STATUS, "ZZZZ"));
            EXPECT_EQ(qor::u32At(since("qorIpcReply").back().bytes, QOR_IPC_OFF_COMMAND), cmd);
            EXPECT_TRUE(want == kAny ? got != 0x5A5A5A5A : got == want) << cmd << " answered " << got;
        }
    for (const auto& [cmd, length, want] : std::span(commands, 4))  // "add" / "set" of VLAN 10, one byte short
        EXPECT_EQ(status(with(cmdMsg(cmd, length - 1), 80, {1, cmd == DHCP_LOG_LEVEL ? 6 : vlanIf(10)})), -1) << cmd;
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(since("qorCfgInsert").empty() && since("qorPortCfgNotif").empty());
}

// Levels 1-7 and 24 set the event log's severity mask; others are refused and
// change nothing. Switch 1 records the debugging line (identifier 366, no key), 2 removes it.
TEST_F(Dispatch, LogLevelSetsTheSeverityMaskAndRecordsTheDebuggingLine) {
    const auto level = [](uint32_t debugSwitch, uint32_t value) { return with(cmdMsg(DHCP_LOG_LEVEL, 88), 80, {debugSwitch, value}); };
    for (const auto& [value, want, mask] : {std::tuple{0u, -1, 0x7Fu}, {8u, -1, 0x7Fu}, {23u, -1, 0x7Fu}, {25u, -1, 0x7Fu},
                                            {~0u, -1, 0x7Fu}, {1u, 0, 0x3u}, {7u, 0, 0xFFu}, {24u, 0, 0x1FFFFFFu}}) {
        dhcpv6RelayGlobalVar.debugOn = 1;
        EXPECT_EQ(status(level(0, value)), want) << value;
        EXPECT_EQ(qorEvtGetSeverityLevel(dhcpv6RelayGlobalVar.evtLogHandle), mask) << value;
        EXPECT_EQ(dhcpv6RelayGlobalVar.debugOn, want != 0) << value;
    }
    EXPECT_EQ(status(level(1, 6)), 0);
    const auto rec = since("qorCfgInsert").at(0).bytes;
    EXPECT_EQ(std::tuple(rec.size(), qor::u32At(rec, 256), qor::u32At(rec, 264)), std::tuple(552u, 366u, 0u));
    EXPECT_EQ(textAt(rec, 268), "DHCPv6RelayMgr: \r\n DHCPv6 debugging is on");
    EXPECT_EQ(status(level(2, 6)), 0);
    EXPECT_EQ(qor::u32At(since("qorCfgRemoveExact").at(0).bytes, 256), 366u);
    EXPECT_TRUE(qorfake::cfgLines().empty());
}

// Random helper and source-interface commands on two VLANs against a model:
// after each, the stored lines, the relay interfaces, the IFM's port notices
// and the DHCPv6 trap follow. Snooping, once on, keeps the trap to itself.
TEST_F(Dispatch, HelperAndSourceInterfaceCommandsFollowAModel) {
    std::set<std::tuple<uint32_t, uint32_t, std::string>> helpers;  // (VLAN, VRF id, address)
    std::map<uint32_t, uint32_t> sources;                           // VLAN (0: the system's) -> source VLAN
    const auto helpersOn = [&](uint32_t v) { return std::count_if(helpers.begin(), helpers.end(), [&](auto& h) { return std::get<0>(h) == v; }); };
    auto& g = dhcpv6RelayGlobalVar;
    std::mt19937 rng(7);
    bool trap = false;
    for (int step = 0; step < 500; ++step) {
        SCOPED_TRACE(step);
        g.snoopingEnabled |= step >= 300 && relayv6Head == nullptr;  // from then on mostly removals, until none relays
        const uint32_t vlan = rng() % 2 ? 10 : 20, vrf = rng() % 2 ? 7 : 0, op = rng() % (step < 300 ? 2 : 4) == 0, kind = rng() % 6;
        const std::string addr = rng() % 2 ? "2001:db8::5" : "2001:db8::6", line = "ipv6 dhcp relay source-interface vlan ";
        const bool nodeBefore = relayv6Lookup(vlanIf(vlan)) != nullptr;
        markCalls();
        std::vector<Bytes> notices, wantNotices;  // a helper's new interface says 0 at 68, no helper left says 1
        if (kind < 4) {
            EXPECT_EQ(status(helperCmd(op, vlanIf(vlan), addr.c_str(), vrf, vrf ? "red" : "")), 0);
            op ? (void)helpers.insert({vlan, vrf, addr}) : (void)helpers.erase({vlan, vrf, addr});
            if (op ? !nodeBefore : nodeBefore && helpersOn(vlan) == 0)
                wantNotices.push_back(with(Bytes(132, 0), 64, {vlanIf(vlan), op ? 0u : 0x01000000u, 0, 0x2000}));
        } else {
            const uint32_t client = kind == 4 ? vlan : 0;  // 0: the system-wide source interface
            const std::string text = line + std::to_string(vlan + 30);
            EXPECT_EQ(status(client ? ifSource(vlanIf(client), op, vlanIf(vlan + 30), " " + text)
                                    : with(cmdMsg(DHCP_SOURCE_INTERFACE, 369), 80, {op, vlanIf(vlan + 30)}, 88, text)), 0);
            op ? (void)(sources[client] = vlan + 30) : (void)sources.erase(client);
        }
        for (const auto& c : since("qorPortCfgNotif")) notices.push_back(c.bytes);
        EXPECT_EQ(notices, wantNotices);
        std::vector<std::string> want, got = qorfake::cfgLines();
        for (const auto& [v, id, a] : helpers) want.push_back((id ? " ipv6 helper-address vrf red " : " ipv6 helper-address ") + a);
        for (const auto& [v, s] : sources) want.push_back((v ? " " : "") + line + std::to_string(s));
        EXPECT_EQ(std::multiset(got.begin(), got.end()), std::multiset(want.begin(), want.end()));
        EXPECT_EQ(g.srcIfIndex, sources.count(0) ? vlanIf(sources[0]) : 0);
        for (uint32_t v : {10u, 20u}) {
            const relayv6IntfNode* node = relayv6Lookup(vlanIf(v));
            const uint32_t flags = (helpersOn(v) ? RELAYV6_FLAG_HELPERS : 0) | (sources.count(v) ? RELAYV6_FLAG_SRC_INTF : 0);
            EXPECT_EQ(node ? std::pair(node->flags, node->srcIfIndex) : std::pair(0u, 0u), std::pair(flags, sources.count(v) ? vlanIf(sources[v]) : 0));
        }
        for (const auto& c : since("iAclEnableSysFlowProtocolEntries")) {  // switched, never switched again
            EXPECT_FALSE(g.snoopingEnabled);
            EXPECT_EQ(c.ints, (std::vector<int64_t>{30, 0, 0, g.instanceId, g.taskKey, 2, !trap, g.aclSwpQueue}));
            trap = !trap;
        }
        EXPECT_TRUE(g.snoopingEnabled || trap == (relayv6Head != nullptr));
    }
    EXPECT_TRUE(g.snoopingEnabled);
}

// Only an IFM notification in sequence is acted on (the SWP layer acknowledges
// it, nobody answers); a deleted interface is forgotten without a notice or a line.
TEST_F(Dispatch, InOrderIfmDeletionForgetsTheInterfaceButNotItsConfiguration) {
    ASSERT_EQ(status(helperCmd(1, vlanIf(10), "2001:db8::5")) + status(ifSource(vlanIf(20), 1, vlanIf(40), " x")), 0);
    markCalls();
    for (const auto& [vlan, verdict] :
         {std::pair{10u, QOR_SWP_DUPLICATE}, {10u, QOR_SWP_OUT_OF_ORDER}, {10u, QOR_SWP_IN_ORDER}, {20u, QOR_SWP_IN_ORDER}}) {
        qorfake::setNextResult("qorSwpCkSeqAndAck", verdict);
        auto m = ifmDeleteNotice(vlanIf(vlan));
        dispatch(m);
        EXPECT_EQ(since("qorSwpCkSeqAndAck").back().ints[0], dhcpv6RelayGlobalVar.dhcpv6RelayreqQfd);
        EXPECT_EQ(relayv6Lookup(vlanIf(vlan)) == nullptr, verdict == QOR_SWP_IN_ORDER) << verdict;
    }
    for (const char* name : {"qorIpcReply", "qorPortCfgNotif", "qorCfgRemoveExact", "qorCfgSync"}) EXPECT_TRUE(since(name).empty()) << name;
    EXPECT_EQ(since("iAclEnableSysFlowProtocolEntries").at(0).ints[6], 0) << "the trap goes with the last interface";
    EXPECT_EQ(qorfake::cfgLines().size(), 2u);
}

}  // namespace
