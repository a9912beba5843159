// Dhcpv6RelayMgrTransTbl.cpp -- the daemon's memory partitions and pools, the
// transaction and lease-IP tables, the recording of client exchanges, and
// the periodic sweep that ages both tables.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <string>

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
#include "qor/tlv.h"

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

// ---- lease-IP table -----------------------------------------------------------------------

namespace {

constexpr uint16_t kOptIaNa = 3;
constexpr uint16_t kOptIaAddr = 5;
constexpr uint16_t kOptStatusCode = 13;
constexpr uint16_t kOptIaPd = 25;
constexpr uint16_t kOptIaPrefix = 26;
constexpr uint8_t kMsgReply = 7;
constexpr size_t kIaFixedLen = 12;       // IAID, T1, T2 before an IA's own options
constexpr size_t kIaAddrFixedLen = 24;   // address, preferred and valid lifetime
constexpr size_t kIaAddrOffValid = 20;
// IA Prefix body: preferred lifetime, valid lifetime, prefix length, prefix.
constexpr size_t kIaPrefixOffValid = 4;
constexpr size_t kIaPrefixOffLen = 8;
constexpr size_t kIaPrefixOffPrefix = 9;
constexpr uint8_t kMaxPrefixLen = 128;
constexpr size_t kLeaseKeyOffDuid = 4;
constexpr size_t kLeaseKeyOffPrefix = 132;

bool dbgAny(uint32_t bits) { return dhcpv6Dbg(bits); }
constexpr uint32_t kDbgEventPkt = DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT;

std::string prefixText(const uint8_t* prefix) {
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(AF_INET6, prefix, text, sizeof text);
    return text;
}

std::string macText(const uint8_t mac[6]) {
    char text[18] = {};
    snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3],
             mac[4], mac[5]);
    return text;
}

