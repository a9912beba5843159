// Dhcpv6RelayMgrHa.cpp -- table sync with the peer route processor: the send
// over the inter-route-processor channel and the sync records.
//
// The channel itself (qorIrcPeerRpmSend, irc_isLinkUp) arrives with the
// redundancy work; until then the link is down, which the protocol already
// handles: a send on a down link is a silent success and the peer gets
// nothing. The receiving side applies nothing yet: the tables it would
// change are filled by the relay and snooping engines.
#include <algorithm>
#include <array>
#include <cstdio>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "qor/bytes.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/ipc.h"

namespace {

constexpr size_t kSyncOffOperation = 60;
constexpr size_t kSnoopSyncOffIfIndex = 84;
constexpr size_t kSnoopSyncLen = 124;
constexpr size_t kTransSyncLen = 232;
constexpr size_t kLeaseSyncLen = 240;

struct SyncType {
    uint32_t type;
    uint32_t length;
    const char* text;
};

constexpr std::array kSyncTypes = {
    SyncType{MT_DHCPV6_TRANS_SYNC, 232, "MT_DHCPV6_TRANS_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_TRANS_SYNC_INIT, 232, "MT_DHCPV6_TRANS_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_LEASEIP_SYNC, 240, "MT_DHCPV6_LEASEIP_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_LEASEIP_SYNC_INIT, 240, "MT_DHCPV6_LEASEIP_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_SNOOP_SYNC, 124, "MT_DHCPV6_SNOOP_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_SNOOP_SYNC_INIT, 124, "MT_DHCPV6_SNOOP_SYNC/INIT \r"},
    SyncType{MT_DHCPV6_SNOOP_TBL_PUSH, 424, "MT_DHCPV6_SNOOP_TBL_PUSH\r"},
    SyncType{MT_DHCPV6_SNOOP_TBL_UPDATE, 424, "MT_DHCPV6_SNOOP_TBL_UPDATE\r"},
};

void fillSnoopPayload(qor::MutByteView r, const dhcpv6SnoopEntry& e) {
    qor::putBytes(r, 64, e.vlanIfIndex, sizeof e.vlanIfIndex);
    qor::putBytes(r, 68, e.prefix, sizeof e.prefix);
    qor::putU32(r, 84, e.phyIfIndex);
    qor::putBytes(r, 88, e.macAddr, sizeof e.macAddr);
    qor::putBytes(r, 94, e.ipv6Addr, sizeof e.ipv6Addr);
    qor::putU32(r, 112, e.leaseTime);
    qor::putU32(r, 116, e.learnType);
    qor::putU32(r, 120, e.prefixLen);
}

void syncFailed(const char* text) {
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("%s", text);
    qorSysErr(dhcpv6RelayGlobalVar.evtLogHandle, 0, DHCPV6_EVT_PEER_SYNC_FAILED, 0u);
}

}  // namespace

int dhcpv6SendToPeer(uint32_t type, dhcpv6Msg record) {
    const auto* t = std::find_if(kSyncTypes.begin(), kSyncTypes.end(),
                                 [type](const SyncType& s) { return s.type == type; });
    if (t == kSyncTypes.end()) return -1;
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("%s", t->text);
    const bool haveRecord = record.size() >= t->length;
    if (haveRecord) {
        qor::putU32(record, QOR_IPC_OFF_LENGTH, t->length);
        qor::putU32(record, QOR_IPC_OFF_TYPE, type);
    }
    // The link is down (see above) and a missing record is not sent either.
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Irc Link Not Up \r");
    return 0;
}

int dhcpv6SnoopTblSyncToPeer(const dhcpv6SnoopEntry* entry, uint32_t operation, uint32_t ifIndex) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Dhcpv6RelayMgr : Inside dhcpv6SnoopTblSyncToPeer \r");
    if (!qorHaIsPrimaryRpm()) return 0;
    if (operation != DHCPV6_SNOOP_TBL_ENTRY_DEL_ALL && entry == nullptr) return 0;
    std::array<uint8_t, kSnoopSyncLen> record{};
    qor::putU32(record, kSyncOffOperation, operation);
    if (operation == DHCPV6_SNOOP_TBL_ENTRY_DEL_ALL) {
        qor::putU32(record, kSnoopSyncOffIfIndex, ifIndex);
        if (dhcpv6Dbg(DHCPV6_DBG_SNOOP)) printf("Del all.No need to send any node info \r");
    } else {
        fillSnoopPayload(record, *entry);
    }
    const int rc = dhcpv6SendToPeer(MT_DHCPV6_SNOOP_SYNC, record);
    if (rc == -1) {
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Sync to peer failed \r");
        qorSysErr(dhcpv6RelayGlobalVar.evtLogHandle, 0, DHCPV6_EVT_PEER_SYNC_FAILED, 0u);
    }
    return rc;
}

