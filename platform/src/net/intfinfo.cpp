// intfinfo.cpp -- the interface lookups of the packet path: a switch
// interface's MAC and global IPv6 address from its mapped Linux interface,
// and whether an address is one of this system's in a VRF.
#include <ifaddrs.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>
#include <set>

#include "netintf.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"

namespace {

bool isGlobal(const QorIpv6Addr& a) {
    static constexpr QorIpv6Addr kLoopback{0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const bool linkLocal = a[0] == 0xfe && (a[1] & 0xc0) == 0x80;
    const bool multicast = a[0] == 0xff;
    const bool unspecified = std::all_of(a.begin(), a.end(), [](uint8_t b) { return b == 0; });
    return !linkLocal && !multicast && !unspecified && a != kLoopback;
}

// The system's interfaces as getifaddrs lists them. A dump costs some 200 us,
// and the relay asks several times per packet, so the last dump is kept
// until the kernel announces a link or IPv6 address change on a netlink
// socket subscribed to those groups. The socket is looked at once per
// 100 us at most: a change is seen within that time, and a burst of packets
// pays for one look.
class IntfCache {
public:
    IntfCache() {
        // A forked child has its own namespace, maybe: it starts afresh.
        pthread_atfork(nullptr, nullptr, [] { forked_ = true; });
    }

    template <typename Fn>
    auto with(Fn fn) {
        std::lock_guard lock(mu_);
        if (!opened_ || forked_) reset();
        const int64_t now = monotonicNs();
        if (!valid_ || now - checkedAt_ >= kCheckEveryNs) {
            if (changed()) refresh();
            checkedAt_ = now;
        }
        return fn(intfs_, names_);
    }

private:
    static constexpr int64_t kCheckEveryNs = 100'000;

    static int64_t monotonicNs() {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return int64_t(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
    }

    void reset() {
        if (notices_ >= 0) close(notices_);
        opened_ = true;
        forked_ = false;
        valid_ = false;
        notices_ = socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = RTMGRP_LINK | RTMGRP_IPV6_IFADDR;
        if (notices_ >= 0 && bind(notices_, reinterpret_cast<sockaddr*>(&local), sizeof local) != 0) {
            close(notices_);
            notices_ = -1;
        }
    }

    // Drains the notices; any notice, or a lost one, means the dump is old.
    bool changed() {
        if (notices_ < 0 || !valid_) return true;  // no notices: a dump is trusted for 100 us only
        bool any = false;
        uint8_t buf[8192];
        for (;;) {
            const ssize_t n = recv(notices_, buf, sizeof buf, MSG_DONTWAIT);
            if (n > 0 || (n < 0 && errno == ENOBUFS)) {
                any = true;
                continue;
            }
            if (n < 0 && errno == EINTR) continue;
            return any;
        }
    }

    void refresh() {
        intfs_.clear();
        names_.clear();
        ifaddrs* list = nullptr;
        valid_ = getifaddrs(&list) == 0;
        for (const ifaddrs* a = list; a != nullptr; a = a->ifa_next) {
            if (a->ifa_name == nullptr) continue;
            QorLinuxIntf& intf = intfs_[a->ifa_name];
            if (a->ifa_addr == nullptr) continue;
            if (a->ifa_addr->sa_family == AF_PACKET) {
                const auto* ll = reinterpret_cast<const sockaddr_ll*>(a->ifa_addr);
                intf.index = ll->sll_ifindex;
                intf.flags = a->ifa_flags;
                if (ll->sll_ifindex > 0) names_[ll->sll_ifindex] = a->ifa_name;
                if (ll->sll_halen == 6) {
                    QorMacAddr mac;
                    std::memcpy(mac.data(), ll->sll_addr, mac.size());
                    intf.mac = mac;
                }
            } else if (a->ifa_addr->sa_family == AF_INET6) {
                QorIpv6Addr addr;
                std::memcpy(addr.data(), &reinterpret_cast<const sockaddr_in6*>(a->ifa_addr)->sin6_addr,
                            addr.size());
                intf.addrs.push_back(addr);
                if (!intf.global && isGlobal(addr)) intf.global = addr;
            }
        }
        if (list != nullptr) freeifaddrs(list);
    }

    static inline bool forked_ = false;
    std::mutex mu_;
    bool opened_ = false;
    int notices_ = -1;
    bool valid_ = false;
    int64_t checkedAt_ = 0;
    std::map<std::string, QorLinuxIntf> intfs_;
    std::map<int, std::string> names_;  // Linux ifindex -> name
};

using IntfMap = std::map<std::string, QorLinuxIntf>;
using NameMap = std::map<int, std::string>;

IntfCache& cache() {
    static IntfCache c;
    return c;
}

// "QORS" and the ifIndex in lower-case hexadecimal, as the relay names its
// interfaces to this layer.
std::optional<uint32_t> ifIndexOfName(const char* name) {
    static constexpr char kPrefix[] = "QORS";
    if (name == nullptr || std::strncmp(name, kPrefix, sizeof kPrefix - 1) != 0) return std::nullopt;
    const char* digits = name + sizeof kPrefix - 1;
    uint32_t value = 0;
    size_t n = 0;
    for (; digits[n] != '\0'; ++n) {
        const char c = digits[n];
        const int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (d < 0 || n == 8) return std::nullopt;
        value = value << 4 | uint32_t(d);
    }
    if (n == 0 || value == 0) return std::nullopt;
    return value;
}

// The VRFs an address on a Linux interface belongs to: those of the mapped
// layer-3 interfaces (VLANs, port-channels) over it, else of the mapped
// ports, else the default VRF.
std::set<uint32_t> vrfsOfLinux(const QorHostMap& map, const std::string& linuxName) {
    std::set<uint32_t> l3, ports;
    for (const auto& [ifIndex, itf] : map.interfaces) {
        if (itf.linuxName != linuxName) continue;
        const uint32_t type = ifmIfIndexToIfType(ifIndex);
        const bool port = type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET || type == IFM_IFTYPE_MGMT;
        (port ? ports : l3).insert(map.vrfIdOf(ifIndex));
    }
    if (!l3.empty()) return l3;
    if (!ports.empty()) return ports;
    return {0};
}

}  // namespace

std::optional<QorLinuxIntf> qorLinuxIntfGet(const std::string& linuxName) {
    return cache().with([&](const IntfMap& intfs, const NameMap&) -> std::optional<QorLinuxIntf> {
        const auto it = intfs.find(linuxName);
        if (it == intfs.end()) return std::nullopt;
        return it->second;
    });
}

std::vector<std::string> qorLinuxIntfsWithAddr(const QorIpv6Addr& addr) {
    return cache().with([&](const IntfMap& intfs, const NameMap&) {
        std::vector<std::string> names;
        for (const auto& [name, intf] : intfs)
            if (std::find(intf.addrs.begin(), intf.addrs.end(), addr) != intf.addrs.end()) names.push_back(name);
        return names;
    });
}

std::string qorLinuxNameOfIndex(int linuxIfIndex) {
    return cache().with([&](const IntfMap&, const NameMap& names) {
        const auto it = names.find(linuxIfIndex);
        return it == names.end() ? std::string() : it->second;
    });
}

int qorLinuxIndexOfName(const std::string& linuxName) {
    return cache().with([&](const IntfMap& intfs, const NameMap&) {
        const auto it = intfs.find(linuxName);
        return it == intfs.end() ? 0 : it->second.index;
    });
}

std::optional<unsigned> qorLinuxIntfFlags(const std::string& linuxName) {
    return cache().with([&](const IntfMap& intfs, const NameMap&) -> std::optional<unsigned> {
        const auto it = intfs.find(linuxName);
        if (it == intfs.end() || it->second.index == 0) return std::nullopt;
        return it->second.flags;
    });
}

std::string qorHostLinuxName(const QorHostMap& map, uint32_t ifIndex) {
    const QorHostIf* itf = map.find(ifIndex);
    if (itf == nullptr) return {};
    if (!itf->linuxName.empty()) return itf->linuxName;
    // A port-channel without a bond answers for the Linux interface of its
    // first member.
    for (uint32_t member : itf->members) {
        const QorHostIf* port = map.find(member);
        if (port != nullptr && !port->linuxName.empty()) return port->linuxName;
    }
    return {};
}

std::optional<QorIpv6Addr> qorHostGlobalAddr(uint32_t ifIndex) {
    const std::string linuxName = qorHostLinuxName(*qorHostMapGet(), ifIndex);
    if (linuxName.empty()) return std::nullopt;
    const auto intf = qorLinuxIntfGet(linuxName);
    return intf ? intf->global : std::nullopt;
}

std::optional<QorMacAddr> qorHostFirstPortMac() {
    const auto map = qorHostMapGet();
    for (const auto& [ifIndex, itf] : map->interfaces) {
        if (ifmIfIndexToIfType(ifIndex) != IFM_IFTYPE_ETHERNET || itf.linuxName.empty()) continue;
        const auto intf = qorLinuxIntfGet(itf.linuxName);
        if (intf && intf->mac) return intf->mac;
    }
    return std::nullopt;
}

int nbsdGetIntfInfoForName(const char* name, nbsdIntfInfo* info) {
    const auto ifIndex = ifIndexOfName(name);
    if (!ifIndex || info == nullptr) return 0;
    const auto map = qorHostMapGet();
    const std::string linuxName = qorHostLinuxName(*map, *ifIndex);
    if (linuxName.empty()) return 0;
    const auto intf = qorLinuxIntfGet(linuxName);
    if (!intf) return 0;
    std::memset(info, 0, sizeof *info);
    info->ifIndex = *ifIndex;
    info->hasGlobalIpv6 = intf->global ? 1 : 0;
    if (intf->global) std::memcpy(info->ipv6Addr, intf->global->data(), sizeof info->ipv6Addr);
    if (intf->mac) std::memcpy(info->mac, intf->mac->data(), sizeof info->mac);
    info->vrfId = map->vrfIdOf(*ifIndex);
    return 1;
}

int nbsdGetIntfInfoFromIpv6Addr(const uint8_t addr[16], int vrfId) {
    if (addr == nullptr || vrfId < 0) return 0;
    QorIpv6Addr a;
    std::memcpy(a.data(), addr, a.size());
    const auto map = qorHostMapGet();
    for (const std::string& linuxName : qorLinuxIntfsWithAddr(a))
        if (vrfsOfLinux(*map, linuxName).count(uint32_t(vrfId)) != 0) return 1;
    return 0;
}
