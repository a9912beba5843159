// control_msg.cpp -- fuzz target for the control-message path: one message,
// received into the event loop's IPC buffer, through dhcpv6RelayProcCliCmd
// on a relay manager brought up on the recording platform stand-in.
//
// An input is a six-byte preamble followed by the bytes received:
//   [0] type: below kTypes.size() it picks a type the dispatcher knows (or
//       one it does not); any other value leaves the message's type word
//   [1] command: for a command message, below kCommands.size() it picks a
//       command code; any other value leaves the message's command word
//   [2] length word: top two bits 0 leave it, 1 make it the received count,
//       2 make it short of that by (low six bits + 1), 3 longer by
//       64 * low six bits + 1 -- the word lies, the received count does not
//   [3] debug switches: bit i turns on kDebugBits[i]; bit 7 makes this route
//       processor the standby
//   [4] state before the message and refusals of the platform (kState*)
//   [5] answers of the peers and tracing (kPeer*)
// The rest of the loop's 8192-byte buffer is poisoned while the message is
// dispatched, so a read past the received bytes stops the run whatever the
// length word says. Every input starts from the same freshly built state and
// ends by proving that no block was left behind.
#include <fcntl.h>
#include <sanitizer/asan_interface.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <new>
#include <span>
#include <string>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "fake.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/radix.h"
#include "qor/swp.h"
#include "qor/task.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

constexpr size_t kPreambleLen = 6;
constexpr uint32_t kStartupSeverityMask = 0x7F;

constexpr std::array<uint32_t, 23> kTypes = {
    MT_SWP_ACK, MT_HA_CONTROL, MT_DHCPV6_EVENT_NOTIF, MT_DHCPV6_INIT_COMPLETE, MT_DHCPV6_CMD,
    MT_DHCPV6_CMD_2, MT_IFM_NOTIF_MSG, MT_RTM6_CLR_ROUTE, MT_MRTM_MCIDX_RESP,
    MT_DHCPV6_TRANS_SYNC, MT_DHCPV6_TRANS_SYNC_INIT, MT_DHCPV6_LEASEIP_SYNC,
    MT_DHCPV6_LEASEIP_SYNC_INIT, MT_DHCPV6_SNOOP_SYNC, MT_DHCPV6_SNOOP_SYNC_INIT,
    MT_DHCPV6AGT_REG_WITH_MGR, MT_DHCPV6_SNOOP_TBL_PUSH, MT_DHCPV6_SNOOP_TBL_UPDATE,
    MT_DHCPV6_CLIENT_REG, MT_DHCPV6_SNOOPING_STATUS, MT_DHCPV6_SET_DEBUG_FLAG,
    46405,  // between the sync types, without a handler
    0,
};

constexpr std::array<uint32_t, 15> kCommands = {
    DHCP_SNOOP_CONFIG,     DHCP_SNOOP_TRUST,      DHCP_SNOOP_CLEAR_BINDING, DHCP_SNOOP_LOAD_DB,
    DHCP_SOURCE_INTERFACE, DHCP_IF_SOURCE_INTERFACE, DHCP_SNOOP_WRITE_DB,   DHCP_RELAYADDR_CONFIG,
    DHCP_LOG_LEVEL,        DHCP_SHOW_SNOOPING,    DHCP_SHOW_TRUST,          DHCP_SHOW_SNOOP_VLANS,
    DHCP_SHOW_BINDING,     DHCP_SHOW_BINDING_COUNT,
    7,  // no handler: never answered
};

constexpr std::array<uint32_t, 7> kDebugBits = {
    DHCPV6_DBG_INIT,   DHCPV6_DBG_VLAN,  DHCPV6_DBG_EVENT, DHCPV6_DBG_PKT,
    DHCPV6_DBG_DETAIL, DHCPV6_DBG_SNOOP, DHCPV6_DBG_MRTM,
};
constexpr uint8_t kDebugStandby = 0x80;

// Preamble byte 4.
constexpr uint8_t kStateConfigured = 0x01;    // helpers, source interfaces, bindings exist
constexpr uint8_t kStateSnooping = 0x02;      // snooping is on
constexpr uint8_t kStateSrcApplied = 0x04;    // a source interface was applied to a socket
constexpr uint8_t kStateNoSysMemory = 0x08;   // the next system allocation fails
constexpr uint8_t kStatePortNoticeRefused = 0x10;
constexpr uint8_t kStateSocketKeepsOption = 0x20;
constexpr uint8_t kStateCfgSyncRefused = 0x40;
constexpr uint8_t kStateCfgStoreRefused = 0x80;

