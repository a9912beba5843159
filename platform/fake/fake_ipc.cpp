// fake_ipc.cpp -- recording stand-ins for the IPC queues: nothing leaves the
// process; each send is recorded with the message bytes.
#include <cstdint>
#include <vector>

#include "fake.h"
#include "qor/ipc.h"
#include "qor/task.h"

namespace {
constexpr int kFakeQueueBase = 0x10000;
}

int Key_getReqQueue(int key) {
    if (key >= kFakeQueueBase) return key;
    if (qorTaskGetServiceByKey(key) < 0) return -1;
    return int(qorfake::record("Key_getReqQueue", {key}, {}, kFakeQueueBase + key));
}

int Key_getSocketFd(int queue) {
    return int(qorfake::record("Key_getSocketFd", {queue}, {}, -1));
}

int qorIpcSend(int queue, const void* msg, uint32_t length, int flags) {
    const auto* p = static_cast<const uint8_t*>(msg);
    std::vector<uint8_t> bytes;
    if (p && length <= QOR_IPC_MAX_MSG) bytes.assign(p, p + length);
    return int(qorfake::record("qorIpcSend", {queue, length, flags}, std::move(bytes), 0));
}

int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr) {
    const int rc = int(qorfake::record("qor_tmeGetPeerIpAddrByName", {application, instance}, {}, 0));
    if (rc == 0 && outAddr) *outAddr = qor_sysGetIpAddr();
    return rc;
}
