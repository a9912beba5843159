// dhcpv6RelayMgr.h -- the relay manager's global state, its timers, debug
// switches, the helper-address table and the functions of the process core,
// relay configuration, IFM, RTM, MRTM, ACL and table units.
//
// Everything here runs on the one task "Dhcpv6RelayMgr" (the event loop);
// only the timer task runs beside it, and it touches none of these objects.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "Timer.h"
#include "qor/lst.h"
#include "qor/radix.h"
#include "qor/rbtree.h"
#include "qor/swp.h"

// ---- debug switches (dhcpv6_debug_flag) ---------------------------------------
constexpr uint32_t DHCPV6_DBG_INIT = 0x1;         // start-up and registrations
constexpr uint32_t DHCPV6_DBG_VLAN = 0x4;         // snooped VLAN configuration
constexpr uint32_t DHCPV6_DBG_EVENT = 0x10;       // events, dispatcher cases, relay, tables
constexpr uint32_t DHCPV6_DBG_PKT = 0x100;        // transmission, flooding, configuration sync
constexpr uint32_t DHCPV6_DBG_DETAIL = 0x1000;    // function entry and detail
constexpr uint32_t DHCPV6_DBG_SNOOP = 0x10000;    // snooping
constexpr uint32_t DHCPV6_DBG_MRTM = 0x100000;    // multicast group and MRTM
// Per-module trace flags of module 102 (wrap_modtraceflags).
constexpr uint32_t DHCPV6_TRACE_INIT = 0x1;       // start-up failures, SWP errors
constexpr uint32_t DHCPV6_TRACE_RECV = 0x2;       // receive and reply errors

// ---- identities ------------------------------------------------------------------
constexpr int DHCPV6_RELAY_APP_ID = 336;     // timer owner, IPC application, peer channel
constexpr int DHCPV6_TIMER_TASK_ID = 337;
constexpr uint32_t DHCPV6_MEM_MODULE = 0xC30000;
constexpr uint32_t DHCPV6_BINDING_POOL = 0xC30000;
constexpr uint32_t DHCPV6_SWPORT_POOL = 0xC30001;
constexpr uint32_t DHCPV6_TRANS_POOL = 0xC30002;
constexpr uint32_t DHCPV6_LEASEIP_POOL = 0xC30003;
constexpr uint32_t DHCPV6_LAST_POOL = 0xC30004;

constexpr size_t DHCPV6_PKT_BUF_LEN = 12000;
constexpr size_t DHCPV6_IPC_BUF_LEN = 8192;
constexpr int DHCPV6_FDSET_BITS = 2048;     // the loop's descriptor set: 256 bytes
constexpr uint32_t DHCPV6_TRANS_SWEEP_MSEC = 5000;
constexpr uint32_t DHCPV6_SNOOP_SWEEP_MSEC = 1000;
constexpr int DHCPV6_AGT_INSTANCES = 13;
constexpr int DHCPV6_SW_AGT_SLOTS = 12;

// ---- global state ------------------------------------------------------------------
struct dhcpv6RelayGlobal {
    int ipcReqQueue;          // request queue handle (replies, synchronous requests)
    int evtLogHandle;         // first argument of every qorSysErr
    int dhcpv6RelayreqQfd;    // receiving side of the request queue
    int taskKey;
    int instanceId;
    int timerPipeFd;
    int protoSockFd;
    int outSockFd;
    uint8_t debugOn;          // 1 while the debugging-on line stands
    uint8_t snoopingEnabled;
    uint8_t snoopVerifyMac;
    uint8_t chassisMac[6];
    QOR_RADIX_HANDLE transTbl;
    QOR_RADIX_HANDLE leaseIpTbl;
    QOR_RADIX_HANDLE snoopTbl;
    QOR_RBT_HANDLE dhcpv6SwRbtHandle;  // switch ports
    int swpPipeFd;            // every SWP queue delivers here
    int ifmSwpQueue;
    QOR_SWP_SEQ ifmSwpSeq;
    int aclSwpQueue;
    uint32_t rtmHandle;
    uint32_t rtmClientInfo[3];  // application, ipcReqQueue, 0
    int rtmSwpQueue;
    uint32_t mrtmSvc;         // header identity of MRTM requests: service,
    uint32_t mrtmQueue;       //   queue (= ipcReqQueue)
    uint32_t mrtmInstance;    //   and instance
    uint32_t mrtmClientId;    // returned by the MRTM registration
    int mrtmSwpQueue;
    QOR_SWP_SEQ mrtmSwpSeq;
    uint32_t mcastGroupIdx;   // multicast group index granted by MRTM, 0 = none
    int32_t snoopEntryCount;
    uint32_t snoopTblFull;
    uint32_t snoopWriteDelay;  // seconds
    uint32_t srcIfIndex;       // system-wide relay source interface, 0 = none
    int srcIfSockFd;           // socket the source interface was last applied to, 0 = none
};

