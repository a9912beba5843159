// fake.cpp -- the platform's outward services, recorded instead of used:
// nothing leaves the process (see fake.h).
#include "fake.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "qor/acl.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ha.h"
#include "qor/ipc.h"
#include "qor/mrtm.h"
#include "qor/pipe.h"
#include "qor/rtm.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Ints = std::vector<int64_t>;
constexpr int kQueueBase = 0x10000;  // a request queue the fake hands out: this plus the task key

struct SwpQueue {
    SWP_MALLOC alloc;
    SWP_FREE free;
    uint32_t nextSeq;
    std::vector<qorfake::SwpBlock> kept;  // until acknowledged
};

struct State {
    std::recursive_mutex mu;
    std::vector<qorfake::Call> calls;
    std::map<std::string, std::deque<int64_t>> next;
    std::map<std::string, int64_t> fixed;
    std::map<std::string, std::deque<Bytes>> answers;
    std::deque<Bytes> incoming;
    std::map<int, SwpQueue> swp;
    int nextSwp = 0x40001;
    std::map<Bytes, std::string> cfg;  // (identifier, key bytes) -> line
    bool primary = true;
    std::vector<qorfake::Sent> sent;
    std::map<uint32_t, nbsdIntfInfo> intf;
    std::set<std::pair<int, std::array<uint8_t, 16>>> local;
    std::optional<std::array<uint8_t, 6>> mac;
    std::map<int, int> l2Pairs;  // AF_QORL2 descriptors the fake made -> the other end
};

State& st() {
    static State s;
    return s;
}

// One-line accessors write `lock(), ...`: the temporary holds it to the end of the expression.
std::unique_lock<std::recursive_mutex> lock() { return std::unique_lock(st().mu); }

// Records a call; its result is the one the test chose, else `normal`.
int64_t call(const std::string& name, Ints ints, Bytes bytes = {}, int64_t normal = 0) {
    auto g = lock();
    st().calls.push_back({name, std::move(ints), std::move(bytes)});
    auto& next = st().next[name];
    const auto fixed = st().fixed.find(name);
    const int64_t rc = !next.empty() ? next.front() : fixed != st().fixed.end() ? fixed->second : normal;
    if (!next.empty()) next.pop_front();
    return rc;
}
// The caller's buffer (none when null or longer than any message).
Bytes copyBytes(const void* p, size_t length) {
    const auto* b = static_cast<const uint8_t*>(p);
    return b == nullptr || length > QOR_IPC_MAX_MSG ? Bytes{} : Bytes(b, b + length);
}

// The answer chosen for `name`, if any, copied over the caller's buffer.
std::optional<Bytes> takeAnswer(const std::string& name, void* msg = nullptr, size_t length = 0) {
    auto g = lock();
    auto& q = st().answers[name];
    if (q.empty()) return std::nullopt;
    Bytes a = std::move(q.front());
    q.pop_front();
    if (msg) std::memcpy(msg, a.data(), std::min(a.size(), length));
    return a;
}
Ints withClientInfo(Ints ints, const uint32_t* info) {
    for (int i = 0; info != nullptr && i < 3; ++i) ints.push_back(info[i]);
    return ints;
}

// A configuration-store record; a successful insert or removal edits the running configuration.
enum CfgEdit { kNoEdit, kInsert, kRemove };
int cfgCall(const char* name, int taskKey, const uint8_t* rec, size_t len, CfgEdit edit = kNoEdit) {
    const Bytes b = copyBytes(rec, len);
    const int rc = call(name, {taskKey}, b, rec ? 0 : -1);
    if (rc != 0 || b.empty() || edit == kNoEdit) return rc;
    Bytes key(4 + std::min<size_t>(qor::u32At(b, QOR_CFG_OFF_KEYLEN), QOR_CFG_KEY_MAX));
    qor::getBytes(b, QOR_CFG_OFF_ID, key.data(), 4);
    qor::getBytes(b, QOR_CFG_OFF_KEY, key.data() + 4, key.size() - 4);
    const auto* text = reinterpret_cast<const char*>(b.data() + QOR_CFG_OFF_LINE);
    if (edit == kInsert) lock(), st().cfg[key] = std::string(text, strnlen(text, QOR_CFG_LINE_MAX));
    if (edit == kRemove) lock(), st().cfg.erase(key);
    return rc;
}

