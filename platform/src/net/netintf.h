// netintf.h -- what the packet layer knows of Linux interfaces: their index,
// flags, MAC and IPv6 addresses (a cache refreshed when the kernel announces
// a change, seen within 100 us), the Linux interface behind a mapped switch
// interface, and the policy rules that route a VRF's marked packets through
// its table. Internal to qor_net.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qor/hostmap.h"

using QorIpv6Addr = std::array<uint8_t, 16>;
using QorMacAddr = std::array<uint8_t, 6>;

struct QorLinuxIntf {
    int index = 0;                       // the Linux ifindex
    unsigned flags = 0;                  // IFF_UP, IFF_RUNNING, ...
    std::optional<QorMacAddr> mac;
    std::vector<QorIpv6Addr> addrs;      // every IPv6 address, as the kernel lists them
    std::optional<QorIpv6Addr> global;   // the first one not link-local, multicast or loopback
};

// The Linux interface of that name, or nothing when there is none.
std::optional<QorLinuxIntf> qorLinuxIntfGet(const std::string& linuxName);
// The name of the Linux interface with that index, or "" when the cache
// knows none; the index of the one with that name, or 0.
std::string qorLinuxNameOfIndex(int linuxIfIndex);
int qorLinuxIndexOfName(const std::string& linuxName);
// Its interface flags (IFF_UP, IFF_RUNNING, ...), or nothing when unknown.
std::optional<unsigned> qorLinuxIntfFlags(const std::string& linuxName);
// The Linux interfaces that hold addr.
std::vector<std::string> qorLinuxIntfsWithAddr(const QorIpv6Addr& addr);

// The Linux interface that stands for a mapped interface: its own, or for a
// port-channel without one, its first member's. Empty when none.
std::string qorHostLinuxName(const QorHostMap& map, uint32_t ifIndex);
// The first global IPv6 address of a mapped interface's Linux interface.
std::optional<QorIpv6Addr> qorHostGlobalAddr(uint32_t ifIndex);
// The MAC of the first mapped Ethernet port (lowest ifIndex) that has one.
std::optional<QorMacAddr> qorHostFirstPortMac();

// Makes sure the IPv6 rule "fwmark table lookup table" exists (added once per
// process; one already there is fine). 0, or -1 with errno.
int qorVrfRuleEnsure(uint32_t table);
