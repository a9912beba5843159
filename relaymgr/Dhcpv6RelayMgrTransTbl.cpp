// Dhcpv6RelayMgrTransTbl.cpp -- the daemon's memory partitions and pools, the
// transaction and lease-IP tables, the recording of client exchanges, and
// the periodic sweep that ages both tables.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/ifm.h"
#include "qor/mem.h"
#include "qor/task.h"

namespace {

constexpr const char* kUnit = "Dhcpv6RelayMgrTransTbl";
constexpr std::array<uint32_t, 10> kVarBlockSizes = {9300, 8192, 2048, 1516, 1024,
                                                     512,  256,  128,  64,   32};
constexpr size_t kSyncOffOperation = 60;
constexpr uint32_t kSyncInitRequest = 1;
constexpr size_t kTransSyncLen = 232;
constexpr size_t kLeaseSyncLen = 240;

// The frames recorded here start with the 18-byte link header.
constexpr size_t kFrameOffSrcMac = 6;
constexpr size_t kFrameOffIp6 = 18;
constexpr size_t kFrameOffIp6Src = 26;
constexpr size_t kFrameOffIp6Dst = 42;
constexpr uint32_t kFrameHdrLen = 66;  // link, IPv6 and UDP headers
constexpr size_t kUdpHdrLen = 8;
constexpr uint32_t kClientHdrLen = 4;  // type and transaction id
constexpr uint8_t kMsgRelease = 8;
constexpr size_t kLeaseKeyOffPrefixLen = 148;

auto& g = dhcpv6RelayGlobalVar;

void dbg(uint32_t bits, const char* text) {
    if (dhcpv6Dbg(bits)) printf("%s", text);
}

// The sweep's clock, in seconds of up-time.
uint32_t timePrev = 0;
uint32_t timeLatest = 0;
uint32_t timeDiff = 0;

void* poolAlloc(uint32_t poolId, size_t size, size_t blockSize, int line) {
    if (size > blockSize) return nullptr;
    return qorMC_M_memBlockAlloc(kUnit, line, poolId);
}

// A standby asks the primary for a whole table: a request whose operation
// word is 1 and which carries nothing else the primary reads.
template <size_t N>
int requestTableFromPeer(uint32_t type) {
    std::array<uint8_t, N> record{};
    qor::putU32(record, kSyncOffOperation, kSyncInitRequest);
    return dhcpv6SendToPeer(type, record);
}

void dhcpv6FillTransEntry(dhcpv6TransEntry& e, const dhcpv6PktIfInfo& info, const uint8_t* frame,
                          const uint8_t* client) {
    e.leaseTime = DHCPV6_TRANS_LIFETIME_SEC;
    e.ifIndex = info.logicalIfIndex;
    e.portIfIndex = info.recvPortIfIndex;
    e.msgType = client[0];
    std::memcpy(e.transId, client + 1, sizeof e.transId);
    std::memcpy(e.clientMac, frame + kFrameOffSrcMac, sizeof e.clientMac);
    std::memcpy(e.peerIp, frame + kFrameOffIp6Src, sizeof e.peerIp);
}

// The entry of a client, refreshed or made. Null after the debug line.
dhcpv6TransEntry* dhcpv6RecordClient(const uint8_t key[DHCPV6_DUID_MAX],
                                     const dhcpv6PktIfInfo& info, const uint8_t* frame,
                                     const uint8_t* client) {
    if (dhcpv6TransEntry* e = dhcpv6TransLookup(key)) {
        dbg(DHCPV6_DBG_EVENT, "Updating existing node... \r");
        dhcpv6FillTransEntry(*e, info, frame, client);
        return e;
    }
    dbg(DHCPV6_DBG_EVENT, "Allocating new node \r");
    auto* e =
        static_cast<dhcpv6TransEntry*>(dhcpv6TransactionTblRadixAlloc(sizeof(dhcpv6TransEntry)));
    if (e == nullptr) {
        dbg(DHCPV6_DBG_EVENT, "Allocation failed ... \r");
        return nullptr;
    }
    std::memset(e, 0, sizeof *e);
    std::memcpy(e->duid, key, DHCPV6_DUID_MAX);
    e->node.rnKey = e->duid;
    dhcpv6FillTransEntry(*e, info, frame, client);
    if (qorRadixInsert(g.transTbl, &e->node, DHCPV6_TRANS_KEY_BITS) != 0) {
        dbg(DHCPV6_DBG_EVENT, "RadixInsert Failed ... \r");
        dhcpv6TransactionTblRadixFree(e);
        return nullptr;
    }
    return e;
}

// A client message in a VLAN that is not addressed to the relay's own
// address (or any message in a VLAN without one) also goes on to the VLAN's
// other ports: the trap took it from the forwarding plane.
void dhcpv6FloodIfNotForUs(dhcpv6PktIfInfo* info, uint8_t* frame, uint32_t frameLength,
                           uint8_t* message, uint32_t messageLength) {
    if (info->noGlobalAddr == 0) {
        if (ifmIfIndexToIfType(info->ifIndex) != IFM_IFTYPE_VLAN) return;
        if (std::memcmp(frame + kFrameOffIp6Dst, info->linkAddr, sizeof info->linkAddr) == 0)
            return;
    }
    char type[20] = {};
    char name[IFM_IFNAME_LEN] = {};
    char source[INET6_ADDRSTRLEN] = {};
    dhcpv6PktTypeToStr(message[0], type, sizeof type - 1);
    ifmIfIndexToName(info->ifIndex, name);
    inet_ntop(AF_INET6, frame + kFrameOffIp6Src, source, sizeof source);
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_CLIENT_PKT_FLOODED, 0u, type, name, source);
    if (g.snoopingEnabled != 0) {
        dhcpv6ProcClientLeaseOptions(info->ifIndex, message, messageLength, info->noGlobalAddr);
        if (g.snoopingEnabled == 1) ++qorDhcpv6Stats[0];
    }
    dhcpv6FloodPktWithSrcSup(info, frame, frameLength);
}

