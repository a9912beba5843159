#!/usr/bin/env bash
# Delegated-prefix routes on the relay host. A client gets a /56 from Kea
# through the relay, and the kernel of the relay's namespace routes it via
# the client's link-local address (the Relay-Forward's peer-address) on the
# client's port; the route survives an RTM clear (it is taken out and put
# back), follows the port down and up, and goes with the client's Release.
#
# Kea never hands one client the same prefix address with two lengths, so
# that case uses tests/e2e/pdpeers.py in Kea's place: a server that grants
# the IA Prefix hints a scripted client asks for. The client holds a /56 of
# 2001:db8:9000::, then also the /48 with a 12-second lifetime: the /48 takes
# the route, and when it expires the /56 has it again. Finally the port is
# deleted: the relay forgets its leases, so a port re-created under the same
# name gets no route back.
#
# The routes are watched with `ip -6 monitor route` (routes.log), which shows
# a clear taking a route out and the relay putting it back.
. "$(dirname "$0")/lib.sh" pd

nl_ns client; nl_ns relay
nl_link client c0 relay r-e11 02:00:00:00:00:0c
nl_addr relay r-e11 2001:db8:10::1/64
# VLAN 10's address must outlive the port going down: the relay keeps no
# lease on an interface without a global address.
nl_exec relay sysctl -qw net.ipv6.conf.r-e11.keep_addr_on_down=1
e2e_server server r-up s0 2001:db8:ff
kea=$NL_LASTPID
e2e_relay
cli "interface vlan 10" "ipv6 helper-address 2001:db8:ff::2" "end"
nl_bg relay routes ip -6 monitor route
sleep 0.5

RNS=${NL_PREFIX}relay
ll=$(lladdr client c0)
route_of() { ip -n "$RNS" -6 route show exact "$1"; }
# routed PREFIX: the kernel routes PREFIX via the client's link-local on r-e11.
routed() { route_of "$1" | grep -qF -- "$1 via $ll dev r-e11 "; }
unrouted() { [ -z "$(route_of "$1")" ]; }
# route_check WHAT CMD...: CMD holds within 10 s; else fail showing the routes.
route_check() {
    local what=$1; shift
    if nl_wait 10 "$@"; then pass "$what"; return; fi
    fail "$what; the relay's routes: $(ip -n "$RNS" -6 route show table all | grep -v -e '^local' -e '^multicast' -e '^fe80::/64' | tr '\n' ';')"
}
# resent PREFIX N: the monitor saw the route deleted N times, and the relay
# put it back after the last deletion.
resent() {
    [ "$(grep -cF -- "Deleted $1 via" "$NL_WORK/routes.log")" -ge "$2" ] &&
        [[ $(grep -F -- "$1 via" "$NL_WORK/routes.log" | tail -n 1) != Deleted* ]] && routed "$1"
}
# said TEXT: how many of the relay's debug lines contain TEXT.
said() { tr '\r' '\n' <"$NL_WORK/relay.log" | grep -cF -- "$1" || true; }
said_more() { [ "$(said "$1")" -gt "$2" ]; }
up_text="Got IFM_TYP_OSTATE_UP for"

# ---- Kea and dhclient
nl_dhclient client c0 client -P
dhclient_pid=$NL_LASTPID
check "the client gets a prefix through the relay" nl_wait 30 nl_has_lease client 'iaprefix 2001:db8:8000:'
prefix=$(nl_pd_prefix client)
check "a /56 ($prefix)" test "${prefix#*/}" = 56
route_check "the relay host routes it via the client's link-local $ll on r-e11" routed "$prefix"

cli "clear ipv6 route dhcp"
route_check "clear ipv6 route dhcp: the RTM takes the route out, the relay puts it back" resent "$prefix" 1
cli "clear ipv6 route dhcp $prefix"
route_check "clear ipv6 route dhcp $prefix: the same for that prefix" resent "$prefix" 2

# The client's end going down takes the port's carrier: the kernel would
# keep the route (linkdown), so only the relay can have taken it out.
ip -n "${NL_PREFIX}client" link set c0 down
route_check "the client's link losing carrier withdraws the route" unrouted "$prefix"
ip -n "${NL_PREFIX}client" link set c0 up
route_check "carrier back puts it back" routed "$prefix"
ip -n "$RNS" link set r-e11 down
route_check "the client's port going down withdraws the route" unrouted "$prefix"
ups=$(said "$up_text")
ip -n "$RNS" link set r-e11 up
route_check "its coming up puts the route back" routed "$prefix"
sleep 1
ups=$(($(said "$up_text") - ups))   # interfaces the relay hears come up with r-e11

nl_release client c0 client -P
check "Kea releases the prefix" nl_wait 10 grep -q DHCP6_RELEASE_PD "$NL_WORK/server.log"
route_check "the Release takes the route out" unrouted "$prefix"
kill "$dhclient_pid" 2>/dev/null || true

# ---- two lengths of one prefix address, from pdpeers.py
kill "$kea"
notlistening() { ! nl_listening "$@"; }
check "Kea stops" nl_wait 10 notlistening server 547
nl_bg server pdserver python3 -u "$SRC_DIR/tests/e2e/pdpeers.py" server
check "the scripted server listens" nl_wait 10 nl_listening server 547
check "port 546 is free for the scripted client" nl_wait 10 notlistening client 546
pdclient() { nl_exec client python3 "$SRC_DIR/tests/e2e/pdpeers.py" client c0 "$@" >>"$NL_WORK/pdclient.log" 2>&1; }
p=2001:db8:9000::
only() { routed "$1" && unrouted "$2"; }

check "the scripted client is granted $p/56" pdclient --prefix "$p/56:300"
route_check "$p/56 is routed" routed "$p/56"
check "the same client is granted $p/48 (12 s) beside the /56" pdclient --prefix "$p/48:12" --prefix "$p/56:300"
route_check "the shorter /48 takes the route from the /56" only "$p/48" "$p/56"
check "when the /48 expires the /56 is routed again" nl_wait 30 only "$p/56" "$p/48"

# ---- the port deleted, then re-created under the same name
dels=$(said "Got IFM_TYP_DEL_IF for") ups0=$(said "$up_text")
ip -n "$RNS" link del r-e11
route_check "deleting the client's port takes its route out" unrouted "$p/56"
check "the relay hears of the deletion" nl_wait 30 said_more "Got IFM_TYP_DEL_IF for" "$dels"
nl_link client c0 relay r-e11 02:00:00:00:00:0c
nl_addr relay r-e11 2001:db8:10::1/64
check "the relay hears the re-created port come up" nl_wait 30 said_more "$up_text" $((ups0 + (ups > 1 ? ups : 1) - 1))
sleep 1
noroute() { ! ip -n "$RNS" -6 route show | grep -qF "via $ll"; }
check "the deleted port's leases are forgotten: no route comes back" noroute
