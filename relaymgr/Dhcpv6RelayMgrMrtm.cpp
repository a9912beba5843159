// Dhcpv6RelayMgrMrtm.cpp -- the multicast group index: registration as an
// MRTM client, the index request over the MRTM SWP queue, and its response.
#include <cstdio>
#include <cstring>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/ipc.h"
#include "qor/mrtm.h"
#include "qor/swp.h"
#include "qor/task.h"

uint8_t isL2McZero = 0;

namespace {

constexpr const char kClientName[] = "DHCPV6 MCIDX Clnt";

auto& g = dhcpv6RelayGlobalVar;

void mrtmDbg(const char* text) {
    if (dhcpv6Dbg(DHCPV6_DBG_MRTM)) printf("%s", text);
}

void headerTemplate(uint32_t (&out)[3]) {
    out[0] = g.mrtmSvc;
    out[1] = g.mrtmQueue;
    out[2] = g.mrtmInstance;
}

int mrtmRegisterClient() {
    uint8_t reg[MRTM_REG_LEN] = {};
    uint32_t templ[3];
    headerTemplate(templ);
    const qor::MutByteView r(reg);
    mrtmapiBuildIpcHdr(reg, MT_MRTM_REGISTER, MRTM_REG_LEN, templ);
    // The name field holds 16 bytes: the name is cut to fit.
    qor::putBytes(r, MRTM_REG_OFF_NAME, kClientName, MRTM_REG_NAME_LEN);
    qor::putU32(r, MRTM_REG_OFF_QUEUE, qor_getQueueId(DHCPV6_RELAY_APP_ID, 0, QOR_QUEUE_REQUEST));
    qor::putU32(r, MRTM_REG_OFF_NAME_LENGTH, MRTM_REG_NAME_LEN);
    qor::putU32(r, MRTM_REG_OFF_CLIENT_ID, 0xFFFFFFFF);
    if (mrtmapiIpcSendAndRecv(g.ipcReqQueue, reg, MRTM_REG_LEN) != 0) {
        mrtmDbg("Register with mrtm failed \r");
        return -1;
    }
    if (qor::u32At(r, MRTM_REG_OFF_STATUS) != 0) {
        mrtmDbg("Status is not set to success\r");
        return -1;
    }
    g.mrtmClientId = qor::u32At(r, MRTM_REG_OFF_CLIENT_ID);
    return 0;
}

// Queues an index request (allocate one, or release `index`). 0 or -1; the
// block is freed when the queue refuses it.
int mrtmSendIndexRequest(uint32_t operation, uint32_t index) {
    void* block = dhcpV6RelayMgrSwpMalloc(MRTM_IDX_REQ_LEN);
    if (block == nullptr) {
        mrtmDbg("Alloc failed \r");
        return -1;
    }
    std::memset(block, 0, MRTM_IDX_REQ_LEN);
    uint32_t templ[3];
    headerTemplate(templ);
    const qor::MutByteView m(static_cast<uint8_t*>(block), MRTM_IDX_REQ_LEN);
    mrtmapiBuildIpcHdr(m.data(), MT_MRTM_MCIDX_REQ, MRTM_IDX_REQ_LEN, templ);
    qor::putU32(m, MRTM_IDX_OFF_CLIENT_ID, g.mrtmClientId);
    qor::putU32(m, MRTM_IDX_OFF_OPERATION, operation);
    qor::putU32(m, MRTM_IDX_OFF_ZERO, 0);
    qor::putU32(m, MRTM_IDX_OFF_COUNT, 1);
    if (operation == MRTM_IDX_RELEASE) qor::putU32(m, MRTM_IDX_OFF_RELEASE_INDEX, index);
    if (qorSwpEnqueue(g.mrtmSwpQueue, block, MRTM_IDX_REQ_LEN) != 0) {
        mrtmDbg("qorSwpEnqueue failed \r");
        dhcpV6RelayMgrSwpFree(block);
        return -1;
    }
    return 0;
}

}  // namespace

int dhcpv6RegWithMrtmIdx() {
    if (mrtmRegisterClient() != 0) return -1;
    // A registration again (a role change) replaces the queue of the last
    // one, and with it any request still waiting there.
    if (g.mrtmSwpQueue != 0) {
        qorSwpQueueRemove(g.mrtmSwpQueue);
        g.mrtmSwpQueue = 0;
    }
    if (qorSwpQueueCreate_p(g.evtLogHandle, 0, 10, 25, DHCPV6_RELAY_APP_ID, 0, g.ipcReqQueue,
                            QOR_APP_MRTM, 0, 0, dhcpV6RelayMgrSwpMalloc, 0, dhcpV6RelayMgrSwpFree,
                            dhcpV6RelayMgrSwpErrFunc, &g.mrtmSwpQueue, g.swpPipeFd) != 0) {
        mrtmDbg("Mrtm - Swp Q creation failed \r");
        return -1;
    }
    if (mrtmSendIndexRequest(MRTM_IDX_ALLOCATE, 0) != 0) return -1;
    mrtmDbg("qorSwpEnqueue to mrtm is success\r");
    return 0;
}

void dhcpv6RelayMgrMrtmReg(int flag) {
    if (flag != 1) return;
    while (dhcpv6RegWithMrtmIdx() != 0) taskDelay(sysClkRateGet());
}

int dhcpv6MrtmMcidxResp(dhcpv6Msg response) {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6MrtmMcidxResp \r");
    if (!qorHaIsPrimaryRpm()) {
        mrtmDbg("Secondary.. so returning \r");
        return 0;
    }
    if ((qor::u32At(response, MRTM_RESP_OFF_SUCCESS) & 1) == 0) {
        mrtmDbg(" Response failed \r");
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MCIDX_RESP_FAILED, 0u);
        return -1;
    }
    if (qor::u32At(response, MRTM_RESP_OFF_RELEASE) == 1) {
        mrtmDbg("MCIndex release success\r");
        return 0;
    }
    if (qor::u32At(response, MRTM_RESP_OFF_COUNT) != 1) {
        mrtmDbg("Incorrect no of indexes \r");
        return 0;
    }
    g.mcastGroupIdx = qor::u32At(response, MRTM_RESP_OFF_INDEX);
    if (dhcpv6Dbg(DHCPV6_DBG_MRTM)) printf("Got %d as l2mc index\r\n", int(g.mcastGroupIdx));
    if (g.mcastGroupIdx != 0 && isL2McZero == 0) return dhcpv6MrtmAclMcastGroupCreate();
    // Index 0 means "no group" to the rest of the daemon: it is held while a
    // second index is allocated, and released once that one arrives. The
    // group then reaches each agent when the agent next registers.
    mrtmDbg("Invalid l2mc index.. Re-registering again with mrtm \r");
    const bool release = isL2McZero != 0;
    isL2McZero = release ? 0 : 1;
    if (mrtmSendIndexRequest(release ? MRTM_IDX_RELEASE : MRTM_IDX_ALLOCATE, 0) != 0) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MCIDX_REQ_FAILED, 0u);
        return -1;
    }
    return 0;
}

int dhcpv6MrtmAclMcastGroupCreate() {
    if (dhcpv6Dbg(DHCPV6_DBG_DETAIL)) printf("Inside dhcpv6MrtmAclMcastGroupCreate\r");
    // The group goes to every registered line-card agent; agents register
    // once snooping reaches the forwarding plane, so today none is in use.
    return 0;
}
