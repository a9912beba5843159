// control_msg.cpp -- fuzz target for the control-message path: one message, received into the event loop's IPC
// buffer, through dhcpv6RelayProcCliCmd on the relay manager of harness.h. A six-byte preamble, then the message:
//   [0-1] unused (0xff in the seeds); [2] the length word: top bits 0 leave it, 1 the received count, 2 short of
//       it by (low six bits + 1), 3 longer by 64 * low six bits + 1; [3] low bits: debug lines, 0x80: the standby
//   [4] 0x01 more configuration (configure), 0x02 snooping on, 0x04 a source interface applied to a socket,
//       0x08 the next system allocation fails, 0x10-0x80 refused: port notice, setsockopt, config sync and store
//   [5] bits 0-1 the SWP sequence check (in order, duplicate, out of order, error), 0x04 the SWP ack names the
//       pending MRTM request, 0x08 the reply fails, 0x10 no SWP block memory, 0x20 enqueue refused, 0x40 tracing
// The rest of the loop's buffer is poisoned while the message is dispatched: a read past the received bytes stops
// the run whatever the length word says. A sender waits for one answer, so a second one fails the run.
#include <sanitizer/asan_interface.h>

#include <new>

#include "harness.h"
#include "qor/ha.h"
#include "qor/ipc.h"

