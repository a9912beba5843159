// Dhcpv6RelayMgrRoute.cpp -- registration with the route table manager, the
// RTM SWP queue, and the re-sending and withdrawal of delegated-prefix routes
// on interface, RTM and role events.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

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

auto& g = dhcpv6RelayGlobalVar;

// Lease key: interface (0), DUID (4), prefix (132), prefix length (148).
constexpr size_t kKeyOffPrefixLen = 148;  // also the length of (interface, DUID, prefix)

using LeaseKey = std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN>;

void dbg(uint32_t bits, const char* text) {
    if (dhcpv6Dbg(bits)) printf("%s", text);
}

uint32_t leaseIfIndex(const dhcpv6LeaseIpEntry& e) { return qor::u32At(e.ifIndex, 0); }
// Prefix lengths compare signed, as the election always has.
int32_t leasePrefixLen(const dhcpv6LeaseIpEntry& e) { return int32_t(qor::u32At(e.prefixLen, 0)); }

std::string prefixText(const uint8_t prefix[16]) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, prefix, text, sizeof text);
    return text;
}

// The entry whose key follows `key` (null key: the first entry).
dhcpv6LeaseIpEntry* leaseAfter(const uint8_t* key) {
    if (g.leaseIpTbl == nullptr) return nullptr;
    return reinterpret_cast<dhcpv6LeaseIpEntry*>(
        qorRadixGetNext(g.leaseIpTbl, key, key ? DHCPV6_LEASEIP_KEY_BITS : 0));
}

// Where a walk starts: the lease with `key` itself, else the next one. Group
// and interface walks start from a key with prefix length 0, which a /0
// lease (or a client with an empty DUID) holds itself; it belongs to the walk.
dhcpv6LeaseIpEntry* leaseAtOrAfter(const uint8_t* key) {
    if (g.leaseIpTbl == nullptr) return nullptr;
    if (QOR_RADIX_NODE* n = qorRadixGetExact(g.leaseIpTbl, key, DHCPV6_LEASEIP_KEY_BITS))
        return reinterpret_cast<dhcpv6LeaseIpEntry*>(n);
    return leaseAfter(key);
}

// One client's leases of one prefix address: the same interface, DUID and
// prefix, whatever the length.
bool sameGroup(const dhcpv6LeaseIpEntry& e, const uint8_t* key) {
    return std::memcmp(e.node.rnKey, key, kKeyOffPrefixLen) == 0;
}

void sendLeaseRoute(const dhcpv6LeaseIpEntry& e, int add) {
    dhcpv6RelayMgrAddPdRoute(leaseIfIndex(e), e.leaseIp, e.nextHop,
                             qor::u32At(e.prefixLen, 0), add);
}

void installLeaseRoute(dhcpv6LeaseIpEntry& lease) {
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
        printf("Added route for lease %s with prefixlen %d\r\n", prefixText(lease.leaseIp).c_str(),
               int(leasePrefixLen(lease)));
    sendLeaseRoute(lease, 1);
    lease.IsRouteAdded = 1;
}

// Calls visit(entry) for each lease of the interface, in key order, the
// successor fetched before the visit (which may remove the entry).
template <typename Visit>
void forEachLeaseOfInterface(uint32_t ifIndex, Visit visit) {
    LeaseKey key{};
    qor::putU32(key, 0, ifIndex);
    for (dhcpv6LeaseIpEntry* e = leaseAtOrAfter(key.data());
         e != nullptr && leaseIfIndex(*e) == ifIndex;) {
        dhcpv6LeaseIpEntry* next = leaseAfter(e->node.rnKey);
        dbg(DHCPV6_DBG_EVENT, "Matching nodes found \r");
        visit(*e);
        e = next;
    }
}

}  // namespace

// RTM clear: all routes again, or those of one prefix (any routed length).
void dhcpv6DownloadAllRoute() {
    for (dhcpv6LeaseIpEntry* e = leaseAfter(nullptr); e != nullptr; e = leaseAfter(e->node.rnKey))
        if (e->IsRouteAdded == 1) sendLeaseRoute(*e, 1);
}

