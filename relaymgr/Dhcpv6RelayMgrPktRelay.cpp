// Dhcpv6RelayMgrPktRelay.cpp -- packet intake, Relay-Forward and Relay-Reply
// handling, and transmission to servers and clients.
//
// Frames arrive from the protocol socket with an 18-byte link header; every
// function here takes any bytes and any length and stays inside them: the
// 8-bit lengths the relay keeps on purpose never reach past what arrived.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dhcpv6RelayEvents.h"
#include "dhcpv6RelayMgr.h"
#include "qor/bytes.h"
#include "qor/dhcpv6pkt.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/l2sock.h"
#include "qor/mem.h"
#include "qor/task.h"

dhcpv6MsgPtrs dhcpv6MsgOut{};
uint8_t mac_addr[6] = {};
uint8_t chassisMacPresent = 0;
uint32_t qorDhcpv6Stats[1] = {};

namespace {

constexpr const char* kUnit = "Dhcpv6RelayMgrPktRelay";
constexpr const char* kIfNamePrefix = "QORS";

constexpr size_t kIp6HdrLen = 40;
constexpr size_t kIp6OffPayloadLen = 4;
constexpr size_t kIp6OffSrc = 8;
constexpr size_t kIp6OffDst = 24;
constexpr size_t kUdpHdrLen = 8;
constexpr size_t kUdpOffDstPort = 2;
constexpr size_t kUdpOffLen = 4;
constexpr size_t kUdpOffCksum = 6;
constexpr uint8_t kNextHdrUdp = 17;
constexpr uint8_t kHopLimit = 255;

constexpr size_t kRelayOffHop = 1;
constexpr size_t kRelayOffLink = 2;
constexpr size_t kRelayOffPeer = 18;
constexpr uint16_t kOptionHdrLen = 4;
constexpr uint32_t kMinRelayMsgOptLen = 4;
// The relay header and the three options around the client message.
constexpr uint32_t kRelayFwdRoom = 96;

constexpr uint32_t kLowByte = 0xFF;  // the relay holds outer lengths in 8 bits
constexpr size_t kTypeNameLen = 20;
constexpr size_t kAddrTextLen = 128;
constexpr size_t kMacTextLen = 17;
constexpr size_t kPortTextLen = 14;
constexpr size_t kIfIdFieldLen = 29;

// The client frame: link header, IPv6 header, UDP header, then the message.
constexpr size_t kFrameOffTpid = 12;
constexpr size_t kFrameOffTag = 14;
constexpr size_t kFrameOffEtherType = 16;
constexpr size_t kFrameOffIp6 = 18;
constexpr size_t kFrameOffUdp = 58;
constexpr size_t kFrameHdrLen = 66;
constexpr uint16_t kTpid8021Q = 0x8100;
constexpr uint16_t kEtherTypeIpv6 = 0x86DD;
constexpr uint32_t kIp6VersionWord = 0x60000000;

// Slots 48 and above in an Interface-ID are port-extender logical slots.
constexpr int32_t kPeFirstSlot = 48;
constexpr int32_t kPeUnitsPerId = 16;
constexpr int32_t kPeSlotBase = 3;  // a unit's slot: unit + (id + 3) * 16
constexpr uint32_t kPeCardSlotShift = 19;
constexpr uint32_t kMaxUsrPort = 2047;

constexpr int kRelaySockSndBuf = 12000;
constexpr size_t kOptWordsLen = 20;  // five words: the platform's option records
constexpr size_t kFloodIpcOffTick = 16;
constexpr size_t kFloodIpcOffSlot = 48;
constexpr size_t kFloodIpcOffLogical = 60;
constexpr size_t kFloodIpcOffPhysical = 64;
constexpr size_t kFloodIpcOffLength = 68;
constexpr size_t kFloodIpcHdrLen = 72;

constexpr uint8_t kMsgRelayForw = 12;
constexpr uint8_t kMsgRelayRepl = 13;

auto& g = dhcpv6RelayGlobalVar;

// The relay socket to the servers: made at the first send, kept for good.
int dhcpv6RelaySockFd = -1;

void dbg(uint32_t bits, const char* format, ...) __attribute__((format(printf, 2, 3)));
void dbg(uint32_t bits, const char* format, ...) {
    if (!dhcpv6Dbg(bits)) return;
    va_list ap;
    va_start(ap, format);
    vprintf(format, ap);
    va_end(ap);
}

void formatInto(char* out, size_t size, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void formatInto(char* out, size_t size, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    vsnprintf(out, size, format, ap);
    va_end(ap);
}

constexpr uint32_t kDbgEvtPkt = DHCPV6_DBG_EVENT | DHCPV6_DBG_PKT;

// Where the parts of a received frame lie. msgLen counts the bytes that
// arrived behind the UDP header, whatever the length fields say.
struct dhcpv6Frame {
    uint8_t* ip6;
    uint8_t* udp;
    uint32_t udpOffset;
    uint8_t* msg;
    uint32_t msgLen;
};

bool dhcpv6LocateUdp(uint8_t* packet, uint32_t length, dhcpv6Frame& out) {
    if (packet == nullptr || length < DHCPV6_L2_HDR_LEN) return false;
    uint32_t offset = 0;
    uint8_t* ip6 = packet + DHCPV6_L2_HDR_LEN;
    uint8_t* udp = dhcpv6_getudphdr(ip6, packet + length, &offset);
    if (udp == nullptr) return false;
    out = {ip6, udp, offset, udp + kUdpHdrLen,
           uint32_t(length - DHCPV6_L2_HDR_LEN - offset - kUdpHdrLen)};
    return true;
}

uint16_t be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }

std::array<char, kAddrTextLen> addrText(const uint8_t* addr) {
    std::array<char, kAddrTextLen> text{};
    inet_ntop(AF_INET6, addr, text.data(), socklen_t(text.size()));
    return text;
}

std::array<char, IFM_IFNAME_LEN> ifName(uint32_t ifIndex) {
    std::array<char, IFM_IFNAME_LEN> name{};
    ifmIfIndexToName(ifIndex, name.data());
    return name;
}

std::array<char, kTypeNameLen> typeName(uint8_t type) {
    std::array<char, kTypeNameLen> name{};
    dhcpv6PktTypeToStr(type, name.data(), name.size() - 1);
    return name;
}

bool dhcpv6IntfInfo(uint32_t ifIndex, nbsdIntfInfo& out) {
    char name[IFM_IFNAME_LEN];
    formatInto(name, sizeof name, "%s%x", kIfNamePrefix, ifIndex);
    out = nbsdIntfInfo{};
    return nbsdGetIntfInfoForName(name, &out) != 0;
}

// The source interface of what the relay sends for a client interface: its
// own source interface when that has an address, else the system-wide one
// when that has one. 0 when neither; outAddr is then left alone.
uint32_t dhcpv6PickSourceIntf(uint32_t ownSrcIfIndex, uint8_t outAddr[16]) {
    for (uint32_t candidate : {ownSrcIfIndex, g.srcIfIndex}) {
        nbsdIntfInfo info;
        if (candidate == 0 || !dhcpv6IntfInfo(candidate, info) || !info.hasGlobalIpv6) continue;
        std::memcpy(outAddr, info.ipv6Addr, 16);
        return candidate;
    }
    return 0;
}

void dhcpv6L2Addr(uint8_t (&addr)[QOR_L2_ADDR_LEN]) {
    std::memset(addr, 0, sizeof addr);
    addr[0] = uint8_t(QOR_L2_ADDR_LEN);
    addr[1] = uint8_t(AF_QORL2);
}

// A socket option record of the platform: five host-order words.
using dhcpv6OptWords = std::array<uint32_t, kOptWordsLen / 4>;

// ---- intake ------------------------------------------------------------------------------------

enum class dhcpv6MsgClass { Client, Server, Ignored };

// Which way a message type goes. The test is on (t - 1) mod 256 against the
// two masks; DECLINE and INFORMATION-REQUEST are deliberately not relayed.
dhcpv6MsgClass dhcpv6Classify(uint8_t type) {
    constexpr uint32_t kClientMask = 0x8bd;   // 1 3 4 5 6 8 12
    constexpr uint32_t kServerMask = 0x1042;  // 2 7 13
    const uint8_t bit = uint8_t(type - 1);
    if (bit > 12) return dhcpv6MsgClass::Ignored;
    if ((kClientMask >> bit) & 1) return dhcpv6MsgClass::Client;
    if ((kServerMask >> bit) & 1) return dhcpv6MsgClass::Server;
    return dhcpv6MsgClass::Ignored;
}

// ---- Relay-Forward
// -------------------------------------------------------------------------------

std::array<char, kPortTextLen> dhcpv6PortText(uint32_t physical) {
    std::array<char, kPortTextLen> text{};
    const int32_t slot = int32_t(ifmGetIfIndexToLogicalSlotId(physical));
    if (ifmIfIndexToPeFlag(physical) != 0) {
        formatInto(text.data(), text.size(), "%d:%d", (slot - kPeFirstSlot) % kPeUnitsPerId,
                   int(ifmIfIndexToPortId(physical)));
        return text;
    }
    const uint32_t usrPort = ifmIfIndexToUsrPortId(physical);
    const uint32_t mainPort = qorUsrPortToMainPort(usrPort);
    const uint32_t subPort = qorUsrPortToSubPort(usrPort);
    const bool subValid = qorIsSubPortValid(subPort) == 1;
    if (qorIsFourTupleSupported() != 0) {
        uint32_t module = 0, port = 0;
        qorGetPlugModIdAndPortFromMainPort(mainPort, &module, &port);
        if (subValid)
            formatInto(text.data(), text.size(), "%d:%d:%d", int(module), int(port), int(subPort));
        else
            formatInto(text.data(), text.size(), "%d:%d", int(module), int(port));
    } else if (subValid) {
        formatInto(text.data(), text.size(), "%d:%d", int(mainPort), int(subPort));
    } else {
        formatInto(text.data(), text.size(), "%d", int(mainPort));
    }
    return text;
}

// The hop-count of the Relay-Forward for a received message: 0 for a client,
// one more than the downstream relay's. -1 when the relay may not forward.
int dhcpv6HopCount(const dhcpv6Frame& f) {
    if (f.msgLen < 1) return -1;
    if (f.msg[0] != kMsgRelayForw) return 0;
    if (f.msgLen < 2) return -1;
    const uint8_t inner = f.msg[kRelayOffHop];
    // The relay counts up to 32 hops (more than RFC 8415's 8): deployments
    // stack relays deeply.
    if (inner <= DHCPV6_MAX_HOP_COUNT - 1) return inner + 1;
    dbg(DHCPV6_DBG_EVENT, "DHCPV6RelayMgr: dhcpv6 max hop count(%d) is exceeded\r\n", inner);
    return -1;
}

bool dhcpv6AppendRemoteId(std::span<uint8_t> out, uint32_t* used) {
    if (chassisMacPresent == 0) {
        uint8_t mac[6] = {};
        if (qorHaGetChassisMacAddr(mac) == 0) {
            std::memcpy(g.chassisMac, mac, sizeof mac);
            chassisMacPresent = 1;
        } else {
            dbg(DHCPV6_DBG_EVENT,
                "qorHaGetChassisMacAddr failed.. Filling 0s for MACin remote Id \r");
        }
    }
    const uint8_t* m = g.chassisMac;
    char text[kMacTextLen + 1] = {};
    formatInto(text, sizeof text, "%x:%x:%x:%x:%x:%x", m[0], m[1], m[2], m[3], m[4], m[5]);
    uint8_t remoteId[DHCPV6_REMOTE_ID_LEN] = {};
    qor::putU32(remoteId, 0, DHCPV6_REMOTE_ID_ENTERPRISE);
    std::memcpy(remoteId + 4, text, kMacTextLen);  // NUL-padded to 17
    dbg(kDbgEvtPkt, "Adding DHCPV6_OPTION_REMOTE_ID option \r");
    if (dhcpv6AddRelayOptionsData(out, used, DHCPV6_OPTION_REMOTE_ID, remoteId, sizeof remoteId))
        return true;
    dbg(DHCPV6_DBG_EVENT, "Adding DHCPV6_OPTION_REMOTE_ID option failed \r");
    return false;
}

// ---- Relay-Reply
// ---------------------------------------------------------------------------------

// The client's interfaces, decoded from the Interface-ID text.
struct dhcpv6ClientIntf {
    uint32_t clientIfIndex;  // the VLAN, else the port-channel, else the port
    uint32_t portIfIndex;    // the port-channel, else the port: the egress
};

void dhcpv6IfIdFormatError(int line, int length) {
    dbg(DHCPV6_DBG_EVENT,
        "%s :%d DHCPV6_OPTION_INTERFACE_ID option is not in correct format length:len [%d:%d]\r\n",
        "dhcpv6ClientRelay", line, length, length);
}

// Reads the ':'-separated fields of an Interface-ID text one after another.
class dhcpv6IfIdFields {
public:
    explicit dhcpv6IfIdFields(const char* text) : text_(text) {}
    // The next field; with `check`, false (and the format message) when no
    // ':' followed it.
    bool next(int32_t& out, bool check, int line) {
        const char* rest = text_ + pos_;
        const int remaining = int(strlen(rest));
        int consumed = 0;
        out = dhcpv6GetFromOption18(rest, remaining, &consumed);
        if (check && consumed == remaining) {
            dhcpv6IfIdFormatError(line, remaining);
            return false;
        }
        pos_ += size_t(consumed);
        return true;
    }

private:
    const char* text_;
    size_t pos_ = 0;
};

// The port of a line card from the rest of the text (module, port, sub-port).
uint32_t dhcpv6LinecardPort(dhcpv6IfIdFields& fields, int32_t slot, bool& ok) {
    ok = false;
    int32_t module = 0, port = 0, subPort = 0;
    if (qorIsFourTupleSupported() != 0 && !fields.next(module, true, __LINE__)) return 0;
    fields.next(port, false, __LINE__);
    const uint32_t cardType = halDrvCardIdGetFromSlot(uint32_t(slot));
    if (cardType == 0) {
        dbg(DHCPV6_DBG_EVENT, "%s :%d DHCPV6: cardType not present for slotId %d \r\n",
            "dhcpv6ClientRelay", __LINE__, slot);
        return 0;
    }
    fields.next(subPort, false, __LINE__);
    const uint32_t usrPort =
        qorMainAndSubPortToUsrPort(uint32_t(module), uint32_t(port), uint32_t(subPort));
    const uint32_t portId = qorSysCardTypeUsrPortIdToPortId(cardType, kMaxUsrPort, usrPort);
    const uint32_t ifType = qorSysCardTypeToIfmIfType(cardType, portId);
    if (ifType == 0) {
        dbg(DHCPV6_DBG_EVENT, "%s :%d DHCPV6: ifType is not correct\r\n", "dhcpv6ClientRelay",
            __LINE__);
        return 0;
    }
    dbg(DHCPV6_DBG_EVENT, "%s :%d derive LM ifIndex ifType %d slotId %d portId %d subPortId %d\r\n",
        "dhcpv6ClientRelay", __LINE__, int(ifType), slot, int(portId), subPort);
    ok = true;
    return ifmCreateIfIndex(ifType, uint32_t(slot), portId, cardType);
}

// The port of a port extender (logical slot 48 and above).
uint32_t dhcpv6ExtenderPort(dhcpv6IfIdFields& fields, int32_t slot) {
    const int64_t peId = (int64_t(slot) - kPeFirstSlot) >> 4;
    int32_t unit = 0, pePort = 0;
    fields.next(unit, false, __LINE__);
    fields.next(pePort, false, __LINE__);
    const uint32_t unitSlot = uint32_t(int64_t(unit) + (peId + kPeSlotBase) * kPeUnitsPerId);
    const uint32_t cardType = halDrvCardIdGetFromSlot(unitSlot) | (unitSlot << kPeCardSlotShift);
    const uint32_t ifType = qorSysCardTypeToIfmIfType(cardType, uint32_t(pePort));
    dbg(DHCPV6_DBG_EVENT,
        "%s :%d derive PEX ifIndex ifType %d cardType %d peId %d peLogicalSlotId %d "
        "peStackUnitId %d pePortId %d\r\n",
        "dhcpv6ClientRelay", __LINE__, int(ifType), int(cardType), int(peId), int(unitSlot), unit,
        pePort);
    return ifmCreateIfIndex(ifType, uint32_t(unit), uint32_t(pePort), uint32_t(peId));
}

// Decodes an Interface-ID text back into the client's interfaces. 0, or -1
// (malformed field, unknown card or interface type).
int dhcpv6DecodeInterfaceId(const char* text, dhcpv6ClientIntf& out) {
    dhcpv6IfIdFields fields(text);
    int32_t vlanId = 0, lagNumber = 0, slot = 0;
    if (!fields.next(vlanId, true, __LINE__) || !fields.next(lagNumber, true, __LINE__) ||
        !fields.next(slot, true, __LINE__))
        return -1;
    uint32_t physical = 0;
    if (slot < kPeFirstSlot) {
        bool ok = false;
        physical = dhcpv6LinecardPort(fields, slot, ok);
        if (!ok) return -1;
    } else {
        physical = dhcpv6ExtenderPort(fields, slot);
    }
    const uint32_t vlanIf =
        vlanId != 0 ? ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, uint32_t(vlanId)) : 0;
    const uint32_t lagIf =
        lagNumber != 0 ? ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, uint32_t(lagNumber)) : 0;
    // Without a port-channel the port itself stands in its place.
    out.portIfIndex = lagIf != 0 ? lagIf : physical;
    out.clientIfIndex = vlanIf != 0 ? vlanIf : out.portIfIndex;
    return 0;
}

