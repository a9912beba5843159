// qor/rtm.h -- the route table manager's client library.
//
// Registration is a synchronous QOR_MT_RTM_REGISTER request (qor/chassis.h);
// route updates travel over the client's RTM SWP queue.
#pragma once

#include <cstdint>

// clientInfo: three words (application, request queue, 0). 0 and *outHandle,
// or non-zero when the RTM did not accept (or did not answer).
int qorRtmRegisterAddrFamily_vrf(int owner, int vrf, int instance, const char* name,
                                 uint32_t* outHandle, const uint32_t* clientInfo, int af,
                                 int arg8, int arg9);
