#!/usr/bin/env python3
"""Prints one line per DHCPv6 packet of a tcpdump capture (pcap, Ethernet):

  vlan=10|- SRC -> DST udp=SPORT>DPORT LEVEL [> LEVEL ...]

where a relay level reads
  RELAY-FORWARD hop=H link=ADDR peer=ADDR [ifid=TEXT] [rid=LEN/ENTERPRISE/TEXT]
and the innermost message
  SOLICIT [addr=ADDR] [prefix=ADDR/LEN].
Every length in the input is checked against what is left of its buffer; a
frame that does not parse is printed as "malformed". Standard library only.
"""
import ipaddress
import signal
import struct
import sys

NAMES = {1: "SOLICIT", 2: "ADVERTISE", 3: "REQUEST", 4: "CONFIRM", 5: "RENEW", 6: "REBIND",
         7: "REPLY", 8: "RELEASE", 9: "DECLINE", 10: "RECONFIGURE", 11: "INFORMATION-REQUEST",
         12: "RELAY-FORWARD", 13: "RELAY-REPLY"}


def ip6(b):
    return str(ipaddress.IPv6Address(bytes(b)))


def options(buf):
    """(code, data) of each option; stops at an option that overruns."""
    off = 0
    while off + 4 <= len(buf):
        code, length = struct.unpack_from(">HH", buf, off)
        if off + 4 + length > len(buf):
            raise ValueError("option %d overruns" % code)
        yield code, buf[off + 4:off + 4 + length]
        off += 4 + length


def leases(opts):
    """addr=/prefix= words from IA_NA (3) / IA_PD (25) options."""
    words = []
    for code, data in opts:
        if code == 3 and len(data) >= 12:
            words += ["addr=" + ip6(d[:16]) for c, d in options(data[12:]) if c == 5 and len(d) >= 24]
        elif code == 25 and len(data) >= 12:
            words += ["prefix=%s/%d" % (ip6(d[9:25]), d[8])
                      for c, d in options(data[12:]) if c == 26 and len(d) >= 25]
    return words


def dhcpv6(msg):
    if not msg:
        raise ValueError("empty message")
    name = NAMES.get(msg[0], "TYPE%d" % msg[0])
    if msg[0] not in (12, 13):
        if len(msg) < 4:
            raise ValueError("short message")
        return " ".join([name] + leases(list(options(msg[4:]))))
    if len(msg) < 34:
        raise ValueError("short relay message")
    words = [name, "hop=%d" % msg[1], "link=" + ip6(msg[2:18]), "peer=" + ip6(msg[18:34])]
    inner = None
    for code, data in options(msg[34:]):
        if code == 18:
            printable = all(0x21 <= b < 0x7F for b in data)
            words.append("ifid=" + (data.decode("ascii") if printable else "0x" + data.hex()))
        elif code == 37:
            ent = struct.unpack_from(">I", data)[0] if len(data) >= 4 else 0
            text = data[4:].rstrip(b"\0").decode("ascii", "replace")
            words.append("rid=%d/%d/%s" % (len(data), ent, text))
        elif code == 9:
            inner = data
    line = " ".join(words)
    return line + " > " + dhcpv6(inner) if inner is not None else line


def frame(pkt):
    if len(pkt) < 14:
        return None
    off, vlans = 12, []
    etype = struct.unpack_from(">H", pkt, off)[0]
    while etype in (0x8100, 0x88A8) and off + 6 <= len(pkt):
        vlans.append(struct.unpack_from(">H", pkt, off + 2)[0] & 0xFFF)
        off += 4
        etype = struct.unpack_from(">H", pkt, off)[0]
    off += 2
    if etype != 0x86DD or off + 48 > len(pkt) or pkt[off + 6] != 17:
        return None
    src, dst = ip6(pkt[off + 8:off + 24]), ip6(pkt[off + 24:off + 40])
    sport, dport, ulen = struct.unpack_from(">HHH", pkt, off + 40)
    if 546 not in (sport, dport) and 547 not in (sport, dport):
        return None
    payload = pkt[off + 48:off + 40 + ulen] if ulen >= 8 else b""
    head = "vlan=%s %s -> %s udp=%d>%d" % (",".join(map(str, vlans)) or "-", src, dst, sport, dport)
    try:
        return head + " " + dhcpv6(payload)
    except (ValueError, struct.error) as err:
        return head + " malformed (%s)" % err


def records(data):
    if len(data) < 24:
        return
    magic = data[:4]
    endian = "<" if magic in (b"\xd4\xc3\xb2\xa1", b"\x4d\x3c\xb2\xa1") else ">"
    if struct.unpack_from(endian + "I", data, 20)[0] != 1:
        raise SystemExit("not an Ethernet capture")
    off = 24
    while off + 16 <= len(data):
        incl = struct.unpack_from(endian + "I", data, off + 8)[0]
        yield data[off + 16:off + 16 + incl]
        off += 16 + incl


def main():
    signal.signal(signal.SIGPIPE, signal.SIG_DFL)  # a reader that stops early ends us quietly
    with open(sys.argv[1], "rb") as f:
        data = f.read()
    for pkt in records(data):
        line = frame(pkt)
        if line:
            print(line)


if __name__ == "__main__":
    main()
