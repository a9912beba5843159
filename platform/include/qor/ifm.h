// qor/ifm.h -- the interface manager library: the ifIndex encoding, interface
// names, and the registration masks.
//
// An ifIndex is 32 bits: bits 31-24 the interface type; for an Ethernet port
// bits 23-16 the slot (0-47), 15-0 the port id: the user port number, main
// port in 15-4 and sub-port in 3-0 (0 = none); for a port-extender port bits
// 23-16 the extender id (0-12), 15-12 its stack unit, 11-0 the port; for a
// VLAN interface bits 11-0 the VLAN id; for a port-channel bits 15-0 its
// number; for the management interface bits 23-16 the slot, 15-4 the port.
// 0 is no interface.
// Names read as an engineer types them: "vlan 10", "ethernet 1/2",
// "ethernet 1/2:3", "port-channel 5", "management 1/0",
// "pe-ethernet 0/1/5" (extender 0, unit 1, port 5).
//
// Logical slots: a line-card port's slot is its logical slot; a port-extender
// port's logical slot is 48 + 16 * extender id + stack unit, so slots 48 and
// above in an Interface-ID always mean an extender.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t IFM_IFTYPE_MGMT = 1;
constexpr uint32_t IFM_IFTYPE_ETHERNET = 6;
constexpr uint32_t IFM_IFTYPE_PE_ETHERNET = 7;  // a port-extender port
constexpr uint32_t IFM_IFTYPE_LAG = 22;
constexpr uint32_t IFM_IFTYPE_VLAN = 24;
constexpr size_t IFM_IFNAME_LEN = 32;  // room for any name with its zero

// Builds an ifIndex; 0 when a field is out of range for the type.
//   ethernet: (6, slot 0-47, port id, card type): the port id is the user
//     port number (qorMainAndSubPortToUsrPort: main port 1-2047, sub 0-15);
//     the card type is not part of the index;
//   pe-ethernet: (7, stack unit 0-15, port 1-4095, extender id 0-12);
//   management: (1, slot 0-255, port 0-4095, 0);
//   VLAN (24, 0, 0, id 1-4094) and LAG (22, 0, 0, number 1-65535): the number
//     is given in the last field, as the daemon calls it, or in `port` with
//     the last field 0; the fields such a type does not have must be 0.
uint32_t ifmCreateIfIndex(uint32_t type, uint32_t slot, uint32_t port, uint32_t last);
// An Ethernet port by slot, main port and sub-port (as in "ethernet 1/2:3").
uint32_t ifmEthernetIfIndex(uint32_t slot, uint32_t mainPort, uint32_t subPort);
uint32_t ifmIfIndexToIfType(uint32_t ifIndex);
// Ethernet and management: the slot; pe-ethernet: the stack unit; else 0.
uint32_t ifmIfIndexToSlotId(uint32_t ifIndex);
// Ethernet: the main port; pe-ethernet and management: the port; else 0.
uint32_t ifmIfIndexToPortId(uint32_t ifIndex);
uint32_t ifmIfIndexToSubPortId(uint32_t ifIndex);  // ethernet; else 0
// Ethernet: the user port number (main port << 4 | sub-port); pe-ethernet:
// the port; else 0.
uint32_t ifmIfIndexToUsrPortId(uint32_t ifIndex);
uint32_t ifmIfIndexToPeFlag(uint32_t ifIndex);  // 1 for a port-extender port
// Ethernet and management: the slot; pe-ethernet: 48 + 16 * id + unit; else 0.
uint32_t ifmGetIfIndexToLogicalSlotId(uint32_t ifIndex);
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

// ---- port numbering and cards ----------------------------------------------------
// A user port number holds the main port in bits 15-4 and the sub-port in
// bits 3-0. With four-part names (host map: four-tuple = yes) a main port is
// also a plug-in module and a port on it: main = (module - 1) *
// ports-per-module + port.
uint32_t qorUsrPortToMainPort(uint32_t usrPort);
uint32_t qorUsrPortToSubPort(uint32_t usrPort);
// Module 0: `port` is the main port. 0 for port 0, a sub-port above 15, a
// port beyond ports-per-module on a module, or a main port above 4095.
uint32_t qorMainAndSubPortToUsrPort(uint32_t module, uint32_t port, uint32_t subPort);
int qorIsSubPortValid(uint32_t subPort);   // 1 for 1-15, else 0
int qorIsFourTupleSupported();             // from the installed host map
// 0 and the module (from 1) and its port, or -1 for main port 0.
int qorGetPlugModIdAndPortFromMainPort(uint32_t mainPort, uint32_t* module, uint32_t* port);
// The card type in a logical slot: QOR_CARD_LINE for slots 0-47 and
// QOR_CARD_PE_UNIT for a port-extender unit's slot (48 and above) when the
// host map maps a port there (as an interface or a port-channel member), else 0.
constexpr uint32_t QOR_CARD_LINE = 0x41;
constexpr uint32_t QOR_CARD_PE_UNIT = 0x42;
uint32_t halDrvCardIdGetFromSlot(uint32_t slot);
// The port id of a user port on a card (the user port itself when the card
// is known and its main port is 1-maxPort), else 0.
uint32_t qorSysCardTypeUsrPortIdToPortId(uint32_t cardType, uint32_t maxPort, uint32_t usrPort);
// The interface type of a port on a card: ethernet for a line card,
// pe-ethernet for a port-extender unit (card type with the unit's logical slot
// in bits 31-19), 0 for no card or port 0.
uint32_t qorSysCardTypeToIfmIfType(uint32_t cardType, uint32_t portId);
// The stack unit this daemon runs on (host map master-slot).
uint32_t qor_wrap_bcm_stk_get_master_slotid();
