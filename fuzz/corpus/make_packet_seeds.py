#!/usr/bin/env python3
"""Writes the seed frames of the packet fuzz targets (dhcpv6pkt, relay_start,
relay_reply, l2frame) into fuzz/corpus/<target>/. Run from anywhere; the seeds are
committed, this only remakes them.

The network the seeds come from is the one the relay_start and relay_reply
harnesses set up: a client on ethernet 0/5, untagged in VLAN 10, whose relay
address is 2001:db8:10::1, and a server 2001:db8:ff::2 behind ethernet 1/1.
"""
import ipaddress
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))

VLAN10 = (24 << 24) | 10
PORT_0_5 = (6 << 24) | (0 << 16) | (5 << 4)
PORT_1_1 = (6 << 24) | (1 << 16) | (1 << 4)
MGMT_1_0 = (1 << 24) | (1 << 16)

CLIENT_MAC = bytes.fromhex("001122334401")
RELAY_MAC = bytes.fromhex("02005e100001")
CLIENT_LL = ipaddress.IPv6Address("fe80::211:22ff:fe33:4401").packed
DOWNSTREAM_RELAY = ipaddress.IPv6Address("2001:db8:20::1").packed
RELAY_ADDR = ipaddress.IPv6Address("2001:db8:10::1").packed
SERVER = ipaddress.IPv6Address("2001:db8:ff::2").packed
MCAST = ipaddress.IPv6Address("ff02::1:2").packed
ZERO = bytes(16)
# The client whose Solicit the harnesses record before each input.
DUID = bytes.fromhex("00030001") + CLIENT_MAC


def opt(code, data):
    return struct.pack(">HH", code, len(data)) + data


def client_msg(mtype, xid=0x123456, duid=DUID, extra=b""):
    ia_na = opt(3, struct.pack(">III", 1, 0, 0))
    return bytes([mtype]) + xid.to_bytes(3, "big") + opt(1, duid) + opt(8, b"\0\0") + ia_na + extra


def reply_msg(duid=DUID):
    ia_addr = opt(5, ipaddress.IPv6Address("2001:db8:10::100").packed + struct.pack(">II", 3600, 7200))
    ia_na = opt(3, struct.pack(">III", 1, 1800, 2880) + ia_addr)
    return bytes([7]) + (0x123456).to_bytes(3, "big") + opt(1, duid) + opt(2, bytes.fromhex("000100011c39cf88080027fe8f95")) + ia_na


def relay(mtype, hop, link, peer, inner, ifid=None):
    body = bytes([mtype, hop]) + link + peer
    if ifid is not None:
        body += opt(18, ifid)
    return body + opt(9, inner)


