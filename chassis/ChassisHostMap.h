// ChassisHostMap.h -- the host map: which Linux interfaces and routing tables
// stand for the switch's interfaces and VRFs on this host.
//
// An INI file of sections, one per object:
//
//   [vrf red]                 a VRF: id (1-4095, required), table (Linux routing table)
//   id = 1
//   table = 101
//   [interface vlan 10]       an interface by its switch name: linux = the Linux interface
//   linux = veth0
//
// Comments start with '#' or ';'. Other sections and unknown keys are kept
// for the services that will read them and ignored here. The VRF "default"
// is always id 0 and need not be written.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

struct ChassisHostVrf {
    uint32_t id = 0;
    uint32_t table = 0;  // 0: the main table
};

struct ChassisHostIf {
    std::string name;                           // as written in the section header
    std::map<std::string, std::string> values;  // linux = ..., and any other key
};

struct ChassisHostMap {
    std::map<std::string, ChassisHostVrf> vrfs;   // by name
    std::map<uint32_t, ChassisHostIf> interfaces; // by ifIndex

    // The VRF id of a name: "default" is 0 whatever the map says.
    std::optional<uint32_t> vrfId(const std::string& name) const;
    bool hasInterface(uint32_t ifIndex) const { return interfaces.count(ifIndex) != 0; }
};

// Parses the host map text. 0 and *out, or -1 with a one-line reason
// ("line N: ...") in err.
int chassisHostMapParse(const std::string& text, ChassisHostMap& out, std::string& err);
// Reads and parses a file. 0 or -1 (err says why).
int chassisHostMapLoad(const std::string& path, ChassisHostMap& out, std::string& err);
