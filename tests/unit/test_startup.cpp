// Start-up, registrations and the event loop as peers and an operator see
// them: the registration requests, the retries until a peer accepts, which
// failures end start-up, and what one pass of the loop serves and in what order.
#include <functional>
#include <thread>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using Lines = std::vector<std::string>;

// Trace lines of module 102 printed under `flags` while `run` runs, source line numbers taken out.
template <typename F>
Lines traced(uint32_t flags, F run) {
    Lines lines;
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, flags);
    qorSetConsoleSink([&](std::string l) {  // "f: line 12:text" -> "f: line #:text"
        const size_t at = l.find(": line "), end = l.find(':', at + 7);
        lines.push_back(at == std::string::npos || end == std::string::npos ? l : l.replace(at + 7, end - at - 7, "#"));
    });
    run();
    qorSetConsoleSink(nullptr);
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0);
    return lines;
}

// The IFM refuses one request (result word 1 at 1952), then accepts; the relay
// waits a second between attempts, for the queues too, on the hand-made tick.
TEST_F(RelayFixture, IfmAndAclRegistrationsAreRetriedUntilAcceptedAndCarryTheRelaysIdentity) {
    std::vector<uint8_t> refusal(2632, 0);
    qor::putU32(refusal, 1952, 1);
    qorfake::setNextAnswer("qorIpcSendWait", refusal);
    for (const char* queue : {"qorSwpQueueCreateQs", "qorSwpQueueCreateQs", "qorSwpQueueCreate_p"}) qorfake::setNextResult(queue, -1);
    std::jthread tick([](std::stop_token s) { for (; !s.stop_requested(); std::this_thread::yield()) qorTickAdvance(10); });
    EXPECT_EQ(debugOf(DHCPV6_DBG_INIT, [] { dhcpv6RelayMgrIFMReg(), dhcpv6RelayMgrAclReg(); }),
              "SWP Q create failed\rSWP Q create failed\r\r\n SWPQ creation success!\rIFM reg failed!!!\r"
              "Success in IFM reg\rACL SWP Q create failed\r\r\n ACL SWPQ creation success!\r");
    EXPECT_EQ(since("qorSwpQueueCreate_p").at(1).ints[7], 57) << "the ACL manager's queue";
    const auto sends = since("qorIpcSendWait");
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].ints, (std::vector<int64_t>{dhcpv6RelayGlobalVar.ipcReqQueue, 2632, 50, 10802, 0}));
    const auto& r = sends[1].bytes;
    ASSERT_EQ(r.size(), 2632u);
    const uint32_t ip = qor_sysGetIpAddr(), me = qor_getQueueId(336, 0, 1);
    const std::pair<size_t, uint32_t> words[] = {
        {QOR_IPC_OFF_LENGTH, 2632}, {QOR_IPC_OFF_TYPE, 10802}, {QOR_IPC_OFF_SRC_ADDR, ip}, {QOR_IPC_OFF_SRC_QUEUE, me},
        {QOR_IPC_OFF_DST_QUEUE, qor_getQueueId(138, 0, 1)}, {60, 0}, {1952, 0}, {1956, 336u << 16}, {1960, 0},
        {1964, ip}, {1968, me}, {1976, 51}, {1980, 0}, {2596, 0}, {2616, 0xFFFFFFFF}};
    for (const auto& [off, value] : words) EXPECT_EQ(qor::u32At(r, off), value) << "offset " << off;
    for (int type = 0; type <= QOR_IFM_REG_MAX_TYPE; ++type)  // interface events only
        EXPECT_EQ(qor::u32At(r, QOR_IFM_REG_OFF_MASKS + 4 * size_t(type)), type == 11 ? 0x3C0000u : 0u) << type;
}