void dhcpv6AgeTransactions(QOR_RADIX_NODE* first) {
    for (QOR_RADIX_NODE* n = first; n != nullptr;) {
        QOR_RADIX_NODE* next = qorRadixGetNext(g.transTbl, n->rnKey, DHCPV6_TRANS_KEY_BITS);
        auto* e = reinterpret_cast<dhcpv6TransEntry*>(n);
        if (e->leaseTime > timeDiff) {
            e->leaseTime -= timeDiff;
        } else if (qorHaIsPrimaryRpm()) {
            // Only the primary ages out; the standby waits for its delete.
            dhcpv6TransTblSyncToPeer(e, DHCP_TRANS_TBL_ENTRY_DEL);
            qorRadixRemove(g.transTbl, e->duid, DHCPV6_TRANS_KEY_BITS);
            dhcpv6TransactionTblRadixFree(e);
        }
        n = next;
    }
}

void dhcpv6ExpireLease(dhcpv6LeaseIpEntry* e) {
    if (e->IsRouteAdded == 1) {
        dhcpv6RelayMgrAddPdRoute(qor::u32At(e->ifIndex, 0), e->leaseIp, e->nextHop,
                                 qor::u32At(e->prefixLen, 0), 0);
        // The expiring lease is still in the table and marked routed, so the
        // election passes it over.
        std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> key{};
        std::memcpy(key.data(), e->node.rnKey, key.size());
        qor::putU32(key, kLeaseKeyOffPrefixLen, 0);
        dhcpv6RelayMgrElectNewRoute(key);
    }
    dhcpv6LeaseTblSyncToPeer(e, DHCP_LEASEIP_TBL_ENTRY_DEL);
    qorRadixRemove(g.leaseIpTbl, e->node.rnKey, DHCPV6_LEASEIP_KEY_BITS);
    dhcpv6LeaseIpTblRadixFree(e);
}