namespace {

using namespace fz;

const char* const kRefused[] = {"qorPortCfgNotif", "qorSetsockopt", "qorCfgSync", "qorCfgInsert", "qorCfgRemoveExact",
                                "qorSwpCkSeqAndAck", "qorIpcReply", "qorSwpEnqueue"};

// 2001:db8::1 on VLAN 10 in VRFs 0 and 7, 2001:db8::5 alone on VLAN 50, source interfaces (system-wide, VLAN 20's,
// port-channel 1's) and two bindings on VLAN 10.
void configure() {
    auto h1 = helperCmd(vlanIf(10), db8(0, 1), 0, "blue"), h2 = helperCmd(vlanIf(10), db8(0, 1), 7, "blue"),
         h3 = helperCmd(vlanIf(50), db8(0, 5), 0, "blue");
    std::array<uint8_t, DHCPV6_SRC_MSG_LEN> sys{};
    qor::putU32(sys, DHCPV6_SRC_OFF_OPERATION, 1);
    qor::putU32(sys, DHCPV6_SRC_OFF_IFINDEX, vlanIf(30));
    bool ok = dhcpv6RlyHandle(h1) == 0 && dhcpv6RlyHandle(h2) == 0 && dhcpv6RlyHandle(h3) == 0 &&
              dhcpv6SourceInterface(sys) == 0;
    for (uint32_t client : {vlanIf(20), lagIf(1)}) {
        std::array<uint8_t, DHCPV6_IFSRC_MSG_LEN> m{};
        const char line[] = " ipv6 dhcp relay source-interface vlan 30";
        qor::putU32(m, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, client);
        qor::putU32(m, DHCPV6_IFSRC_OFF_OPERATION, 1);
        qor::putU32(m, DHCPV6_IFSRC_OFF_SRC_IFINDEX, vlanIf(30));
        qor::putBytes(m, DHCPV6_IFSRC_OFF_LINE, line, sizeof line);
        ok = ok && dhcpv6IfSourceInterface(m) == 0;
    }
    for (uint8_t i = 1; i <= 2 && ok; ++i) {
        auto* e = new (dhcpv6RadixAlloc(sizeof(dhcpv6SnoopEntry))) dhcpv6SnoopEntry{
            {}, {}, {}, portIf(1, i), {0, 0x11, 0x22, 0x33, 0x44, i}, {}, 3600, DHCPV6_LEARN_DYNAMIC, 128};
        qor::putU32(qor::MutByteView(e->vlanIfIndex), 0, vlanIf(10));
        std::memcpy(e->prefix, db8(0x10, i).data(), 16);
        std::memcpy(e->ipv6Addr, e->prefix, 16);
        e->node.rnKey = e->vlanIfIndex;
        ok = qorRadixInsert(dhcpv6RelayGlobalVar.snoopTbl, &e->node, DHCPV6_SNOOP_KEY_BITS) == 0;
        ++dhcpv6RelayGlobalVar.snoopEntryCount;
    }
    check(ok, "configuration failed");
}

void applyConditions(const uint8_t* pre, dhcpv6Msg msg) {
    const uint8_t state = pre[4], peer = pre[5];
    const uint32_t type = qor::u32At(msg, QOR_IPC_OFF_TYPE);
    const auto received = uint32_t(msg.size()), by = uint32_t(pre[2] & 0x3F);
    const uint32_t lengthWords[] = {0, received, received - (by + 1), received + 64 * by + 1};
    if (pre[2] >> 6) qor::putU32(msg, QOR_IPC_OFF_LENGTH, lengthWords[pre[2] >> 6]);
    const auto pending = qorfake::swpPending(dhcpv6RelayGlobalVar.mrtmSwpQueue);
    if (type == MT_SWP_ACK && (peer & 0x04) && !pending.empty()) {
        qor::putU32(msg, QOR_SWP_OFF_SEQ, pending.front().seq);
        qor::putU32(msg, QOR_SWP_OFF_QUEUE, uint32_t(dhcpv6RelayGlobalVar.mrtmSwpQueue));
    }
    if (state & 0x01) configure();
    if (state & 0x02) dhcpv6RelayGlobalVar.snoopingEnabled = 1;
    if (state & 0x04) dhcpv6RelayGlobalVar.srcIfSockFd = 1000;  // never opened: the fake only records
    if (state & 0x08) qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    for (int bit = 4; bit < 8; ++bit)
        if (state >> bit & 1) qorfake::setResult(kRefused[bit - 4], -1);
    if (state & 0x80) qorfake::setResult("qorCfgRemoveExact", -1);
    const int seqResults[] = {QOR_SWP_IN_ORDER, QOR_SWP_DUPLICATE, QOR_SWP_OUT_OF_ORDER, -1};
    qorfake::setResult("qorSwpCkSeqAndAck", seqResults[peer & 3]);
    if (peer & 0x08) qorfake::setResult("qorIpcReply", -1);
    if (peer & 0x40) qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, DHCPV6_TRACE_INIT | DHCPV6_TRACE_RECV);
    // A role change registers with the MRTM again, retrying once a second for ever: the tick never moves here.
    if (type != MT_HA_CONTROL && (peer & 0x10)) qorMemFailNextAlloc(DHCPV6_MEM_MODULE, 4);
    if (type != MT_HA_CONTROL && (peer & 0x20)) qorfake::setResult("qorSwpEnqueue", -1);
    if (pre[3] & 0x80) qorHaSetPrimary(false);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size <= 6) return 0;  // nothing received: nothing dispatched
    const size_t received = std::min(size - 6, DHCPV6_IPC_BUF_LEN);
    uint8_t* const buf = dhcpv6RelayCliIpcBuf;
    bringUp();
    std::memcpy(buf, data + 6, received);
    applyConditions(data, dhcpv6Msg(buf, received));
    ASAN_POISON_MEMORY_REGION(buf + received, DHCPV6_IPC_BUF_LEN - received);
    const size_t mark = qorfake::calls().size();
    dhcpv6_debug_flag = (data[3] & 0x7F) ? kAllDebug : 0;
    dhcpv6RelayProcCliCmd(dhcpv6Msg(buf, received));
    dhcpv6_debug_flag = 0;
    ASAN_UNPOISON_MEMORY_REGION(buf + received, DHCPV6_IPC_BUF_LEN - received);
    const auto& c = qorfake::calls();
    check(std::count_if(c.begin() + std::ptrdiff_t(mark), c.end(), [](auto& x) { return x.name == "qorIpcReply"; }) < 2,
          "one message answered more than once");
    qorMemFailNextAlloc(QOR_MEM_SYSTEM, 0);
    qorMemFailNextAlloc(DHCPV6_MEM_MODULE, 0);
    for (const char* name : kRefused) qorfake::setResult(name, 0);
    qorHaSetPrimary(true);
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0);
    takeDown();
    return 0;
}
