// fake_pkt.cpp -- recording stand-ins for the packet path's sends and
// interface lookups: frames and datagrams are kept, not sent; interface
// information, local addresses and the chassis MAC are what the test set.
#include <array>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <utility>

#include "fake.h"
#include "fake_state.h"
#include "qor/ha.h"
#include "qor/l2sock.h"

namespace {

constexpr char kNamePrefix[] = "QORS";

struct PktState {
    std::mutex mu;
    std::vector<qorfake::Sent> sent;
    std::map<uint32_t, nbsdIntfInfo> intf;
    std::set<std::pair<int, std::array<uint8_t, 16>>> local;
    std::optional<std::array<uint8_t, 6>> chassisMac;
};

PktState& ps() {
    static PktState s;
    return s;
}

// The ifIndex of a name "QORS<lower-case hex>"; false for any other name.
bool ifIndexOfName(const char* name, uint32_t& out) {
    const size_t prefixLen = sizeof kNamePrefix - 1;
    if (name == nullptr || std::strncmp(name, kNamePrefix, prefixLen) != 0) return false;
    const char* hex = name + prefixLen;
    if (*hex == '\0' || std::strspn(hex, "0123456789abcdef") != std::strlen(hex)) return false;
    out = uint32_t(std::strtoul(hex, nullptr, 16));
    return true;
}

}  // namespace

namespace qorfake {

std::vector<Sent> sent() {
    std::lock_guard lock(ps().mu);
    return ps().sent;
}

void setIntfInfo(uint32_t ifIndex, const nbsdIntfInfo& info) {
    std::lock_guard lock(ps().mu);
    ps().intf[ifIndex] = info;
}

void addLocalAddress(int vrfId, const uint8_t addr[16]) {
    std::array<uint8_t, 16> a{};
    std::memcpy(a.data(), addr, a.size());
    std::lock_guard lock(ps().mu);
    ps().local.insert({vrfId, a});
}

void setChassisMac(const uint8_t* mac) {
    std::lock_guard lock(ps().mu);
    if (mac == nullptr) {
        ps().chassisMac.reset();
        return;
    }
    std::array<uint8_t, 6> m{};
    std::memcpy(m.data(), mac, m.size());
    ps().chassisMac = m;
}

void resetPktState() {
    std::lock_guard lock(ps().mu);
    ps().sent.clear();
    ps().intf.clear();
    ps().local.clear();
    ps().chassisMac.reset();
}

}  // namespace qorfake

ssize_t qorSendto(int fd, const void* buf, size_t len, int flags, const void* dst, unsigned dstLen,
                  uint32_t egressIfIndex) {
    const auto* b = static_cast<const uint8_t*>(buf);
    const auto* d = static_cast<const uint8_t*>(dst);
    std::vector<uint8_t> bytes = b ? std::vector<uint8_t>(b, b + len) : std::vector<uint8_t>{};
    std::vector<uint8_t> to = d ? std::vector<uint8_t>(d, d + dstLen) : std::vector<uint8_t>{};
    const int64_t rc =
        qorfake::record("qorSendto", {fd, int64_t(len), flags, egressIfIndex}, bytes, int64_t(len));
    std::lock_guard lock(ps().mu);
    ps().sent.push_back({fd, egressIfIndex, std::move(bytes), std::move(to)});
    return ssize_t(rc);
}

int nbsdGetIntfInfoForName(const char* name, nbsdIntfInfo* info) {
    uint32_t ifIndex = 0;
    const bool named = ifIndexOfName(name, ifIndex);
    qorfake::record("nbsdGetIntfInfoForName", {named ? int64_t(ifIndex) : -1}, {}, 0);
    std::lock_guard lock(ps().mu);
    const auto it = named ? ps().intf.find(ifIndex) : ps().intf.end();
    if (it == ps().intf.end()) return 0;
    if (info != nullptr) *info = it->second;
    return 1;
}

int nbsdGetIntfInfoFromIpv6Addr(const uint8_t addr[16], int vrfId) {
    std::array<uint8_t, 16> a{};
    if (addr != nullptr) std::memcpy(a.data(), addr, a.size());
    qorfake::record("nbsdGetIntfInfoFromIpv6Addr", {vrfId},
                    std::vector<uint8_t>(a.begin(), a.end()), 0);
    std::lock_guard lock(ps().mu);
    return ps().local.count({vrfId, a}) != 0 ? 1 : 0;
}

int qorHaGetChassisMacAddr(uint8_t mac[6]) {
    qorfake::record("qorHaGetChassisMacAddr", {}, {}, 0);
    std::lock_guard lock(ps().mu);
    if (!ps().chassisMac || mac == nullptr) return -1;
    std::memcpy(mac, ps().chassisMac->data(), 6);
    return 0;
}
