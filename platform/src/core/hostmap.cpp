// hostmap.cpp -- the host map: reading its INI text (with inih), its lookups,
// and the one map the process has installed.
#include "qor/hostmap.h"

#include <ini.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include "qor/ifm.h"
#include "qor/l2sock.h"

namespace {

constexpr uint32_t kVrfIdMax = 65535;
constexpr uint32_t kVlanMax = 4094;
constexpr uint32_t kSlotMax = 47;
constexpr uint32_t kMainPortMax = 4095;
constexpr size_t kVrfNameMax = 32;

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

bool parseU32(std::string_view text, uint32_t& out) {
    uint32_t v = 0;
    const char* end = text.data() + text.size();
    const auto [p, ec] = std::from_chars(text.data(), end, v);
    if (text.empty() || ec != std::errc() || p != end) return false;
    out = v;
    return true;
}

bool parseRange(std::string_view text, uint32_t lo, uint32_t hi, uint32_t& out) {
    uint32_t v = 0;
    if (!parseU32(trim(text), v) || v < lo || v > hi) return false;
    out = v;
    return true;
}

// "20,30-32": ascending, each VLAN once.
bool parseVlanList(std::string_view text, std::vector<uint32_t>& out) {
    std::set<uint32_t> vlans;
    while (true) {
        const auto comma = text.find(',');
        const std::string_view item = trim(text.substr(0, comma));
        const auto dash = item.find('-');
        uint32_t first = 0, last = 0;
        if (!parseRange(item.substr(0, dash), 1, kVlanMax, first)) return false;
        last = first;
        if (dash != std::string_view::npos && !parseRange(item.substr(dash + 1), first, kVlanMax, last))
            return false;
        for (uint32_t v = first; v <= last; ++v) vlans.insert(v);
        if (comma == std::string_view::npos) break;
        text.remove_prefix(comma + 1);
    }
    out.assign(vlans.begin(), vlans.end());
    return true;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "02:00:5e:10:00:01": six pairs of hex digits.
bool parseMac(std::string_view text, std::array<uint8_t, 6>& out) {
    constexpr size_t kMacTextLen = 17;
    if (text.size() != kMacTextLen) return false;
    std::array<uint8_t, 6> mac{};
    for (size_t i = 0; i < mac.size(); ++i) {
        const int hi = hexDigit(text[3 * i]), lo = hexDigit(text[3 * i + 1]);
        if (hi < 0 || lo < 0 || (i + 1 < mac.size() && text[3 * i + 2] != ':')) return false;
        mac[i] = uint8_t(hi << 4 | lo);
    }
    out = mac;
    return true;
}

bool parseYesNo(std::string_view text, bool& out) {
    if (text == "yes" || text == "true") return (out = true), true;
    if (text == "no" || text == "false") return (out = false), true;
    return false;
}

bool isPortType(uint32_t type) {
    return type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET || type == IFM_IFTYPE_MGMT;
}

bool isMemberType(uint32_t type) {
    return type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET;
}

bool validVrfName(std::string_view name) {
    if (name.empty() || name.size() > kVrfNameMax) return false;
    return std::all_of(name.begin(), name.end(), [](char c) {
        return std::isalnum(static_cast<unsigned char>(c)) || c == '-' || c == '_' || c == '.';
    });
}

// The keys each kind of interface takes.
bool interfaceTakes(uint32_t type, std::string_view key) {
    const bool vlans = key == "untagged" || key == "tagged";
    switch (type) {
    case IFM_IFTYPE_ETHERNET:
    case IFM_IFTYPE_PE_ETHERNET:
        return key == "linux" || key == "vrf" || vlans;
    case IFM_IFTYPE_LAG:
        // linux: a bond, where the kernel has them.
        return key == "linux" || key == "vrf" || key == "members" || vlans;
    case IFM_IFTYPE_VLAN:
        return key == "linux" || key == "vrf";
    case IFM_IFTYPE_MGMT:
        return key == "linux";
    default:
        return false;
    }
}

struct Section {
    enum class Kind { none, system, vrf, interface } kind = Kind::none;
    std::string header;  // as written between the brackets
    std::string name;    // the VRF's or the interface's
    int line = 0;
    std::set<std::string> keys;
    QorHostVrf vrf;
    bool vrfTableGiven = false;
    QorHostIf interface;
};

// The state inih's reader and handler share while one text is read. The
// reader hands inih one line at a time, so the line number is ours and every
// message can carry it; it also reads the section headers itself, since inih
// says nothing about a section that has no keys.
class Parser {
public:
    explicit Parser(std::string_view text) : text_(text) {}

    char* readLine(char* buf, int size);
    int key(std::string_view name, std::string_view value);
    // After inih returned rc: 0 and the map, or -1 and err.
    int finish(int rc, QorHostMap& out, std::string& err);

private:
    bool failed() const { return errLine_ != 0; }
    bool fail(int line, const std::string& why) {
        if (!failed()) {
            errLine_ = line;
            err_ = "line " + std::to_string(line) + ": " + why;
        }
        return false;
    }
    bool fail(const std::string& why) { return fail(line_, why); }

    bool header(std::string_view line);
    bool openSection(std::string_view inner);
    bool closeSection();
    bool closeVrf();
    bool closeInterface();
    bool systemKey(std::string_view name, std::string_view value);
    bool vrfKey(std::string_view name, std::string_view value);
    bool interfaceKey(std::string_view name, std::string_view value);
    bool membersKey(std::string_view value);
    bool checkReferences();

    std::string_view text_;
    size_t pos_ = 0;
    int line_ = 0;
    int errLine_ = 0;
    std::string err_;
    QorHostMap map_;
    Section cur_;
    bool systemSeen_ = false;
    std::map<uint32_t, std::string> vrfIds_;        // id -> VRF name
    std::map<uint32_t, int> vrfKeyLines_;           // interface -> line of its vrf =
    std::map<uint32_t, int> memberLines_;           // port-channel -> line of its members =
};

char* Parser::readLine(char* buf, int size) {
    if (failed() || pos_ >= text_.size() || size < 2) return nullptr;
    const size_t end = text_.find('\n', pos_);
    std::string_view line = text_.substr(pos_, end == std::string_view::npos ? end : end - pos_);
    pos_ = end == std::string_view::npos ? text_.size() : end + 1;
    ++line_;
    if (line_ == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") line.remove_prefix(3);
    // An indented line is read as any other, never as the continuation of the
    // value above it.
    line = trim(line);
    if (line.find('\0') != std::string_view::npos) return fail("a NUL byte"), nullptr;
    if (line.size() + 2 > size_t(size))
        return fail("longer than " + std::to_string(size - 2) + " characters"), nullptr;
    if (!line.empty() && line.front() == '[' && !header(line)) return nullptr;
    if (!line.empty()) std::memcpy(buf, line.data(), line.size());
    buf[line.size()] = '\n';
    buf[line.size() + 1] = '\0';
    return buf;
}

bool Parser::header(std::string_view line) {
    const auto close = line.find(']');
    if (close == std::string_view::npos) return fail("section header without ']'");
    const std::string_view after = trim(line.substr(close + 1));
    if (!after.empty() && after.front() != ';' && after.front() != '#')
        return fail("text after the section header");
    if (!closeSection()) return false;
    return openSection(trim(line.substr(1, close - 1)));
}

bool Parser::openSection(std::string_view inner) {
    cur_ = Section{};
    cur_.header = std::string(inner);
    cur_.line = line_;
    const auto space = inner.find_first_of(" \t");
    const std::string_view kind = inner.substr(0, space);
    const std::string_view name = space == std::string_view::npos ? std::string_view{} : trim(inner.substr(space));
    cur_.name = std::string(name);
    if (kind == "system" && name.empty()) {
        if (std::exchange(systemSeen_, true)) return fail("section [system] given twice");
        cur_.kind = Section::Kind::system;
    } else if (kind == "vrf") {
        if (!validVrfName(name)) return fail("a VRF section needs one name");
        if (name == "default") return fail("the VRF 'default' is id 0 and has no section");
        if (map_.vrfs.count(cur_.name)) return fail("VRF '" + cur_.name + "' given twice");
        cur_.kind = Section::Kind::vrf;
    } else if (kind == "interface") {
        uint32_t ifIndex = 0;
        if (ifmNameToIfIndex(cur_.name.c_str(), &ifIndex) != 0)
            return fail("unknown interface name '" + cur_.name + "'");
        if (map_.interfaces.count(ifIndex)) return fail("interface '" + cur_.name + "' given twice");
        cur_.kind = Section::Kind::interface;
        cur_.interface.name = cur_.name;
        cur_.interface.ifIndex = ifIndex;
    } else {
        return fail("unknown section [" + cur_.header + "]");
    }
    return true;
}

bool Parser::closeVrf() {
    if (!cur_.keys.count("id")) return fail(cur_.line, "VRF '" + cur_.name + "' has no id");
    // The policy rule of a VRF uses its id as the table unless told otherwise.
    if (!cur_.vrfTableGiven) cur_.vrf.table = cur_.vrf.id;
    const auto [it, fresh] = vrfIds_.emplace(cur_.vrf.id, cur_.name);
    if (!fresh)
        return fail(cur_.line, "VRF id " + std::to_string(cur_.vrf.id) + " given twice ('" + it->second +
                                   "' and '" + cur_.name + "')");
    map_.vrfs.emplace(cur_.name, cur_.vrf);
    return true;
}

bool Parser::closeInterface() {
    QorHostIf& itf = cur_.interface;
    const bool vlans = itf.untaggedVlan != 0 || !itf.taggedVlans.empty();
    if (!itf.vrf.empty() && vlans && ifmIfIndexToIfType(itf.ifIndex) != IFM_IFTYPE_VLAN)
        return fail(vrfKeyLines_[itf.ifIndex], "vrf is for a routed port; '" + itf.name + "' carries VLANs");
    if (itf.untaggedVlan != 0 &&
        std::binary_search(itf.taggedVlans.begin(), itf.taggedVlans.end(), itf.untaggedVlan))
        return fail(cur_.line, "'" + itf.name + "' carries VLAN " + std::to_string(itf.untaggedVlan) +
                                   " both untagged and tagged");
    const uint32_t type = ifmIfIndexToIfType(itf.ifIndex);
    itf.switchPort = vlans && (isMemberType(type) || type == IFM_IFTYPE_LAG);
    map_.interfaces.emplace(itf.ifIndex, std::move(itf));
    return true;
}

bool Parser::closeSection() {
    switch (cur_.kind) {
    case Section::Kind::vrf:
        return closeVrf();
    case Section::Kind::interface:
        return closeInterface();
    default:
        return true;
    }
}

int Parser::key(std::string_view name, std::string_view value) {
    if (failed()) return 0;
    if (cur_.kind == Section::Kind::none) return fail("key outside a section"), 0;
    if (!cur_.keys.insert(std::string(name)).second) return fail("key '" + std::string(name) + "' given twice"), 0;
    if (value.empty()) return fail("key '" + std::string(name) + "' has no value"), 0;
    bool ok = false;
    switch (cur_.kind) {
    case Section::Kind::system:
        ok = systemKey(name, value);
        break;
    case Section::Kind::vrf:
        ok = vrfKey(name, value);
        break;
    default:
        ok = interfaceKey(name, value);
        break;
    }
    return ok ? 1 : 0;
}

bool Parser::systemKey(std::string_view name, std::string_view value) {
    QorHostSystem& s = map_.system;
    const std::string bad = "bad " + std::string(name) + " '" + std::string(value) + "'";
    if (name == "chassis-mac") {
        std::array<uint8_t, 6> mac{};
        if (!parseMac(value, mac)) return fail(bad);
        s.chassisMac = mac;
        return true;
    }
    if (name == "master-slot") return parseRange(value, 0, kSlotMax, s.masterSlot) || fail(bad);
    if (name == "four-tuple") return parseYesNo(value, s.fourTuple) || fail(bad);
    if (name == "ports-per-module") return parseRange(value, 1, kMainPortMax, s.portsPerModule) || fail(bad);
    return fail("unknown key '" + std::string(name) + "' in [system]");
}

bool Parser::vrfKey(std::string_view name, std::string_view value) {
    const std::string bad = "VRF '" + cur_.name + "': bad " + std::string(name) + " '" + std::string(value) + "'";
    if (name == "id") return parseRange(value, 1, kVrfIdMax, cur_.vrf.id) || fail(bad);
    if (name == "table") {
        cur_.vrfTableGiven = true;
        return parseRange(value, 1, UINT32_MAX, cur_.vrf.table) || fail(bad);
    }
    return fail("unknown key '" + std::string(name) + "' in [" + cur_.header + "]");
}

bool Parser::interfaceKey(std::string_view name, std::string_view value) {
    QorHostIf& itf = cur_.interface;
    if (!interfaceTakes(ifmIfIndexToIfType(itf.ifIndex), name))
        return fail("unknown key '" + std::string(name) + "' in [" + cur_.header + "]");
    const std::string bad = "bad " + std::string(name) + " '" + std::string(value) + "'";
    if (name == "linux") {
        // A Linux interface name: at most 15 characters, no blanks or '/'.
        if (value.size() > 15 || value.find_first_of(" \t/") != std::string_view::npos) return fail(bad);
        itf.linuxName = std::string(value);
        return true;
    }
    if (name == "untagged") return parseRange(value, 1, kVlanMax, itf.untaggedVlan) || fail(bad);
    if (name == "tagged") return parseVlanList(value, itf.taggedVlans) || fail(bad);
    if (name == "members") return membersKey(value);
    // vrf: checked against the [vrf] sections once all are read.
    if (value != "default") itf.vrf = std::string(value);
    vrfKeyLines_[itf.ifIndex] = line_;
    return true;
}

// "ethernet 1/2, ethernet 1/3": ports, each once, in the order written.
bool Parser::membersKey(std::string_view value) {
    QorHostIf& itf = cur_.interface;
    while (true) {
        const auto comma = value.find(',');
        const std::string member(trim(value.substr(0, comma)));
        uint32_t ifIndex = 0;
        if (ifmNameToIfIndex(member.c_str(), &ifIndex) != 0 || !isMemberType(ifmIfIndexToIfType(ifIndex)))
            return fail("member '" + member + "' is not a port");
        if (std::find(itf.members.begin(), itf.members.end(), ifIndex) != itf.members.end())
            return fail("member '" + member + "' given twice");
        itf.members.push_back(ifIndex);
        if (comma == std::string_view::npos) break;
        value.remove_prefix(comma + 1);
    }
    memberLines_[itf.ifIndex] = line_;
    return true;
}

// What one section names in another: VRFs, and ports in two port-channels.
bool Parser::checkReferences() {
    for (const auto& [ifIndex, line] : vrfKeyLines_) {
        const QorHostIf& itf = map_.interfaces.at(ifIndex);
        if (!itf.vrf.empty() && !map_.vrfs.count(itf.vrf))
            return fail(line, "no [vrf " + itf.vrf + "] for '" + itf.name + "'");
    }
    std::map<uint32_t, uint32_t> lagOfPort;
    for (const auto& [lag, line] : memberLines_) {
        for (uint32_t port : map_.interfaces.at(lag).members) {
            const auto [it, fresh] = lagOfPort.emplace(port, lag);
            if (fresh) continue;
            char name[IFM_IFNAME_LEN], other[IFM_IFNAME_LEN];
            return fail(line, "'" + std::string(ifmIfIndexToName(port, name)) + "' is already a member of '" +
                                  ifmIfIndexToName(it->second, other) + "'");
        }
    }
    return true;
}

int Parser::finish(int rc, QorHostMap& out, std::string& err) {
    // inih reports the first line it could not read; ours are reported where
    // no earlier line was bad.
    if (rc > 0 && (!failed() || rc < errLine_)) {
        errLine_ = 0;
        fail(rc, "expected key = value");
    }
    if (rc < 0) fail(line_, "out of memory");
    if (!failed() && closeSection() && checkReferences()) {
        out = std::move(map_);
        return 0;
    }
    err = err_;
    return -1;
}

char* hostMapReadLine(char* buf, int size, void* stream) {
    return static_cast<Parser*>(stream)->readLine(buf, size);
}

int hostMapKey(void* user, const char* /*section: the reader's*/, const char* name, const char* value) {
    return static_cast<Parser*>(user)->key(name, value ? value : "");
}

struct Installed {
    std::mutex mu;
    std::shared_ptr<const QorHostMap> map = std::make_shared<const QorHostMap>();
};

Installed& installed() {
    static Installed s;
    return s;
}

}  // namespace

std::optional<uint32_t> QorHostMap::vrfId(const std::string& name) const {
    if (name == "default") return 0u;
    const auto it = vrfs.find(name);
    if (it == vrfs.end()) return std::nullopt;
    return it->second.id;
}

const QorHostIf* QorHostMap::find(uint32_t ifIndex) const {
    const auto it = interfaces.find(ifIndex);
    return it == interfaces.end() ? nullptr : &it->second;
}

const QorHostIf* QorHostMap::portByLinuxName(const std::string& linuxName) const {
    for (const auto& [ifIndex, itf] : interfaces)
        if (isPortType(ifmIfIndexToIfType(ifIndex)) && itf.linuxName == linuxName) return &itf;
    return nullptr;
}

uint32_t QorHostMap::lagOf(uint32_t portIfIndex) const {
    for (const auto& [ifIndex, itf] : interfaces)
        if (std::find(itf.members.begin(), itf.members.end(), portIfIndex) != itf.members.end()) return ifIndex;
    return 0;
}

uint32_t QorHostMap::vrfIdOf(uint32_t ifIndex) const {
    const QorHostIf* itf = find(ifIndex);
    if (itf == nullptr || itf->vrf.empty()) return 0;
    return vrfId(itf->vrf).value_or(0);
}

uint32_t QorHostMap::tableOfVrf(uint32_t id) const {
    if (id == 0) return 0;
    for (const auto& [name, vrf] : vrfs)
        if (vrf.id == id) return vrf.table;
    return 0;
}

int qorHostMapParse(const std::string& text, QorHostMap& out, std::string& err) {
    Parser parser(text);
    const int rc = ini_parse_stream(hostMapReadLine, &parser, hostMapKey, &parser);
    return parser.finish(rc, out, err);
}

int qorHostMapLoad(const std::string& path, QorHostMap& out, std::string& err) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        err = "cannot read " + path;
        return -1;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (qorHostMapParse(text.str(), out, err) != 0) {
        err = path + ": " + err;
        return -1;
    }
    return 0;
}

void qorHostMapInstall(QorHostMap map) {
    auto next = std::make_shared<const QorHostMap>(std::move(map));
    std::lock_guard lock(installed().mu);
    installed().map = std::move(next);
}

std::shared_ptr<const QorHostMap> qorHostMapGet() {
    std::lock_guard lock(installed().mu);
    return installed().map;
}

int qorHostMapSetLagMembers(uint32_t lagIfIndex, const std::vector<uint32_t>& members) {
    if (!std::all_of(members.begin(), members.end(),
                     [](uint32_t m) { return isMemberType(ifmIfIndexToIfType(m)); }))
        return -1;
    std::lock_guard lock(installed().mu);
    const QorHostIf* lag = installed().map->find(lagIfIndex);
    if (lag == nullptr || ifmIfIndexToIfType(lagIfIndex) != IFM_IFTYPE_LAG) return -1;
    auto next = std::make_shared<QorHostMap>(*installed().map);
    // A port is a member of one port-channel at a time: joining this one
    // takes it out of any other.
    for (auto& [ifIndex, itf] : next->interfaces) {
        std::vector<uint32_t>& m = itf.members;
        m.erase(std::remove_if(m.begin(), m.end(),
                               [&](uint32_t p) {
                                   return std::find(members.begin(), members.end(), p) != members.end();
                               }),
                m.end());
    }
    std::vector<uint32_t>& mine = next->interfaces.at(lagIfIndex).members;
    mine.clear();
    for (uint32_t m : members)
        if (std::find(mine.begin(), mine.end(), m) == mine.end()) mine.push_back(m);
    installed().map = std::move(next);
    return 0;
}

int qorHostMapSetSwitchPort(uint32_t ifIndex, bool switchPort) {
    const uint32_t type = ifmIfIndexToIfType(ifIndex);
    if (!isMemberType(type) && type != IFM_IFTYPE_LAG) return -1;
    std::lock_guard lock(installed().mu);
    if (!installed().map->hasInterface(ifIndex)) return -1;
    auto next = std::make_shared<QorHostMap>(*installed().map);
    next->interfaces.at(ifIndex).switchPort = switchPort;
    installed().map = std::move(next);
    return 0;
}

int getVrfIdForIfIndex(uint32_t ifIndex) {
    if (ifIndex == 0) return -1;
    return int(qorHostMapGet()->vrfIdOf(ifIndex));
}
