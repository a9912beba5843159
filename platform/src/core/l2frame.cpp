// l2frame.cpp -- the packet layer's frame handling over bytes and the host
// map: the receive decision and the link header, checksum completion, and
// the reading and routing of frames sent and flooded.
#include "qor/l2frame.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "qor/ifm.h"

namespace qor::l2frame {

namespace {

constexpr size_t kIpUdpHeaders = 48;

// ---- VLAN membership -----------------------------------------------------------------

bool isPort(uint32_t ifIndex) {
    const uint32_t type = ifmIfIndexToIfType(ifIndex);
    return type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET;
}

bool carriesTagged(const QorHostIf& cfg, uint32_t vlan) {
    return vlan != 0 && std::binary_search(cfg.taggedVlans.begin(), cfg.taggedVlans.end(), vlan);
}

bool carries(const QorHostIf& cfg, uint32_t vlan) {
    return vlan != 0 && (cfg.untaggedVlan == vlan || carriesTagged(cfg, vlan));
}

bool isRouted(const QorHostIf& cfg) { return cfg.untaggedVlan == 0 && cfg.taggedVlans.empty(); }

// A port-channel member carries what its port-channel carries.
const QorHostIf& vlanConfigOf(const QorHostMap& map, const QorHostIf& port) {
    const QorHostIf* lag = map.find(map.lagOf(port.ifIndex));
    return lag != nullptr ? *lag : port;
}

// ---- egress ports ------------------------------------------------------------------

std::optional<Egress> lagEgress(const QorHostMap& map, const QorHostIf& lag, const LinkUp& linkUp) {
    for (uint32_t member : lag.members) {
        const QorHostIf* port = map.find(member);
        if (port != nullptr && !port->linuxName.empty() && linkUp(port->linuxName)) return Egress{port, &lag};
    }
    return std::nullopt;
}

std::optional<Egress> portEgress(const QorHostMap& map, uint32_t ifIndex, const LinkUp& linkUp) {
    const QorHostIf* itf = map.find(ifIndex);
    if (itf == nullptr) return std::nullopt;
    if (ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_LAG) return lagEgress(map, *itf, linkUp);
    if (!isPort(ifIndex) || itf->linuxName.empty()) return std::nullopt;
    return Egress{itf, &vlanConfigOf(map, *itf)};
}

// Every port of a VLAN (a port-channel once, through a member that is up),
// but the one given and its port-channel.
std::vector<Egress> vlanEgresses(const QorHostMap& map, uint32_t vlan, uint32_t except, const LinkUp& linkUp) {
    const uint32_t exceptLag = ifmIfIndexToIfType(except) == IFM_IFTYPE_LAG ? except : map.lagOf(except);
    std::vector<Egress> out;
    for (const auto& [ifIndex, itf] : map.interfaces) {
        if (!carries(itf, vlan) || ifIndex == except) continue;
        if (isPort(ifIndex) && !itf.linuxName.empty() && map.lagOf(ifIndex) == 0) {
            out.push_back({&itf, &itf});
        } else if (ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_LAG && ifIndex != exceptLag) {
            if (auto e = lagEgress(map, itf, linkUp)) out.push_back(*e);
        }
    }
    return out;
}

}  // namespace

// ---- receiving -------------------------------------------------------------------------

std::optional<FrameVlan> frameVlan(const RxMeta& meta, ByteView frame) {
    const uint16_t etherType = u16At(frame, 12);
    FrameVlan v;
    if (meta.metaTag) {
        if (meta.metaTpid != kTpid || etherType != kEtherTypeIpv6) return std::nullopt;
        v.vlan = meta.metaTci & 0x0FFF;
    } else if (etherType == kTpid) {
        if (u16At(frame, 16) != kEtherTypeIpv6) return std::nullopt;
        v = {uint16_t(u16At(frame, 14) & 0x0FFF), QOR_L2_HDR_LEN};
    } else if (etherType != kEtherTypeIpv6) {
        return std::nullopt;
    }
    if (!fits(frame.size(), v.ipOffset, kIpUdpHeaders)) return std::nullopt;
    return v;
}

std::optional<Delivery> classify(const QorHostMap& map, const RxMeta& meta, ByteView frame) {
    if (meta.outgoing) return std::nullopt;
    const auto at = frameVlan(meta, frame);
    if (!at) return std::nullopt;
    // An interface whose name could not be learnt is nobody's port, even one
    // the map names without a Linux interface.
    if (meta.linuxName.empty()) return std::nullopt;
    const QorHostIf* port = map.portByLinuxName(meta.linuxName);
    if (port == nullptr) return std::nullopt;
    Delivery d;
    d.ipOffset = at->ipOffset;
    if (ifmIfIndexToIfType(port->ifIndex) == IFM_IFTYPE_MGMT) {
        // The daemon drops these itself, by their physical interface.
        d.logical = d.physical = d.recv = port->ifIndex;
        return d;
    }
    const uint32_t lag = map.lagOf(port->ifIndex);
    const QorHostIf& cfg = vlanConfigOf(map, *port);
    const uint16_t tag = at->vlan;
    if (tag != 0 && !carries(cfg, tag)) return std::nullopt;
    if (tag == 0 && cfg.untaggedVlan == 0 && !isRouted(cfg)) return std::nullopt;  // a trunk without a native VLAN
    d.vlan = tag != 0 ? tag : uint16_t(cfg.untaggedVlan);
    d.physical = port->ifIndex;
    d.recv = lag != 0 ? lag : port->ifIndex;
    d.logical = d.vlan != 0 ? ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, d.vlan) : d.recv;
    return d;
}

