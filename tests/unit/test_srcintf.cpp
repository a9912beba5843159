// Relay source interfaces, system-wide and per client interface: the
// configuration records the store receives, the socket option cleared on
// removal, and what a refused clear or a deleted interface leaves standing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

constexpr uint32_t kSet = 1;
constexpr uint32_t kRemove = 0;

std::vector<uint8_t> systemSource(uint32_t op, uint32_t srcIfIndex, const std::string& line) {
    auto m = cmdMsg(DHCP_SOURCE_INTERFACE, DHCPV6_SRC_MSG_LEN);
    qor::putU32(m, DHCPV6_SRC_OFF_OPERATION, op);
    qor::putU32(m, DHCPV6_SRC_OFF_IFINDEX, srcIfIndex);
    std::memcpy(m.data() + DHCPV6_SRC_OFF_LINE, line.data(), std::min<size_t>(line.size(), 281));
    return m;
}

std::vector<uint8_t> ifSource(uint32_t op, uint32_t client, uint32_t srcIfIndex,
                              const std::string& line) {
    auto m = cmdMsg(DHCP_IF_SOURCE_INTERFACE, DHCPV6_IFSRC_MSG_LEN);
    qor::putU32(m, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, client);
    qor::putU32(m, DHCPV6_IFSRC_OFF_OPERATION, op);
    qor::putU32(m, DHCPV6_IFSRC_OFF_SRC_IFINDEX, srcIfIndex);
    std::memcpy(m.data() + DHCPV6_IFSRC_OFF_LINE, line.data(), std::min<size_t>(line.size(), 281));
    return m;
}

const std::string kSysLine = "ipv6 dhcp relay source-interface vlan 30";
const std::string kIfLine = " ipv6 dhcp relay source-interface vlan 40";

class SourceInterface : public RelayFixture {
protected:
    int32_t send(std::vector<uint8_t> m) {
        const size_t before = replies().size();
        dispatch(m);
        const auto r = replies();
        EXPECT_EQ(r.size(), before + 1) << "every source-interface command is answered";
        return r.size() > before ? int32_t(qor::u32At(r.back(), QOR_IPC_OFF_STATUS)) : -99;
    }
    std::vector<uint8_t> setsockoptCall(int fd) const {
        std::vector<uint8_t> none;
        for (const auto& c : since("qorSetsockopt"))
            if (c.ints == std::vector<int64_t>{fd, 41, 77, 20}) return c.bytes;
        return none;
    }
    bool historyHas(const std::string& text) const {
        for (const auto& e : qorHistoryEntries())
            if (e == text) return true;
        return false;
    }
};

std::string nodeDeleted(const char* function, uint32_t ifIndex) {
    char b[128];
    snprintf(b, sizeof b, "%s: Node %x deleted \r\n", function, ifIndex);
    return b;
}

// ---- system-wide --------------------------------------------------------------------------

TEST_F(SourceInterface, SystemSourceIsRecordedUnderItsOneByteKey) {
    EXPECT_EQ(send(systemSource(kSet, vlanIf(30), kSysLine)), 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, vlanIf(30));
    const auto inserts = since("qorCfgInsert");
    ASSERT_EQ(inserts.size(), 1u);
    const auto& rec = inserts[0].bytes;
    EXPECT_EQ(qor::u32At(rec, 256), 282u);
    EXPECT_EQ(qor::u32At(rec, 264), 1u);
    EXPECT_EQ(qor::u32At(rec, 0), 9u);
    EXPECT_EQ(textAt(rec, 268), kSysLine);
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{kSysLine});
}

TEST_F(SourceInterface, SystemSourceRemovedBeforeAnyPacketOnlyRemovesTheLine) {
    send(systemSource(kSet, vlanIf(30), kSysLine));
    markCalls();
    EXPECT_EQ(send(systemSource(kRemove, vlanIf(30), kSysLine)), 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, 0u);
    EXPECT_TRUE(since("qorSetsockopt").empty());
    ASSERT_EQ(since("qorCfgRemoveExact").size(), 1u);
    EXPECT_EQ(qor::u32At(since("qorCfgRemoveExact")[0].bytes, 256), 282u);
    EXPECT_TRUE(qorfake::cfgLines().empty());
}

TEST_F(SourceInterface, SystemSourceRemovalClearsTheOptionOnTheLastSocket) {
    send(systemSource(kSet, vlanIf(30), kSysLine));
    dhcpv6RelayGlobalVar.srcIfSockFd = 17;
    EXPECT_EQ(send(systemSource(kRemove, vlanIf(30), kSysLine)), 0);
    EXPECT_EQ(setsockoptCall(17), std::vector<uint8_t>(20, 0));
    EXPECT_TRUE(qorfake::cfgLines().empty());
}

TEST_F(SourceInterface, SystemSourceRemovalRefusedByTheSocketKeepsTheLine) {
    send(systemSource(kSet, vlanIf(30), kSysLine));
    dhcpv6RelayGlobalVar.srcIfSockFd = 17;
    qorfake::setNextResult("qorSetsockopt", -1);
    dhcpv6_debug_flag = DHCPV6_DBG_DETAIL;
    CaptureStdout();
    const int32_t status = send(systemSource(kRemove, vlanIf(30), kSysLine));
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(status, -1);
    EXPECT_NE(out.find("Warning: can't set src intf \r"), std::string::npos) << out;
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{kSysLine});
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, 0u) << "the system setting is gone already";
}