void dhcpv6AgeLeases(QOR_RADIX_NODE* first) {
    for (QOR_RADIX_NODE* n = first; n != nullptr;) {
        QOR_RADIX_NODE* next = qorRadixGetNext(g.leaseIpTbl, n->rnKey, DHCPV6_LEASEIP_KEY_BITS);
        auto* e = reinterpret_cast<dhcpv6LeaseIpEntry*>(n);
        if (e->leaseTime > timeDiff)
            e->leaseTime -= timeDiff;
        else if (qorHaIsPrimaryRpm())
            dhcpv6ExpireLease(e);
        n = next;
    }
}

}  // namespace

int dhcpv6RelayMgrMemInit() {
    if (qor_memPartFixedInit(DHCPV6_MEM_MODULE, DHCPV6_LAST_POOL, g.instanceId) != OK) return -1;
    if (qorMC_qor_memPartVarInit(DHCPV6_MEM_MODULE, g.instanceId, kVarBlockSizes.data(),
                                 int(kVarBlockSizes.size())) != OK)
        return -1;
    return 0;
}

void* dhcpv6TransactionTblRadixAlloc(size_t size) {
    return poolAlloc(DHCPV6_TRANS_POOL, size, sizeof(dhcpv6TransEntry), __LINE__);
}

void dhcpv6TransactionTblRadixFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockFree(kUnit, __LINE__, DHCPV6_TRANS_POOL, block);
}

void* dhcpv6LeaseIpTblRadixAlloc(size_t size) {
    return poolAlloc(DHCPV6_LEASEIP_POOL, size, sizeof(dhcpv6LeaseIpEntry), __LINE__);
}

void dhcpv6LeaseIpTblRadixFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockFree(kUnit, __LINE__, DHCPV6_LEASEIP_POOL, block);
}

int dhcpv6RelayTableInit() {
    if (qorMC_M_memPoolCreate("DHCPV6_TRANSACTION_TBL_POOL", DHCPV6_TRANS_POOL, g.instanceId,
                              sizeof(dhcpv6TransEntry)) != OK)
        return -1;
    if (qorMC_M_memPoolCreate("DHCPV6_LEASEIP_TBL_POOL", DHCPV6_LEASEIP_POOL, g.instanceId,
                              sizeof(dhcpv6LeaseIpEntry)) != OK)
        return -1;
    g.transTbl = qorRadixCreate("dhcpv6TransactionTbl", DHCPV6_DUID_MAX,
                                dhcpv6TransactionTblRadixAlloc, dhcpv6TransactionTblRadixFree);
    if (g.transTbl == nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("Failed to create the table \r");
        return -1;
    }
    g.leaseIpTbl = qorRadixCreate("dhcpv6RelayleaseIpTbl", DHCPV6_LEASEIP_KEY_LEN,
                                  dhcpv6LeaseIpTblRadixAlloc, dhcpv6LeaseIpTblRadixFree);
    if (g.leaseIpTbl == nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("Failed to create the Lease IP table \r");
        return -1;
    }
    if (qorHaIsPrimaryRpm()) return 0;
    // A standby that cannot ask still starts: the primary's changes reach it.
    if (requestTableFromPeer<kTransSyncLen>(MT_DHCPV6_TRANS_SYNC_INIT) != 0 &&
        dhcpv6Dbg(DHCPV6_DBG_INIT))
        printf("TransTbl sync init failed");
    if (requestTableFromPeer<kLeaseSyncLen>(MT_DHCPV6_LEASEIP_SYNC_INIT) != 0 &&
        dhcpv6Dbg(DHCPV6_DBG_INIT))
        printf("LeaseIpTbl sync init failed");
    return 0;
}