struct dhcpv6RelayTimers {
    timerEnt* transTimer;
    timerEnt* snoopTimer;
    timerEnt* l2mcTimer[DHCPV6_AGT_INSTANCES];
    long agentSlot;  // last registered agent's slot; argument of the two sweeps
};

extern dhcpv6RelayGlobal dhcpv6RelayGlobalVar;
extern dhcpv6RelayTimers dhcpv6RelayTimert;
extern uint8_t dhcpv6PktBuf[DHCPV6_PKT_BUF_LEN];
extern uint8_t dhcpv6RelayCliIpcBuf[DHCPV6_IPC_BUF_LEN];
extern uint32_t dhcpv6_debug_flag;
extern int32_t dhcpv6IsInitComplete;
extern int timer_tid;
extern QOR_SWP_SEQ dhcpv6RtmSeqNo;
extern uint8_t isL2McZero;

inline bool dhcpv6Dbg(uint32_t bits) { return (dhcpv6_debug_flag & bits) != 0; }

// ---- control messages --------------------------------------------------------------
// A control message as received: the bytes that arrived in the IPC buffer.
// Handlers read and write fields only inside it (qor/bytes.h).
using dhcpv6Msg = std::span<uint8_t>;

// ---- helper-address table ------------------------------------------------------------
constexpr uint32_t RELAYV6_FLAG_HELPERS = 0x1;
constexpr uint32_t RELAYV6_FLAG_SRC_INTF = 0x2;

struct relayv6HelperEntry {
    NODE node;              // links of helperList
    uint8_t helperAddr[16];
    uint32_t vrfId;
};

struct relayv6IntfNode {
    relayv6IntfNode* next;
    uint32_t ifIndex;
    uint32_t flags;         // RELAYV6_FLAG_*; the node lives while any is set
    uint32_t srcIfIndex;    // per-interface source interface (RELAYV6_FLAG_SRC_INTF)
    LIST helperList;        // relayv6HelperEntry, in the order added
};

extern relayv6IntfNode* relayv6Head;

// ---- line-card agents -----------------------------------------------------------------
struct dhcpv6AgtEntry {
    uint32_t slot;
    uint32_t inUse;
    uint32_t reserved;
};
struct dhcpv6SwAgtEntry {
    uint32_t slot;
    uint32_t inUse;
    int swpQueue;
};
extern dhcpv6AgtEntry dhcpv6AgtTbl[DHCPV6_AGT_INSTANCES];
extern dhcpv6SwAgtEntry dhcpv6SwAgtTbl[DHCPV6_SW_AGT_SLOTS];

// ---- transaction and lease tables --------------------------------------------------------
constexpr uint32_t DHCPV6_DUID_MAX = 128;
constexpr uint32_t DHCPV6_TRANS_KEY_BITS = 1024;
constexpr uint32_t DHCPV6_LEASEIP_KEY_LEN = 152;
constexpr uint32_t DHCPV6_LEASEIP_KEY_BITS = 1216;

struct dhcpv6TransEntry {
    QOR_RADIX_NODE node;          // rnKey -> duid
    uint8_t duid[DHCPV6_DUID_MAX];  // the key, zero-padded
    uint8_t peerIp[16];
    uint32_t ifIndex;
    uint32_t portIfIndex;
    uint32_t leaseTime;           // seconds left
    uint8_t clientMac[6];
    uint8_t msgType;
    uint8_t transId[3];
};

