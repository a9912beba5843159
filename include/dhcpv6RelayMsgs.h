// dhcpv6RelayMsgs.h -- the control messages the relay manager accepts on its
// request queue: types, command codes and the byte offsets of their fields.
// Shared by the daemon and by every program that sends it commands.
#pragma once

#include <cstddef>
#include <cstdint>

// Message types (word at byte 12).
constexpr uint32_t MT_HA_CONTROL = 1608;
constexpr uint32_t MT_DHCPV6_EVENT_NOTIF = 2009;
constexpr uint32_t MT_DHCPV6_CMD = 6001;
constexpr uint32_t MT_DHCPV6_CMD_2 = 6002;
constexpr uint32_t MT_RTM6_CLR_ROUTE = 12834;
constexpr uint32_t MT_DHCPV6_TRANS_SYNC = 46401;
constexpr uint32_t MT_DHCPV6_TRANS_SYNC_INIT = 46402;
constexpr uint32_t MT_DHCPV6_LEASEIP_SYNC = 46403;
constexpr uint32_t MT_DHCPV6_LEASEIP_SYNC_INIT = 46404;
constexpr uint32_t MT_DHCPV6_SNOOP_SYNC = 46407;
constexpr uint32_t MT_DHCPV6_SNOOP_SYNC_INIT = 46408;
constexpr uint32_t MT_DHCPV6AGT_REG_WITH_MGR = 46409;
constexpr uint32_t MT_DHCPV6_SNOOP_TBL_PUSH = 46410;
constexpr uint32_t MT_DHCPV6_SNOOP_TBL_UPDATE = 46411;
constexpr uint32_t MT_DHCPV6_CLIENT_REG = 46412;
constexpr uint32_t MT_DHCPV6_SNOOPING_STATUS = 46413;
// (MT_SWP_ACK 402, MT_IFM_NOTIF_MSG 10908, MT_MRTM_MCIDX_RESP 15673 and
// MT_DHCPV6_INIT_COMPLETE 2806 are the platform's: qor/swp.h, qor/chassis.h.)

// Command codes (word at byte 72 of MT_DHCPV6_CMD messages).
constexpr uint32_t DHCP_SNOOP_CONFIG = 1;
constexpr uint32_t DHCP_SNOOP_TRUST = 5;
constexpr uint32_t DHCP_SNOOP_CLEAR_BINDING = 6;
constexpr uint32_t DHCP_SNOOP_LOAD_DB = 8;
constexpr uint32_t DHCP_SOURCE_INTERFACE = 9;
constexpr uint32_t DHCP_IF_SOURCE_INTERFACE = 10;
constexpr uint32_t DHCP_SNOOP_WRITE_DB = 20806;
constexpr uint32_t DHCP_RELAYADDR_CONFIG = 40030;
constexpr uint32_t DHCP_LOG_LEVEL = 40031;
constexpr uint32_t DHCP_SHOW_SNOOPING = 100257;
constexpr uint32_t DHCP_SHOW_TRUST = 100258;
constexpr uint32_t DHCP_SHOW_SNOOP_VLANS = 100259;
constexpr uint32_t DHCP_SHOW_BINDING = 100261;
constexpr uint32_t DHCP_SHOW_BINDING_COUNT = 100262;

// DHCP_LOG_LEVEL
constexpr size_t DHCPV6_LOG_OFF_DEBUG_SWITCH = 80;  // 1: record the debugging-on line
constexpr size_t DHCPV6_LOG_OFF_LEVEL = 84;
constexpr size_t DHCPV6_LOG_MSG_LEN = 88;

// DHCP_RELAYADDR_CONFIG
constexpr size_t DHCPV6_RLY_OFF_OPERATION = 80;  // 1 add, other remove
constexpr size_t DHCPV6_RLY_OFF_IFINDEX = 84;
constexpr size_t DHCPV6_RLY_OFF_VRF_NAME = 92;   // 32 bytes, zero-padded
constexpr size_t DHCPV6_RLY_VRF_NAME_LEN = 32;
constexpr size_t DHCPV6_RLY_OFF_ADDR = 290;      // 16 bytes, not word aligned
constexpr size_t DHCPV6_RLY_OFF_VRF_ID = 648;
constexpr size_t DHCPV6_RLY_MSG_LEN = 652;

// DHCP_SOURCE_INTERFACE
constexpr size_t DHCPV6_SRC_OFF_OPERATION = 80;  // 1 set, other remove
constexpr size_t DHCPV6_SRC_OFF_IFINDEX = 84;
constexpr size_t DHCPV6_SRC_OFF_LINE = 88;       // 281 bytes of line text
constexpr size_t DHCPV6_SRC_LINE_LEN = 281;
constexpr size_t DHCPV6_SRC_MSG_LEN = 88 + 281;

// DHCP_IF_SOURCE_INTERFACE
constexpr size_t DHCPV6_IFSRC_OFF_CLIENT_IFINDEX = 80;
constexpr size_t DHCPV6_IFSRC_OFF_OPERATION = 84;
constexpr size_t DHCPV6_IFSRC_OFF_SRC_IFINDEX = 88;
constexpr size_t DHCPV6_IFSRC_OFF_LINE = 92;     // 281 bytes of line text
constexpr size_t DHCPV6_IFSRC_MSG_LEN = 92 + 281;

// Event notice (MT_DHCPV6_EVENT_NOTIF)
constexpr size_t DHCPV6_EVT_OFF_CODE = 64;
constexpr size_t DHCPV6_EVT_OFF_SLOT = 68;

// Configuration lines and keys the relay manager writes.
constexpr uint32_t DHCPV6_CFG_ID_INTERFACE = 119;
constexpr uint32_t DHCPV6_CFG_ID_SRC_INTF = 282;
constexpr uint32_t DHCPV6_CFG_ID_DEBUG = 366;
constexpr uint16_t DHCPV6_CFG_KEY_HELPER = 204;
constexpr uint16_t DHCPV6_CFG_KEY_IF_SRC_INTF = 206;
constexpr uint32_t DHCPV6_CFG_KEY_SRC_INTF = 9;
inline constexpr char DHCPV6_DEBUG_ON_LINE[] = "DHCPv6RelayMgr: \r\n DHCPv6 debugging is on";

// Debug-flag command: not one of the switch OS's messages. The word at 80
// becomes dhcpv6_debug_flag (no code of the daemon writes it otherwise); the
// answer carries the flag in force at 84.
constexpr uint32_t MT_DHCPV6_SET_DEBUG_FLAG = 46500;
constexpr size_t DHCPV6_DBGFLAG_OFF_VALUE = 80;
constexpr size_t DHCPV6_DBGFLAG_OFF_CURRENT = 84;
constexpr size_t DHCPV6_DBGFLAG_MSG_LEN = 88;
