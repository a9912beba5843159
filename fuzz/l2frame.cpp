// l2frame.cpp -- fuzz target for the packet layer's frame handling: any
// bytes as a frame the protocol socket received (the receive decision, the
// 18-byte link header, checksum completion) and as a frame the daemon sends
// or floods (header and tag, flood header, the ports it leaves by), over a
// host map with an access port, trunks, a routed port, a two-member
// port-channel, a management port and a port with no Linux interface.
//
// Input: byte 0 the arrival interface, byte 1 switches (tag in metadata,
// outgoing copy, checksum pending, 802.1ad metadata, flood command forced),
// bytes 2-3 the metadata TCI, 4-5 the receive buffer size, 6 which links are
// up, 7 the egress, 8-9 the send socket's VLAN option; the rest the frame.
// Buffers are heap copies of exactly their size, so any overrun stops the run.
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "qor/bytes.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2frame.h"
#include "qor/l2sock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

namespace l2 = qor::l2frame;
using Bytes = std::vector<uint8_t>;

constexpr size_t kControlLen = 10;

constexpr const char* kHostMap =
    "[interface ethernet 1/1]\nlinux = p1\nuntagged = 10\n"
    "[interface ethernet 1/2]\nlinux = p2\ntagged = 10,20,30-32\n"
    "[interface ethernet 1/3]\nlinux = p3\n"
    "[interface ethernet 1/4]\nlinux = p4\n"
    "[interface ethernet 1/5]\nlinux = p5\n"
    "[interface ethernet 1/6]\nlinux = p6\nuntagged = 20\ntagged = 10\n"
    "[interface ethernet 2/1]\nuntagged = 10\n"
    "[interface pe-ethernet 0/1/5]\nlinux = pe5\ntagged = 20\n"
    "[interface port-channel 3]\nmembers = ethernet 1/4, ethernet 1/5\nuntagged = 40\ntagged = 20\n"
    "[interface vlan 10]\nlinux = br10\n"
    "[interface management 1/0]\nlinux = m0\n";

// Where frames arrive: the mapped ports, a bridge, an unmapped and an unknown interface.
const char* const kArrivals[] = {"p1", "p2", "p3", "p4", "p5", "p6", "pe5", "m0", "br10", "zz", ""};
// Link-up bits of the input, by Linux name.
const char* const kLinks[] = {"p1", "p2", "p3", "p4", "p5", "p6", "pe5", "m0"};

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "l2frame: %s\n", what);
    std::abort();
}

void check(bool ok, const char* what) {
    if (!ok) broken(what);
}

uint32_t ifIdx(const char* name) {
    uint32_t ifIndex = 0;
    if (ifmNameToIfIndex(name, &ifIndex) != 0) broken(name);
    return ifIndex;
}

const QorHostMap& installedMap() {
    static const auto map = [] {
        QorHostMap m;
        std::string err;
        if (qorHostMapParse(kHostMap, m, err) != 0) broken(err.c_str());
        qorHostMapInstall(m);
        return qorHostMapGet();
    }();
    return *map;
}

bool carries(const QorHostIf& cfg, uint32_t vlan) {
    return vlan != 0 && (cfg.untaggedVlan == vlan ||
                         std::count(cfg.taggedVlans.begin(), cfg.taggedVlans.end(), vlan) != 0);
}

bool routed(const QorHostIf& cfg) { return cfg.untaggedVlan == 0 && cfg.taggedVlans.empty(); }

const QorHostIf& vlanConfigOf(const QorHostMap& map, const QorHostIf& port) {
    const QorHostIf* lag = map.find(map.lagOf(port.ifIndex));
    return lag != nullptr ? *lag : port;
}

bool inside(qor::ByteView part, qor::ByteView whole) {
    return part.data() >= whole.data() && part.size() <= whole.size() &&
           size_t(part.data() - whole.data()) <= whole.size() - part.size();
}

