// clients.cpp -- client libraries of the chassis services: configuration
// store, port notices, ACL manager, RTM and MRTM registration, and the route
// processor's role and the chassis MAC.
#include <array>
#include <atomic>
#include <cstring>
#include <optional>

#include "netintf.h"
#include "qor/acl.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ha.h"
#include "qor/hostmap.h"
#include "qor/ipc.h"
#include "qor/mrtm.h"
#include "qor/rtm.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

// The chassis services of a route processor run as its instance.
int serviceInstance() { return qorPlatformInstance(); }
// Synchronous requests wait the platform's default bound (100 ticks).
constexpr int kDefaultWait = 0;

constexpr size_t kAclMsgLen = 108;
constexpr size_t kRtmRegLen = 132;
constexpr size_t kRtmRegOffOwner = 80;
constexpr size_t kRtmRegOffVrf = 84;
constexpr size_t kRtmRegOffInstance = 88;
constexpr size_t kRtmRegOffAf = 92;
constexpr size_t kRtmRegOffName = 96;
constexpr size_t kRtmRegNameLen = 32;
constexpr size_t kRtmRegOffHandle = 128;

std::atomic<bool> primaryRpm{true};

// Sends a record to a service's request queue from the caller's process
// request queue, without waiting: 0 sent, -1 otherwise.
int sendRecord(int taskKey, uint32_t type, int dstApplication, const uint8_t* record,
               size_t recordLen) {
    if (record == nullptr) return -1;
    const int queue = Key_getReqQueue(taskKey);
    if (queue < 0) return -1;
    std::array<uint8_t, QOR_CHASSIS_OFF_BODY + QOR_CFG_SYNC_LEN> buf{};
    const size_t total = QOR_CHASSIS_OFF_BODY + recordLen;
    if (total > buf.size()) return -1;
    const qor::MutByteView msg(buf.data(), total);
    if (qorIpcSetSourceHeader(msg, uint32_t(total), type, dstApplication, serviceInstance(),
                              QOR_QUEUE_REQUEST) != OK ||
        !qor::putBytes(msg, QOR_CHASSIS_OFF_BODY, record, recordLen))
        return -1;
    return qorIpcSend(queue, msg.data(), uint32_t(total), 0) == 0 ? 0 : -1;
}

int32_t statusOf(qor::ByteView answer) { return int32_t(qor::u32At(answer, QOR_IPC_OFF_STATUS)); }

}  // namespace

// ---- configuration store --------------------------------------------------------

int qorCfgInsert(int taskKey, const uint8_t* record552) {
    return sendRecord(taskKey, QOR_MT_CFG_INSERT, QOR_APP_CFGSTORE, record552, QOR_CFG_RECORD_LEN);
}

int qorCfgRemoveExact(int taskKey, const uint8_t* record552) {
    return sendRecord(taskKey, QOR_MT_CFG_REMOVE_EXACT, QOR_APP_CFGSTORE, record552,
                      QOR_CFG_RECORD_LEN);
}

int qorCfgRemoveNode(int taskKey, const uint8_t* record552) {
    return sendRecord(taskKey, QOR_MT_CFG_REMOVE_NODE, QOR_APP_CFGSTORE, record552,
                      QOR_CFG_RECORD_LEN);
}

int qorCfgSync(int taskKey, const uint8_t* sync812) {
    return sendRecord(taskKey, QOR_MT_CFG_SYNC, QOR_APP_CFGSTORE, sync812, QOR_CFG_SYNC_LEN);
}

int qorPortCfgNotif(int taskKey, const uint8_t* notice132) {
    if (notice132 == nullptr) return -1;
    const int queue = Key_getReqQueue(taskKey);
    if (queue < 0) return -1;
    constexpr size_t kLen = QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN;
    std::array<uint8_t, kLen> msg{};
    if (qorIpcSetSourceHeader(msg, kLen, QOR_MT_IFM_PORT_NOTICE, QOR_APP_IFM, serviceInstance(),
                              QOR_QUEUE_REQUEST) != OK)
        return -1;
    qor::putBytes(msg, QOR_CHASSIS_OFF_BODY, notice132, QOR_PORT_NOTICE_LEN);
    if (qorIpcSendWait(queue, msg.data(), kLen, kDefaultWait, QOR_MT_IFM_PORT_NOTICE, 0) != 0)
        return -1;
    return statusOf(msg);
}

// ---- ACL manager ------------------------------------------------------------------

