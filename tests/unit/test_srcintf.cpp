// Relay source interfaces, system-wide and per client interface: the records
// the store receives, the socket option cleared on removal, and what a refused
// clear or a deleted interface leaves standing.
#include <algorithm>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

const std::string kSysLine = "ipv6 dhcp relay source-interface vlan 30";
const std::string kIfLine = " ipv6 dhcp relay source-interface vlan 40";

std::vector<uint8_t> systemSource(uint32_t op, const std::string& line = kSysLine) {
    auto m = cmdMsg(DHCP_SOURCE_INTERFACE, DHCPV6_SRC_MSG_LEN);
    qor::putU32(m, DHCPV6_SRC_OFF_OPERATION, op);
    qor::putU32(m, DHCPV6_SRC_OFF_IFINDEX, vlanIf(30));
    std::memcpy(m.data() + DHCPV6_SRC_OFF_LINE, line.data(), std::min<size_t>(line.size(), 281));
    return m;
}

std::vector<uint8_t> ifSource(uint32_t op) {
    auto m = cmdMsg(DHCP_IF_SOURCE_INTERFACE, DHCPV6_IFSRC_MSG_LEN);
    qor::putU32(m, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, vlanIf(10));
    qor::putU32(m, DHCPV6_IFSRC_OFF_OPERATION, op);
    qor::putU32(m, DHCPV6_IFSRC_OFF_SRC_IFINDEX, vlanIf(40));
    std::memcpy(m.data() + DHCPV6_IFSRC_OFF_LINE, kIfLine.data(), kIfLine.size());
    return m;
}

class SourceInterface : public RelayFixture {
protected:
    std::vector<uint8_t> setsockoptCall(int fd) const {
        for (const auto& c : since("qorSetsockopt"))
            if (c.ints == std::vector<int64_t>{fd, 41, 77, 20}) return c.bytes;
        return {};
    }
    static bool nodeDeletedBy(const char* function) {
        char b[128];
        snprintf(b, sizeof b, "%s: Node %x deleted \r\n", function, vlanIf(10));
        const auto h = qorHistoryEntries();
        return std::find(h.begin(), h.end(), std::string(b)) != h.end();
    }
};

TEST_F(SourceInterface, SystemSourceIsRecordedUnderItsOneByteKeyAndRemovedAgain) {
    EXPECT_EQ(status(systemSource(1)), 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, vlanIf(30));
    const auto rec = since("qorCfgInsert").at(0).bytes;
    EXPECT_EQ(qor::u32At(rec, 256), 282u);
    EXPECT_EQ(qor::u32At(rec, 264), 1u);
    EXPECT_EQ(qor::u32At(rec, 0), 9u);
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{kSysLine});
    markCalls();
    // Removed before any packet went out: no socket to clear.
    EXPECT_EQ(status(systemSource(0)), 0);
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, 0u);
    EXPECT_TRUE(since("qorSetsockopt").empty());
    EXPECT_EQ(qor::u32At(since("qorCfgRemoveExact").at(0).bytes, 256), 282u);
    EXPECT_TRUE(qorfake::cfgLines().empty());
}

class SystemSourceOnSocket : public SourceInterface, public ::testing::WithParamInterface<bool> {};

TEST_P(SystemSourceOnSocket, RemovalClearsTheOptionOrKeepsTheLineWhenRefused) {
    const bool refused = GetParam();
    status(systemSource(1));
    dhcpv6RelayGlobalVar.srcIfSockFd = 17;
    if (refused) qorfake::setNextResult("qorSetsockopt", -1);
    dhcpv6_debug_flag = DHCPV6_DBG_DETAIL;
    CaptureStdout();
    EXPECT_EQ(status(systemSource(0)), refused ? -1 : 0);
    const std::string out = GetCapturedStdout();
    EXPECT_EQ(setsockoptCall(17), std::vector<uint8_t>(20, 0));
    EXPECT_EQ(out.find("Warning: can't set src intf \r") != std::string::npos, refused) << out;
    EXPECT_EQ(qorfake::cfgLines(), refused ? std::vector<std::string>{kSysLine}
                                           : std::vector<std::string>{});
    EXPECT_EQ(dhcpv6RelayGlobalVar.srcIfIndex, 0u) << "the system setting is gone either way";
}

