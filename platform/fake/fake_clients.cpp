// fake_clients.cpp -- recording stand-ins for the chassis services' client
// libraries: configuration store (with a model of the running configuration
// the records build), port notices, ACL entries, RTM registration, route
// updates and clear acknowledgements, MRTM registration, and the route
// processor's role.
#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "fake.h"
#include "fake_state.h"
#include "qor/acl.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ha.h"
#include "qor/ipc.h"
#include "qor/mrtm.h"
#include "qor/rtm.h"

namespace {

constexpr uint32_t kFakeRtmHandle = 1;
constexpr uint32_t kFakeMrtmClientId = 1;

// The running configuration: (identifier, key bytes) -> line.
struct CfgModel {
    std::mutex mu;
    std::map<std::vector<uint8_t>, std::string> lines;
};

CfgModel& cfgModel() {
    static CfgModel m;
    return m;
}

std::atomic<bool> primaryRpm{true};

// The identifier (4 bytes) and the key bytes of a record, its line text.
std::vector<uint8_t> cfgKey(qor::ByteView record) {
    const size_t keyLen = std::min<size_t>(qor::u32At(record, QOR_CFG_OFF_KEYLEN), QOR_CFG_KEY_MAX);
    std::vector<uint8_t> key(4 + keyLen);
    qor::getBytes(record, QOR_CFG_OFF_ID, key.data(), 4);
    qor::getBytes(record, QOR_CFG_OFF_KEY, key.data() + 4, keyLen);
    return key;
}

std::string cfgLine(qor::ByteView record) {
    const auto* text = reinterpret_cast<const char*>(record.data() + QOR_CFG_OFF_LINE);
    return std::string(text, strnlen(text, QOR_CFG_LINE_MAX));
}

// Records a configuration call; returns its result and the record's bytes.
int recordCfg(const char* name, int taskKey, const uint8_t* record, size_t len,
              std::vector<uint8_t>& outBytes) {
    outBytes = qorfake::copyBytes(record, len);
    return int(qorfake::record(name, {taskKey}, outBytes, record ? 0 : -1));
}

}  // namespace

namespace qorfake {

std::vector<std::string> cfgLines() {
    std::lock_guard lock(cfgModel().mu);
    std::vector<std::string> out;
    for (const auto& [key, line] : cfgModel().lines) out.push_back(line);
    return out;
}

void resetClientState() {
    {
        std::lock_guard lock(cfgModel().mu);
        cfgModel().lines.clear();
    }
    primaryRpm = true;
}

}  // namespace qorfake

// ---- configuration store --------------------------------------------------------

int qorCfgInsert(int taskKey, const uint8_t* record552) {
    std::vector<uint8_t> bytes;
    const int rc = recordCfg("qorCfgInsert", taskKey, record552, QOR_CFG_RECORD_LEN, bytes);
    if (rc == 0 && !bytes.empty()) {
        std::lock_guard lock(cfgModel().mu);
        cfgModel().lines[cfgKey(bytes)] = cfgLine(bytes);
    }
    return rc;
}

int qorCfgRemoveExact(int taskKey, const uint8_t* record552) {
    std::vector<uint8_t> bytes;
    const int rc = recordCfg("qorCfgRemoveExact", taskKey, record552, QOR_CFG_RECORD_LEN, bytes);
    if (rc == 0 && !bytes.empty()) {
        std::lock_guard lock(cfgModel().mu);
        cfgModel().lines.erase(cfgKey(bytes));
    }
    return rc;
}

int qorCfgRemoveNode(int taskKey, const uint8_t* record552) {
    std::vector<uint8_t> bytes;
    const int rc = recordCfg("qorCfgRemoveNode", taskKey, record552, QOR_CFG_RECORD_LEN, bytes);
    if (rc == 0 && !bytes.empty()) {
        const auto prefix = cfgKey(bytes);
        std::lock_guard lock(cfgModel().mu);
        std::erase_if(cfgModel().lines, [&](const auto& entry) {
            return entry.first.size() >= prefix.size() &&
                   std::equal(prefix.begin(), prefix.end(), entry.first.begin());
        });
    }
    return rc;
}

int qorCfgSync(int taskKey, const uint8_t* sync812) {
    std::vector<uint8_t> bytes;
    return recordCfg("qorCfgSync", taskKey, sync812, QOR_CFG_SYNC_LEN, bytes);
}

int qorPortCfgNotif(int taskKey, const uint8_t* notice132) {
    std::vector<uint8_t> bytes;
    return recordCfg("qorPortCfgNotif", taskKey, notice132, QOR_PORT_NOTICE_LEN, bytes);
}