// Preamble byte 5.
constexpr uint8_t kPeerSeqMask = 0x03;        // 0 in order, 1 duplicate, 2 out of order, 3 error
constexpr uint8_t kPeerAckNamesPending = 0x04;  // the SWP ack names the pending MRTM request
constexpr uint8_t kPeerReplyFails = 0x08;
constexpr uint8_t kPeerNoVarMemory = 0x10;    // SWP blocks cannot be allocated
constexpr uint8_t kPeerEnqueueRefused = 0x20;
constexpr uint8_t kPeerTraceOn = 0x40;        // module 102 traces start-up and receive errors

// The descriptor a source interface was last applied to (never opened: the
// fake's setsockopt only records).
constexpr int kAppliedSocket = 1000;

uint32_t vlanIf(uint32_t vlan) { return ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, vlan); }
uint32_t lagIf(uint32_t lag) { return ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, lag); }

struct Preamble {
    uint8_t type, command, lengthWord, debug, state, peer;
};

// ---- the process, made once ----------------------------------------------------------

// The run directory (event log) of the fuzzed daemon, removed at exit.
struct RunDir {
    std::string path;
    RunDir() {
        char tmpl[] = "/tmp/dhcpv6-fuzz-XXXXXX";
        if (mkdtemp(tmpl) != nullptr) path = tmpl;
    }
    ~RunDir() {
        std::error_code ec;
        if (!path.empty()) std::filesystem::remove_all(path, ec);
    }
};

struct Process {
    std::string eventLog;
    dhcpv6RelayGlobal started{};  // the global record once the loop's queues exist
    int devNull = -1;
};

[[noreturn]] void harnessFailure(const char* what) {
    std::fprintf(stderr, "control_msg harness: %s\n", what);
    std::abort();
}

// What the task does once in its life and the loop keeps: the task key, the
// event log, the request queue and the SWP pipe.
Process& process() {
    static RunDir runDir;
    static Process* p = [] {
        if (runDir.path.empty()) harnessFailure("no run directory");
        auto* made = new Process;
        qorSetRunDir(runDir.path.c_str());
        made->eventLog = qorEvtLogPath();
        // Nothing here may wait for the clock: a retry loop would hang the
        // run and show up as a timeout.
        qorTickSetManual(true);
        qorPlatformSetIdentity(DHCPV6_RELAY_APP_ID, 0);
        dhcpv6RelayGlobalVar = dhcpv6RelayGlobal{};
        dhcpv6RelayGlobalVar.taskKey = qorTaskStartup(0, nullptr, 0, 0);
        dhcpv6FdSet master{};
        int nfds = 0;
        if (dhcpv6RelayMgrVarInit(&master, &nfds) != 0) harnessFailure("start-up failed");
        made->started = dhcpv6RelayGlobalVar;
        made->devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
        return made;
    }();
    return *p;
}

// ---- state built for every input ------------------------------------------------------

void resetDaemonGlobals() {
    dhcpv6RelayGlobalVar = process().started;
    dhcpv6RelayTimert = dhcpv6RelayTimers{};
    relayv6Head = nullptr;
    dhcpv6_debug_flag = 0;
    dhcpv6IsInitComplete = 0;
    isL2McZero = 0;
    dhcpv6RtmSeqNo = QOR_SWP_SEQ{};
    std::memset(dhcpv6AgtTbl, 0, sizeof dhcpv6AgtTbl);
    std::memset(dhcpv6SwAgtTbl, 0, sizeof dhcpv6SwAgtTbl);
}

// Pools, tables and the peer queues as the loop finds them after start-up
// (the timers and sockets play no part in control messages).
void bringUp() {
    resetDaemonGlobals();
    if (dhcpv6RelayMgrMemInit() != 0 || dhcpv6SnoopingInit() != 0 ||
        dhcpv6RelayTableInit() != 0 || dhcpv6CreateIfmSwpQueue() != 0 ||
        dhcpv6CreateAclSwpQueue() != 0 || dhcpv6RegWithMrtmIdx() != 0 ||
        dhcpv6RelayMgrRtmInit() != 0)
        harnessFailure("bring-up failed");
}

