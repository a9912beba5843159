// Client libraries of the chassis services, against services played by the
// test on real queues: what each service receives, and what the caller gets
// from the service's answer.
#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "qor/acl.h"
#include "qor/bytes.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/mrtm.h"
#include "qor/pipe.h"
#include "qor/rtm.h"
#include "qor/swp.h"
#include "qor/task.h"

namespace {

constexpr uint32_t kModule = 0x7B0000;
using Msg = std::vector<uint8_t>;

void* varAlloc(uint32_t size) { return qorMC_M_memBlockVarAlloc("test_clients", __LINE__, 1, size, kModule, 0, 0); }
int varFree(void* block) { return qorMC_M_memBlockVarFree("test_clients", __LINE__, block); }

Msg next(int queue) {
    Msg buf(QOR_IPC_MAX_MSG);
    const int n = qorIpcRecv(queue, buf.data(), uint32_t(buf.size()), QOR_IPC_NOWAIT, 0, 0);
    buf.resize(n > 0 ? size_t(n) : 0);
    return buf;
}

// Binds a service's request queue in the current run directory.
int service(int application) { return Key_getReqQueue(qorTaskStartup(0, nullptr, application, 0)); }

class Clients : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/qor-clients-XXXXXX";
        runDir = mkdtemp(tmpl);
        qorSetRunDir(runDir.c_str());
        qorPlatformSetIdentity(336, 0);
        taskKey = qorTaskStartup(0, nullptr, 336, 0);
        daemon = Key_getReqQueue(taskKey);
        ASSERT_GE(daemon, 0);
    }
    void TearDown() override {
        qorSetRunDir("/run/qor");
        std::system(("rm -rf " + runDir).c_str());
    }
    // The service answers the next request: `edit` fills the answer into the
    // request's own bytes. The request as received is kept in `request`.
    std::thread serveOnce(int queue, std::function<void(qor::MutByteView)> edit) {
        return std::thread([this, queue, edit] {
            Msg buf(QOR_IPC_MAX_MSG);
            const int n = qorIpcRecv(queue, buf.data(), uint32_t(buf.size()), 0, 0, 0);
            if (n <= 0) return;
            buf.resize(size_t(n));
            request = buf;
            edit(buf);
            qorIpcReply(queue, buf.data(), uint32_t(n));
        });
    }
    std::string runDir;
    int taskKey = -1, daemon = -1;
    Msg request;
};

TEST_F(Clients, CfgRecordReachesTheStoreFromTheDaemonsQueue) {
    Msg record(QOR_CFG_SYNC_LEN);  // large enough for every record kind below
    for (size_t i = 0; i < record.size(); ++i) record[i] = uint8_t(i * 7);
    EXPECT_NE(qorCfgInsert(taskKey, record.data()), 0) << "no store to deliver to";
    const int store = service(QOR_APP_CFGSTORE);
    ASSERT_GE(store, 0);
    struct Call {
        int (*call)(int, const uint8_t*);
        uint32_t type;
        size_t recordLen;
    };
    for (const Call& c : {Call{qorCfgInsert, QOR_MT_CFG_INSERT, QOR_CFG_RECORD_LEN},
                          Call{qorCfgRemoveExact, QOR_MT_CFG_REMOVE_EXACT, QOR_CFG_RECORD_LEN},
                          Call{qorCfgRemoveNode, QOR_MT_CFG_REMOVE_NODE, QOR_CFG_RECORD_LEN},
                          Call{qorCfgSync, QOR_MT_CFG_SYNC, QOR_CFG_SYNC_LEN}}) {
        ASSERT_EQ(c.call(taskKey, record.data()), 0) << c.type;
        const auto msg = next(store);
        ASSERT_EQ(msg.size(), QOR_CHASSIS_OFF_BODY + c.recordLen) << c.type;
        EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_TYPE), c.type);
        EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_LENGTH), msg.size());
        EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1))
            << "the store keys a line's owner on the source queue";
        EXPECT_TRUE(std::equal(record.begin(), record.begin() + c.recordLen, msg.begin() + QOR_CHASSIS_OFF_BODY));
        // It came from the daemon's own queue: the store's answer lands there.
        ASSERT_EQ(qorIpcReply(store, msg.data(), uint32_t(msg.size())), 0);
        EXPECT_EQ(next(daemon).size(), msg.size());
        EXPECT_NE(c.call(taskKey, nullptr), 0);
        EXPECT_NE(c.call(9999, record.data()), 0) << "no such task";
    }
}