// ---- ACL, RTM, MRTM -------------------------------------------------------------------

int iAclEnableSysFlowProtocolEntries(uint32_t protocol, int arg2, int arg3, int instance,
                                     int taskKey, int arg6, int enable, int aclSwpQueue) {
    return int(qorfake::record("iAclEnableSysFlowProtocolEntries",
                               {protocol, arg2, arg3, instance, taskKey, arg6, enable, aclSwpQueue},
                               {}, 0));
}

int qorRtmRegisterAddrFamily_vrf(int owner, int vrf, int instance, const char* name,
                                 uint32_t* outHandle, const uint32_t* clientInfo, int af, int arg8,
                                 int arg9) {
    const std::string n = name ? std::string(name, strnlen(name, 64)) : "";
    std::vector<int64_t> ints{owner, vrf, instance, af, arg8, arg9};
    if (clientInfo)
        for (int i = 0; i < 3; ++i) ints.push_back(clientInfo[i]);
    const int rc = int(qorfake::record("qorRtmRegisterAddrFamily_vrf", std::move(ints),
                                       std::vector<uint8_t>(n.begin(), n.end()), 0));
    if (rc == 0 && outHandle) *outHandle = kFakeRtmHandle;
    return rc;
}

// Route updates are recorded, not queued: ints {handle, operation, reserved,
// swpQueue, count, af, clientInfo[0..2]}, bytes the `count` route records.
int qorRtmUpdateRoute(uint32_t handle, int operation, const uint8_t* routes, int reserved,
                      const uint32_t* clientInfo, int swpQueue, int count, int af) {
    std::vector<int64_t> ints{handle, operation, reserved, swpQueue, count, af};
    if (clientInfo)
        for (int i = 0; i < 3; ++i) ints.push_back(clientInfo[i]);
    const size_t n = count > 0 && uint32_t(count) <= QOR_RTM_UPDATE_MAX_ROUTES ? size_t(count) : 0;
    return int(qorfake::record("qorRtmUpdateRoute", std::move(ints),
                               qorfake::copyBytes(routes, QOR_RTM_ROUTE_LEN * n), 0));
}

// ints {handle, swpQueue, af, clientInfo[0..2]}, bytes the acknowledged
// clear message's first QOR_RTM_CLR_MIN_LEN bytes.
int qorRtmClearIpRouteSwpAckAF(uint32_t handle, const uint32_t* clientInfo, int swpQueue,
                               const uint8_t* clearMsg, int af) {
    std::vector<int64_t> ints{handle, swpQueue, af};
    if (clientInfo)
        for (int i = 0; i < 3; ++i) ints.push_back(clientInfo[i]);
    return int(qorfake::record("qorRtmClearIpRouteSwpAckAF", std::move(ints),
                               qorfake::copyBytes(clearMsg, QOR_RTM_CLR_MIN_LEN), 0));
}

int mrtmapiBuildIpcHdr(uint8_t* message, uint32_t type, uint32_t length, const uint32_t* templ) {
    if (message == nullptr || templ == nullptr || length < QOR_IPC_HDR_LEN) return -1;
    const uint32_t src = qor_getQueueId(int(templ[0]), int(templ[2]), QOR_QUEUE_REQUEST);
    const uint32_t dst = qor_getQueueId(QOR_APP_MRTM, 0, QOR_QUEUE_REQUEST);
    return qorIpcBuildHeader(qor::MutByteView(message, length), length, type, qor_sysGetIpAddr(),
                             src, qor_sysGetIpAddr(), dst)
               ? 0
               : -1;
}

int mrtmapiIpcSendAndRecv(int queue, uint8_t* message, uint32_t length) {
    const int rc = int(qorfake::record("mrtmapiIpcSendAndRecv", {queue, length},
                                       qorfake::copyBytes(message, length), 0));
    if (rc != 0 || message == nullptr) return rc;
    std::vector<uint8_t> answer;
    const qor::MutByteView m(message, length);
    if (qorfake::takeAnswer("mrtmapiIpcSendAndRecv", answer)) {
        std::memcpy(message, answer.data(), std::min<size_t>(answer.size(), length));
    } else {
        // A healthy MRTM registers every client.
        qor::putU32(m, MRTM_REG_OFF_STATUS, 0);
        qor::putU32(m, MRTM_REG_OFF_CLIENT_ID, kFakeMrtmClientId);
    }
    return 0;
}

// ---- redundancy ---------------------------------------------------------------------

int qorHaIsPrimaryRpm() { return primaryRpm.load() ? 1 : 0; }

void qorHaSetPrimary(bool primary) { primaryRpm.store(primary); }
