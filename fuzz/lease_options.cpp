// lease_options.cpp -- fuzz target for the lease-option walk: a DHCPv6 message (plain or relayed) through
// dhcpv6ProcClientLeaseOptions on VLAN 10 of the relay manager of harness.h; a plain Reply is then given back as a
// Release of the same options. Byte 0: bit 0 the interface has no global address, bit 1 every debug line
// formatted, bit 2 in between the interface goes down and up (its routes withdrawn and sent again). The rest is
// the message. The RTM must get no route longer than 128 bits, and after the Release no lease may be left
// and every route added must have been withdrawn.
#include <map>

#include "harness.h"
#include "qor/rtm.h"

namespace {

using namespace fz;

// Replays the route updates sent since `from`: prefix and length -> installed.
std::map<std::vector<uint8_t>, bool> routesAfter(size_t from) {
    std::map<std::vector<uint8_t>, bool> installed;
    const auto calls = qorfake::callsTo("qorRtmUpdateRoute");
    for (size_t i = from; i < calls.size(); ++i) {
        const auto& r = calls[i].bytes;
        check(r.size() == QOR_RTM_ROUTE_LEN && r[QOR_RTM_ROUTE_OFF_PREFIX_LEN] <= QOR_RTM_MAX_PREFIX_LEN,
              "a route update without its record, or longer than 128 bits");
        std::vector<uint8_t> key(r.begin() + QOR_RTM_ROUTE_OFF_PREFIX, r.begin() + QOR_RTM_ROUTE_OFF_PREFIX + 16);
        key.push_back(r[QOR_RTM_ROUTE_OFF_PREFIX_LEN]);
        installed[key] = calls[i].ints[1] == QOR_RTM_OP_ADD;
    }
    return installed;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 1) return 0;
    std::vector<uint8_t> msg(data + 1, data + 1 + std::min<size_t>(size - 1, 4096));
    const auto leaseOptions = [&] {
        dhcpv6ProcClientLeaseOptions(vlanIf(10), msg.empty() ? nullptr : msg.data(), uint32_t(msg.size()), data[0] & 1);
    };
    bringUp();
    const size_t before = qorfake::callsTo("qorRtmUpdateRoute").size();
    dhcpv6_debug_flag = (data[0] & 2) ? kAllDebug : 0;
    leaseOptions();
    if (data[0] & 4) dhcpv6LeaseIpWithDrawRoute(vlanIf(10), 0), dhcpv6LeaseIpDownLoadRoute(vlanIf(10));
    const bool released = !msg.empty() && msg[0] == 7;  // a Reply: the client gives back what it was given
    if (released) msg[0] = 8, leaseOptions();
    check(!released || qorRadixCount(dhcpv6RelayGlobalVar.leaseIpTbl) == 0, "a lease outlived the client's Release");
    for (const auto& [route, up] : routesAfter(before)) check(!released || !up, "a route outlived the Release");
    takeDown();
    return 0;
}
