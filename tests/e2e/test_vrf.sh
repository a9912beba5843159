#!/usr/bin/env bash
# Two helper addresses in two VRFs: each server is reachable from the relay
# only through its VRF's routing table, and each gets every Relay-Forward.
# A client on a routed port of VRF red gets a prefix: its route goes into
# red's table, not the main one.
. "$(dirname "$0")/lib.sh" vrf

nl_ns client; nl_ns relay
nl_link client c0 relay r-e11
nl_addr relay r-e11 2001:db8:10::1/64
nl_link client c7 relay r-e17
nl_addr relay r-e17 2001:db8:30::1/64
e2e_server red r-red s-red 2001:db8:ee
e2e_server blue r-blue s-blue 2001:db8:dd
for v in red:ee:101 blue:dd:102; do
    IFS=: read -r name net table <<<"$v"
    ip -n "${NL_PREFIX}relay" -6 route del "2001:db8:$net::/64" dev "r-$name"
    ip -n "${NL_PREFIX}relay" -6 route add "2001:db8:$net::/64" dev "r-$name" table "$table"
done
unreachable() { ! nl_exec relay ip -6 route get "$1" >/dev/null 2>&1; }
check "the main table has no route to either server" unreachable 2001:db8:ee::2
check "(nor to the second)" unreachable 2001:db8:dd::2

e2e_relay '[vrf red]
id = 1
table = 101

[vrf blue]
id = 2
table = 102

[interface ethernet 1/5]
linux = r-red
vrf = red

[interface ethernet 1/6]
linux = r-blue
vrf = blue

[interface ethernet 1/7]
linux = r-e17
vrf = red'
cli "interface vlan 10" "ipv6 helper-address vrf red 2001:db8:ee::2" \
    "ipv6 helper-address vrf blue 2001:db8:dd::2" "end" \
    "interface ethernet 1/7" "ipv6 helper-address vrf red 2001:db8:ee::2" "end"

ll=$(lladdr client c0)
nl_dhclient client c0 client -N
check "the client gets an address" nl_wait 30 nl_has_lease client 'iaaddr 2001:db8:10::'
for v in red:ee blue:dd; do
    IFS=: read -r name net <<<"$v"
    for type in SOLICIT REQUEST; do
        expect "$name" "the server in VRF $name gets the $type" \
            "^vlan=- 2001:db8:$net::1 -> 2001:db8:$net::2 udp=547>547 RELAY-FORWARD hop=0 link=2001:db8:10::1 peer=$ll ifid=10:0:1:1 $E2E_RID > $type"
    done
done

ll7=$(lladdr client c7)
nl_dhclient client c7 client7 -P
check "the client in VRF red gets a prefix" nl_wait 30 nl_has_lease client7 'iaprefix 2001:db8:8002:'
prefix=$(nl_pd_prefix client7)
in_red() { ip -n "${NL_PREFIX}relay" -6 route show table 101 exact "$prefix" | grep -qF -- "$prefix via $ll7 dev r-e17 "; }
check "its route is in VRF red's table 101" nl_wait 10 in_red
check "and not in the main table" test -z "$(ip -n "${NL_PREFIX}relay" -6 route show exact "$prefix")"

# A restarted relay finds the policy rules its last run left and adds none:
# one rule per VRF table, however often it starts.
cli "write memory"
fwd0="RELAY-FORWARD hop=0 link=2001:db8:10::1 peer=$ll "
n0=$(count red "$fwd0")
pid=$(cat "$NL_RUNDIR/dhcpv6relaymgr.pid") && kill -9 "$pid" && rm -f "$NL_RUNDIR/dhcpv6relaymgr.pid"
gone() { ! kill -0 "$pid" 2>/dev/null; }
check "the killed relay is gone" nl_wait 10 gone
nl_relay relay "$NL_WORK/hostmap.ini"
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c0
relayed_again() { [ "$(count red "$fwd0")" -gt "$n0" ] && [ "$(count blue "$fwd0")" -gt "$n0" ]; }
check "the restarted relay relays into both VRFs again" nl_wait 15 relayed_again
rules() { ip -n "${NL_PREFIX}relay" -6 rule show | grep -c "fwmark $1 lookup $2"; }
check "one policy rule for each VRF table" test "$(rules 0x65 101)" -eq 1 -a "$(rules 0x66 102)" -eq 1
