// lease_options.cpp -- fuzz target for the lease-option walk: the input is a
// DHCPv6 message (plain or relayed) handed to dhcpv6ProcClientLeaseOptions on
// a relay manager set up as in a real run (relay_harness.h), whose client
// (transaction 0x123456, DUID-LL 00:11:22:33:44:01, VLAN 10) is recorded. A
// plain Reply is then handed over again as a Release of the same options.
//
// Byte 0 of the input:
//   bit 0  the interface has no global address
//   bit 1  every debug line formatted
//   bit 2  between Reply and Release the interface goes down and up, and the
//          RTM clears one prefix and then everything
// The rest is the message, in a buffer of exactly its size.
//
// Checked as the route table manager would see it: every route names a
// prefix of at most 128 bits through the client's address on VLAN 10, no
// lease is longer than 128 bits, each client prefix has at most one routed
// lease, and once the Release went through no lease is left and every route
// that was added has been withdrawn.
#include <map>
#include <tuple>

#include "qor/rtm.h"
#include "relay_harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace relayfuzz;

constexpr uint8_t kNoGlobalAddr = 0x01;
constexpr uint8_t kDebugOn = 0x02;
constexpr uint8_t kInterfaceAndRtmEvents = 0x04;
constexpr uint8_t kMsgReply = 7;
constexpr uint8_t kMsgRelease = 8;
constexpr size_t kMaxMessage = 4096;

[[noreturn]] void broken(const char* what) {
    std::fprintf(stderr, "lease_options: %s\n", what);
    std::abort();
}

// What the RTM holds per (prefix, length) after the updates sent since
// `from`: an add installs (again), a delete withdraws.
using RouteKey = std::tuple<Addr, uint8_t>;
void applyRoutes(size_t from, std::map<RouteKey, bool>& installed) {
    const auto calls = qorfake::callsTo("qorRtmUpdateRoute");
    for (size_t i = from; i < calls.size(); ++i) {
        const auto& r = calls[i].bytes;
        if (r.size() != QOR_RTM_ROUTE_LEN) broken("a route update without its record");
        const uint8_t len = r[QOR_RTM_ROUTE_OFF_PREFIX_LEN];
        if (len > QOR_RTM_MAX_PREFIX_LEN) broken("a route longer than 128 bits");
        Addr prefix{}, nextHop{};
        std::copy_n(r.begin() + QOR_RTM_ROUTE_OFF_PREFIX, 16, prefix.begin());
        std::copy_n(r.begin() + QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_ADDR, 16,
                    nextHop.begin());
        if (nextHop != kClientLinkLocal ||
            qor::u32At(r, QOR_RTM_ROUTE_OFF_NHOPS + QOR_RTM_NHOP_OFF_IFINDEX) != vlanIf(10))
            broken("a route not through the client on VLAN 10");
        installed[{prefix, len}] = calls[i].ints[1] == QOR_RTM_OP_ADD;
    }
}

// The table as the election must leave it.
void checkLeases() {
    auto* t = dhcpv6RelayGlobalVar.leaseIpTbl;
    std::map<std::vector<uint8_t>, int> routedPerPrefix;
    for (QOR_RADIX_NODE* n = qorRadixGetNext(t, nullptr, 0); n != nullptr;
         n = qorRadixGetNext(t, n->rnKey, DHCPV6_LEASEIP_KEY_BITS)) {
        const auto* e = reinterpret_cast<const dhcpv6LeaseIpEntry*>(n);
        if (qor::u32At(e->prefixLen, 0) > QOR_RTM_MAX_PREFIX_LEN) broken("a lease longer than 128");
        // interface, DUID and prefix: the first 148 key bytes
        routedPerPrefix[std::vector<uint8_t>(n->rnKey, n->rnKey + 148)] += e->IsRouteAdded;
    }
    for (const auto& [group, routed] : routedPerPrefix)
        if (routed > 1) broken("two routed leases of one client prefix");
}

void leaseOptions(std::vector<uint8_t>& msg, uint8_t noGlobal, uint32_t debug) {
    QuietStdout quiet(debug != 0);
    dhcpv6_debug_flag = debug;
    dhcpv6ProcClientLeaseOptions(vlanIf(10), msg.empty() ? nullptr : msg.data(),
                                 uint32_t(msg.size()), noGlobal);
    dhcpv6_debug_flag = 0;
}

void interfaceAndRtmEvents(uint32_t debug) {
    QuietStdout quiet(debug != 0);
    dhcpv6_debug_flag = debug;
    dhcpv6LeaseIpWithDrawRoute(vlanIf(10), 0);
    dhcpv6LeaseIpDownLoadRoute(vlanIf(10));
    std::vector<uint8_t> clear(QOR_RTM_CLR_LEN, 0);
    if (auto* first = reinterpret_cast<dhcpv6LeaseIpEntry*>(
            qorRadixGetNext(dhcpv6RelayGlobalVar.leaseIpTbl, nullptr, 0)))
        qor::putBytes(clear, QOR_RTM_CLR_OFF_PREFIX, first->leaseIp, 16);
    dhcpv6HandleClearRoute(clear);
    qor::putU32(clear, QOR_RTM_CLR_OFF_ALL, 1);
    dhcpv6HandleClearRoute(clear);
    dhcpv6_debug_flag = 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 1) return 0;
    process();
    const uint8_t how = data[0];
    const uint8_t noGlobal = (how & kNoGlobalAddr) ? 1 : 0;
    const uint32_t debug = (how & kDebugOn) ? kAllDebug : 0;
    std::vector<uint8_t> msg(data + 1, data + 1 + std::min(size - 1, kMaxMessage));

    bringUp();
    const size_t before = qorfake::callsTo("qorRtmUpdateRoute").size();
    leaseOptions(msg, noGlobal, debug);
    checkLeases();
    if (how & kInterfaceAndRtmEvents) {
        interfaceAndRtmEvents(debug);
        checkLeases();
    }
    if (!msg.empty() && msg[0] == kMsgReply) {
        // The client gives back what it was given, in a Release of the same
        // transaction.
        msg[0] = kMsgRelease;
        leaseOptions(msg, noGlobal, debug);
        if (qorRadixCount(dhcpv6RelayGlobalVar.leaseIpTbl) != 0)
            broken("a lease outlived the client's Release");
        std::map<RouteKey, bool> installed;
        applyRoutes(before, installed);
        for (const auto& [route, up] : installed)
            if (up) broken("a route outlived the client's Release");
    } else {
        std::map<RouteKey, bool> installed;
        applyRoutes(before, installed);  // checks each record
    }
    takeDown();
    return 0;
}
