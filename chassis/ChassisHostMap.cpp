// ChassisHostMap.cpp -- reading the host map (INI) into VRFs and interfaces.
#include "ChassisHostMap.h"

#include <charconv>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>

#include "qor/ifm.h"

namespace {

constexpr uint32_t kVrfIdMax = 65535;

std::string_view trim(std::string_view s) {
    const auto first = s.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    const auto last = s.find_last_not_of(" \t\r");
    return s.substr(first, last - first + 1);
}

bool parseU32(std::string_view text, uint32_t& out) {
    uint32_t v = 0;
    const auto* end = text.data() + text.size();
    const auto [p, ec] = std::from_chars(text.data(), end, v);
    if (ec != std::errc() || p != end || text.empty()) return false;
    out = v;
    return true;
}

// The section being filled while the lines below its header are read.
struct Section {
    enum class Kind { none, vrf, interface, other } kind = Kind::none;
    std::string name;
    uint32_t ifIndex = 0;
    std::map<std::string, std::string> values;
};

class Parser {
public:
    explicit Parser(ChassisHostMap& out) : out_(out) {}
    int line(int number, std::string_view text, std::string& err);
    int finish(std::string& err) { return close(err); }

private:
    int header(std::string_view inner, std::string& err);
    int close(std::string& err);
    int closeVrf(std::string& err);
    int fail(std::string& err, const std::string& why) {
        err = "line " + std::to_string(number_) + ": " + why;
        return -1;
    }

    ChassisHostMap& out_;
    Section cur_;
    int number_ = 0;        // the line being read
    int headerLine_ = 0;    // the line of the current section's header
    std::set<uint32_t> vrfIds_;
};

int Parser::line(int number, std::string_view raw, std::string& err) {
    number_ = number;
    const std::string_view text = trim(raw);
    if (text.empty() || text.front() == '#' || text.front() == ';') return 0;
    if (text.front() == '[') {
        if (text.back() != ']') return fail(err, "section header without ']'");
        if (close(err) != 0) return -1;
        headerLine_ = number;
        return header(trim(text.substr(1, text.size() - 2)), err);
    }
    const auto eq = text.find('=');
    if (eq == std::string_view::npos) return fail(err, "expected key = value");
    const std::string key(trim(text.substr(0, eq)));
    if (key.empty()) return fail(err, "empty key");
    if (cur_.kind == Section::Kind::none) return fail(err, "key outside a section");
    if (!cur_.values.emplace(key, std::string(trim(text.substr(eq + 1)))).second)
        return fail(err, "key '" + key + "' given twice");
    return 0;
}

int Parser::header(std::string_view inner, std::string& err) {
    const auto space = inner.find_first_of(" \t");
    const std::string_view kind = inner.substr(0, space);
    const std::string_view name =
        space == std::string_view::npos ? std::string_view{} : trim(inner.substr(space));
    cur_ = Section{};
    cur_.name = std::string(name);
    if (kind == "vrf") {
        if (name.empty() || name.find_first_of(" \t") != std::string_view::npos)
            return fail(err, "a VRF section needs one name");
        if (out_.vrfs.count(cur_.name)) return fail(err, "VRF '" + cur_.name + "' given twice");
        cur_.kind = Section::Kind::vrf;
    } else if (kind == "interface") {
        if (ifmNameToIfIndex(cur_.name.c_str(), &cur_.ifIndex) != 0)
            return fail(err, "unknown interface name '" + cur_.name + "'");
        if (out_.interfaces.count(cur_.ifIndex))
            return fail(err, "interface '" + cur_.name + "' given twice");
        cur_.kind = Section::Kind::interface;
    } else {
        cur_.kind = Section::Kind::other;
    }
    return 0;
}

int Parser::closeVrf(std::string& err) {
    ChassisHostVrf vrf;
    const auto id = cur_.values.find("id");
    const bool isDefault = cur_.name == "default";
    if (id == cur_.values.end() && !isDefault) return fail(err, "VRF '" + cur_.name + "' has no id");
    if (id != cur_.values.end() &&
        (!parseU32(id->second, vrf.id) || (isDefault ? vrf.id != 0 : vrf.id == 0) ||
         vrf.id > kVrfIdMax))
        return fail(err, "VRF '" + cur_.name + "': bad id '" + id->second + "'");
    // The policy rule of a VRF uses its id as the table unless told otherwise.
    vrf.table = vrf.id;
    const auto table = cur_.values.find("table");
    if (table != cur_.values.end() && !parseU32(table->second, vrf.table))
        return fail(err, "VRF '" + cur_.name + "': bad table '" + table->second + "'");
    if (!isDefault && !vrfIds_.insert(vrf.id).second)
        return fail(err, "VRF id " + std::to_string(vrf.id) + " given twice");
    out_.vrfs.emplace(cur_.name, vrf);
    return 0;
}

int Parser::close(std::string& err) {
    // Errors about a whole section are reported at its header line.
    const int reading = number_;
    number_ = headerLine_;
    int rc = 0;
    if (cur_.kind == Section::Kind::vrf) {
        rc = closeVrf(err);
    } else if (cur_.kind == Section::Kind::interface) {
        out_.interfaces.emplace(cur_.ifIndex, ChassisHostIf{cur_.name, std::move(cur_.values)});
    }
    cur_ = Section{};
    number_ = reading;
    return rc;
}

}  // namespace

std::optional<uint32_t> ChassisHostMap::vrfId(const std::string& name) const {
    if (name == "default") return 0u;
    const auto it = vrfs.find(name);
    if (it == vrfs.end()) return std::nullopt;
    return it->second.id;
}

int chassisHostMapParse(const std::string& text, ChassisHostMap& out, std::string& err) {
    ChassisHostMap map;
    Parser parser(map);
    std::istringstream in(text);
    std::string line;
    int number = 0;
    while (std::getline(in, line))
        if (parser.line(++number, line, err) != 0) return -1;
    if (parser.finish(err) != 0) return -1;
    out = std::move(map);
    return 0;
}

int chassisHostMapLoad(const std::string& path, ChassisHostMap& out, std::string& err) {
    std::ifstream in(path);
    if (!in) {
        err = "cannot read " + path;
        return -1;
    }
    std::ostringstream text;
    text << in.rdbuf();
    if (chassisHostMapParse(text.str(), out, err) != 0) {
        err = path + ": " + err;
        return -1;
    }
    return 0;
}