// The Interface-ID of a server message, decoded. Absent: client interface 0.
int dhcpv6ClientIntfOf(uint8_t* options, uint32_t optionsLen, dhcpv6ClientIntf& out) {
    out = {};
    const uint8_t* opt = dhcpv6GetOption(options, optionsLen, DHCPV6_OPTION_INTERFACE_ID);
    if (opt == nullptr) return 0;
    dbg(DHCPV6_DBG_EVENT, "Extracting DHCPV6_OPTION_INTERFACE_ID option \r");
    char text[DHCPV6_IFID_TEXT_LEN] = {};
    // The text is bounded by its buffer; a longer option is cut.
    std::memcpy(text, opt + kOptionHdrLen,
                std::min<size_t>(be16(opt + 2), DHCPV6_IFID_TEXT_LEN - 1));
    return dhcpv6DecodeInterfaceId(text, out);
}

// The VRF of an interface; false (and the message) when it has none.
bool dhcpv6VrfOf(uint32_t ifIndex, int& outVrf) {
    outVrf = getVrfIdForIfIndex(ifIndex);
    if (outVrf >= 0) return true;
    dbg(DHCPV6_DBG_EVENT, "%s:: invalid vrf %d for ifIndex %d\n\r", "dhcpv6ClientRelay", outVrf,
        int(ifIndex));
    return false;
}

