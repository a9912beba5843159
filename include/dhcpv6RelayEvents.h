// dhcpv6RelayEvents.h -- the relay manager's event-log codes: names,
// severities and texts, registered once with qorEvtRegisterCodes().
//
// Every raise is qorSysErr(evtLogHandle, 0, code, value, args...): the value
// comes first, then exactly the arguments the code's format below consumes.
// Codes whose value matters to the operator show it as " (value N)".
#pragma once

#include <cstdint>

#include "qor/evtlog.h"

constexpr uint32_t DHCPV6_EVT_SOCKET_CREATE_FAILED = 0x540002;
constexpr uint32_t DHCPV6_EVT_SOCKET_BIND_FAILED = 0x540003;
constexpr uint32_t DHCPV6_EVT_SOCKET_RECV_FAILED = 0x540004;
constexpr uint32_t DHCPV6_EVT_SOCKET_SEND_FAILED = 0x540005;
constexpr uint32_t DHCPV6_EVT_SOCKET_OPTION_FAILED = 0x540006;
constexpr uint32_t DHCPV6_EVT_TMR_PIPE_FAILED = 0x540007;
constexpr uint32_t DHCPV6_EVT_TMR_CREATE_FAILED = 0x540008;
constexpr uint32_t DHCPV6_EVT_TMR_START_FAILED = 0x540009;
constexpr uint32_t DHCPV6_EVT_MEM_ALLOC_FAILED = 0x54000A;
constexpr uint32_t DHCPV6_EVT_MCIDX_RESP_FAILED = 0x54000B;
constexpr uint32_t DHCPV6_EVT_MCIDX_REQ_FAILED = 0x54000C;
constexpr uint32_t DHCPV6_EVT_PEER_SYNC_FAILED = 0x54000D;
constexpr uint32_t DHCPV6_EVT_IPC_RECV_FAILED = 0x54000E;
constexpr uint32_t DHCPV6_EVT_PEER_ADDR_FAILED = 0x54000F;
constexpr uint32_t DHCPV6_EVT_IPC_REQUEST_FAILED = 0x540010;
constexpr uint32_t DHCPV6_EVT_RELAY_REPLY_RCVD = 0x540011;
constexpr uint32_t DHCPV6_EVT_RELAY_FWD_SENT = 0x540012;
constexpr uint32_t DHCPV6_EVT_CLIENT_PKT_FLOODED = 0x540013;
constexpr uint32_t DHCPV6_EVT_CLIENT_REPLY_SENT = 0x540014;
constexpr uint32_t DHCPV6_EVT_SERVER_PKT_PASSED = 0x540015;
constexpr uint32_t DHCPV6_EVT_CLIENT_PKT_RELAYED = 0x540016;
constexpr uint32_t DHCPV6_EVT_LEASE_ADDED = 0x540017;
constexpr uint32_t DHCPV6_EVT_LEASE_REMOVED = 0x540018;
constexpr uint32_t DHCPV6_EVT_PREFIX_DELEGATED = 0x540019;
constexpr uint32_t DHCPV6_EVT_SNOOP_BINDING_RELEASED = 0x54001A;
constexpr uint32_t DHCPV6_EVT_SNOOP_TBL_FULL = 0x54001B;

