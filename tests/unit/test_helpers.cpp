// Helper addresses as the platform and an operator see them: port notices to
// the IFM, the DHCPv6 trap at the ACL manager, configuration and sync records,
// and what an IFM interface deletion leaves behind.
#include <arpa/inet.h>

#include <algorithm>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;
using Calls = std::vector<std::vector<int64_t>>;

std::vector<uint8_t> helperCmd(uint32_t op, uint32_t ifIndex, const char* addr, uint32_t vrfId,
                               const char* vrfName) {
    auto m = cmdMsg(DHCP_RELAYADDR_CONFIG, DHCPV6_RLY_MSG_LEN);
    qor::putU32(m, DHCPV6_RLY_OFF_OPERATION, op);
    qor::putU32(m, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
    std::memcpy(m.data() + DHCPV6_RLY_OFF_VRF_NAME, vrfName, strnlen(vrfName, 32));
    EXPECT_EQ(inet_pton(AF_INET6, addr, m.data() + DHCPV6_RLY_OFF_ADDR), 1);
    qor::putU32(m, DHCPV6_RLY_OFF_VRF_ID, vrfId);
    return m;
}

std::vector<uint8_t> portNotice(uint32_t ifIndex, uint8_t stops) {
    std::vector<uint8_t> n(132, 0);
    qor::putU32(n, 64, ifIndex);
    n[68] = stops;
    qor::putU32(n, 76, 0x2000);
    return n;
}

// The key of a helper line: ifIndex, 204, the 32-byte VRF name, the address text.
std::vector<uint8_t> helperKey(uint32_t ifIndex, const std::string& vrf, const std::string& addr) {
    std::vector<uint8_t> k(38 + addr.size(), 0);
    qor::putU32(k, 0, ifIndex);
    qor::putU16(k, 4, 204);
    qor::putBytes(k, 6, vrf.data(), vrf.size());
    qor::putBytes(k, 38, addr.data(), addr.size());
    return k;
}

std::vector<uint8_t> keyOf(const std::vector<uint8_t>& record) {
    const uint32_t len = qor::u32At(record, 264);
    return std::vector<uint8_t>(record.begin(), record.begin() + std::min<size_t>(len, 256));
}

struct Tlv {
    uint16_t type;
    uint16_t length;  // whole TLV
    uint32_t ifIndex;
};

// Each TLV takes the room its length says (at least its header and ifIndex),
// never more than 64 bytes: longer lengths overrun the message.
std::vector<uint8_t> ifmNotification(int32_t count, const std::vector<Tlv>& tlvs) {
    const auto room = [](const Tlv& t) { return std::clamp<size_t>(t.length, 8, 64); };
    size_t len = 140;
    for (const auto& t : tlvs) len += room(t);
    auto m = typeMsg(MT_IFM_NOTIF_MSG, len);
    qor::putU32(m, 128, uint32_t(count));
    size_t off = 140;
    for (const auto& t : tlvs) {
        qor::putU16(m, off, t.type);
        qor::putU16(m, off + 2, t.length);
        qor::putU32(m, off + 4, t.ifIndex);
        off += room(t);
    }
    return m;
}

class Helpers : public RelayFixture {
protected:
    int32_t add(uint32_t ifIndex, const char* addr, uint32_t vrfId = 0, const char* vrf = "") {
        return status(helperCmd(1, ifIndex, addr, vrfId, vrf));
    }
    int32_t remove(uint32_t ifIndex, const char* addr, uint32_t vrfId = 0, const char* vrf = "") {
        return status(helperCmd(2, ifIndex, addr, vrfId, vrf));
    }
    Calls aclCalls() const {
        Calls out;
        for (const auto& c : since("iAclEnableSysFlowProtocolEntries")) out.push_back(c.ints);
        return out;
    }
    std::vector<int64_t> acl(int enable) const {
        const auto& g = dhcpv6RelayGlobalVar;
        return {30, 0, 0, g.instanceId, g.taskKey, 2, enable, g.aclSwpQueue};
    }
    std::string dump(uint32_t ifIndex = 0) {
        CaptureStdout();
        dumpRelayDB(ifIndex);
        return GetCapturedStdout();
    }
};

TEST_F(Helpers, FirstHelperMakesARelayInterfaceSwitchesTheTrapOnAndWritesItsLine) {
    const uint32_t vlan10 = vlanIf(10);
    EXPECT_EQ(add(vlan10, "2001:db8::5"), 0);
    EXPECT_EQ(since("qorPortCfgNotif").at(0).bytes, portNotice(vlan10, 0));
    EXPECT_EQ(aclCalls(), Calls{acl(1)});
    const auto inserts = since("qorCfgInsert");
    ASSERT_EQ(inserts.size(), 1u);
    EXPECT_EQ(qor::u32At(inserts[0].bytes, 256), 119u);
    EXPECT_EQ(keyOf(inserts[0].bytes), helperKey(vlan10, "", "2001:db8::5"));
    EXPECT_EQ(textAt(inserts[0].bytes, 268), " ipv6 helper-address 2001:db8::5");
    const auto syncs = since("qorCfgSync");
    ASSERT_EQ(syncs.size(), 1u);
    const auto& s = syncs[0].bytes;
    ASSERT_EQ(s.size(), 812u);
    EXPECT_EQ(qor::u32At(s, 0), 18u);
    EXPECT_EQ(qor::u32At(s, 4), 24u);
    EXPECT_EQ(qor::u32At(s, 8), vlan10);
    EXPECT_EQ(textAt(s, 272), " ipv6 helper-address 2001:db8::5");
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{" ipv6 helper-address 2001:db8::5"});
    char head[32];
    snprintf(head, sizeof head, "\n\rIfindex 0x%x\n", vlan10);
    EXPECT_EQ(dump(), std::string(head) + "Server IP: 2001:db8::5, vrf 0 \n\r");
    // A port-channel is synced as a port-channel.
    EXPECT_EQ(add(lagIf(5), "2001:db8::5"), 0);
    const auto lag = since("qorCfgSync").at(1).bytes;
    EXPECT_EQ(qor::u32At(lag, 0), 22u);
    EXPECT_EQ(qor::u32At(lag, 4), 22u);
    EXPECT_EQ(qor::u32At(lag, 8), lagIf(5));
}

