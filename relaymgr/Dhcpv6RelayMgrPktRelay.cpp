// Dhcpv6RelayMgrPktRelay.cpp -- the packet relay engine's entry point.
//
// The protocol socket delivers no frame until the platform's AF_PACKET
// receive lands (qor/l2sock.h), and the relay engine (intake, Relay-Forward,
// Relay-Reply, transmission) is built with it. Until then a frame that did
// arrive would be dropped here.
#include "dhcpv6RelayMgr.h"

uint32_t dhcpv6RelayStart(uint8_t* /*packet*/, uint32_t /*length*/, uint32_t /*logicalIfIndex*/,
                          uint32_t /*recvPortIfIndex*/, uint32_t /*physicalIfIndex*/) {
    return uint32_t(-1);
}
