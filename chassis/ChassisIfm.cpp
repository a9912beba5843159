// ChassisIfm.cpp -- the IFM service: registrations (and the start of the
// startup-config replay once the relay manager is registered), port notices,
// interface and VRF name lookups, and the interface notifications of the
// mapped interfaces, watched on their Linux links.
#include "ChassisIfm.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "qor/cfg.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/swp.h"

namespace {

// Where a registration request names its client.
constexpr size_t kRegOffApplication = 1956;  // 16-bit
constexpr size_t kRegOffInstance = 1958;     // 16-bit
constexpr size_t kRegOffAddress = 1964;
constexpr size_t kRegOffQueue = 1968;

constexpr uint32_t kLookupInterface = 0;
constexpr uint32_t kLookupVrf = 1;
constexpr size_t kPortNoticesKept = 1024;
constexpr uint32_t kLagNumberMax = 65535;

// Interface notification (MT_IFM_NOTIF_MSG): TLV count at 128, TLVs from 140;
// a TLV is type, length of the whole TLV, then 32-bit words.
constexpr size_t kNotifOffCount = 128;
constexpr size_t kNotifOffFirstTlv = 140;
constexpr size_t kTlvHeaderLen = 4;
constexpr uint16_t kTlvDeleted = 2;
constexpr uint16_t kTlvUp = 3;
constexpr uint16_t kTlvDown = 4;
constexpr uint16_t kTlvModeChange = 11;  // ifIndex, flags (bit 0: now a switch port)
constexpr uint16_t kTlvLagAddPort = 47;
constexpr uint16_t kTlvLagDelPort = 48;

// The watcher wakes this often to see LAG membership changed by the CLI and
// to resend notifications a client has not acknowledged.
constexpr int kWatchTickMs = 100;
constexpr auto kResendAfter = std::chrono::milliseconds(300);
// A client that acknowledges nothing (gone) keeps only this many.
constexpr size_t kUnackedKept = 1024;

}  // namespace

const ChassisHandler<ChassisIfm> ChassisIfm::kHandlers[] = {
    {QOR_MT_IFM_REGISTER, QOR_IFM_REG_LEN, true, &ChassisIfm::ifmRegister},
    {QOR_MT_IFM_PORT_NOTICE, QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN, true,
     &ChassisIfm::ifmPortNotice},
    {QOR_MT_IFM_LOOKUP, QOR_IFM_LOOKUP_OFF_NAME + QOR_IFM_LOOKUP_NAME_LEN, true,
     &ChassisIfm::ifmLookup},
    {QOR_MT_IFM_PORT_CONFIG, QOR_IFM_PORT_CFG_LEN, true, &ChassisIfm::ifmPortConfig},
    {MT_SWP_ACK, QOR_IPC_HDR_LEN, false, &ChassisIfm::ifmAck},
};

ChassisIfm::ChassisIfm(int instance, bool useHostMap, std::function<void()> onRelayRegistered)
    : ChassisService("ifm", QOR_APP_IFM, instance),
      useHostMap_(useHostMap),
      onRelayRegistered_(std::move(onRelayRegistered)) {}

ChassisIfm::~ChassisIfm() {
    stop();
    watchStop();
}

void ChassisIfm::chassisStopped() { watchStop(); }

void ChassisIfm::chassisHandle(ChassisMsg& msg) {
    if (!chassisDispatch(*this, kHandlers, msg)) chassisCountDrop();
}

std::vector<std::vector<uint8_t>> ChassisIfm::chassisIfmPortNotices() const {
    std::lock_guard lock(mu_);
    return {portNotices_.begin(), portNotices_.end()};
}

std::vector<ChassisIfmClient> ChassisIfm::chassisIfmClients() const {
    std::lock_guard lock(mu_);
    std::vector<ChassisIfmClient> out;
    for (const auto& [id, client] : clients_) out.push_back(client);
    return out;
}

