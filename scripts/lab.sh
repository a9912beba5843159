#!/usr/bin/env bash
# lab.sh -- the demonstration lab: three network namespaces on this host,
#
#   lab-client                 lab-relay                         lab-server
#   dhclient -6 -N -P  c0 ---- r-e11  dhcpv6relaymgr  r-up ---- s0  kea-dhcp6
#                              ethernet 1/1, VLAN 10    ethernet 1/2
#                              2001:db8:10::1/64        2001:db8:ff::1   2001:db8:ff::2
#
# The client asks for an address and a prefix; the relay wraps its messages
# in Relay-Forwards to the helper address 2001:db8:ff::2 (set with
# dhcpv6-cli); Kea answers from the subnet of the relay's VLAN 10 address.
# The lab prints the lease, the delegated prefix's route on the relay host,
# the DHCPv6 messages on the server's and the client's link, Kea's log, the
# relay's event log, debugging and running-config, then removes everything
# it made (also when interrupted).
#
# Needs root. BUILD=dir (default build) holds dhcpv6relaymgr and dhcpv6-cli;
# LAB_RELAY=dhcrelay puts ISC dhcrelay in the relay's place; NL_KEEP=1 keeps
# the working directory (logs, configurations).
set -euo pipefail

if [ "$(id -u)" -ne 0 ] && command -v sudo >/dev/null 2>&1; then
    exec sudo BUILD="${BUILD:-}" LAB_RELAY="${LAB_RELAY:-}" NL_KEEP="${NL_KEEP:-0}" "$0" "$@"
fi
NL_SRC=$(cd "$(dirname "$0")/.." && pwd)
NL_BUILD=${BUILD:-$NL_SRC/build}
[[ $NL_BUILD = /* ]] || NL_BUILD=$PWD/$NL_BUILD
NL_PREFIX=lab-
RELAY=${LAB_RELAY:-dhcpv6relaymgr}
[ -n "$RELAY" ] || RELAY=dhcpv6relaymgr
# shellcheck source=netlab.sh
. "$NL_SRC/scripts/netlab.sh"

nl_require 1
if [ "$RELAY" = dhcpv6relaymgr ] && [ ! -x "$NL_BUILD/dhcpv6relaymgr" ]; then
    nl_log "no $NL_BUILD/dhcpv6relaymgr: run make build first (make lab does)"; exit 1
fi
# A lab killed without its cleanup leaves its namespaces: remove them first.
nl_sweep

NL_WORK=$(mktemp -d /tmp/dhcpv6-lab.XXXXXX)
nl_init

step() { printf '\n== %s\n' "$*"; }

step "namespaces lab-client, lab-relay, lab-server"
nl_ns client; nl_ns relay; nl_ns server
nl_link client c0 relay r-e11
nl_link relay r-up server s0
nl_addr relay r-e11 2001:db8:10::1/64
nl_addr relay r-up 2001:db8:ff::1/64
nl_addr server s0 2001:db8:ff::2/64

step "Kea DHCPv6 server on lab-server s0 (2001:db8:ff::2)"
nl_kea server s0 2001:db8:ff::2 kea
nl_capture server s0 server
nl_capture client c0 client-side

if [ "$RELAY" = dhcrelay ]; then
    step "ISC dhcrelay -6 on lab-relay: r-e11 -> 2001:db8:ff::2"
    nl_dhcrelay relay relay -l r-e11 -u 2001:db8:ff::2%r-up
    nl_wait 10 nl_listening relay 547
else
    step "dhcpv6relaymgr on lab-relay, host map examples/lab/hostmap.ini"
    nl_relay relay "$NL_SRC/examples/lab/hostmap.ini"
    step "configuring it with dhcpv6-cli"
    commands=("debug ipv6 dhcp flags 0x110" "interface vlan 10"
              "ipv6 helper-address 2001:db8:ff::2" "end")
    args=()
    for c in "${commands[@]}"; do args+=(-c "$c"); done
    printf '  dhcpv6-cli --rundir %s' "$NL_RUNDIR"; printf ' -c "%s"' "${commands[@]}"; echo
    nl_cli "${args[@]}"
fi

step "dhclient -6 -N -P on lab-client c0"
nl_dhclient client c0 client
if ! nl_wait 40 nl_has_lease client iaaddr; then
    nl_log "no lease within 40 s; dhclient said:"; tail -n 20 "$NL_WORK/client.log" >&2
    nl_log "Kea said:"; tail -n 20 "$NL_WORK/kea.log" >&2
    [ "$RELAY" = dhcrelay ] || { nl_log "the relay said:"; tail -n 40 "$NL_WORK/relay.log" >&2; }
    exit 1
fi
# The prefix comes in the same Reply; give a slower server a moment, and
# tcpdump time to write the last frames.
nl_wait 5 nl_has_lease client iaprefix || true
sleep 0.5

step "the client's lease (dhclient lease file)"
cat "$NL_WORK/client.leases"
step "what dhclient reported"
cat "$NL_WORK/client.events"
step "lab-client c0 addresses"
nl_exec client ip -6 -br addr show dev c0
prefix=$(nl_pd_prefix client)
step "the delegated prefix's route on the relay host (lab-relay: ip -6 route show exact ${prefix:-PREFIX})"
if [ -z "$prefix" ]; then
    echo "(the client holds no delegated prefix)"
else
    # The route follows the Reply to the client by a moment.
    lab_routed() { [ -n "$(nl_exec relay ip -6 route show exact "$prefix")" ]; }
    nl_wait 5 lab_routed || true
    nl_exec relay ip -6 route show exact "$prefix" | grep . || echo "(no route for $prefix)"
fi
step "on the wire at the server (lab-server s0): the Relay-Forwards and Kea's Relay-Replies"
nl_decode server
step "on the wire at the client (lab-client c0)"
nl_decode client-side
step "Kea's log"
grep -E 'DHCP6_(LEASE|PD_LEASE)_ALLOC|DHCPSRV_MEMFILE_DB|DHCP6_STARTED' "$NL_WORK/kea.log" || true

if [ "$RELAY" != dhcrelay ]; then
    step "the relay's event log ($NL_RUNDIR/eventlog)"
    grep -E 'DHCPV6_EVT_(CLIENT|RELAY|SERVER|LEASE|PREFIX)' "$NL_RUNDIR/eventlog" || true
    step "the relay's packet debugging (debug ipv6 dhcp flags 0x110)"
    tr '\r' '\n' <"$NL_WORK/relay.log" | grep -E 'Recieved packet|Sent .* packet to' || true
    step "show running-config"
    nl_cli -c "show running-config"
fi
step "done; removing the lab"