class Startup : public RelayFixture {
protected:
    // Holding the timer task's identifier (337) keeps start-up from spawning a timer task.
    void bringUp() override {
        [[maybe_unused]] static const int held = qor_taskSpawnP(DHCPV6_TIMER_TASK_ID, 0, "timer-id-holder", 200, 0, 16000,
                                               [](long, long, long, long, long, long, long, long, long, long) { return long(taskSuspend(0)); });
        startTimerService();
    }
    int startup() { return dhcpv6RelayMgrStartup(0, nullptr, &master, &nfds); }
};

// Each step's failure ends the task with its trace; the RTM is tried seven
// times at most; a failed output socket (no trace) leaves the daemon running.
TEST_F(Startup, FailedStepEndsTheTaskWithATrace) {
    const std::string main = "dhcpv6RelayMgrMain: line #:";
    const std::tuple<std::function<void()>, Lines, const char*> steps[] = {
        {[] { qorfake::setNextResult("Key_getReqQueue", -1); },
         {"dhcpv6RelayMgrVarInit: line #:qorIpcTmrOpen failed", main + "dhcpv6RelayMgrVarInit failed "}, ""},
        {[] { pipeDevCreate(kTimerPipe, 4, 4); }, {main + "dhcpv6RelayMgrTimerInit failed "}, "DHCPV6_EVT_TMR_PIPE_FAILED"},
        {[] { qorfake::setNextResult("qorBind", -1); }, {main + "dhcpv6RelayMgrProtoSockInit failed "}, "DHCPV6_EVT_SOCKET_BIND_FAILED"},
        {[] { qor_memPartFixedInit(DHCPV6_MEM_MODULE, DHCPV6_LAST_POOL, 0); }, {main + "dhcpv6RelayMgrMemInit falied"}, ""},
        {[] { for (int i = 0; i < 7; ++i) qorfake::setNextResult("qorRtmRegisterAddrFamily_vrf", 1); },
         {main + "dhcpv6RelayMgrRtmInit failed "}, ""},
        {[] { for (int fd : {-2, -1}) qorfake::setNextResult("qorSocket", fd); }, {}, "DHCPV6_EVT_SOCKET_CREATE_FAILED"}};
    for (const auto& [arrange, traces, event] : steps) {
        TearDown();
        SetUp();
        arrange();
        EXPECT_EQ(traced(DHCPV6_TRACE_INIT, [&] { EXPECT_EQ(startup(), traces.empty() ? 0 : -1); }), traces);
        EXPECT_NE(eventLog().find(event), std::string::npos) << event << " in\n" << eventLog();
    }
}

