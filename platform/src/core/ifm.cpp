// ifm.cpp -- the interface manager library: ifIndex encoding and decoding,
// interface names both ways, the registration masks, and the port numbering
// and card lookups that turn an Interface-ID back into a port.
#include "qor/ifm.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/hostmap.h"

namespace {

constexpr uint32_t kTypeShift = 24;
constexpr uint32_t kSlotShift = 16;
constexpr uint32_t kSlotMask = 0xFF;
constexpr uint32_t kPortShift = 4;
constexpr uint32_t kPortMask = 0xFFF;
constexpr uint32_t kSubMask = 0xF;
constexpr uint32_t kUsrPortMask = 0xFFFF;
// A line card's ports count from 1 to 2047: the reply path decodes the
// Interface-ID's port with that limit, so a higher port could never be
// answered.
constexpr uint32_t kEthernetMainMax = 2047;
constexpr uint32_t kVlanMask = 0xFFF;
constexpr uint32_t kLagMask = 0xFFFF;
constexpr uint32_t kVlanMax = 4094;
// Line cards sit in slots 0-47; logical slots from 48 on are port-extender
// units, 16 to an extender.
constexpr uint32_t kEthernetSlotMax = 47;
constexpr uint32_t kPeSlotBase = 48;
constexpr uint32_t kPeUnitShift = 12;
constexpr uint32_t kPeUnitMax = 15;
constexpr uint32_t kPeIdMax = 12;
constexpr uint32_t kPeUnitsPerExtender = 16;
constexpr uint32_t kCardSlotShift = 19;  // a card type's logical slot
constexpr uint32_t kCardIdMask = (1u << kCardSlotShift) - 1;

uint32_t makeEthernet(uint32_t slot, uint32_t usrPort) {
    const uint32_t main = usrPort >> kPortShift;
    if (slot > kEthernetSlotMax || usrPort > kUsrPortMask || main < 1 || main > kEthernetMainMax)
        return 0;
    return (IFM_IFTYPE_ETHERNET << kTypeShift) | (slot << kSlotShift) | usrPort;
}

uint32_t makePe(uint32_t unit, uint32_t port, uint32_t peId) {
    if (unit > kPeUnitMax || port < 1 || port > kPortMask || peId > kPeIdMax) return 0;
    return (IFM_IFTYPE_PE_ETHERNET << kTypeShift) | (peId << kSlotShift) | (unit << kPeUnitShift) | port;
}

uint32_t makeMgmt(uint32_t slot, uint32_t port, uint32_t last) {
    if (slot > kSlotMask || port > kPortMask || last != 0) return 0;
    return (IFM_IFTYPE_MGMT << kTypeShift) | (slot << kSlotShift) | (port << kPortShift);
}

// A VLAN id or LAG number, from `last` (the daemon's form) or from `port`.
uint32_t makeNumbered(uint32_t type, uint32_t slot, uint32_t port, uint32_t last) {
    if (slot != 0 || (port != 0 && last != 0)) return 0;
    const uint32_t number = last != 0 ? last : port;
    const uint32_t max = type == IFM_IFTYPE_VLAN ? kVlanMax : kLagMask;
    if (number < 1 || number > max) return 0;
    return (type << kTypeShift) | number;
}

uint32_t peIdOf(uint32_t ifIndex) { return (ifIndex >> kSlotShift) & kSlotMask; }
uint32_t peUnitOf(uint32_t ifIndex) { return (ifIndex >> kPeUnitShift) & kSubMask; }

// ---- name parsing ----------------------------------------------------------------

struct NameForm {
    std::string_view keyword;
    uint32_t type;
};

constexpr std::array<NameForm, 5> kNameForms{{
    {"management", IFM_IFTYPE_MGMT},
    {"ethernet", IFM_IFTYPE_ETHERNET},
    {"pe-ethernet", IFM_IFTYPE_PE_ETHERNET},
    {"port-channel", IFM_IFTYPE_LAG},
    {"vlan", IFM_IFTYPE_VLAN},
}};

// A cursor over the name that only moves forward and never past its end.
struct NameCursor {
    std::string_view rest;