std::string ifName(uint32_t ifIndex) {
    char name[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(ifIndex, name);
    return name;
}

bool sameTransId(const dhcpv6TransEntry& e, const uint8_t* message) {
    return std::memcmp(message + 1, e.transId, sizeof e.transId) == 0;
}

std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> leaseKey(const dhcpv6TransEntry& t,
                                                      const uint8_t* body) {
    std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> key{};
    qor::putU32(key, 0, t.ifIndex);
    qor::putBytes(key, kLeaseKeyOffDuid, t.duid, DHCPV6_DUID_MAX);
    qor::putBytes(key, kLeaseKeyOffPrefix, body + kIaPrefixOffPrefix, 16);
    qor::putU32(key, kLeaseKeyOffPrefixLen, body[kIaPrefixOffLen]);
    return key;
}

uint32_t validLifetime(const uint8_t* body) {
    return qor::u32At(qor::ByteView(body, DHCPV6_IAPREFIX_BODY_LEN), kIaPrefixOffValid);
}

// A snooping binding granted to or released by a client.
struct SnoopBinding {
    uint32_t ifIndex;
    uint8_t mac[6];
    uint32_t portIfIndex;
    uint8_t addr[16];
    uint32_t prefixLen;
    uint32_t lease;
};

SnoopBinding bindingOf(const dhcpv6TransEntry& t, const uint8_t* addr, uint32_t prefixLen,
                       uint32_t lease) {
    SnoopBinding b{t.ifIndex, {}, t.portIfIndex, {}, prefixLen, lease};
    std::memcpy(b.mac, t.clientMac, sizeof b.mac);
    std::memcpy(b.addr, addr, sizeof b.addr);
    return b;
}

// Snooping's binding table and snooped-VLAN bitmap take these bindings.
// Snooping cannot be switched on yet (snoopingEnabled stays 0), so no caller
// reaches them; until the binding table joins, no VLAN is snooped and no
// binding is added or removed (-1).
bool snoopVlanSet(uint32_t /*ifIndex*/) { return false; }
int snoopBindingAdd(const SnoopBinding& /*binding*/) { return -1; }
int snoopBindingRemove(const SnoopBinding& /*binding*/) { return -1; }

// The sub-options of an IA (IA_PD or IA_NA) that follow directly from its
// first one while their code is `code`, each at least `fixedLen` long: visit
// gets each one's data and returns false to stop. An IA shorter than its
// fixed fields, a first sub-option of another code (a Status Code: nothing
// granted) or a malformed one ends the walk; nothing outside the IA is read.
template <typename Visit>
bool forEachIaSubOption(qor::ByteView ia, uint16_t code, size_t fixedLen, Visit visit) {
    if (ia.size() < kIaFixedLen) return true;
    dhcpv6TlvCursor cursor(ia.subspan(kIaFixedLen));
    dhcpv6Tlv opt;
    while (cursor.next(opt) == dhcpv6TlvStep::Item && opt.code == code) {
        if (opt.data.size() < fixedLen) continue;  // too short to hold one: passed over
        if (!visit(opt.data)) return false;
    }
    return true;
}

// An option of the message's top level: its data, or an empty view when absent.
bool findOption(qor::ByteView options, uint16_t code, qor::ByteView& out) {
    dhcpv6TlvCursor cursor(options);
    dhcpv6Tlv opt;
    while (cursor.next(opt) == dhcpv6TlvStep::Item)
        if (opt.code == code) {
            out = opt.data;
            return true;
        }
    return false;
}

// Step over the IA_PD of a Reply or Release: -1 when a Reply's prefix could
// not be stored.
int dhcpv6ProcIaPd(uint32_t ifIndex, const uint8_t* client, const uint8_t key[DHCPV6_DUID_MAX],
                   qor::ByteView iaPd, uint8_t noGlobalAddr) {
    if (dbgAny(kDbgEventPkt)) printf("Received  DHCPV6_OPTION_IA_PD option \r");
    dhcpv6TransEntry* t = dhcpv6TransLookup(key);
    if (t == nullptr) return 0;
    if (!sameTransId(*t, client)) {
        if (dbgAny(kDbgEventPkt)) {
            char type[20] = {};
            dhcpv6PktTypeToStr(client[0], type, sizeof type - 1);
            printf("Recieved %s, Not updating TransTbl \r\n", type);
        }
        return 0;
    }
    int rc = 0;
    forEachIaSubOption(iaPd, kOptIaPrefix, DHCPV6_IAPREFIX_BODY_LEN, [&](qor::ByteView body) {
        if (dbgAny(kDbgEventPkt)) printf("Received  DHCPV6_OPTION_IAPREFIX option \r");
        // A prefix longer than an address never becomes a lease or a route.
        if (body[kIaPrefixOffLen] > kMaxPrefixLen) return true;
        if (client[0] == kMsgReply) {
            if (dhcpv6UpdateLeaseIpTblWithRoute(ifIndex, client, key, body.data(),
                                                noGlobalAddr) == -1) {
                dbg(DHCPV6_DBG_EVENT, "dhcpv6UpdateLeaseIpWithRoute failed \r");
                rc = -1;
                return false;
            }
            return true;
        }
        // Release. Without a global address the relay kept no lease.
        if (noGlobalAddr == 0) dhcpv6DelLeaseIpTbl(t, body.data());
        if (g.snoopingEnabled != 0) {
            const SnoopBinding b =
                bindingOf(*t, body.data() + kIaPrefixOffPrefix, body[kIaPrefixOffLen], 0);
            if (snoopBindingRemove(b) == 0)
                qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SNOOP_BINDING_RELEASED, 0u,
                          prefixText(b.addr).c_str(), macText(b.mac).c_str(),
                          ifName(t->ifIndex).c_str(), ifName(t->portIfIndex).c_str());
        }
        return true;
    });
    return rc;
}

// Addresses (IA_NA) granted or released: snooping bindings only.
void dhcpv6ProcIaNa(const uint8_t* client, const uint8_t key[DHCPV6_DUID_MAX], qor::ByteView iaNa) {
    if (dbgAny(kDbgEventPkt)) printf("Received  DHCPV6_OPTION_IA_NA option \r");
    const dhcpv6TransEntry* t = dhcpv6TransLookup(key);
    if (t == nullptr || !sameTransId(*t, client)) return;
    forEachIaSubOption(iaNa, kOptIaAddr, kIaAddrFixedLen, [&](qor::ByteView addr) {
        const SnoopBinding b =
            bindingOf(*t, addr.data(), kMaxPrefixLen, qor::u32At(addr, kIaAddrOffValid));
        if (client[0] == kMsgReply) {
            if (snoopVlanSet(t->ifIndex)) snoopBindingAdd(b);
        } else {
            snoopBindingRemove(b);
        }
        return true;
    });
}

dhcpv6LeaseIpEntry* dhcpv6LeaseLookup(const std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN>& key) {
    if (g.leaseIpTbl == nullptr) return nullptr;
    return reinterpret_cast<dhcpv6LeaseIpEntry*>(
        qorRadixGetExact(g.leaseIpTbl, key.data(), DHCPV6_LEASEIP_KEY_BITS));
}

}  // namespace