SwpQueue* swpQueue(int queue) {  // the caller holds the lock
    auto it = st().swp.find(queue);
    return it == st().swp.end() ? nullptr : &it->second;
}

int makeSwpQueue(int rc, SWP_MALLOC alloc, SWP_FREE freeCb, int* outHandle) {
    if (rc != 0 || outHandle == nullptr) return rc;
    auto g = lock();
    *outHandle = st().nextSwp++;
    st().swp[*outHandle] = SwpQueue{alloc, freeCb, 1, {}};
    return 0;
}

// Frees a queue's kept blocks, outside the lock (the owner's callback may take
// its own); `remove` also forgets the queue.
int dropSwpBlocks(const char* name, int queue, bool remove) {
    auto g = lock();
    SwpQueue* q = swpQueue(queue);
    const int rc = call(name, {queue}, {}, q ? 0 : -1);
    if (rc != 0 || q == nullptr) return rc;
    const SWP_FREE freeCb = q->free;
    const auto blocks = std::exchange(q->kept, {});
    if (remove) st().swp.erase(queue);
    g.unlock();
    for (const auto& b : blocks)
        if (freeCb) freeCb(b.block);
    return 0;
}

}  // namespace

namespace qorfake {

const std::vector<Call>& calls() { return st().calls; }

std::vector<Call> callsTo(const std::string& name) {
    auto g = lock();
    std::vector<Call> out;
    for (const auto& c : st().calls)
        if (c.name == name) out.push_back(c);
    return out;
}

void setNextResult(const std::string& name, int64_t result) { lock(), st().next[name].push_back(result); }
void setResult(const std::string& name, int64_t result) { lock(), st().fixed[name] = result; }
void setNextAnswer(const std::string& name, Bytes bytes) { lock(), st().answers[name].push_back(std::move(bytes)); }
void queueIncoming(Bytes bytes) { lock(), st().incoming.push_back(std::move(bytes)); }

void reset() {
    auto g = lock();
    State& s = st();
    s.calls.clear(), s.next.clear(), s.fixed.clear(), s.answers.clear(), s.incoming.clear(), s.swp.clear();
    s.cfg.clear(), s.sent.clear(), s.intf.clear(), s.local.clear(), s.mac.reset(), s.primary = true;
}

std::vector<SwpBlock> swpPending(int queue) {
    auto g = lock();
    return swpQueue(queue) ? swpQueue(queue)->kept : std::vector<SwpBlock>{};
}

std::vector<uint8_t> swpAck(int queue, uint32_t seq) {
    Bytes ack(64, 0);
    qorIpcBuildHeader(ack, uint32_t(ack.size()), MT_SWP_ACK, qor_sysGetIpAddr(), 0, qor_sysGetIpAddr(),
                      qor_getQueueId(qorPlatformApplication(), qorPlatformInstance(), QOR_QUEUE_REQUEST));
    qor::putU32(ack, QOR_SWP_OFF_SEQ, seq);
    qor::putU32(ack, QOR_SWP_OFF_QUEUE, uint32_t(queue));
    return ack;
}

std::vector<std::string> cfgLines() {
    auto g = lock();
    std::vector<std::string> out;
    for (const auto& [key, line] : st().cfg) out.push_back(line);
    return out;
}

std::vector<Sent> sent() { return lock(), st().sent; }
void setIntfInfo(uint32_t ifIndex, const nbsdIntfInfo& info) { lock(), st().intf[ifIndex] = info; }

void addLocalAddress(int vrfId, const uint8_t addr[16]) {
    std::array<uint8_t, 16> a{};
    std::memcpy(a.data(), addr, a.size());
    lock(), st().local.insert({vrfId, a});
}

void setChassisMac(const uint8_t* mac) {
    auto g = lock();
    st().mac.reset();
    if (mac != nullptr) std::memcpy(st().mac.emplace().data(), mac, 6);
}

}  // namespace qorfake