// The key is the 152 bytes from ifIndex to prefixLen, multi-byte values
// big-endian so that key order is interface, DUID, prefix, length.
struct dhcpv6LeaseIpEntry {
    QOR_RADIX_NODE node;          // rnKey -> ifIndex
    uint8_t ifIndex[4];
    uint8_t duid[DHCPV6_DUID_MAX];
    uint8_t leaseIp[16];
    uint8_t prefixLen[4];
    uint8_t nextHop[16];
    uint32_t leaseTime;
    uint8_t leaseFlag;
    uint8_t IsRouteAdded;
};
static_assert(offsetof(dhcpv6LeaseIpEntry, nextHop) - offsetof(dhcpv6LeaseIpEntry, ifIndex) ==
              DHCPV6_LEASEIP_KEY_LEN);

// ---- Dhcpv6RelayMgrMain -----------------------------------------------------------------
// The loop's descriptor set: 2048 descriptors in 256 bytes, wider than the C
// library's fd_set, handed to select() with nfds 2048.
struct dhcpv6FdSet {
    uint64_t bits[DHCPV6_FDSET_BITS / 64];
};
void dhcpv6FdZero(dhcpv6FdSet& set);
void dhcpv6FdAdd(dhcpv6FdSet& set, int fd);  // ignores descriptors outside 0..2047
bool dhcpv6FdIsSet(const dhcpv6FdSet& set, int fd);

long dhcpv6RelayMgrMain(long argc, long argv, long, long, long, long, long, long, long, long);
// Steps 1 to 16 of the task: 0 with the loop's set filled, or -1 (start-up failed).
int dhcpv6RelayMgrStartup(int argc, char** argv, dhcpv6FdSet* master, int* nfds);
// One pass of the event loop: waits in select() and serves what is ready.
void dhcpv6RelayMgrLoopPass(const dhcpv6FdSet& master, int nfds);
int dhcpv6RelayMgrVarInit(dhcpv6FdSet* master, int* nfds);
int dhcpv6RelayMgrTimerInit();
int dhcpv6RelayMgrProtoSockInit();
int dhcpv6RelayMgrCreateOutSockFd();

// ---- Dhcpv6RelayMgrCli ----------------------------------------------------------------
int dhcpv6RelayProcCliCmd(dhcpv6Msg message);
int dhcpv6RelaySendReply(dhcpv6Msg message);
int dhcpv6IpcSendAndWait(uint32_t type, dhcpv6Msg message, uint32_t length, int peerApp,
                         int peerInstance, int waitArg);
int dhcpv6SetLoglevel(uint32_t level);
int dhcpv6RelayLogLevel(dhcpv6Msg message);
int dhcpv6RlyHandle(dhcpv6Msg message);

// ---- Dhcpv6RelayMgrUtil ----------------------------------------------------------------
void* dhcpV6RelayMgrSwpMalloc(uint32_t size);
int dhcpV6RelayMgrSwpFree(void* block);
int dhcpV6RelayMgrRtmSwpFree(void* block);
int dhcpV6RelayMgrAclSwpFree(void* block);
void dhcpV6RelayMgrSwpErrFunc(int queue, int error);

relayv6IntfNode* relayv6Lookup(uint32_t ifIndex);
relayv6IntfNode* relayv6AddToIntfList(uint32_t ifIndex);
void relayv6Delete(relayv6IntfNode* node);
int dhcpv6RelayDelIntHelper(uint32_t ifIndex);
void dumpRelayDB(uint32_t ifIndex);
void printRelayDB(const relayv6IntfNode* node);

int dhcpv6RelayConfigSync(uint32_t ifIndex, uint32_t operation, const char* address,
                          uint32_t vrfId, const char* vrfName);
int dhcpv6SourceInterface(dhcpv6Msg message);
int dhcpv6IfSourceInterface(dhcpv6Msg message);
void dhcpv6RelayDelSrcInterface(uint32_t ifIndex);

void dhcpv6RelayMgrAclReg();
int dhcpv6CreateAclSwpQueue();
int dhcpv6RelayMgrSendAclEntry(uint32_t protocol, int enable);
constexpr uint32_t DHCPV6_ACL_RELAY = 30;
constexpr uint32_t DHCPV6_ACL_SNOOP = 39;

int dhcpv6RegisterAgent(dhcpv6Msg request);
int dhcpv6RegisterClient(dhcpv6Msg request);