void ChassisIfm::ifmRegister(ChassisMsg& msg) {
    ChassisIfmClient client;
    client.application = qor::u16At(msg, kRegOffApplication);
    client.instance = qor::u16At(msg, kRegOffInstance);
    client.address = qor::u32At(msg, kRegOffAddress);
    client.queueId = qor::u32At(msg, kRegOffQueue);
    for (size_t type = 0; type < client.masks.size(); ++type)
        client.masks[type] = qor::u32At(msg, QOR_IFM_REG_OFF_MASKS + 4 * type);
    {
        std::lock_guard lock(mu_);
        clients_.insert_or_assign({client.application, client.instance}, client);
    }
    qor::putU32(msg, QOR_IFM_REG_OFF_RESULT, 0);
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    chassisReply(msg);
    // After the answer: the relay manager enters its event loop only once
    // its registration returns.
    if (client.application == QOR_APP_RELAYMGR && onRelayRegistered_) onRelayRegistered_();
    watchStart();
}

void ChassisIfm::ifmPortNotice(ChassisMsg& msg) {
    {
        std::lock_guard lock(mu_);
        portNotices_.emplace_back(msg.begin() + QOR_CHASSIS_OFF_BODY,
                                  msg.begin() + QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN);
        if (portNotices_.size() > kPortNoticesKept) portNotices_.pop_front();
    }
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    chassisReply(msg);
}

std::optional<uint32_t> ChassisIfm::ifmLookupInterface(const std::string& name) const {
    uint32_t ifIndex = 0;
    if (ifmNameToIfIndex(name.c_str(), &ifIndex) != 0 || ifIndex == 0) return std::nullopt;
    if (useHostMap_ && !qorHostMapGet()->hasInterface(ifIndex)) return std::nullopt;
    return ifIndex;
}

std::optional<uint32_t> ChassisIfm::ifmLookupVrf(const std::string& name) const {
    if (useHostMap_) return qorHostMapGet()->vrfId(name);
    if (name == "default") return 0u;
    return std::nullopt;
}

void ChassisIfm::ifmLookup(ChassisMsg& msg) {
    const uint32_t kind = qor::u32At(msg, QOR_IFM_LOOKUP_OFF_KIND);
    // The name ends at its zero or at the end of its field.
    const auto field = msg.begin() + QOR_IFM_LOOKUP_OFF_NAME;
    const auto end = std::find(field, field + QOR_IFM_LOOKUP_NAME_LEN, uint8_t{0});
    const std::string name(field, end);
    std::optional<uint32_t> found;
    if (end != field + QOR_IFM_LOOKUP_NAME_LEN) {
        if (kind == kLookupInterface) found = ifmLookupInterface(name);
        if (kind == kLookupVrf) found = ifmLookupVrf(name);
    }
    msg.resize(std::max(msg.size(), QOR_IFM_LOOKUP_OFF_RESULT + 4));
    qor::putU32(msg, QOR_IPC_OFF_STATUS, found ? 0 : uint32_t(-1));
    qor::putU32(msg, QOR_IFM_LOOKUP_OFF_RESULT, found.value_or(0));
    chassisReply(msg);
}

int32_t ChassisIfm::ifmSetPortLag(uint32_t port, uint32_t lagNumber) const {
    const auto map = qorHostMapGet();
    const QorHostIf* itf = map->find(port);
    const uint32_t type = ifmIfIndexToIfType(port);
    if (itf == nullptr || (type != IFM_IFTYPE_ETHERNET && type != IFM_IFTYPE_PE_ETHERNET))
        return QOR_IFM_PORT_CFG_ERR_PORT;
    if (lagNumber > kLagNumberMax) return QOR_IFM_PORT_CFG_ERR_REQUEST;
    if (lagNumber == 0) {
        const uint32_t lag = map->lagOf(port);
        if (lag == 0) return 0;
        std::vector<uint32_t> members = map->find(lag)->members;
        members.erase(std::remove(members.begin(), members.end(), port), members.end());
        return qorHostMapSetLagMembers(lag, members) == 0 ? 0 : QOR_IFM_PORT_CFG_ERR_LAG;
    }
    uint32_t lag = 0;
    const std::string name = "port-channel " + std::to_string(lagNumber);
    if (ifmNameToIfIndex(name.c_str(), &lag) != 0 || map->find(lag) == nullptr) return QOR_IFM_PORT_CFG_ERR_LAG;
    std::vector<uint32_t> members = map->find(lag)->members;
    if (std::find(members.begin(), members.end(), port) == members.end()) members.push_back(port);
    return qorHostMapSetLagMembers(lag, members) == 0 ? 0 : QOR_IFM_PORT_CFG_ERR_LAG;
}