TEST_F(Clients, PortNoticeResultIsTheIfmsAnswer) {
    std::array<uint8_t, QOR_PORT_NOTICE_LEN> notice{};
    EXPECT_EQ(qorPortCfgNotif(taskKey, notice.data()), -1) << "no IFM";
    EXPECT_EQ(qorPortCfgNotif(taskKey, nullptr), -1);
    const int ifm = service(QOR_APP_IFM);
    qor::putU32(notice, 64, 0x18000001);  // the ifIndex
    notice[68] = 1;
    qor::putU32(notice, 76, 0x2000);
    for (int32_t status : {0, 1, -5}) {
        std::thread ifmTask = serveOnce(
            ifm, [status](qor::MutByteView m) { qor::putU32(m, QOR_IPC_OFF_STATUS, uint32_t(status)); });
        EXPECT_EQ(qorPortCfgNotif(taskKey, notice.data()), status);
        ifmTask.join();
        ASSERT_EQ(request.size(), QOR_CHASSIS_OFF_BODY + QOR_PORT_NOTICE_LEN);
        EXPECT_EQ(qor::u32At(request, QOR_IPC_OFF_TYPE), QOR_MT_IFM_PORT_NOTICE);
        EXPECT_TRUE(std::equal(notice.begin(), notice.end(), request.begin() + QOR_CHASSIS_OFF_BODY));
    }
}

TEST_F(Clients, AclEntryTravelsOverTheAclQueueAndIsFreedByItsAck) {
    qorMemReset();
    const uint32_t sizes[] = {128, 1024};
    ASSERT_EQ(qorMC_qor_memPartVarInit(kModule, 0, sizes, 2), OK);
    const int acl = service(QOR_APP_ACL);
    const std::string pipeName = "/qor/pipe/acl-clients";
    const int pipeFd = qorSwpCreatePipe(pipeName.c_str());
    int aclQueue = -1;
    ASSERT_EQ(qorSwpQueueCreate_p(0, 0, 10, 25, 336, 0, daemon, QOR_APP_ACL, 0, 0, varAlloc, 0, varFree, nullptr,
                                  &aclQueue, pipeFd),
              0);
    // No queue or no block: no entry.
    EXPECT_EQ(iAclEnableSysFlowProtocolEntries(39, 0, 0, 0, taskKey, 2, 1, aclQueue + 100), -1);
    qorMemFailNextAlloc(kModule);
    EXPECT_EQ(iAclEnableSysFlowProtocolEntries(39, 0, 0, 0, taskKey, 2, 1, aclQueue), -1);
    EXPECT_EQ(qorSwpQueueDepth(aclQueue), 0);

    ASSERT_EQ(iAclEnableSysFlowProtocolEntries(30, 0, 0, 4, taskKey, 2, 1, aclQueue), 0);
    EXPECT_EQ(qorMemVarLiveCount(kModule), 1u) << "the block is the queue's own allocation";
    qorSwpReadPipe(pipeFd);
    const auto msg = next(acl);
    ASSERT_GE(msg.size(), 108u);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_TYPE), QOR_MT_ACL_SYS_FLOW);
    const uint32_t expected[] = {30, 0, 0, 4, uint32_t(taskKey), 2, 1};
    for (size_t i = 0; i < std::size(expected); ++i)
        EXPECT_EQ(qor::u32At(msg, QOR_CHASSIS_OFF_BODY + 4 * i), expected[i]) << "word " << i;
    EXPECT_TRUE(next(acl).empty());
    QOR_SWP_SEQ seq{};
    EXPECT_EQ(qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &seq, acl), QOR_SWP_IN_ORDER) << "a numbered message";
    qorSwpQueueRemove(aclQueue);  // frees the unacknowledged block
    pipeDevDelete(pipeName.c_str());
    EXPECT_EQ(qorMemVarLiveCount(kModule), 0u);
    qorMemReset();
}

