// Dhcpv6RelayMgrCli.cpp -- control-message dispatch (by type, then by
// command), replies and synchronous requests, the log level, and the
// helper-address command.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/swp.h"

namespace {

constexpr const char* kUnit = "Dhcpv6RelayMgrCli";
constexpr int kLineAckFree = 729;
constexpr int kLineHelperAlloc = 129;
constexpr int kLineHelperFree = 161;

constexpr size_t kCommandEnd = QOR_IPC_OFF_COMMAND + 4;
constexpr size_t kTypeEnd = QOR_IPC_OFF_TYPE + 4;

// Minimum lengths of bodies whose layout another process defines.
constexpr size_t kIfmNotifMin = 132;        // TLV count at 128
constexpr size_t kRtmClearMin = 177;        // prefix at 161..176
constexpr size_t kMcidxRespMin = 164;       // index word 40
constexpr size_t kEventNotifMin = 72;       // code 64, slot 68
constexpr size_t kAgentRegMin = 92;         // instance at 88
constexpr size_t kSnoopStatusMin = 88;      // status at 84
constexpr size_t kSnoopConfigMin = 80 + 356;
constexpr size_t kSnoopTrustMin = 80 + 16;
constexpr size_t kTransSyncLen = 232;
constexpr size_t kLeaseSyncLen = 240;
constexpr size_t kSnoopSyncLen = 124;
constexpr size_t kSnoopPushLen = 424;

auto& g = dhcpv6RelayGlobalVar;

// ---- replies ----------------------------------------------------------------------------

enum class Reply {
    None,       // no answer (the handler answers, or nobody waits)
    Status,     // the handler's result in the status word, then the reply
    AsFilled,   // the handler filled the message; send it back
};

void replyWithStatus(dhcpv6Msg msg, int status) {
    if (!qor::putU32(msg, QOR_IPC_OFF_STATUS, uint32_t(status))) return;
    dhcpv6RelaySendReply(msg);
}

// ---- type handlers that are more than one call ----------------------------------------------

int swpAck(dhcpv6Msg msg) {
    void* block = nullptr;
    if (qorSwpDequeue(msg.data(), uint32_t(msg.size()), &block) == 0 && block != nullptr)
        qorMC_M_memBlockVarFree(kUnit, kLineAckFree, block);
    return 0;
}

int haControl(dhcpv6Msg msg) {
    dhcpv6ProcessHA(msg);
    // Every role change registers with the MRTM again.
    dhcpv6RelayMgrMrtmReg(1);
    return 0;
}

int initComplete(dhcpv6Msg) {
    dhcpv6IsInitComplete = 1;
    dhcpv6LoadSnoopTblFromFile();
    return 0;
}

int ifmNotif(dhcpv6Msg msg) {
    if (qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &g.ifmSwpSeq, g.dhcpv6RelayreqQfd) == 0)
        dhcpv6ProcessIfmTlvMessage(msg);
    return 0;
}

int mrtmMcidxResp(dhcpv6Msg msg) {
    const int rc =
        qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &g.mrtmSwpSeq, g.dhcpv6RelayreqQfd);
    if (rc == QOR_SWP_IN_ORDER)
        dhcpv6MrtmMcidxResp(msg);
    else if (rc != QOR_SWP_DUPLICATE && dhcpv6Dbg(DHCPV6_DBG_EVENT))
        printf("SWP_FAILURE_SEQ \r");
    return 0;
}

int snoopSyncInit(dhcpv6Msg) {
    // The file is written before the table goes to the peer.
    dhcpv6SaveFileWriteSnoopTbl();
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("MT_DHCPV6_SNOOP_SYNC_INIT \r");
    dhcpv6SyncSnoopTblToPeer();
    return 0;
}

int snoopTblPush(dhcpv6Msg msg) {
    dhcpv6HandleSnoopTblPush(msg);
    dhcpv6SaveSnoopdbEntry();
    return 0;
}