std::array<uint8_t, DHCPV6_RLY_MSG_LEN> helperCmd(uint32_t ifIndex, uint8_t lastByte,
                                                  uint32_t vrfId) {
    std::array<uint8_t, DHCPV6_RLY_MSG_LEN> m{};
    uint8_t addr[16] = {0x20, 0x01, 0x0d, 0xb8};
    addr[15] = lastByte;
    qor::putU32(m, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(m, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
    qor::putBytes(m, DHCPV6_RLY_OFF_VRF_NAME, "blue", 4);
    qor::putBytes(m, DHCPV6_RLY_OFF_ADDR, addr, sizeof addr);
    qor::putU32(m, DHCPV6_RLY_OFF_VRF_ID, vrfId);
    return m;
}

std::array<uint8_t, DHCPV6_IFSRC_MSG_LEN> ifSourceCmd(uint32_t clientIfIndex, uint32_t srcIfIndex) {
    std::array<uint8_t, DHCPV6_IFSRC_MSG_LEN> m{};
    qor::putU32(m, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, clientIfIndex);
    qor::putU32(m, DHCPV6_IFSRC_OFF_OPERATION, 1);
    qor::putU32(m, DHCPV6_IFSRC_OFF_SRC_IFINDEX, srcIfIndex);
    const char line[] = " ipv6 dhcp relay source-interface vlan 30";
    qor::putBytes(m, DHCPV6_IFSRC_OFF_LINE, line, sizeof line);
    return m;
}

// Two bindings on VLAN 10, as snooping learns them: the MAC lookup has
// something to find. Their blocks come from the binding pool.
void addBindings() {
    constexpr const char* kUnit = "fuzz_control_msg";
    for (uint8_t i = 1; i <= 2; ++i) {
        void* mem = qorMC_M_memBlockAlloc(kUnit, __LINE__, DHCPV6_BINDING_POOL);
        if (mem == nullptr) harnessFailure("no binding block");
        auto* e = new (mem) dhcpv6SnoopEntry{};
        qor::putU32(qor::MutByteView(e->vlanIfIndex), 0, vlanIf(10));
        const uint8_t prefix[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, i};
        std::memcpy(e->prefix, prefix, sizeof prefix);
        std::memcpy(e->ipv6Addr, prefix, sizeof prefix);
        const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, i};
        std::memcpy(e->macAddr, mac, sizeof mac);
        e->phyIfIndex = ifmEthernetIfIndex(1, i, 0);
        e->leaseTime = 3600;
        e->learnType = DHCPV6_LEARN_DYNAMIC;
        e->prefixLen = 128;
        e->node.rnKey = e->vlanIfIndex;
        if (qorRadixInsert(dhcpv6RelayGlobalVar.snoopTbl, &e->node, DHCPV6_SNOOP_KEY_BITS) != 0)
            harnessFailure("binding not inserted");
        ++dhcpv6RelayGlobalVar.snoopEntryCount;
    }
}

// Bindings the message left in the table go back to the binding pool.
void removeBindings() {
    auto& g = dhcpv6RelayGlobalVar;
    if (g.snoopTbl == nullptr) return;
    while (QOR_RADIX_NODE* n = qorRadixGetNext(g.snoopTbl, nullptr, 0)) {
        if (qorRadixRemove(g.snoopTbl, n->rnKey, DHCPV6_SNOOP_KEY_BITS) != n)
            harnessFailure("binding table out of order");
        qorMC_M_memBlockFree("fuzz_control_msg", __LINE__, DHCPV6_BINDING_POOL, n);
    }
}

// A configuration the removals and interface deletions can act on: VLAN 10
// with one address in two VRFs, VLAN 20 with a helper and its own source
// interface, VLAN 50 with a single helper, port-channel 1 with only a source
// interface, a system-wide source interface, and two bindings.
void configure() {
    auto h1 = helperCmd(vlanIf(10), 1, 0);
    auto h2 = helperCmd(vlanIf(10), 1, 7);
    auto h3 = helperCmd(vlanIf(20), 2, 0);
    auto h4 = helperCmd(vlanIf(50), 5, 0);
    auto s1 = ifSourceCmd(vlanIf(20), vlanIf(30));
    auto s2 = ifSourceCmd(lagIf(1), vlanIf(30));
    std::array<uint8_t, DHCPV6_SRC_MSG_LEN> sys{};
    qor::putU32(sys, DHCPV6_SRC_OFF_OPERATION, 1);
    qor::putU32(sys, DHCPV6_SRC_OFF_IFINDEX, vlanIf(30));
    if (dhcpv6RlyHandle(h1) != 0 || dhcpv6RlyHandle(h2) != 0 || dhcpv6RlyHandle(h3) != 0 ||
        dhcpv6RlyHandle(h4) != 0 || dhcpv6IfSourceInterface(s1) != 0 ||
        dhcpv6IfSourceInterface(s2) != 0 || dhcpv6SourceInterface(sys) != 0)
        harnessFailure("configuration failed");
    addBindings();
}

void applyConditions(const Preamble& p, uint32_t type) {
    if (p.state & kStateConfigured) configure();
    if (p.state & kStateSnooping) dhcpv6RelayGlobalVar.snoopingEnabled = 1;
    if (p.state & kStateSrcApplied) dhcpv6RelayGlobalVar.srcIfSockFd = kAppliedSocket;
    if (p.state & kStateNoSysMemory) qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    if (p.state & kStatePortNoticeRefused) qorfake::setResult("qorPortCfgNotif", -1);
    if (p.state & kStateSocketKeepsOption) qorfake::setResult("qorSetsockopt", -1);
    if (p.state & kStateCfgSyncRefused) qorfake::setResult("qorCfgSync", -1);
    if (p.state & kStateCfgStoreRefused) {
        qorfake::setResult("qorCfgInsert", -1);
        qorfake::setResult("qorCfgRemoveExact", -1);
    }
    static constexpr int kSeqResults[] = {QOR_SWP_IN_ORDER, QOR_SWP_DUPLICATE,
                                          QOR_SWP_OUT_OF_ORDER, -1};
    qorfake::setResult("qorSwpCkSeqAndAck", kSeqResults[p.peer & kPeerSeqMask]);
    if (p.peer & kPeerReplyFails) qorfake::setResult("qorIpcReply", -1);
    if (p.peer & kPeerTraceOn)
        qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, DHCPV6_TRACE_INIT | DHCPV6_TRACE_RECV);
    // A role change registers with the MRTM again and retries once a second
    // for ever; the tick never moves here, so its refusals are not played.
    if (type != MT_HA_CONTROL) {
        if (p.peer & kPeerNoVarMemory) qorMemFailNextAlloc(DHCPV6_MEM_MODULE, 4);
        if (p.peer & kPeerEnqueueRefused) qorfake::setResult("qorSwpEnqueue", -1);
    }
    if (p.debug & kDebugStandby) qorHaSetPrimary(false);
}

