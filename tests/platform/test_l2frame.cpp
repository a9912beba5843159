// The packet layer's frame handling without sockets: what the daemon is
// handed for frames a veth pair cannot easily produce (padding, odd
// datagrams, a buffer smaller than the frame, 802.1ad metadata, an interface
// whose name is gone) and where a flood from a port-channel member goes.
#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2frame.h"

namespace {

namespace l2 = qor::l2frame;
using Bytes = std::vector<uint8_t>;

QorHostMap parseMap(const std::string& text) {
    QorHostMap map;
    std::string err;
    EXPECT_EQ(qorHostMapParse(text, map, err), 0) << err;
    return map;
}

uint32_t ifIdx(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}

// A client's UDP datagram to the relays' multicast address, `payloadLen`
// bytes of 0xA5 with checksum 0x1234 (what a device would overwrite),
// untagged or with an inline tag (tag < 0: none), then `padding` zeros.
Bytes clientFrame(int tag, size_t payloadLen, size_t padding) {
    const size_t l2Len = tag >= 0 ? 18 : 14, udpLen = 8 + payloadLen;
    Bytes f(l2Len + 40 + udpLen + padding, 0);
    const qor::MutByteView b(f);
    const uint8_t macs[12] = {0x33, 0x33, 0, 1, 0, 2, 0x00, 0x11, 0x22, 0x33, 0x44, 0x01};
    qor::putBytes(b, 0, macs, sizeof macs);
    if (tag >= 0) qor::putU16(b, 12, 0x8100), qor::putU16(b, 14, uint16_t(0xE000 | tag));  // priority bits set
    qor::putU16(b, l2Len - 2, 0x86DD);
    qor::putU32(b, l2Len, 0x60000000);
    qor::putU16(b, l2Len + 4, uint16_t(udpLen));
    qor::putU8(b, l2Len + 6, 17);
    qor::putU8(b, l2Len + 7, 1);
    qor::putU16(b, l2Len + 8, 0xfe80), qor::putU16(b, l2Len + 22, 0x4401);                    // fe80::4401
    qor::putU16(b, l2Len + 24, 0xff02), qor::putU16(b, l2Len + 38, 0x0002), qor::putU8(b, l2Len + 37, 1);  // ff02::1:2
    qor::putU16(b, l2Len + 40, 546), qor::putU16(b, l2Len + 42, 547);
    qor::putU16(b, l2Len + 44, uint16_t(udpLen)), qor::putU16(b, l2Len + 46, 0x1234);
    for (size_t i = 0; i < payloadLen; ++i) f[l2Len + 48 + i] = 0xA5;
    return f;
}

// The one's-complement sum of a UDP datagram with its pseudo-header is all
// ones when its checksum is right.
bool udpChecksumRight(qor::ByteView ip) {
    const size_t end = 40 + qor::u16At(ip, 44);
    uint32_t sum = 17 + uint32_t(end - 40);
    for (size_t i = 8; i < end; i += 2) sum += i + 1 < end ? qor::u16At(ip, i) : uint32_t(ip[i]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

const char* const kMap =
    "[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n"
    "[interface ethernet 1/2]\nlinux = p2\ntagged = 10,20\n"
    "[interface ethernet 1/4]\nlinux = p4\n"
    "[interface ethernet 1/5]\nlinux = p5\n"
    "[interface port-channel 3]\nmembers = ethernet 1/4, ethernet 1/5\ntagged = 10\n"
    "[interface ethernet 2/1]\nuntagged = 10\n";  // a port with no Linux interface here

struct RxCase {
    const char* what;
    const char* arrival;
    int inlineTag, metaTag;  // < 0: none
    uint16_t metaTpid;
    size_t payloadLen, padding;
    bool checksumPending;
    size_t bufLen;
    // expected
    bool delivered;
    uint16_t vlan;
    size_t ipLen;            // of the IPv6 packet handed over
    bool checksumWritten;
};

void PrintTo(const RxCase& c, std::ostream* os) { *os << c.what; }

class L2FrameRx : public ::testing::TestWithParam<RxCase> {};

TEST_P(L2FrameRx, DaemonIsHandedTheLinkHeaderAndTheIpv6PacketOnly) {
    const RxCase& c = GetParam();
    const QorHostMap map = parseMap(kMap);
    const Bytes sent = clientFrame(c.inlineTag, c.payloadLen, c.padding);
    // As the socket reads: at kRxLead, cut to the buffer.
    Bytes buf(c.bufLen);
    const size_t frameLen = std::min(sent.size(), c.bufLen - l2::kRxLead);
    qor::putBytes(buf, l2::kRxLead, sent.data(), frameLen);
    l2::RxMeta meta;
    meta.linuxName = c.arrival;
    meta.metaTag = c.metaTag >= 0;
    meta.metaTci = uint16_t(c.metaTag >= 0 ? c.metaTag : 0);
    meta.metaTpid = c.metaTpid;
    meta.checksumPending = c.checksumPending;

    const auto d = l2::classify(map, meta, qor::ByteView(buf).subspan(l2::kRxLead, frameLen));
    ASSERT_EQ(d.has_value(), c.delivered);
    if (!d) return;
    EXPECT_EQ(d->vlan, c.vlan);
    EXPECT_EQ(d->physical, ifIdx("ethernet 1/1"));
    const size_t n = l2::deliver(buf, frameLen, *d, meta.checksumPending);
    ASSERT_EQ(n, QOR_L2_HDR_LEN + c.ipLen);
    const qor::ByteView got(buf.data(), n);
    EXPECT_EQ(Bytes(got.begin(), got.begin() + 12), Bytes(sent.begin(), sent.begin() + 12)) << "MACs";
    EXPECT_EQ(qor::u16At(got, 12), 0x8100);
    EXPECT_EQ(qor::u16At(got, 14), c.vlan) << "the VLAN id alone, without priority bits";
    EXPECT_EQ(qor::u16At(got, 16), 0x86DD);
    const qor::ByteView ip = got.subspan(QOR_L2_HDR_LEN);
    const size_t ipAt = c.inlineTag >= 0 ? 18 : 14;
    Bytes expected(sent.begin() + long(ipAt), sent.begin() + long(ipAt + c.ipLen));
    if (c.checksumWritten) {
        EXPECT_TRUE(udpChecksumRight(ip));
        qor::putU16(expected, 46, qor::u16At(ip, 46));
    }
    EXPECT_EQ(Bytes(ip.begin(), ip.end()), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Frames, L2FrameRx,
    ::testing::Values(
        RxCase{"padding", "p1", -1, -1, 0x8100, 5, 9, false, 2048, true, 10, 53, false},
        RxCase{"oddDatagramChecksum", "p1", -1, -1, 0x8100, 5, 0, true, 2048, true, 10, 53, true},
        RxCase{"paddedPendingChecksum", "p1", -1, -1, 0x8100, 1, 7, true, 2048, true, 10, 49, true},
        RxCase{"cutByTheBufferChecksumLeft", "p1", -1, -1, 0x8100, 100, 0, true, 90, true, 10, 72, false},
        RxCase{"priorityTagged", "p1", 0, -1, 0x8100, 4, 0, false, 2048, true, 10, 52, false},
        RxCase{"priorityTaggedInMetadata", "p1", -1, 0xA000, 0x8100, 4, 0, false, 2048, true, 10, 52, false},
        RxCase{"qinqMetadataTag", "p2", -1, 20, 0x88A8, 4, 0, false, 2048, false, 0, 0, false},
        RxCase{"nameOfTheInterfaceGone", "", -1, -1, 0x8100, 4, 0, false, 2048, false, 0, 0, false}),
    [](const auto& p) { return std::string(p.param.what); });

// A flood leaves by every port of the VLAN once (a port-channel by its first
// member that is up) but never back into the port-channel it came from.
TEST(L2FrameTx, FloodSkipsTheIngressPortChannelAndUsesAMemberThatIsUp) {
    const QorHostMap map = parseMap(kMap);
    const Bytes frame = clientFrame(10, 4, 0);
    struct Case {
        const char* ingress;
        const char* down;
        std::vector<std::pair<std::string, bool>> out;  // Linux interface, tagged
    };
    const Case cases[] = {
        {"ethernet 1/4", "", {{"p1", false}, {"p2", true}}},
        {"port-channel 3", "", {{"p1", false}, {"p2", true}}},
        {"ethernet 1/1", "", {{"p2", true}, {"p4", true}}},
        {"ethernet 1/1", "p4", {{"p2", true}, {"p5", true}}},
        {"ethernet 1/2", "p4p5", {{"p1", false}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.ingress) + ", down: " + c.down);
        Bytes msg(QOR_L2_FLOOD_HDR_LEN + frame.size(), 0);
        qor::putU32(msg, 0, QOR_L2_FLOOD_CMD);
        qor::putU32(msg, 4, ifIdx(c.ingress));
        qor::putU32(msg, 12, ifIdx("vlan 10"));
        qor::putBytes(msg, QOR_L2_FLOOD_HDR_LEN, frame.data(), frame.size());
        const std::string down = c.down;
        const l2::LinkUp up = [&](const std::string& name) { return down.find(name) == std::string::npos; };
        l2::TxPlan plan;
        ASSERT_EQ(l2::planFlood(map, 0, msg, up, plan), 0);
        std::vector<std::pair<std::string, bool>> out;
        for (const l2::Egress& e : plan.egresses) {
            const auto hdr = l2::txHeader(e, plan.frame, plan.vlan);
            ASSERT_TRUE(hdr.has_value()) << e.port->linuxName;
            out.emplace_back(e.port->linuxName, hdr->tagged);
        }
        EXPECT_EQ(out, c.out);
    }
}

}  // namespace