// The one's-complement sum of a UDP datagram with its pseudo-header.
bool udpChecksumRight(qor::ByteView ip) {
    const uint16_t udpLen = qor::u16At(ip, 44);
    uint32_t sum = l2::kIpProtoUdp + uint32_t(udpLen);
    for (size_t i = 8; i < 40 + size_t(udpLen); i += 2)
        sum += i + 1 < 40 + size_t(udpLen) ? qor::u16At(ip, i) : uint32_t(ip[i]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    return sum == 0xFFFF;
}

// ---- receiving -------------------------------------------------------------------------

void checkDelivery(const QorHostMap& map, const l2::RxMeta& meta, const l2::Delivery& d, qor::ByteView frame) {
    const QorHostIf* port = map.find(d.physical);
    check(port != nullptr && !port->linuxName.empty() && port->linuxName == meta.linuxName,
          "delivered as a port it did not arrive on");
    check(!meta.outgoing, "an outgoing copy delivered");
    check(d.ipOffset == 14 || (d.ipOffset == 18 && !meta.metaTag && qor::u16At(frame, 12) == l2::kTpid),
          "IPv6 header at the wrong place");
    check(qor::u16At(frame, d.ipOffset - 2) == l2::kEtherTypeIpv6, "not an IPv6 frame");
    if (ifmIfIndexToIfType(d.physical) == IFM_IFTYPE_MGMT) {
        check(d.logical == d.physical && d.recv == d.physical && d.vlan == 0, "management port as another");
        return;
    }
    const uint32_t lag = map.lagOf(d.physical);
    check(d.recv == (lag != 0 ? lag : d.physical), "receiving port is not the port-channel");
    const QorHostIf& cfg = vlanConfigOf(map, *port);
    const uint16_t tag = meta.metaTag ? meta.metaTci & 0x0FFF : d.ipOffset == 18 ? qor::u16At(frame, 14) & 0x0FFF : 0;
    check(tag == 0 || d.vlan == tag, "delivered in another VLAN than its tag");
    if (d.vlan == 0) {
        check(routed(cfg) && d.logical == d.recv, "no VLAN, yet not a routed port");
    } else {
        check(carries(cfg, d.vlan), "delivered in a VLAN the port does not carry");
        check(tag != 0 || cfg.untaggedVlan == d.vlan, "untagged, yet not the port's untagged VLAN");
        check(d.logical == ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, d.vlan), "logical is not the VLAN");
    }
}

void checkLinkHeader(qor::ByteView out, qor::ByteView frame, const l2::Delivery& d, size_t bufLen, bool pending) {
    check(out.size() >= QOR_L2_HDR_LEN + 40 && out.size() <= bufLen, "delivered length outside the buffer");
    check(std::equal(out.begin(), out.begin() + 12, frame.begin()), "MACs changed");
    check(qor::u16At(out, 12) == l2::kTpid && qor::u16At(out, 14) == d.vlan &&
              qor::u16At(out, 16) == l2::kEtherTypeIpv6,
          "link header");
    const qor::ByteView ip = out.subspan(QOR_L2_HDR_LEN), sent = frame.subspan(d.ipOffset);
    check(ip.size() <= sent.size() && ip.size() <= 40 + size_t(qor::u16At(sent, 4)), "more than the IPv6 packet");
    check(ip.size() == std::min(sent.size(), 40 + size_t(qor::u16At(sent, 4))) || out.size() == bufLen,
          "IPv6 packet cut short with room left");
    for (size_t i = 0; i < ip.size(); ++i)
        check(ip[i] == sent[i] || (pending && (i == 46 || i == 47)), "IPv6 packet changed");
    const size_t udpLen = qor::u16At(ip, 44);
    const bool whole = ip.size() >= 48 && ip[6] == l2::kIpProtoUdp && udpLen >= 8 && 40 + udpLen <= ip.size() &&
                       ip.size() == 40 + size_t(qor::u16At(ip, 4));
    if (pending && whole) check(udpChecksumRight(ip), "pending checksum left wrong");
}

