// Dhcpv6RelayMgrUtil.cpp -- SWP callbacks, the helper-address interface list,
// the relay's running-configuration lines and source interfaces, the ACL
// registration, and the line-card agent tables.
#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "qor/acl.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"
#include "qor/mem.h"
#include "qor/swp.h"
#include "qor/task.h"

relayv6IntfNode* relayv6Head = nullptr;
dhcpv6AgtEntry dhcpv6AgtTbl[DHCPV6_AGT_INSTANCES] = {};
dhcpv6SwAgtEntry dhcpv6SwAgtTbl[DHCPV6_SW_AGT_SLOTS] = {};

namespace {

constexpr const char* kUnit = "Dhcpv6RelayMgrUtil";
constexpr int kLineNodeAlloc = 140;
constexpr int kLineHelperFree = 239;
constexpr int kLineHeadFree = 275;
constexpr int kLineNodeFree = 291;
constexpr int kLineSwpMalloc = 343;
constexpr int kLineSwpFree = 350;
constexpr int kLineRtmSwpFree = 357;
constexpr int kLineAclSwpFree = 365;
constexpr int kLineSwpErr = 372;

constexpr uint32_t kRelayOpSet = 1;
constexpr size_t kSyncOffKind = 0;
constexpr size_t kSyncOffIfType = 4;
constexpr size_t kSyncOffIfIndex = 8;
constexpr size_t kSyncOffLine = 272;
constexpr uint32_t kSyncKindLag = 22;
constexpr uint32_t kSyncKindOther = 18;
constexpr size_t kHelperKeyOffVrf = 6;
constexpr size_t kHelperKeyOffAddr = 38;
constexpr size_t kSrcIntfOptLen = 20;

auto& g = dhcpv6RelayGlobalVar;

// ---- configuration records ------------------------------------------------------------

using CfgRecord = std::array<uint8_t, QOR_CFG_RECORD_LEN>;

void cfgSetHeader(CfgRecord& r, uint32_t id, uint32_t keyLen) {
    qor::putU32(r, QOR_CFG_OFF_ID, id);
    qor::putU32(r, QOR_CFG_OFF_KEYLEN, keyLen);
}

// Copies a line (at most `len` bytes, stopping at its zero) into the record,
// always leaving it zero-terminated.
void cfgSetLine(std::span<uint8_t> dst, const void* line, size_t len) {
    if (dst.empty()) return;
    const size_t room = std::min(len, dst.size() - 1);
    const size_t n = line != nullptr ? strnlen(static_cast<const char*>(line), room) : 0;
    if (n != 0) std::memcpy(dst.data(), line, n);
    dst[n] = 0;
}

// The command's line text, or nothing when the message is too short for it.
qor::ByteView lineField(dhcpv6Msg message, size_t offset) {
    if (!qor::fits(message.size(), offset, DHCPV6_SRC_LINE_LEN)) return {};
    return message.subspan(offset, DHCPV6_SRC_LINE_LEN);
}

void helperLine(char* out, size_t outLen, uint32_t operation, const char* address,
                uint32_t vrfId, const char* vrfName) {
    const char* no = operation == kRelayOpSet ? "" : " no";
    if (vrfId != 0)
        snprintf(out, outLen, "%s ipv6 helper-address vrf %s %s", no, vrfName, address);
    else
        snprintf(out, outLen, "%s ipv6 helper-address %s", no, address);
}

// The source interface is cleared on the socket it was last applied to.
int clearSrcIntfOption() {
    const uint8_t zeros[kSrcIntfOptLen] = {};
    return qorSetsockopt(g.srcIfSockFd, QOR_IPPROTO_IPV6, QOR_IPV6_SRC_INTF, zeros, sizeof zeros);
}

bool srcIntfCleared() {
    if (g.srcIfSockFd == 0 || clearSrcIntfOption() == 0) return true;
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Warning: can't set src intf \r");
    return false;
}

void deleteNodeIfUnused(relayv6IntfNode* node, const char* function) {
    if (node->flags != 0) return;
    qorHistory("%s: Node %x deleted \r\n", function, node->ifIndex);
    relayv6Delete(node);
}

void freeNode(relayv6IntfNode* node, int line) { qorMC_M_sysFree(kUnit, line, node); }

}  // namespace

