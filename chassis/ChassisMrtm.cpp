// ChassisMrtm.cpp -- the MRTM service: registration answers a client id;
// index requests arrive over the client's SWP queue and are answered with a
// sequenced index response into the client's request queue.
#include "ChassisMrtm.h"

#include "qor/chassis.h"
#include "qor/ipc.h"
#include "qor/mrtm.h"
#include "qor/swp.h"

const ChassisHandler<ChassisMrtm> ChassisMrtm::kHandlers[] = {
    {MT_MRTM_REGISTER, MRTM_REG_OFF_CLIENT_ID + 4, true, &ChassisMrtm::mrtmRegister},
    {MT_MRTM_MCIDX_REQ, MRTM_IDX_REQ_LEN, false, &ChassisMrtm::mrtmIndexRequest},
    {MT_SWP_ACK, QOR_IPC_HDR_LEN, false, &ChassisMrtm::mrtmAck},
};

ChassisMrtm::ChassisMrtm(int instance) : ChassisService("mrtm", QOR_APP_MRTM, instance) {}

ChassisMrtm::~ChassisMrtm() { stop(); }

void ChassisMrtm::chassisHandle(ChassisMsg& msg) {
    if (!chassisDispatch(*this, kHandlers, msg)) chassisCountDrop();
}

void ChassisMrtm::mrtmRegister(ChassisMsg& msg) {
    // The client names its queue in the request; one that does not is the
    // sender's queue. A client registering again (a new primary) keeps its id.
    uint32_t queue = qor::u32At(msg, MRTM_REG_OFF_QUEUE);
    if (chassisQueueApplication(queue) == 0) queue = qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE);
    const auto [it, added] = clientIds_.try_emplace(queue, uint32_t(clientIds_.size() + 1));
    if (added) clientQueues_[it->second] = queue;
    qor::putU32(msg, MRTM_REG_OFF_STATUS, 0);
    qor::putU32(msg, MRTM_REG_OFF_CLIENT_ID, it->second);
    chassisReply(msg);
}

// Responses are not resent, so their acknowledgements need no work.
void ChassisMrtm::mrtmAck(ChassisMsg&) {}

uint32_t ChassisMrtm::mrtmAllocate() {
    // Index 0 means "no group" to the clients: the first index is 1.
    uint32_t index = 1;
    while (indexes_.count(index)) ++index;
    indexes_.insert(index);
    return index;
}

// The response goes to the queue the request came from; a request that does
// not say goes to the registered client's queue, else to the relay manager.
uint32_t ChassisMrtm::mrtmClientQueue(const ChassisMsg& request) const {
    const uint32_t source = qor::u32At(request, QOR_IPC_OFF_SRC_QUEUE);
    if (chassisQueueApplication(source) != 0) return source;
    const auto it = clientQueues_.find(qor::u32At(request, MRTM_IDX_OFF_CLIENT_ID));
    if (it != clientQueues_.end()) return it->second;
    return qor_getQueueId(QOR_APP_RELAYMGR, instance(), QOR_QUEUE_REQUEST);
}

void ChassisMrtm::mrtmIndexRequest(ChassisMsg& msg) {
    if (chassisSwpAccept(msg) != QOR_SWP_IN_ORDER) return;
    const uint32_t clientId = qor::u32At(msg, MRTM_IDX_OFF_CLIENT_ID);
    const uint32_t dst = mrtmClientQueue(msg);
    if (qor::u32At(msg, MRTM_IDX_OFF_OPERATION) == MRTM_IDX_RELEASE) {
        // Releasing an index nobody holds (0 included) leaves nothing to undo.
        indexes_.erase(qor::u32At(msg, MRTM_IDX_OFF_RELEASE_INDEX));
        mrtmRespond(dst, clientId, true, true, 1, qor::u32At(msg, MRTM_IDX_OFF_RELEASE_INDEX));
        return;
    }
    // One response word holds the index: a request for more is refused.
    if (qor::u32At(msg, MRTM_IDX_OFF_COUNT) != 1) {
        mrtmRespond(dst, clientId, false, false, 0, 0);
        return;
    }
    mrtmRespond(dst, clientId, false, true, 1, mrtmAllocate());
}

void ChassisMrtm::mrtmRespond(uint32_t dstQueueId, uint32_t clientId, bool release, bool success,
                              uint32_t count, uint32_t index) {
    ChassisMsg resp(MRTM_RESP_LEN, 0);
    qor::putU32(resp, QOR_SWP_OFF_QUEUE, queueId());
    qor::putU32(resp, MRTM_IDX_OFF_CLIENT_ID, clientId);
    qor::putU32(resp, MRTM_RESP_OFF_RELEASE, release ? 1 : 0);
    qor::putU32(resp, MRTM_RESP_OFF_SUCCESS, success ? 1 : 0);
    qor::putU32(resp, MRTM_RESP_OFF_COUNT, count);
    qor::putU32(resp, MRTM_RESP_OFF_INDEX, index);
    // Sequence numbers start at 1 for each client queue, as an SWP queue's do.
    uint32_t& seq = sendSeq_[dstQueueId];
    qor::putU32(resp, QOR_SWP_OFF_SEQ, ++seq);
    if (chassisSendTo(dstQueueId, MT_MRTM_MCIDX_RESP, resp) != 0) --seq;
}