void clearConditions() {
    qorMemFailNextAlloc(QOR_MEM_SYSTEM, 0);
    qorMemFailNextAlloc(DHCPV6_MEM_MODULE, 0);
    for (const char* name : {"qorPortCfgNotif", "qorSetsockopt", "qorCfgSync", "qorCfgInsert",
                             "qorCfgRemoveExact", "qorSwpCkSeqAndAck", "qorIpcReply",
                             "qorSwpEnqueue"})
        qorfake::setResult(name, 0);
    qorHaSetPrimary(true);
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0);
}

// The daemon's own deletion paths, then the queues (freeing what they hold)
// and the tables; whatever is still live afterwards was lost by the input.
void takeDown() {
    auto& g = dhcpv6RelayGlobalVar;
    dhcpv6_debug_flag = 0;
    clearConditions();
    g.srcIfSockFd = 0;
    while (relayv6Head != nullptr) {
        const uint32_t ifIndex = relayv6Head->ifIndex;
        dhcpv6RelayDelIntHelper(ifIndex);
        dhcpv6RelayDelSrcInterface(ifIndex);
        if (relayv6Head != nullptr && relayv6Head->ifIndex == ifIndex)
            harnessFailure("an interface node outlives its helpers and source interface");
    }
    for (int q : {g.ifmSwpQueue, g.aclSwpQueue, g.rtmSwpQueue, g.mrtmSwpQueue})
        if (q != 0) qorSwpQueueRemove(q);
    removeBindings();
    for (QOR_RADIX_HANDLE* t : {&g.transTbl, &g.leaseIpTbl, &g.snoopTbl}) {
        if (*t != nullptr) qorRadixDestroy(*t);
        *t = nullptr;
    }
    dhcpv6SwRbtInitDeInit(0);
    const auto live = qorMemLiveBlocks();
    for (const auto& b : live)
        std::fprintf(stderr, "left behind: %s:%d (pool 0x%x, %zu bytes)\n", b.unit.c_str(), b.line,
                     unsigned(b.poolId), b.size);
    if (!live.empty()) harnessFailure("blocks left behind");
    if (qorMemDoubleFreeCount() != 0) harnessFailure("a block was freed twice");
    qorfake::reset();
    qorMemReset();
    // A log-level command changes the mask; the log itself only grows.
    qorEvtSetSeverityLevel(g.evtLogHandle, kStartupSeverityMask);
    std::error_code ec;  // no file yet when nothing was logged
    std::filesystem::resize_file(process().eventLog, 0, ec);
}