int dhcpv6ProcClientLeaseOptions(uint32_t ifIndex, uint8_t* message, uint32_t length,
                                 uint8_t noGlobalAddr) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside  dhcpv6ProcClientLeaseOptions \r");
    uint8_t* client = nullptr;
    uint32_t clientLen = 0;
    if (message == nullptr || dhcpv6GetClientPacket(message, &client, length, &clientLen) != 0) {
        dbg(DHCPV6_DBG_EVENT, "dhcpV6Packet is NULL \r");
        return -1;
    }
    uint8_t key[DHCPV6_DUID_MAX];
    switch (dhcpv6ClientDuidKey(client, clientLen, key)) {
        case dhcpv6DuidStatus::Missing:
            if (dbgAny(kDbgEventPkt)) printf("No DHCPV6_OPTION_CLIENTID option \r");
            return -1;
        case dhcpv6DuidStatus::TooLong:
            dbg(DHCPV6_DBG_EVENT, "DHCPV6_OPTION_CLIENTID length exceeds 128 bytes \r");
            return -1;
        case dhcpv6DuidStatus::Ok:
            break;
    }
    const qor::ByteView options(client + kClientHdrLen, clientLen - kClientHdrLen);
    qor::ByteView ia;
    // A top-level Status Code ends the client's exchange; its IAs are not read.
    if (findOption(options, kOptStatusCode, ia)) {
        if (dbgAny(kDbgEventPkt)) printf(" Received DHCPV6_OPTION_STATUS_CODE option \r");
        return dhcpv6TransactionTblDel(ifIndex, client, key) == -1 ? -1 : 0;
    }
    const uint8_t type = client[0];
    if (type != kMsgReply && type != kMsgRelease) return 0;
    if (findOption(options, kOptIaPd, ia) &&
        dhcpv6ProcIaPd(ifIndex, client, key, ia, noGlobalAddr) == -1)
        return -1;
    if (g.snoopingEnabled != 0 && findOption(options, kOptIaNa, ia)) dhcpv6ProcIaNa(client, key, ia);
    return 0;
}

int dhcpv6UpdateLeaseIpTblWithRoute(uint32_t /*ifIndex*/, const uint8_t* message,
                                    const uint8_t duidKey[DHCPV6_DUID_MAX],
                                    const uint8_t* iaPrefixBody, uint8_t noGlobalAddr) {
    dbg(DHCPV6_DBG_DETAIL, "Inside dhcpv6UpdateLeaseTblWithRoute \r");
    dhcpv6TransEntry* t = dhcpv6TransLookup(duidKey);
    if (t == nullptr) {
        // The line names the lease table although the transaction is missing;
        // kept as operators know it.
        dbg(DHCPV6_DBG_EVENT, "Node not present in LeaseIpTbl \r");
        return -1;
    }
    if (!sameTransId(*t, message)) {
        dbg(DHCPV6_DBG_EVENT, "Transaction Id doesnt match.. So not touching LeaseIpTbl \r");
        return -1;
    }
    // On an interface without a global address the relay keeps no lease
    // and installs no route.
    if (noGlobalAddr == 0) {
        if (const int rc = dhcpv6AddLeaseIpTbl(t, iaPrefixBody); rc != 0) return rc;
    }
    const uint8_t* prefix = iaPrefixBody + kIaPrefixOffPrefix;
    if (g.snoopingEnabled != 0 && snoopVlanSet(t->ifIndex)) {
        const int rc = snoopBindingAdd(bindingOf(*t, prefix, iaPrefixBody[kIaPrefixOffLen],
                                                 validLifetime(iaPrefixBody)));
        if (rc != 0) return rc;
    } else if (validLifetime(iaPrefixBody) != 0) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_PREFIX_DELEGATED, 0u, prefixText(prefix).c_str(),
                  macText(t->clientMac).c_str(), ifName(t->ifIndex).c_str(),
                  ifName(t->portIfIndex).c_str());
    }
    return 0;
}

