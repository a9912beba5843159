// hostmap.cpp -- fuzz target for the host map reader: any text through
// qorHostMapParse. A refused text must say which line; an accepted map must
// hold what its readers rely on (names that parse back to their ifIndex,
// VLANs in range and ascending, VRFs that exist, each port in at most one
// port-channel), and the lookups of the installed map must answer.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>

#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/l2sock.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

void checkInterface(const QorHostMap& map, const QorHostIf& itf, std::map<uint32_t, uint32_t>& lagOfPort) {
    uint32_t ifIndex = 0;
    check(ifmNameToIfIndex(itf.name.c_str(), &ifIndex) == 0 && ifIndex == itf.ifIndex);
    check(itf.untaggedVlan <= 4094);
    check(std::is_sorted(itf.taggedVlans.begin(), itf.taggedVlans.end()));
    check(std::adjacent_find(itf.taggedVlans.begin(), itf.taggedVlans.end()) == itf.taggedVlans.end());
    check(itf.taggedVlans.empty() || (itf.taggedVlans.front() >= 1 && itf.taggedVlans.back() <= 4094));
    check(itf.vrf.empty() || map.vrfs.count(itf.vrf) == 1);
    for (uint32_t member : itf.members) check(lagOfPort.emplace(member, itf.ifIndex).second);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    QorHostMap map;
    std::string err;
    if (qorHostMapParse(text, map, err) != 0) {
        check(err.rfind("line ", 0) == 0);
        return 0;
    }
    std::map<uint32_t, uint32_t> lagOfPort;
    for (const auto& [ifIndex, itf] : map.interfaces) {
        check(ifIndex == itf.ifIndex);
        checkInterface(map, itf, lagOfPort);
    }
    for (const auto& [port, lag] : lagOfPort) check(map.lagOf(port) == lag);
    for (const auto& [name, vrf] : map.vrfs) check(vrf.id >= 1 && map.tableOfVrf(vrf.id) == vrf.table);

    qorHostMapInstall(map);
    for (const auto& [ifIndex, itf] : map.interfaces) {
        check(getVrfIdForIfIndex(ifIndex) == int(map.vrfIdOf(ifIndex)));
        const uint32_t type = ifmIfIndexToIfType(ifIndex);
        if (type == IFM_IFTYPE_ETHERNET || type == IFM_IFTYPE_PE_ETHERNET)
            check(halDrvCardIdGetFromSlot(ifmGetIfIndexToLogicalSlotId(ifIndex)) != 0);
        if (type == IFM_IFTYPE_LAG) check(qorHostMapSetLagMembers(ifIndex, itf.members) == 0);
    }
    qorHostMapInstall(QorHostMap{});
    return 0;
}