// ---- SWP callbacks -----------------------------------------------------------------------

void* dhcpV6RelayMgrSwpMalloc(uint32_t size) {
    return qorMC_M_memBlockVarAlloc(kUnit, kLineSwpMalloc, 1, size, DHCPV6_MEM_MODULE, 0, 0);
}

int dhcpV6RelayMgrSwpFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockVarFree(kUnit, kLineSwpFree, block);
    return 0;
}

int dhcpV6RelayMgrRtmSwpFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockVarFree(kUnit, kLineRtmSwpFree, block);
    return 0;
}

int dhcpV6RelayMgrAclSwpFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockVarFree(kUnit, kLineAclSwpFree, block);
    return 0;
}

// Reported only: the SWP layer retransmits by itself.
void dhcpV6RelayMgrSwpErrFunc(int /*queue*/, int /*error*/) {
    if (wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6) & DHCPV6_TRACE_INIT)
        qorTracePrintf(QOR_TRACE_MODULE_DHCPV6, "%s: line %d:\r\n", "dhcpV6RelayMgrSwpErrFunc",
                       kLineSwpErr);
}

// ---- helper-address interface list ------------------------------------------------------------

relayv6IntfNode* relayv6Lookup(uint32_t ifIndex) {
    for (relayv6IntfNode* n = relayv6Head; n != nullptr; n = n->next)
        if (n->ifIndex == ifIndex) return n;
    return nullptr;
}

relayv6IntfNode* relayv6AddToIntfList(uint32_t ifIndex) {
    void* mem = qorMC_M_sysMalloc(kUnit, kLineNodeAlloc, sizeof(relayv6IntfNode));
    if (mem == nullptr) return nullptr;
    auto* node = new (mem) relayv6IntfNode{};
    node->ifIndex = ifIndex;
    lstInit(&node->helperList);
    if (relayv6Head == nullptr) {
        relayv6Head = node;
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("sending DHCPV6_ACL_ENTRY_ADD toACL \r");
        // While snooping is on its own trap entries are in force.
        if (g.snoopingEnabled == 0) dhcpv6RelayMgrSendAclEntry(DHCPV6_ACL_RELAY, 1);
        return node;
    }
    relayv6IntfNode* tail = relayv6Head;
    while (tail->next != nullptr) tail = tail->next;
    tail->next = node;
    return node;
}

void relayv6Delete(relayv6IntfNode* node) {
    if (node == nullptr) return;
    if (node == relayv6Head) {
        relayv6Head = node->next;
        freeNode(node, kLineHeadFree);
        if (relayv6Head == nullptr) {
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("sending DHCPV6_ACL_ENTRY_DEL toACL \r");
            if (g.snoopingEnabled == 0) dhcpv6RelayMgrSendAclEntry(DHCPV6_ACL_RELAY, 0);
        }
        return;
    }
    for (relayv6IntfNode* prev = relayv6Head; prev != nullptr; prev = prev->next) {
        if (prev->next != node) continue;
        prev->next = node->next;
        freeNode(node, kLineNodeFree);
        return;
    }
}

int dhcpv6RelayDelIntHelper(uint32_t ifIndex) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("DHCPv6RelayMgr : Inside dhcpv6RelayDelIntHelper\r");
    relayv6IntfNode* node = relayv6Lookup(ifIndex);
    if (node == nullptr) return 0;
    while (NODE* n = lstFirst(&node->helperList)) {
        lstDelete(&node->helperList, n);
        qorMC_M_sysFree(kUnit, kLineHelperFree, n);
    }
    lstFree(&node->helperList);
    node->flags &= ~RELAYV6_FLAG_HELPERS;
    deleteNodeIfUnused(node, "dhcpv6RelayDelIntHelper");
    // The interface is gone: no port notice, no configuration line.
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Removed Int helper list \r");
    return 0;
}