INSTANTIATE_TEST_SUITE_P(ClearedAndRefused, SystemSourceOnSocket, ::testing::Bool());

TEST_F(SourceInterface, LineTextWithoutTerminatorIsCutAtItsField) {
    const std::string full(281, 'x');
    EXPECT_EQ(status(systemSource(1, full)), 0);
    EXPECT_EQ(textAt(since("qorCfgInsert").at(0).bytes, 268), full);
}

TEST_F(SourceInterface, PerInterfaceSourceMakesANodeWithoutNoticeAndRemovalDeletesIt) {
    EXPECT_EQ(status(ifSource(0)), 0) << "nothing to remove yet";
    EXPECT_EQ(callNamesSince(), std::vector<std::string>{"qorIpcReply"});
    EXPECT_EQ(status(ifSource(1)), 0);
    const relayv6IntfNode* node = relayv6Lookup(vlanIf(10));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->flags, RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(node->srcIfIndex, vlanIf(40));
    EXPECT_TRUE(since("qorPortCfgNotif").empty());
    EXPECT_EQ(since("iAclEnableSysFlowProtocolEntries").size(), 1u) << "first interface node";
    const auto rec = since("qorCfgInsert").at(0).bytes;
    EXPECT_EQ(qor::u32At(rec, 256), 119u);
    EXPECT_EQ(qor::u32At(rec, 264), 6u);
    EXPECT_EQ(qor::u32At(rec, 0), vlanIf(10));
    EXPECT_EQ(qor::u16At(rec, 4), 206);
    EXPECT_EQ(textAt(rec, 268), kIfLine);

    markCalls();
    EXPECT_EQ(status(ifSource(0)), 0);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(nodeDeletedBy("dhcpv6IfSourceInterface"));
    EXPECT_EQ(qor::u16At(since("qorCfgRemoveExact").at(0).bytes, 4), 206);
    EXPECT_TRUE(qorfake::cfgLines().empty());
    EXPECT_EQ(since("iAclEnableSysFlowProtocolEntries").at(0).ints[6], 0) << "last node: trap off";
}

TEST_F(SourceInterface, PerInterfaceRemovalKeepsAnInterfaceThatHasHelpers) {
    auto helper = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
    qor::putU32(helper, DHCPV6_RLY_OFF_OPERATION, 1);
    qor::putU32(helper, DHCPV6_RLY_OFF_IFINDEX, vlanIf(10));
    helper[DHCPV6_RLY_OFF_ADDR] = 0x20;
    status(helper);
    status(ifSource(1));
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->flags, RELAYV6_FLAG_HELPERS | RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(status(ifSource(0)), 0);
    ASSERT_NE(relayv6Lookup(vlanIf(10)), nullptr);
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->flags, RELAYV6_FLAG_HELPERS);
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->srcIfIndex, 0u);
}

TEST_F(SourceInterface, PerInterfaceRemovalRefusedByTheSocketKeepsNodeAndLine) {
    status(ifSource(1));
    dhcpv6RelayGlobalVar.srcIfSockFd = 21;
    qorfake::setNextResult("qorSetsockopt", -1);
    markCalls();
    EXPECT_EQ(status(ifSource(0)), -1);
    EXPECT_EQ(setsockoptCall(21), std::vector<uint8_t>(20, 0));
    ASSERT_NE(relayv6Lookup(vlanIf(10)), nullptr);
    EXPECT_EQ(relayv6Lookup(vlanIf(10))->srcIfIndex, vlanIf(40));
    EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{kIfLine});
}

TEST_F(SourceInterface, DeletedInterfaceDropsItsSourceWithoutTouchingTheConfiguration) {
    status(ifSource(1));
    markCalls();
    auto m = ifmDeleteNotice(vlanIf(10));
    dispatch(m);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(nodeDeletedBy("dhcpv6RelayDelSrcInterface"));
    EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    EXPECT_TRUE(since("qorCfgInsert").empty());
}

}  // namespace