TEST_F(SourceInterface, LineTextWithoutTerminatorIsCutAtItsField) {
    const std::string full(281, 'x');
    EXPECT_EQ(send(systemSource(kSet, vlanIf(30), full)), 0);
    EXPECT_EQ(textAt(since("qorCfgInsert").at(0).bytes, 268), full);
}

// ---- per client interface --------------------------------------------------------------------

TEST_F(SourceInterface, PerInterfaceSourceCreatesTheInterfaceWithoutANotice) {
    EXPECT_EQ(send(ifSource(kSet, vlanIf(10), vlanIf(40), kIfLine)), 0);
    const relayv6IntfNode* node = relayv6Lookup(vlanIf(10));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->flags, RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(node->srcIfIndex, vlanIf(40));
    EXPECT_TRUE(since("qorPortCfgNotif").empty());
    EXPECT_EQ(since("iAclEnableSysFlowProtocolEntries").size(), 1u) << "first interface node";
    const auto inserts = since("qorCfgInsert");
    ASSERT_EQ(inserts.size(), 1u);
    const auto& rec = inserts[0].bytes;
    EXPECT_EQ(qor::u32At(rec, 256), 119u);
    EXPECT_EQ(qor::u32At(rec, 264), 6u);
    EXPECT_EQ(qor::u32At(rec, 0), vlanIf(10));
    EXPECT_EQ(qor::u16At(rec, 4), 206);
    EXPECT_EQ(textAt(rec, 268), kIfLine);
}

TEST_F(SourceInterface, PerInterfaceRemovalOnAnInterfaceWithoutNodeDoesNothing) {
    EXPECT_EQ(send(ifSource(kRemove, vlanIf(10), vlanIf(40), kIfLine)), 0);
    EXPECT_EQ(callNamesSince(), std::vector<std::string>{"qorIpcReply"});
}

TEST_F(SourceInterface, PerInterfaceRemovalDeletesTheNodeAndItsLine) {
    send(ifSource(kSet, vlanIf(10), vlanIf(40), kIfLine));
    markCalls();
    EXPECT_EQ(send(ifSource(kRemove, vlanIf(10), vlanIf(40), kIfLine)), 0);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(historyHas(nodeDeleted("dhcpv6IfSourceInterface", vlanIf(10))));
    ASSERT_EQ(since("qorCfgRemoveExact").size(), 1u);
    EXPECT_EQ(qor::u16At(since("qorCfgRemoveExact")[0].bytes, 4), 206);
    EXPECT_TRUE(qorfake::cfgLines().empty());
    const auto acl = since("iAclEnableSysFlowProtocolEntries");
    ASSERT_EQ(acl.size(), 1u);
    EXPECT_EQ(acl[0].ints[6], 0) << "last interface node: trap off";
}

TEST_F(SourceInterface, PerInterfaceRemovalKeepsAnInterfaceThatHasHelpers) {
    auto helper = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
    qor::putU32(helper, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(helper, DHCPV6_RLY_OFF_IFINDEX, vlanIf(10));
    helper[DHCPV6_RLY_OFF_ADDR] = 0x20;
    send(helper);
    send(ifSource(kSet, vlanIf(10), vlanIf(40), kIfLine));
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->flags, RELAYV6_FLAG_HELPERS | RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(send(ifSource(kRemove, vlanIf(10), vlanIf(40), kIfLine)), 0);
    ASSERT_NE(relayv6Lookup(vlanIf(10)), nullptr);
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->flags, RELAYV6_FLAG_HELPERS);
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->srcIfIndex, 0u);
}

TEST_F(SourceInterface, PerInterfaceRemovalRefusedByTheSocketKeepsNodeAndLine) {
    send(ifSource(kSet, vlanIf(10), vlanIf(40), kIfLine));
    dhcpv6RelayGlobalVar.srcIfSockFd = 21;
    qorfake::setNextResult("qorSetsockopt", -1);
    markCalls();
    EXPECT_EQ(send(ifSource(kRemove, vlanIf(10), vlanIf(40), kIfLine)), -1);
    EXPECT_EQ(setsockoptCall(21), std::vector<uint8_t>(20, 0));
    const relayv6IntfNode* node = relayv6Lookup(vlanIf(10));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->flags, RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(node->srcIfIndex, vlanIf(40));
    EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{kIfLine});
}

TEST_F(SourceInterface, DeletedInterfaceDropsItsSourceWithoutTouchingTheConfiguration) {
    send(ifSource(kSet, vlanIf(10), vlanIf(40), kIfLine));
    markCalls();
    auto m = typeMsg(MT_IFM_NOTIF_MSG, 148);
    qor::putU32(m, 128, 1);
    qor::putU16(m, 140, 2);
    qor::putU16(m, 142, 8);
    qor::putU32(m, 144, vlanIf(10));
    dispatch(m);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(historyHas(nodeDeleted("dhcpv6RelayDelSrcInterface", vlanIf(10))));
    EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    EXPECT_TRUE(since("qorCfgInsert").empty());
}

}  // namespace