void dhcpv6ProcTransDb(long /*argument*/, void* /*block*/) {
    QOR_RADIX_NODE* firstTrans = g.transTbl ? qorRadixGetNext(g.transTbl, nullptr, 0) : nullptr;
    QOR_RADIX_NODE* firstLease = g.leaseIpTbl ? qorRadixGetNext(g.leaseIpTbl, nullptr, 0) : nullptr;
    if (timePrev == 0) timePrev = qorGetUpTime();
    timeLatest = qorGetUpTime();
    timeDiff = timeLatest - timePrev;
    timePrev = timeLatest;
    // A timer fires once: the sweep re-arms itself. If that fails, the sweep
    // stops for good and this run ages nothing.
    if (timerStart(dhcpv6RelayTimert.transTimer, DHCPV6_TRANS_SWEEP_MSEC, dhcpv6ProcTransDb,
                   dhcpv6RelayTimert.agentSlot) != TIMER_START_OK)
        return;
    dhcpv6AgeTransactions(firstTrans);
    dhcpv6AgeLeases(firstLease);
}

dhcpv6DuidStatus dhcpv6ClientDuidKey(const uint8_t* message, uint32_t length,
                                     uint8_t outKey[DHCPV6_DUID_MAX]) {
    if (message == nullptr || length < kClientHdrLen) return dhcpv6DuidStatus::Missing;
    const uint8_t* opt = dhcpv6GetOption(const_cast<uint8_t*>(message) + kClientHdrLen,
                                         length - kClientHdrLen, DHCPV6_OPTION_CLIENTID);
    if (opt == nullptr) return dhcpv6DuidStatus::Missing;
    const uint16_t duidLen = qor::u16At(qor::ByteView(opt, 4), 2);
    if (duidLen > DHCPV6_DUID_MAX) return dhcpv6DuidStatus::TooLong;
    std::memset(outKey, 0, DHCPV6_DUID_MAX);
    std::memcpy(outKey, opt + 4, duidLen);
    return dhcpv6DuidStatus::Ok;
}

dhcpv6TransEntry* dhcpv6TransLookup(const uint8_t key[DHCPV6_DUID_MAX]) {
    if (g.transTbl == nullptr) return nullptr;
    return reinterpret_cast<dhcpv6TransEntry*>(
        qorRadixGetExact(g.transTbl, key, DHCPV6_TRANS_KEY_BITS));
}

int dhcpv6TransactionTblAdd(dhcpv6PktIfInfo* info, uint8_t* frame, uint32_t frameLength) {
    dbg(DHCPV6_DBG_DETAIL, "Dhcpv6Relay Mgr : Inside dhcpv6TransactionTblAdd \r");
    uint32_t udpOffset = 0;
    uint8_t* udp = nullptr;
    if (info != nullptr && frame != nullptr && g.transTbl != nullptr && frameLength > kFrameOffIp6)
        udp = dhcpv6_getudphdr(frame + kFrameOffIp6, frame + frameLength, &udpOffset);
    if (udp == nullptr) {
        dbg(DHCPV6_DBG_EVENT, "Not updating Transac Table \r");
        return -1;
    }
    dhcpv6MsgOut = {frame, frame + kFrameOffIp6, udp, udp + kUdpHdrLen};
    const uint32_t arrived =
        frameLength - uint32_t(kFrameOffIp6) - udpOffset - uint32_t(kUdpHdrLen);
    // Deliberate: the message is taken as (frame length - 66) in 8 bits, so a
    // longer one is parsed cut short. Where that would reach past what
    // arrived (extension headers), the message is refused.
    const uint32_t msgLen = (frameLength - kFrameHdrLen) & 0xFF;
    uint8_t* client = nullptr;
    uint32_t clientLen = 0;
    if (msgLen > arrived ||
        dhcpv6GetClientPacket(dhcpv6MsgOut.dhcp, &client, msgLen, &clientLen) != 0) {
        dbg(DHCPV6_DBG_EVENT, "dhcpV6Packet is NULL \r");
        return -1;
    }
    uint8_t key[DHCPV6_DUID_MAX];
    switch (dhcpv6ClientDuidKey(client, clientLen, key)) {
        case dhcpv6DuidStatus::Missing:
            dbg(DHCPV6_DBG_EVENT, "Not updating Transac Table \r");
            dbg(DHCPV6_DBG_EVENT, "No DHCPV6_OPTION_CLIENTID option \r");
            return -1;
        case dhcpv6DuidStatus::TooLong:
            dbg(DHCPV6_DBG_EVENT, "DHCPV6_OPTION_CLIENTID length exceeds 128 bytes \r");
            return -1;
        case dhcpv6DuidStatus::Ok:
            break;
    }
    if (dhcpv6SnoopingVerification(key, info, frame, client[0]) == -1) {
        dbg(DHCPV6_DBG_SNOOP, "dhcpv6SnoopingVerification failed \r");
        return -1;
    }
    dhcpv6TransEntry* e = dhcpv6RecordClient(key, *info, frame, client);
    if (e == nullptr) return -1;
    dbg(DHCPV6_DBG_EVENT, "Updated transaction table ... \r");
    dhcpv6TransTblSyncToPeer(e, DHCPV6_TRANS_TBL_ENTRY_ADD);
    dhcpv6FloodIfNotForUs(info, frame, frameLength, dhcpv6MsgOut.dhcp, msgLen);
    return 0;
}

