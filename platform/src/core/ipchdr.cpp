// ipchdr.cpp -- queue identifiers, the card address and the IPC header builder.
#include "qor/ipc.h"
#include "qor/task.h"

namespace {
// Every process of one route processor shares one card address; the platform
// has one route processor per run directory.
constexpr uint32_t kCardAddress = 0x7F000001;
}  // namespace

uint32_t qor_sysGetIpAddr() { return kCardAddress; }

uint32_t qor_getQueueId(int application, int instance, int kind) {
    return (uint32_t(application & 0xFFFF) << 16) | (uint32_t(instance & 0xFF) << 8) |
           uint32_t(kind & 0xFF);
}

bool qorIpcBuildHeader(qor::MutByteView msg, uint32_t length, uint32_t type, uint32_t srcAddr,
                       uint32_t srcQueue, uint32_t dstAddr, uint32_t dstQueue) {
    if (msg.size() < QOR_IPC_HDR_LEN) return false;
    return qor::putU32(msg, QOR_IPC_OFF_LENGTH, length) && qor::putU32(msg, QOR_IPC_OFF_TYPE, type) &&
           qor::putU32(msg, QOR_IPC_OFF_CLEAR1, 0) && qor::putU32(msg, QOR_IPC_OFF_CLEAR2, 0) &&
           qor::putU32(msg, QOR_IPC_OFF_SRC_ADDR, srcAddr) &&
           qor::putU32(msg, QOR_IPC_OFF_SRC_QUEUE, srcQueue) &&
           qor::putU32(msg, QOR_IPC_OFF_ZERO, 0) && qor::putU32(msg, QOR_IPC_OFF_DST_ADDR, dstAddr) &&
           qor::putU32(msg, QOR_IPC_OFF_DST_QUEUE, dstQueue);
}

int qorIpcSetSourceHeader(qor::MutByteView msg, uint32_t length, uint32_t type,
                          int dstApplication, int dstInstance, int dstKind) {
    const uint32_t src = qor_getQueueId(qorPlatformApplication(), qorPlatformInstance(),
                                        QOR_QUEUE_REQUEST);
    const uint32_t dst = qor_getQueueId(dstApplication, dstInstance, dstKind);
    return qorIpcBuildHeader(msg, length, type, qor_sysGetIpAddr(), src, qor_sysGetIpAddr(), dst)
               ? OK
               : ERROR;
}