// The project's own command: the debug switches are set from outside, the
// switch OS's way of doing it (a debugger hook) having no Linux equivalent.
int setDebugFlag(dhcpv6Msg msg) {
    dhcpv6_debug_flag = qor::u32At(msg, DHCPV6_DBGFLAG_OFF_VALUE);
    qor::putU32(msg, DHCPV6_DBGFLAG_OFF_CURRENT, dhcpv6_debug_flag);
    return 0;
}

struct TypeRow {
    uint32_t type;
    const char* text;      // printed under DHCPV6_DBG_EVENT before the handler; may be null
    size_t minLen;
    int (*handler)(dhcpv6Msg);
    Reply reply;
};

constexpr std::array kTypeRows = {
    TypeRow{MT_SWP_ACK, "case : MT_SWP_ACK \r", QOR_IPC_HDR_LEN, swpAck, Reply::None},
    TypeRow{MT_HA_CONTROL, "case : MT_HA_CONTROL \r", kTypeEnd, haControl, Reply::None},
    TypeRow{MT_DHCPV6_EVENT_NOTIF, nullptr, kEventNotifMin, dhcpv6ProcessEventNotif, Reply::None},
    TypeRow{MT_DHCPV6_INIT_COMPLETE, nullptr, kTypeEnd, initComplete, Reply::None},
    TypeRow{MT_IFM_NOTIF_MSG, "case : MT_IFM_NOTIF_MSG \r", kIfmNotifMin, ifmNotif, Reply::None},
    TypeRow{MT_RTM6_CLR_ROUTE, "case : MT_RTM6_CLR_ROUTE \r", kRtmClearMin, dhcpv6HandleClearRoute,
            Reply::None},
    TypeRow{MT_MRTM_MCIDX_RESP, nullptr, kMcidxRespMin, mrtmMcidxResp, Reply::None},
    TypeRow{MT_DHCPV6_TRANS_SYNC, "case MT_DHCPV6_TRANS_SYNC \r", kTransSyncLen,
            dhcpv6TransTblHandlePeerSync, Reply::None},
    TypeRow{MT_DHCPV6_TRANS_SYNC_INIT, "case MT_DHCPV6_TRANS_SYNC_INIT \r", kTypeEnd,
            [](dhcpv6Msg) { return dhcpv6TransTblBulkSync(); }, Reply::None},
    TypeRow{MT_DHCPV6_LEASEIP_SYNC, "case MT_DHCPV6_LEASEIP_SYNC \r", kLeaseSyncLen,
            dhcpv6LeaseIpTblHandlePeerSync, Reply::None},
    TypeRow{MT_DHCPV6_LEASEIP_SYNC_INIT, "case MT_DHCPV6_LEASEIP_SYNC_INIT \r", kTypeEnd,
            [](dhcpv6Msg) { return dhcpv6LeaseIpBulkSync(); }, Reply::None},
    TypeRow{MT_DHCPV6_SNOOP_SYNC, "case MT_DHCPV6_SNOOP_SYNC \r", kSnoopSyncLen,
            dhcpv6SnoopTblHandlePeerSync, Reply::None},
    TypeRow{MT_DHCPV6_SNOOP_SYNC_INIT, nullptr, kTypeEnd, snoopSyncInit, Reply::None},
    TypeRow{MT_DHCPV6AGT_REG_WITH_MGR, "DHCPv6RelayMgr :MT_DHCPV6AGT_REG_WITH_MGR case\r",
            kAgentRegMin, dhcpv6RegisterAgent, Reply::None},
    TypeRow{MT_DHCPV6_SNOOP_TBL_PUSH, nullptr, kSnoopPushLen, snoopTblPush, Reply::None},
    TypeRow{MT_DHCPV6_SNOOP_TBL_UPDATE, nullptr, kTypeEnd,
            [](dhcpv6Msg) { return dhcpv6SaveFileWriteSnoopTbl(); }, Reply::None},
    TypeRow{MT_DHCPV6_CLIENT_REG, nullptr, kTypeEnd, dhcpv6RegisterClient, Reply::None},
    TypeRow{MT_DHCPV6_SNOOPING_STATUS, "case : MT_DHCPV6_SNOOPING_STATUS \r", kSnoopStatusMin,
            getSnoopIpv6EntryUsingMacAddr, Reply::None},
    TypeRow{MT_DHCPV6_SET_DEBUG_FLAG, nullptr, DHCPV6_DBGFLAG_MSG_LEN, setDebugFlag, Reply::Status},
};