// ---- IPC ------------------------------------------------------------------------------

int Key_getReqQueue(int key) {
    if (key >= kQueueBase) return key;
    return qorTaskGetServiceByKey(key) < 0 ? -1 : call("Key_getReqQueue", {key}, {}, kQueueBase + key);
}

int Key_getSocketFd(int queue) { return call("Key_getSocketFd", {queue}, {}, -1); }

int qorIpcSend(int q, const void* m, uint32_t n, int flags) { return call("qorIpcSend", {q, n, flags}, copyBytes(m, n)); }

int qorIpcRecv(int queue, void* buf, uint32_t bufLen, int flags, int /*a5*/, int /*a6*/) {
    auto g = lock();
    auto& in = st().incoming;
    if (buf == nullptr || in.empty()) return call("qorIpcRecv", {queue, bufLen, flags}, {}, -1);
    const size_t n = std::min<size_t>(in.front().size(), bufLen);
    std::memcpy(buf, in.front().data(), n);
    in.pop_front();
    return call("qorIpcRecv", {queue, bufLen, flags}, {}, int64_t(n));
}

int qorIpcReply(int q, const void* msg, uint32_t len) { return call("qorIpcReply", {q, len}, copyBytes(msg, len)); }

int qorIpcSendWait(int queue, void* msg, uint32_t length, int waitTicks, uint32_t type, int flags) {
    const int rc = call("qorIpcSendWait", {queue, length, waitTicks, type, flags}, copyBytes(msg, length));
    if (rc == 0 && msg) takeAnswer("qorIpcSendWait", msg, length);
    return rc;
}

int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr) {
    const int rc = call("qor_tmeGetPeerIpAddrByName", {application, instance});
    if (rc == 0 && outAddr) *outAddr = qor_sysGetIpAddr();
    return rc;
}

// ---- SWP: blocks are kept until acknowledged; nothing is sent ----------------------------

int qorSwpCreatePipe(const char* name) {
    const std::string n = name ? name : "";
    const int rc = call("qorSwpCreatePipe", {}, Bytes(n.begin(), n.end()));
    if (rc != 0 || name == nullptr) return rc != 0 ? rc : -1;
    return pipeDevCreate(name, 1024, 4) != OK && errno != EEXIST ? -1 : qorOsOpen(name, QOR_O_RDWR, 0);
}

int qorSwpQueueCreate_p(int evtLog, int maxEntries, int window, int retransmitTicks, int srcApp, int srcInstance,
                        int srcQueue, int dstApp, int dstInstance, uint32_t msgType, SWP_MALLOC allocCb, int allocArg,
                        SWP_FREE freeCb, SWP_ERR /*errCb*/, int* outHandle, int pipeFd) {
    const int rc = call("qorSwpQueueCreate_p", {evtLog, maxEntries, window, retransmitTicks, srcApp, srcInstance,
                                                srcQueue, dstApp, dstInstance, msgType, allocArg, pipeFd});
    return makeSwpQueue(rc, allocCb, freeCb, outHandle);
}

int qorSwpQueueCreateQs(int evtLog, int maxEntries, int window, int retransmitTicks, int srcApp, int srcInstance,
                        int srcQueue, int dstApp, int dstInstance, uint32_t serviceQueueId, int reserved,
                        uint32_t msgType, SWP_MALLOC allocCb, int allocArg, SWP_FREE freeCb, SWP_ERR /*errCb*/,
                        int* outHandle, int pipeFd) {
    const int rc = call("qorSwpQueueCreateQs", {evtLog, maxEntries, window, retransmitTicks, srcApp, srcInstance,
                                                srcQueue, dstApp, dstInstance, serviceQueueId, reserved, msgType,
                                                allocArg, pipeFd});
    return makeSwpQueue(rc, allocCb, freeCb, outHandle);
}