int dhcpv6AddLeaseIpTbl(dhcpv6TransEntry* transEntry, const uint8_t* iaPrefixBody) {
    dbg(DHCPV6_DBG_DETAIL, "Inside dhcpv6AddLeaseIpTbl \r");
    const auto key = leaseKey(*transEntry, iaPrefixBody);
    const std::string text = prefixText(iaPrefixBody + kIaPrefixOffPrefix);
    int rc = 0;
    dhcpv6LeaseIpEntry* e = dhcpv6LeaseLookup(key);
    if (e != nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
            printf("Node already present for %s. Updating lease Time\r\n", text.c_str());
        e->leaseTime = validLifetime(iaPrefixBody);
    } else {
        e = static_cast<dhcpv6LeaseIpEntry*>(dhcpv6LeaseIpTblRadixAlloc(sizeof(dhcpv6LeaseIpEntry)));
        if (e == nullptr) {
            dbg(DHCPV6_DBG_EVENT, "dhcpv6RelayLeaseIpTbl Alloc failed \r");
            return -1;
        }
        std::memset(e, 0, sizeof *e);
        std::memcpy(e->ifIndex, key.data(), sizeof e->ifIndex);
        std::memcpy(e->duid, key.data() + kLeaseKeyOffDuid, sizeof e->duid);
        std::memcpy(e->leaseIp, key.data() + kLeaseKeyOffPrefix, sizeof e->leaseIp);
        std::memcpy(e->prefixLen, key.data() + kLeaseKeyOffPrefixLen, sizeof e->prefixLen);
        e->node.rnKey = e->ifIndex;
        std::memcpy(e->nextHop, transEntry->peerIp, sizeof e->nextHop);
        e->leaseTime = validLifetime(iaPrefixBody);
        if (qorRadixInsert(g.leaseIpTbl, &e->node, DHCPV6_LEASEIP_KEY_BITS) != 0) {
            dbg(DHCPV6_DBG_EVENT, "dhcpv6RelayLeaseIpTbl RadixInsert Failed ... \r");
            dhcpv6LeaseIpTblRadixFree(e);
            return -1;
        }
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
            printf("Allocated node for %s lease in dhcpv6RelayLeaseIpTbl\r\n", text.c_str());
        rc = dhcpv6RelayMgrInstallRoute(e);
    }
    // A refresh with lifetime 0 keeps the lease until the next sweep.
    if (e->leaseTime != 0)
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_LEASE_ADDED, 0u, text.c_str(),
                  int(iaPrefixBody[kIaPrefixOffLen]));
    dhcpv6LeaseTblSyncToPeer(e, DHCPV6_LEASEIP_TBL_ENTRY_ADD);
    return rc;
}

int dhcpv6DelLeaseIpTbl(dhcpv6TransEntry* transEntry, const uint8_t* iaPrefixBody) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside dhcpv6DelLeaseIpTbl \r");
    const auto key = leaseKey(*transEntry, iaPrefixBody);
    dhcpv6LeaseIpEntry* e = dhcpv6LeaseLookup(key);
    if (e == nullptr) return 0;
    // The event names the prefix only when a route was withdrawn.
    std::string text;
    if (e->IsRouteAdded == 1) {
        text = prefixText(e->leaseIp);
        if (dhcpv6Dbg(DHCPV6_DBG_EVENT)) printf("Removing route for %s \r\n", text.c_str());
        // No other lease of the client takes the route over on a release.
        dhcpv6RelayMgrAddPdRoute(transEntry->ifIndex, e->leaseIp, e->nextHop,
                                 qor::u32At(e->prefixLen, 0), 0);
    }
    dhcpv6LeaseTblSyncToPeer(e, DHCP_LEASEIP_TBL_ENTRY_DEL);
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_LEASE_REMOVED, 0u, text.c_str(),
              int(qor::u32At(e->prefixLen, 0)));
    qorRadixRemove(g.leaseIpTbl, e->node.rnKey, DHCPV6_LEASEIP_KEY_BITS);
    dhcpv6LeaseIpTblRadixFree(e);
    return 0;
}

void dhcpv6DumpLeaseIpTbl() {
    if (g.leaseIpTbl == nullptr) return;
    int count = 0;
    for (QOR_RADIX_NODE* n = qorRadixGetNext(g.leaseIpTbl, nullptr, 0); n != nullptr;
         n = qorRadixGetNext(g.leaseIpTbl, n->rnKey, DHCPV6_LEASEIP_KEY_BITS)) {
        const auto* e = reinterpret_cast<const dhcpv6LeaseIpEntry*>(n);
        printf("###############dhcpv6RelayLeaseIpTbl Node : %d ############# \r\n", ++count);
        printf("leaseTime expires in : %d sec \r\n", int(e->leaseTime));
        printf("leaseIp :%s \r\n", prefixText(e->leaseIp).c_str());
        printf("prefixLen : %d \r\n", int(qor::u32At(e->prefixLen, 0)));
        printf("IfIndex : %ld \r\n", long(qor::u32At(e->ifIndex, 0)));
        printf("Duid : ");
        for (uint8_t b : e->duid) printf("%x", b);
        printf("\r");
        printf("IsRouteAdded : %d \r\n", int(e->IsRouteAdded));
    }
    printf("#### Total nodes in dhcpv6RelayLeaseIpTbl : %d ####\r\n", count);
}
