// Start-up, registrations and the event loop as peers and an operator see
// them: the registration requests, the retries until a peer accepts, which
// failures end start-up, and what one pass of the loop serves and in what order.
#include <algorithm>
#include <functional>
#include <regex>

#include "dhcpv6RelayEvents.h"
#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

// Holding the timer task's identifier (337) keeps start-up from spawning a
// timer task; the tests drive the wheel themselves.
void holdTimerTaskId() {
    static const int held = qor_taskSpawnP(
        DHCPV6_TIMER_TASK_ID, 0, "timer-id-holder", 200, 0, 16000,
        [](long, long, long, long, long, long, long, long, long, long) -> long {
            taskSuspend(0);
            return 0;
        });
    (void)held;
}

// Trace lines of module 102, as an operator's console shows them, with the
// source line number taken out ("...: line N:..." -> "...: line #:...").
class TraceCapture {
public:
    explicit TraceCapture(uint32_t flags) {
        qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, flags);
        qorSetConsoleSink([this](const std::string& l) { lines_.push_back(std::regex_replace(l, kLineNo, "$1#:")); });
    }
    ~TraceCapture() {
        qorSetConsoleSink(nullptr);
        qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0);
    }
    const std::vector<std::string>& lines() const { return lines_; }

private:
    inline static const std::regex kLineNo{"(: line )[0-9]+:"};
    std::vector<std::string> lines_;
};

bool hasEvent(const std::string& log, const char* name) { return log.find(name) != std::string::npos; }

// What a step printed under the debug switches `flags`.
template <typename F>
std::string printed(uint32_t flags, F f) {
    dhcpv6_debug_flag = flags;
    CaptureStdout();
    f();
    return GetCapturedStdout();
}

class Registration : public RelayFixture {};

TEST_F(Registration, IfmRequestCarriesTheRelayIdentityAndTheServiceMasks) {
    ASSERT_EQ(dhcpv6IFMRegister(), 0);
    const auto sends = since("qorIpcSendWait");
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].ints, (std::vector<int64_t>{dhcpv6RelayGlobalVar.ipcReqQueue, 2632, 50, 10802, 0}));
    const auto& r = sends[0].bytes;
    ASSERT_EQ(r.size(), 2632u);
    const uint32_t ip = qor_sysGetIpAddr(), me = qor_getQueueId(336, 0, 1);
    const std::pair<size_t, uint32_t> words[] = {
        {QOR_IPC_OFF_LENGTH, 2632}, {QOR_IPC_OFF_TYPE, 10802}, {QOR_IPC_OFF_SRC_ADDR, ip},
        {QOR_IPC_OFF_SRC_QUEUE, me}, {QOR_IPC_OFF_DST_QUEUE, qor_getQueueId(138, 0, 1)},
        {60, 0}, {1952, 0}, {1956, 336u << 16}, {1960, 0}, {1964, ip}, {1968, me}, {1976, 51},
        {2596, 0}, {2616, 0xFFFFFFFF}};
    for (const auto& [off, value] : words) EXPECT_EQ(qor::u32At(r, off), value) << "offset " << off;
    EXPECT_EQ(qor::u16At(r, 1980), 0);
    for (int type = 0; type <= QOR_IFM_REG_MAX_TYPE; ++type)
        EXPECT_EQ(qor::u32At(r, QOR_IFM_REG_OFF_MASKS + 4 * size_t(type)), type == 11 ? 0x3C0000u : 0u)
            << "service type " << type;
}

// The IFM's answer to a registration, with its result word.
std::vector<uint8_t> ifmAnswer(uint32_t result) {
    std::vector<uint8_t> a(2632, 0);
    qor::putU32(a, 1952, result);
    return a;
}

struct IfmRefusal {
    const char* what;
    std::function<void()> arrange;
    int result;
    const char* event;
};
void PrintTo(const IfmRefusal& c, std::ostream* os) { *os << c.what; }

class IfmRefused : public Registration, public ::testing::WithParamInterface<IfmRefusal> {};