void printRelayDB(const relayv6IntfNode* node) {
    if (node == nullptr) return;
    printf("\n\rIfindex 0x%x\n", node->ifIndex);
    for (NODE* n = lstFirst(const_cast<LIST*>(&node->helperList)); n != nullptr; n = lstNext(n)) {
        const auto* e = reinterpret_cast<const relayv6HelperEntry*>(n);
        char text[128] = {};
        inet_ntop(AF_INET6, e->helperAddr, text, sizeof text);
        printf("Server IP: %s, vrf %d \n\r", text, int(e->vrfId));
    }
}

void dumpRelayDB(uint32_t ifIndex) {
    if (ifIndex != 0) {
        printRelayDB(relayv6Lookup(ifIndex));
        return;
    }
    for (const relayv6IntfNode* n = relayv6Head; n != nullptr; n = n->next) printRelayDB(n);
}

// ---- running-configuration lines ------------------------------------------------------------------

int dhcpv6RelayConfigSync(uint32_t ifIndex, uint32_t operation, const char* address,
                          uint32_t vrfId, const char* vrfName) {
    const size_t addrLen = strnlen(address, QOR_CFG_KEY_MAX - kHelperKeyOffAddr);
    CfgRecord record{};
    qor::putU32(record, 0, ifIndex);
    qor::putU16(record, 4, DHCPV6_CFG_KEY_HELPER);
    qor::putBytes(record, kHelperKeyOffVrf, vrfName,
                  strnlen(vrfName, DHCPV6_RLY_VRF_NAME_LEN));
    qor::putBytes(record, kHelperKeyOffAddr, address, addrLen);
    cfgSetHeader(record, DHCPV6_CFG_ID_INTERFACE, uint32_t(kHelperKeyOffAddr + addrLen));

    char line[QOR_CFG_LINE_MAX] = {};
    helperLine(line, sizeof line, operation, address, vrfId, vrfName);
    cfgSetLine(std::span(record).subspan(QOR_CFG_OFF_LINE), line, sizeof line);

    std::array<uint8_t, QOR_CFG_SYNC_LEN> sync{};
    const uint32_t ifType = ifmIfIndexToIfType(ifIndex);
    qor::putU32(sync, kSyncOffKind, ifType == IFM_IFTYPE_LAG ? kSyncKindLag : kSyncKindOther);
    qor::putU32(sync, kSyncOffIfType, ifType);
    qor::putU32(sync, kSyncOffIfIndex, ifIndex);
    cfgSetLine(std::span(sync).subspan(kSyncOffLine), line, sizeof line);

    if (operation == kRelayOpSet)
        qorCfgInsert(g.taskKey, record.data());
    else
        qorCfgRemoveExact(g.taskKey, record.data());  // by key: the text plays no part
    const int rc = qorCfgSync(g.taskKey, sync.data());
    if (rc != 0 && dhcpv6Dbg(DHCPV6_DBG_PKT)) printf("DHCPV6RELAY: qorCfgSync for helper failed\r");
    return rc;
}

// ---- source interfaces -------------------------------------------------------------------------------

int dhcpv6SourceInterface(dhcpv6Msg message) {
    CfgRecord record{};
    qor::putU32(record, 0, DHCPV6_CFG_KEY_SRC_INTF);
    cfgSetHeader(record, DHCPV6_CFG_ID_SRC_INTF, 1);
    const auto text = lineField(message, DHCPV6_SRC_OFF_LINE);
    cfgSetLine(std::span(record).subspan(QOR_CFG_OFF_LINE), text.data(), text.size());
    if (qor::u32At(message, DHCPV6_SRC_OFF_OPERATION) == kRelayOpSet) {
        g.srcIfIndex = qor::u32At(message, DHCPV6_SRC_OFF_IFINDEX);
        qorCfgInsert(g.taskKey, record.data());
        return 0;
    }
    // Cleared first: a failed socket clear leaves no system source interface.
    g.srcIfIndex = 0;
    if (!srcIntfCleared()) return -1;
    qorCfgRemoveExact(g.taskKey, record.data());
    return 0;
}