// Whether the packet's destination is an address of this system, in the
// receiving interface's VRF or else in the client interface's. -1: bad VRF.
int dhcpv6ForThisSystem(const dhcpv6PktIfInfo* info, const dhcpv6Frame& f, uint32_t clientIfIndex) {
    int vrf = 0;
    if (!dhcpv6VrfOf(info->ifIndex, vrf)) return -1;
    const uint8_t* dst = f.ip6 + kIp6OffDst;
    if (nbsdGetIntfInfoFromIpv6Addr(dst, vrf) != 0) return 1;
    if (clientIfIndex == 0) return 0;
    if (!dhcpv6VrfOf(clientIfIndex, vrf)) return -1;
    return nbsdGetIntfInfoFromIpv6Addr(dst, vrf) != 0 ? 1 : 0;
}

// The client's transaction for a client message; null after the debug line.
dhcpv6TransEntry* dhcpv6ClientTransaction(uint8_t* message, uint32_t length,
                                          const char* noPacketText) {
    uint8_t* client = nullptr;
    uint32_t clientLen = 0;
    if (dhcpv6GetClientPacket(message, &client, length, &clientLen) != 0) {
        dbg(DHCPV6_DBG_EVENT, "%s", noPacketText);
        return nullptr;
    }
    uint8_t key[DHCPV6_DUID_MAX];
    switch (dhcpv6ClientDuidKey(client, clientLen, key)) {
        case dhcpv6DuidStatus::Missing:
            dbg(kDbgEvtPkt, "No DHCPV6_OPTION_CLIENTID option \r");
            return nullptr;
        case dhcpv6DuidStatus::TooLong:
            dbg(DHCPV6_DBG_EVENT, "DHCPV6_OPTION_CLIENTID length exceeds 128 bytes \r");
            return nullptr;
        case dhcpv6DuidStatus::Ok:
            break;
    }
    dhcpv6TransEntry* entry = dhcpv6TransLookup(key);
    if (entry == nullptr) dbg(DHCPV6_DBG_EVENT, "No matching lease \r");
    return entry;
}

