// ChassisRtm.cpp -- the RTM service: a registration gets a handle (the same
// one again for the same client); route updates are installed in the kernel,
// in the routing table of the interface's VRF, through the Linux interface
// the host map names; an operator's clear removes a client's routes and tells
// the client, which sends them again.
#include "ChassisRtm.h"

#include <net/if.h>

#include <algorithm>

#include "CliParse.h"
#include "qor/chassis.h"
#include "qor/hostmap.h"
#include "qor/ipc.h"
#include "qor/rtm.h"
#include "qor/swp.h"

namespace {

constexpr size_t kRegOffOwner = 80;
constexpr size_t kRegOffFamily = 92;
constexpr size_t kRegOffName = 96;
constexpr size_t kRegNameLen = 32;
constexpr size_t kRegOffHandle = 128;

std::array<uint8_t, 16> maskTo(const std::array<uint8_t, 16>& prefix, unsigned len) {
    std::array<uint8_t, 16> out{};
    for (unsigned i = 0; i < 16 && len > 0; ++i, len -= std::min(len, 8u))
        out[i] = uint8_t(prefix[i] & (0xFF << (8 - std::min(len, 8u))));
    return out;
}

}  // namespace

const ChassisHandler<ChassisRtm> ChassisRtm::kHandlers[] = {
    {QOR_MT_RTM_REGISTER, kRegOffName + kRegNameLen, true, &ChassisRtm::rtmRegister},
    // Sequenced: acknowledged whatever they hold, so that a sender never
    // resends one for ever.
    {QOR_MT_RTM_ROUTE_UPDATE, QOR_IPC_HDR_LEN, false, &ChassisRtm::rtmRouteUpdate},
    {QOR_MT_RTM_CLEAR_ACK, QOR_IPC_HDR_LEN, false, &ChassisRtm::rtmClearAck},
    {QOR_MT_RTM_CLEAR_REQUEST, QOR_RTM_CLEAR_OFF_PREFIX + 16, true, &ChassisRtm::rtmClearRequest},
};

ChassisRtm::ChassisRtm(int instance) : ChassisService("rtm", QOR_APP_RTM, instance) {}

ChassisRtm::~ChassisRtm() { stop(); }

void ChassisRtm::chassisHandle(ChassisMsg& msg) {
    if (chassisDispatch(*this, kHandlers, msg)) return;
    rtmSwpMessage(msg);
}

void ChassisRtm::rtmRegister(ChassisMsg& msg) {
    const auto field = msg.begin() + kRegOffName;
    const std::string name(field, std::find(field, field + kRegNameLen, uint8_t{0}));
    const uint32_t family = qor::u32At(msg, kRegOffFamily);
    const auto client = std::make_tuple(qor::u32At(msg, kRegOffOwner), family, name);
    const auto [it, added] = handles_.try_emplace(client, nextHandle_);
    if (added) ++nextHandle_;
    // The clear-route message goes to the queue the registration came from;
    // a client registering again (a new primary) keeps its routes.
    Client& c = clients_[it->second];
    c.queueId = qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE);
    c.family = family;
    msg.resize(std::max(msg.size(), kRegOffHandle + 4));
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    qor::putU32(msg, kRegOffHandle, it->second);
    chassisReply(msg);
}

void ChassisRtm::rtmRouteUpdate(ChassisMsg& msg) {
    if (chassisSwpAccept(msg) != QOR_SWP_IN_ORDER) return;
    const uint32_t operation = qor::u32At(msg, QOR_RTM_UPD_OFF_OPERATION);
    const auto it = clients_.find(qor::u32At(msg, QOR_RTM_UPD_OFF_HANDLE));
    if (msg.size() < QOR_RTM_UPD_OFF_ROUTES || it == clients_.end() ||
        (operation != QOR_RTM_OP_ADD && operation != QOR_RTM_OP_DELETE)) {
        chassisCountDrop();
        return;
    }
    // The records the message holds, whatever its count word says.
    const uint32_t count = std::min<uint32_t>(qor::u32At(msg, QOR_RTM_UPD_OFF_COUNT), QOR_RTM_UPDATE_MAX_ROUTES);
    const qor::ByteView records = qor::ByteView(msg).subspan(QOR_RTM_UPD_OFF_ROUTES);
    for (size_t i = 0; i < count && (i + 1) * QOR_RTM_ROUTE_LEN <= records.size(); ++i)
        rtmApply(it->second, operation == QOR_RTM_OP_ADD, records.subspan(i * QOR_RTM_ROUTE_LEN, QOR_RTM_ROUTE_LEN));
}