// ---- the message ---------------------------------------------------------------------------

void patchMessage(dhcpv6Msg msg, const Preamble& p) {
    if (p.type < kTypes.size()) qor::putU32(msg, QOR_IPC_OFF_TYPE, kTypes[p.type]);
    const uint32_t type = qor::u32At(msg, QOR_IPC_OFF_TYPE);
    if ((type == MT_DHCPV6_CMD || type == MT_DHCPV6_CMD_2) && p.command < kCommands.size())
        qor::putU32(msg, QOR_IPC_OFF_COMMAND, kCommands[p.command]);
    const auto received = uint32_t(msg.size());
    const uint32_t by = p.lengthWord & 0x3F, how = p.lengthWord >> 6;
    if (how != 0) {
        const uint32_t lengthWord = how == 1 ? received : how == 2 ? received - (by + 1) : received + 64 * by + 1;
        qor::putU32(msg, QOR_IPC_OFF_LENGTH, lengthWord);
    }
    if (type == MT_SWP_ACK && (p.peer & kPeerAckNamesPending)) {
        const auto pending = qorfake::swpPending(dhcpv6RelayGlobalVar.mrtmSwpQueue);
        if (!pending.empty()) {
            qor::putU32(msg, QOR_SWP_OFF_SEQ, pending.front().seq);
            qor::putU32(msg, QOR_SWP_OFF_QUEUE, uint32_t(dhcpv6RelayGlobalVar.mrtmSwpQueue));
        }
    }
}

// As the event loop does: the received bytes in its buffer, dispatched with
// the received count. The buffer beyond them holds the last message's bytes
// in the daemon; here it is poisoned so that touching it stops the run.
// Debug and trace lines go nowhere.
void dispatchReceived(size_t received, uint32_t debug, bool quiet) {
    uint8_t* const buf = dhcpv6RelayCliIpcBuf;
    ASAN_POISON_MEMORY_REGION(buf + received, DHCPV6_IPC_BUF_LEN - received);
    const int saved = quiet ? dup(STDOUT_FILENO) : -1;
    if (saved >= 0) {
        std::fflush(stdout);
        dup2(process().devNull, STDOUT_FILENO);
    }
    const size_t mark = qorfake::calls().size();
    dhcpv6_debug_flag = debug;
    dhcpv6RelayProcCliCmd(dhcpv6Msg(buf, received));
    dhcpv6_debug_flag = 0;
    // A sender waits for one answer: a second would be taken as the answer
    // to its next request.
    const auto& calls = qorfake::calls();
    const auto isReply = [](const qorfake::Call& c) { return c.name == "qorIpcReply"; };
    const auto replies = std::count_if(calls.begin() + std::ptrdiff_t(mark), calls.end(), isReply);
    if (replies > 1) harnessFailure("one message answered more than once");
    if (saved >= 0) {
        std::fflush(stdout);
        dup2(saved, STDOUT_FILENO);
        close(saved);
    }
    ASAN_UNPOISON_MEMORY_REGION(buf + received, DHCPV6_IPC_BUF_LEN - received);
}

uint32_t debugFlags(uint8_t bits) {
    uint32_t flags = 0;
    for (size_t i = 0; i < kDebugBits.size(); ++i)
        if (bits & (1u << i)) flags |= kDebugBits[i];
    return flags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size <= kPreambleLen) return 0;  // nothing received: nothing dispatched
    process();
    const Preamble p{data[0], data[1], data[2], data[3], data[4], data[5]};
    // A receive never delivers more than the buffer holds.
    const size_t received = std::min(size - kPreambleLen, DHCPV6_IPC_BUF_LEN);
    std::memcpy(dhcpv6RelayCliIpcBuf, data + kPreambleLen, received);

    bringUp();
    const dhcpv6Msg msg(dhcpv6RelayCliIpcBuf, received);
    patchMessage(msg, p);
    applyConditions(p, qor::u32At(msg, QOR_IPC_OFF_TYPE));
    const uint32_t debug = debugFlags(p.debug);
    dispatchReceived(received, debug, debug != 0 || (p.peer & kPeerTraceOn) != 0);
    takeDown();
    return 0;
}
