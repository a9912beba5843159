#!/usr/bin/env bash
# A client on an access port of VLAN 10 gets an address and a prefix from
# Kea through the relay, renews them and releases them; the Relay-Forwards
# the server sees and the frames the client gets are checked byte for byte.
. "$(dirname "$0")/lib.sh" relay

nl_ns client; nl_ns relay
nl_link client c0 relay r-e11 02:00:00:00:00:0c
nl_addr relay r-e11 2001:db8:10::1/64
e2e_server server r-up s0 2001:db8:ff 3   # renew after 3 s
nl_capture client c0 client-side
e2e_relay
cli "interface vlan 10" "ipv6 helper-address 2001:db8:ff::2" "end"

ll=$(lladdr client c0)
nl_dhclient client c0 client
check "the client gets an address through the relay" nl_wait 30 nl_has_lease client 'iaaddr 2001:db8:10::'
check "and a prefix delegated from the pool" nl_has_lease client 'iaprefix 2001:db8:8000:'

fwd="^vlan=- 2001:db8:ff::1 -> 2001:db8:ff::2 udp=547>547 RELAY-FORWARD hop=0 link=2001:db8:10::1 peer=$ll ifid=10:0:1:1 $E2E_RID >"
expect server "Solicit relayed: link-address VLAN 10, peer the client, Interface-ID of ethernet 1/1, Remote-ID" "$fwd SOLICIT"
expect server "Request relayed the same way" "$fwd REQUEST addr=2001:db8:10::"
expect client-side "Advertise reaches the client untagged from VLAN 10's address, UDP 547 to 546" "^vlan=- 2001:db8:10::1 -> $ll udp=547>546 ADVERTISE addr=2001:db8:10::"
expect client-side "Reply reaches the client untagged, UDP 547 to 546" "^vlan=- 2001:db8:10::1 -> $ll udp=547>546 REPLY addr=2001:db8:10::"

check "Kea renews the lease" nl_wait 15 grep -q DHCP6_LEASE_RENEW "$NL_WORK/server.log"
expect server "Renew relayed" "$fwd RENEW addr=2001:db8:10::"
check "the client has the Renew's Reply" nl_wait 5 grep -q '^RENEW6 address' "$NL_WORK/client.events"

nl_release client c0 client
check "Kea releases the address" nl_wait 10 grep -q DHCP6_RELEASE_NA "$NL_WORK/server.log"
check "and the prefix" grep -q DHCP6_RELEASE_PD "$NL_WORK/server.log"
expect server "Release relayed" "$fwd RELEASE addr=2001:db8:10::"