    bool takeKeyword(std::string_view word) {
        if (rest.size() < word.size()) return false;
        for (size_t i = 0; i < word.size(); ++i)
            if (std::tolower(static_cast<unsigned char>(rest[i])) != word[i]) return false;
        rest.remove_prefix(word.size());
        return true;
    }
    bool take(char c) {
        if (rest.empty() || rest.front() != c) return false;
        rest.remove_prefix(1);
        return true;
    }
    // Up to 9 decimal digits: anything longer is out of every range anyway.
    bool takeNumber(uint32_t& out) {
        size_t n = 0;
        uint32_t v = 0;
        while (n < rest.size() && std::isdigit(static_cast<unsigned char>(rest[n]))) {
            if (n == 9) return false;
            v = v * 10 + uint32_t(rest[n] - '0');
            ++n;
        }
        if (n == 0) return false;
        rest.remove_prefix(n);
        out = v;
        return true;
    }
    bool takeSlash(uint32_t& out) { return take('/') && takeNumber(out); }
};

// The numbers after the keyword; 0 when they do not form a valid interface.
uint32_t parseNumbers(uint32_t type, NameCursor& c) {
    uint32_t a = 0, b = 0, d = 0;
    if (!c.takeNumber(a)) return 0;
    uint32_t ifIndex = 0;
    switch (type) {
    case IFM_IFTYPE_ETHERNET:
        if (!c.takeSlash(b) || (c.take(':') && !c.takeNumber(d))) return 0;
        ifIndex = ifmEthernetIfIndex(a, b, d);
        break;
    case IFM_IFTYPE_PE_ETHERNET:  // extender/unit/port
        if (!c.takeSlash(b) || !c.takeSlash(d)) return 0;
        ifIndex = ifmCreateIfIndex(type, b, d, a);
        break;
    case IFM_IFTYPE_MGMT:
        if (!c.takeSlash(b)) return 0;
        ifIndex = ifmCreateIfIndex(type, a, b, 0);
        break;
    default:
        ifIndex = ifmCreateIfIndex(type, 0, 0, a);
        break;
    }
    return c.rest.empty() ? ifIndex : 0;
}

// Whether the map names a port (or a port-channel member) whose logical slot
// is `slot`.
bool mapHasPortInSlot(const QorHostMap& map, uint32_t slot) {
    const auto inSlot = [slot](uint32_t ifIndex) {
        const uint32_t type = ifmIfIndexToIfType(ifIndex);
        return (type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET) &&
               ifmGetIfIndexToLogicalSlotId(ifIndex) == slot;
    };
    for (const auto& [ifIndex, itf] : map.interfaces)
        if (inSlot(ifIndex) || std::any_of(itf.members.begin(), itf.members.end(), inSlot)) return true;
    return false;
}

}  // namespace

uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t last) {
    switch (type) {
    case IFM_IFTYPE_ETHERNET:
        return makeEthernet(slot, port);  // the card type (last) is not part of the index
    case IFM_IFTYPE_PE_ETHERNET:
        return makePe(slot, port, last);
    case IFM_IFTYPE_MGMT:
        return makeMgmt(slot, port, last);
    case IFM_IFTYPE_VLAN:
    case IFM_IFTYPE_LAG:
        return makeNumbered(type, slot, port, last);
    default:
        return 0;
    }
}

uint32_t ifmEthernetIfIndex(uint32_t slot, uint32_t mainPort, uint32_t subPort) {
    if (mainPort > kPortMask || subPort > kSubMask) return 0;
    return makeEthernet(slot, mainPort << kPortShift | subPort);
}

uint32_t ifmIfIndexToIfType(uint32_t ifIndex) { return ifIndex >> kTypeShift; }