int iAclEnableSysFlowProtocolEntries(uint32_t protocol, int arg2, int arg3, int instance,
                                     int taskKey, int arg6, int enable, int aclSwpQueue) {
    // The block travels on the ACL queue and comes back with its
    // acknowledgement, so it is the queue's own allocation.
    auto* block = static_cast<uint8_t*>(qorSwpAllocBlock(aclSwpQueue, kAclMsgLen));
    if (block == nullptr) return -1;
    const qor::MutByteView msg(block, kAclMsgLen);
    std::memset(block, 0, kAclMsgLen);
    qorIpcSetSourceHeader(msg, kAclMsgLen, QOR_MT_ACL_SYS_FLOW, QOR_APP_ACL, serviceInstance(),
                          QOR_QUEUE_REQUEST);
    const uint32_t words[] = {protocol,         uint32_t(arg2),    uint32_t(arg3),
                              uint32_t(instance), uint32_t(taskKey), uint32_t(arg6),
                              uint32_t(enable)};
    for (size_t i = 0; i < std::size(words); ++i)
        qor::putU32(msg, QOR_CHASSIS_OFF_BODY + 4 * i, words[i]);
    if (qorSwpEnqueue(aclSwpQueue, block, kAclMsgLen) != 0) {
        qorSwpFreeBlock(aclSwpQueue, block);
        return -1;
    }
    return 0;
}

// ---- RTM ----------------------------------------------------------------------------

int qorRtmRegisterAddrFamily_vrf(int owner, int vrf, int instance, const char* name,
                                 uint32_t* outHandle, const uint32_t* clientInfo, int af,
                                 int /*arg8*/, int /*arg9*/) {
    if (outHandle == nullptr || clientInfo == nullptr) return -1;
    std::array<uint8_t, kRtmRegLen> msg{};
    if (qorIpcSetSourceHeader(msg, kRtmRegLen, QOR_MT_RTM_REGISTER, QOR_APP_RTM, serviceInstance(),
                              QOR_QUEUE_REQUEST) != OK)
        return -1;
    qor::putU32(msg, kRtmRegOffOwner, uint32_t(owner));
    qor::putU32(msg, kRtmRegOffVrf, uint32_t(vrf));
    qor::putU32(msg, kRtmRegOffInstance, uint32_t(instance));
    qor::putU32(msg, kRtmRegOffAf, uint32_t(af));
    if (name != nullptr)  // keeps a terminating zero in the field
        qor::putBytes(msg, kRtmRegOffName, name, strnlen(name, kRtmRegNameLen - 1));
    const int queue = int(clientInfo[1]);
    if (qorIpcSendWait(queue, msg.data(), kRtmRegLen, kDefaultWait, QOR_MT_RTM_REGISTER, 0) != 0)
        return -1;
    if (const int32_t status = statusOf(msg); status != 0) return status;
    *outHandle = qor::u32At(msg, kRtmRegOffHandle);
    return 0;
}

namespace {

// A record the RTM can take: a known kind of route, a prefix of at most 128
// bits, and a next-hop count that fits the record.
bool rtmRouteRecordValid(qor::ByteView route) {
    uint8_t prefixLen = 0;
    uint16_t nhops = 0;
    return qor::getU8(route, QOR_RTM_ROUTE_OFF_PREFIX_LEN, prefixLen) &&
           prefixLen <= QOR_RTM_MAX_PREFIX_LEN &&
           qor::getU16(route, QOR_RTM_ROUTE_OFF_NHOP_COUNT, nhops) && nhops >= 1 &&
           nhops <= QOR_RTM_ROUTE_MAX_NHOPS;
}

// Builds a message of `length` bytes in a block of the client's RTM SWP
// queue and queues it; `fill` writes the body. 0 queued, -1 otherwise.
template <typename Fill>
int rtmEnqueue(int swpQueue, uint32_t type, size_t length, Fill fill) {
    auto* block = static_cast<uint8_t*>(qorSwpAllocBlock(swpQueue, uint32_t(length)));
    if (block == nullptr) return -1;
    std::memset(block, 0, length);
    const qor::MutByteView msg(block, length);
    if (qorIpcSetSourceHeader(msg, uint32_t(length), type, QOR_APP_RTM, serviceInstance(),
                              QOR_QUEUE_REQUEST) != OK ||
        !fill(msg) || qorSwpEnqueue(swpQueue, block, uint32_t(length)) != 0) {
        qorSwpFreeBlock(swpQueue, block);
        return -1;
    }
    return 0;
}

}  // namespace

