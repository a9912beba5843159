// Dhcpv6RelayMgrMain.cpp -- the relay manager's task: start-up in its fixed
// order, the global state, and the select() loop that serves the request
// queue, the timer pipe, the protocol socket and the SWP pipe.
#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Timer.h"
#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "dhcpv6Snooping.h"
#include "qor/evtlog.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/l2sock.h"
#include "qor/pipe.h"
#include "qor/swp.h"
#include "qor/task.h"

dhcpv6RelayGlobal dhcpv6RelayGlobalVar{};
dhcpv6RelayTimers dhcpv6RelayTimert{};
uint8_t dhcpv6PktBuf[DHCPV6_PKT_BUF_LEN];
uint8_t dhcpv6RelayCliIpcBuf[DHCPV6_IPC_BUF_LEN];
uint32_t dhcpv6_debug_flag = 0;
int32_t dhcpv6IsInitComplete = 0;
int timer_tid = 0;

namespace {

constexpr const char* kSwpPipeName = "/qor/pipe/dhcpv6relaymgrPipe";
constexpr const char* kTimerPipeName = "/qor/pipe/dhcpv6relayTmrPipe";
constexpr int kTimerPipeMessages = 65536;
constexpr int kTimerPipeMsgBytes = 4;
constexpr int kTimerPipeLength = 12288;
constexpr uint32_t kStartupSeverityMask = 0x7F;  // severities up to EVT_LOGINFO
constexpr const char* kMainFn = "dhcpv6RelayMgrMain";
constexpr const char* kVarInitFn = "dhcpv6RelayMgrVarInit";

auto& g = dhcpv6RelayGlobalVar;

// Start-up failures are traced through module 102 when its bit 0x1 is set,
// as "<function>: line <n>:<text>".
void startupTrace(const char* function, int line, const char* text) {
    if (wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6) & DHCPV6_TRACE_INIT)
        qorTracePrintf(QOR_TRACE_MODULE_DHCPV6, "%s: line %d:%s", function, line, text);
}

void recvTrace(int line, const char* text) {
    if (wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6) & DHCPV6_TRACE_RECV)
        qorTracePrintf(QOR_TRACE_MODULE_DHCPV6, "%s: line %d:%s", kMainFn, line, text);
}

void serveRequestQueue() {
    const int n = qorIpcRecv(g.dhcpv6RelayreqQfd, dhcpv6RelayCliIpcBuf, DHCPV6_IPC_BUF_LEN, 0, 0, 0);
    if (n > 0) {
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
            printf("DHCPv6RelayMgr : dhcpv6RelayreqQfd SetReceived IPC message \r");
        dhcpv6RelayProcCliCmd(dhcpv6Msg(dhcpv6RelayCliIpcBuf, size_t(n)));
    } else {
        recvTrace(__LINE__, "qorIpcRecv - dhcpv6RelayreqQfd Error \r\n");
    }
}

void serveTimerPipe() {
    uint32_t word = 0;
    if (read(g.timerPipeFd, &word, sizeof word) > 0 && word != 0) timerIpcCallback(word);
}

// False when the receive failed: the SWP pipe then waits for the next pass.
bool serveProtoSocket() {
    uint8_t source[QOR_L2_ADDR_LEN] = {};
    unsigned sourceLen = QOR_L2_ADDR_LEN;
    uint32_t logicalIfIndex = 0, physIfIndex = 0, recvIfIndex = 0;
    std::memset(dhcpv6PktBuf, 0, sizeof dhcpv6PktBuf);
    const ssize_t n = qorRecvfrom4(g.protoSockFd, dhcpv6PktBuf, sizeof dhcpv6PktBuf, 0, source,
                                   &sourceLen, &logicalIfIndex, &physIfIndex, &recvIfIndex);
    if (n <= 0) {
        recvTrace(__LINE__, " qorRecvfrom4 failed for ProtoSockFd \r\n");
        if (g.protoSockFd != 0)
            qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SOCKET_RECV_FAILED, uint32_t(g.protoSockFd & 0xFFFF));
        return false;
    }
    char logName[IFM_IFNAME_LEN] = {}, phyName[IFM_IFNAME_LEN] = {}, recvName[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(logicalIfIndex, logName);
    ifmIfIndexToName(physIfIndex, phyName);
    ifmIfIndexToName(recvIfIndex, recvName);
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
        printf("DHCPv6RelayMgr : Recieved packet on protocol fd [logInt = %s,  phyInt = %s, "
               "recvInt = %s ] bytes %d\r\n",
               logName, phyName, recvName, int(n));
    dhcpv6RelayStart(dhcpv6PktBuf, uint32_t(n), logicalIfIndex, recvIfIndex, physIfIndex);
    return true;
}