uint32_t ifmIfIndexToSlotId(uint32_t ifIndex) {
    switch (ifmIfIndexToIfType(ifIndex)) {
    case IFM_IFTYPE_ETHERNET:
    case IFM_IFTYPE_MGMT:
        return (ifIndex >> kSlotShift) & kSlotMask;
    case IFM_IFTYPE_PE_ETHERNET:
        return peUnitOf(ifIndex);
    default:
        return 0;
    }
}

uint32_t ifmIfIndexToPortId(uint32_t ifIndex) {
    switch (ifmIfIndexToIfType(ifIndex)) {
    case IFM_IFTYPE_ETHERNET:
    case IFM_IFTYPE_MGMT:
        return (ifIndex >> kPortShift) & kPortMask;
    case IFM_IFTYPE_PE_ETHERNET:
        return ifIndex & kPortMask;
    default:
        return 0;
    }
}

uint32_t ifmIfIndexToSubPortId(uint32_t ifIndex) {
    return ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_ETHERNET ? ifIndex & kSubMask : 0;
}

uint32_t ifmIfIndexToUsrPortId(uint32_t ifIndex) {
    switch (ifmIfIndexToIfType(ifIndex)) {
    case IFM_IFTYPE_ETHERNET:
        return ifIndex & kUsrPortMask;
    case IFM_IFTYPE_PE_ETHERNET:
        return ifIndex & kPortMask;
    default:
        return 0;
    }
}

uint32_t ifmIfIndexToPeFlag(uint32_t ifIndex) {
    return ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_PE_ETHERNET ? 1 : 0;
}

uint32_t ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex) {
    if (ifmIfIndexToPeFlag(ifIndex))
        return kPeSlotBase + kPeUnitsPerExtender * peIdOf(ifIndex) + peUnitOf(ifIndex);
    return ifmIfIndexToSlotId(ifIndex);
}

uint32_t ifmIfIndexToVlanId(uint32_t ifIndex) {
    return ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_VLAN ? ifIndex & kVlanMask : 0;
}

uint32_t ifmIfIndexToIfNum(uint32_t ifIndex) {
    switch (ifmIfIndexToIfType(ifIndex)) {
    case IFM_IFTYPE_LAG:
        return ifIndex & kLagMask;
    case IFM_IFTYPE_VLAN:
        return ifIndex & kVlanMask;
    default:
        return 0;
    }
}

char* ifmIfIndexToName(uint32_t ifIndex, char* out) {
    if (out == nullptr) return out;
    const uint32_t slot = ifmIfIndexToSlotId(ifIndex);
    const uint32_t port = ifmIfIndexToPortId(ifIndex);
    switch (ifmIfIndexToIfType(ifIndex)) {
    case IFM_IFTYPE_MGMT:
        std::snprintf(out, IFM_IFNAME_LEN, "management %u/%u", slot, port);
        break;
    case IFM_IFTYPE_ETHERNET:
        if (const uint32_t sub = ifmIfIndexToSubPortId(ifIndex); sub != 0)
            std::snprintf(out, IFM_IFNAME_LEN, "ethernet %u/%u:%u", slot, port, sub);
        else
            std::snprintf(out, IFM_IFNAME_LEN, "ethernet %u/%u", slot, port);
        break;
    case IFM_IFTYPE_PE_ETHERNET:
        std::snprintf(out, IFM_IFNAME_LEN, "pe-ethernet %u/%u/%u", peIdOf(ifIndex), slot, port);
        break;
    case IFM_IFTYPE_LAG:
        std::snprintf(out, IFM_IFNAME_LEN, "port-channel %u", ifmIfIndexToIfNum(ifIndex));
        break;
    case IFM_IFTYPE_VLAN:
        std::snprintf(out, IFM_IFNAME_LEN, "vlan %u", ifmIfIndexToVlanId(ifIndex));
        break;
    default:
        std::snprintf(out, IFM_IFNAME_LEN, "unknown 0x%08x", ifIndex);
        break;
    }
    return out;
}

