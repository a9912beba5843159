// hostmap.cpp -- fuzz target for the host map reader: any text through qorHostMapParse, then installed and taken
// out again. A refused text must name its line; an accepted one holds no VLAN outside 1-4094 (tables are indexed by
// VLAN), and the installed map answers for each interface as the parsed one does.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    QorHostMap map;
    std::string err;
    if (qorHostMapParse(std::string(reinterpret_cast<const char*>(data), size), map, err) != 0) {
        fz::check(err.rfind("line ", 0) == 0, "a refusal that names no line");
        return 0;
    }
    qorHostMapInstall(map);
    for (const auto& [ifIndex, itf] : map.interfaces) {
        const auto& v = itf.taggedVlans;
        fz::check(itf.untaggedVlan <= 4094 && std::all_of(v.begin(), v.end(), [](uint32_t x) { return x - 1 < 4094; }),
                  "a VLAN out of range");
        fz::check(getVrfIdForIfIndex(ifIndex) == int(map.vrfIdOf(ifIndex)), "the installed map answers otherwise");
    }
    qorHostMapInstall(QorHostMap{});
    return 0;
}
