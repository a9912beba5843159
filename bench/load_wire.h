// load_wire.h -- the DHCPv6 messages of the relay load test: the clients'
// Solicits, the fake server's Relay-Reply to a Relay-Forward, and the checks
// a client makes on the answer. Everything is read and written at byte
// offsets within the given spans; option walks use the one TLV cursor, so a
// message from the wire is never read past its end whatever its lengths say.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

#include "qor/bytes.h"
#include "qor/tlv.h"

namespace loadwire {

constexpr uint8_t kSolicit = 1;
constexpr uint8_t kReply = 7;
constexpr uint8_t kRelayForw = 12;
constexpr uint8_t kRelayRepl = 13;
constexpr uint16_t kOptClientId = 1;
constexpr uint16_t kOptServerId = 2;
constexpr uint16_t kOptIaNa = 3;
constexpr uint16_t kOptElapsedTime = 8;
constexpr uint16_t kOptRelayMsg = 9;
constexpr uint16_t kOptInterfaceId = 18;
constexpr size_t kRelayHdrLen = 34;  // msg-type, hop-count, link-address, peer-address
constexpr size_t kDuidLen = 10;      // DUID-LL over Ethernet

using Duid = std::array<uint8_t, kDuidLen>;

// Client n's DUID-LL: type 3, hardware type 1, a locally administered MAC
// 02:00 followed by n, so every simulated client has its own identity.
inline Duid clientDuid(uint32_t n) {
    Duid d{};
    qor::putU16(d, 0, 3);
    qor::putU16(d, 2, 1);
    qor::putU16(d, 4, 0x0200);
    qor::putU32(d, 6, n);
    return d;
}

// Appends one option (code, length, value) at *used; false when it does not fit.
inline bool putOption(qor::MutByteView out, size_t& used, uint16_t code, qor::ByteView value) {
    if (!qor::fits(out.size(), used, 4 + value.size()) || value.size() > 0xffff) return false;
    qor::putU16(out, used, code);
    qor::putU16(out, used + 2, static_cast<uint16_t>(value.size()));
    qor::putBytes(out, used + 4, value.data(), value.size());
    used += 4 + value.size();
    return true;
}

// A Solicit: Client Identifier, Elapsed Time and an empty IA_NA (the IAID is
// the client number). 0 when `out` is too small, else the length (40 bytes).
inline size_t buildSolicit(qor::MutByteView out, uint32_t xid, const Duid& duid, uint32_t client) {
    if (out.size() < 4) return 0;
    qor::putU32(out, 0, (uint32_t{kSolicit} << 24) | (xid & 0xffffff));
    size_t used = 4;
    std::array<uint8_t, 2> elapsed{};
    std::array<uint8_t, 12> iaNa{};  // IAID, T1 = 0, T2 = 0
    qor::putU32(iaNa, 0, client);
    if (!putOption(out, used, kOptClientId, duid) ||
        !putOption(out, used, kOptElapsedTime, elapsed) || !putOption(out, used, kOptIaNa, iaNa))
        return 0;
    return used;
}

// The first option `code` in an option area; false when absent or when the
// area is malformed before it.
inline bool findOption(qor::ByteView options, uint16_t code, qor::ByteView& outValue) {
    dhcpv6TlvCursor cursor(options);
    dhcpv6Tlv tlv;
    while (cursor.next(tlv) == dhcpv6TlvStep::Item) {
        if (tlv.code == code) {
            outValue = tlv.data;
            return true;
        }
    }
    return false;
}

// A client message (type, transaction id, Client Identifier) as a peer sees it.
struct ClientMsg {
    uint8_t type = 0;
    uint32_t xid = 0;
    qor::ByteView clientId;
};

inline bool parseClientMsg(qor::ByteView msg, ClientMsg& out) {
    uint32_t head = 0;
    if (!qor::getU32(msg, 0, head)) return false;
    ClientMsg m;
    m.type = static_cast<uint8_t>(head >> 24);
    m.xid = head & 0xffffff;
    if (!findOption(msg.subspan(4), kOptClientId, m.clientId)) return false;
    out = m;
    return true;
}

// A Relay-Forward or Relay-Reply: its header fields, the relayed message,
// the Interface-ID.
struct RelayView {
    uint8_t hopCount = 0;
    qor::ByteView linkAndPeer;  // the 32 address bytes, copied into the reply
    qor::ByteView relayMsg;
    qor::ByteView interfaceId;  // empty when the relay sent none
    bool hasInterfaceId = false;
};

inline bool parseRelay(qor::ByteView msg, uint8_t wantType, RelayView& out) {
    uint8_t type = 0;
    if (!qor::getU8(msg, 0, type) || type != wantType || msg.size() < kRelayHdrLen) return false;
    RelayView f;
    f.hopCount = msg[1];
    f.linkAndPeer = msg.subspan(2, 32);
    bool hasRelayMsg = false;
    dhcpv6TlvCursor cursor(msg.subspan(kRelayHdrLen));
    dhcpv6Tlv tlv;
    dhcpv6TlvStep step;
    while ((step = cursor.next(tlv)) == dhcpv6TlvStep::Item) {
        if (tlv.code == kOptRelayMsg && !hasRelayMsg) {
            f.relayMsg = tlv.data;
            hasRelayMsg = true;
        } else if (tlv.code == kOptInterfaceId && !f.hasInterfaceId) {
            f.interfaceId = tlv.data;
            f.hasInterfaceId = true;
        }
    }
    if (step == dhcpv6TlvStep::Malformed || !hasRelayMsg) return false;
    out = f;
    return true;
}

// The server's answer to a Relay-Forward whose relayed message is `client`:
// a Relay-Reply with the same hop-count, link- and peer-address, the
// Interface-ID echoed when present, and inside it a REPLY with the client's
// transaction id, its Client Identifier and the server's identifier.
// 0 when it does not fit in `out`, else its length.
inline size_t buildRelayReply(qor::MutByteView out, const RelayView& fwd, const ClientMsg& client,
                              qor::ByteView serverDuid) {
    const size_t innerLen = 4 + 4 + client.clientId.size() + 4 + serverDuid.size();
    if (!qor::fits(out.size(), 0, kRelayHdrLen)) return 0;
    qor::putU8(out, 0, kRelayRepl);
    qor::putU8(out, 1, fwd.hopCount);
    qor::putBytes(out, 2, fwd.linkAndPeer.data(), fwd.linkAndPeer.size());
    size_t used = kRelayHdrLen;
    if (fwd.hasInterfaceId && !putOption(out, used, kOptInterfaceId, fwd.interfaceId)) return 0;
    // The Relay-Message header, then the REPLY written in place behind it.
    if (!qor::fits(out.size(), used, 4 + innerLen) || innerLen > 0xffff) return 0;
    qor::putU16(out, used, kOptRelayMsg);
    qor::putU16(out, used + 2, static_cast<uint16_t>(innerLen));
    used += 4;
    qor::putU32(out, used, (uint32_t{kReply} << 24) | client.xid);
    size_t inner = used + 4;
    if (!putOption(out, inner, kOptClientId, client.clientId) ||
        !putOption(out, inner, kOptServerId, serverDuid))
        return 0;
    return inner;
}

// The whole server step: the Relay-Reply for a Relay-Forward received in
// `in`, or 0 when `in` is not a Relay-Forward carrying a client message with
// a Client Identifier.
inline size_t answerRelayForward(qor::ByteView in, qor::MutByteView out, qor::ByteView serverDuid) {
    RelayView fwd;
    ClientMsg client;
    if (!parseRelay(in, kRelayForw, fwd) || !parseClientMsg(fwd.relayMsg, client)) return 0;
    return buildRelayReply(out, fwd, client, serverDuid);
}

}  // namespace loadwire
