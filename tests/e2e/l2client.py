#!/usr/bin/env python3
"""Sends DHCPv6 Solicits as whole Ethernet frames out of an interface
(AF_PACKET), with an 802.1Q tag when --vlan is given: a client behind a
tagged switch port, which this host cannot make with a VLAN device.

  l2client.py IFACE [--vlan N] [--count N] [--interval S]
"""
import argparse
import os
import socket
import struct
import time


def checksum(data):
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(">%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def solicit(mac, xid):
    duid = struct.pack(">HH", 3, 1) + mac                      # DUID-LL, Ethernet
    opts = struct.pack(">HH", 1, len(duid)) + duid             # Client Identifier
    opts += struct.pack(">HHH", 8, 2, 0)                       # Elapsed Time
    opts += struct.pack(">HHIII", 3, 12, 1, 0, 0)              # IA_NA, IAID 1
    return bytes([1]) + xid.to_bytes(3, "big") + opts


def frame(mac, vlan, payload):
    eui = bytes([mac[0] ^ 2]) + mac[1:3] + b"\xff\xfe" + mac[3:]
    src = b"\xfe\x80" + b"\0" * 6 + eui
    dst = socket.inet_pton(socket.AF_INET6, "ff02::1:2")
    udp = struct.pack(">HHHH", 546, 547, 8 + len(payload), 0) + payload
    pseudo = src + dst + struct.pack(">IxxxB", len(udp), 17)
    udp = udp[:6] + struct.pack(">H", checksum(pseudo + udp) or 0xFFFF) + udp[8:]
    ip6 = struct.pack(">IHBB", 6 << 28, len(udp), 17, 1) + src + dst
    tag = struct.pack(">HH", 0x8100, vlan) if vlan else b""
    return b"\x33\x33\x00\x01\x00\x02" + mac + tag + b"\x86\xdd" + ip6 + udp


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("iface")
    ap.add_argument("--vlan", type=int, default=0)
    ap.add_argument("--count", type=int, default=1)
    ap.add_argument("--interval", type=float, default=0.5)
    args = ap.parse_args()
    with open("/sys/class/net/%s/address" % args.iface) as f:
        mac = bytes.fromhex(f.read().strip().replace(":", ""))
    s = socket.socket(socket.AF_PACKET, socket.SOCK_RAW)
    s.bind((args.iface, 0))
    for i in range(args.count):
        s.send(frame(mac, args.vlan, solicit(mac, int.from_bytes(os.urandom(3), "big"))))
        if i + 1 < args.count:
            time.sleep(args.interval)


if __name__ == "__main__":
    main()