void* qorSwpAllocBlock(int queue, uint32_t size) {
    auto g = lock();
    const SWP_MALLOC alloc = swpQueue(queue) ? swpQueue(queue)->alloc : nullptr;
    g.unlock();  // the owner's allocator may take its own lock
    return alloc ? alloc(size) : nullptr;
}

int qorSwpEnqueue(int queue, void* block, uint32_t length) {
    auto g = lock();
    Bytes bytes = copyBytes(block, length);
    SwpQueue* q = block ? swpQueue(queue) : nullptr;
    const int rc = call("qorSwpEnqueue", {queue, length}, bytes, q ? 0 : -1);
    if (rc != 0 || q == nullptr) return rc != 0 ? rc : -1;
    q->kept.push_back({q->nextSeq++, std::move(bytes), block});
    return 0;
}

int qorSwpDequeue(const void* ackMessage, uint32_t length, void** outBlock) {
    auto g = lock();
    const Bytes bytes = copyBytes(ackMessage, length);
    const uint32_t seq = qor::u32At(bytes, QOR_SWP_OFF_SEQ), queue = qor::u32At(bytes, QOR_SWP_OFF_QUEUE);
    SwpQueue* q = qor::u32At(bytes, QOR_IPC_OFF_TYPE) == MT_SWP_ACK ? swpQueue(int(queue)) : nullptr;
    auto it = q ? std::find_if(q->kept.begin(), q->kept.end(), [&](const auto& b) { return b.seq == seq; })
                : std::vector<qorfake::SwpBlock>::iterator{};
    const bool known = q && it != q->kept.end();
    const int rc = call("qorSwpDequeue", {seq, queue}, bytes, known ? 0 : -1);
    if (rc != 0 || !known || outBlock == nullptr) return rc != 0 ? rc : -1;
    *outBlock = it->block;
    q->kept.erase(it);
    return 0;
}

int qorSwpCkSeqAndAck(const void* msg, uint32_t len, QOR_SWP_SEQ* /*seq*/, int reqQueue) {
    return call("qorSwpCkSeqAndAck", {reqQueue, len}, copyBytes(msg, len), QOR_SWP_IN_ORDER);
}

int qorSwpReadPipe(int pipeFd) {
    // Empties the pipe so that the owner's select does not spin on it.
    uint32_t words[64];
    for (pollfd p{pipeFd, POLLIN, 0}; pipeFd >= 0 && poll(&p, 1, 0) == 1 && (p.revents & POLLIN);)
        if (read(pipeFd, words, sizeof words) <= 0) break;
    return call("qorSwpReadPipe", {pipeFd});
}

int qorSwpQueueRemove(int queue) { return dropSwpBlocks("qorSwpQueueRemove", queue, true); }
int qorSwpQueueFlush(int queue) { return dropSwpBlocks("qorSwpQueueFlush", queue, false); }

int qorSwpQueueDepth(int queue) {
    auto g = lock();
    return swpQueue(queue) ? int(swpQueue(queue)->kept.size()) : -1;
}

// ---- the chassis services' client libraries -----------------------------------------------

int qorCfgInsert(int key, const uint8_t* r) { return cfgCall("qorCfgInsert", key, r, QOR_CFG_RECORD_LEN, kInsert); }
int qorCfgRemoveExact(int k, const uint8_t* r) { return cfgCall("qorCfgRemoveExact", k, r, QOR_CFG_RECORD_LEN, kRemove); }
int qorCfgSync(int key, const uint8_t* s) { return cfgCall("qorCfgSync", key, s, QOR_CFG_SYNC_LEN); }
int qorPortCfgNotif(int key, const uint8_t* n) { return cfgCall("qorPortCfgNotif", key, n, QOR_PORT_NOTICE_LEN); }

int iAclEnableSysFlowProtocolEntries(uint32_t protocol, int arg2, int arg3, int instance, int taskKey, int arg6,
                                     int enable, int swpQueue) {
    return call("iAclEnableSysFlowProtocolEntries", {protocol, arg2, arg3, instance, taskKey, arg6, enable, swpQueue});
}