// Start-up registers in order (the RTM accepting its seventh attempt). Then the
// request queue's socket and the protocol socket are pipes made readable by
// hand: the request queue always comes first, a failed packet receive leaves
// the SWP pipe to the next pass, and a zero timer word is read and ignored.
TEST_F(Startup, RegistersInOrderThenTheLoopServesTheRequestQueuePacketsAndTheSwpPipe) {
    int req[2], proto[2];
    ASSERT_EQ(pipe(req) + pipe(proto), 0);
    qorfake::setResult("Key_getSocketFd", req[0]);
    qorfake::setNextResult("qorSocket", proto[0]);
    for (int i = 0; i < 6; ++i) qorfake::setNextResult("qorRtmRegisterAddrFamily_vrf", 1);
    const std::string out = debugOf(DHCPV6_DBG_INIT | DHCPV6_DBG_EVENT, [&] { ASSERT_EQ(startup(), 0); });
    EXPECT_TRUE(out.starts_with("DHCPv6RelayMgr : Inside thread handlerdhcpv6RelayMgrMain\r") && out.ends_with("Dhcpv6RelayMgr - Init Success... \r")) << out;
    Lines order;  // the peers' calls, a run of RTM attempts counted once
    for (const auto& c : since(""))
        for (const char* peer : {"qorSocket", "qorBind", "qorSwpQueueCreate", "qorIpcSendWait", "mrtmapi", "qorRtmReg"})
            if (c.name.starts_with(peer) && (order.empty() || order.back() != c.name || !c.name.starts_with("qorRtm"))) order.push_back(c.name);
    EXPECT_EQ(order, (Lines{"qorSocket", "qorBind", "qorSocket", "qorSwpQueueCreateQs", "qorIpcSendWait", "qorSwpQueueCreate_p",
                            "mrtmapiIpcSendAndRecv", "qorSwpQueueCreate_p", "qorRtmRegisterAddrFamily_vrf", "qorSwpQueueCreate_p"}));
    auto& g = dhcpv6RelayGlobalVar;
    EXPECT_EQ(timerActive(dhcpv6RelayTimert.transTimer) + timerActive(dhcpv6RelayTimert.snoopTimer), 2);
    for (int fd : {g.swpPipeFd, g.protoSockFd, g.timerPipeFd}) EXPECT_TRUE(dhcpv6FdIsSet(master, fd)) << fd;
    EXPECT_FALSE(dhcpv6FdIsSet(master, g.outSockFd)) << "the output socket is not watched";

    g.protoSockFd = proto[0];
    uint32_t words[2] = {0, 1};
    const auto pass = [&](Lines wantTraces, Lines wantServed) {
        for (int fd : {req[1], proto[1]}) EXPECT_EQ(write(fd, "x", 1), 1);
        markCalls();
        EXPECT_EQ(traced(DHCPV6_TRACE_RECV, [&] { dhcpv6RelayMgrLoopPass(master, nfds); }), wantTraces);
        Lines served;
        for (const auto& c : since(""))
            if (c.name == "qorIpcRecv" || c.name == "qorRecvfrom4" || c.name == "qorSwpReadPipe") served.push_back(c.name);
        EXPECT_EQ(served, wantServed);
        for (int fd : {req[0], proto[0]}) EXPECT_EQ(read(fd, words, 1), 1);
    };
    ASSERT_EQ(write(g.timerPipeFd, &words[0], 4) + write(g.swpPipeFd, &words[1], 4), 8);
    qorfake::queueIncoming(typeMsg(46405, 80));
    EXPECT_EQ(debugOf(DHCPV6_DBG_EVENT, [&] {
                  pass({"dhcpv6RelayMgrMain: line #: qorRecvfrom4 failed for ProtoSockFd \r\n"}, {"qorIpcRecv", "qorRecvfrom4"});
              }),
              "DHCPv6RelayMgr : dhcpv6RelayreqQfd SetReceived IPC message \rDefault case \r");
    EXPECT_LT(read(g.timerPipeFd, words, 4), 4) << "the zero word was read";
    EXPECT_NE(eventLog().find("DHCPV6_EVT_SOCKET_RECV_FAILED 0x540004: "), std::string::npos) << eventLog();
    EXPECT_NE(eventLog().find("(value " + std::to_string(proto[0] & 0xFFFF) + ")\n"), std::string::npos) << eventLog();
    // No message waits now and a packet arrives; what becomes of it is the packet path's business.
    std::vector<uint8_t> frame(12 + 60, 0xAB);  // logical, physical and received interface, then 60 bytes
    for (size_t off : {0, 4, 8}) qor::putU32(frame, off, off == 0 ? vlanIf(10) : ifmEthernetIfIndex(1, 2, 0));
    qorfake::setNextAnswer("qorRecvfrom4", frame);
    EXPECT_TRUE(debugOf(DHCPV6_DBG_EVENT, [&] {
                    pass({"dhcpv6RelayMgrMain: line #:qorIpcRecv - dhcpv6RelayreqQfd Error \r\n"}, {"qorIpcRecv", "qorRecvfrom4", "qorSwpReadPipe"});
                }).starts_with("DHCPv6RelayMgr : Recieved packet on protocol fd [logInt = vlan 10,  phyInt = ethernet 1/2, recvInt = "
                               "ethernet 1/2 ] bytes 60\r\n"));
    g.protoSockFd = 0;
    for (int fd : {req[0], req[1], proto[0], proto[1]}) close(fd);
}

}  // namespace
