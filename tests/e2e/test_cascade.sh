#!/usr/bin/env bash
# A cascade: ISC dhcrelay nearer the client relays to this relay, which
# relays to Kea. The server sees this relay's Relay-Forward at hop-count 1
# around dhcrelay's; the answer goes back through both to the client.
. "$(dirname "$0")/lib.sh" cascade

nl_ns client; nl_ns mid; nl_ns relay
nl_link client c0 mid d-down
nl_link mid d-up relay r-e11
nl_addr mid d-down 2001:db8:50::1/64
nl_addr mid d-up 2001:db8:10::2/64
nl_addr relay r-e11 2001:db8:10::1/64
e2e_server server r-up s0 2001:db8:ff
nl_capture mid d-up mid
e2e_relay
cli "interface vlan 10" "ipv6 helper-address 2001:db8:ff::2" "end"
nl_dhcrelay mid dhcrelay -l d-down -u 2001:db8:10::1%d-up
nl_wait 10 nl_listening mid 547

ll=$(lladdr client c0)
nl_dhclient client c0 client -N
check "the client behind both relays gets an address of dhcrelay's link" nl_wait 30 nl_has_lease client 'iaaddr 2001:db8:50::'
expect server "the server sees hop-count 1 around dhcrelay's Relay-Forward" \
    "^vlan=- 2001:db8:ff::1 -> 2001:db8:ff::2 udp=547>547 RELAY-FORWARD hop=1 link=2001:db8:10::1 peer=2001:db8:10::2 ifid=10:0:1:1 $E2E_RID > RELAY-FORWARD hop=0 link=2001:db8:50::1 peer=$ll .*> REQUEST"
expect mid "the inner Relay-Reply goes to dhcrelay on UDP 547" \
    "-> 2001:db8:10::2 udp=547>547 RELAY-REPLY hop=0 link=2001:db8:50::1 peer=$ll .*> REPLY addr=2001:db8:50::"