// A server message that is not for the relay goes on, whole, in the VLAN of
// a client the relay knows.
uint32_t dhcpv6PassToClient(const dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length,
                            const dhcpv6Frame& f, uint32_t clientIfIndex) {
    const uint32_t msgLen = f.msgLen & kLowByte;
    dhcpv6TransEntry* entry = dhcpv6ClientTransaction(f.msg, msgLen, "dhcpV6Packet is NULL \r");
    if (entry == nullptr) return uint32_t(-1);
    // The reply to a Release forgets the client while its lease options are
    // accounted: keep where it is before that.
    const uint32_t vlanIf = entry->ifIndex, portIf = entry->portIfIndex;
    if (g.snoopingEnabled != 0)
        dhcpv6ProcClientLeaseOptions(clientIfIndex, f.msg, msgLen, info->noGlobalAddr);
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_SERVER_PKT_PASSED, 0u, typeName(f.msg[0]).data(),
              addrText(f.ip6 + kIp6OffDst).data(), ifName(vlanIf).data());
    dhcpv6FwdPktInVlan(vlanIf, portIf, packet, length);
    return 0;
}

// The frame that carries a server's answer to the client.
void dhcpv6BuildClientFrame(std::span<uint8_t> frame, const uint8_t clientMac[6], uint16_t vlanId, const uint8_t src[16], const uint8_t dst[16],
                            uint8_t hopCount, const uint8_t* inner, uint32_t innerLen) {
    const uint16_t udpLen = uint16_t(innerLen + kUdpHdrLen);
    qor::putBytes(frame, 0, clientMac, 6);
    qor::putBytes(frame, 6, mac_addr, 6);
    qor::putU16(frame, kFrameOffTpid, kTpid8021Q);
    qor::putU16(frame, kFrameOffTag, vlanId);
    qor::putU16(frame, kFrameOffEtherType, kEtherTypeIpv6);
    qor::putU32(frame, kFrameOffIp6, kIp6VersionWord);
    qor::putU16(frame, kFrameOffIp6 + kIp6OffPayloadLen, udpLen);
    qor::putU8(frame, kFrameOffIp6 + 6, kNextHdrUdp);
    qor::putU8(frame, kFrameOffIp6 + 7, kHopLimit);
    qor::putBytes(frame, kFrameOffIp6 + kIp6OffSrc, src, 16);
    qor::putBytes(frame, kFrameOffIp6 + kIp6OffDst, dst, 16);
    qor::putU16(frame, kFrameOffUdp, uint16_t(DHCPV6_SERVER_PORT));
    // An answer for another relay goes to its server port, one for a client
    // to the client port.
    qor::putU16(frame, kFrameOffUdp + kUdpOffDstPort,
                uint16_t(hopCount != 0 ? DHCPV6_SERVER_PORT : DHCPV6_CLIENT_PORT));
    qor::putU16(frame, kFrameOffUdp + kUdpOffLen, udpLen);
    qor::putBytes(frame, kFrameHdrLen, inner, innerLen);
    const uint16_t sum =
        dhcpv6_get_udp6_cksum(frame.data() + kFrameOffIp6, frame.data() + kFrameOffUdp);
    qor::putU16(frame, kFrameOffUdp + kUdpOffCksum, sum);
}

// The unwrapped message, to the client. False when it was not sent.
bool dhcpv6SendToClient(const dhcpv6PktIfInfo* info, const dhcpv6ClientIntf& ci,
                        const uint8_t src[16], const uint8_t peer[16], uint8_t hopCount,
                        uint8_t* inner, uint32_t innerLen) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside sendDhcpV6PacketToClient \r");
    // Deliberate: the frame carries the low 8 bits of the option's length.
    const uint32_t len = innerLen & kLowByte;
    const uint32_t frameLen = len + kFrameHdrLen;
    auto* frame = static_cast<uint8_t*>(qorMC_M_sysMalloc(kUnit, __LINE__, frameLen));
    if (frame == nullptr) {
        dbg(DHCPV6_DBG_EVENT, " outBuffer is NULL \r");
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MEM_ALLOC_FAILED, 0u);
        return false;
    }
    std::memset(frame, 0, frameLen);
    bool sent = false;
    dhcpv6TransEntry* entry = dhcpv6ClientTransaction(inner, len, " dhcpV6Packet is NULL \r");
    if (entry != nullptr && entry->ifIndex != ci.clientIfIndex) {
        dbg(DHCPV6_DBG_EVENT, " Interface Id doesnt match.. \r");
    } else if (entry != nullptr) {
        dbg(DHCPV6_DBG_EVENT, "Entry exist in TransTbl and Interface Id matches .. \r");
        // The reply to a Release deletes the entry while its lease options
        // are accounted: the client's MAC is taken first.
        uint8_t clientMac[6];
        std::memcpy(clientMac, entry->clientMac, sizeof clientMac);
        entry = nullptr;
        if (dhcpv6ProcClientLeaseOptions(ci.clientIfIndex, inner, len, info->noGlobalAddr) == -1)
            dbg(DHCPV6_DBG_EVENT, "Processing lease options failed \r");
        const bool toVlan = ifmIfIndexToIfType(ci.clientIfIndex) == IFM_IFTYPE_VLAN;
        const uint16_t vlanId = toVlan ? uint16_t(ifmIfIndexToVlanId(ci.clientIfIndex)) : 0;
        dhcpv6BuildClientFrame({frame, frameLen}, clientMac, vlanId, src, peer, hopCount, inner, len);
        int64_t n = -1;
        if (toVlan) {
            n = dhcpv6FwdPktInVlan(ci.clientIfIndex, ci.portIfIndex, frame, frameLen);
        } else {
            uint8_t to[QOR_L2_ADDR_LEN];
            dhcpv6L2Addr(to);
            n = qorSendto(g.outSockFd, frame, frameLen, 0, to, sizeof to, ci.portIfIndex);
        }
        sent = n == int64_t(frameLen);
        if (sent) {
            qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_CLIENT_REPLY_SENT, 0u);
            dbg(DHCPV6_DBG_PKT, "Sent %s packet to %s \r\n", typeName(inner[0]).data(),
                addrText(peer).data());
        } else {
            dbg(DHCPV6_DBG_PKT, "DHCPV6RELAY: qorSendto failed\r");
        }
    }
    qorMC_M_sysFree(kUnit, __LINE__, frame);
    return sent;
}