// ints {owner, vrf, instance, af, arg8, arg9, clientInfo[0..2]}, bytes the name; the handle is 1.
int qorRtmRegisterAddrFamily_vrf(int owner, int vrf, int instance, const char* name, uint32_t* outHandle,
                                 const uint32_t* clientInfo, int af, int arg8, int arg9) {
    const std::string n = name ? std::string(name, strnlen(name, 64)) : "";
    const Ints ints = withClientInfo({owner, vrf, instance, af, arg8, arg9}, clientInfo);
    const int rc = call("qorRtmRegisterAddrFamily_vrf", ints, Bytes(n.begin(), n.end()));
    if (rc == 0 && outHandle) *outHandle = 1;
    return rc;
}

// ints {handle, operation, reserved, swpQueue, count, af, clientInfo[0..2]}, bytes the `count` route records.
int qorRtmUpdateRoute(uint32_t handle, int operation, const uint8_t* routes, int reserved,
                      const uint32_t* clientInfo, int swpQueue, int count, int af) {
    const size_t n = count > 0 && uint32_t(count) <= QOR_RTM_UPDATE_MAX_ROUTES ? size_t(count) : 0;
    return call("qorRtmUpdateRoute", withClientInfo({handle, operation, reserved, swpQueue, count, af}, clientInfo),
                copyBytes(routes, QOR_RTM_ROUTE_LEN * n));
}

// ints {handle, swpQueue, af, clientInfo[0..2]}, bytes the clear message's first QOR_RTM_CLR_MIN_LEN.
int qorRtmClearIpRouteSwpAckAF(uint32_t handle, const uint32_t* clientInfo, int swpQueue, const uint8_t* clearMsg,
                               int af) {
    return call("qorRtmClearIpRouteSwpAckAF", withClientInfo({handle, swpQueue, af}, clientInfo),
                copyBytes(clearMsg, QOR_RTM_CLR_MIN_LEN));
}

int mrtmapiBuildIpcHdr(uint8_t* message, uint32_t type, uint32_t length, const uint32_t* templ) {
    if (message == nullptr || templ == nullptr || length < QOR_IPC_HDR_LEN) return -1;
    const uint32_t src = qor_getQueueId(int(templ[0]), int(templ[2]), QOR_QUEUE_REQUEST);
    const uint32_t dst = qor_getQueueId(QOR_APP_MRTM, 0, QOR_QUEUE_REQUEST);
    const uint32_t ip = qor_sysGetIpAddr();
    return qorIpcBuildHeader(qor::MutByteView(message, length), length, type, ip, src, ip, dst) ? 0 : -1;
}

int mrtmapiIpcSendAndRecv(int queue, uint8_t* message, uint32_t length) {
    const int rc = call("mrtmapiIpcSendAndRecv", {queue, length}, copyBytes(message, length));
    if (rc != 0 || message == nullptr || takeAnswer("mrtmapiIpcSendAndRecv", message, length)) return rc;
    // A healthy MRTM registers every client.
    qor::putU32(qor::MutByteView(message, length), MRTM_REG_OFF_STATUS, 0);
    qor::putU32(qor::MutByteView(message, length), MRTM_REG_OFF_CLIENT_ID, 1);
    return 0;
}

int qorHaIsPrimaryRpm() { return lock(), st().primary ? 1 : 0; }
void qorHaSetPrimary(bool primary) { lock(), st().primary = primary; }

int qorHaGetChassisMacAddr(uint8_t mac[6]) {
    call("qorHaGetChassisMacAddr", {});
    auto g = lock();
    if (st().mac && mac != nullptr) std::memcpy(mac, st().mac->data(), 6);
    return st().mac && mac != nullptr ? 0 : -1;
}

// ---- sockets, sends and interface lookups --------------------------------------------------

