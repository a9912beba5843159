// ifm.cpp -- the interface manager library: ifIndex encoding and decoding,
// interface names both ways, and the registration masks.
#include "qor/ifm.h"

#include <array>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "qor/bytes.h"
#include "qor/chassis.h"

namespace {

constexpr uint32_t kTypeShift = 24;
constexpr uint32_t kSlotShift = 16;
constexpr uint32_t kSlotMask = 0xFF;
constexpr uint32_t kPortShift = 4;
constexpr uint32_t kPortMask = 0xFFF;
constexpr uint32_t kSubMask = 0xF;
constexpr uint32_t kVlanMask = 0xFFF;
constexpr uint32_t kLagMask = 0xFFFF;
constexpr uint32_t kVlanMax = 4094;

bool isPort(uint32_t type) { return type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_MGMT; }

uint32_t makePort(uint32_t type, uint32_t slot, uint32_t port, uint32_t sub) {
    const uint32_t minPort = type == IFM_IFTYPE_ETHERNET ? 1 : 0;
    const uint32_t maxSub = type == IFM_IFTYPE_ETHERNET ? kSubMask : 0;
    if (slot > kSlotMask || port < minPort || port > kPortMask || sub > maxSub) return 0;
    return (type << kTypeShift) | (slot << kSlotShift) | (port << kPortShift) | sub;
}

// A VLAN id or LAG number, from `sub` (the daemon's form) or from `port`.
uint32_t makeNumbered(uint32_t type, uint32_t slot, uint32_t port, uint32_t sub) {
    if (slot != 0 || (port != 0 && sub != 0)) return 0;
    const uint32_t number = sub != 0 ? sub : port;
    const uint32_t max = type == IFM_IFTYPE_VLAN ? kVlanMax : kLagMask;
    if (number < 1 || number > max) return 0;
    return (type << kTypeShift) | number;
}

// ---- name parsing ----------------------------------------------------------------

struct NameForm {
    std::string_view keyword;
    uint32_t type;
};

constexpr std::array<NameForm, 4> kNameForms{{
    {"management", IFM_IFTYPE_MGMT},
    {"ethernet", IFM_IFTYPE_ETHERNET},
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
};

// The numbers after the keyword; 0 when they do not form a valid interface.
uint32_t parseNumbers(uint32_t type, NameCursor& c) {
    uint32_t a = 0, b = 0, sub = 0;
    if (!c.takeNumber(a)) return 0;
    if (!isPort(type)) return c.rest.empty() ? ifmCreateIfIndex(type, 0, 0, a) : 0;
    if (!c.take('/') || !c.takeNumber(b)) return 0;
    if (type == IFM_IFTYPE_ETHERNET && c.take(':') && !c.takeNumber(sub)) return 0;
    return c.rest.empty() ? ifmCreateIfIndex(type, a, b, sub) : 0;
}

}  // namespace

uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t sub) {
    switch (type) {
    case IFM_IFTYPE_ETHERNET:
    case IFM_IFTYPE_MGMT:
        return makePort(type, slot, port, sub);
    case IFM_IFTYPE_VLAN:
    case IFM_IFTYPE_LAG:
        return makeNumbered(type, slot, port, sub);
    default:
        return 0;
    }
}

uint32_t ifmEthernetIfIndex(uint32_t slot, uint32_t mainPort, uint32_t subPort) {
    return makePort(IFM_IFTYPE_ETHERNET, slot, mainPort, subPort);
}

uint32_t ifmIfIndexToIfType(uint32_t ifIndex) { return ifIndex >> kTypeShift; }

uint32_t ifmIfIndexToSlotId(uint32_t ifIndex) {
    return isPort(ifmIfIndexToIfType(ifIndex)) ? (ifIndex >> kSlotShift) & kSlotMask : 0;
}

uint32_t ifmIfIndexToPortId(uint32_t ifIndex) {
    return isPort(ifmIfIndexToIfType(ifIndex)) ? (ifIndex >> kPortShift) & kPortMask : 0;
}

uint32_t ifmIfIndexToSubPortId(uint32_t ifIndex) {
    return ifmIfIndexToIfType(ifIndex) == IFM_IFTYPE_ETHERNET ? ifIndex & kSubMask : 0;
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