void ChassisIfm::ifmPortConfig(ChassisMsg& msg) {
    const uint32_t port = qor::u32At(msg, QOR_IFM_PORT_CFG_OFF_IFINDEX);
    const uint32_t what = qor::u32At(msg, QOR_IFM_PORT_CFG_OFF_WHAT);
    const uint32_t value = qor::u32At(msg, QOR_IFM_PORT_CFG_OFF_VALUE);
    int32_t status = QOR_IFM_PORT_CFG_ERR_REQUEST;
    if (!useHostMap_) {
        status = QOR_IFM_PORT_CFG_ERR_PORT;
    } else if (what == QOR_IFM_PORT_CFG_MODE && value <= 1) {
        // The host map refuses what cannot be a switch port.
        status = qorHostMapSetSwitchPort(port, value == 1) == 0 ? 0 : QOR_IFM_PORT_CFG_ERR_PORT;
    } else if (what == QOR_IFM_PORT_CFG_LAG) {
        status = ifmSetPortLag(port, value);
    }
    // The watcher tells the clients on its next look at the map.
    qor::putU32(msg, QOR_IPC_OFF_STATUS, uint32_t(status));
    chassisReply(msg);
}

// ---- interface notifications --------------------------------------------------------

void ChassisIfm::watchStart() {
    if (watcher_.joinable() || !useHostMap_) return;
    // Without the kernel's link notifications (no netlink) the clients get
    // no interface notifications; everything else works.
    if (linkWatch_.open() != 0 || chassisLinkSnapshot(links_) != 0) return;
    watchStopFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!watchStopFd_.valid()) return;
    watchUpdate(false);
    watcher_ = std::thread([this] { watchRun(); });
}

void ChassisIfm::watchStop() {
    if (!watcher_.joinable()) return;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = write(watchStopFd_.get(), &one, sizeof one);
    watcher_.join();
}

void ChassisIfm::watchRun() {
    std::array<pollfd, 2> fds{pollfd{linkWatch_.fd(), POLLIN, 0}, pollfd{watchStopFd_.get(), POLLIN, 0}};
    for (;;) {
        if (poll(fds.data(), fds.size(), kWatchTickMs) < 0 && errno != EINTR) return;
        if (fds[1].revents != 0) return;
        // Lost notifications: the whole state again, compared as usual.
        if ((fds[0].revents & POLLIN) && !linkWatch_.drain(links_, [this] { watchUpdate(true); }))
            chassisLinkSnapshot(links_);
        watchUpdate(true);
        notifyResend();
    }
}

void ChassisIfm::watchUpdate(bool announce) {
    const auto map = qorHostMapGet();
    const auto linkState = [&](const std::string& linuxName) {
        const auto it = links_.find(linuxName);
        return it == links_.end() ? IfState::Absent : it->second ? IfState::Up : IfState::Down;
    };
    std::vector<std::pair<uint16_t, std::vector<uint32_t>>> tlvs;
    for (const auto& [ifIndex, itf] : map->interfaces) {
        IfState now;
        if (!itf.linuxName.empty()) {
            // A port is its own link; a VLAN interface follows the link
            // that holds its address; a port-channel its bond.
            now = linkState(itf.linuxName);
        } else if (ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_LAG) {
            // A port-channel without a bond is up while one member is.
            now = IfState::Down;
            for (uint32_t member : itf.members) {
                const QorHostIf* port = map->find(member);
                if (port && linkState(port->linuxName) == IfState::Up) now = IfState::Up;
            }
        } else {
            continue;
        }
        const auto [it, added] = ifStates_.try_emplace(ifIndex, now);
        const IfState before = std::exchange(it->second, now);
        if (!announce || added || before == now) continue;
        if (now == IfState::Absent)
            tlvs.push_back({kTlvDeleted, {ifIndex}});
        else if (now == IfState::Up)
            tlvs.push_back({kTlvUp, {ifIndex}});
        else if (before == IfState::Up)
            tlvs.push_back({kTlvDown, {ifIndex}});
    }
    // LAG members: the host map (the CLI changes it at run time). The first
    // look tells the clients the members there are.
    std::map<uint32_t, std::vector<uint32_t>> lags;
    for (const auto& [ifIndex, itf] : map->interfaces) {
        if (ifmIfIndexToIfType(ifIndex) != IFM_IFTYPE_LAG) continue;
        auto& members = lags[ifIndex] = itf.members;
        std::sort(members.begin(), members.end());
    }
    for (const auto& [lag, members] : lagMembers_) {
        const auto it = lags.find(lag);
        for (uint32_t port : members)
            if (it == lags.end() || !std::binary_search(it->second.begin(), it->second.end(), port))
                tlvs.push_back({kTlvLagDelPort, {lag, port}});
    }
    for (const auto& [lag, members] : lags) {
        const auto it = lagMembers_.find(lag);
        for (uint32_t port : members)
            if (it == lagMembers_.end() || !std::binary_search(it->second.begin(), it->second.end(), port))
                tlvs.push_back({kTlvLagAddPort, {lag, port}});
    }
    lagMembers_ = std::move(lags);
    // Switch ports: the first look tells the clients which ports are; later
    // ones each change either way. Only ports and port-channels ever are one.
    for (const auto& [ifIndex, itf] : map->interfaces) {
        const auto [it, added] = switchPorts_.try_emplace(ifIndex, itf.switchPort);
        const bool before = std::exchange(it->second, itf.switchPort);
        if (added ? itf.switchPort : before != itf.switchPort)
            tlvs.push_back({kTlvModeChange, {ifIndex, itf.switchPort ? 1u : 0u}});
    }
    notifyClients(tlvs);
}