void receive(const QorHostMap& map, const uint8_t* ctl, qor::ByteView frame) {
    l2::RxMeta meta;
    meta.linuxName = kArrivals[ctl[0] % std::size(kArrivals)];
    meta.metaTag = (ctl[1] & 1) != 0;
    meta.outgoing = (ctl[1] & 2) != 0;
    meta.checksumPending = (ctl[1] & 4) != 0;
    meta.metaTpid = (ctl[1] & 8) != 0 ? 0x88A8 : l2::kTpid;
    meta.metaTci = uint16_t(ctl[2] << 8 | ctl[3]);
    // As the socket reads: the frame at kRxLead, cut to the caller's buffer.
    const size_t bufLen = l2::kMinRxBuffer + (size_t(ctl[4] << 8 | ctl[5]) % (frame.size() + 64));
    Bytes buf(bufLen);
    const size_t frameLen = std::min(frame.size(), bufLen - l2::kRxLead);
    qor::putBytes(buf, l2::kRxLead, frame.data(), frameLen);
    const Bytes read(buf.begin() + long(l2::kRxLead), buf.begin() + long(l2::kRxLead + frameLen));
    const auto d = l2::classify(map, meta, qor::ByteView(buf).subspan(l2::kRxLead, frameLen));
    if (!d) return;
    checkDelivery(map, meta, *d, read);
    const size_t n = l2::deliver(buf, frameLen, *d, meta.checksumPending);
    checkLinkHeader(qor::ByteView(buf).first(std::min(n, bufLen)), read, *d, bufLen, meta.checksumPending);
}

// ---- sending ---------------------------------------------------------------------------

// named: the port the daemon gave as egress, which is used whatever its link.
void checkPlan(const QorHostMap& map, const l2::TxPlan& plan, qor::ByteView frame, const l2::LinkUp& linkUp,
               uint32_t named) {
    const l2::TxFrame& f = plan.frame;
    check(f.macs.size() == 12 && f.macs.data() == frame.data(), "MACs are not the frame's");
    const size_t l2Len = qor::u16At(frame, 12) == l2::kTpid ? QOR_L2_HDR_LEN : 14;
    check(inside(f.payload, frame) && f.payload.data() == frame.data() + l2Len &&
              f.payload.size() == frame.size() - l2Len,
          "payload is not the rest of the frame");
    check(plan.vlan <= 4095, "VLAN out of range");
    std::set<uint32_t> ports;
    for (const l2::Egress& e : plan.egresses) {
        check(e.port != nullptr && map.find(e.port->ifIndex) == e.port && !e.port->linuxName.empty(),
              "egress is not a mapped port with a Linux interface");
        const uint32_t type = ifmIfIndexToIfType(e.port->ifIndex);
        check(type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET, "egress is not a port");
        check(e.cfg == &vlanConfigOf(map, *e.port), "egress with another port's VLANs");
        if (e.cfg != e.port && e.port->ifIndex != named)
            check(linkUp(e.port->linuxName), "port-channel member without link");
        check(ports.insert(e.port->ifIndex).second, "a port twice");
        const auto hdr = l2::txHeader(e, f, plan.vlan);
        if (!hdr) {
            check(plan.vlan != 0 && !carries(*e.cfg, plan.vlan) && !routed(*e.cfg), "refused a VLAN it carries");
            continue;
        }
        const qor::ByteView h(hdr->bytes, hdr->len);
        check(hdr->len == (hdr->tagged ? QOR_L2_HDR_LEN : 14), "header length");
        check(std::equal(f.macs.begin(), f.macs.end(), h.begin()), "header MACs");
        check(qor::u16At(h, hdr->len - 2) == f.etherType, "header EtherType");
        check(!hdr->tagged || (qor::u16At(h, 12) == l2::kTpid && qor::u16At(h, 14) == plan.vlan &&
                               carries(*e.cfg, plan.vlan) && e.cfg->untaggedVlan != plan.vlan),
              "tagged where the port does not carry the VLAN tagged");
    }
}