int dhcpv6IfSourceInterface(dhcpv6Msg message) {
    const uint32_t clientIfIndex = qor::u32At(message, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX);
    CfgRecord record{};
    qor::putU32(record, 0, clientIfIndex);
    qor::putU16(record, 4, DHCPV6_CFG_KEY_IF_SRC_INTF);
    cfgSetHeader(record, DHCPV6_CFG_ID_INTERFACE, 6);
    const auto text = lineField(message, DHCPV6_IFSRC_OFF_LINE);
    cfgSetLine(std::span(record).subspan(QOR_CFG_OFF_LINE), text.data(), text.size());

    relayv6IntfNode* node = relayv6Lookup(clientIfIndex);
    if (qor::u32At(message, DHCPV6_IFSRC_OFF_OPERATION) == kRelayOpSet) {
        // A node made here sends no port notice: the interface gains no helper.
        if (node == nullptr) node = relayv6AddToIntfList(clientIfIndex);
        if (node == nullptr) return -1;
        node->srcIfIndex = qor::u32At(message, DHCPV6_IFSRC_OFF_SRC_IFINDEX);
        node->flags |= RELAYV6_FLAG_SRC_INTF;
        qorCfgInsert(g.taskKey, record.data());
        return 0;
    }
    if (node == nullptr) return 0;
    // A socket that keeps the option aborts the removal: node and line stay.
    if (!srcIntfCleared()) return -1;
    node->srcIfIndex = 0;
    node->flags &= ~RELAYV6_FLAG_SRC_INTF;
    deleteNodeIfUnused(node, "dhcpv6IfSourceInterface");
    qorCfgRemoveExact(g.taskKey, record.data());
    return 0;
}

void dhcpv6RelayDelSrcInterface(uint32_t ifIndex) {
    relayv6IntfNode* node = relayv6Lookup(ifIndex);
    if (node == nullptr) return;
    if (!srcIntfCleared()) return;
    node->srcIfIndex = 0;
    node->flags &= ~RELAYV6_FLAG_SRC_INTF;
    // The interface is gone: its configuration line goes with it.
    deleteNodeIfUnused(node, "dhcpv6RelayDelSrcInterface");
}

// ---- ACL registration ------------------------------------------------------------------------------------

int dhcpv6CreateAclSwpQueue() {
    return qorSwpQueueCreate_p(g.evtLogHandle, 0, 10, 25, DHCPV6_RELAY_APP_ID, 0, g.ipcReqQueue,
                               QOR_APP_ACL, 0, 0, dhcpV6RelayMgrSwpMalloc, 0,
                               dhcpV6RelayMgrAclSwpFree, dhcpV6RelayMgrSwpErrFunc, &g.aclSwpQueue,
                               g.swpPipeFd);
}

void dhcpv6RelayMgrAclReg() {
    // Start-up waits for the ACL manager: its trap entries are what brings
    // DHCPv6 packets to the protocol socket.
    while (dhcpv6CreateAclSwpQueue() != 0) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("ACL SWP Q create failed\r");
        taskDelay(sysClkRateGet());
    }
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("\r\n ACL SWPQ creation success!\r");
}

int dhcpv6RelayMgrSendAclEntry(uint32_t protocol, int enable) {
    return iAclEnableSysFlowProtocolEntries(protocol, 0, 0, g.instanceId, g.taskKey, 2, enable,
                                            g.aclSwpQueue);
}

// ---- line-card agents ------------------------------------------------------------------------------------
// Agent registration and the agents' snooping state arrive with the snooping
// forwarding-plane work; until then no agent is recorded, so every message
// "to all agents" goes nowhere, and the dispatcher sends no answer.

int dhcpv6RegisterAgent(dhcpv6Msg /*request*/) { return 0; }

int dhcpv6RegisterClient(dhcpv6Msg /*request*/) { return 0; }