void ChassisRtm::rtmApply(Client& client, bool add, qor::ByteView record) {
    const uint8_t prefixLen = record[QOR_RTM_ROUTE_OFF_PREFIX_LEN];
    const uint32_t nhops =
        std::min<uint32_t>(qor::u16At(record, QOR_RTM_ROUTE_OFF_NHOP_COUNT), QOR_RTM_ROUTE_MAX_NHOPS);
    // No kernel takes a prefix longer than an address.
    if (qor::u16At(record, QOR_RTM_ROUTE_OFF_KIND) != QOR_RTM_ROUTE_KIND_UNICAST ||
        prefixLen > QOR_RTM_MAX_PREFIX_LEN) {
        chassisCountDrop();
        return;
    }
    std::array<uint8_t, 16> prefix{};
    qor::getBytes(record, QOR_RTM_ROUTE_OFF_PREFIX, prefix.data(), prefix.size());
    const auto map = qorHostMapGet();
    for (uint32_t n = 0; n < nhops; ++n) {
        const size_t at = QOR_RTM_ROUTE_OFF_NHOPS + n * QOR_RTM_NHOP_LEN;
        const uint32_t ifIndex = qor::u32At(record, at + QOR_RTM_NHOP_OFF_IFINDEX);
        // The next hop is the client on the Linux interface of its switch
        // interface (for a VLAN, the one that holds the VLAN's address).
        const QorHostIf* itf = map->find(ifIndex);
        const unsigned linuxIfIndex = itf && !itf->linuxName.empty() ? if_nametoindex(itf->linuxName.c_str()) : 0;
        ChassisRoute route;
        route.table = map->tableOfVrf(map->vrfIdOf(ifIndex));
        route.prefixLen = prefixLen;
        route.prefix = maskTo(prefix, prefixLen);
        qor::getBytes(record, at + QOR_RTM_NHOP_OFF_ADDR, route.nextHop.data(), route.nextHop.size());
        route.linuxIfIndex = linuxIfIndex;
        if (linuxIfIndex == 0) {
            // A link that is gone took its routes out of the kernel with it.
            if (!add)
                std::erase_if(client.routes, [&](const ChassisRoute& r) {
                    return r.table == route.table && r.prefix == route.prefix && r.prefixLen == prefixLen &&
                           r.nextHop == route.nextHop;
                });
            chassisCountDrop();
            continue;
        }
        if (chassisRouteChange(route, add) != 0) {
            chassisCountDrop();
            continue;
        }
        if (add)
            client.routes.insert(route);
        else
            client.routes.erase(route);
    }
}

// The client has flushed its queue and sends its routes again: nothing to do.
void ChassisRtm::rtmClearAck(ChassisMsg& msg) { chassisSwpAccept(msg); }

void ChassisRtm::rtmClearRequest(ChassisMsg& msg) {
    const bool all = qor::u32At(msg, QOR_RTM_CLEAR_OFF_ALL) != 0;
    const uint32_t prefixLen = qor::u32At(msg, QOR_RTM_CLEAR_OFF_PREFIX_LEN);
    std::array<uint8_t, 16> prefix{};
    qor::getBytes(msg, QOR_RTM_CLEAR_OFF_PREFIX, prefix.data(), prefix.size());
    if (!all && prefixLen > QOR_RTM_MAX_PREFIX_LEN) {
        chassisRefuse(msg);
        return;
    }
    // Clients hold their prefixes as routed: without the host bits.
    const auto routed = all ? std::array<uint8_t, 16>{} : maskTo(prefix, prefixLen);
    uint32_t told = 0;
    for (auto& [handle, client] : clients_) {
        rtmClear(handle, client, all, all ? 0 : uint8_t(prefixLen), routed);
        ++told;
    }
    msg.resize(std::max(msg.size(), QOR_RTM_CLEAR_LEN));
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    qor::putU32(msg, QOR_RTM_CLEAR_OFF_CLIENTS, told);
    chassisReply(msg);
}

void ChassisRtm::rtmClear(uint32_t handle, Client& client, bool all, uint8_t prefixLen,
                          const std::array<uint8_t, 16>& prefix) {
    // Out of the kernel first, so that the routes the client sends again
    // after the clear are the ones that stay.
    for (auto it = client.routes.begin(); it != client.routes.end();) {
        if (all || it->prefix == maskTo(prefix, it->prefixLen)) {
            chassisRouteChange(*it, false);
            it = client.routes.erase(it);
        } else {
            ++it;
        }
    }
    ChassisMsg clr(QOR_RTM_CLR_LEN, 0);
    qor::putU32(clr, QOR_SWP_OFF_QUEUE, queueId());
    qor::putU32(clr, QOR_RTM_CLR_OFF_HANDLE, handle);
    qor::putU32(clr, QOR_RTM_CLR_OFF_AF, client.family);
    qor::putU32(clr, QOR_RTM_CLR_OFF_ALL, all ? 1 : 0);
    if (!all) {
        qor::putU8(clr, QOR_RTM_CLR_OFF_PREFIX_LEN, prefixLen);
        qor::putBytes(clr, QOR_RTM_CLR_OFF_PREFIX, prefix.data(), prefix.size());
    }
    // Sequence numbers start at 1 for each client, as an SWP queue's do.
    qor::putU32(clr, QOR_SWP_OFF_SEQ, ++client.lastSeq);
    if (chassisSendTo(client.queueId, QOR_MT_RTM6_CLR_ROUTE, clr) != 0) --client.lastSeq;
}

void ChassisRtm::rtmSwpMessage(ChassisMsg& msg) {
    // Acknowledgements of this service's own messages need no work; anything
    // else that is not sequenced is no RTM message.
    if (qor::u32At(msg, QOR_IPC_OFF_TYPE) == MT_SWP_ACK || qor::u32At(msg, QOR_SWP_OFF_SEQ) == 0) {
        chassisCountDrop();
        return;
    }
    chassisSwpAccept(msg);
}