TEST_F(Clients, RtmRegistrationGivesTheRtmsHandleOnlyWhenAccepted) {
    const uint32_t clientInfo[3] = {336, uint32_t(daemon), 0}, noQueue[3] = {336, uint32_t(-1), 0};
    uint32_t handle = 0x1234;
    EXPECT_NE(qorRtmRegisterAddrFamily_vrf(23, 0xFFFF, 0, "x", &handle, noQueue, 2, 0, 0), 0);
    EXPECT_EQ(handle, 0x1234u);
    const int rtm = service(QOR_APP_RTM);
    std::thread rtmTask = serveOnce(rtm, [](qor::MutByteView m) { qor::putU32(m, QOR_IPC_OFF_STATUS, 3); });
    EXPECT_NE(qorRtmRegisterAddrFamily_vrf(23, 0xFFFF, 0, "x", &handle, clientInfo, 2, 0, 0), 0) << "refused";
    rtmTask.join();
    EXPECT_EQ(handle, 0x1234u);
    rtmTask = serveOnce(rtm, [](qor::MutByteView m) {
        qor::putU32(m, QOR_IPC_OFF_STATUS, 0);
        qor::putU32(m, 128, 0x77);
    });
    EXPECT_EQ(qorRtmRegisterAddrFamily_vrf(23, 0xFFFF, 0, "Dhcpv6RelayMgr", &handle, clientInfo, 2, 0, 0), 0);
    rtmTask.join();
    EXPECT_EQ(handle, 0x77u);
    ASSERT_GE(request.size(), 132u);
    EXPECT_EQ(qor::u32At(request, QOR_IPC_OFF_TYPE), QOR_MT_RTM_REGISTER);
    EXPECT_EQ(qor::u32At(request, 80), 23u);
    EXPECT_EQ(qor::u32At(request, 84), 0xFFFFu);
    EXPECT_EQ(qor::u32At(request, 92), 2u);
    EXPECT_STREQ(reinterpret_cast<const char*>(request.data() + 96), "Dhcpv6RelayMgr");
}

TEST_F(Clients, MrtmRegistrationIsAnsweredInTheCallersBuffer) {
    std::array<uint8_t, MRTM_REG_LEN> msg{};
    const uint32_t templ[3] = {336, uint32_t(daemon), 0};
    EXPECT_EQ(mrtmapiBuildIpcHdr(msg.data(), MT_MRTM_REGISTER, QOR_IPC_HDR_LEN - 1, templ), -1);
    EXPECT_EQ(mrtmapiBuildIpcHdr(msg.data(), MT_MRTM_REGISTER, MRTM_REG_LEN, nullptr), -1);
    ASSERT_EQ(mrtmapiBuildIpcHdr(msg.data(), MT_MRTM_REGISTER, MRTM_REG_LEN, templ), 0);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE), qor_getQueueId(336, 0, 1));
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_DST_QUEUE), qor_getQueueId(QOR_APP_MRTM, 0, 1));
    EXPECT_EQ(mrtmapiIpcSendAndRecv(daemon, msg.data(), MRTM_REG_LEN), -1) << "no MRTM yet";
    std::thread mrtmTask = serveOnce(service(QOR_APP_MRTM), [](qor::MutByteView m) {
        qor::putU32(m, MRTM_REG_OFF_STATUS, 0);
        qor::putU32(m, MRTM_REG_OFF_CLIENT_ID, 9);
    });
    qor::putU32(msg, MRTM_REG_OFF_CLIENT_ID, 0xFFFFFFFF);
    EXPECT_EQ(mrtmapiIpcSendAndRecv(daemon, msg.data(), MRTM_REG_LEN), 0);
    mrtmTask.join();
    EXPECT_EQ(qor::u32At(request, QOR_IPC_OFF_TYPE), MT_MRTM_REGISTER);
    EXPECT_EQ(qor::u32At(msg, MRTM_REG_OFF_CLIENT_ID), 9u);
    EXPECT_EQ(qor::u32At(msg, MRTM_REG_OFF_STATUS), 0u);
}

}  // namespace
