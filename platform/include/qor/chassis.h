// qor/chassis.h -- the switch OS's other control-plane processes on a Linux
// host, and the messages their clients exchange with them.
//
// Each service has a request queue (qor/ipc.h) named by its application
// number. By default the daemon process hosts them on their own threads
// (chassis/); with --external-chassis a harness or qorchassisd plays them.
// Every message is an IPC message: the header (bytes 0-63), the status word
// at 64, and the body from QOR_CHASSIS_OFF_BODY, big-endian words. A request
// that is answered is answered with the request's own bytes, status filled,
// sent back to the sender's socket.
#pragma once

#include <cstddef>
#include <cstdint>

// Applications.
constexpr int QOR_APP_RELAYMGR = 336;
constexpr int QOR_APP_IFM = 138;
constexpr int QOR_APP_RTM = 76;
constexpr int QOR_APP_ACL = 57;
constexpr int QOR_APP_MRTM = 77;
constexpr int QOR_APP_CFGSTORE = 120;
constexpr int QOR_APP_AGENT = 250;

constexpr size_t QOR_CHASSIS_OFF_BODY = 80;

// ---- configuration store (QOR_APP_CFGSTORE) --------------------------------
// Body: the 552-byte record (qor/cfg.h) or 812-byte sync record at byte 80.
// The owner of a line is the sender's application (source queue word).
constexpr uint32_t QOR_MT_CFG_INSERT = 30001;        // not answered
constexpr uint32_t QOR_MT_CFG_REMOVE_EXACT = 30002;  // not answered
constexpr uint32_t QOR_MT_CFG_REMOVE_NODE = 30003;   // not answered
constexpr uint32_t QOR_MT_CFG_SYNC = 30004;          // not answered
// show running-config: request body word 80 = byte offset into the text;
// answer: 80 total text length, 84 length of this piece, text from 88.
constexpr uint32_t QOR_MT_CFG_SHOW_RUNNING = 30010;
constexpr size_t QOR_CFG_SHOW_OFF_TOTAL = 80;
constexpr size_t QOR_CFG_SHOW_OFF_PIECE = 84;
constexpr size_t QOR_CFG_SHOW_OFF_TEXT = 88;
// write memory: answered, status 0 when RUNDIR/startup-config was written.
constexpr uint32_t QOR_MT_CFG_WRITE_MEMORY = 30011;

// ---- ACL manager (QOR_APP_ACL) ------------------------------------------------
// iAclEnableSysFlowProtocolEntries's message, sent over the client's ACL SWP
// queue: body words 80 protocol, 84 arg2, 88 arg3, 92 instance, 96 task key,
// 100 arg6, 104 enable (1 on, 0 off).
constexpr uint32_t QOR_MT_ACL_SYS_FLOW = 5701;
// show: answered; 80 number of protocols n, then n pairs (protocol, enabled) from 84.
constexpr uint32_t QOR_MT_ACL_SHOW = 5702;

