// qor/rtm.h -- the route table manager's client library.
//
// Registration is a synchronous QOR_MT_RTM_REGISTER request (qor/chassis.h).
// Everything after it travels over SWP queues (qor/swp.h): the client's RTM
// SWP queue (client -> RTM) carries route updates and clear
// acknowledgements; the RTM's SWP queue towards the client (RTM -> client,
// addressed to the request queue the registration came from) carries the
// clear-route message. All messages are IPC messages (header 0-63, status
// word 64, body from byte 80), big-endian, read and written field by field.
//
// (1) Route update, QOR_MT_RTM_ROUTE_UPDATE, client -> RTM, over the client's
//     RTM SWP queue, not answered (the SWP acknowledgement is all that comes
//     back):
//       80  operation word: 1 add, 2 delete (QOR_RTM_OP_ADD / QOR_RTM_OP_DELETE)
//       84  client handle (from the registration)
//       88  number of route records n (1..QOR_RTM_UPDATE_MAX_ROUTES)
//       92  address family word (2: IPv6)
//       96  n route records of QOR_RTM_ROUTE_LEN (1872) bytes each, back to back
//     Length 96 + 1872 * n (1968 for one route).
//
//     Route record (offsets inside the record, big-endian):
//       0   2 bytes  record kind, 1 (a unicast route)
//       8   4 bytes  route owner (the owner given at registration)
//       12, 20, 24, 36: 4 bytes each, 0 (reserved)
//       32  2 bytes  number of next hops (1..QOR_RTM_ROUTE_MAX_NHOPS)
//       43  1 byte   prefix length (0..128; a record with more is refused)
//       64  16 bytes the prefix (the RTM masks it to its length)
//       80  next hops, 28 bytes each: address 16 bytes at +0, outgoing
//           interface ifIndex 4 bytes at +16, 8 bytes 0
//
// (2) Clear route, MT_RTM6_CLR_ROUTE (12834, QOR_MT_RTM6_CLR_ROUTE), RTM -> client, over the RTM's
//     SWP queue to the client (the client checks it with qorSwpCkSeqAndAck):
//       80  client handle
//       84  address family word (2: IPv6)
//       148 clear-all word: 1 every route of the client was cleared, else only
//           the one prefix below (routes of that prefix, any length, owner)
//       152 VRF id word (0 default)
//       160 prefix length, 1 byte
//       161 prefix, 16 bytes
//     Length QOR_RTM_CLR_LEN (180; bytes 177..179 are 0). Receivers need at
//     least QOR_RTM_CLR_MIN_LEN (177) bytes.
//
// (3) Clear acknowledgement, QOR_MT_RTM_CLEAR_ACK, client -> RTM, over the
//     client's RTM SWP queue, not answered: the client has flushed its queue
//     and will now send its routes again.
//       80  client handle
//       84  address family word
//       88  clear-all word of the acknowledged clear
//       92  SWP sequence number of the acknowledged clear (its word 0)
//       96  prefix length of the acknowledged clear, 1 byte (then 3 bytes 0)
//       100 prefix of the acknowledged clear, 16 bytes
//     Length QOR_RTM_CLEAR_ACK_LEN (116).
#pragma once

#include <cstddef>
#include <cstdint>

#include "qor/chassis.h"

constexpr int QOR_RTM_OP_ADD = 1;
constexpr int QOR_RTM_OP_DELETE = 2;
constexpr int QOR_RTM_AF_IPV6 = 2;

// (1) route update
constexpr size_t QOR_RTM_UPD_OFF_OPERATION = 80;
constexpr size_t QOR_RTM_UPD_OFF_HANDLE = 84;
constexpr size_t QOR_RTM_UPD_OFF_COUNT = 88;
constexpr size_t QOR_RTM_UPD_OFF_AF = 92;
constexpr size_t QOR_RTM_UPD_OFF_ROUTES = 96;
constexpr uint32_t QOR_RTM_UPDATE_MAX_ROUTES = 4;