int dhcpv6TransactionTblDel(uint32_t /*ifIndex*/, const uint8_t* message,
                            const uint8_t duidKey[DHCPV6_DUID_MAX]) {
    dbg(DHCPV6_DBG_DETAIL, "Inside dhcpv6TransactionTblDel \r");
    dhcpv6TransEntry* e = dhcpv6TransLookup(duidKey);
    if (e == nullptr || message == nullptr) return 0;
    if (std::memcmp(message + 1, e->transId, sizeof e->transId) != 0) {
        dbg(DHCPV6_DBG_EVENT, "Transaction Id doesnt match.. So not touching TransTbl \r");
        return -1;
    }
    if (e->msgType != kMsgRelease) {
        dbg(DHCPV6_DBG_EVENT, "Got Reply, but not for Release.. So not touching TransTbl \r");
        return 0;
    }
    dbg(DHCPV6_DBG_EVENT, "Got Reply for release, so deleting entry in TransTbl \r");
    dhcpv6TransTblSyncToPeer(e, DHCP_TRANS_TBL_ENTRY_DEL);
    qorRadixRemove(g.transTbl, e->duid, DHCPV6_TRANS_KEY_BITS);
    dhcpv6TransactionTblRadixFree(e);
    dbg(DHCPV6_DBG_EVENT, "Deleted node from TransactionTbl \r");
    return 0;
}

void dhcpv6DumpTransTbl() {
    if (g.transTbl == nullptr) return;
    int count = 0;
    for (QOR_RADIX_NODE* n = qorRadixGetNext(g.transTbl, nullptr, 0); n != nullptr;
         n = qorRadixGetNext(g.transTbl, n->rnKey, DHCPV6_TRANS_KEY_BITS)) {
        const auto* e = reinterpret_cast<const dhcpv6TransEntry*>(n);
        char peer[INET6_ADDRSTRLEN] = {};
        char type[20] = {};
        inet_ntop(AF_INET6, e->peerIp, peer, sizeof peer);
        dhcpv6PktTypeToStr(e->msgType, type, sizeof type - 1);
        printf("###############TransTbl Node : %d ############# \r\n", ++count);
        printf("leaseTime expires in : %d sec \r\n", int(e->leaseTime));
        printf("peerIp : %s \r\n", peer);
        printf("ifIndex : %ld \r\n", long(e->ifIndex));
        printf("MsgType : %s\r\n", type);
        for (uint8_t b : e->duid) printf("%x", b);
        printf("\r");
        for (uint8_t b : e->clientMac) printf("%x", b);
        printf("\r");
    }
    printf("#### Total nodes in TransTbl : %d ####\r\n", count);
}

// ---- lease-IP table
// ------------------------------------------------------------------------------

// The lease-IP table completes this: delegated prefixes, their routes, and
// the snooping bindings of granted addresses. Until it stores leases a
// message crossing the relay changes no lease, route or binding.
int dhcpv6ProcClientLeaseOptions(uint32_t /*ifIndex*/, uint8_t* /*message*/, uint32_t /*length*/,
                                 uint8_t /*noGlobalAddr*/) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside  dhcpv6ProcClientLeaseOptions \r");
    return 0;
}