void dhcpv6DownloadSpecificRoute(const uint8_t* prefix, uint8_t /*prefixLen*/) {
    for (dhcpv6LeaseIpEntry* e = leaseAfter(nullptr); e != nullptr; e = leaseAfter(e->node.rnKey))
        if (e->IsRouteAdded != 0 && std::memcmp(e->leaseIp, prefix, sizeof e->leaseIp) == 0)
            sendLeaseRoute(*e, 1);
}


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

void dhcpv6LeaseIpDownLoadRoute(uint32_t ifIndex) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : dhcpv6LeaseIpDownLoadRoute\r");
    forEachLeaseOfInterface(ifIndex, [](dhcpv6LeaseIpEntry& e) {
        if (e.IsRouteAdded == 1) sendLeaseRoute(e, 1);
    });
}

void dhcpv6LeaseIpWithDrawRoute(uint32_t ifIndex, int forget) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside dhcpv6LeaseIpWithDrawRoute\r");
    forEachLeaseOfInterface(ifIndex, [forget](dhcpv6LeaseIpEntry& e) {
        // The lease stays marked routed so that the interface's return
        // puts the route back.
        if (e.IsRouteAdded == 1) sendLeaseRoute(e, 0);
        if (forget != 1) return;
        dhcpv6LeaseTblSyncToPeer(&e, DHCP_LEASEIP_TBL_ENTRY_DEL);
        qorRadixRemove(g.leaseIpTbl, e.node.rnKey, DHCPV6_LEASEIP_KEY_BITS);
        dhcpv6LeaseIpTblRadixFree(&e);
    });
}

int dhcpv6HandleClearRoute(dhcpv6Msg message) {
    if (message.size() < QOR_RTM_CLR_MIN_LEN) return -1;
    const int rc = qorSwpCkSeqAndAck(message.data(), uint32_t(message.size()), &dhcpv6RtmSeqNo,
                                     Key_getReqQueue(g.ipcReqQueue));
    if (rc != QOR_SWP_IN_ORDER && rc != QOR_SWP_DUPLICATE) return -1;
    if (qor::u32At(message, QOR_RTM_CLR_OFF_ALL) == 1) {
        // Updates still queued were for routes the RTM no longer holds.
        qorSwpQueueFlush(g.rtmSwpQueue);
        qorRtmClearIpRouteSwpAckAF(g.rtmHandle, g.rtmClientInfo, g.rtmSwpQueue, message.data(),
                                   kRtmAddrFamily);
        dhcpv6DownloadAllRoute();
    } else {
        uint8_t prefix[16] = {};
        uint8_t prefixLen = 0;
        qor::getU8(message, QOR_RTM_CLR_OFF_PREFIX_LEN, prefixLen);
        qor::getBytes(message, QOR_RTM_CLR_OFF_PREFIX, prefix, sizeof prefix);
        dhcpv6DownloadSpecificRoute(prefix, prefixLen);
    }
    return rc;
}

int dhcpv6ProcessHA(dhcpv6Msg /*message*/) {
    // A new primary sends the routes its leases carry from the old primary;
    // the standby never sends routes.
    if (qorHaIsPrimaryRpm()) dhcpv6DownloadAllRoute();
    return 0;
}

void dhcpv6RelayMgrAddPdRoute(uint32_t ifIndex, const uint8_t prefix[16], const uint8_t nextHop[16],
                              uint32_t prefixLen, int add) {
    // The RTM refuses longer prefixes; never build such a route.
    if (prefixLen > QOR_RTM_MAX_PREFIX_LEN) return;
    std::array<uint8_t, QOR_RTM_ROUTE_LEN> route{};
    qor::putU16(route, QOR_RTM_ROUTE_OFF_KIND, QOR_RTM_ROUTE_KIND_UNICAST);
    qor::putU32(route, QOR_RTM_ROUTE_OFF_OWNER, uint32_t(kRouteOwner));
    qor::putU16(route, QOR_RTM_ROUTE_OFF_NHOP_COUNT, 1);
    qor::putU8(route, QOR_RTM_ROUTE_OFF_PREFIX_LEN, uint8_t(prefixLen));
    qor::putBytes(route, QOR_RTM_ROUTE_OFF_PREFIX, prefix, 16);
    qor::putBytes(route, QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_ADDR, nextHop, 16);
    qor::putU32(route, QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_IFINDEX, ifIndex);
    // Fire and forget: the callers keep IsRouteAdded whatever the RTM does.
    qorRtmUpdateRoute(g.rtmHandle, add != 0 ? QOR_RTM_OP_ADD : QOR_RTM_OP_DELETE, route.data(), 0,
                      g.rtmClientInfo, g.rtmSwpQueue, 1, kRtmAddrFamily);
}