// route record
constexpr size_t QOR_RTM_ROUTE_LEN = 1872;
constexpr size_t QOR_RTM_ROUTE_OFF_KIND = 0;           // 16-bit, 1
constexpr size_t QOR_RTM_ROUTE_OFF_OWNER = 8;          // 32-bit
constexpr size_t QOR_RTM_ROUTE_OFF_NHOP_COUNT = 32;    // 16-bit
constexpr size_t QOR_RTM_ROUTE_OFF_PREFIX_LEN = 43;    // 8-bit
constexpr size_t QOR_RTM_ROUTE_OFF_PREFIX = 64;        // 16 bytes
constexpr size_t QOR_RTM_ROUTE_OFF_NHOPS = 80;
constexpr size_t QOR_RTM_NHOP_LEN = 28;
constexpr size_t QOR_RTM_NHOP_OFF_ADDR = 0;            // 16 bytes
constexpr size_t QOR_RTM_NHOP_OFF_IFINDEX = 16;        // 32-bit
constexpr uint32_t QOR_RTM_ROUTE_MAX_NHOPS =
    uint32_t((QOR_RTM_ROUTE_LEN - QOR_RTM_ROUTE_OFF_NHOPS) / QOR_RTM_NHOP_LEN);
constexpr uint16_t QOR_RTM_ROUTE_KIND_UNICAST = 1;
constexpr uint8_t QOR_RTM_MAX_PREFIX_LEN = 128;

// (2) clear route
constexpr size_t QOR_RTM_CLR_OFF_HANDLE = 80;
constexpr size_t QOR_RTM_CLR_OFF_AF = 84;
constexpr size_t QOR_RTM_CLR_OFF_ALL = 148;
constexpr size_t QOR_RTM_CLR_OFF_VRF = 152;
constexpr size_t QOR_RTM_CLR_OFF_PREFIX_LEN = 160;
constexpr size_t QOR_RTM_CLR_OFF_PREFIX = 161;
constexpr size_t QOR_RTM_CLR_MIN_LEN = 177;
constexpr size_t QOR_RTM_CLR_LEN = 180;

// (3) clear acknowledgement
constexpr size_t QOR_RTM_CLACK_OFF_HANDLE = 80;
constexpr size_t QOR_RTM_CLACK_OFF_AF = 84;
constexpr size_t QOR_RTM_CLACK_OFF_ALL = 88;
constexpr size_t QOR_RTM_CLACK_OFF_SEQ = 92;
constexpr size_t QOR_RTM_CLACK_OFF_PREFIX_LEN = 96;
constexpr size_t QOR_RTM_CLACK_OFF_PREFIX = 100;
constexpr size_t QOR_RTM_CLEAR_ACK_LEN = 116;

// clientInfo: three words (application, request queue, 0). 0 and *outHandle,
// or non-zero when the RTM did not accept (or did not answer).
int qorRtmRegisterAddrFamily_vrf(int owner, int vrf, int instance, const char* name,
                                 uint32_t* outHandle, const uint32_t* clientInfo, int af,
                                 int arg8, int arg9);

// Queues a route update (1) on `swpQueue`: `operation` QOR_RTM_OP_ADD or
// QOR_RTM_OP_DELETE, `routes` `count` route records of QOR_RTM_ROUTE_LEN bytes
// back to back, `af` the address family word. `reserved` is not used.
// 0 queued, -1 refused (bad operation or count, a record whose prefix length
// is above 128 or whose next-hop count is 0 or too large, no block, queue full).
int qorRtmUpdateRoute(uint32_t handle, int operation, const uint8_t* routes, int reserved,
                      const uint32_t* clientInfo, int swpQueue, int count, int af);

// Queues the clear acknowledgement (3) of the clear message `clearMsg`
// (at least QOR_RTM_CLR_MIN_LEN bytes) on `swpQueue`. 0 queued, -1 otherwise.
int qorRtmClearIpRouteSwpAckAF(uint32_t handle, const uint32_t* clientInfo, int swpQueue,
                               const uint8_t* clearMsg, int af);