TEST_F(Helpers, TrapIsSwitchedOnOnlyForTheFirstInterfaceAndOffOnlyForTheLast) {
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_EQ(add(vlanIf(20), "2001:db8::6"), 0);
    EXPECT_EQ(add(vlanIf(20), "2001:db8::7"), 0);
    EXPECT_EQ(since("qorPortCfgNotif").size(), 2u) << "one notice per new relay interface";
    EXPECT_EQ(aclCalls(), Calls{acl(1)});
    EXPECT_EQ(remove(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_EQ(remove(vlanIf(20), "2001:db8::6"), 0);
    EXPECT_EQ(aclCalls().size(), 1u) << "vlan 20 still relays";
    EXPECT_EQ(remove(vlanIf(20), "2001:db8::7"), 0);
    EXPECT_EQ(aclCalls(), (Calls{acl(1), acl(0)}));
    EXPECT_EQ(relayv6Head, nullptr);
}

TEST_F(Helpers, WhileSnoopingIsOnItsOwnTrapStaysInForce) {
    dhcpv6RelayGlobalVar.snoopingEnabled = 1;
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    CaptureStdout();
    add(vlanIf(10), "2001:db8::5");
    remove(vlanIf(10), "2001:db8::5");
    const std::string out = GetCapturedStdout();
    EXPECT_NE(out.find("sending DHCPV6_ACL_ENTRY_ADD toACL \r"), std::string::npos) << out;
    EXPECT_NE(out.find("sending DHCPV6_ACL_ENTRY_DEL toACL \r"), std::string::npos) << out;
    EXPECT_TRUE(aclCalls().empty());
}

TEST_F(Helpers, SameAddressTwiceIsOneHelperButAnotherVrfMakesASecond) {
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    markCalls();
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    CaptureStdout();
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_EQ(GetCapturedStdout(),
              "case : DHCP_RELAYADDR_CONFIG \rHELPERv6 CREATE ENTRY \rIPv6 Addr = 2001:db8::5 \r\n"
              "Helper 2001:db8::5 already exists \r\n");
    dhcpv6_debug_flag = 0;
    EXPECT_TRUE(callNamesSince() == std::vector<std::string>{"qorIpcReply"});
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5", 7, "red"), 0);
    const auto rec = since("qorCfgInsert").at(0).bytes;
    EXPECT_EQ(keyOf(rec), helperKey(vlanIf(10), "red", "2001:db8::5"));
    EXPECT_EQ(textAt(rec, 268), " ipv6 helper-address vrf red 2001:db8::5");
    EXPECT_EQ(qorfake::cfgLines().size(), 2u);
    const std::string d = dump(vlanIf(10));
    EXPECT_NE(d.find("Server IP: 2001:db8::5, vrf 0 \n\r"), std::string::npos) << d;
    EXPECT_NE(d.find("Server IP: 2001:db8::5, vrf 7 \n\r"), std::string::npos) << d;
}

// In the default VRF and in a named one.
TEST_F(Helpers, RemovalWritesTheNoFormAndRemovesTheStoredLineByItsKey) {
    const struct {
        uint32_t vrfId;
        const char* vrf;
        const char* line;
    } cases[] = {{0, "", " no ipv6 helper-address 2001:db8::5"},
                 {3, "blue", " no ipv6 helper-address vrf blue 2001:db8::5"}};
    for (const auto& c : cases) {
        markCalls();
        EXPECT_EQ(add(vlanIf(10), "2001:db8::5", c.vrfId, c.vrf), 0);
        const auto inserted = since("qorCfgInsert").at(0).bytes;
        markCalls();
        EXPECT_EQ(remove(vlanIf(10), "2001:db8::5", c.vrfId, c.vrf), 0);
        const auto removals = since("qorCfgRemoveExact");
        ASSERT_EQ(removals.size(), 1u);
        EXPECT_EQ(keyOf(removals[0].bytes), keyOf(inserted));
        EXPECT_EQ(qor::u32At(removals[0].bytes, 256), 119u);
        EXPECT_EQ(textAt(removals[0].bytes, 268), c.line);
        EXPECT_EQ(textAt(since("qorCfgSync").at(0).bytes, 272), c.line);
        EXPECT_EQ(since("qorPortCfgNotif").at(0).bytes, portNotice(vlanIf(10), 1));
        EXPECT_TRUE(qorfake::cfgLines().empty());
        EXPECT_EQ(relayv6Head, nullptr);
    }
}

TEST_F(Helpers, RemovingAnUnknownHelperTouchesOnlyTheStore) {
    EXPECT_EQ(remove(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_EQ(callNamesSince(), std::vector<std::string>{"qorIpcReply"}) << "no such interface";
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    markCalls();
    EXPECT_EQ(remove(vlanIf(10), "2001:db8::9"), 0);
    ASSERT_EQ(since("qorCfgRemoveExact").size(), 1u);
    EXPECT_EQ(keyOf(since("qorCfgRemoveExact")[0].bytes), helperKey(vlanIf(10), "", "2001:db8::9"));
    EXPECT_TRUE(since("qorPortCfgNotif").empty()) << "the interface still relays";
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{" ipv6 helper-address 2001:db8::5"});
}

TEST_F(Helpers, RefusedPortNoticeIsTheStatus) {
    qorfake::setNextResult("qorPortCfgNotif", 5);
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 5);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(since("qorCfgInsert").empty());
    EXPECT_TRUE(aclCalls().empty());
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    markCalls();
    qorfake::setNextResult("qorPortCfgNotif", 7);
    EXPECT_EQ(remove(vlanIf(10), "2001:db8::5"), 7);
    EXPECT_TRUE(since("qorCfgRemoveExact").empty());
    EXPECT_EQ(qorfake::cfgLines(), std::vector<std::string>{" ipv6 helper-address 2001:db8::5"});
    EXPECT_EQ(relayv6Head, nullptr) << "the helper itself is gone";
}

TEST_F(Helpers, NoMemoryRefusesAnInterfaceButNotAHelperLine) {
    qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), -1);
    EXPECT_EQ(relayv6Head, nullptr);
    EXPECT_TRUE(since("qorCfgInsert").empty());
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    qorMemFailNextAlloc(QOR_MEM_SYSTEM);
    EXPECT_EQ(add(vlanIf(10), "2001:db8::6"), 0);
    EXPECT_EQ(qorfake::cfgLines().size(), 2u);
    EXPECT_EQ(dump().find("2001:db8::6"), std::string::npos);
}