// A Relay-Reply addressed to the relay: unwrap it and send its message on.
uint32_t dhcpv6UnwrapRelayReply(const dhcpv6PktIfInfo* info, const dhcpv6Frame& f, uint8_t* options,
                                uint32_t optionsLen, const dhcpv6ClientIntf& ci,
                                const uint8_t src[16]) {
    if (f.msg[0] != kMsgRelayRepl) return 0;
    const uint8_t* peer = f.msg + kRelayOffPeer;
    const uint8_t hopCount = f.msg[kRelayOffHop];
    const uint8_t* opt = dhcpv6GetOption(options, optionsLen, DHCPV6_OPTION_RELAY_MSG);
    if (opt == nullptr) return uint32_t(-1);
    const uint32_t innerLen = be16(opt + 2);
    if (innerLen < kMinRelayMsgOptLen) return uint32_t(-1);
    dbg(DHCPV6_DBG_EVENT, "Extracting DHCPV6_OPTION_RELAY_MSG option \r");
    auto* inner = static_cast<uint8_t*>(qorMC_M_sysMalloc(kUnit, __LINE__, innerLen));
    if (inner == nullptr) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MEM_ALLOC_FAILED, 0u);
        return uint32_t(-1);
    }
    std::memcpy(inner, opt + kOptionHdrLen, innerLen);
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_RELAY_REPLY_RCVD, 0u);
    if (!dhcpv6SendToClient(info, ci, src, peer, hopCount, inner, innerLen))
        dbg(DHCPV6_DBG_PKT, "Send to %s failed \r\n", addrText(peer).data());
    qorMC_M_sysFree(kUnit, __LINE__, inner);
    return 0;
}

// ---- transmission
// ----------------------------------------------------------------------------------

int dhcpv6OpenRelaySock() {
    if (dhcpv6RelaySockFd != -1) return dhcpv6RelaySockFd;
    const int fd = qorSocket(AF_INET6, SOCK_DGRAM, 0);
    if (fd == -1) {
        dbg(DHCPV6_DBG_EVENT, "DHCPV6RELAY: socket open failed\r");
        return -1;
    }
    const int sndBuf = kRelaySockSndBuf;
    if (qorSetsockopt(fd, SOL_SOCKET, SO_SNDBUF, &sndBuf, sizeof sndBuf) != 0) {
        dbg(DHCPV6_DBG_EVENT, "can't set sendbuf size to %d \r\n", sndBuf);
        qorClose(fd);
        return -1;
    }
    sockaddr_in6 any{};
    any.sin6_family = AF_INET6;
    any.sin6_port = htons(uint16_t(DHCPV6_SERVER_PORT));
    any.sin6_addr = in6addr_any;
    if (qorBind(fd, &any, sizeof any) != 0) {
        dbg(DHCPV6_DBG_EVENT, "DHCPV6RELAY: bind failed \r");
        qorClose(fd);
        return -1;
    }
    dhcpv6RelaySockFd = fd;
    return fd;
}

// Sends one Relay-Forward on the relay socket, with the source interface
// applied around the send when there is one. The byte count or -1.
int64_t dhcpv6SendFromSource(int fd, const uint8_t server[16], const uint8_t* buffer,
                             uint32_t length, uint32_t srcIfIndex) {
    sockaddr_in6 to{};
    to.sin6_family = AF_INET6;
    to.sin6_port = htons(uint16_t(DHCPV6_SERVER_PORT));
    std::memcpy(&to.sin6_addr, server, 16);
    if (srcIfIndex == 0) return qorSendto(fd, buffer, length, 0, &to, sizeof to, 0);
    dhcpv6OptWords source{srcIfIndex, 0, 0, 0, 0};
    if (qorSetsockopt(fd, QOR_IPPROTO_IPV6, QOR_IPV6_SRC_INTF, source.data(), kOptWordsLen) != 0)
        dbg(DHCPV6_DBG_PKT, "%% Error: Failed to set src intf (%d - %s) \r\n", int(srcIfIndex),
            strerror(errno));
    g.srcIfSockFd = fd;
    const int64_t n = qorSendto(fd, buffer, length, 0, &to, sizeof to, 0);
    const int sendErrno = errno;
    const dhcpv6OptWords none{};
    if (qorSetsockopt(fd, QOR_IPPROTO_IPV6, QOR_IPV6_SRC_INTF, none.data(), kOptWordsLen) != 0)
        dbg(DHCPV6_DBG_PKT, "%% Error: Failed to reset src intf (%d - %s) \r\n", int(srcIfIndex),
            strerror(errno));
    errno = sendErrno;
    return n;
}

int dhcpv6FloodLocally(const dhcpv6PktIfInfo* info, const uint8_t* packet, uint32_t length) {
    const uint32_t total = uint32_t(QOR_L2_FLOOD_HDR_LEN) + length;
    auto* buf = static_cast<uint8_t*>(qorMC_M_sysMalloc(kUnit, __LINE__, total));
    if (buf == nullptr) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MEM_ALLOC_FAILED, 0u);
        return -1;
    }
    const std::span<uint8_t> out(buf, total);
    std::memset(buf, 0, total);
    // The ingress port is left out of the flood.
    qor::putU32(out, 0, QOR_L2_FLOOD_CMD);
    qor::putU32(out, 4, info->physicalIfIndex);
    qor::putU32(out, 8, g.snoopingEnabled != 0 ? g.mcastGroupIdx : 0);
    qor::putU32(out, 12, info->logicalIfIndex);
    qor::putBytes(out, QOR_L2_FLOOD_HDR_LEN, packet, length);
    const int fd = qorSocket(AF_QORL2, QOR_SOCK_RAW, QOR_L2_PROTO_FLOOD);
    if (fd == -1) {
        dbg(DHCPV6_DBG_PKT, "%s :%d create AF_QORL2 socket failed\r\n", "dhcpv6FloodPktWithSrcSup",
            __LINE__);
        qorMC_M_sysFree(kUnit, __LINE__, buf);
        return -1;
    }
    uint8_t to[QOR_L2_ADDR_LEN];
    dhcpv6L2Addr(to);
    if (qorSendto(fd, buf, total, 0, to, sizeof to, 0) == ssize_t(total))
        dbg(DHCPV6_DBG_PKT, "qorSendto success\r");
    else
        dbg(DHCPV6_DBG_PKT, "qorSendto failed\r");
    qorMC_M_sysFree(kUnit, __LINE__, buf);
    qorClose(fd);
    return 0;
}

// A port on another stack unit: its agent floods for the relay.
int dhcpv6FloodThroughAgent(const dhcpv6PktIfInfo* info, const uint8_t* packet, uint32_t length,
                            uint32_t unit) {
    const uint32_t total = uint32_t(kFloodIpcHdrLen) + length;
    auto* buf = static_cast<uint8_t*>(qorMC_M_sysMalloc(kUnit, __LINE__, total));
    if (buf == nullptr) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MEM_ALLOC_FAILED, 0u);
        return -1;
    }
    const std::span<uint8_t> msg(buf, total);
    std::memset(buf, 0, total);
    uint32_t ownAddr = 0, agentAddr = 0;
    qor_tmeGetPeerIpAddrByName(DHCPV6_RELAY_APP_ID, 0, &ownAddr);
    qor_tmeGetPeerIpAddrByName(DHCPV6_FLOOD_AGENT_APP, int(unit), &agentAddr);
    qorIpcBuildHeader(msg, total, DHCPV6_FLOOD_IPC_MSG, ownAddr,
                      qor_getQueueId(DHCPV6_RELAY_APP_ID, 0, QOR_QUEUE_REQUEST), agentAddr,
                      qor_getQueueId(DHCPV6_FLOOD_AGENT_APP, int(unit), QOR_QUEUE_REQUEST));
    qor::putU32(msg, kFloodIpcOffTick, uint32_t(qorTickGet()));
    qor::putU32(msg, kFloodIpcOffSlot, unit);
    qor::putU32(msg, kFloodIpcOffLogical, info->logicalIfIndex);
    qor::putU32(msg, kFloodIpcOffPhysical, info->physicalIfIndex);
    qor::putU32(msg, kFloodIpcOffLength, length);
    qor::putBytes(msg, kFloodIpcHdrLen, packet, length);
    const int rc = qorIpcSend(g.ipcReqQueue, buf, total, 0);
    qorMC_M_sysFree(kUnit, __LINE__, buf);
    return rc;
}

}  // namespace

