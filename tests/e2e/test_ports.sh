#!/usr/bin/env bash
# Clients on the relay's other kinds of port: a routed port whose helper
# has a source interface, a port carrying VLAN 20 tagged (frames written
# with their 802.1Q tag, as the host has no VLAN devices), and the
# management port, which is never relayed.
. "$(dirname "$0")/lib.sh" ports

nl_ns client; nl_ns relay
nl_link client c0 relay r-e11
nl_link client c3 relay r-e13 02:00:00:00:00:13
nl_link client c4 relay r-e14 02:00:00:00:00:14
nl_link client cm relay r-mgmt 02:00:00:00:00:99
nl_link client c5 relay r-e15 02:00:00:00:00:15
nl_addr relay r-e11 2001:db8:10::1/64
nl_addr relay r-e13 2001:db8:20::1/64
nl_addr relay r-e14 2001:db8:30::1/64
nl_addr relay r-mgmt 2001:db8:99::1/64
nl_addr relay r-e15 2001:db8:50::1/64
e2e_server server r-up s0 2001:db8:ff
nl_capture client c3 tagged
nl_capture client c5 client5
e2e_relay '[interface ethernet 1/3]
linux = r-e13
tagged = 20

[interface vlan 20]
linux = r-e13

[interface ethernet 1/4]
linux = r-e14

[interface management 1/0]
linux = r-mgmt

[interface ethernet 1/5]
linux = r-e15

[interface port-channel 5]
untagged = 30

[interface vlan 30]
linux = r-e15'
cli "interface vlan 20" "ipv6 helper-address 2001:db8:ff::2" "end" \
    "interface ethernet 1/4" "ipv6 helper-address 2001:db8:ff::2" \
    "ipv6 dhcp relay source-interface vlan 20" "end"
# Even with a helper address the management port is never relayed.
cli "interface management 1/0" "ipv6 helper-address 2001:db8:ff::2" "end"
cli "interface vlan 30" "ipv6 helper-address 2001:db8:ff::2" "end"

ll4=$(lladdr client c4) ll3=$(lladdr client c3) llm=$(lladdr client cm) ll5=$(lladdr client c5)

# Routed port: the Interface-ID has no VLAN; the source interface (VLAN 20's
# address) is the Relay-Forward's source, and Kea answers there.
nl_dhclient client c4 routed -N
check "a client on a routed port gets an address" nl_wait 30 nl_has_lease routed 'iaaddr 2001:db8:30::'
expect server "its Solicit leaves from the source interface's address" \
    "^vlan=- 2001:db8:20::1 -> 2001:db8:ff::2 udp=547>547 RELAY-FORWARD hop=0 link=2001:db8:30::1 peer=$ll4 ifid=0:0:1:4 $E2E_RID > SOLICIT"

# Tagged port: the Advertise goes back with the client's VLAN tag.
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c3 --vlan 20
check "a Solicit tagged VLAN 20 is answered with an Advertise tagged VLAN 20" nl_wait 10 has tagged "^vlan=20 2001:db8:20::1 -> $ll3 udp=547>546 ADVERTISE addr=2001:db8:20::"
fwd3="RELAY-FORWARD hop=0 link=2001:db8:20::1 peer=$ll3 ifid=20:0:1:3 $E2E_RID > SOLICIT"
expect server "the tagged Solicit is relayed with VLAN 20's link-address and Interface-ID" "^vlan=- 2001:db8:ff::1 -> 2001:db8:ff::2 udp=547>547 $fwd3"

# Management port: Solicits there, then one on the tagged port as a marker;
# once the marker's Relay-Forward is at the server, none came from management.
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" cm --count 3 --interval 0.2
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c3 --vlan 20
marker() { [ "$(count server "$fwd3")" -ge 2 ]; }
check "the marker Solicit is relayed" nl_wait 10 marker
expect_no server "nothing from the management port reaches the server" "peer=$llm"

# Port configuration goes to the interface manager. Ethernet 1/5 is a routed
# port without a helper until it joins port-channel 5, which carries VLAN 30:
# from then on its client is VLAN 30's; after it leaves, nobody's again.
cli_refuses "% Error: unknown interface port-channel 9" "interface ethernet 1/5" "channel-group 9"
cli_refuses "% Error: vlan 30 is not a port or port-channel of the host map" "interface vlan 30" "switchport"
cli_refuses "% Error: switchport is an interface command" "switchport"
cli "interface ethernet 1/3" "no switchport" "switchport" "end"
fwd5="RELAY-FORWARD hop=0 link=2001:db8:50::1 peer=$ll5 "
# A Solicit on the tagged port behind another one is a marker: the relay
# reads frames in order, so once the marker is relayed the one before it
# has been dealt with.
markers() { local n=$1; marked() { [ "$(count server "$fwd3")" -ge "$n" ]; }; nl_wait 10 marked; }
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c5
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c3 --vlan 20
check "a marker follows the Solicit of the routed port" markers 3
cli "interface ethernet 1/5" "channel-group 5" "end"
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c5
check "a port that joined port-channel 5 is relayed in its VLAN 30" nl_wait 10 has server "$fwd5"
check "... and its client gets VLAN 30's Advertise" nl_wait 10 has client5 "^vlan=- 2001:db8:50::1 -> $ll5 udp=547>546 ADVERTISE addr=2001:db8:50::"
cli "interface ethernet 1/5" "no channel-group" "end"
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c5
nl_exec client python3 "$SRC_DIR/tests/e2e/l2client.py" c3 --vlan 20
check "a marker follows the Solicit after the port left" markers 4
check "only the Solicit sent while it was a member was relayed" test "$(count server "$fwd5")" -eq 1
