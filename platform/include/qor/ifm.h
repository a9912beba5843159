// qor/ifm.h -- the interface manager library: the ifIndex encoding, interface
// names, and the registration masks.
//
// An ifIndex is 32 bits: bits 31-24 the interface type; for an Ethernet port
// bits 23-16 the slot, 15-4 the port, 3-0 the sub-port (0 = none); for a VLAN
// interface bits 11-0 the VLAN id; for a port-channel bits 15-0 its number;
// for the management interface bits 23-16 the slot. 0 is no interface.
// Names read as an engineer types them: "vlan 10", "ethernet 1/2",
// "ethernet 1/2:3", "port-channel 5", "management 1/0".
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t IFM_IFTYPE_MGMT = 1;
constexpr uint32_t IFM_IFTYPE_ETHERNET = 6;
constexpr uint32_t IFM_IFTYPE_LAG = 22;
constexpr uint32_t IFM_IFTYPE_VLAN = 24;
constexpr size_t IFM_IFNAME_LEN = 32;  // room for any name with its zero

// Builds an ifIndex; 0 when a field is out of range for the type
// (ethernet: slot 0-255, port 1-4095, sub 0-15; management: slot 0-255, port
// 0-4095, sub 0; VLAN: id 1-4094; LAG: 1-65535). A VLAN id or LAG number is
// given in `sub`, as the daemon calls it (ifmCreateIfIndex(24, 0, 0, vlanId)),
// or in `port` with `sub` 0; the fields such a type does not have must be 0.
uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t sub);
uint32_t ifmIfIndexToIfType(uint32_t ifIndex);
uint32_t ifmIfIndexToSlotId(uint32_t ifIndex);  // ethernet and management; else 0
uint32_t ifmIfIndexToPortId(uint32_t ifIndex);  // ethernet and management; else 0
uint32_t ifmIfIndexToSubPortId(uint32_t ifIndex);  // ethernet; else 0
uint32_t ifmIfIndexToVlanId(uint32_t ifIndex);  // 0 unless a VLAN interface
// The number of a logical interface: a port-channel's number, a VLAN's id; else 0.
uint32_t ifmIfIndexToIfNum(uint32_t ifIndex);
// Writes the name into out (at least IFM_IFNAME_LEN bytes); returns out.
// An ifIndex of no known type gives "unknown 0x%08x".
char* ifmIfIndexToName(uint32_t ifIndex, char* out);
// Parses a name as printed (case-insensitive keyword, one space or none
// before the numbers: "vlan10" too). 0 and *outIfIndex, or -1.
int ifmNameToIfIndex(const char* name, uint32_t* outIfIndex);

// Writes the mask of one service type into an IFM registration request
// (qor/chassis.h: QOR_IFM_REG_OFF_MASKS + 4 * type). 0, or -1 for a type out
// of range or a short record.
int ifmSetPerSvcTypeMasks(uint8_t* record, size_t recordLen, int type, uint32_t mask);