// ---- intake ------------------------------------------------------------------------------------

uint32_t dhcpv6RelayStart(uint8_t* packet, uint32_t length, uint32_t logicalIfIndex,
                          uint32_t recvPortIfIndex, uint32_t physicalIfIndex) {
    dbg(DHCPV6_DBG_DETAIL, "Dhcpv6RelayMgr : Inside dhcpv6RelayStart \r");
    if (packet == nullptr) return uint32_t(-1);
    dhcpv6Frame f{};
    if (!dhcpv6LocateUdp(packet, length, f)) {
        dbg(DHCPV6_DBG_EVENT, "Udp header not present. Not our packet \r");
        return uint32_t(-1);
    }
    const uint16_t dstPort = be16(f.udp + kUdpOffDstPort);
    if (dstPort != DHCPV6_CLIENT_PORT && dstPort != DHCPV6_SERVER_PORT) return uint32_t(-1);
    // An empty datagram carries no type: it is of no kind the relay handles.
    const uint8_t type = f.msgLen > 0 ? f.msg[0] : 0;
    dhcpv6PktIfInfo info{};
    if (ifmIfIndexToIfType(physicalIfIndex) == IFM_IFTYPE_MGMT) {
        // The management interface is never relayed.
        dbg(kDbgEvtPkt, " Mgmt Interface.. Not processing dhcpv6 packet\r");
        return 0;
    }
    if (dhcpv6FillIfInfo(&info, logicalIfIndex, recvPortIfIndex, physicalIfIndex) != 0) {
        dbg(DHCPV6_DBG_EVENT, "Failed to fill Interface details \r");
        return uint32_t(-1);
    }
    if (dhcpv6ValidateChecksm(packet, length) != 0) {
        dbg(kDbgEvtPkt, "Invalid Checksum.. Not processing dhcpv6 packet\r");
        return uint32_t(-1);
    }
    switch (dhcpv6Classify(type)) {
        case dhcpv6MsgClass::Client:
            dbg(kDbgEvtPkt, "Packets from Client/Relay..\r");
            dhcpv6ServerRelay(&info, packet, length);
            return 0;
        case dhcpv6MsgClass::Server:
            dbg(kDbgEvtPkt, "Packets fromServer/Relay .. \r");
            dhcpv6ClientRelay(&info, packet, length);
            return 0;
        case dhcpv6MsgClass::Ignored:
            break;
    }
    return 0;
}

int dhcpv6FillIfInfo(dhcpv6PktIfInfo* info, uint32_t logicalIfIndex, uint32_t recvPortIfIndex,
                     uint32_t physicalIfIndex) {
    if (info == nullptr) return -1;
    const bool allZero = logicalIfIndex == 0 && recvPortIfIndex == 0 && physicalIfIndex == 0;
    // With no index at all the receiving-port branch is taken, with 0.
    if (allZero) dbg(DHCPV6_DBG_EVENT, "Interface info could not be filled [as index is zero]\r");
    if (logicalIfIndex != 0) {
        info->ifIndex = logicalIfIndex;
        dbg(DHCPV6_DBG_EVENT, "Using logical index to fill interface info.[%s]\r\n",
            ifName(logicalIfIndex).data());
    } else if (recvPortIfIndex != 0 || allZero) {
        info->ifIndex = recvPortIfIndex;
        dbg(DHCPV6_DBG_EVENT, "Using recv port to fill interface info.[%s]\r\n",
            ifName(recvPortIfIndex).data());
    } else {
        info->ifIndex = physicalIfIndex;
        dbg(DHCPV6_DBG_EVENT, "Using physical index to fill interface info.[%s]\r\n",
            ifName(physicalIfIndex).data());
    }
    nbsdIntfInfo intf;
    if (!dhcpv6IntfInfo(info->ifIndex, intf)) {
        dbg(DHCPV6_DBG_EVENT, "nbsdGetIntfInfoForName failed \r");
        return -1;
    }
    if (!intf.hasGlobalIpv6) {
        // A VLAN without a global address is still snooped and flooded; it
        // is only not relayed.
        if (ifmIfIndexToIfType(info->ifIndex) != IFM_IFTYPE_VLAN) return -1;
        info->noGlobalAddr = 1;
        dbg(DHCPV6_DBG_EVENT, "No Global ipv6 address configured on interafce \r");
    }
    std::memcpy(mac_addr, intf.mac, sizeof mac_addr);
    const auto text = addrText(intf.ipv6Addr);
    inet_pton(AF_INET6, text.data(), info->linkAddr);
    info->logicalIfIndex = logicalIfIndex;
    info->recvPortIfIndex = recvPortIfIndex;
    info->physicalIfIndex = physicalIfIndex;
    dbg(DHCPV6_DBG_PKT, "Using Int = %s, ip addr %s Netmask %x\r\n", ifName(recvPortIfIndex).data(),
        text.data(), 64);
    return 0;
}

int dhcpv6ValidateChecksm(uint8_t* packet, uint32_t length) {
    dhcpv6Frame f{};
    if (!dhcpv6LocateUdp(packet, length, f)) {
        dbg(DHCPV6_DBG_EVENT, "Udp header not present. Not our packet \r");
        return -1;
    }
    const uint16_t udpLen = be16(f.udp + kUdpOffLen);
    const uint16_t payloadLen = be16(f.ip6 + kIp6OffPayloadLen);
    // A UDP length within the IPv6 payload length is summed; the bytes it
    // names must have arrived, whatever the IPv6 header claims.
    if (udpLen <= payloadLen && udpLen > f.msgLen + kUdpHdrLen) return -1;
    const uint16_t received = be16(f.udp + kUdpOffCksum);
    const uint16_t expected = dhcpv6_get_udp6_cksum(f.ip6, f.udp);
    if (received != expected) return -1;  // the checksum field stays zero
    qor::putU16(qor::MutByteView(f.udp, kUdpHdrLen), kUdpOffCksum, received);
    return 0;
}

uint16_t dhcpv6_get_udp6_cksum(uint8_t* ip6, uint8_t* udp) {
    uint8_t pseudo[kIp6HdrLen] = {};
    std::memcpy(pseudo, ip6 + kIp6OffSrc, 32);
    const uint16_t udpLen = be16(udp + kUdpOffLen);
    qor::putU32(pseudo, 32, udpLen);
    pseudo[39] = kNextHdrUdp;
    udp[kUdpOffCksum] = 0;
    udp[kUdpOffCksum + 1] = 0;
    if (udpLen > be16(ip6 + kIp6OffPayloadLen)) return 0xFFFF;
    return dhcpv6_udp_cksum_v6(pseudo, udp, udpLen);
}

