// dhcpv6Snooping.h -- DHCPv6 snooping: the binding table's records, the
// switch-port tree, and the snooping functions the rest of the daemon calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "dhcpv6RelayMgr.h"
#include "qor/radix.h"
#include "qor/rbtree.h"

constexpr uint32_t DHCPV6_SNOOP_KEY_BITS = 160;
constexpr int32_t DHCPV6_SNOOP_MAX_BINDINGS = 4000;
constexpr uint32_t DHCPV6_LEARN_DYNAMIC = 1;
constexpr uint32_t DHCPV6_LEARN_STATIC = 2;

// A binding. The key is vlanIfIndex (big-endian) and the masked prefix: 20 bytes.
struct dhcpv6SnoopEntry {
    QOR_RADIX_NODE node;   // rnKey -> vlanIfIndex
    uint8_t vlanIfIndex[4];
    uint8_t prefix[16];
    uint32_t phyIfIndex;
    uint8_t macAddr[6];
    uint8_t ipv6Addr[16];
    uint32_t leaseTime;
    uint32_t learnType;
    uint32_t prefixLen;
};

// A switch port. The platform's tree is intrusive, so the element that holds
// the port's ifIndex also carries the tree node.
struct dhcpv6SwPortEntry {
    QOR_RBT_NODE node;     // key -> ifIndex
    uint32_t ifIndex;      // host order (_RBTCompareUL)
};

int dhcpv6SnoopingInit();
int dhcpv6SwRbtInitDeInit(int create);
void* dhcpv6RadixAlloc(size_t size);
void dhcpv6RadixFree(void* block);
void* dhcpv6_rbt_malloc(size_t size);
void dhcpv6_rbt_free(void* block);
void dhcpv6ProcSnoopDb(long argument, void* block);

// Control-message handlers (dispatched by dhcpv6RelayProcCliCmd).
int dhcpv6SnoopingHandle(dhcpv6Msg message);
int dhcpv6SnoopingTrustHandler(dhcpv6Msg message);
int dhcpv6ClearSnoopingBinding(uint32_t vlanIfIndex);
int dhcpv6LoadSnoopTblFromFile();
int dhcpv6SaveFileWriteSnoopTbl();
int dhcpv6SaveSnoopdbEntry();
int dhcpv6SyncSnoopTblToPeer();
int dhcpv6HandleSnoopTblPush(dhcpv6Msg message);
int getSnoopIpv6EntryUsingMacAddr(dhcpv6Msg request);

// Interface events (Dhcpv6RelayMgrIfm).
int dhcpv6ProcessIfmModeChgMsg(std::span<const uint8_t> payload);
int dhcpv6RelayHandleDelInt(uint32_t ifIndex);

// Peer sync of bindings (Dhcpv6RelayMgrHa): operation 0 add, 1 remove, 2 clear.
constexpr uint32_t DHCPV6_SNOOP_TBL_ENTRY_ADD = 0;
constexpr uint32_t DHCPV6_SNOOP_TBL_ENTRY_DEL = 1;
constexpr uint32_t DHCPV6_SNOOP_TBL_ENTRY_DEL_ALL = 2;
int dhcpv6SnoopTblSyncToPeer(const dhcpv6SnoopEntry* entry, uint32_t operation, uint32_t ifIndex);
