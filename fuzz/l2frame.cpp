// l2frame.cpp -- fuzz target for the packet layer's frame handling: any bytes as a frame the protocol socket
// received (receive decision, 18-byte link header, checksum completion) and as one the daemon sends or floods,
// over a host map with an access port, trunks, a routed port, a port-channel, a management port and a port with
// no Linux interface. Input: byte 0 the arrival interface, 1 switches (tag in metadata, outgoing copy, checksum
// pending, 802.1ad metadata, flood command forced), 2-3 the metadata TCI, 4-5 the receive buffer size, 6 which
// links are up, 7 the egress, 8-9 the send socket's VLAN option; the rest the frame.
#include "harness.h"
#include "qor/l2frame.h"

namespace {

namespace l2 = qor::l2frame;
using fz::check;

// Arrival interfaces; the first eight have a link-up bit.
const char* const kLinks[] = {"p1", "p2", "p3", "p4", "p5", "p6", "pe5", "m0", "br10", "zz", ""};
const char* const kEgresses[] = {"ethernet 1/1", "ethernet 1/2", "ethernet 1/3", "ethernet 1/4", "ethernet 1/6",
                                 "ethernet 2/1", "ethernet 1/9", "pe-ethernet 0/1/5", "port-channel 3",
                                 "port-channel 9", "management 1/0"};

QorHostMap hostMap() {  // installed too, for the interface names
    QorHostMap m;
    std::string err;
    check(qorHostMapParse("[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n[interface ethernet 1/2]\nlinux = p2\n"
                          "tagged = 10,20,30-32\n[interface ethernet 1/3]\nlinux = p3\n[interface ethernet 1/4]\n"
                          "linux = p4\n[interface ethernet 1/5]\nlinux = p5\n[interface ethernet 1/6]\nlinux = p6\n"
                          "untagged = 20\ntagged = 10\n[interface ethernet 2/1]\nuntagged = 10\n"
                          "[interface pe-ethernet 0/1/5]\nlinux = pe5\ntagged = 20\n[interface port-channel 3]\n"
                          "members = ethernet 1/4, ethernet 1/5\nuntagged = 40\ntagged = 20\n[interface vlan 10]\n"
                          "linux = br10\n[interface management 1/0]\nlinux = m0\n", m, err) == 0,
          "host map refused");
    qorHostMapInstall(m);
    return m;
}

void checkPlan(const l2::TxPlan& plan, qor::ByteView frame) {
    const size_t l2Len = qor::u16At(frame, 12) == l2::kTpid ? QOR_L2_HDR_LEN : 14;
    check(plan.frame.payload.data() == frame.data() + l2Len && plan.frame.payload.size() == frame.size() - l2Len,
          "payload is not the rest of the frame");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const QorHostMap map = hostMap();
    if (data == nullptr || size < 10) return 0;
    const std::vector<uint8_t> frame(data + 10, data + size);  // exactly the frame's size
    const uint8_t flags = data[1];
    l2::RxMeta meta{kLinks[data[0] % std::size(kLinks)], (flags & 2) != 0, (flags & 1) != 0,
                    uint16_t(data[2] << 8 | data[3]), (flags & 8) ? uint16_t(0x88A8) : l2::kTpid, (flags & 4) != 0};
    // Received as the socket reads: at kRxLead in a buffer of the chosen size. The daemon is handed the link header
    // of the delivery's VLAN and no more than the IPv6 packet, inside the buffer.
    std::vector<uint8_t> buf(l2::kMinRxBuffer + (size_t(data[4] << 8 | data[5]) % (frame.size() + 64)));
    const size_t frameLen = std::min(frame.size(), buf.size() - l2::kRxLead);
    qor::putBytes(buf, l2::kRxLead, frame.data(), frameLen);
    if (const auto d = l2::classify(map, meta, qor::ByteView(buf).subspan(l2::kRxLead, frameLen))) {
        const size_t n = l2::deliver(buf, frameLen, *d, meta.checksumPending);
        const size_t ipLen = std::min(frameLen - d->ipOffset, 40 + size_t(qor::u16At(frame, d->ipOffset + 4)));
        check(!meta.outgoing && n >= QOR_L2_HDR_LEN + 40 && n <= buf.size() && n - QOR_L2_HDR_LEN <= ipLen &&
                  qor::u16At(buf, 14) == d->vlan,
              "delivered more than the IPv6 packet or the buffer, or in another VLAN");
    }
    // Sent to 0, VLAN 10, VLAN 4095 or a named interface: a frame too short, and only that, is refused with EINVAL.
    const l2::LinkUp linkUp = [up = data[6]](const std::string& name) {
        for (size_t i = 0; i < 8; ++i)
            if (name == kLinks[i]) return (up >> i & 1) != 0;
        return false;
    };
    const size_t pick = data[7] % (std::size(kEgresses) + 3);
    uint32_t egress = pick == 1 ? fz::vlanIf(10) : pick == 2 ? fz::vlanIf(4095) : 0;
    if (pick >= 3) check(ifmNameToIfIndex(kEgresses[pick - 3], &egress) == 0, "egress name");
    const uint32_t optionVlan = uint32_t(data[8] << 8 | data[9]) % 4095;
    l2::TxPlan plan, flood;
    const int err = l2::planSend(map, optionVlan, frame, egress, linkUp, plan);
    check((err == EINVAL) == (frame.size() < 14 || (qor::u16At(frame, 12) == l2::kTpid && frame.size() < 18)),
          "a frame refused or taken against its length");
    if (err == 0) checkPlan(plan, frame);
    // Flooded: only after its header.
    std::vector<uint8_t> b = frame;
    if (flags & 16) qor::putU32(b, 0, QOR_L2_FLOOD_CMD);
    if (l2::planFlood(map, optionVlan, b, linkUp, flood) != 0) return 0;
    check(b.size() >= QOR_L2_FLOOD_HDR_LEN && qor::u32At(b, 0) == QOR_L2_FLOOD_CMD, "a flood without its header");
    checkPlan(flood, qor::ByteView(b).subspan(QOR_L2_FLOOD_HDR_LEN));
    return 0;
}