// ---- Dhcpv6RelayMgrIfm ------------------------------------------------------------------
void dhcpv6RelayMgrIFMReg();
int dhcpv6CreateIfmSwpQueue();
int dhcpv6IFMRegister();
int dhcpv6ProcessIfmTlvMessage(dhcpv6Msg message);
int dhcpv6ProcessEventNotif(dhcpv6Msg message);
int dhcpv6NotifIfmSnoopTrustConfig(uint32_t ifIndex, uint8_t trust);
void dhcpv6RelayAddDelLagPortInfo(std::span<const uint8_t> record, int add);
constexpr uint32_t DHCPV6_EVT_AGENT_GONE = 0x118012;

// ---- Dhcpv6RelayMgrRoute -------------------------------------------------------------------
int dhcpv6RelayMgrRtmInit();
int dhcpV6RelayMgrCreateRtmSwpQueue();
void dhcpv6LeaseIpDownLoadRoute(uint32_t ifIndex);
void dhcpv6LeaseIpWithDrawRoute(uint32_t ifIndex, int forget);
int dhcpv6HandleClearRoute(dhcpv6Msg message);
int dhcpv6ProcessHA(dhcpv6Msg message);
// Re-send after an RTM clear: every routed lease, or every routed lease of
// one prefix address (all its lengths; prefixLen is not compared).
void dhcpv6DownloadAllRoute();
void dhcpv6DownloadSpecificRoute(const uint8_t* prefix, uint8_t prefixLen);

// ---- Dhcpv6RelayMgrMrtm ----------------------------------------------------------------------
void dhcpv6RelayMgrMrtmReg(int flag);
int dhcpv6RegWithMrtmIdx();
int dhcpv6MrtmMcidxResp(dhcpv6Msg response);
int dhcpv6MrtmAclMcastGroupCreate();

// ---- Dhcpv6RelayMgrTransTbl ---------------------------------------------------------------------
int dhcpv6RelayMgrMemInit();
int dhcpv6RelayTableInit();
void* dhcpv6TransactionTblRadixAlloc(size_t size);
void dhcpv6TransactionTblRadixFree(void* block);
void* dhcpv6LeaseIpTblRadixAlloc(size_t size);
void dhcpv6LeaseIpTblRadixFree(void* block);
void dhcpv6ProcTransDb(long argument, void* block);

// ---- Dhcpv6RelayMgrHa (peer sync) -----------------------------------------------------------------
int dhcpv6SendToPeer(uint32_t type, dhcpv6Msg record);
int dhcpv6TransTblHandlePeerSync(dhcpv6Msg record);
int dhcpv6TransTblBulkSync();
int dhcpv6LeaseIpTblHandlePeerSync(dhcpv6Msg record);
int dhcpv6LeaseIpBulkSync();
int dhcpv6SnoopTblHandlePeerSync(dhcpv6Msg record);

// ---- Dhcpv6RelayMgrShow -----------------------------------------------------------------------------
int dhcpXmlProcCliDispIpv6DhcpSnoopingInfo(dhcpv6Msg message);
int dhcpXmlProcCliDispIpv6DhcpTrustInfo(dhcpv6Msg message);
int dhcpXmlProcCliDispIpv6DhcpSnoopEnabledVlans(dhcpv6Msg message);
int dhcpXmlProcCliDispIpv6DhcpSnoopBind(dhcpv6Msg message);
int dhcpXmlProcCliDispIpv6DhcpSnoopBindCnt(dhcpv6Msg message);