int startTimers() {
    if (timerStart(dhcpv6RelayTimert.transTimer, DHCPV6_TRANS_SWEEP_MSEC, dhcpv6ProcTransDb,
                   dhcpv6RelayTimert.agentSlot) != TIMER_START_OK) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_TMR_START_FAILED, 0u);
        return -1;
    }
    if (timerStart(dhcpv6RelayTimert.snoopTimer, DHCPV6_SNOOP_SWEEP_MSEC, dhcpv6ProcSnoopDb,
                   dhcpv6RelayTimert.agentSlot) != TIMER_START_OK) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_TMR_START_FAILED, 0u);
        return -1;
    }
    return 0;
}

}  // namespace

// ---- descriptor set ------------------------------------------------------------------

void dhcpv6FdZero(dhcpv6FdSet& set) { std::memset(set.bits, 0, sizeof set.bits); }

void dhcpv6FdAdd(dhcpv6FdSet& set, int fd) {
    if (fd < 0 || fd >= DHCPV6_FDSET_BITS) return;
    set.bits[fd / 64] |= uint64_t{1} << (fd % 64);
}

bool dhcpv6FdIsSet(const dhcpv6FdSet& set, int fd) {
    if (fd < 0 || fd >= DHCPV6_FDSET_BITS) return false;
    return (set.bits[fd / 64] >> (fd % 64)) & 1;
}

// ---- start-up --------------------------------------------------------------------------

int dhcpv6RelayMgrVarInit(dhcpv6FdSet* master, int* nfds) {
    const int svc = qorTaskGetServiceByKey(g.taskKey);
    g.ipcReqQueue = Key_getReqQueue(g.taskKey);
    if (g.ipcReqQueue == -1) {
        // The text names another call; it is the one operators know.
        startupTrace(kVarInitFn, __LINE__, "qorIpcTmrOpen failed");
        return -1;
    }
    g.mrtmQueue = uint32_t(g.ipcReqQueue);
    g.mrtmSvc = uint32_t(svc);
    g.instanceId = qorTaskGetInstanceByKey(g.taskKey);
    g.mrtmInstance = uint32_t(g.instanceId);
    qorEvtRegisterCodes(dhcpv6RelayEvtCodes);
    g.evtLogHandle = qorEvtOpenlog("DHCPV6RELAYMGR", 3, svc, g.instanceId);
    if (g.evtLogHandle == -1) {
        startupTrace(kVarInitFn, __LINE__, "qorEvtOpenlog  failed");
        return -1;
    }
    if (qorEvtSetSeverityLevel(g.evtLogHandle, kStartupSeverityMask) == -1) {
        startupTrace(kVarInitFn, __LINE__, "qorEvtSetSeverityLevel failed ");
        return -1;
    }
    qorEvtRegisterSvce(g.evtLogHandle, 1);
    g.dhcpv6RelayreqQfd = Key_getReqQueue(g.ipcReqQueue);
    qorTaskReady(g.taskKey);
    g.ifmSwpSeq = QOR_SWP_SEQ{};
    g.swpPipeFd = qorSwpCreatePipe(kSwpPipeName);
    if (g.swpPipeFd == -1) {
        startupTrace(kVarInitFn, __LINE__, "qorSwpCreatePipe failed");
        return -1;
    }
    dhcpv6FdZero(*master);
    dhcpv6FdAdd(*master, Key_getSocketFd(g.dhcpv6RelayreqQfd));
    dhcpv6FdAdd(*master, g.swpPipeFd);
    *nfds = DHCPV6_FDSET_BITS;
    qorInitHistoryTable(10000, 200, 1);
    qorEnableHistoryLogging();
    return 0;
}

int dhcpv6RelayMgrTimerInit() {
    if (pipeDevCreate(kTimerPipeName, kTimerPipeMessages, kTimerPipeMsgBytes) == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_TMR_PIPE_FAILED, 0u);
        return -1;
    }
    g.timerPipeFd = qorOsOpen(kTimerPipeName, QOR_O_RDWR, 0);
    if (g.timerPipeFd == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_TMR_PIPE_FAILED, 0u);
        return -1;
    }
    timerRegPipeFd(DHCPV6_RELAY_APP_ID, 0, g.timerPipeFd, kTimerPipeLength);
    dhcpv6RelayTimert.transTimer = timerCreate(DHCPV6_RELAY_APP_ID, 0);
    if (dhcpv6RelayTimert.transTimer == nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT))
            printf(" dhcpv6RelayMgrTimerInit : dhcpv6RelayTimert.transTimer is NULL \r");
        return -1;
    }
    dhcpv6RelayTimert.snoopTimer = timerCreate(DHCPV6_RELAY_APP_ID, 0);
    if (dhcpv6RelayTimert.snoopTimer == nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT))
            printf(" dhcpv6RelayMgrTimerInit : dhcpv6RelayTimert.snoopTimer is NULL \r");
        return -1;
    }
    // Started only once every table exists (dhcpv6RelayMgrStartup).
    return 0;
}