void send(const QorHostMap& map, const uint8_t* ctl, qor::ByteView frame, const l2::LinkUp& linkUp) {
    const uint32_t egresses[] = {0,
                                 ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 10),
                                 ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, 4095),
                                 ifIdx("ethernet 1/1"),
                                 ifIdx("ethernet 1/2"),
                                 ifIdx("ethernet 1/3"),
                                 ifIdx("ethernet 1/4"),
                                 ifIdx("ethernet 1/6"),
                                 ifIdx("ethernet 2/1"),
                                 ifIdx("ethernet 1/9"),
                                 ifIdx("pe-ethernet 0/1/5"),
                                 ifIdx("port-channel 3"),
                                 ifIdx("port-channel 9"),
                                 ifIdx("management 1/0")};
    const uint32_t egress = egresses[ctl[7] % std::size(egresses)];
    const uint32_t optionVlan = uint32_t(ctl[8] << 8 | ctl[9]) % 4095;
    l2::TxPlan plan;
    const int err = l2::planSend(map, optionVlan, frame, egress, linkUp, plan);
    check(err == 0 || err == EINVAL || err == EDESTADDRREQ || err == ENETDOWN || err == ENXIO, "send errno");
    check((err == EINVAL) == (frame.size() < 14 || (qor::u16At(frame, 12) == l2::kTpid && frame.size() < 18)),
          "a frame refused or taken against its length");
    if (err != 0) return;
    checkPlan(map, plan, frame, linkUp, egress);
    const uint32_t type = ifmIfIndexToIfType(egress);
    if (egress != 0 && type != IFM_IFTYPE_VLAN) {
        check(plan.egresses.size() == 1, "one port named, not one egress");
        check(plan.egresses[0].port->ifIndex == egress || map.lagOf(plan.egresses[0].port->ifIndex) == egress,
              "left by another port than the one named");
    } else {
        check(plan.vlan != 0, "a VLAN send without a VLAN");
        for (const l2::Egress& e : plan.egresses) check(carries(*e.cfg, plan.vlan), "VLAN send off the VLAN");
    }
}

void flood(const QorHostMap& map, const uint8_t* ctl, qor::ByteView msg, const l2::LinkUp& linkUp) {
    Bytes copy(msg.begin(), msg.end());
    if ((ctl[1] & 16) != 0) qor::putU32(copy, 0, QOR_L2_FLOOD_CMD);
    const qor::ByteView b(copy);
    const uint32_t optionVlan = uint32_t(ctl[8] << 8 | ctl[9]) % 4095;
    l2::TxPlan plan;
    const int err = l2::planFlood(map, optionVlan, b, linkUp, plan);
    const bool headerOk = b.size() >= QOR_L2_FLOOD_HDR_LEN && qor::u32At(b, 0) == QOR_L2_FLOOD_CMD;
    check(err == 0 || err == EINVAL, "flood errno");
    if (!headerOk) check(err == EINVAL, "a flood without its header taken");
    if (err != 0) return;
    const qor::ByteView frame = b.subspan(QOR_L2_FLOOD_HDR_LEN);
    checkPlan(map, plan, frame, linkUp, 0);
    const uint32_t ingress = qor::u32At(b, 4);
    const uint32_t ingressLag = ifmIfIndexToIfType(ingress) == IFM_IFTYPE_LAG ? ingress : map.lagOf(ingress);
    for (const l2::Egress& e : plan.egresses) {
        check(e.port->ifIndex != ingress, "flooded back to its ingress");
        check(ingressLag == 0 || map.lagOf(e.port->ifIndex) != ingressLag, "flooded into the ingress port-channel");
        check(carries(*e.cfg, plan.vlan), "flooded off the VLAN");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size < kControlLen) return 0;
    const QorHostMap& map = installedMap();
    const uint8_t* ctl = data;
    const Bytes frame(data + kControlLen, data + size);  // exactly the frame's size
    const uint8_t upMask = ctl[6];
    const l2::LinkUp linkUp = [upMask](const std::string& name) {
        for (size_t i = 0; i < std::size(kLinks); ++i)
            if (name == kLinks[i]) return (upMask >> i & 1) != 0;
        return false;
    };
    receive(map, ctl, frame);
    send(map, ctl, frame, linkUp);
    flood(map, ctl, frame, linkUp);
    return 0;
}