void ChassisIfm::notifyClients(const std::vector<std::pair<uint16_t, std::vector<uint32_t>>>& tlvs) {
    // As many TLVs to a message as a queue carries, in their order.
    std::vector<ChassisMsg> msgs;
    for (const auto& [type, words] : tlvs) {
        const size_t len = kTlvHeaderLen + 4 * words.size();
        if (msgs.empty() || msgs.back().size() + len > QOR_IPC_MAX_MSG) msgs.emplace_back(kNotifOffFirstTlv, 0);
        ChassisMsg& m = msgs.back();
        const size_t at = m.size();
        m.resize(at + len);
        qor::putU16(m, at, type);
        qor::putU16(m, at + 2, uint16_t(len));
        for (size_t i = 0; i < words.size(); ++i) qor::putU32(m, at + kTlvHeaderLen + 4 * i, words[i]);
        qor::putU32(m, kNotifOffCount, qor::u32At(m, kNotifOffCount) + 1);
    }
    if (msgs.empty()) return;
    std::lock_guard lock(mu_);
    for (const auto& [id, client] : clients_) {
        NotifyQueue& q = notify_[client.queueId];
        for (ChassisMsg m : msgs) {
            // Sequence numbers start at 1 for each client, as an SWP queue's do.
            qor::putU32(m, QOR_SWP_OFF_SEQ, ++q.lastSeq);
            qor::putU32(m, QOR_SWP_OFF_QUEUE, queueId());
            chassisSendTo(client.queueId, MT_IFM_NOTIF_MSG, m);
            q.unacked.push_back({q.lastSeq, std::move(m), std::chrono::steady_clock::now()});
            if (q.unacked.size() > kUnackedKept) q.unacked.pop_front();
        }
    }
}

void ChassisIfm::notifyResend() {
    const auto now = std::chrono::steady_clock::now();
    std::lock_guard lock(mu_);
    for (auto& [queue, q] : notify_) {
        if (q.unacked.empty() || now - q.unacked.front().sent < kResendAfter) continue;
        // In order from the oldest: the client takes only the next one.
        for (Unacked& u : q.unacked) {
            chassisSendTo(queue, MT_IFM_NOTIF_MSG, u.msg, 1);
            u.sent = now;
        }
    }
}

void ChassisIfm::ifmAck(ChassisMsg& msg) {
    // A client takes notifications in order: its acknowledgement covers
    // every earlier one too.
    const uint32_t seq = qor::u32At(msg, QOR_SWP_OFF_SEQ);
    std::lock_guard lock(mu_);
    const auto it = notify_.find(qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE));
    if (it == notify_.end()) return;
    auto& unacked = it->second.unacked;
    while (!unacked.empty() && int32_t(seq - unacked.front().seq) >= 0) unacked.pop_front();
}