// ---- Dhcpv6RelayMgrPktRelay ------------------------------------------------------------------------
constexpr size_t DHCPV6_L2_HDR_LEN = 18;      // the link header every received frame starts with
constexpr uint32_t DHCPV6_CLIENT_PORT = 546;
constexpr uint32_t DHCPV6_SERVER_PORT = 547;
constexpr uint32_t DHCPV6_MAX_HOP_COUNT = 32;  // relay levels forwarded (not the RFC's 8)
constexpr size_t DHCPV6_IFID_TEXT_LEN = 29;    // Interface-ID text buffer, terminator included
constexpr size_t DHCPV6_MAX_RELAY_MSG = 12000; // the option writer's limit
constexpr uint16_t DHCPV6_OPTION_CLIENTID = 1;
constexpr uint16_t DHCPV6_OPTION_INTERFACE_ID = 18;
constexpr uint16_t DHCPV6_OPTION_REMOTE_ID = 37;
constexpr uint16_t DHCPV6_REMOTE_ID_LEN = 21;  // enterprise number, 17 bytes of MAC text
// Remote-ID enterprise number: the maker's IANA private enterprise number.
// RFC 4649 makes it name the vendor whose remote-id format follows, and
// servers select their remote-id rules by it. The documentation number 32473
// (RFC 5612) would tie our remote-ids to every example configuration and to
// no vendor, so a product must not send it.
constexpr uint32_t DHCPV6_REMOTE_ID_ENTERPRISE = 52742;
constexpr uint32_t DHCPV6_FLOOD_IPC_MSG = 20810;  // a flood handed to another unit's agent
constexpr int DHCPV6_FLOOD_AGENT_APP = 250;       // the agent that floods on its unit

// The interface a packet is taken to belong to; zeroed before each packet.
struct dhcpv6PktIfInfo {
    uint32_t ifIndex;
    uint8_t linkAddr[16];
    uint32_t logicalIfIndex;
    uint32_t recvPortIfIndex;
    uint32_t physicalIfIndex;
    uint8_t noGlobalAddr;
};

// The frame being recorded: the frame, its IPv6 header, UDP header, DHCPv6 message.
struct dhcpv6MsgPtrs {
    uint8_t* frame;
    uint8_t* ip6;
    uint8_t* udp;
    uint8_t* dhcp;
};
extern dhcpv6MsgPtrs dhcpv6MsgOut;
extern uint8_t mac_addr[6];
extern uint8_t chassisMacPresent;
// Client messages relayed while snooping is on (counter 0).
extern uint32_t qorDhcpv6Stats[1];

// Every entry point takes any bytes and any length: nothing is read or
// written outside [packet, packet + length), whatever the lengths inside say.
uint32_t dhcpv6RelayStart(uint8_t* packet, uint32_t length, uint32_t logicalIfIndex,
                          uint32_t recvPortIfIndex, uint32_t physicalIfIndex);
int dhcpv6FillIfInfo(dhcpv6PktIfInfo* info, uint32_t logicalIfIndex, uint32_t recvPortIfIndex,
                     uint32_t physicalIfIndex);
int dhcpv6ValidateChecksm(uint8_t* packet, uint32_t length);
// The checksum a datagram should carry (zeroes its checksum field). The UDP
// length's bytes must lie in the caller's buffer unless it exceeds the IPv6
// payload length, which gives 0xFFFF without reading the datagram.
uint16_t dhcpv6_get_udp6_cksum(uint8_t* ip6, uint8_t* udp);
uint16_t dhcpv6_udp_cksum_v6(const uint8_t* pseudo, const uint8_t* data, uint32_t n);
uint32_t dhcpv6ServerRelay(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length);
int addDhcpV6RelayOptions(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length, uint8_t** outBuffer,
                          uint32_t* outLength);
// Appends one option at buffer[usedLength]: the option written, or null when
// the message would reach 12001 bytes or not fit the buffer.
uint8_t* dhcpv6AddRelayOptionsData(std::span<uint8_t> buffer, uint32_t* usedLength, uint16_t code,
                                   const void* data, uint32_t dataLength);
// Writes the Interface-ID text of a packet's interfaces into text (29 bytes).
void dhcpv6InterfaceIdText(const dhcpv6PktIfInfo* info, char* text);
uint32_t dhcpv6ClientRelay(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length);
// One ':'-separated field of an Interface-ID text. `text` is zero-terminated;
// at most `remaining` characters and the one after them are read.
int32_t dhcpv6GetFromOption18(const char* text, int remaining, int* consumed);
int sendDhcpV6Packet(const uint8_t serverAddress[16], uint32_t vrfId, uint8_t* buffer, uint32_t length,
                     uint32_t sourceIfIndex);
int dhcpv6FwdPktInVlan(uint32_t vlanIfIndex, uint32_t portIfIndex, uint8_t* frame, uint32_t length);
int dhcpv6FloodPktWithSrcSup(const dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length);
char* dhcpv6PktTypeToStr(uint8_t type, char* buffer, size_t bufferLength);

