# shellcheck shell=bash
# lib.sh -- what the end-to-end tests share. A test sources it with its
# short name (its namespaces are e2e-NAME-*):
#   . "$(dirname "$0")/lib.sh" relay
# ctest sets BUILD_DIR and SRC_DIR. Exit 77 (skipped) when this host cannot
# make namespaces; on failure the logs, the event log and every capture are
# printed before the namespaces go.
set -euo pipefail

SRC_DIR=${SRC_DIR:-$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)}
BUILD_DIR=${BUILD_DIR:-$SRC_DIR/build}
NL_SRC=$SRC_DIR
NL_BUILD=$BUILD_DIR
NL_PREFIX=e2e-$1-
# shellcheck source=../../scripts/netlab.sh
. "$SRC_DIR/scripts/netlab.sh"

nl_require 77
if [ ! -x "$BUILD_DIR/dhcpv6relaymgr" ] || [ ! -x "$BUILD_DIR/dhcpv6-cli" ]; then
    echo "no dhcpv6relaymgr / dhcpv6-cli in $BUILD_DIR"; exit 1
fi
NL_WORK=$(mktemp -d "/tmp/e2e-$1.XXXXXX")
nl_sweep
nl_init

nl_on_fail() {
    local f
    echo "---- diagnostics ($NL_WORK)"
    for f in "$NL_WORK"/*.log "$NL_WORK"/*.events "$NL_WORK"/*.leases; do
        [ -s "$f" ] || continue
        echo "-- $(basename "$f")"; tr '\r' '\n' <"$f" | grep -v '^$' | tail -n 40
    done
    if [ -n "${NL_RUNDIR:-}" ] && [ -s "$NL_RUNDIR/eventlog" ]; then
        echo "-- eventlog"; tail -n 40 "$NL_RUNDIR/eventlog"
    fi
    for f in "$NL_WORK"/*.pcap; do
        [ -e "$f" ] || continue
        echo "-- capture $(basename "$f" .pcap)"; nl_decode "$(basename "$f" .pcap)" || true
    done
}

fail() { echo "FAIL: $*"; exit 1; }
pass() { echo "ok: $*"; }

# check WHAT CMD...: CMD must succeed.
check() { local what=$1; shift; if "$@"; then pass "$what"; else fail "$what"; fi; }

# has CAPTURE REGEX: some DHCPv6 packet of the capture reads REGEX
# (tests/e2e/pcap.py's line form).
has() { local lines; lines=$(nl_decode "$1"); grep -Eq -- "$2" <<<"$lines"; }
# expect CAPTURE WHAT REGEX: has, within 5 s (tcpdump may write a packet
# after the server answered it); expect_no: has not.
expect() { if nl_wait 5 has "$1" "$3"; then pass "$2"; else fail "$2: no packet in capture $1 reads /$3/"; fi; }
expect_no() { if has "$1" "$3"; then fail "$2: capture $1 has /$3/"; else pass "$2"; fi; }
# count CAPTURE REGEX: how many packets read REGEX.
count() { local lines; lines=$(nl_decode "$1"); grep -Ec -- "$2" <<<"$lines" || true; }

# The link-local address of IFACE in namespace NS.
lladdr() { ip -n "${NL_PREFIX}$1" -6 -o addr show dev "$2" scope link | awk '{sub("/.*", "", $4); print $4}'; }

# e2e_server NS RELAY_IF SERVER_IF NET [RENEW]: a server namespace NS linked
# to the relay: NET::1/64 on the relay's side, NET::2/64 with Kea (log
# NS.log, leases NS-leases6.csv) and a capture NS.pcap on the server's side,
# and a route back to every lab network through the relay.
e2e_server() {
    local ns=$1 rif=$2 sif=$3 net=$4
    nl_ns "$ns"
    nl_link relay "$rif" "$ns" "$sif"
    nl_addr relay "$rif" "$net::1/64"
    nl_addr "$ns" "$sif" "$net::2/64"
    ip -n "${NL_PREFIX}$ns" -6 route add 2001:db8::/32 via "$net::1"
    nl_capture "$ns" "$sif" "$ns"
    nl_kea "$ns" "$sif" "$net::2" "$ns" "${5:-1000}"
}

# The relay's ports every test has: ethernet 1/1 (Linux r-e11) carries VLAN
# 10 untagged and holds its address; ethernet 1/2 (r-up) is the routed
# uplink to the server 2001:db8:ff::2.
E2E_HOSTMAP='[system]
chassis-mac = 02:00:5e:10:00:01

[interface ethernet 1/1]
linux = r-e11
untagged = 10

[interface vlan 10]
linux = r-e11

[interface ethernet 1/2]
linux = r-up
'
E2E_RID='rid=21/[0-9]+/2:0:5e:10:0:1'

# e2e_relay [MORE_HOSTMAP]: the daemon on namespace relay with E2E_HOSTMAP
# plus MORE_HOSTMAP, printing its event and packet debugging.
e2e_relay() {
    printf '%s\n%s\n' "$E2E_HOSTMAP" "${1:-}" >"$NL_WORK/hostmap.ini"
    nl_relay relay "$NL_WORK/hostmap.ini"
    nl_cli -c "debug ipv6 dhcp flags 0x110" >/dev/null
}

# cli COMMAND...: one dhcpv6-cli session running the commands in order.
cli() {
    local args=() c
    for c in "$@"; do args+=(-c "$c"); done
    nl_cli "${args[@]}" || fail "dhcpv6-cli refused: $*"
}

# cli_refuses MESSAGE COMMAND...: the session fails and says MESSAGE.
cli_refuses() {
    local want=$1 args=() c out; shift
    for c in "$@"; do args+=(-c "$c"); done
    if out=$(nl_cli "${args[@]}" 2>&1); then fail "dhcpv6-cli accepted: $*"; fi
    if grep -qF -- "$want" <<<"$out"; then pass "refused: $want"; else fail "dhcpv6-cli said '$out', not '$want'"; fi
}
