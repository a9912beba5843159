// ChassisAcl.cpp -- the ACL manager service: system flow requests arrive over
// the clients' SWP queues; a show answers every protocol ever switched.
#include "ChassisAcl.h"

#include <algorithm>

#include "qor/chassis.h"
#include "qor/ipc.h"

namespace {

constexpr size_t kFlowOffProtocol = 80;
constexpr size_t kFlowOffEnable = 104;
constexpr size_t kFlowLen = 108;
constexpr size_t kShowOffCount = 80;
constexpr size_t kShowOffPairs = 84;
constexpr size_t kShowPairLen = 8;

}  // namespace

const ChassisHandler<ChassisAcl> ChassisAcl::kHandlers[] = {
    {QOR_MT_ACL_SYS_FLOW, kFlowLen, false, &ChassisAcl::aclSysFlow},
    {QOR_MT_ACL_SHOW, QOR_IPC_OFF_STATUS + 4, true, &ChassisAcl::aclShow},
};

ChassisAcl::ChassisAcl(int instance) : ChassisService("acl", QOR_APP_ACL, instance) {}

ChassisAcl::~ChassisAcl() { stop(); }

void ChassisAcl::chassisHandle(ChassisMsg& msg) {
    if (!chassisDispatch(*this, kHandlers, msg)) chassisCountDrop();
}

void ChassisAcl::aclSysFlow(ChassisMsg& msg) {
    // A duplicate is acknowledged again but not applied twice: a later
    // request for the same protocol may have overtaken it.
    if (chassisSwpAccept(msg) != QOR_SWP_IN_ORDER) return;
    protocols_[qor::u32At(msg, kFlowOffProtocol)] = qor::u32At(msg, kFlowOffEnable) != 0;
}

void ChassisAcl::aclShow(ChassisMsg& msg) {
    const size_t fit = (QOR_IPC_MAX_MSG - kShowOffPairs) / kShowPairLen;
    const size_t count = std::min(protocols_.size(), fit);
    msg.resize(kShowOffPairs + count * kShowPairLen);
    qor::putU32(msg, QOR_IPC_OFF_STATUS, 0);
    qor::putU32(msg, kShowOffCount, uint32_t(count));
    size_t at = kShowOffPairs;
    for (const auto& [protocol, on] : protocols_) {
        if (at + kShowPairLen > msg.size()) break;
        qor::putU32(msg, at, protocol);
        qor::putU32(msg, at + 4, on ? 1 : 0);
        at += kShowPairLen;
    }
    chassisReply(msg);
}