TEST_P(IfmRefused, IsReportedAndReturned) {
    GetParam().arrange();
    EXPECT_EQ(dhcpv6IFMRegister(), GetParam().result);
    EXPECT_TRUE(hasEvent(eventLog(), GetParam().event)) << eventLog();
}

INSTANTIATE_TEST_SUITE_P(
    Refusals, IfmRefused,
    ::testing::Values(
        IfmRefusal{"the IFM answers a non-zero result", [] { qorfake::setNextAnswer("qorIpcSendWait", ifmAnswer(3)); },
                   -1, "DHCPV6_EVT_IPC_REQUEST_FAILED"},
        IfmRefusal{"no answer in time", [] { qorfake::setNextResult("qorIpcSendWait", -2); }, -1,
                   "DHCPV6_EVT_IPC_REQUEST_FAILED"},
        IfmRefusal{"the relay's own address is unknown",
                   [] { qorfake::setNextResult("qor_tmeGetPeerIpAddrByName", -2); }, -2, "DHCPV6_EVT_PEER_ADDR_FAILED"},
        IfmRefusal{"the IFM's address is unknown",
                   [] {
                       for (int r : {0, 0, -1}) qorfake::setNextResult("qor_tmeGetPeerIpAddrByName", r);
                   },
                   -1, "DHCPV6_EVT_PEER_ADDR_FAILED"}));

TEST_F(Registration, IfmAndAclQueuesAreRetriedEverySecondUntilAccepted) {
    qorfake::setNextResult("qorSwpQueueCreateQs", -1);
    qorfake::setNextResult("qorSwpQueueCreateQs", -1);
    qorfake::setNextAnswer("qorIpcSendWait", ifmAnswer(1));
    TickPump pump;
    EXPECT_EQ(printed(DHCPV6_DBG_INIT, dhcpv6RelayMgrIFMReg),
              "SWP Q create failed\rSWP Q create failed\r\r\n SWPQ creation success!\r"
              "IFM reg failed!!!\rSuccess in IFM reg\r");
    EXPECT_EQ(since("qorSwpQueueCreateQs").size(), 3u);
    EXPECT_EQ(since("qorIpcSendWait").size(), 2u);
    markCalls();
    qorfake::setNextResult("qorSwpQueueCreate_p", -1);
    EXPECT_EQ(printed(DHCPV6_DBG_INIT, dhcpv6RelayMgrAclReg),
              "ACL SWP Q create failed\r\r\n ACL SWPQ creation success!\r");
    const auto creates = since("qorSwpQueueCreate_p");
    ASSERT_EQ(creates.size(), 2u);
    EXPECT_EQ(creates[1].ints[7], 57) << "the ACL manager";
}

// (failed attempts, result, attempts made)
class RtmRegistration : public Registration, public ::testing::WithParamInterface<std::tuple<int, int, size_t>> {};

