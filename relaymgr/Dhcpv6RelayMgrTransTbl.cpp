// Dhcpv6RelayMgrTransTbl.cpp -- the daemon's memory partitions and pools, the
// transaction and lease-IP tables, and their periodic sweep.
#include <array>
#include <cstdio>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/ha.h"
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

auto& g = dhcpv6RelayGlobalVar;

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
    if (timePrev == 0) timePrev = qorGetUpTime();
    timeLatest = qorGetUpTime();
    timeDiff = timeLatest - timePrev;
    timePrev = timeLatest;
    // A timer fires once: the sweep re-arms itself. If that fails, the sweep
    // stops for good and this run ages nothing.
    if (timerStart(dhcpv6RelayTimert.transTimer, DHCPV6_TRANS_SWEEP_MSEC, dhcpv6ProcTransDb,
                   dhcpv6RelayTimert.agentSlot) != TIMER_START_OK)
        return;
    // Aging walks over the transaction and lease-IP tables by timeDiff come
    // with the relay engine, which is what fills them; both are empty until then.
}