TEST_F(Helpers, LastHelperOfAnInterfaceWithASourceInterfaceKeepsItsNode) {
    auto src = cmdMsg(DHCP_IF_SOURCE_INTERFACE, DHCPV6_IFSRC_MSG_LEN);
    qor::putU32(src, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, vlanIf(10));
    qor::putU32(src, DHCPV6_IFSRC_OFF_OPERATION, 1);
    qor::putU32(src, DHCPV6_IFSRC_OFF_SRC_IFINDEX, vlanIf(30));
    EXPECT_EQ(status(src), 0);
    EXPECT_EQ(add(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_TRUE(since("qorPortCfgNotif").empty()) << "the interface node existed already";
    markCalls();
    EXPECT_EQ(remove(vlanIf(10), "2001:db8::5"), 0);
    EXPECT_EQ(since("qorPortCfgNotif").at(0).bytes, portNotice(vlanIf(10), 1));
    const relayv6IntfNode* node = relayv6Lookup(vlanIf(10));
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(node->flags, RELAYV6_FLAG_SRC_INTF);
    EXPECT_EQ(node->srcIfIndex, vlanIf(30));
    EXPECT_TRUE(aclCalls().empty()) << "the interface is still in the table";
}

TEST_F(Helpers, DeletedInterfaceLosesItsHelpersWithoutNoticeOrLine) {
    add(vlanIf(10), "2001:db8::5");
    add(vlanIf(10), "2001:db8::6");
    add(vlanIf(20), "2001:db8::7");
    markCalls();
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT;
    auto m = ifmNotification(1, {{2, 8, vlanIf(10)}});
    CaptureStdout();
    dispatch(m);
    EXPECT_EQ(GetCapturedStdout(),
              "case : MT_IFM_NOTIF_MSG \rGot IFM_TYP_DEL_IF for vlan 10 \r\nRemoved Int helper list \r");
    EXPECT_EQ(relayv6Lookup(vlanIf(10)), nullptr);
    EXPECT_NE(relayv6Lookup(vlanIf(20)), nullptr);
    for (const char* call : {"qorPortCfgNotif", "qorCfgRemoveExact", "iAclEnableSysFlowProtocolEntries"})
        EXPECT_TRUE(since(call).empty()) << call;
    auto last = ifmNotification(1, {{2, 8, vlanIf(20)}});
    dispatch(last);
    EXPECT_EQ(aclCalls(), Calls{acl(0)});
    EXPECT_EQ(relayv6Head, nullptr);
}

TEST_F(Helpers, NotificationTlvsAreHandledInOrderWithinOneMessage) {
    add(vlanIf(10), "2001:db8::5");
    dhcpv6_debug_flag = DHCPV6_DBG_EVENT | DHCPV6_DBG_DETAIL;
    // An unknown TLV type (99) is skipped by its length; then down, then delete.
    auto m = ifmNotification(3, {{99, 12, 0}, {4, 8, vlanIf(10)}, {2, 8, vlanIf(10)}});
    CaptureStdout();
    dhcpv6ProcessIfmTlvMessage(m);
    const std::string out = GetCapturedStdout();
    const auto down = out.find("Got IFM_TYP_OSTATE_DN for vlan 10 \r\n");
    const auto withdraw = out.find("DHCPv6RelayMgr : Inside dhcpv6LeaseIpWithDrawRoute\r");
    const auto del = out.find("Got IFM_TYP_DEL_IF for vlan 10 \r\n");
    ASSERT_NE(down, std::string::npos) << out;
    ASSERT_NE(del, std::string::npos) << out;
    EXPECT_LT(down, withdraw);
    EXPECT_LT(withdraw, del);
    // A deleted interface loses its routes before its helpers.
    EXPECT_LT(out.find("dhcpv6LeaseIpWithDrawRoute", del),
              out.find("DHCPv6RelayMgr : Inside dhcpv6RelayDelIntHelper\r"));
    EXPECT_EQ(relayv6Head, nullptr);
}

TEST_F(Helpers, NothingBeyondTheValidTlvsOfANotificationIsActedOn) {
    add(vlanIf(10), "2001:db8::5");
    const struct {
        const char* what;
        int32_t count;
        std::vector<Tlv> tlvs;
    } cases[] = {{"count 0", 0, {{2, 8, vlanIf(10)}}},
                 {"negative count", -1, {{2, 8, vlanIf(10)}}},
                 {"a TLV shorter than its header ends the walk", 2, {{3, 2, 0}, {2, 8, vlanIf(10)}}},
                 {"a TLV longer than the message is not read", 1, {{2, 0xFFFF, vlanIf(10)}}},
                 {"count beyond the TLVs present", 2, {{3, 8, vlanIf(10)}}},
                 {"delete without its ifIndex", 1, {{2, 4, vlanIf(10)}}}};
    for (const auto& c : cases) {
        auto m = ifmNotification(c.count, c.tlvs);
        dhcpv6ProcessIfmTlvMessage(m);
        EXPECT_NE(relayv6Lookup(vlanIf(10)), nullptr) << c.what;
    }
}

}  // namespace
