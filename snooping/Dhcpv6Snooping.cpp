// Dhcpv6Snooping.cpp -- DHCPv6 snooping: start-up of the binding table and
// the switch-port tree, the one-second tick, and the handlers the dispatcher
// reaches. Snooping stays disabled until its configuration is built; each
// handler below answers as it must while snooping is off.
#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <new>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "qor/bytes.h"
#include "qor/ha.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/task.h"

namespace {

constexpr const char* kUnit = "Dhcpv6Snooping";
constexpr size_t kSyncOffOperation = 60;
constexpr uint32_t kSyncInitRequest = 1;
constexpr size_t kSnoopSyncLen = 124;

// IPv6-address-by-MAC request (MT_DHCPV6_SNOOPING_STATUS).
constexpr size_t kMacReqOffMac = 60;
constexpr size_t kMacReqOffAddr = 66;
constexpr size_t kMacReqOffStatus = 84;

auto& g = dhcpv6RelayGlobalVar;

// The tick's clock, in seconds of up-time, and the seconds since the last
// periodic write of the binding file.
uint32_t timePrev = 0;
uint32_t timeLatest = 0;
uint32_t timeDiff = 0;
uint32_t dhcpv6WriteDelay = 0;

void snoopDbg(const char* text) {
    if (dhcpv6Dbg(DHCPV6_DBG_SNOOP)) printf("%s", text);
}

int createPools() {
    if (qorMC_M_memPoolCreate("DHCPV6_BINDING_TBL_POOL", DHCPV6_BINDING_POOL, g.instanceId,
                              sizeof(dhcpv6SnoopEntry)) != OK) {
        snoopDbg(" Failed to create pool-DHCPV6_BINDING_TBL_POOL.\r");
        return -1;
    }
    snoopDbg(" created pool-DHCPV6_BINDING_TBL_POOL.\r");
    if (qorMC_M_memPoolCreate("DHCPV6_SWPORT_RBT_POOL", DHCPV6_SWPORT_POOL, g.instanceId,
                              sizeof(dhcpv6SwPortEntry)) != OK) {
        snoopDbg(" Failed to create pool- DHCPV6_SWPORT_RBT_POOL \r");
        return -1;
    }
    snoopDbg(" created pool- DHCPV6_SWPORT_RBT_POOL \r");
    return 0;
}

void releaseSwPort(QOR_RBT_NODE* node) {
    qorMC_M_memBlockFree(kUnit, __LINE__, DHCPV6_SWPORT_POOL, node);
}

void applyWriteDelay() {
    if (g.snoopWriteDelay == 0) {
        dhcpv6WriteDelay = 0;
        return;
    }
    dhcpv6WriteDelay += timeDiff;
    if (dhcpv6WriteDelay < g.snoopWriteDelay) return;
    dhcpv6SaveFileWriteSnoopTbl();
    dhcpv6WriteDelay = 0;
}

}  // namespace

// ---- start-up ---------------------------------------------------------------------------

void* dhcpv6RadixAlloc(size_t size) {
    if (size > sizeof(dhcpv6SnoopEntry)) return nullptr;
    return qorMC_M_memBlockAlloc(kUnit, __LINE__, DHCPV6_BINDING_POOL);
}

void dhcpv6RadixFree(void* block) {
    if (block != nullptr) qorMC_M_memBlockFree(kUnit, __LINE__, DHCPV6_BINDING_POOL, block);
}

void* dhcpv6_rbt_malloc(size_t size) { return qorMC_M_sysMalloc(kUnit, __LINE__, size); }

void dhcpv6_rbt_free(void* block) { qorMC_M_sysFree(kUnit, __LINE__, block); }

int dhcpv6SwRbtInitDeInit(int create) {
    if (!create) {
        if (g.dhcpv6SwRbtHandle != nullptr) qorRBTreeDestroy(g.dhcpv6SwRbtHandle, releaseSwPort);
        g.dhcpv6SwRbtHandle = nullptr;
        return 0;
    }
    g.dhcpv6SwRbtHandle =
        qorRBTreeCreate("dhcpv6SwRbtHandle", _RBTCompareUL, dhcpv6_rbt_malloc, dhcpv6_rbt_free);
    if (g.dhcpv6SwRbtHandle == nullptr) {
        if (dhcpv6Dbg(DHCPV6_DBG_INIT)) printf("Failed to create the table \r");
        return -1;
    }
    return 0;
}

int dhcpv6SnoopingInit() {
    if (createPools() != 0) return -1;
    g.snoopTbl = qorRadixCreate("dhcpv6SnoopingT", DHCPV6_SNOOP_KEY_BITS / 8, dhcpv6RadixAlloc,
                                dhcpv6RadixFree);
    if (g.snoopTbl == nullptr) {
        snoopDbg(" Failed to create dhcpv6 snooping table.\r");
        return -1;
    }
    snoopDbg(" Created DHCPv6 snooping table succesfully!\r");
    if (!qorHaIsPrimaryRpm()) {
        std::array<uint8_t, kSnoopSyncLen> record{};
        qor::putU32(record, kSyncOffOperation, kSyncInitRequest);
        if (dhcpv6SendToPeer(MT_DHCPV6_SNOOP_SYNC_INIT, record) != 0 && dhcpv6Dbg(DHCPV6_DBG_INIT))
            printf("SnoopTbl sync init failed");
    }
    if (dhcpv6SwRbtInitDeInit(1) != 0) {
        snoopDbg("Failed to create sw RBT \r");
        return -1;
    }
    snoopDbg(" Created sw RBT succesfully!\r");
    // The trust lists are made with snooping trust, which needs them first.
    return 0;
}

