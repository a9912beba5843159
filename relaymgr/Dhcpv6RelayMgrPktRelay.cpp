// Dhcpv6RelayMgrPktRelay.cpp -- the packet relay engine's entry point.
//
// The protocol socket delivers no frame until the platform's AF_PACKET
// receive lands (qor/l2sock.h), and the relay engine (intake, Relay-Forward,
// Relay-Reply, transmission) is built with it. Until then a frame that did
// arrive would be dropped here.
#include "dhcpv6RelayMgr.h"

int dhcpv6RelayStart(uint8_t* /*packet*/, int /*length*/, uint32_t /*logicalIfIndex*/,
                     uint32_t /*recvIfIndex*/, uint32_t /*physIfIndex*/) {
    return -1;
}