uint16_t dhcpv6_udp_cksum_v6(const uint8_t* pseudo, const uint8_t* data, uint32_t n) {
    uint32_t sum = 0;
    for (size_t i = 0; i < kIp6HdrLen; i += 2) sum += be16(pseudo + i);
    uint32_t i = 0;
    for (; i + 1 < n; i += 2) sum += be16(data + i);
    if (i < n) sum += uint32_t(data[i]) << 8;
    uint32_t s = (sum & 0xFFFF) + (sum >> 16);
    s += s >> 16;
    const uint16_t result = uint16_t(~s & 0xFFFF);
    return result == 0 ? 0xFFFF : result;  // RFC 768: a computed checksum is never 0
}

// ---- Relay-Forward
// -------------------------------------------------------------------------------

uint32_t dhcpv6ServerRelay(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : Inside dhcpv6ServerRelay \r");
    relayv6IntfNode* node = relayv6Lookup(info->ifIndex);
    // The client is recorded even where nothing is relayed: snooping and the
    // answers that pass through the VLAN need it.
    if (dhcpv6TransactionTblAdd(info, packet, length) == -1) {
        dbg(DHCPV6_DBG_EVENT, "dhcpv6TransactionTblAdd failed \r");
        return uint32_t(-1);
    }
    if (node == nullptr || info->noGlobalAddr != 0) {
        dbg(DHCPV6_DBG_EVENT, "No helper address configured \r");
        return 0;
    }
    uint8_t* buf = nullptr;
    uint32_t len = 0;
    if (addDhcpV6RelayOptions(info, packet, length, &buf, &len) == -1) {
        dbg(DHCPV6_DBG_EVENT, " addDhcpV6RelayOptions failed \r");
        qorMC_M_sysFree(kUnit, __LINE__, buf);
        return uint32_t(-1);
    }
    for (NODE* n = lstFirst(&node->helperList); n != nullptr; n = lstNext(n)) {
        const auto* helper = reinterpret_cast<const relayv6HelperEntry*>(n);
        if (sendDhcpV6Packet(helper->helperAddr, helper->vrfId, buf, len, node->srcIfIndex) != 0)
            dbg(DHCPV6_DBG_PKT, "Send to %s failed\r\n", addrText(helper->helperAddr).data());
    }
    qorMC_M_sysFree(kUnit, __LINE__, buf);
    return 0;
}

int addDhcpV6RelayOptions(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length,
                          uint8_t** outBuffer, uint32_t* outLength) {
    dbg(DHCPV6_DBG_DETAIL, "Dhcpv6RelayMgr : Inside addDhcpV6RelayOptions \r");
    if (info == nullptr || outBuffer == nullptr || outLength == nullptr) return -1;
    *outLength = 0;
    dhcpv6Frame f{};
    if (!dhcpv6LocateUdp(packet, length, f)) {
        dbg(DHCPV6_DBG_EVENT, "Udp header not present. Not our packet \r");
        return -1;
    }
    // Deliberate: the client message's length is held in 8 bits, so a message
    // of 256 bytes or more is relayed cut to (length mod 256). The buffer is
    // sized from the same 8 bits.
    const uint32_t msgLen = f.msgLen & kLowByte;
    const uint32_t size = msgLen + kRelayFwdRoom;
    auto* buf = static_cast<uint8_t*>(qorMC_M_sysMalloc(kUnit, __LINE__, size));
    *outBuffer = buf;
    if (buf == nullptr) {
        qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_MEM_ALLOC_FAILED, 0u);
        return -1;
    }
    std::memset(buf, 0, size);
    const std::span<uint8_t> out(buf, size);
    const int hopCount = dhcpv6HopCount(f);
    if (hopCount < 0) return -1;
    dhcpv6ProcClientLeaseOptions(info->ifIndex, f.msg, msgLen, info->noGlobalAddr);
    dbg(DHCPV6_DBG_EVENT, "Hop count set : %d\r\n", hopCount);
    qor::putBytes(out, kRelayOffLink, info->linkAddr, 16);
    qor::putBytes(out, kRelayOffPeer, f.ip6 + kIp6OffSrc, 16);
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_CLIENT_PKT_RELAYED, 0u, typeName(f.msg[0]).data(),
              addrText(f.ip6 + kIp6OffSrc).data(), ifName(info->ifIndex).data());
    out[0] = kMsgRelayForw;
    out[kRelayOffHop] = uint8_t(hopCount);
    *outLength = DHCPV6_RELAY_HDR_LEN;
    dbg(kDbgEvtPkt, "Adding DHCPV6_OPTION_RELAY_MSG option \r");
    if (!dhcpv6AddRelayOptionsData(out, outLength, DHCPV6_OPTION_RELAY_MSG, f.msg, msgLen)) {
        dbg(DHCPV6_DBG_EVENT, "Adding DHCPV6_OPTION_RELAY_MSG option failed \r");
        return -1;
    }
    char interfaceId[DHCPV6_IFID_TEXT_LEN];
    dhcpv6InterfaceIdText(info, interfaceId);
    dbg(kDbgEvtPkt, "Adding DHCPV6_OPTION_INTERFACE_ID option \r");
    if (!dhcpv6AddRelayOptionsData(out, outLength, DHCPV6_OPTION_INTERFACE_ID, interfaceId,
                                   uint32_t(strlen(interfaceId)) & 0xFFFF)) {
        dbg(DHCPV6_DBG_EVENT, "Adding DHCPV6_OPTION_INTERFACE_ID option failed \r");
        return -1;
    }
    if (!dhcpv6AppendRemoteId(out, outLength)) return -1;
    dbg(DHCPV6_DBG_DETAIL, "Added Relay options \r");
    return 0;
}

uint8_t* dhcpv6AddRelayOptionsData(std::span<uint8_t> buffer, uint32_t* usedLength, uint16_t code,
                                   const void* data, uint32_t dataLength) {
    if (usedLength == nullptr) return nullptr;
    const uint32_t len = dataLength & 0xFFFF;
    if (size_t(len) + kOptionHdrLen + *usedLength >= DHCPV6_MAX_RELAY_MSG + 1) return nullptr;
    if (!qor::fits(buffer.size(), *usedLength, size_t(len) + kOptionHdrLen)) return nullptr;
    if (data == nullptr && len != 0) return nullptr;
    uint8_t* option = buffer.data() + *usedLength;
    qor::putU16(buffer, *usedLength, code);
    qor::putU16(buffer, *usedLength + 2, uint16_t(len));
    qor::putBytes(buffer, *usedLength + kOptionHdrLen, data, len);
    *usedLength += len + kOptionHdrLen;
    return option;
}