TEST_P(RtmRegistration, IsTriedSevenTimesAtMost) {
    const auto [failures, result, attempts] = GetParam();
    for (int i = 0; i < failures; ++i) qorfake::setNextResult("qorRtmRegisterAddrFamily_vrf", 1);
    EXPECT_EQ(dhcpv6RelayMgrRtmInit(), result);
    const auto regs = since("qorRtmRegisterAddrFamily_vrf");
    ASSERT_EQ(regs.size(), attempts);
    const auto& g = dhcpv6RelayGlobalVar;
    EXPECT_EQ(regs[0].ints, (std::vector<int64_t>{23, 0xFFFF, g.instanceId, 2, 0, 0, 336, g.ipcReqQueue, 0}));
    EXPECT_EQ(std::string(regs[0].bytes.begin(), regs[0].bytes.end()), "Dhcpv6RelayMgr");
    EXPECT_EQ(since("qorSwpQueueCreate_p").size(), result == 0 ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(Attempts, RtmRegistration,
                         ::testing::Values(std::make_tuple(0, 0, size_t(1)), std::make_tuple(6, 0, size_t(7)),
                                           std::make_tuple(7, -1, size_t(7))));

TEST_F(Registration, RtmQueueIsWaitedFor) {
    qorfake::setNextResult("qorSwpQueueCreate_p", -1);
    {
        TickPump pump;
        EXPECT_EQ(dhcpv6RelayMgrRtmInit(), 0);
    }
    const auto creates = since("qorSwpQueueCreate_p");
    ASSERT_EQ(creates.size(), 2u);
    const auto& g = dhcpv6RelayGlobalVar;
    EXPECT_EQ(creates[1].ints,
              (std::vector<int64_t>{g.evtLogHandle, 20000, 5, 25, 336, 0, g.ipcReqQueue, 76, 0, 12804, 0,
                                    g.swpPipeFd}));
}

// Trusted, untrusted, and refused by the IFM.
TEST_F(Registration, TrustNoticeTellsTheIfmThePortsTrustAndReportsARefusal) {
    const uint32_t port = ifmEthernetIfIndex(2, 7, 0);
    const struct {
        uint8_t trust;
        int refusal, result;
    } cases[] = {{1, 0, 0}, {0, 0, 0}, {1, 4, -1}};
    for (const auto& c : cases) {
        markCalls();
        qorfake::setNextResult("qorPortCfgNotif", c.refusal);
        const auto notify = [&] { EXPECT_EQ(dhcpv6NotifIfmSnoopTrustConfig(port, c.trust), c.result); };
        EXPECT_EQ(printed(DHCPV6_DBG_EVENT, notify),
                  c.result ? "DHCPv6: IFM Snoop trust config notification failed\r" : "");
        std::vector<uint8_t> expected(132, 0);
        qor::putU32(expected, 64, port);
        expected[68] = c.trust;
        qor::putU32(expected, 80, 0x40);
        ASSERT_EQ(since("qorPortCfgNotif").size(), 1u);
        EXPECT_EQ(since("qorPortCfgNotif")[0].bytes, expected);
    }
}

class Mrtm : public RelayFixture {
protected:
    static std::vector<uint8_t> response(uint32_t index, bool success = true, uint32_t count = 1,
                                         bool release = false) {
        auto m = typeMsg(MT_MRTM_MCIDX_RESP, 168);
        qor::putU32(m, 140, release ? 1 : 0);
        qor::putU32(m, 152, success ? 1 : 0);
        qor::putU32(m, 156, count);
        qor::putU32(m, 160, index);
        return m;
    }
    std::vector<qorfake::SwpBlock> requests() const { return qorfake::swpPending(dhcpv6RelayGlobalVar.mrtmSwpQueue); }
    static std::string answer(std::vector<uint8_t> m, uint32_t flags = DHCPV6_DBG_MRTM) {
        return printed(flags, [&] { dispatch(m); });
    }
};

TEST_F(Mrtm, RegistrationAndTheFirstIndexRequest) {
    EXPECT_EQ(printed(DHCPV6_DBG_MRTM, [] { ASSERT_EQ(dhcpv6RegWithMrtmIdx(), 0); }),
              "qorSwpEnqueue to mrtm is success\r");
    const auto regs = since("mrtmapiIpcSendAndRecv");
    ASSERT_EQ(regs.size(), 1u);
    const auto& r = regs[0].bytes;
    ASSERT_EQ(r.size(), 128u);
    EXPECT_EQ(qor::u32At(r, QOR_IPC_OFF_TYPE), 15670u);
    EXPECT_EQ(std::string(r.begin() + 80, r.begin() + 96), "DHCPV6 MCIDX Cln") << "cut to 16 bytes";
    EXPECT_EQ(qor::u32At(r, 96), qor_getQueueId(336, 0, 1));
    EXPECT_EQ(qor::u32At(r, 100), 16u);
    EXPECT_EQ(qor::u32At(r, 60), 0xFFFFFFFFu);
    const auto req = requests();
    ASSERT_EQ(req.size(), 1u);
    EXPECT_EQ(req[0].bytes.size(), 168u);
    EXPECT_EQ(qor::u32At(req[0].bytes, QOR_IPC_OFF_TYPE), 15672u);
    EXPECT_EQ(qor::u32At(req[0].bytes, 128), 1u) << "the client id MRTM gave";
    EXPECT_EQ(qor::u32At(req[0].bytes, 140), 0u) << "allocate";
    EXPECT_EQ(qor::u32At(req[0].bytes, 148), 1u) << "one index";
    // A non-zero first index is kept.
    EXPECT_EQ(answer(response(9)), "Got 9 as l2mc index\r\n");
    EXPECT_EQ(dhcpv6RelayGlobalVar.mcastGroupIdx, 9u);
    EXPECT_EQ(requests().size(), 1u);
}

struct MrtmFailure {
    const char* what;
    std::function<void()> arrange;
    const char* printed;
};
void PrintTo(const MrtmFailure& c, std::ostream* os) { *os << c.what; }

class MrtmAttemptFails : public Mrtm, public ::testing::WithParamInterface<MrtmFailure> {};

TEST_P(MrtmAttemptFails, ReturnsMinusOneWithItsReason) {
    GetParam().arrange();
    EXPECT_EQ(printed(DHCPV6_DBG_MRTM, [] { EXPECT_EQ(dhcpv6RegWithMrtmIdx(), -1); }), GetParam().printed);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, MrtmAttemptFails,
    ::testing::Values(
        MrtmFailure{"no answer", [] { qorfake::setNextResult("mrtmapiIpcSendAndRecv", -1); },
                    "Register with mrtm failed \r"},
        MrtmFailure{"refused",
                    [] {
                        std::vector<uint8_t> a(128, 0);
                        qor::putU32(a, 20, 1);
                        qorfake::setNextAnswer("mrtmapiIpcSendAndRecv", a);
                    },
                    "Status is not set to success\r"},
        MrtmFailure{"no queue", [] { qorfake::setNextResult("qorSwpQueueCreate_p", -1); },
                    "Mrtm - Swp Q creation failed \r"},
        MrtmFailure{"no memory", [] { qorMemFailNextAlloc(DHCPV6_MEM_MODULE); }, "Alloc failed \r"},
        MrtmFailure{"queue refuses the request", [] { qorfake::setNextResult("qorSwpEnqueue", -1); },
                    "qorSwpEnqueue failed \r"}));

TEST_F(Mrtm, IndexZeroIsHeldWhileASecondIsAllocatedAndThenReleased) {
    ASSERT_EQ(dhcpv6RegWithMrtmIdx(), 0);
    EXPECT_EQ(answer(response(0)), "Got 0 as l2mc index\r\nInvalid l2mc index.. Re-registering again with mrtm \r");
    ASSERT_EQ(requests().size(), 2u);
    EXPECT_EQ(qor::u32At(requests()[1].bytes, 140), 0u) << "a second allocation";
    EXPECT_EQ(isL2McZero, 1);
    EXPECT_EQ(answer(response(5)), "Got 5 as l2mc index\r\nInvalid l2mc index.. Re-registering again with mrtm \r");
    ASSERT_EQ(requests().size(), 3u);
    EXPECT_EQ(qor::u32At(requests()[2].bytes, 140), 1u) << "release";
    EXPECT_EQ(qor::u32At(requests()[2].bytes, 160), 0u) << "of index 0";
    EXPECT_EQ(isL2McZero, 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.mcastGroupIdx, 5u);
    EXPECT_EQ(answer(response(0, true, 1, true)), "MCIndex release success\r");
    EXPECT_EQ(requests().size(), 3u);
    EXPECT_EQ(dhcpv6RelayGlobalVar.mcastGroupIdx, 5u);
}

struct McidxCase {
    const char* what;
    bool primary, success;
    uint32_t count;
    int sequence;  // the SWP layer's verdict on the response's sequence number
    const char* printed;
    bool failedEvent;
};
void PrintTo(const McidxCase& c, std::ostream* os) { *os << c.what; }

class McidxIgnored : public Mrtm, public ::testing::WithParamInterface<McidxCase> {};

TEST_P(McidxIgnored, GrantsNoIndex) {
    const McidxCase& c = GetParam();
    qorHaSetPrimary(c.primary);
    qorfake::setNextResult("qorSwpCkSeqAndAck", c.sequence);
    EXPECT_EQ(answer(response(4, c.success, c.count), DHCPV6_DBG_MRTM | DHCPV6_DBG_EVENT), c.printed);
    EXPECT_EQ(dhcpv6RelayGlobalVar.mcastGroupIdx, 0u);
    EXPECT_EQ(hasEvent(eventLog(), "DHCPV6_EVT_MCIDX_RESP_FAILED"), c.failedEvent);
}

INSTANTIATE_TEST_SUITE_P(
    Responses, McidxIgnored,
    ::testing::Values(
        McidxCase{"on the standby", false, true, 1, QOR_SWP_IN_ORDER, "Secondary.. so returning \r", false},
        McidxCase{"failed", true, false, 1, QOR_SWP_IN_ORDER, " Response failed \r", true},
        McidxCase{"two indexes", true, true, 2, QOR_SWP_IN_ORDER, "Incorrect no of indexes \r", false},
        McidxCase{"duplicate", true, true, 1, QOR_SWP_DUPLICATE, "", false},
        McidxCase{"out of order", true, true, 1, QOR_SWP_OUT_OF_ORDER, "SWP_FAILURE_SEQ \r", false},
        McidxCase{"unknown sequence verdict", true, true, 1, 1, "SWP_FAILURE_SEQ \r", false}));

class Startup : public RelayFixture {
protected:
    void bringUp() override {
        holdTimerTaskId();
        startTimerService();
    }
    int startup() { return dhcpv6RelayMgrStartup(0, nullptr, &master, &nfds); }
};

TEST_F(Startup, RegistersWithEveryPeerInOrderAndStartsBothSweeps) {
    const std::string out = printed(DHCPV6_DBG_INIT | DHCPV6_DBG_EVENT, [&] { ASSERT_EQ(startup(), 0); });
    const auto& g = dhcpv6RelayGlobalVar;
    const std::vector<std::string> peerCalls = {"qorSocket", "qorBind", "qorSwpQueueCreateQs", "qorIpcSendWait",
                                                "qorSwpQueueCreate_p", "mrtmapiIpcSendAndRecv",
                                                "qorRtmRegisterAddrFamily_vrf"};
    std::vector<std::string> order;
    for (const auto& name : callNamesSince())
        if (std::find(peerCalls.begin(), peerCalls.end(), name) != peerCalls.end()) order.push_back(name);
    EXPECT_EQ(order, (std::vector<std::string>{"qorSocket", "qorBind", "qorSocket", "qorSwpQueueCreateQs",
                                               "qorIpcSendWait", "qorSwpQueueCreate_p", "mrtmapiIpcSendAndRecv",
                                               "qorSwpQueueCreate_p", "qorRtmRegisterAddrFamily_vrf",
                                               "qorSwpQueueCreate_p"}));
    const auto sockets = since("qorSocket");
    EXPECT_EQ(sockets[0].ints, (std::vector<int64_t>{36, 3, 38})) << "the DHCPv6 trap";
    EXPECT_EQ(sockets[1].ints, (std::vector<int64_t>{36, 3, 0})) << "the output socket";
    std::vector<uint8_t> addr(16, 0);
    addr[0] = 16;
    addr[1] = 36;
    EXPECT_EQ(since("qorBind").at(0).bytes, addr);
    EXPECT_EQ(since("qorSwpQueueCreateQs").at(0).ints,
              (std::vector<int64_t>{g.evtLogHandle, 0, 10, 25, 336, 0, g.ipcReqQueue, 138, 0,
                                    qor_getQueueId(336, 0, 3), 0, 0, 0, g.swpPipeFd}));
    const auto queues = since("qorSwpQueueCreate_p");
    EXPECT_EQ(queues[0].ints,
              (std::vector<int64_t>{g.evtLogHandle, 0, 10, 25, 336, 0, g.ipcReqQueue, 57, 0, 0, 0, g.swpPipeFd}));
    EXPECT_EQ(queues[2].ints[7], 76) << "the RTM queue comes last";
    EXPECT_EQ(timerActive(dhcpv6RelayTimert.transTimer), 1);
    EXPECT_EQ(timerActive(dhcpv6RelayTimert.snoopTimer), 1);
    EXPECT_EQ(nfds, 2048);
    for (int fd : {g.swpPipeFd, g.protoSockFd, g.timerPipeFd})
        EXPECT_TRUE(dhcpv6FdIsSet(master, fd)) << "descriptor " << fd << " is watched";
    EXPECT_FALSE(dhcpv6FdIsSet(master, g.outSockFd)) << "the output socket is not watched";
    EXPECT_EQ(out.find("DHCPv6RelayMgr : Inside thread handlerdhcpv6RelayMgrMain\r"), 0u) << out;
    for (const char* line : {"DhcpV6 Protocol Fd created successfully !! \r",
                             "DHCPv6RelayMgr : Out Socket created Successfully !!\r", "Success in IFM reg\r"})
        EXPECT_NE(out.find(line), std::string::npos) << line;
    const std::string last = "Dhcpv6RelayMgr - Init Success... \r";
    EXPECT_EQ(out.rfind(last), out.size() - last.size()) << out;
}

TEST_F(Startup, OutputSocketFailureLeavesTheDaemonRunningWithoutOne) {
    qorfake::setNextResult("qorSocket", -2);  // the protocol socket as usual
    qorfake::setNextResult("qorSocket", -1);
    EXPECT_EQ(startup(), 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.outSockFd, -1);
    EXPECT_TRUE(hasEvent(eventLog(), "DHCPV6_EVT_SOCKET_CREATE_FAILED"));
}

struct StartupFailure {
    const char* what;
    std::function<void()> arrange;
    std::vector<std::string> traces;
    const char* event;  // may be null
};
void PrintTo(const StartupFailure& c, std::ostream* os) { *os << c.what; }

class StartupFails : public Startup, public ::testing::WithParamInterface<StartupFailure> {};

TEST_P(StartupFails, EndsTheTaskWithATrace) {
    GetParam().arrange();
    TraceCapture traces(DHCPV6_TRACE_INIT);
    EXPECT_EQ(startup(), -1);
    EXPECT_EQ(traces.lines(), GetParam().traces);
    if (GetParam().event) {
        EXPECT_TRUE(hasEvent(eventLog(), GetParam().event)) << eventLog();
    }
}

INSTANTIATE_TEST_SUITE_P(
    Steps, StartupFails,
    ::testing::Values(
        StartupFailure{"no request queue", [] { qorfake::setNextResult("Key_getReqQueue", -1); },
                       {"dhcpv6RelayMgrVarInit: line #:qorIpcTmrOpen failed",
                        "dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrVarInit failed "},
                       nullptr},
        StartupFailure{"no SWP pipe", [] { qorfake::setNextResult("qorSwpCreatePipe", -1); },
                       {"dhcpv6RelayMgrVarInit: line #:qorSwpCreatePipe failed",
                        "dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrVarInit failed "},
                       nullptr},
        StartupFailure{"timer pipe taken", [] { pipeDevCreate(kTimerPipe, 4, 4); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrTimerInit failed "}, "DHCPV6_EVT_TMR_PIPE_FAILED"},
        StartupFailure{"no protocol socket", [] { qorfake::setNextResult("qorSocket", -1); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrProtoSockInit failed "},
                       "DHCPV6_EVT_SOCKET_CREATE_FAILED"},
        StartupFailure{"protocol socket not bound", [] { qorfake::setNextResult("qorBind", -1); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrProtoSockInit failed "},
                       "DHCPV6_EVT_SOCKET_BIND_FAILED"},
        StartupFailure{"memory partitions taken", [] { qor_memPartFixedInit(DHCPV6_MEM_MODULE, DHCPV6_LAST_POOL, 0); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrMemInit falied"}, nullptr},
        StartupFailure{"no transaction pool", [] { qorMemFailNextAlloc(DHCPV6_TRANS_POOL); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayTransactionTableInit failed "}, nullptr},
        StartupFailure{"RTM never accepts", [] { qorfake::setResult("qorRtmRegisterAddrFamily_vrf", 1); },
                       {"dhcpv6RelayMgrMain: line #:dhcpv6RelayMgrRtmInit failed "}, nullptr}));

TEST_F(Startup, UnboundProtocolSocketIsClosedAndTracedOnlyUnderTheInitBit) {
    qorfake::setNextResult("qorBind", -1);
    TraceCapture traces(DHCPV6_TRACE_RECV);
    EXPECT_EQ(startup(), -1);
    EXPECT_TRUE(traces.lines().empty());
    ASSERT_EQ(since("qorSocket").size(), 1u);
    const auto closes = since("qorClose");
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].ints[0], since("qorBind").at(0).ints[0]);
    EXPECT_EQ(dhcpv6RelayGlobalVar.protoSockFd, 0);
}

class Loop : public Startup {
protected:
    int reqPipe[2] = {-1, -1};
    int protoPipe[2] = {-1, -1};

    // The request queue's socket and the protocol socket are pipes the test
    // makes readable by hand.
    void bringUp() override {
        Startup::bringUp();
        ASSERT_EQ(pipe(reqPipe), 0);
        ASSERT_EQ(pipe(protoPipe), 0);
        qorfake::setResult("Key_getSocketFd", reqPipe[0]);
        qorfake::setNextResult("qorSocket", protoPipe[0]);
        ASSERT_EQ(startup(), 0);
        dhcpv6RelayGlobalVar.protoSockFd = protoPipe[0];
    }
    void TearDown() override {
        dhcpv6RelayGlobalVar.protoSockFd = 0;
        Startup::TearDown();
        for (int fd : {reqPipe[0], reqPipe[1], protoPipe[0], protoPipe[1]}) close(fd);
    }
    static void poke(int fd) { ASSERT_EQ(write(fd, "x", 1), 1); }
    static void drain(int fd) {
        char c;
        ASSERT_EQ(read(fd, &c, 1), 1);
    }
    void pass() { dhcpv6RelayMgrLoopPass(master, nfds); }
    size_t firstCall(const std::string& name) const {
        const auto names = callNamesSince();
        return size_t(std::find(names.begin(), names.end(), name) - names.begin());
    }
    int waitingInTimerPipe() const {
        int n = -1;
        EXPECT_EQ(qorIoctl(dhcpv6RelayGlobalVar.timerPipeFd, FIONMSGS, reinterpret_cast<long>(&n)), OK);
        return n;
    }
};

TEST_F(Loop, IpcMessageAndPacketReadyTogetherAreBothServedIpcFirst) {
    markCalls();
    qorfake::queueIncoming(typeMsg(46405, 80));
    poke(reqPipe[1]);
    const uint32_t port = ifmEthernetIfIndex(1, 2, 0);
    std::vector<uint8_t> frame(12 + 60, 0xAB);  // the receive interfaces, then 60 bytes
    qor::putU32(frame, 0, vlanIf(10));
    qor::putU32(frame, 4, port);
    qor::putU32(frame, 8, port);
    qorfake::setNextAnswer("qorRecvfrom4", frame);
    poke(protoPipe[1]);
    // What the packet path makes of the frame is its own tests' business.
    const std::string out = printed(DHCPV6_DBG_EVENT, [&] { pass(); });
    EXPECT_EQ(out.rfind("DHCPv6RelayMgr : dhcpv6RelayreqQfd SetReceived IPC message \rDefault case \r"
                        "DHCPv6RelayMgr : Recieved packet on protocol fd [logInt = vlan 10,  phyInt = "
                        "ethernet 1/2, recvInt = ethernet 1/2 ] bytes 60\r\n",
                        0),
              0u)
        << out;
    EXPECT_EQ(replies().size(), 1u);
    EXPECT_LT(firstCall("qorIpcRecv"), firstCall("qorRecvfrom4"));
    EXPECT_EQ(since("qorIpcRecv").at(0).ints,
              (std::vector<int64_t>{dhcpv6RelayGlobalVar.dhcpv6RelayreqQfd, 8192, 0}));
    EXPECT_EQ(since("qorRecvfrom4").at(0).ints, (std::vector<int64_t>{protoPipe[0], 12000, 0}));
    drain(reqPipe[0]);
    drain(protoPipe[0]);
}

TEST_F(Loop, FailedPacketReceiveLeavesTheSwpPipeToTheNextPass) {
    const uint32_t word = 1;
    ASSERT_EQ(write(dhcpv6RelayGlobalVar.swpPipeFd, &word, sizeof word), 4);
    poke(protoPipe[1]);
    markCalls();
    pass();
    EXPECT_EQ(since("qorRecvfrom4").size(), 1u);
    EXPECT_TRUE(since("qorSwpReadPipe").empty());
    const std::string log = eventLog();
    EXPECT_TRUE(hasEvent(log, "DHCPV6_EVT_SOCKET_RECV_FAILED")) << log;
    EXPECT_NE(log.find("(value " + std::to_string(protoPipe[0] & 0xFFFF) + ")"), std::string::npos) << log;
    drain(protoPipe[0]);
    pass();
    EXPECT_EQ(since("qorSwpReadPipe").size(), 1u);
    EXPECT_EQ(since("qorSwpReadPipe")[0].ints[0], dhcpv6RelayGlobalVar.swpPipeFd);
}

TEST_F(Loop, ReceiveErrorsAreTracedUnderTheReceiveBit) {
    poke(reqPipe[1]);  // readable, but no message arrives
    const uint32_t zero = 0;
    ASSERT_EQ(write(dhcpv6RelayGlobalVar.timerPipeFd, &zero, sizeof zero), 4);
    TraceCapture traces(DHCPV6_TRACE_RECV);
    pass();
    EXPECT_EQ(traces.lines(),
              std::vector<std::string>{"dhcpv6RelayMgrMain: line #:qorIpcRecv - dhcpv6RelayreqQfd Error \r\n"});
    EXPECT_EQ(waitingInTimerPipe(), 0) << "a zero word is read and ignored in the same pass";
    EXPECT_TRUE(replies().empty());
    drain(reqPipe[0]);
}

TEST_F(Loop, SweepsRunOnTheLoopAndRestartThemselves) {
    timerEnt* trans = dhcpv6RelayTimert.transTimer;
    timerEnt* snoop = dhcpv6RelayTimert.snoopTimer;
    runWheel(DHCPV6_TRANS_SWEEP_MSEC / 10);  // 100 ticks a second
    EXPECT_EQ(trans->state, TIMER_STATE_EXPIRED) << "on its way to the loop";
    EXPECT_EQ(snoop->state, TIMER_STATE_EXPIRED) << "waits for the loop to restart it";
    ASSERT_EQ(waitingInTimerPipe(), 2);
    pass();
    pass();
    EXPECT_EQ(waitingInTimerPipe(), 0);
    EXPECT_EQ(trans->state, TIMER_STATE_ACTIVE) << "the sweep restarted itself";
    EXPECT_EQ(snoop->state, TIMER_STATE_ACTIVE);
    runWheel(DHCPV6_SNOOP_SWEEP_MSEC / 10);
    EXPECT_EQ(waitingInTimerPipe(), 1) << "the binding tick comes every second";
    pass();
    EXPECT_EQ(snoop->state, TIMER_STATE_ACTIVE);
    EXPECT_EQ(trans->state, TIMER_STATE_ACTIVE);
}

TEST_F(Loop, SelectErrorIsReportedAndTheLoopGoesOn) {
    int gone[2];  // descriptor numbers that were open a moment ago and are no longer
    ASSERT_EQ(pipe(gone), 0);
    close(gone[0]);
    close(gone[1]);
    dhcpv6FdSet bad{};
    dhcpv6FdAdd(bad, gone[0]);
    TraceCapture traces(0);
    dhcpv6RelayMgrLoopPass(bad, 2048);
    EXPECT_EQ(traces.lines(),
              std::vector<std::string>{"DHCPV6RELAYMGR select returned error: " + std::to_string(EBADF)});
}

}  // namespace