// Of one client's leases of one prefix address only the shortest carries the
// route. The group follows in key order in ascending prefix length.
int dhcpv6RelayMgrInstallRoute(dhcpv6LeaseIpEntry* lease) {
    dbg(DHCPV6_DBG_DETAIL, "Inside dhcpv6RelayMgrInstallRoute \r");
    LeaseKey key{};
    std::memcpy(key.data(), lease->node.rnKey, key.size());
    qor::putU32(key, kKeyOffPrefixLen, 0);
    const std::string text = prefixText(lease->leaseIp);
    const int32_t length = leasePrefixLen(*lease);
    for (dhcpv6LeaseIpEntry* e = leaseAtOrAfter(key.data()); e != nullptr;) {
        dhcpv6LeaseIpEntry* next = leaseAfter(e->node.rnKey);
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Matching nodes found for %s\r\n", text.c_str());
        // Deliberate: a walk that runs into another client's or prefix's
        // lease installs nothing; only the end of the table installs.
        if (!sameGroup(*e, key.data())) return 0;
        const int32_t other = leasePrefixLen(*e);
        if (other > length) {
            if (e->IsRouteAdded == 0) {
                e = next;
                continue;
            }
            // A longer prefix gives its route up to the new, shorter one.
            sendLeaseRoute(*e, 0);
            e->IsRouteAdded = 0;
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
                printf("Removing route for prefix %s with prefixlen %d\r\n", text.c_str(),
                       int(other));
            dhcpv6LeaseTblSyncToPeer(e, DHCPV6_LEASEIP_TBL_ENTRY_ADD);
            sendLeaseRoute(*lease, 1);
            lease->IsRouteAdded = 1;
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
                printf("Added route for prefix %s with prefixlen %d\r\n", text.c_str(),
                       int(length));
            return 0;
        }
        if (other < length) {
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
                printf("Route already exists for prefix %s with lower prefixlen \r\n",
                       text.c_str());
            return 0;
        }
        if (e->IsRouteAdded != 0) {
            if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
                printf("Route already exists for prefix %s with prefixlen %d \r\n", text.c_str(),
                       int(length));
            return 0;
        }
        if (next == nullptr || !sameGroup(*next, key.data())) break;
        e = next;
    }
    installLeaseRoute(*lease);
    return 0;
}

void dhcpv6RelayMgrElectNewRoute(std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> key) {
    dbg(DHCPV6_DBG_DETAIL, "Dhcpv6RelayMgr : Inside dhcpv6RelayMgrElectNewRoute");
    // The expiring lease is still in the group, marked routed: it is passed over.
    dhcpv6LeaseIpEntry* chosen = nullptr;
    for (dhcpv6LeaseIpEntry* e = leaseAtOrAfter(key.data()); e != nullptr && sameGroup(*e, key.data());
         e = leaseAfter(e->node.rnKey)) {
        if (e->IsRouteAdded == 0 &&
            (chosen == nullptr || leasePrefixLen(*e) <= leasePrefixLen(*chosen)))
            chosen = e;
    }
    if (chosen == nullptr) return;
    // The line names no prefix; operators' scripts match it as it stands.
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
        printf("Replaced existing route for with one having lower prefix (%d) \r\n",
               int(leasePrefixLen(*chosen)));
    sendLeaseRoute(*chosen, 1);
    chosen->IsRouteAdded = 1;
    dhcpv6LeaseTblSyncToPeer(chosen, DHCPV6_LEASEIP_TBL_ENTRY_ADD);
}