int ifmNameToIfIndex(const char* name, uint32_t* outIfIndex) {
    if (name == nullptr || outIfIndex == nullptr) return -1;
    // A name longer than any interface's is refused before it is looked at.
    const size_t len = strnlen(name, IFM_IFNAME_LEN);
    if (len == IFM_IFNAME_LEN) return -1;
    for (const NameForm& form : kNameForms) {
        NameCursor c{std::string_view(name, len)};
        if (!c.takeKeyword(form.keyword)) continue;
        c.take(' ');  // one space or none
        const uint32_t ifIndex = parseNumbers(form.type, c);
        if (ifIndex == 0) return -1;
        *outIfIndex = ifIndex;
        return 0;
    }
    return -1;
}

int ifmSetPerSvcTypeMasks(uint8_t* record, size_t recordLen, int type, uint32_t mask) {
    if (record == nullptr || type < 0 || type > QOR_IFM_REG_MAX_TYPE) return -1;
    const qor::MutByteView r(record, recordLen);
    return qor::putU32(r, QOR_IFM_REG_OFF_MASKS + 4 * size_t(type), mask) ? 0 : -1;
}

// ---- port numbering and cards ----------------------------------------------------

uint32_t qorUsrPortToMainPort(uint32_t usrPort) { return (usrPort >> kPortShift) & kPortMask; }

uint32_t qorUsrPortToSubPort(uint32_t usrPort) { return usrPort & kSubMask; }

uint32_t qorMainAndSubPortToUsrPort(uint32_t module, uint32_t port, uint32_t subPort) {
    if (port < 1 || subPort > kSubMask) return 0;
    uint64_t main = port;
    if (module != 0) {
        const uint64_t perModule = qorHostMapGet()->system.portsPerModule;
        // A module's ports count from 1 to ports-per-module: "2:5" with four
        // to a module is no port at all, not main port 9.
        if (port > perModule) return 0;
        main = (uint64_t(module) - 1) * perModule + port;
    }
    if (main > kPortMask) return 0;
    return uint32_t(main) << kPortShift | subPort;
}

int qorIsSubPortValid(uint32_t subPort) { return subPort >= 1 && subPort <= kSubMask ? 1 : 0; }

int qorIsFourTupleSupported() { return qorHostMapGet()->system.fourTuple ? 1 : 0; }

int qorGetPlugModIdAndPortFromMainPort(uint32_t mainPort, uint32_t* module, uint32_t* port) {
    const uint32_t perModule = qorHostMapGet()->system.portsPerModule;
    if (mainPort == 0 || perModule == 0 || module == nullptr || port == nullptr) return -1;
    *module = (mainPort - 1) / perModule + 1;
    *port = (mainPort - 1) % perModule + 1;
    return 0;
}

uint32_t halDrvCardIdGetFromSlot(uint32_t slot) {
    const auto map = qorHostMapGet();
    if (!mapHasPortInSlot(*map, slot)) return 0;
    return slot < kPeSlotBase ? QOR_CARD_LINE : QOR_CARD_PE_UNIT;
}

uint32_t qorSysCardTypeUsrPortIdToPortId(uint32_t cardType, uint32_t maxPort, uint32_t usrPort) {
    const uint32_t card = cardType & kCardIdMask;
    const uint32_t main = qorUsrPortToMainPort(usrPort);
    if ((card != QOR_CARD_LINE && card != QOR_CARD_PE_UNIT) || usrPort > kUsrPortMask) return 0;
    return main >= 1 && main <= maxPort ? usrPort : 0;
}

uint32_t qorSysCardTypeToIfmIfType(uint32_t cardType, uint32_t portId) {
    const uint32_t card = cardType & kCardIdMask;
    const uint32_t slot = cardType >> kCardSlotShift;
    if (portId == 0) return 0;
    if (card == QOR_CARD_LINE && slot == 0) return IFM_IFTYPE_ETHERNET;
    if (card == QOR_CARD_PE_UNIT && slot >= kPeSlotBase) return IFM_IFTYPE_PE_ETHERNET;
    return 0;
}

uint32_t qor_wrap_bcm_stk_get_master_slotid() { return qorHostMapGet()->system.masterSlot; }
