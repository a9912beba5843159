// Dhcpv6RelayMgrShow.cpp -- the snooping show commands.
//
// The records are built with the platform's display library, which comes
// with the snooping show work; until then each request is answered with
// status -1 (nothing to display) and the dispatcher sends it back.
#include "dhcpv6RelayMgr.h"
#include "qor/bytes.h"
#include "qor/ipc.h"

namespace {

int answerNothing(dhcpv6Msg message) {
    qor::putU32(message, QOR_IPC_OFF_STATUS, 0xFFFFFFFF);
    return -1;
}

}  // namespace

int dhcpXmlProcCliDispIpv6DhcpSnoopingInfo(dhcpv6Msg message) { return answerNothing(message); }

int dhcpXmlProcCliDispIpv6DhcpTrustInfo(dhcpv6Msg message) { return answerNothing(message); }

int dhcpXmlProcCliDispIpv6DhcpSnoopEnabledVlans(dhcpv6Msg message) {
    return answerNothing(message);
}

int dhcpXmlProcCliDispIpv6DhcpSnoopBind(dhcpv6Msg message) { return answerNothing(message); }

int dhcpXmlProcCliDispIpv6DhcpSnoopBindCnt(dhcpv6Msg message) { return answerNothing(message); }