// ---- the one-second tick ------------------------------------------------------------------

void dhcpv6ProcSnoopDb(long /*argument*/, void* /*block*/) {
    if (timePrev == 0) timePrev = qorGetUpTime();
    timeLatest = qorGetUpTime();
    timeDiff = timeLatest - timePrev;
    timePrev = timeLatest;
    // The tick re-arms itself; if that fails there is no aging and no write.
    if (timerStart(dhcpv6RelayTimert.snoopTimer, DHCPV6_SNOOP_SWEEP_MSEC, dhcpv6ProcSnoopDb,
                   dhcpv6RelayTimert.agentSlot) != TIMER_START_OK)
        return;
    // Bindings are aged here once snooping learns them; the table is empty
    // while snooping is off.
    applyWriteDelay();
}

// ---- handlers --------------------------------------------------------------------------------
// Snooping configuration, trust, the binding file and its transfer to the
// peer complete these. Until then snooping cannot be switched on, no binding
// exists, and each answers accordingly.

int dhcpv6SnoopingHandle(dhcpv6Msg /*message*/) { return -1; }

int dhcpv6SnoopingTrustHandler(dhcpv6Msg /*message*/) { return -1; }

int dhcpv6ClearSnoopingBinding(uint32_t vlanIfIndex) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6ClearSnoopingBinding \r");
    if (qorHaIsPrimaryRpm())
        dhcpv6SnoopTblSyncToPeer(nullptr, DHCPV6_SNOOP_TBL_ENTRY_DEL_ALL, vlanIfIndex);
    return 0;  // no binding to remove
}

int dhcpv6LoadSnoopTblFromFile() {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6HandleConfigInitForSnoopTbl\r");
    if (g.snoopingEnabled == 0) {
        snoopDbg("DHCPV6 Snooping not enabled\r");
        return -1;
    }
    return -1;  // no binding file is read before the file format is built
}

int dhcpv6SaveFileWriteSnoopTbl() {
    if (g.snoopingEnabled == 0) {
        snoopDbg("snooping not enabled.\r");
        return 0;
    }
    return -1;  // no binding file is written before the file format is built
}

int dhcpv6SaveSnoopdbEntry() {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6SaveSnoopdbEntry\r");
    return -1;  // no file has been fetched from the peer
}

int dhcpv6SyncSnoopTblToPeer() { return 0; }

int dhcpv6HandleSnoopTblPush(dhcpv6Msg /*message*/) { return 0; }

// Snooping configuration completes this with the snooped-VLAN, table-full
// and MAC checks. Until snooping can be switched on every client message
// passes, as it does on any interface snooping does not watch.
int dhcpv6SnoopingVerification(const uint8_t* /*duid*/, const dhcpv6PktIfInfo* /*info*/,
                               const uint8_t* /*frame*/, uint8_t /*msgType*/) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6SnoopingVerification \r");
    snoopDbg("snoop verification passed \r");
    return 0;
}

int dhcpv6ProcessIfmModeChgMsg(std::span<const uint8_t> /*payload*/) { return 0; }

int dhcpv6RelayHandleDelInt(uint32_t /*ifIndex*/) { return 0; }

int getSnoopIpv6EntryUsingMacAddr(dhcpv6Msg request) {
    uint8_t mac[6] = {};
    qor::getBytes(request, kMacReqOffMac, mac, sizeof mac);
    const uint8_t none[16] = {};
    qor::putBytes(request, kMacReqOffAddr, none, sizeof none);
    uint32_t status = 0xFFFFFFFF;
    QOR_RADIX_NODE* first = g.snoopTbl ? qorRadixGetNext(g.snoopTbl, nullptr, 0) : nullptr;
    for (QOR_RADIX_NODE* n = first; n != nullptr;
         n = qorRadixGetNext(g.snoopTbl, n->rnKey, DHCPV6_SNOOP_KEY_BITS)) {
        const auto* e = reinterpret_cast<const dhcpv6SnoopEntry*>(n);
        if (std::memcmp(e->macAddr, mac, sizeof mac) != 0) continue;
        if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("IPv6 Address found in snooping table");
        qor::putBytes(request, kMacReqOffAddr, e->ipv6Addr, sizeof e->ipv6Addr);
        status = 0;
        break;
    }
    qor::putU32(request, kMacReqOffStatus, status);
    const uint32_t length =
        std::min<uint32_t>(qor::u32At(request, QOR_IPC_OFF_LENGTH), uint32_t(request.size()));
    qorIpcReply(g.ipcReqQueue, request.data(), length);
    return 0;
}
