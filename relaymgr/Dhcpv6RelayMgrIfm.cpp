// Dhcpv6RelayMgrIfm.cpp -- registration with the interface manager, the
// interface notifications it sends, the agent event notice, and the
// snooping-trust port notice.
#include <algorithm>
#include <array>
#include <cstdio>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "qor/tlv.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

// IFM notification (MT_IFM_NOTIF_MSG).
constexpr size_t kNotifOffCount = 128;
constexpr size_t kNotifOffFirstTlv = 140;
constexpr uint16_t IFM_TYP_DEL_IF = 2;
constexpr uint16_t IFM_TYP_OSTATE_UP = 3;
constexpr uint16_t IFM_TYP_OSTATE_DN = 4;
constexpr uint16_t IFM_TYP_MODE_CHG = 11;
constexpr uint16_t IFM_TYP_LAG_ADD_PORT = 47;
constexpr uint16_t IFM_TYP_LAG_DEL_PORT = 48;

// Registration request (QOR_MT_IFM_REGISTER, 2632 bytes).
constexpr size_t kRegOffApp = 1956;
constexpr size_t kRegOffInstance = 1958;
constexpr size_t kRegOffAddr = 1964;
constexpr size_t kRegOffQueue = 1968;
constexpr size_t kRegOffKind = 1976;
constexpr uint32_t kRegKind = 51;
constexpr size_t kRegOffEnd = 2616;
constexpr int kRegWaitArg = 50;

struct SvcTypeMask {
    int type;
    uint32_t mask;
};
// Service type 53 is registered although no TLV of it is acted on.
constexpr std::array kSvcTypeMasks = {
    SvcTypeMask{53, 0},
    SvcTypeMask{IFM_TYP_DEL_IF, 0},
    SvcTypeMask{IFM_TYP_OSTATE_UP, 0},
    SvcTypeMask{IFM_TYP_OSTATE_DN, 0},
    SvcTypeMask{IFM_TYP_LAG_ADD_PORT, 0},
    SvcTypeMask{IFM_TYP_LAG_DEL_PORT, 0},
    SvcTypeMask{IFM_TYP_MODE_CHG, 0x3C0000},
};

// Snooping-trust port notice.
constexpr size_t kTrustOffIfIndex = 64;
constexpr size_t kTrustOffState = 68;
constexpr size_t kTrustOffFeature = 80;
constexpr uint32_t kPortFeatureSnoopTrust = 0x40;

auto& g = dhcpv6RelayGlobalVar;

void printIfEvent(const char* format, uint32_t ifIndex) {
    if (!dhcpv6Dbg(DHCPV6_DBG_EVENT)) return;
    char name[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(ifIndex, name);
    printf(format, name);
}

// A deleted interface loses its routes, then its helpers, its source
// interface and its snooping state, in that order.
void interfaceDeleted(uint32_t ifIndex) {
    printIfEvent("Got IFM_TYP_DEL_IF for %s \r\n", ifIndex);
    dhcpv6LeaseIpWithDrawRoute(ifIndex, 1);
    dhcpv6RelayDelIntHelper(ifIndex);
    dhcpv6RelayDelSrcInterface(ifIndex);
    dhcpv6RelayHandleDelInt(ifIndex);
}

void handleTlv(const dhcpv6Tlv& tlv) {
    uint32_t ifIndex = 0;
    const bool hasIfIndex = qor::getU32(tlv.data, 0, ifIndex);
    switch (tlv.code) {
    case IFM_TYP_DEL_IF:
        if (hasIfIndex) interfaceDeleted(ifIndex);
        break;
    case IFM_TYP_OSTATE_UP:
        if (!hasIfIndex) break;
        printIfEvent("Got IFM_TYP_OSTATE_UP for %s \r\n", ifIndex);
        dhcpv6LeaseIpDownLoadRoute(ifIndex);
        break;
    case IFM_TYP_OSTATE_DN:
        if (!hasIfIndex) break;
        printIfEvent("Got IFM_TYP_OSTATE_DN for %s \r\n", ifIndex);
        dhcpv6LeaseIpWithDrawRoute(ifIndex, 0);
        break;
    case IFM_TYP_MODE_CHG:
        dhcpv6ProcessIfmModeChgMsg(tlv.data);
        break;
    case IFM_TYP_LAG_ADD_PORT:
        dhcpv6RelayAddDelLagPortInfo(tlv.data, 1);
        break;
    case IFM_TYP_LAG_DEL_PORT:
        dhcpv6RelayAddDelLagPortInfo(tlv.data, 0);
        break;
    default:
        break;  // skipped; its length still moved the walk on
    }
}

}  // namespace

int dhcpv6CreateIfmSwpQueue() {
    return qorSwpQueueCreateQs(g.evtLogHandle, 0, 10, 25, DHCPV6_RELAY_APP_ID, 0, g.ipcReqQueue,
                               QOR_APP_IFM, 0,
                               qor_getQueueId(DHCPV6_RELAY_APP_ID, 0, QOR_QUEUE_SERVICE), 0, 0,
                               dhcpV6RelayMgrSwpMalloc, 0, dhcpV6RelayMgrSwpFree,
                               dhcpV6RelayMgrSwpErrFunc, &g.ifmSwpQueue, g.swpPipeFd);
}