int qorRtmUpdateRoute(uint32_t handle, int operation, const uint8_t* routes, int /*reserved*/,
                      const uint32_t* /*clientInfo*/, int swpQueue, int count, int af) {
    if (routes == nullptr || (operation != QOR_RTM_OP_ADD && operation != QOR_RTM_OP_DELETE) ||
        count < 1 || uint32_t(count) > QOR_RTM_UPDATE_MAX_ROUTES)
        return -1;
    const qor::ByteView records(routes, QOR_RTM_ROUTE_LEN * size_t(count));
    for (int i = 0; i < count; ++i)
        if (!rtmRouteRecordValid(records.subspan(QOR_RTM_ROUTE_LEN * size_t(i), QOR_RTM_ROUTE_LEN)))
            return -1;
    const size_t length = QOR_RTM_UPD_OFF_ROUTES + records.size();
    return rtmEnqueue(swpQueue, QOR_MT_RTM_ROUTE_UPDATE, length, [&](qor::MutByteView msg) {
        return qor::putU32(msg, QOR_RTM_UPD_OFF_OPERATION, uint32_t(operation)) &&
               qor::putU32(msg, QOR_RTM_UPD_OFF_HANDLE, handle) &&
               qor::putU32(msg, QOR_RTM_UPD_OFF_COUNT, uint32_t(count)) &&
               qor::putU32(msg, QOR_RTM_UPD_OFF_AF, uint32_t(af)) &&
               qor::putBytes(msg, QOR_RTM_UPD_OFF_ROUTES, records.data(), records.size());
    });
}

int qorRtmClearIpRouteSwpAckAF(uint32_t handle, const uint32_t* /*clientInfo*/, int swpQueue,
                               const uint8_t* clearMsg, int af) {
    if (clearMsg == nullptr) return -1;
    const qor::ByteView clear(clearMsg, QOR_RTM_CLR_MIN_LEN);
    return rtmEnqueue(swpQueue, QOR_MT_RTM_CLEAR_ACK, QOR_RTM_CLEAR_ACK_LEN,
                      [&](qor::MutByteView msg) {
                          return qor::putU32(msg, QOR_RTM_CLACK_OFF_HANDLE, handle) &&
                                 qor::putU32(msg, QOR_RTM_CLACK_OFF_AF, uint32_t(af)) &&
                                 qor::putU32(msg, QOR_RTM_CLACK_OFF_ALL,
                                             qor::u32At(clear, QOR_RTM_CLR_OFF_ALL)) &&
                                 qor::putU32(msg, QOR_RTM_CLACK_OFF_SEQ,
                                             qor::u32At(clear, QOR_SWP_OFF_SEQ)) &&
                                 qor::putBytes(msg, QOR_RTM_CLACK_OFF_PREFIX_LEN,
                                               clearMsg + QOR_RTM_CLR_OFF_PREFIX_LEN, 1) &&
                                 qor::putBytes(msg, QOR_RTM_CLACK_OFF_PREFIX,
                                               clearMsg + QOR_RTM_CLR_OFF_PREFIX, 16);
                      });
}

// ---- MRTM ---------------------------------------------------------------------------

int mrtmapiBuildIpcHdr(uint8_t* message, uint32_t type, uint32_t length, const uint32_t* templ) {
    if (message == nullptr || templ == nullptr || length < QOR_IPC_HDR_LEN) return -1;
    // The template names the client: service, request queue, instance.
    const uint32_t src = qor_getQueueId(int(templ[0]), int(templ[2]), QOR_QUEUE_REQUEST);
    const uint32_t dst = qor_getQueueId(QOR_APP_MRTM, serviceInstance(), QOR_QUEUE_REQUEST);
    return qorIpcBuildHeader(qor::MutByteView(message, length), length, type, qor_sysGetIpAddr(),
                             src, qor_sysGetIpAddr(), dst)
               ? 0
               : -1;
}

int mrtmapiIpcSendAndRecv(int queue, uint8_t* message, uint32_t length) {
    if (message == nullptr || length < QOR_IPC_HDR_LEN) return -1;
    const uint32_t type = qor::u32At(qor::ByteView(message, length), QOR_IPC_OFF_TYPE);
    return qorIpcSendWait(queue, message, length, kDefaultWait, type, 0) == 0 ? 0 : -1;
}

// ---- redundancy ---------------------------------------------------------------------

int qorHaIsPrimaryRpm() { return primaryRpm.load() ? 1 : 0; }

void qorHaSetPrimary(bool primary) { primaryRpm.store(primary); }

int qorHaGetChassisMacAddr(uint8_t mac[6]) {
    if (mac == nullptr) return -1;
    std::optional<QorMacAddr> chassis = qorHostMapGet()->system.chassisMac;
    if (!chassis) chassis = qorHostFirstPortMac();
    if (!chassis) return -1;
    std::memcpy(mac, chassis->data(), chassis->size());
    return 0;
}