int dhcpv6RelayMgrProtoSockInit() {
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("DHCPv6RelayMgr : Inside dhcpv6RelayMgrProtoSockInit \r");
    const int fd = qorSocket(AF_QORL2, QOR_SOCK_RAW, QOR_L2_PROTO_DHCPV6);
    if (fd == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SOCKET_CREATE_FAILED, 0u);
        return -1;
    }
    uint8_t addr[QOR_L2_ADDR_LEN] = {};
    addr[0] = QOR_L2_ADDR_LEN;
    addr[1] = AF_QORL2;
    if (qorBind(fd, addr, sizeof addr) == -1) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SOCKET_BIND_FAILED, 0u);
        qorClose(fd);
        return -1;
    }
    g.protoSockFd = fd;
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("DhcpV6 Protocol Fd created successfully !! \r");
    return 0;
}

int dhcpv6RelayMgrCreateOutSockFd() {
    const int fd = qorSocket(AF_QORL2, QOR_SOCK_RAW, 0);
    if (fd == -1) qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SOCKET_CREATE_FAILED, 0u);
    // Kept even when -1: the daemon runs on without an output socket.
    g.outSockFd = fd;
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("DHCPv6RelayMgr : Out Socket created Successfully !!\r");
    return fd == -1 ? -1 : 0;
}

int dhcpv6RelayMgrStartup(int argc, char** argv, dhcpv6FdSet* master, int* nfds) {
    g.taskKey = qorTaskStartup(argc, argv, 0, 0);
    if (dhcpv6Dbg(DHCPV6_DBG_INIT))
        printf("DHCPv6RelayMgr : Inside thread handlerdhcpv6RelayMgrMain\r");
    g.srcIfIndex = 0;
    g.srcIfSockFd = 0;
    *nfds = DHCPV6_FDSET_BITS;
    if (dhcpv6RelayMgrVarInit(master, nfds) == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayMgrVarInit failed ");
        return -1;
    }
    timer_tid = qor_taskSpawnP(DHCPV6_TIMER_TASK_ID, 0, "DHCPV6TMRMGR", 200, 0, 16000, timerTask);
    if (dhcpv6RelayMgrTimerInit() == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayMgrTimerInit failed ");
        return -1;
    }
    if (dhcpv6RelayMgrProtoSockInit() == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayMgrProtoSockInit failed ");
        return -1;
    }
    if (dhcpv6RelayMgrMemInit() == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayMgrMemInit falied");
        return -1;
    }
    // Any non-zero result of the snooping start-up ends start-up, not only -1.
    if (dhcpv6SnoopingInit() != 0) {
        startupTrace(kMainFn, __LINE__, "dhcpv6SnoopingInit falied");
        return -1;
    }
    if (dhcpv6RelayTableInit() == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayTransactionTableInit failed ");
        return -1;
    }
    // Not fatal: the IFM and ACL registrations wait for their peers by
    // themselves, and a missing output socket only stops relaying.
    dhcpv6RelayMgrCreateOutSockFd();
    dhcpv6RelayMgrIFMReg();
    dhcpv6RelayMgrAclReg();
    dhcpv6RelayMgrMrtmReg(1);
    dhcpv6FdAdd(*master, g.protoSockFd);
    dhcpv6FdAdd(*master, g.timerPipeFd);
    *nfds = DHCPV6_FDSET_BITS;
    if (startTimers() != 0) return -1;
    if (dhcpv6RelayMgrRtmInit() == -1) {
        startupTrace(kMainFn, __LINE__, "dhcpv6RelayMgrRtmInit failed ");
        return -1;
    }
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Dhcpv6RelayMgr - Init Success... \r");
    return 0;
}

// ---- the event loop ------------------------------------------------------------------------

void dhcpv6RelayMgrLoopPass(const dhcpv6FdSet& master, int nfds) {
    // The pass's events are gathered and written as it ends, however it ends,
    // before the loop waits again.
    struct EventsAtEnd {
        ~EventsAtEnd() { qorEvtLoopFlush(); }
    } eventsAtEnd;
    dhcpv6FdSet ready = master;
    // The set is 256 bytes, so select() may look at all 2048 descriptors.
    if (select(nfds, reinterpret_cast<fd_set*>(ready.bits), nullptr, nullptr, nullptr) == -1) {
        qorErrorPrintf(QOR_TRACE_MODULE_DHCPV6, "DHCPV6RELAYMGR select returned error: %d", errno);
        return;
    }
    if (dhcpv6FdIsSet(ready, Key_getSocketFd(g.dhcpv6RelayreqQfd))) serveRequestQueue();
    if (dhcpv6FdIsSet(ready, g.timerPipeFd)) serveTimerPipe();
    if (dhcpv6FdIsSet(ready, g.protoSockFd) && !serveProtoSocket()) return;
    if (dhcpv6FdIsSet(ready, g.swpPipeFd)) qorSwpReadPipe(g.swpPipeFd);
}

long dhcpv6RelayMgrMain(long argc, long argv, long, long, long, long, long, long, long, long) {
    dhcpv6FdSet master{};
    int nfds = DHCPV6_FDSET_BITS;
    if (dhcpv6RelayMgrStartup(int(argc), reinterpret_cast<char**>(argv), &master, &nfds) != 0)
        return -1;
    for (;;) dhcpv6RelayMgrLoopPass(master, nfds);
}