// The value is 0 unless the entry says otherwise. "type" is the message-type
// name of dhcpv6PktTypeToStr, "prefix" an inet_ntop text, "mac" the
// "%02x:%02x:%02x:%02x:%02x:%02x" text, "if"/"port" ifmIfIndexToName texts.
// A code whose text has no conversion takes the value alone.
inline constexpr QorEvtCode dhcpv6RelayEvtCodes[] = {
    // The protocol or output socket could not be opened; also raised when the
    // relay manager's own IPC address cannot be found for a request.
    {DHCPV6_EVT_SOCKET_CREATE_FAILED, "DHCPV6_EVT_SOCKET_CREATE_FAILED", EVT_LOGERROR,
     "Socket creation failed", false},
    {DHCPV6_EVT_SOCKET_BIND_FAILED, "DHCPV6_EVT_SOCKET_BIND_FAILED", EVT_LOGERROR,
     "Protocol socket bind failed", false},
    // value: the protocol socket's descriptor (low 16 bits).
    {DHCPV6_EVT_SOCKET_RECV_FAILED, "DHCPV6_EVT_SOCKET_RECV_FAILED", EVT_LOGERROR,
     "Receive on protocol socket failed", true},
    // Reserved: not raised by the relay manager.
    {DHCPV6_EVT_SOCKET_SEND_FAILED, "DHCPV6_EVT_SOCKET_SEND_FAILED", EVT_LOGERROR,
     "Packet send failed", false},
    // Reserved: not raised by the relay manager.
    {DHCPV6_EVT_SOCKET_OPTION_FAILED, "DHCPV6_EVT_SOCKET_OPTION_FAILED", EVT_LOGERROR,
     "Socket option could not be set", false},
    {DHCPV6_EVT_TMR_PIPE_FAILED, "DHCPV6_EVT_TMR_PIPE_FAILED", EVT_LOGERROR,
     "Timer pipe could not be created or opened", false},
    // Reserved: not raised by the relay manager.
    {DHCPV6_EVT_TMR_CREATE_FAILED, "DHCPV6_EVT_TMR_CREATE_FAILED", EVT_LOGERROR,
     "Timer could not be created", false},
    {DHCPV6_EVT_TMR_START_FAILED, "DHCPV6_EVT_TMR_START_FAILED", EVT_LOGERROR,
     "Table sweep timer could not be started", false},
    {DHCPV6_EVT_MEM_ALLOC_FAILED, "DHCPV6_EVT_MEM_ALLOC_FAILED", EVT_LOGERROR,
     "Memory allocation failed", false},
    {DHCPV6_EVT_MCIDX_RESP_FAILED, "DHCPV6_EVT_MCIDX_RESP_FAILED", EVT_LOGERROR,
     "Multicast group index response from MRTM failed", false},
    {DHCPV6_EVT_MCIDX_REQ_FAILED, "DHCPV6_EVT_MCIDX_REQ_FAILED", EVT_LOGERROR,
     "Multicast group index request to MRTM could not be queued", false},
    {DHCPV6_EVT_PEER_SYNC_FAILED, "DHCPV6_EVT_PEER_SYNC_FAILED", EVT_LOGERROR,
     "Table sync to peer route processor failed", false},
    // Reserved: not raised by the relay manager.
    {DHCPV6_EVT_IPC_RECV_FAILED, "DHCPV6_EVT_IPC_RECV_FAILED", EVT_LOGERROR, "IPC receive failed",
     false},
    {DHCPV6_EVT_PEER_ADDR_FAILED, "DHCPV6_EVT_PEER_ADDR_FAILED", EVT_LOGERROR,
     "Address of peer process not found", false},
    // A synchronous request (the IFM registration) was not sent, or refused.
    {DHCPV6_EVT_IPC_REQUEST_FAILED, "DHCPV6_EVT_IPC_REQUEST_FAILED", EVT_LOGERROR,
     "IPC request to peer process failed", false},
    {DHCPV6_EVT_RELAY_REPLY_RCVD, "DHCPV6_EVT_RELAY_REPLY_RCVD", EVT_LOGINFO,
     "Relay-Reply received from server", false},
    {DHCPV6_EVT_RELAY_FWD_SENT, "DHCPV6_EVT_RELAY_FWD_SENT", EVT_LOGINFO,
     "Relay-Forward sent to server", false},
    // type, if, source address: a client message flooded in its VLAN.
    {DHCPV6_EVT_CLIENT_PKT_FLOODED, "DHCPV6_EVT_CLIENT_PKT_FLOODED", EVT_LOGINFO,
     "%s received on %s from %s flooded in its VLAN", false},
    {DHCPV6_EVT_CLIENT_REPLY_SENT, "DHCPV6_EVT_CLIENT_REPLY_SENT", EVT_LOGINFO,
     "Server message sent to client", false},
    // type, peer address, if: a server message not for this relay, passed on.
    {DHCPV6_EVT_SERVER_PKT_PASSED, "DHCPV6_EVT_SERVER_PKT_PASSED", EVT_LOGINFO,
     "%s for %s forwarded to client on %s", false},
    // type, peer address, if: a client message wrapped in a Relay-Forward.
    {DHCPV6_EVT_CLIENT_PKT_RELAYED, "DHCPV6_EVT_CLIENT_PKT_RELAYED", EVT_LOGINFO,
     "%s from %s on %s relayed to servers", false},
    // prefix, prefix length. The prefix text may be empty on removal.
    {DHCPV6_EVT_LEASE_ADDED, "DHCPV6_EVT_LEASE_ADDED", EVT_LOGNOTIFY,
     "Delegated prefix %s/%d leased", false},
    {DHCPV6_EVT_LEASE_REMOVED, "DHCPV6_EVT_LEASE_REMOVED", EVT_LOGNOTIFY,
     "Delegated prefix %s/%d removed", false},
    // prefix, mac, if, port: a prefix granted outside a snooped VLAN.
    {DHCPV6_EVT_PREFIX_DELEGATED, "DHCPV6_EVT_PREFIX_DELEGATED", EVT_LOGNOTIFY,
     "Prefix %s delegated to client %s on %s port %s", false},
    // prefix, mac, if, port: a snooping binding removed by the client's release.
    {DHCPV6_EVT_SNOOP_BINDING_RELEASED, "DHCPV6_EVT_SNOOP_BINDING_RELEASED", EVT_LOGNOTIFY,
     "Binding %s of client %s on %s port %s released", false},
    // value: the binding limit (4000).
    {DHCPV6_EVT_SNOOP_TBL_FULL, "DHCPV6_EVT_SNOOP_TBL_FULL", EVT_LOGWARNING,
     "Snooping binding table full", true},
};
