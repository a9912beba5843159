// ChassisIfm.cpp -- the IFM service: registrations (and the start of the
// startup-config replay once the relay manager is registered), port notices,
// interface and VRF name lookups.
#include "ChassisIfm.h"

#include <algorithm>
#include <string>

#include "qor/cfg.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/ipc.h"

namespace {

// Where a registration request names its client.
constexpr size_t kRegOffApplication = 1956;  // 16-bit
constexpr size_t kRegOffInstance = 1958;     // 16-bit
constexpr size_t kRegOffAddress = 1964;
constexpr size_t kRegOffQueue = 1968;

constexpr uint32_t kLookupInterface = 0;
constexpr uint32_t kLookupVrf = 1;
constexpr size_t kPortNoticesKept = 1024;

}  // namespace

const ChassisHandler<ChassisIfm> ChassisIfm::kHandlers[] = {
    {QOR_MT_IFM_REGISTER, QOR_IFM_REG_LEN, true, &ChassisIfm::ifmRegister},
    {QOR_MT_IFM_PORT_NOTICE, QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN, true,
     &ChassisIfm::ifmPortNotice},
    {QOR_MT_IFM_LOOKUP, QOR_IFM_LOOKUP_OFF_NAME + QOR_IFM_LOOKUP_NAME_LEN, true,
     &ChassisIfm::ifmLookup},
};

ChassisIfm::ChassisIfm(int instance, bool useHostMap, std::function<void()> onRelayRegistered)
    : ChassisService("ifm", QOR_APP_IFM, instance),
      useHostMap_(useHostMap),
      onRelayRegistered_(std::move(onRelayRegistered)) {}

ChassisIfm::~ChassisIfm() { stop(); }

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