void dhcpv6InterfaceIdText(const dhcpv6PktIfInfo* info, char* text) {
    const uint32_t logical = info->logicalIfIndex;
    const uint32_t recvPort = info->recvPortIfIndex;
    const long vlanId =
        ifmIfIndexToIfType(logical) == IFM_IFTYPE_VLAN ? long(ifmIfIndexToVlanId(logical)) : 0;
    const long lagNumber =
        ifmIfIndexToIfType(recvPort) == IFM_IFTYPE_LAG ? long(ifmIfIndexToIfNum(recvPort)) : 0;
    const int slot = int(ifmGetIfIndexToLogicalSlotId(info->physicalIfIndex));
    // At most 28 characters: a longer text is cut, as the 29-byte buffer does.
    formatInto(text, DHCPV6_IFID_TEXT_LEN, "%ld:%ld:%d:%s", vlanId, lagNumber, slot,
               dhcpv6PortText(info->physicalIfIndex).data());
}

// ---- Relay-Reply
// ---------------------------------------------------------------------------------

uint32_t dhcpv6ClientRelay(dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length) {
    dbg(DHCPV6_DBG_DETAIL, "DHCPv6RelayMgr : dhcpv6ClientRelay \r");
    dhcpv6Frame f{};
    if (info == nullptr || !dhcpv6LocateUdp(packet, length, f)) {
        dbg(DHCPV6_DBG_EVENT, "Udp header not present. Not our packet \r");
        return uint32_t(-1);
    }
    // Deliberate: the option area is (payload length - 34) mod 256. A message
    // shorter than a relay header would make it reach past what arrived, and
    // is refused.
    if (f.msgLen < DHCPV6_RELAY_HDR_LEN) return uint32_t(-1);
    uint8_t* options = f.msg + DHCPV6_RELAY_HDR_LEN;
    const uint32_t optionsLen = (f.msgLen - DHCPV6_RELAY_HDR_LEN) & kLowByte;
    dhcpv6ClientIntf ci{};
    if (dhcpv6ClientIntfOf(options, optionsLen, ci) != 0) return uint32_t(-1);
    uint8_t src[16];
    std::memcpy(src, f.msg + kRelayOffLink, sizeof src);
    if (ci.clientIfIndex != 0) {
        const relayv6IntfNode* node = relayv6Lookup(ci.clientIfIndex);
        dhcpv6PickSourceIntf(node != nullptr ? node->srcIfIndex : 0, src);
    }
    const int local = dhcpv6ForThisSystem(info, f, ci.clientIfIndex);
    if (local < 0) return uint32_t(-1);
    if (local == 0) return dhcpv6PassToClient(info, packet, length, f, ci.clientIfIndex);
    return dhcpv6UnwrapRelayReply(info, f, options, optionsLen, ci, src);
}

int32_t dhcpv6GetFromOption18(const char* text, int remaining, int* consumed) {
    char field[kIfIdFieldLen] = {};
    int taken = 0;
    int used = 0;
    if (text != nullptr) {
        // The character after the last one given is looked at for a ':'.
        for (;; ++taken) {
            const char c = text[taken];
            if (c == ':') {
                used = taken + 1;
                break;
            }
            if (taken >= remaining || c == '\0') {
                used = taken;
                break;
            }
            if (size_t(taken) < sizeof field - 1) field[taken] = c;
        }
    }
    if (consumed != nullptr) *consumed = used;
    return int32_t(strtol(field, nullptr, 10));
}

// ---- transmission
// ----------------------------------------------------------------------------------

int sendDhcpV6Packet(const uint8_t serverAddress[16], uint32_t vrfId, uint8_t* buffer,
                     uint32_t length, uint32_t sourceIfIndex) {
    if (buffer == nullptr || length == 0) return -1;
    const int fd = dhcpv6OpenRelaySock();
    if (fd == -1) return -1;
    uint8_t unused[16];
    const uint32_t srcIfIndex = dhcpv6PickSourceIntf(sourceIfIndex, unused);
    if (g.snoopingEnabled != 0) ++qorDhcpv6Stats[0];
    if (qorSetsockopt(fd, QOR_SOL_SOCKET, QOR_SO_VRF, &vrfId, sizeof vrfId) != 0) {
        dbg(DHCPV6_DBG_PKT, "%% Error: Failed to set the VRF (%d - %s) \r\n", int(vrfId),
            strerror(errno));
        return -1;
    }
    const int64_t sent = dhcpv6SendFromSource(fd, serverAddress, buffer, length, srcIfIndex);
    if (sent != int64_t(length)) {
        dbg(DHCPV6_DBG_PKT, "DHCPV6RELAY: qorSendto failed\r");
        qorHistory("%s: size act/sent %d/%d err %d\r\n", "sendDhcpV6Packet", int(length), int(sent),
                   errno);
        return -1;
    }
    dbg(DHCPV6_DBG_PKT, "Sent %s packet to %s \r\n", typeName(buffer[0]).data(),
        addrText(serverAddress).data());
    qorSysErr(g.evtLogHandle, 0, DHCPV6_EVT_RELAY_FWD_SENT, 0u);
    return 0;
}

int dhcpv6FwdPktInVlan(uint32_t vlanIfIndex, uint32_t portIfIndex, uint8_t* frame,
                       uint32_t length) {
    const dhcpv6OptWords vlan{1, 0, 0, ifmIfIndexToVlanId(vlanIfIndex), 0};
    if (qorSetsockopt(g.outSockFd, QOR_SOL_SOCKET, QOR_SO_L2_VLAN, vlan.data(), kOptWordsLen) != 0)
        return -1;
    uint8_t to[QOR_L2_ADDR_LEN];
    dhcpv6L2Addr(to);
    if (qorSendto(g.outSockFd, frame, length, 0, to, sizeof to, portIfIndex) != ssize_t(length))
        return -1;
    const dhcpv6OptWords none{};
    if (qorSetsockopt(g.outSockFd, QOR_SOL_SOCKET, QOR_SO_L2_VLAN, none.data(), kOptWordsLen) != 0)
        return -1;
    return int(length);
}

int dhcpv6FloodPktWithSrcSup(const dhcpv6PktIfInfo* info, uint8_t* packet, uint32_t length) {
    if (info == nullptr || packet == nullptr) return -1;
    const uint32_t unit = ifmIfIndexToSlotId(info->physicalIfIndex);
    if (unit == qor_wrap_bcm_stk_get_master_slotid())
        return dhcpv6FloodLocally(info, packet, length);
    return dhcpv6FloodThroughAgent(info, packet, length, unit);
}

char* dhcpv6PktTypeToStr(uint8_t type, char* buffer, size_t bufferLength) {
    static constexpr std::array<const char*, 14> kNames = {
        nullptr, "SOLICIT", "ADVERTISE", "REQUEST", "CONFIRM", "RENEW",         "REBIND",
        "REPLY", "RELEASE", "DECLINE",   nullptr,   nullptr,   "RELAY-FORWARD", "RELAY-REPLY"};
    const char* name = type < kNames.size() && kNames[type] != nullptr ? kNames[type] : "UNKNOWN";
    if (buffer == nullptr) return buffer;
    std::memset(buffer, 0, bufferLength);
    // Copied with at most the buffer's length: a short buffer keeps no terminator.
    std::memcpy(buffer, name, std::min(strlen(name), bufferLength));
    return buffer;
}