// ---- command handlers ------------------------------------------------------------------------

void writeDbToPeer() {
    // The peer writes its own binding file too.
    std::array<uint8_t, kSnoopPushLen> record{};
    dhcpv6SendToPeer(MT_DHCPV6_SNOOP_TBL_UPDATE, record);
}

struct CommandRow {
    uint32_t command;
    const char* text;      // printed under DHCPV6_DBG_EVENT before the handler; may be null
    size_t minLen;
    int (*handler)(dhcpv6Msg);
    Reply reply;
    void (*afterReply)();  // may be null
};

constexpr std::array kCommandRows = {
    CommandRow{DHCP_SNOOP_CONFIG, nullptr, kSnoopConfigMin, dhcpv6SnoopingHandle, Reply::Status,
               nullptr},
    CommandRow{DHCP_SNOOP_TRUST, nullptr, kSnoopTrustMin, dhcpv6SnoopingTrustHandler,
               Reply::Status, nullptr},
    CommandRow{DHCP_SNOOP_CLEAR_BINDING, nullptr, kCommandEnd,
               [](dhcpv6Msg) { return dhcpv6ClearSnoopingBinding(0); }, Reply::Status, nullptr},
    CommandRow{DHCP_SNOOP_LOAD_DB, nullptr, kCommandEnd,
               [](dhcpv6Msg) { return dhcpv6LoadSnoopTblFromFile(); }, Reply::Status, nullptr},
    CommandRow{DHCP_SOURCE_INTERFACE, nullptr, DHCPV6_SRC_MSG_LEN, dhcpv6SourceInterface,
               Reply::Status, nullptr},
    CommandRow{DHCP_IF_SOURCE_INTERFACE, nullptr, DHCPV6_IFSRC_MSG_LEN, dhcpv6IfSourceInterface,
               Reply::Status, nullptr},
    CommandRow{DHCP_SNOOP_WRITE_DB, nullptr, kCommandEnd,
               [](dhcpv6Msg) { return dhcpv6SaveFileWriteSnoopTbl(); }, Reply::Status,
               writeDbToPeer},
    CommandRow{DHCP_RELAYADDR_CONFIG, "case : DHCP_RELAYADDR_CONFIG \r", DHCPV6_RLY_MSG_LEN,
               dhcpv6RlyHandle, Reply::Status, nullptr},
    CommandRow{DHCP_LOG_LEVEL, "case : DHCP_LOG_LEVEL \r", DHCPV6_LOG_MSG_LEN, dhcpv6RelayLogLevel,
               Reply::Status, nullptr},
    CommandRow{DHCP_SHOW_SNOOPING, nullptr, kCommandEnd, dhcpXmlProcCliDispIpv6DhcpSnoopingInfo,
               Reply::AsFilled, nullptr},
    CommandRow{DHCP_SHOW_TRUST, nullptr, kCommandEnd, dhcpXmlProcCliDispIpv6DhcpTrustInfo,
               Reply::AsFilled, nullptr},
    CommandRow{DHCP_SHOW_SNOOP_VLANS, nullptr, kCommandEnd,
               dhcpXmlProcCliDispIpv6DhcpSnoopEnabledVlans, Reply::AsFilled, nullptr},
    CommandRow{DHCP_SHOW_BINDING, nullptr, kCommandEnd, dhcpXmlProcCliDispIpv6DhcpSnoopBind,
               Reply::AsFilled, nullptr},
    CommandRow{DHCP_SHOW_BINDING_COUNT, nullptr, kCommandEnd,
               dhcpXmlProcCliDispIpv6DhcpSnoopBindCnt, Reply::AsFilled, nullptr},
};

// A message shorter than its handler reads is not handed over; a sender that
// waits for an answer gets status -1.
void refuseShort(dhcpv6Msg msg, Reply reply) {
    if (reply != Reply::None) replyWithStatus(msg, -1);
}

