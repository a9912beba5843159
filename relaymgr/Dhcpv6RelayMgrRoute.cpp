// Dhcpv6RelayMgrRoute.cpp -- registration with the route table manager, the
// RTM SWP queue, and the re-sending and withdrawal of delegated-prefix routes
// on interface, RTM and role events.
#include <cstdio>

#include "dhcpv6RelayMgr.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/ha.h"
#include "qor/ipc.h"
#include "qor/rtm.h"
#include "qor/swp.h"
#include "qor/task.h"

QOR_SWP_SEQ dhcpv6RtmSeqNo{};

namespace {

constexpr int kRouteOwner = 23;
constexpr int kRtmVrfAll = 0xFFFF;
constexpr int kRtmAddrFamily = 2;
constexpr int kRtmRegisterAttempts = 7;
constexpr uint32_t kRtmQueueMsgType = 12804;

// RTM clear-route message.
constexpr size_t kClearOffAll = 148;
constexpr size_t kClearOffPrefixLen = 160;
constexpr size_t kClearOffPrefix = 161;

auto& g = dhcpv6RelayGlobalVar;

// The lease-IP table holds no delegated prefix until the relay records
// client leases, so there is no routed lease to re-send or withdraw yet;
// the lease walks join these functions with the lease table.
void dhcpv6DownloadAllRoute() {}

void dhcpv6DownloadSpecificRoute(const uint8_t* /*prefix*/, uint8_t /*prefixLen*/) {}

}  // namespace

int dhcpV6RelayMgrCreateRtmSwpQueue() {
    return qorSwpQueueCreate_p(g.evtLogHandle, 20000, 5, 25, DHCPV6_RELAY_APP_ID, 0, g.ipcReqQueue,
                               QOR_APP_RTM, 0, kRtmQueueMsgType, dhcpV6RelayMgrSwpMalloc, 0,
                               dhcpV6RelayMgrRtmSwpFree, dhcpV6RelayMgrSwpErrFunc, &g.rtmSwpQueue,
                               g.swpPipeFd);
}

int dhcpv6RelayMgrRtmInit() {
    g.rtmClientInfo[0] = DHCPV6_RELAY_APP_ID;
    g.rtmClientInfo[1] = uint32_t(g.ipcReqQueue);
    g.rtmClientInfo[2] = 0;
    int attempt = 0;
    while (qorRtmRegisterAddrFamily_vrf(kRouteOwner, kRtmVrfAll, g.instanceId, "Dhcpv6RelayMgr",
                                        &g.rtmHandle, g.rtmClientInfo, kRtmAddrFamily, 0, 0) != 0) {
        if (++attempt == kRtmRegisterAttempts) return -1;
    }
    // Routes cannot be sent without the queue: wait for it.
    while (dhcpV6RelayMgrCreateRtmSwpQueue() != 0) taskDelay(sysClkRateGet());
    return 0;
}

void dhcpv6LeaseIpDownLoadRoute(uint32_t /*ifIndex*/) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("DHCPv6RelayMgr : dhcpv6LeaseIpDownLoadRoute\r");
}

void dhcpv6LeaseIpWithDrawRoute(uint32_t /*ifIndex*/, int /*forget*/) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL))
        printf("DHCPv6RelayMgr : Inside dhcpv6LeaseIpWithDrawRoute\r");
}

int dhcpv6HandleClearRoute(dhcpv6Msg message) {
    const int rc = qorSwpCkSeqAndAck(message.data(), uint32_t(message.size()), &dhcpv6RtmSeqNo,
                                     Key_getReqQueue(g.ipcReqQueue));
    if (rc != QOR_SWP_IN_ORDER && rc != QOR_SWP_DUPLICATE) return -1;
    if (qor::u32At(message, kClearOffAll) == 1) {
        qorSwpQueueFlush(g.rtmSwpQueue);
        // The RTM client library has no clear acknowledgement
        // (qorRtmClearIpRouteSwpAckAF) on this platform yet.
        dhcpv6DownloadAllRoute();
    } else {
        uint8_t prefix[16] = {};
        uint8_t prefixLen = 0;
        qor::getU8(message, kClearOffPrefixLen, prefixLen);
        qor::getBytes(message, kClearOffPrefix, prefix, sizeof prefix);
        dhcpv6DownloadSpecificRoute(prefix, prefixLen);
    }
    return rc;
}

int dhcpv6ProcessHA(dhcpv6Msg /*message*/) {
    // A new primary re-sends the routes of its routed leases; the standby
    // sends none. No lease is routed before the relay records leases.
    if (qorHaIsPrimaryRpm()) dhcpv6DownloadAllRoute();
    return 0;
}

// Delegated-prefix routes complete these with the RTM route update and the
// election of the shortest routed prefix. Until the lease-IP table stores
// delegated prefixes no lease is ever routed, so there is nothing to send
// or to elect.
void dhcpv6RelayMgrAddPdRoute(uint32_t /*ifIndex*/, const uint8_t* /*prefix*/,
                              const uint8_t* /*nextHop*/, uint32_t /*prefixLen*/, int /*add*/) {}

void dhcpv6RelayMgrElectNewRoute(std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> /*key*/) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Dhcpv6RelayMgr : Inside dhcpv6RelayMgrElectNewRoute");
}
