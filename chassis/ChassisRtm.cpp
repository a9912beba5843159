// ChassisRtm.cpp -- the RTM service: a registration gets a handle (the same
// one again for the same client); SWP messages are acknowledged. Routes reach
// the kernel in a later service.
#include "ChassisRtm.h"

#include <algorithm>

#include "qor/chassis.h"
#include "qor/ipc.h"
#include "qor/swp.h"

namespace {

constexpr size_t kRegOffOwner = 80;
constexpr size_t kRegOffFamily = 92;
constexpr size_t kRegOffName = 96;
constexpr size_t kRegNameLen = 32;
constexpr size_t kRegOffHandle = 128;

}  // namespace

const ChassisHandler<ChassisRtm> ChassisRtm::kHandlers[] = {
    {QOR_MT_RTM_REGISTER, kRegOffName + kRegNameLen, true, &ChassisRtm::rtmRegister},
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
    const auto client = std::make_tuple(qor::u32At(msg, kRegOffOwner),
                                        qor::u32At(msg, kRegOffFamily), name);
    const auto [it, added] = handles_.try_emplace(client, nextHandle_);
    if (added) ++nextHandle_;
    msg.resize(std::max(msg.size(), kRegOffHandle + 4));
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    qor::putU32(msg, kRegOffHandle, it->second);
    chassisReply(msg);
}

void ChassisRtm::rtmSwpMessage(ChassisMsg& msg) {
    // Acknowledgements of this service's own messages need no work; anything
    // else that is not sequenced is no RTM message.
    if (qor::u32At(msg, QOR_IPC_OFF_TYPE) == MT_SWP_ACK || qor::u32At(msg, QOR_SWP_OFF_SEQ) == 0) {
        chassisCountDrop();
        return;
    }
    if (chassisSwpAccept(msg) == QOR_SWP_IN_ORDER) ++updates_;
}