void answer(dhcpv6Msg msg, Reply reply, int result) {
    if (reply == Reply::Status) replyWithStatus(msg, result);
    if (reply == Reply::AsFilled) dhcpv6RelaySendReply(msg);
}

int dispatchCommand(dhcpv6Msg msg) {
    uint32_t command = 0;
    if (!qor::getU32(msg, QOR_IPC_OFF_COMMAND, command)) return 0;
    for (const CommandRow& row : kCommandRows) {
        if (row.command != command) continue;
        if (row.text && dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("%s", row.text);
        if (msg.size() < row.minLen) {
            refuseShort(msg, row.reply);
            return 0;
        }
        answer(msg, row.reply, row.handler(msg));
        if (row.afterReply) row.afterReply();
        return 0;
    }
    // An unknown command is not answered (unlike an unknown type).
    return 0;
}

// ---- DHCP_LOG_LEVEL ------------------------------------------------------------------------------

struct LogLevelName {
    uint32_t level;
    const char* name;
};

constexpr std::array kLogLevels = {
    LogLevelName{1, "EVT_LOGALERT"},  LogLevelName{2, "EVT_LOGCRITICAL"},
    LogLevelName{3, "EVT_LOGERROR"},  LogLevelName{4, "EVT_LOGWARNING"},
    LogLevelName{5, "EVT_LOGNOTIFY"}, LogLevelName{6, "EVT_LOGINFO"},
    LogLevelName{7, "EVT_LOGDEBUG"},  LogLevelName{24, "EVT_LOGDEVLP"},
};

// ---- DHCP_RELAYADDR_CONFIG -----------------------------------------------------------------------

constexpr uint32_t kRelayOpAdd = 1;
constexpr size_t kPortNoticeOffIfIndex = 64;
constexpr size_t kPortNoticeOffState = 68;
constexpr size_t kPortNoticeOffFeature = 76;
constexpr uint32_t kPortFeatureRelay = 0x2000;
constexpr uint8_t kBecomesRelayIntf = 0;
constexpr uint8_t kStopsBeingRelayIntf = 1;

struct RelayAddrCmd {
    uint32_t operation = 0;
    uint32_t ifIndex = 0;
    char vrfName[DHCPV6_RLY_VRF_NAME_LEN + 1] = {};
    uint8_t helperAddr[16] = {};
    uint32_t vrfId = 0;
    char addrText[128] = {};
};

RelayAddrCmd readRelayAddrCmd(dhcpv6Msg msg) {
    RelayAddrCmd c;
    c.operation = qor::u32At(msg, DHCPV6_RLY_OFF_OPERATION);
    c.ifIndex = qor::u32At(msg, DHCPV6_RLY_OFF_IFINDEX);
    qor::getBytes(msg, DHCPV6_RLY_OFF_VRF_NAME, c.vrfName, DHCPV6_RLY_VRF_NAME_LEN);
    qor::getBytes(msg, DHCPV6_RLY_OFF_ADDR, c.helperAddr, sizeof c.helperAddr);
    c.vrfId = qor::u32At(msg, DHCPV6_RLY_OFF_VRF_ID);
    inet_ntop(AF_INET6, c.helperAddr, c.addrText, sizeof c.addrText);
    return c;
}

int sendRelayPortNotice(uint32_t ifIndex, uint8_t state) {
    std::array<uint8_t, QOR_PORT_NOTICE_LEN> notice{};
    qor::putU32(notice, kPortNoticeOffIfIndex, ifIndex);
    qor::putU8(notice, kPortNoticeOffState, state);
    qor::putU32(notice, kPortNoticeOffFeature, kPortFeatureRelay);
    return qorPortCfgNotif(g.taskKey, notice.data());
}

bool sameHelper(const relayv6HelperEntry& e, const RelayAddrCmd& c) {
    return std::memcmp(e.helperAddr, c.helperAddr, sizeof e.helperAddr) == 0 && e.vrfId == c.vrfId;
}

relayv6HelperEntry* findHelper(relayv6IntfNode& node, const RelayAddrCmd& c) {
    for (NODE* n = lstFirst(&node.helperList); n != nullptr; n = lstNext(n)) {
        auto* e = reinterpret_cast<relayv6HelperEntry*>(n);
        if (sameHelper(*e, c)) return e;
    }
    return nullptr;
}

void addHelperEntry(relayv6IntfNode& node, const RelayAddrCmd& c) {
    void* mem = qorMC_M_sysMalloc(kUnit, kLineHelperAlloc, sizeof(relayv6HelperEntry));
    if (mem == nullptr) return;  // the line is still written
    auto* e = new (mem) relayv6HelperEntry{};
    std::memcpy(e->helperAddr, c.helperAddr, sizeof e->helperAddr);
    e->vrfId = c.vrfId;
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("dhcpv6RlyHandle : Entry added in helper list \r");
    lstAdd(&node.helperList, &e->node);
}

int relayAddHelper(const RelayAddrCmd& c) {
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("HELPERv6 CREATE ENTRY \r");
    relayv6IntfNode* node = relayv6Lookup(c.ifIndex);
    if (node == nullptr) {
        if (const int rc = sendRelayPortNotice(c.ifIndex, kBecomesRelayIntf); rc != 0) return rc;
        node = relayv6AddToIntfList(c.ifIndex);
        if (node == nullptr) return -1;
    }
    node->flags |= RELAYV6_FLAG_HELPERS;
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("IPv6 Addr = %s \r\n", c.addrText);
    if (findHelper(*node, c) != nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Helper %s already exists \r\n", c.addrText);
        return 0;
    }
    addHelperEntry(*node, c);
    dhcpv6RelayConfigSync(c.ifIndex, c.operation, c.addrText, c.vrfId, c.vrfName);
    return 0;
}

void removeMatchingHelpers(relayv6IntfNode& node, const RelayAddrCmd& c) {
    NODE* n = lstFirst(&node.helperList);
    while (n != nullptr) {
        NODE* next = lstNext(n);
        auto* e = reinterpret_cast<relayv6HelperEntry*>(n);
        if (sameHelper(*e, c)) {
            lstDelete(&node.helperList, n);
            qorMC_M_sysFree(kUnit, kLineHelperFree, e);
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Entry deleted form helper list \r");
        }
        n = next;
    }
}

int relayRemoveHelper(const RelayAddrCmd& c) {
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("HELPERv6 DELETE ENTRY \r");
    relayv6IntfNode* node = relayv6Lookup(c.ifIndex);
    if (node == nullptr) return 0;
    removeMatchingHelpers(*node, c);
    if (lstCount(&node->helperList) == 0) {
        lstFree(&node->helperList);
        node->flags &= ~RELAYV6_FLAG_HELPERS;
        if (node->flags == 0) {
            qorHistory("%s: Node %x deleted \r\n", "dhcpv6RlyHandle", c.ifIndex);
            relayv6Delete(node);
        }
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("IfIndex helper list deleted \r");
        if (const int rc = sendRelayPortNotice(c.ifIndex, kStopsBeingRelayIntf); rc != 0) return rc;
    }
    // Also when nothing matched: the store drops a line it does not hold.
    dhcpv6RelayConfigSync(c.ifIndex, c.operation, c.addrText, c.vrfId, c.vrfName);
    return 0;
}

}  // namespace