// AF_QORL2 gives one end of a socket pair (valid, selectable, never readable).
int qorSocket(int family, int type, int protocol) {
    const int rc = call("qorSocket", {family, type, protocol}, {}, -2);
    if (rc != -2) return rc;
    if (family != AF_QORL2) return socket(family, type, protocol);
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    lock(), st().l2Pairs[pair[0]] = pair[1];
    return pair[0];
}

int qorBind(int fd, const void* addr, unsigned len) { return call("qorBind", {fd, len}, copyBytes(addr, len)); }

ssize_t qorRecvfrom4(int fd, void* buf, size_t len, int flags, void* /*src*/, unsigned* srcLen,
                     uint32_t* logicalIfIndex, uint32_t* physIfIndex, uint32_t* recvIfIndex) {
    constexpr size_t kIndexBytes = 12;
    auto a = takeAnswer("qorRecvfrom4");
    if (a && a->size() < kIndexBytes) a.reset();
    const size_t frameLen = a ? std::min(a->size() - kIndexBytes, len) : 0;
    const int64_t rc = call("qorRecvfrom4", {fd, int64_t(len), flags}, {}, a ? int64_t(frameLen) : -1);
    if (a && buf != nullptr) {
        std::memcpy(buf, a->data() + kIndexBytes, frameLen);
        if (logicalIfIndex) *logicalIfIndex = qor::u32At(*a, 0);
        if (physIfIndex) *physIfIndex = qor::u32At(*a, 4);
        if (recvIfIndex) *recvIfIndex = qor::u32At(*a, 8);
    }
    if (srcLen) *srcLen = 0;
    return ssize_t(rc);
}

int qorSetsockopt(int fd, int level, int option, const void* value, unsigned len) {
    return call("qorSetsockopt", {fd, level, option, len}, copyBytes(value, len));
}

int qorClose(int fd) {
    const int rc = call("qorClose", {fd});
    auto g = lock();
    if (auto it = st().l2Pairs.find(fd); it != st().l2Pairs.end()) {  // others are the test's to close
        close(it->second);
        close(fd);
        st().l2Pairs.erase(it);
    }
    return rc;
}

ssize_t qorSendto(int fd, const void* buf, size_t len, int flags, const void* dst, unsigned dstLen,
                  uint32_t egressIfIndex) {
    const auto *b = static_cast<const uint8_t*>(buf), *d = static_cast<const uint8_t*>(dst);
    Bytes bytes = b ? Bytes(b, b + len) : Bytes{};
    const int64_t rc = call("qorSendto", {fd, int64_t(len), flags, egressIfIndex}, bytes, int64_t(len));
    lock(), st().sent.push_back({fd, egressIfIndex, std::move(bytes), d ? Bytes(d, d + dstLen) : Bytes{}});
    return ssize_t(rc);
}

// Answers for "QORS<lower-case hex ifIndex>" what the test set.
int nbsdGetIntfInfoForName(const char* name, nbsdIntfInfo* info) {
    const char* hex = name && std::strncmp(name, "QORS", 4) == 0 ? name + 4 : nullptr;
    const bool named = hex && *hex && std::strspn(hex, "0123456789abcdef") == std::strlen(hex);
    const uint32_t ifIndex = named ? uint32_t(std::strtoul(hex, nullptr, 16)) : 0;
    call("nbsdGetIntfInfoForName", {named ? int64_t(ifIndex) : -1});
    auto g = lock();
    const auto it = named ? st().intf.find(ifIndex) : st().intf.end();
    if (it != st().intf.end() && info != nullptr) *info = it->second;
    return it != st().intf.end() ? 1 : 0;
}

int nbsdGetIntfInfoFromIpv6Addr(const uint8_t addr[16], int vrfId) {
    std::array<uint8_t, 16> a{};
    if (addr != nullptr) std::memcpy(a.data(), addr, a.size());
    call("nbsdGetIntfInfoFromIpv6Addr", {vrfId}, Bytes(a.begin(), a.end()));
    return lock(), st().local.count({vrfId, a}) != 0 ? 1 : 0;
}