// A UDP datagram a local sender handed to a device that computes checksums
// (a veth does) reaches a packet socket with the checksum not yet written;
// it is written here, as the frame would carry it on a wire.
void completeUdpChecksum(MutByteView ip) {
    uint16_t udpLen = 0;
    if (u16At(ip, 4) + size_t(40) > ip.size() || ip[6] != kIpProtoUdp || !getU16(ip, 44, udpLen) || udpLen < 8 ||
        !fits(ip.size(), 40, udpLen))
        return;
    putU16(ip, 46, 0);
    uint32_t sum = kIpProtoUdp + uint32_t(udpLen);
    for (size_t i = 8; i < 40; i += 2) sum += u16At(ip, i);
    for (size_t i = 0; i + 1 < udpLen; i += 2) sum += u16At(ip, 40 + i);
    if (udpLen % 2 != 0) sum += uint32_t(ip[40 + udpLen - 1]) << 8;
    while (sum > 0xFFFF) sum = (sum & 0xFFFF) + (sum >> 16);
    const uint16_t checksum = uint16_t(~sum);
    putU16(ip, 46, checksum != 0 ? checksum : 0xFFFF);
}

size_t deliver(MutByteView buf, size_t frameLen, const Delivery& d, bool checksumPending) {
    if (!fits(buf.size(), kRxLead, frameLen) || d.ipOffset < 14 || d.ipOffset > frameLen) return 0;
    const ByteView frame = buf.subspan(kRxLead, frameLen);
    uint8_t hdr[QOR_L2_HDR_LEN];
    const MutByteView h(hdr, sizeof hdr);
    putBytes(h, 0, frame.data(), 12);  // destination and source MAC
    putU16(h, 12, kTpid);
    putU16(h, 14, d.vlan);
    putU16(h, 16, kEtherTypeIpv6);
    const ByteView ip = frame.subspan(d.ipOffset);
    // The IPv6 payload length drops Ethernet padding.
    const size_t ipLen = std::min({ip.size(), size_t(40) + u16At(ip, 4), buf.size() - QOR_L2_HDR_LEN});
    std::memmove(buf.data() + QOR_L2_HDR_LEN, ip.data(), ipLen);
    putBytes(buf, 0, hdr, sizeof hdr);
    if (checksumPending) completeUdpChecksum(buf.subspan(QOR_L2_HDR_LEN, ipLen));
    return QOR_L2_HDR_LEN + ipLen;
}