// ---- IFM (QOR_APP_IFM) ----------------------------------------------------------
constexpr uint32_t QOR_MT_IFM_REGISTER = 10802;  // 2632 bytes, answered: result at 1952 (0 accepted)
constexpr size_t QOR_IFM_REG_LEN = 2632;
constexpr size_t QOR_IFM_REG_OFF_RESULT = 1952;
constexpr size_t QOR_IFM_REG_OFF_MASKS = 2000;   // 32-bit mask per service type: 2000 + 4 * type
constexpr int QOR_IFM_REG_MAX_TYPE = 63;
constexpr uint32_t MT_IFM_NOTIF_MSG = 10908;     // IFM -> client over SWP
// Port-configuration notice: body = the 132-byte notice (qor/cfg.h), answered (status 0 accepted).
constexpr uint32_t QOR_MT_IFM_PORT_NOTICE = 13801;
// Name lookup for the CLI: body 80 kind (0 interface, 1 VRF), 84 name (64
// bytes, zero-padded); answer status 0 and 148 the ifIndex or VRF id, or status -1.
constexpr uint32_t QOR_MT_IFM_LOOKUP = 13802;
constexpr size_t QOR_IFM_LOOKUP_OFF_KIND = 80;
constexpr size_t QOR_IFM_LOOKUP_OFF_NAME = 84;
constexpr size_t QOR_IFM_LOOKUP_NAME_LEN = 64;
constexpr size_t QOR_IFM_LOOKUP_OFF_RESULT = 148;
// An operator's port configuration (the CLI's "[no] switchport" and "[no]
// channel-group N" under an interface): body 80 the port's ifIndex, 84 what
// (QOR_IFM_PORT_CFG_MODE: 88 is 1 for a switch port, 0 for a routed one;
// QOR_IFM_PORT_CFG_LAG: 88 is the port-channel number 1-65535 the port joins,
// or 0 to leave its port-channel). The IFM changes the host map and tells its
// clients with MT_IFM_NOTIF_MSG (mode change, LAG port added or deleted).
// Answered: status 0, or one of QOR_IFM_PORT_CFG_ERR_*.
constexpr uint32_t QOR_MT_IFM_PORT_CONFIG = 13803;
constexpr size_t QOR_IFM_PORT_CFG_OFF_IFINDEX = 80;
constexpr size_t QOR_IFM_PORT_CFG_OFF_WHAT = 84;
constexpr size_t QOR_IFM_PORT_CFG_OFF_VALUE = 88;
constexpr size_t QOR_IFM_PORT_CFG_LEN = 92;
constexpr uint32_t QOR_IFM_PORT_CFG_MODE = 0;
constexpr uint32_t QOR_IFM_PORT_CFG_LAG = 1;
constexpr int32_t QOR_IFM_PORT_CFG_ERR_PORT = -1;     // not a mapped port (or port-channel, for the mode)
constexpr int32_t QOR_IFM_PORT_CFG_ERR_LAG = -2;      // the port-channel is not mapped
constexpr int32_t QOR_IFM_PORT_CFG_ERR_REQUEST = -3;  // an unknown "what" or value

// ---- RTM (QOR_APP_RTM) ----------------------------------------------------------
// Registration: body 80 owner, 84 VRF argument, 88 instance, 92 address family,
// 96 client name (32 bytes); answered: status 0 and 128 the client handle.
constexpr uint32_t QOR_MT_RTM_REGISTER = 7601;
// Route updates, the clear-route message and its acknowledgement travel over
// SWP queues; their layouts are in qor/rtm.h.
constexpr uint32_t QOR_MT_RTM_ROUTE_UPDATE = 7602;     // client -> RTM
constexpr uint32_t QOR_MT_RTM_CLEAR_ACK = 7603;        // client -> RTM
constexpr uint32_t QOR_MT_RTM6_CLR_ROUTE = 12834;      // RTM -> client (MT_RTM6_CLR_ROUTE)

// An operator's request to the RTM (QOR_APP_RTM) to clear the relay's routes:
// the RTM removes them from the kernel and sends each registered client the
// clear-route message, after which the client sends its routes again.
// Body: 80 clear-all word (1 every route; 0 only the prefix), 84 prefix
// length, 88 the prefix (16 bytes). Answered: status 0, and at 104 the number
// of clients told; status -1 for a prefix length above 128.
constexpr uint32_t QOR_MT_RTM_CLEAR_REQUEST = 7610;
constexpr size_t QOR_RTM_CLEAR_OFF_ALL = 80;
constexpr size_t QOR_RTM_CLEAR_OFF_PREFIX_LEN = 84;
constexpr size_t QOR_RTM_CLEAR_OFF_PREFIX = 88;
constexpr size_t QOR_RTM_CLEAR_OFF_CLIENTS = 104;
constexpr size_t QOR_RTM_CLEAR_LEN = 108;

// ---- MRTM (QOR_APP_MRTM) --------------------------------------------------------
constexpr uint32_t MT_MRTM_REGISTER = 15670;
constexpr uint32_t MT_MRTM_MCIDX_RESP = 15673;

// ---- relay manager start-up ------------------------------------------------------
// Sent by the configuration store once the startup-config has been replayed.
constexpr uint32_t MT_DHCPV6_INIT_COMPLETE = 2806;