def csum(src, dst, udp):
    pseudo = src + dst + struct.pack(">I", len(udp)) + b"\0\0\0\x11"
    data = pseudo + udp + (b"\0" if len(udp) % 2 else b"")
    s = sum(struct.unpack(">%dH" % (len(data) // 2), data))
    s = (s & 0xFFFF) + (s >> 16)
    s = (s + (s >> 16)) & 0xFFFF
    return (~s & 0xFFFF) or 0xFFFF


def ip6_udp(src, dst, sport, dport, payload, ext=b"", first_next=17, bad_csum=False):
    udp = struct.pack(">HHHH", sport, dport, 8 + len(payload), 0) + payload
    c = csum(src, dst, udp)
    if bad_csum:
        c ^= 0x5A5A
    udp = udp[:6] + struct.pack(">H", c) + udp[8:]
    hdr = struct.pack(">IHBB", 6 << 28, len(ext) + len(udp), first_next, 255) + src + dst
    return hdr + ext + udp


def frame(dst_mac, src_mac, vlan, ip6):
    return dst_mac + src_mac + struct.pack(">HHH", 0x8100, vlan, 0x86DD) + ip6


def indexed(logical, physical, recv, frm):
    return struct.pack(">III", logical, physical, recv) + frm


def write(target, name, data):
    d = os.path.join(HERE, target)
    os.makedirs(d, exist_ok=True)
    with open(os.path.join(d, name), "wb") as f:
        f.write(data)


ALL_DHCP = bytes.fromhex("333300010002")
# Hop-by-hop (8 bytes) then a first fragment with more to come.
HBH_FRAG = bytes([44, 0, 5, 2, 0, 0, 1, 0]) + bytes([17, 0, 0, 1, 0xAB, 0xCD, 0xEF, 0x01])


def from_client(mtype, **kw):
    return ip6_udp(CLIENT_LL, MCAST, 546, 547, client_msg(mtype), **kw)


def relay_reply_to_client(hop=0, ifid=b"10:0:0:5", inner=None):
    inner = reply_msg() if inner is None else inner
    return relay(13, hop, RELAY_ADDR, CLIENT_LL, inner, ifid)


def main():
    # ---- the parsing routines: IPv6 packets and bare DHCPv6 messages ----
    write("dhcpv6pkt", "ip6_solicit", from_client(1))
    write("dhcpv6pkt", "ip6_hbh_frag_relay_forw",
          ip6_udp(DOWNSTREAM_RELAY, SERVER, 547, 547,
                  relay(12, 0, DOWNSTREAM_RELAY, CLIENT_LL, client_msg(1), b"eth0"),
                  ext=HBH_FRAG, first_next=0))
    write("dhcpv6pkt", "relay_reply_ifid", relay_reply_to_client())
    nested = client_msg(3)
    for hop in range(3):
        nested = relay(12, hop, DOWNSTREAM_RELAY, CLIENT_LL, nested)
    write("dhcpv6pkt", "relay_forw_3_levels", nested)

    # ---- whole frames with their interface indexes ----
    at_port = lambda ip6, vlan=10: indexed(VLAN10, PORT_0_5, PORT_0_5, frame(ALL_DHCP, CLIENT_MAC, vlan, ip6))
    from_server = lambda ip6: indexed(PORT_1_1, PORT_1_1, PORT_1_1, frame(RELAY_MAC, bytes.fromhex("02aa00000002"), 0, ip6))
    write("relay_start", "solicit_vlan10", at_port(from_client(1)))
    write("relay_start", "request_vlan10", at_port(from_client(3)))
    write("relay_start", "release_vlan10", at_port(from_client(8)))
    write("relay_start", "information_request_ignored", at_port(from_client(11)))
    write("relay_start", "solicit_bad_checksum", at_port(from_client(1, bad_csum=True)))
    write("relay_start", "solicit_behind_ext_headers",
          at_port(ip6_udp(CLIENT_LL, MCAST, 546, 547, client_msg(1), ext=HBH_FRAG, first_next=0)))
    write("relay_start", "solicit_port_548", at_port(ip6_udp(CLIENT_LL, MCAST, 546, 548, client_msg(1))))
    write("relay_start", "solicit_management",
          indexed(MGMT_1_0, MGMT_1_0, MGMT_1_0, frame(ALL_DHCP, CLIENT_MAC, 0, from_client(1))))
    for hop in (31, 32):
        write("relay_start", "relay_forw_hop%d" % hop,
              at_port(ip6_udp(DOWNSTREAM_RELAY, RELAY_ADDR, 547, 547,
                              relay(12, hop, DOWNSTREAM_RELAY, CLIENT_LL, client_msg(1), b"ds"))))
    write("relay_start", "relay_reply_ifid_10_0_0_5",
          from_server(ip6_udp(SERVER, RELAY_ADDR, 547, 547, relay_reply_to_client())))
    write("relay_start", "relay_reply_hop1",
          from_server(ip6_udp(SERVER, RELAY_ADDR, 547, 547, relay_reply_to_client(hop=1))))
    write("relay_start", "reply_passing_through",
          at_port(ip6_udp(SERVER, CLIENT_LL, 547, 546, reply_msg())))

    # ---- Relay-Reply path: byte 0 the harness's switches, then the message ----
    write("relay_reply", "to_relay_ifid_10_0_0_5", b"\x00" + relay_reply_to_client())
    write("relay_reply", "to_relay_hop1", b"\x00" + relay_reply_to_client(hop=1))
    write("relay_reply", "ifid_one_field", b"\x00" + relay_reply_to_client(ifid=b"10"))
    write("relay_reply", "ifid_port_channel", b"\x00" + relay_reply_to_client(ifid=b"0:3:1:2:1"))
    write("relay_reply", "ifid_sub_port", b"\x00" + relay_reply_to_client(ifid=b"10:0:1:1:2"))
    write("relay_reply", "ifid_port_extender", b"\x00" + relay_reply_to_client(ifid=b"10:0:64:0:5"))
    write("relay_reply", "ifid_long", b"\x00" + relay_reply_to_client(ifid=b"1" * 40 + b":2:3:4"))
    write("relay_reply", "no_ifid", b"\x00" + relay_reply_to_client(ifid=None))
    write("relay_reply", "nested_relay_reply",
          b"\x00" + relay_reply_to_client(inner=relay(13, 0, ZERO, CLIENT_LL, reply_msg())))
    write("relay_reply", "in_vlan10_with_debug", b"\x0c" + relay_reply_to_client())
    write("relay_reply", "reply_passing_through", b"\x01" + reply_msg())
    write("relay_reply", "advertise_to_546", b"\x03" + bytes([2]) + reply_msg()[1:])

    # ---- the packet layer's frames: 10 control bytes, then the frame ----
    for name, data in l2frame_seeds():
        write("l2frame", name, data)


# The l2frame target's arrival interfaces and egresses, by their place in its tables.
L2_ARRIVAL = {"p1": 0, "p2": 1, "p3": 2, "p4": 3, "p6": 5, "m0": 7, "br10": 8}
L2_EGRESS = {"vlan 10": 1, "ethernet 1/1": 3, "ethernet 1/2": 4, "ethernet 1/3": 5, "port-channel 3": 11}
L2_META_TAG, L2_CSUM_PENDING, L2_FLOOD_CMD = 1, 4, 16


def l2_control(arrival, frm, flags=0, tci=0, egress="ethernet 1/1", option_vlan=0, links_up=0xFF):
    # The receive buffer holds the whole frame and its 18-byte header.
    return struct.pack(">BBHHBBH", L2_ARRIVAL[arrival], flags, tci, len(frm), links_up,
                       L2_EGRESS[egress], option_vlan) + frm


def untagged(dst_mac, src_mac, ip6):
    return dst_mac + src_mac + struct.pack(">H", 0x86DD) + ip6


def l2frame_seeds():
    solicit = from_client(1)
    to_server = ip6_udp(RELAY_ADDR, SERVER, 547, 547, relay(12, 0, RELAY_ADDR, CLIENT_LL, client_msg(1), b"10:0:0:5"))
    reply = ip6_udp(SERVER, RELAY_ADDR, 547, 547, relay_reply_to_client())
    server_mac = bytes.fromhex("02aa00000002")
    flood_hdr = struct.pack(">IIII", 6, PORT_1_1, 7, VLAN10) + bytes(8)
    # An odd UDP length, so the checksum's last byte is padded.
    odd = ip6_udp(SERVER, RELAY_ADDR, 547, 547, relay_reply_to_client() + b"\x00")
    padded = untagged(ALL_DHCP, CLIENT_MAC, ip6_udp(CLIENT_LL, MCAST, 546, 547, b"\x0b\x00\x00\x01"))
    padded += bytes(max(0, 60 - len(padded)) + 4)
    return [
        ("untagged_solicit_access_port", l2_control("p1", untagged(ALL_DHCP, CLIENT_MAC, solicit))),
        ("tagged_solicit_trunk", l2_control("p2", frame(ALL_DHCP, CLIENT_MAC, 20, solicit), egress="vlan 10")),
        ("meta_tagged_solicit", l2_control("p6", untagged(ALL_DHCP, CLIENT_MAC, solicit), L2_META_TAG, 10,
                                           egress="ethernet 1/2", option_vlan=20)),
        ("relay_reply_routed_csum", l2_control("p3", untagged(RELAY_MAC, server_mac, reply), L2_CSUM_PENDING,
                                               egress="ethernet 1/3")),
        ("relay_reply_odd_csum", l2_control("p3", untagged(RELAY_MAC, server_mac, odd), L2_CSUM_PENDING)),
        ("relay_forw_lag_member", l2_control("p4", untagged(server_mac, RELAY_MAC, to_server),
                                             egress="port-channel 3", links_up=0xF7)),
        ("solicit_management", l2_control("m0", untagged(ALL_DHCP, CLIENT_MAC, solicit))),
        ("solicit_bridge_copy", l2_control("br10", untagged(ALL_DHCP, CLIENT_MAC, solicit))),
        ("trailing_padding", l2_control("p1", padded)),
        ("flood_vlan10", l2_control("p1", flood_hdr + frame(ALL_DHCP, CLIENT_MAC, 10, solicit), L2_FLOOD_CMD)),
    ]


if __name__ == "__main__":
    main()