// The transaction and lease records carry an entry's fields, without its
// tree header, at the offsets both route processors share.
int dhcpv6TransTblSyncToPeer(const dhcpv6TransEntry* entry, uint32_t operation) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Dhcpv6RelayMgr : Inside dhcpv6TransTblSyncToPeer \r");
    if (!qorHaIsPrimaryRpm() || entry == nullptr) return 0;
    std::array<uint8_t, kTransSyncLen> record{};
    qor::putU32(record, kSyncOffOperation, operation);
    qor::putBytes(record, 64, entry->duid, sizeof entry->duid);
    qor::putBytes(record, 192, entry->peerIp, sizeof entry->peerIp);
    qor::putU32(record, 208, entry->ifIndex);
    qor::putU32(record, 212, entry->portIfIndex);
    qor::putU32(record, 216, entry->leaseTime);
    qor::putBytes(record, 220, entry->clientMac, sizeof entry->clientMac);
    qor::putU8(record, 226, entry->msgType);
    qor::putBytes(record, 227, entry->transId, sizeof entry->transId);
    const int rc = dhcpv6SendToPeer(MT_DHCPV6_TRANS_SYNC, record);
    if (rc == -1) syncFailed("Sync to peer failed \r");
    return rc;
}

int dhcpv6LeaseTblSyncToPeer(const dhcpv6LeaseIpEntry* entry, uint32_t operation) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Dhcpv6RelayMgr : dhcpv6LeaseTblSyncToPeer \r");
    if (!qorHaIsPrimaryRpm() || entry == nullptr) return 0;
    std::array<uint8_t, kLeaseSyncLen> record{};
    qor::putU32(record, kSyncOffOperation, operation);
    // Bytes 64 to 215 are the entry's key, already in wire order.
    qor::putBytes(record, 64, entry->node.rnKey, DHCPV6_LEASEIP_KEY_LEN);
    qor::putBytes(record, 216, entry->nextHop, sizeof entry->nextHop);
    qor::putU32(record, 232, entry->leaseTime);
    qor::putU8(record, 236, entry->leaseFlag);
    qor::putU8(record, 237, entry->IsRouteAdded);
    const int rc = dhcpv6SendToPeer(MT_DHCPV6_LEASEIP_SYNC, record);
    if (rc == -1) syncFailed("Sync leaseIp Tbl to peer failed \r");
    return rc;
}

int dhcpv6TransTblHandlePeerSync(dhcpv6Msg /*record*/) { return 0; }

int dhcpv6TransTblBulkSync() { return 0; }  // no peer to fill until the peer channel exists

int dhcpv6LeaseIpTblHandlePeerSync(dhcpv6Msg /*record*/) { return 0; }

int dhcpv6LeaseIpBulkSync() { return 0; }  // no peer to fill until the peer channel exists

int dhcpv6SnoopTblHandlePeerSync(dhcpv6Msg /*record*/) { return 0; }