int dhcpv6IFMRegister() {
    std::array<uint8_t, QOR_IFM_REG_LEN> req{};
    for (const SvcTypeMask& m : kSvcTypeMasks)
        ifmSetPerSvcTypeMasks(req.data(), req.size(), m.type, m.mask);
    qor::putU16(req, kRegOffApp, DHCPV6_RELAY_APP_ID);
    qor::putU16(req, kRegOffInstance, 0);
    qor::putU32(req, kRegOffKind, kRegKind);
    qor::putU32(req, kRegOffEnd, 0xFFFFFFFF);
    uint32_t addr = 0;
    const int lookup = qor_tmeGetPeerIpAddrByName(DHCPV6_RELAY_APP_ID, 0, &addr);
    if (lookup == -1 || lookup == -2) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_PEER_ADDR_FAILED, 0u);
        return lookup;
    }
    qor::putU32(req, kRegOffAddr, addr);
    qor::putU32(req, kRegOffQueue, qor_getQueueId(DHCPV6_RELAY_APP_ID, 0, QOR_QUEUE_REQUEST));
    const int rc = dhcpv6IpcSendAndWait(QOR_MT_IFM_REGISTER, req, QOR_IFM_REG_LEN, QOR_APP_IFM, 0,
                                        kRegWaitArg);
    if (rc == 0 && qor::u32At(req, QOR_IFM_REG_OFF_RESULT) == 0) return 0;
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_IPC_REQUEST_FAILED, 0u);
    return -1;
}

void dhcpv6RelayMgrIFMReg() {
    // No limit: start-up waits here until the IFM is there and accepts.
    while (dhcpv6CreateIfmSwpQueue() != 0) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("SWP Q create failed\r");
        taskDelay(sysClkRateGet());
    }
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("\r\n SWPQ creation success!\r");
    while (dhcpv6IFMRegister() == -1) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("IFM reg failed!!!\r");
        taskDelay(sysClkRateGet());
    }
    if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("Success in IFM reg\r");
}

int dhcpv6ProcessIfmTlvMessage(dhcpv6Msg message) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL))
        printf("Dhcpv6RelayMgr : Inside dhcpv6ProcessIfmTlvMessage \r");
    const auto count = int32_t(qor::u32At(message, kNotifOffCount));
    if (count <= 0 || message.size() <= kNotifOffFirstTlv) return 0;
    dhcpv6TlvCursor cursor(qor::ByteView(message).subspan(kNotifOffFirstTlv),
                           dhcpv6TlvCursor::LengthCounts::WholeTlv);
    dhcpv6Tlv tlv;
    for (int32_t i = 0; i < count && cursor.next(tlv) == dhcpv6TlvStep::Item; ++i) handleTlv(tlv);
    // Nothing goes back to the IFM: the SWP layer acknowledged the message.
    return 0;
}

int dhcpv6ProcessEventNotif(dhcpv6Msg message) {
    // Answered before anything else, so that the sender is never kept waiting.
    const uint32_t length =
        std::min<uint32_t>(qor::u32At(message, QOR_IPC_OFF_LENGTH), uint32_t(message.size()));
    qorIpcReply(g.ipcReqQueue, message.data(), length);
    if (qor::u32At(message, DHCPV6_EVT_OFF_CODE) != DHCPV6_EVT_AGENT_GONE) return 0;
    const uint32_t slot = qor::u32At(message, DHCPV6_EVT_OFF_SLOT);
    if (slot < DHCPV6_AGT_INSTANCES) dhcpv6AgtTbl[slot].inUse = 0;
    if (slot < DHCPV6_SW_AGT_SLOTS) {
        dhcpv6SwAgtTbl[slot].inUse = 0;
        qorSwpQueueRemove(dhcpv6SwAgtTbl[slot].swpQueue);
    }
    return 0;
}

int dhcpv6NotifIfmSnoopTrustConfig(uint32_t ifIndex, uint8_t trust) {
    std::array<uint8_t, QOR_PORT_NOTICE_LEN> notice{};
    qor::putU32(notice, kTrustOffIfIndex, ifIndex);
    qor::putU8(notice, kTrustOffState, trust);
    qor::putU32(notice, kTrustOffFeature, kPortFeatureSnoopTrust);
    if (qorPortCfgNotif(g.taskKey, notice.data()) != 0) {
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("DHCPv6: IFM Snoop trust config notification failed\r");
        return -1;
    }
    return 0;
}

// LAG membership (the member list and the trust of member ports) comes with
// snooping trust on port-channels; while no port-channel can be trusted, a
// member joining or leaving changes nothing the daemon acts on.
void dhcpv6RelayAddDelLagPortInfo(std::span<const uint8_t> /*record*/, int /*add*/) {}