// ---- dispatcher ------------------------------------------------------------------------------------

int dhcpv6RelayProcCliCmd(dhcpv6Msg message) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("DHCPv6RelayMgr : Inside dhcpv6RelayProcCliCmd \r");
    if (message.data() == nullptr) return -1;
    uint32_t type = 0;
    if (!qor::getU32(message, QOR_IPC_OFF_TYPE, type)) return 0;  // not even a header
    if (type == MT_DHCPV6_CMD || type == MT_DHCPV6_CMD_2) return dispatchCommand(message);
    for (const TypeRow& row : kTypeRows) {
        if (row.type != type) continue;
        if (row.text && dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("%s", row.text);
        if (message.size() < row.minLen) {
            refuseShort(message, row.reply);
            return 0;
        }
        answer(message, row.reply, row.handler(message));
        return 0;
    }
    // Answered, so that a sender waiting for an unknown type never hangs.
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Default case \r");
    replyWithStatus(message, 0);
    return 0;
}

int dhcpv6RelaySendReply(dhcpv6Msg message) {
    // The reply is the request itself, as long as its length word says, but
    // never more than arrived.
    const uint32_t length = std::min<uint32_t>(qor::u32At(message, QOR_IPC_OFF_LENGTH),
                                               uint32_t(message.size()));
    const int rc = qorIpcReply(g.ipcReqQueue, message.data(), length);
    if (rc == -1 || rc == -2) {
        if (wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6) & DHCPV6_TRACE_RECV)
            qorTracePrintf(QOR_TRACE_MODULE_DHCPV6,
                           "%s: line %d:dhcpv6RelaySendReply: Error sending IPC reply \r\n",
                           "dhcpv6RelaySendReply", __LINE__);
        return rc;
    }
    return 0;
}