// ---- sending ---------------------------------------------------------------------------

std::optional<TxFrame> parseTx(ByteView b) {
    if (b.size() < 14) return std::nullopt;
    TxFrame f;
    f.macs = b.first(12);
    f.etherType = u16At(b, 12);
    size_t off = 14;
    if (f.etherType == kTpid) {
        if (b.size() < QOR_L2_HDR_LEN) return std::nullopt;
        f.tag = u16At(b, 14) & 0x0FFF;
        f.etherType = u16At(b, 16);
        off = QOR_L2_HDR_LEN;
    }
    f.payload = b.subspan(off);
    return f;
}

std::optional<FloodHeader> parseFloodHeader(ByteView b) {
    if (b.size() < QOR_L2_FLOOD_HDR_LEN || u32At(b, 0) != QOR_L2_FLOOD_CMD) return std::nullopt;
    return FloodHeader{u32At(b, 4), u32At(b, 12)};
}

int planSend(const QorHostMap& map, uint32_t optionVlan, ByteView b, uint32_t egressIfIndex,
             const LinkUp& linkUp, TxPlan& out) {
    const auto f = parseTx(b);
    if (!f) return EINVAL;
    uint32_t vlan = optionVlan != 0 ? optionVlan : f->tag;
    const uint32_t type = ifmIfIndexToIfType(egressIfIndex);
    if (egressIfIndex == 0 || type == IFM_IFTYPE_VLAN) {
        // No port named: every port of the VLAN.
        if (vlan == 0) vlan = ifmIfIndexToVlanId(egressIfIndex);
        if (vlan == 0) return EDESTADDRREQ;
        out = TxPlan{*f, vlan, vlanEgresses(map, vlan, 0, linkUp)};
        return 0;
    }
    const auto e = portEgress(map, egressIfIndex, linkUp);
    if (!e) return type == IFM_IFTYPE_LAG && map.hasInterface(egressIfIndex) ? ENETDOWN : ENXIO;
    out = TxPlan{*f, vlan, {*e}};
    return 0;
}

int planFlood(const QorHostMap& map, uint32_t optionVlan, ByteView b, const LinkUp& linkUp, TxPlan& out) {
    const auto hdr = parseFloodHeader(b);
    if (!hdr) return EINVAL;
    const auto f = parseTx(b.subspan(QOR_L2_FLOOD_HDR_LEN));
    if (!f) return EINVAL;
    uint32_t vlan = optionVlan;
    if (vlan == 0)
        vlan = ifmIfIndexToIfType(hdr->vlanIf) == IFM_IFTYPE_VLAN ? ifmIfIndexToVlanId(hdr->vlanIf) : f->tag;
    // A routed port has no VLAN to flood in.
    out = TxPlan{*f, vlan, vlan != 0 ? vlanEgresses(map, vlan, hdr->ingress, linkUp) : std::vector<Egress>{}};
    return 0;
}

std::optional<TxHeader> txHeader(const Egress& e, const TxFrame& f, uint32_t vlan) {
    const bool tagged = carriesTagged(*e.cfg, vlan);
    if (vlan != 0 && !tagged && e.cfg->untaggedVlan != vlan && !isRouted(*e.cfg)) return std::nullopt;
    TxHeader h;
    const MutByteView out(h.bytes, sizeof h.bytes);
    putBytes(out, 0, f.macs.data(), std::min(f.macs.size(), size_t(12)));
    h.len = 14;
    h.tagged = tagged;
    if (tagged) {
        putU16(out, 12, kTpid);
        putU16(out, 14, uint16_t(vlan));
        h.len = QOR_L2_HDR_LEN;
    }
    putU16(out, h.len - 2, f.etherType);
    return h;
}

}  // namespace qor::l2frame
