// qor/hostmap.h -- the host map: which Linux interfaces and routing tables
// stand for the switch's ports, VLANs, port-channels and VRFs on this host.
//
// An INI file (read with inih), one section per object:
//
//   [system]                      optional
//   chassis-mac = 02:00:5e:10:00:01   the chassis MAC (Remote-ID); default:
//                                     the MAC of the first mapped port
//   master-slot = 1               the stack unit this daemon runs on; ports of
//                                 other units are flooded through their agent
//   four-tuple = no               yes: ports are named module:port in the
//                                 Interface-ID, ports-per-module each
//   ports-per-module = 4
//
//   [vrf red]                     a VRF: id (1-65535, required), table (the
//   id = 1                        Linux routing table; default: the id). The
//   table = 101                   relay marks its packets with the table and a
//                                 rule "fwmark T lookup T" routes them.
//
//   [interface ethernet 1/1]      a port: linux = the Linux interface;
//   linux = veth-c1               untagged = the VLAN it carries untagged;
//   untagged = 10                 tagged = the VLANs it carries tagged ("20,30-32");
//   tagged = 20,30-32             a port with neither is a routed port;
//   vrf = red                     vrf = the VRF of a routed port. A port or
//                                 port-channel that carries VLANs is a switch
//                                 port (the CLI's "switchport" changes that)
//
//   [interface vlan 10]           a VLAN interface: linux = the Linux interface
//   linux = veth-c1               that holds the VLAN's IPv6 address (the port
//   vrf = red                     of a one-port VLAN, or a bridge)
//
//   [interface port-channel 3]    members = its ports (changeable at run time);
//   members = ethernet 1/2, ethernet 1/3    untagged/tagged/vrf as for a port
//
//   [interface management 1/0]    the management port: never relayed
//   linux = eth0
//
//   [interface pe-ethernet 0/1/5] a port-extender port, as a port
//
// Comments start with '#' or ';'; indentation is free; a line holds at most
// 198 characters. Unknown sections and keys, a section or key given twice, and
// a vrf = naming no [vrf] section are refused with their line, so a typo never
// passes silently. The VRF "default" is id 0 and has no section.
//
// The process holds one installed map (qorHostMapInstall); the packet layer,
// the interface lookups and the chassis services read it. Reads take a
// snapshot (shared_ptr), so a map replaced at run time never changes under a
// reader.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct QorHostVrf {
    uint32_t id = 0;
    uint32_t table = 0;  // 0: the main table
};

struct QorHostIf {
    std::string name;                 // as written in the section header
    uint32_t ifIndex = 0;
    std::string linuxName;            // linux =
    uint32_t untaggedVlan = 0;        // untagged = (ports and port-channels)
    std::vector<uint32_t> taggedVlans;  // tagged =, ascending
    std::vector<uint32_t> members;    // members = (port-channels), ifIndexes
    std::string vrf;                  // vrf =; empty: the default VRF
    // A layer-2 port (ports and port-channels): what the IFM tells its
    // clients, who keep static snooping bindings on switch ports only.
    // Frames are switched by the VLANs the port carries, whatever this says.
    bool switchPort = false;
};

struct QorHostSystem {
    std::optional<std::array<uint8_t, 6>> chassisMac;
    uint32_t masterSlot = 1;
    bool fourTuple = false;
    uint32_t portsPerModule = 4;
};

struct QorHostMap {
    QorHostSystem system;
    std::map<std::string, QorHostVrf> vrfs;   // by name
    std::map<uint32_t, QorHostIf> interfaces; // by ifIndex

    // The VRF id of a name: "default" is 0 whatever the map says.
    std::optional<uint32_t> vrfId(const std::string& name) const;
    bool hasInterface(uint32_t ifIndex) const { return interfaces.count(ifIndex) != 0; }
    const QorHostIf* find(uint32_t ifIndex) const;
    // The mapped interface whose Linux interface is `linuxName` and which is a
    // port (ethernet, pe-ethernet or management); null when none.
    const QorHostIf* portByLinuxName(const std::string& linuxName) const;
    // The port-channel a port is a member of, or 0.
    uint32_t lagOf(uint32_t portIfIndex) const;
    // The VRF id of an interface (its vrf = key); 0 for the default VRF and for
    // interfaces the map does not name.
    uint32_t vrfIdOf(uint32_t ifIndex) const;
    // The routing table of a VRF id; 0 (main) for the default VRF or an unknown id.
    uint32_t tableOfVrf(uint32_t vrfId) const;
};

// Parses the host map text. 0 and *out, or -1 with a one-line reason
// ("line N: ...") in err.
int qorHostMapParse(const std::string& text, QorHostMap& out, std::string& err);
// Reads and parses a file. 0 or -1 (err says why).
int qorHostMapLoad(const std::string& path, QorHostMap& out, std::string& err);

// The process's map. Until one is installed the map is empty.
void qorHostMapInstall(QorHostMap map);
std::shared_ptr<const QorHostMap> qorHostMapGet();
// Changes the members of a port-channel in the installed map (the CLI's
// "channel-group" and the IFM's LAG notices); a port is a member of one
// port-channel at a time, so the members leave any other. 0, or -1 when the
// port-channel is not mapped or a member is not a port.
int qorHostMapSetLagMembers(uint32_t lagIfIndex, const std::vector<uint32_t>& members);
// Makes a port or port-channel a switch port or not (the CLI's "[no]
// switchport"). 0, or -1 when it is not a mapped port or port-channel.
int qorHostMapSetSwitchPort(uint32_t ifIndex, bool switchPort);