int dhcpv6IpcSendAndWait(uint32_t type, dhcpv6Msg message, uint32_t length, int peerApp,
                         int peerInstance, int waitArg) {
    uint32_t srcAddr = 0, dstAddr = 0;
    if (qor_tmeGetPeerIpAddrByName(DHCPV6_RELAY_APP_ID, 0, &srcAddr) == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SOCKET_CREATE_FAILED, 0u);
        return -1;
    }
    const uint32_t srcQueue = qor_getQueueId(DHCPV6_RELAY_APP_ID, 0, QOR_QUEUE_REQUEST);
    if (qor_tmeGetPeerIpAddrByName(peerApp, peerInstance, &dstAddr) == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_PEER_ADDR_FAILED, 0u);
        return -1;
    }
    const uint32_t dstQueue = qor_getQueueId(peerApp, peerInstance, QOR_QUEUE_REQUEST);
    if (length > message.size() ||
        !qorIpcBuildHeader(message, length, type, srcAddr, srcQueue, dstAddr, dstQueue))
        return -1;
    const int rc = qorIpcSendWait(g.ipcReqQueue, message.data(), length, waitArg, type, 0);
    if (rc == -1 || rc == -2) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_IPC_REQUEST_FAILED, 0u);
        return rc;
    }
    return 0;
}

int dhcpv6SetLoglevel(uint32_t level) {
    const auto known = std::find_if(kLogLevels.begin(), kLogLevels.end(),
                                    [level](const LogLevelName& l) { return l.level == level; });
    if (known == kLogLevels.end()) return -1;
    // Severities 0 to `level` are written.
    const uint32_t mask = ~(0xFFFFFFFFu << (level + 1));
    return qorEvtSetSeverityLevel(g.evtLogHandle, mask) == -1 ? -1 : 0;
}

int dhcpv6RelayLogLevel(dhcpv6Msg message) {
    const int rc = dhcpv6SetLoglevel(qor::u32At(message, DHCPV6_LOG_OFF_LEVEL));
    std::array<uint8_t, QOR_CFG_RECORD_LEN> record{};
    qor::putU32(record, QOR_CFG_OFF_ID, DHCPV6_CFG_ID_DEBUG);
    if (rc != 0) return rc;
    if (qor::u32At(message, DHCPV6_LOG_OFF_DEBUG_SWITCH) == 1) {
        qor::putBytes(record, QOR_CFG_OFF_LINE, DHCPV6_DEBUG_ON_LINE, sizeof DHCPV6_DEBUG_ON_LINE);
        qorCfgInsert(g.taskKey, record.data());
        g.debugOn = 1;
    } else {
        qorCfgRemoveExact(g.taskKey, record.data());
        g.debugOn = 0;
    }
    return 0;
}

int dhcpv6RlyHandle(dhcpv6Msg message) {
    const RelayAddrCmd cmd = readRelayAddrCmd(message);
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("DHCPv6RelayMgr : Inside dhcpv6RlyHandle \r");
    return cmd.operation == kRelayOpAdd ? relayAddHelper(cmd) : relayRemoveHelper(cmd);
}
