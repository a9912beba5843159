// qor/dhcpv6pkt.h -- the platform's DHCPv6 parsing routines.
//
// Every routine is bounded by the length it is given: nothing is read past
// it whatever the length fields inside the packet say. Option walks use the
// one option iterator (qor/tlv.h).
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint8_t DHCPV6_RELAY_FORW = 12;
constexpr uint8_t DHCPV6_RELAY_REPL = 13;
constexpr uint16_t DHCPV6_OPTION_RELAY_MSG = 9;
constexpr uint32_t DHCPV6_RELAY_HDR_LEN = 34;   // msg-type, hop-count, link, peer
constexpr uint32_t DHCPV6_MAX_RELAY_LEVELS = 32;
constexpr uint32_t DHCPV6_MAX_EXT_HEADERS = 8;  // extension headers walked before UDP

// The UDP header behind an IPv6 header (version 6, 40 bytes) and its extension
// headers (hop-by-hop, only directly after the IPv6 header; routing;
// destination options; fragment: the first fragment only, offset 0), at most
// DHCPV6_MAX_EXT_HEADERS of them, all inside [ip6, end). Null when there is
// none, when the header chain is cut short or too long, or when fewer than 8
// bytes of UDP header remain; else the header, and *udpOffset its offset
// from ip6 (40 when UDP follows directly).
uint8_t* dhcpv6_getudphdr(uint8_t* ip6, const uint8_t* end, uint32_t* udpOffset);

// The innermost client message of a DHCPv6 message of `length` bytes: the
// message itself unless it is a Relay-Forward or Relay-Reply, whose
// Relay-Message option is followed, at most DHCPV6_MAX_RELAY_LEVELS levels.
// 0 with *inner and *innerLength (the inner message lies inside the given
// bytes), or -1 with *inner null (a relay header shorter than 34 bytes, a
// client message shorter than its 4-byte type and transaction id, no
// Relay-Message, more than DHCPV6_MAX_RELAY_LEVELS relay headers).
int dhcpv6GetClientPacket(uint8_t* message, uint8_t** inner, uint32_t length,
                          uint32_t* innerLength);

// The first option `code` in an option area of `length` bytes: a pointer to
// its code field (the whole option, header and data, lies inside the area),
// or null. The walk ends at a malformed option.
uint8_t* dhcpv6GetOption(uint8_t* options, uint32_t length, uint16_t code);
