// ChassisNetlink.h -- what the chassis services ask of the Linux kernel over
// rtnetlink: the state of links (the IFM) and delegated-prefix routes (the
// RTM). Everything runs in the network namespace of the calling thread.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "ChassisService.h"

// A link as the IFM sees it: present, and operationally up (administratively
// up with its carrier).
using ChassisLinkStates = std::map<std::string, bool>;  // Linux name -> up

// A socket on the kernel's link notifications.
class ChassisLinkWatch {
public:
    // Subscribes to link changes. 0 or -1.
    int open();
    int fd() const { return sock_.get(); }
    // Reads every notification waiting into `links` (added, changed, removed
    // links), calling `changed` after each one, so that a link going down
    // and then away is seen as both. False when notifications were lost (the
    // socket overflowed): the caller then takes a new snapshot.
    bool drain(ChassisLinkStates& links, const std::function<void()>& changed);

private:
    ChassisFd sock_;
};

// Every link of the namespace now. 0 or -1.
int chassisLinkSnapshot(ChassisLinkStates& links);

// A route to a prefix through a next hop on a Linux interface.
struct ChassisRoute {
    uint32_t table = 0;  // 0: the main table
    std::array<uint8_t, 16> prefix{};
    uint8_t prefixLen = 0;
    std::array<uint8_t, 16> nextHop{};
    uint32_t linuxIfIndex = 0;
    auto operator<=>(const ChassisRoute&) const = default;
};

// Adds (or replaces) or deletes the route in the kernel. 0, or the negative
// errno the kernel answered. A route to be deleted that is already gone is 0.
int chassisRouteChange(const ChassisRoute& route, bool add);
