#!/usr/bin/env python3
"""A DHCPv6 client and server that delegate exactly the prefixes a test
names, for cases Kea cannot be made to produce (one client holding the same
prefix address with two prefix lengths, with lifetimes of a few seconds).

  pdpeers.py server [--port 547]
      Answers every Relay-Forward on UDP 547 with a Relay-Reply (Interface-ID
      echoed): Advertise for a Solicit, Reply for a Request, Renew or Rebind,
      granting the IA_PD's IA Prefix hints as they stand (prefix, length and
      lifetimes), and a Reply with Status Code Success for a Release.
  pdpeers.py client IFACE --prefix ADDR/LEN:VALID [--prefix ...]
      Solicit, then Request, each with one IA_PD (IAID 1) whose IA Prefix
      hints are the --prefix values; the DUID is DUID-LL of IFACE's MAC, so
      every run on one interface is the same client. Prints the Reply's
      prefixes; exit 0 when it grants every hint, 1 otherwise.

Standard library only; every length in a received message is checked
against what is left of its buffer.
"""
import argparse
import ipaddress
import os
import socket
import struct
import sys

SOLICIT, ADVERTISE, REQUEST, RENEW, REBIND, REPLY, RELEASE = 1, 2, 3, 5, 6, 7, 8
RELAY_FORW, RELAY_REPL = 12, 13
OPT_CLIENTID, OPT_SERVERID, OPT_ELAPSED, OPT_RELAY_MSG = 1, 2, 8, 9
OPT_STATUS, OPT_INTERFACE_ID, OPT_IA_PD, OPT_IAPREFIX = 13, 18, 25, 26
SERVER_DUID = struct.pack(">HH", 3, 1) + bytes.fromhex("020000fa4e01")


def opt(code, data):
    return struct.pack(">HH", code, len(data)) + data


def options(buf):
    """(code, data) pairs; a truncated option ends the walk."""
    out, off = [], 0
    while off + 4 <= len(buf):
        code, length = struct.unpack_from(">HH", buf, off)
        if off + 4 + length > len(buf):
            break
        out.append((code, buf[off + 4:off + 4 + length]))
        off += 4 + length
    return out


def find(opts, code):
    return next((data for c, data in opts if c == code), None)


def iaprefix(prefix, plen, valid):
    body = struct.pack(">IIB", valid, valid, plen) + ipaddress.IPv6Address(prefix).packed
    return opt(OPT_IAPREFIX, body)


def prefixes(ia_pd):
    """(prefix text, length, valid) of each well-formed IA Prefix in an IA_PD body."""
    out = []
    for code, data in options(ia_pd[12:]) if len(ia_pd) >= 12 else []:
        if code == OPT_IAPREFIX and len(data) >= 25:
            valid, plen = struct.unpack_from(">IB", data, 4)
            out.append((str(ipaddress.IPv6Address(data[9:25])), plen, valid))
    return out


# ---- server

def answer_client(msg):
    """The server's answer to a client message, or None."""
    if len(msg) < 4 or msg[0] not in (SOLICIT, REQUEST, RENEW, REBIND, RELEASE):
        return None
    opts = options(msg[4:])
    duid = find(opts, OPT_CLIENTID)
    if duid is None:
        return None
    out = opt(OPT_CLIENTID, duid) + opt(OPT_SERVERID, SERVER_DUID)
    if msg[0] == RELEASE:
        return bytes([REPLY]) + msg[1:4] + out + opt(OPT_STATUS, struct.pack(">H", 0) + b"released")
    for code, ia in opts:
        if code == OPT_IA_PD and len(ia) >= 12:
            granted = b"".join(iaprefix(p, n, v) for p, n, v in prefixes(ia))
            out += opt(OPT_IA_PD, ia[:4] + struct.pack(">II", 1000, 2000) + granted)
    return bytes([ADVERTISE if msg[0] == SOLICIT else REPLY]) + msg[1:4] + out


def answer(msg, depth=0):
    """Relay-Reply for a Relay-Forward (nested ones answered inside out)."""
    if len(msg) < 34 or msg[0] != RELAY_FORW or depth > 32:
        return answer_client(msg) if depth else None
    opts = options(msg[34:])
    inner = find(opts, OPT_RELAY_MSG)
    reply = answer(inner, depth + 1) if inner is not None else None
    if reply is None:
        return None
    ifid = find(opts, OPT_INTERFACE_ID)
    tail = opt(OPT_INTERFACE_ID, ifid) if ifid is not None else b""
    return bytes([RELAY_REPL]) + msg[1:34] + tail + opt(OPT_RELAY_MSG, reply)


def server(args):
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.bind(("::", args.port))
    while True:
        msg, peer = s.recvfrom(65535)
        reply = answer(msg)
        if reply is not None:
            s.sendto(reply, peer)
        print("from %s: %d bytes type %d -> %s" % (peer[0], len(msg), msg[0] if msg else -1,
              "%d bytes" % len(reply) if reply else "no answer"), flush=True)


# ---- client

def parse_hint(text):
    net, valid = text.rsplit(":", 1)
    prefix, plen = net.split("/")
    return str(ipaddress.IPv6Address(prefix)), int(plen), int(valid)


def client(args):
    hints = [parse_hint(h) for h in args.prefix]
    ifindex = socket.if_nametoindex(args.iface)
    with open("/sys/class/net/%s/address" % args.iface) as f:
        mac = bytes.fromhex(f.read().strip().replace(":", ""))
    duid = struct.pack(">HH", 3, 1) + mac
    ia_pd = opt(OPT_IA_PD, struct.pack(">III", 1, 0, 0) + b"".join(iaprefix(*h) for h in hints))
    s = socket.socket(socket.AF_INET6, socket.SOCK_DGRAM)
    s.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    s.setsockopt(socket.IPPROTO_IPV6, socket.IPV6_MULTICAST_IF, ifindex)
    s.bind(("::", 546))
    s.settimeout(args.wait)

    def exchange(mtype, want, extra=b""):
        for _ in range(args.tries):
            xid = os.urandom(3)
            body = opt(OPT_CLIENTID, duid) + opt(OPT_ELAPSED, b"\0\0") + extra + ia_pd
            s.sendto(bytes([mtype]) + xid + body, ("ff02::1:2", 547, 0, ifindex))
            try:
                while True:
                    msg = s.recv(65535)
                    if len(msg) >= 4 and msg[0] == want and msg[1:4] == xid:
                        return options(msg[4:])
            except socket.timeout:
                continue
        sys.exit("no answer of type %d to message type %d" % (want, mtype))

    adv = exchange(SOLICIT, ADVERTISE)
    sid = find(adv, OPT_SERVERID)
    reply = exchange(REQUEST, REPLY, opt(OPT_SERVERID, sid) if sid is not None else b"")
    got = [p for c, ia in reply if c == OPT_IA_PD for p in prefixes(ia)]
    for p, n, v in got:
        print("REPLY prefix %s/%d valid %d" % (p, n, v))
    return 0 if all(h in got for h in hints) else 1


def main():
    ap = argparse.ArgumentParser()
    sub = ap.add_subparsers(dest="role", required=True)
    sp = sub.add_parser("server")
    sp.add_argument("--port", type=int, default=547)
    cp = sub.add_parser("client")
    cp.add_argument("iface")
    cp.add_argument("--prefix", action="append", required=True, help="ADDR/LEN:VALID")
    cp.add_argument("--wait", type=float, default=2.0, help="seconds per try")
    cp.add_argument("--tries", type=int, default=3)
    args = ap.parse_args()
    sys.exit(server(args) if args.role == "server" else client(args))


if __name__ == "__main__":
    main()
