// qor/acl.h -- the ACL manager's client library.
//
// iAclEnableSysFlowProtocolEntries switches the system flow entries of one
// protocol (the entries that trap its packets to the CPU) on or off. On Linux
// the request is a QOR_MT_ACL_SYS_FLOW message (qor/chassis.h) enqueued on the
// caller's ACL SWP queue; the ACL manager records which protocols are on.
#pragma once

#include <cstdint>

// 0 when the request was queued, -1 otherwise.
int iAclEnableSysFlowProtocolEntries(uint32_t protocol, int arg2, int arg3, int instance,
                                     int taskKey, int arg6, int enable, int aclSwpQueue);