// ---- Dhcpv6RelayMgrTransTbl (packet side) ------------------------------------------------------
constexpr uint32_t DHCPV6_TRANS_LIFETIME_SEC = 60;
// Peer sync operations (the word at byte 60 of a sync record).
constexpr uint32_t DHCPV6_TRANS_TBL_ENTRY_ADD = 0;
constexpr uint32_t DHCP_TRANS_TBL_ENTRY_DEL = 1;
constexpr uint32_t DHCPV6_LEASEIP_TBL_ENTRY_ADD = 0;
constexpr uint32_t DHCP_LEASEIP_TBL_ENTRY_DEL = 1;
int dhcpv6TransactionTblAdd(dhcpv6PktIfInfo* info, uint8_t* frame, uint32_t frameLength);
// message: a DHCPv6 message of at least 4 bytes (type, transaction id).
int dhcpv6TransactionTblDel(uint32_t ifIndex, const uint8_t* message,
                            const uint8_t duidKey[DHCPV6_DUID_MAX]);
void dhcpv6DumpTransTbl();
// The key of a client's transaction: the Client Identifier (option 1) of a
// client message (type, transaction id, options) zero-padded to 128 bytes;
// outKey is written only when Ok.
enum class dhcpv6DuidStatus { Ok, Missing, TooLong };
dhcpv6DuidStatus dhcpv6ClientDuidKey(const uint8_t* message, uint32_t length,
                                     uint8_t outKey[DHCPV6_DUID_MAX]);
dhcpv6TransEntry* dhcpv6TransLookup(const uint8_t key[DHCPV6_DUID_MAX]);

// ---- lease-IP table (Dhcpv6RelayMgrTransTbl) ----------------------------------------------------
// The lease options of one DHCPv6 message (relayed or not): a Reply's
// delegated prefixes become leases with routes, a Release's are forgotten.
// 0, or -1 (no usable Client Identifier, transaction delete refused, a lease
// not stored). Reads nothing outside [message, message + length).
int dhcpv6ProcClientLeaseOptions(uint32_t ifIndex, uint8_t* message, uint32_t length,
                                 uint8_t noGlobalAddr);
// iaPrefixBody: the 25 bytes after an IA Prefix option's header (preferred
// and valid lifetime, prefix length, prefix), as on the wire.
constexpr size_t DHCPV6_IAPREFIX_BODY_LEN = 25;
int dhcpv6UpdateLeaseIpTblWithRoute(uint32_t ifIndex, const uint8_t* message,
                                    const uint8_t duidKey[DHCPV6_DUID_MAX],
                                    const uint8_t* iaPrefixBody, uint8_t noGlobalAddr);
int dhcpv6AddLeaseIpTbl(dhcpv6TransEntry* transEntry, const uint8_t* iaPrefixBody);
int dhcpv6DelLeaseIpTbl(dhcpv6TransEntry* transEntry, const uint8_t* iaPrefixBody);
void dhcpv6DumpLeaseIpTbl();
// Route election for a lease just inserted; always 0.
int dhcpv6RelayMgrInstallRoute(dhcpv6LeaseIpEntry* lease);

// ---- features that complete the packet path later ---------------------------------------------
// Snooping's check of a client message: -1 rejects it.
int dhcpv6SnoopingVerification(const uint8_t* duid, const dhcpv6PktIfInfo* info, const uint8_t* frame,
                               uint8_t msgType);
// Mirroring a transaction or lease entry to the standby.
int dhcpv6TransTblSyncToPeer(const dhcpv6TransEntry* entry, uint32_t operation);
int dhcpv6LeaseTblSyncToPeer(const dhcpv6LeaseIpEntry* entry, uint32_t operation);
// Delegated-prefix routes: one route to the RTM (add non-zero: add, 0:
// withdraw), and the election of a replacement after a routed lease expired
// (key: a lease key whose prefix-length word is 0).
void dhcpv6RelayMgrAddPdRoute(uint32_t ifIndex, const uint8_t prefix[16], const uint8_t nextHop[16],
                              uint32_t prefixLen, int add);
void dhcpv6RelayMgrElectNewRoute(std::array<uint8_t, DHCPV6_LEASEIP_KEY_LEN> key);
