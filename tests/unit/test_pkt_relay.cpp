// The relay as its peers see it: the Relay-Forward a server receives, the
// frame a client receives, and the packets the relay refuses or ignores.
#include <set>

#include "relaymgr_fixture.h"

namespace {

using namespace relaytest;
using pkt::Bytes;

constexpr uint32_t kXid = 0x123456;
const pkt::Addr kClientLL = pkt::addr("fe80::c1");
const pkt::Addr kServer = pkt::addr("2001:db8:ff::2");

Bytes solicit(const Bytes& duid, uint8_t type = 1) {
    return pkt::message(type, kXid, {pkt::option(1, duid), pkt::option(8, Bytes{0, 0})});
}

pkt::Frame clientFrame(Bytes payload, uint16_t vlan = 10) {
    pkt::Frame f;
    f.vlan = vlan;
    f.payload = std::move(payload);
    return f;
}

// The Relay-Reply a server sends back to the relay's address.
pkt::Frame replyFrame(const Bytes& interfaceId, const Bytes& duid, uint8_t hop,
                      const pkt::Addr& link) {
    pkt::Frame f;
    f.vlan = 0;
    f.src = kServer;
    f.dst = pkt::addr("2001:db8:10::1");
    f.srcPort = f.dstPort = 547;
    const Bytes advertise =
        pkt::message(2, kXid, {pkt::option(1, duid), pkt::option(2, pkt::duid(10, 9))});
    Bytes ifIdOpt = interfaceId.empty() ? Bytes{} : pkt::option(18, interfaceId);
    f.payload = pkt::relay(13, hop, link, kClientLL, {ifIdOpt, pkt::option(9, advertise)});
    return f;
}

class Relay : public PacketFixture {
protected:
    void bringUp() override {
        PacketFixture::bringUp();
        addHelper(vlan10, "2001:db8:ff::2");
        qorfake::addLocalAddress(0, kVlanAddr.data());
    }
    uint32_t fromPort1(const Bytes& payload) {
        return receive(clientFrame(payload).build(), vlan10, port1, port1);
    }
};

std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

TEST_F(Relay, ServerReceivesClientMessageWithInterfaceAndRemoteId) {
    for (bool macKnown : {true, false}) {
        SCOPED_TRACE(macKnown ? "chassis MAC known" : "chassis MAC unavailable");
        chassisMacPresent = 0;
        if (!macKnown) {
            qorfake::setChassisMac(nullptr);
            std::memset(dhcpv6RelayGlobalVar.chassisMac, 0, 6);
        }
        const Bytes msg = solicit(pkt::duid(14));
        const size_t before = forwards().size();
        EXPECT_EQ(fromPort1(msg), 0u);
        const auto fwd = forwards();
        ASSERT_EQ(fwd.size(), before + 1);
        const Bytes& rf = fwd.back().bytes;
        EXPECT_EQ(qor::u16At(fwd.back().dst, 2), 547) << "to the server port";
        EXPECT_EQ(pkt::slice(fwd.back().dst, 8, 16), Bytes(kServer.begin(), kServer.end()));
        ASSERT_GE(rf.size(), 34u);
        EXPECT_EQ(rf[0], 12) << "RELAY-FORW";
        EXPECT_EQ(rf[1], 0) << "hop-count of a client's message";
        EXPECT_EQ(pkt::slice(rf, 2, 16), Bytes(kVlanAddr.begin(), kVlanAddr.end()))
            << "link-address";
        EXPECT_EQ(pkt::slice(rf, 18, 16), Bytes(kClientLL.begin(), kClientLL.end()))
            << "peer-address";
        const auto opts = pkt::options(rf, 34);
        ASSERT_EQ(opts.size(), 3u);
        EXPECT_EQ(opts[0], std::make_pair(uint16_t(9), msg));
        EXPECT_EQ(opts[1],
                  std::make_pair(uint16_t(18), Bytes{'1', '0', ':', '0', ':', '1', ':', '1'}));
        EXPECT_EQ(opts[2].first, 37);
        ASSERT_EQ(opts[2].second.size(), 21u);
        EXPECT_EQ(qor::u32At(opts[2].second, 0), DHCPV6_REMOTE_ID_ENTERPRISE);
        std::string mac = macKnown ? "2:0:5e:10:0:1" : "0:0:0:0:0:0";
        mac.resize(17, '\0');
        EXPECT_EQ(text(pkt::slice(opts[2].second, 4, 17)), mac);
    }
    EXPECT_NE(eventLog().find("SOLICIT from fe80::c1 on vlan 10 relayed to servers"),
              std::string::npos)
        << eventLog();
}

// Which message types go to the servers, which are answers, which are
// ignored: the relay keeps DECLINE and INFORMATION-REQUEST out on purpose.
TEST_F(Relay, MessageTypesSortedIntoRelayedAnswersAndIgnored) {
    const std::set<int> client = {1, 3, 4, 5, 6, 8, 12}, server = {2, 7, 13};
    for (int t = 0; t < 256; ++t) {
        SCOPED_TRACE("type " + std::to_string(t));
        const size_t before = forwards().size();
        uint32_t rc = 99;
        const std::string out =
            debugOf(DHCPV6_DBG_PKT, [&] { rc = fromPort1(solicit(pkt::duid(14), uint8_t(t))); });
        EXPECT_EQ(rc, 0u);
        EXPECT_EQ(out.find("Packets from Client/Relay..\r") != std::string::npos,
                  client.count(t) == 1);
        EXPECT_EQ(out.find("Packets fromServer/Relay .. \r") != std::string::npos,
                  server.count(t) == 1);
        // A type-12 message here is no valid Relay-Forward: it is recorded nowhere.
        EXPECT_EQ(forwards().size() - before, client.count(t) == 1 && t != 12 ? 1u : 0u);
    }
}

struct IntakeCase {
    const char* name;
    void (*mutate)(pkt::Frame&, Bytes&);
    bool management;
    uint32_t result;
    bool relayed;
    const char* debug;  // what the operator sees under 0x110; "" = nothing at all
};

class Intake : public Relay, public ::testing::WithParamInterface<IntakeCase> {};

TEST_P(Intake, ChecksPortsInterfaceAndChecksum) {
    const auto& c = GetParam();
    pkt::Frame f = clientFrame(solicit(pkt::duid(14)));
    Bytes wire;
    c.mutate(f, wire);
    if (wire.empty()) wire = f.build();
    const uint32_t phys = c.management ? ifIndexOf("management 1/0") : port1;
    uint32_t rc = 99;
    const std::string out = debugOf(DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT,
                                    [&] { rc = receive(wire, vlan10, port1, phys); });
    EXPECT_EQ(rc, c.result);
    EXPECT_EQ(forwards().size(), c.relayed ? 1u : 0u);
    if (*c.debug == '\0') {
        EXPECT_EQ(out, "");
    } else {
        EXPECT_NE(out.find(c.debug), std::string::npos) << out;
    }
    if (c.management) {
        EXPECT_TRUE(since("nbsdGetIntfInfoForName").empty()) << "nothing looked at";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Relay, Intake,
    ::testing::Values(
        IntakeCase{"port_547", [](pkt::Frame&, Bytes&) {}, false, 0, true,
                   "Packets from Client/Relay..\r"},
        IntakeCase{"port_546", [](pkt::Frame& f, Bytes&) { f.dstPort = 546; }, false, 0, true,
                   "Packets from Client/Relay..\r"},
        IntakeCase{"port_548_silent", [](pkt::Frame& f, Bytes&) { f.dstPort = 548; }, false,
                   uint32_t(-1), false, ""},
        IntakeCase{"port_545_silent", [](pkt::Frame& f, Bytes&) { f.dstPort = 545; }, false,
                   uint32_t(-1), false, ""},
        IntakeCase{"management_before_checksum", [](pkt::Frame& f, Bytes&) { f.checksum = 0x1234; },
                   true, 0, false, " Mgmt Interface.. Not processing dhcpv6 packet\r"},
        IntakeCase{"sum_of_all_ones_sent_as_FFFF",
                   [](pkt::Frame& f, Bytes&) {
                       // The elapsed-time value that makes the datagram sum to all ones.
                       const Bytes first = f.build();
                       f.payload[f.payload.size() - 2] = first[64];
                       f.payload[f.payload.size() - 1] = first[65];
                       f.checksum = 0xFFFF;
                   },
                   false, 0, true, "Packets from Client/Relay..\r"},
        IntakeCase{"checksum_0_refused", [](pkt::Frame& f, Bytes&) { f.checksum = 0; }, false,
                   uint32_t(-1), false, "Invalid Checksum.. Not processing dhcpv6 packet\r"},
        IntakeCase{"udp_length_over_payload_with_FFFF",
                   [](pkt::Frame& f, Bytes&) { f.udpLenDelta = 1, f.checksum = 0xFFFF; }, false, 0,
                   true, "Packets from Client/Relay..\r"},
        IntakeCase{"udp_length_over_payload_other_checksum",
                   [](pkt::Frame& f, Bytes&) { f.udpLenDelta = 1; }, false, uint32_t(-1), false,
                   "Invalid Checksum"},
        IntakeCase{"ipv6_and_udp_length_past_what_arrived",
                   [](pkt::Frame& f, Bytes&) { f.udpLenDelta = f.ip6LenDelta = 40; }, false,
                   uint32_t(-1), false, "Invalid Checksum"},
        IntakeCase{"cut_inside_udp_header",
                   [](pkt::Frame& f, Bytes& w) { w = pkt::slice(f.build(), 0, 18 + 40 + 7); },
                   false, uint32_t(-1), false, "Udp header not present. Not our packet \r"}),
    [](const auto& p) { return std::string(p.param.name); });

// The client message's length is held in 8 bits: a 300-byte Solicit reaches
// the server as its first 44 bytes.
TEST_F(Relay, LongClientMessageRelayedCutToEightBitLength) {
    const Bytes msg = pkt::message(
        1, kXid, {pkt::option(1, pkt::duid(14)), pkt::option(0x1234, Bytes(300 - 22 - 4, 7))});
    ASSERT_EQ(msg.size(), 300u);
    EXPECT_EQ(fromPort1(msg), 0u);
    ASSERT_EQ(forwards().size(), 1u);
    const auto opts = pkt::options(forwards()[0].bytes, 34);
    ASSERT_FALSE(opts.empty());
    EXPECT_EQ(opts[0], std::make_pair(uint16_t(9), pkt::slice(msg, 0, 44)));
}

TEST_F(Relay, DownstreamRelayForwardedUpToThirtyTwoHops) {
    for (uint8_t hop : {0, 31, 32}) {
        SCOPED_TRACE(int(hop));
        const Bytes inner = pkt::relay(12, hop, pkt::addr("2001:db8:1::1"), kClientLL,
                                       {pkt::option(9, solicit(pkt::duid(14, hop)))});
        const size_t before = forwards().size();
        const std::string out = debugOf(DHCPV6_DBG_EVENT, [&] { fromPort1(inner); });
        if (hop == 32) {
            EXPECT_EQ(forwards().size(), before);
            EXPECT_NE(out.find("DHCPV6RelayMgr: dhcpv6 max hop count(32) is exceeded\r\n"),
                      std::string::npos);
            continue;
        }
        ASSERT_EQ(forwards().size(), before + 1);
        const Bytes rf = forwards().back().bytes;
        EXPECT_EQ(rf[1], hop + 1);
        EXPECT_EQ(pkt::options(rf, 34)[0].second, inner);
    }
}

TEST_F(Relay, HelpersInTwoVrfsGetTheSameRelayForwardEachInItsVrf) {
    addHelper(vlan10, "2001:db8:ee::2", 2, "blue");
    markCalls();
    fromPort1(solicit(pkt::duid(14)));
    const auto fwd = forwards();
    ASSERT_EQ(fwd.size(), 2u);
    EXPECT_EQ(fwd[0].bytes, fwd[1].bytes);
    EXPECT_EQ(fwd[0].fd, fwd[1].fd) << "one relay socket";
    const pkt::Addr second = pkt::addr("2001:db8:ee::2");
    EXPECT_EQ(pkt::slice(fwd[1].dst, 8, 16), Bytes(second.begin(), second.end()))
        << "in list order";
    // Each send is preceded by the VRF of its helper, in list order (the
    // flood before them may have used the same descriptor number).
    std::vector<int64_t> vrfThenSend;
    for (const auto& c : qorfake::calls()) {
        if (c.name == "qorSetsockopt" && c.ints[2] == QOR_SO_VRF && c.ints[0] == fwd[0].fd) {
            uint32_t vrf = 0;
            std::memcpy(&vrf, c.bytes.data(), sizeof vrf);  // a host-order option value
            vrfThenSend.push_back(vrf);
        }
        if (c.name == "qorSendto" && c.ints[0] == fwd[0].fd && !vrfThenSend.empty())
            vrfThenSend.push_back(-1);
    }
    EXPECT_EQ(vrfThenSend, (std::vector<int64_t>{0, -1, 2, -1}));
}

// The source interface of a Relay-Forward: the client interface's own if it
// has an address, else the system-wide one if that has; else none.
TEST_F(Relay, SourceInterfaceFallsBackToSystemWideThenToNone) {
    const uint32_t own = vlanIf(20), global = vlanIf(30);
    struct Row {
        bool ownHasAddr, globalHasAddr;
        uint32_t expected;
    } rows[] = {{true, true, own}, {false, true, global}, {false, false, 0}};
    relayv6IntfNode* node = relayv6Lookup(vlan10);
    ASSERT_NE(node, nullptr);
    node->srcIfIndex = own;
    node->flags |= RELAYV6_FLAG_SRC_INTF;
    dhcpv6RelayGlobalVar.srcIfIndex = global;
    for (const Row& r : rows) {
        const pkt::Addr a = pkt::addr("2001:db8:20::1");
        setIntf(own, r.ownHasAddr ? &a : nullptr);
        setIntf(global, r.globalHasAddr ? &a : nullptr);
        markCalls();
        fromPort1(solicit(pkt::duid(14)));
        std::vector<uint32_t> applied;
        for (const auto& c : since("qorSetsockopt"))
            if (c.ints[2] == QOR_IPV6_SRC_INTF) {
                uint32_t word0 = 0;
                std::memcpy(&word0, c.bytes.data(), 4);
                applied.push_back(word0);
            }
        const std::vector<uint32_t> expected =
            r.expected ? std::vector<uint32_t>{r.expected, 0} : std::vector<uint32_t>{};
        EXPECT_EQ(applied, expected) << "set around the send, then cleared";
    }
}

TEST_F(Relay, VlanWithoutGlobalAddressRecordsClientButRelaysNothing) {
    setIntf(vlan10, nullptr);
    const std::string out =
        debugOf(DHCPV6_DBG_EVENT, [&] { EXPECT_EQ(fromPort1(solicit(pkt::duid(14))), 0u); });
    EXPECT_NE(out.find("No helper address configured \r"), std::string::npos);
    EXPECT_TRUE(forwards().empty());
    uint8_t key[DHCPV6_DUID_MAX] = {};
    const Bytes duid = pkt::duid(14);
    std::memcpy(key, duid.data(), duid.size());
    EXPECT_NE(dhcpv6TransLookup(key), nullptr);
}

TEST_F(Relay, ClientIdentifierUpTo128BytesAccepted) {
    for (size_t len : {128u, 129u}) {
        const std::string out =
            debugOf(DHCPV6_DBG_EVENT, [&] { fromPort1(solicit(pkt::duid(len))); });
        EXPECT_EQ(forwards().size(), 1u) << len;
        EXPECT_EQ(
            out.find("DHCPV6_OPTION_CLIENTID length exceeds 128 bytes \r") != std::string::npos,
            len == 129);
    }
}

// ---- Relay-Reply ------------------------------------------------------------------------------

struct PortCase {
    const char* name;
    bool fourTuple;
    const char* logical;
    const char* recv;
    const char* physical;
    const char* interfaceId;
    const char* egress;
    uint16_t vlan;
    uint8_t hop;
};

class RoundTrip : public Relay, public ::testing::WithParamInterface<PortCase> {};

// A client's Solicit leaves with an Interface-ID; the server's answer that
// carries it back reaches that client on the same VLAN and port.
TEST_P(RoundTrip, AnswerReachesTheClientWhereItsSolicitCameFrom) {
    const auto& c = GetParam();
    installMap(c.fourTuple);
    const uint32_t logical = ifIndexOf(c.logical), recv = ifIndexOf(c.recv),
                   phys = ifIndexOf(c.physical);
    addHelper(logical, "2001:db8:ff::2");
    const Bytes duid = pkt::duid(14);
    ASSERT_EQ(receive(clientFrame(solicit(duid), c.vlan).build(), logical, recv, phys), 0u);
    ASSERT_EQ(forwards().size(), 1u);
    const Bytes rf = forwards()[0].bytes;
    const auto opts = pkt::options(rf, 34);
    ASSERT_EQ(opts.size(), 3u);
    EXPECT_EQ(text(opts[1].second), c.interfaceId);
    const pkt::Addr link = [&] {
        pkt::Addr a{};
        std::copy(rf.begin() + 2, rf.begin() + 18, a.begin());
        return a;
    }();
    markCalls();
    pkt::Frame reply = replyFrame(opts[1].second, duid, c.hop, link);
    ASSERT_EQ(receive(reply.build(), serverPort, serverPort, serverPort), 0u);
    const auto sends = portSends();
    ASSERT_EQ(sends.size(), 1u);
    const Bytes& f = sends[0].bytes;
    EXPECT_EQ(sends[0].egressIfIndex, ifIndexOf(c.egress));
    ASSERT_GE(f.size(), 66u);
    EXPECT_EQ(pkt::slice(f, 0, 6), (Bytes{0x02, 0, 0, 0, 0, 0xc1})) << "to the client's MAC";
    EXPECT_EQ(pkt::slice(f, 6, 6), Bytes(kRouterMac.begin(), kRouterMac.end()));
    EXPECT_EQ(qor::u16At(f, 12), 0x8100);
    EXPECT_EQ(qor::u16At(f, 14), c.vlan);
    EXPECT_EQ(qor::u16At(f, 16), 0x86DD);
    const Bytes inner = pkt::options(reply.payload, 34).back().second;
    EXPECT_EQ(qor::u32At(f, 18), 0x60000000u);
    EXPECT_EQ(qor::u16At(f, 22), inner.size() + 8);
    EXPECT_EQ(f[24], 17);
    EXPECT_EQ(f[25], 255);
    EXPECT_EQ(pkt::slice(f, 26, 16), Bytes(link.begin(), link.end()))
        << "from the relay's link address";
    EXPECT_EQ(pkt::slice(f, 42, 16), Bytes(kClientLL.begin(), kClientLL.end()));
    EXPECT_EQ(qor::u16At(f, 58), 547);
    EXPECT_EQ(qor::u16At(f, 60), c.hop == 0 ? 546 : 547)
        << "a relay's answer goes to its server port";
    EXPECT_EQ(qor::u16At(f, 62), inner.size() + 8);
    pkt::Addr dst{};
    std::copy(f.begin() + 42, f.begin() + 58, dst.begin());
    EXPECT_EQ(qor::u16At(f, 64), pkt::udpChecksum(link, dst, f.data() + 58, f.size() - 58));
    EXPECT_EQ(pkt::slice(f, 66, 9999), inner);
    // Into a VLAN the layer-2 socket is told the VLAN, and told off again.
    std::vector<uint32_t> vlanOpt;
    for (const auto& call : since("qorSetsockopt"))
        if (call.ints[2] == QOR_SO_L2_VLAN) {
            uint32_t w[5];
            std::memcpy(w, call.bytes.data(), sizeof w);
            vlanOpt.insert(vlanOpt.end(), {w[0], w[3]});
        }
    const std::vector<uint32_t> expected =
        c.vlan ? std::vector<uint32_t>{1, c.vlan, 0, 0} : std::vector<uint32_t>{};
    EXPECT_EQ(vlanOpt, expected);
}

INSTANTIATE_TEST_SUITE_P(
    Relay, RoundTrip,
    ::testing::Values(PortCase{"plain", false, "vlan 10", "ethernet 1/1", "ethernet 1/1",
                               "10:0:1:1", "ethernet 1/1", 10, 0},
                      PortCase{"answer_for_a_relay", false, "vlan 10", "ethernet 1/1",
                               "ethernet 1/1", "10:0:1:1", "ethernet 1/1", 10, 1},
                      PortCase{"sub_port", false, "vlan 10", "ethernet 1/2:3", "ethernet 1/2:3",
                               "10:0:1:2:3", "ethernet 1/2:3", 10, 0},
                      PortCase{"four_part_name", true, "vlan 10", "ethernet 1/7:2",
                               "ethernet 1/7:2", "10:0:1:2:3:2", "ethernet 1/7:2", 10, 0},
                      PortCase{"four_part_plain", true, "vlan 10", "ethernet 1/1", "ethernet 1/1",
                               "10:0:1:1:1", "ethernet 1/1", 10, 0},
                      PortCase{"port_channel", false, "vlan 10", "port-channel 3", "ethernet 1/4",
                               "10:3:1:4", "port-channel 3", 10, 0},
                      PortCase{"port_extender", false, "vlan 10", "pe-ethernet 0/1/5",
                               "pe-ethernet 0/1/5", "10:0:49:1:5", "pe-ethernet 0/1/5", 10, 0},
                      PortCase{"routed_port", false, "ethernet 1/9", "ethernet 1/9", "ethernet 1/9",
                               "0:0:1:9", "ethernet 1/9", 0, 0}),
    [](const auto& p) { return std::string(p.param.name); });

TEST_F(Relay, RepliesThatCannotBePlacedAreDropped) {
    fromPort1(solicit(pkt::duid(14)));
    const pkt::Addr link = kVlanAddr;
    struct Row {
        const char* interfaceId;
        Bytes duid;
        const char* debug;
    } rows[] = {
        {"10", pkt::duid(14),
         "DHCPV6_OPTION_INTERFACE_ID option is not in correct format length:len [2:2]\r\n"},
        {"10:0:1:1", pkt::duid(14, 77), "No matching lease \r"},
        {"0:0:1:9", pkt::duid(14), " Interface Id doesnt match.. \r"},
        {"10:0:5:1", pkt::duid(14), "DHCPV6: cardType not present for slotId 5 \r\n"},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(r.interfaceId);
        const Bytes id(r.interfaceId, r.interfaceId + strlen(r.interfaceId));
        const std::string out = debugOf(DHCPV6_DBG_EVENT, [&] {
            EXPECT_EQ(receive(replyFrame(id, r.duid, 0, link).build(), serverPort, serverPort,
                              serverPort),
                      0u);
        });
        EXPECT_NE(out.find(r.debug), std::string::npos) << out;
    }
    EXPECT_TRUE(portSends().empty());
}

// A server's REPLY that is not addressed to the relay passes through the
// VLAN unchanged, but only to a client the relay has seen.
TEST_F(Relay, ServerMessageForAnotherAddressPassesToKnownClientsOnly) {
    fromPort1(solicit(pkt::duid(14)));
    for (bool known : {true, false}) {
        pkt::Frame f;
        f.vlan = 10;
        f.src = pkt::addr("fe80::5");
        f.dst = kClientLL;
        f.srcPort = 547;
        f.dstPort = 546;
        f.payload = pkt::message(
            7, kXid,
            {pkt::option(1, pkt::duid(14, known ? 1 : 50)), pkt::option(2, pkt::duid(30, 9))});
        const Bytes wire = f.build();
        EXPECT_EQ(receive(wire, vlan10, port1, port1), 0u);
        const auto sends = portSends();
        ASSERT_EQ(sends.size(), 1u) << "the unknown client's REPLY is dropped";
        if (known) {
            EXPECT_EQ(sends[0].bytes, wire);
            EXPECT_EQ(sends[0].egressIfIndex, port1);
        }
    }
}

TEST(PktTypeToStr, NamesTypesAndCutsToTheBuffer) {
    char buf[20];
    EXPECT_STREQ(dhcpv6PktTypeToStr(12, buf, sizeof buf), "RELAY-FORWARD");
    EXPECT_STREQ(dhcpv6PktTypeToStr(11, buf, sizeof buf), "UNKNOWN");
    char five[6] = {'x', 'x', 'x', 'x', 'x', 'x'};
    dhcpv6PktTypeToStr(1, five, 5);
    EXPECT_EQ(std::string(five, 6), std::string("SOLICx"));
}

}  // namespace
