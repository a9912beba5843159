// qor/ha.h -- redundancy: the route processor's role and the chassis MAC.
//
// On Linux the role is given on the daemon's command line (--standby makes
// it the standby; primary otherwise) and can be changed by the platform.
#pragma once

#include <cstdint>

int qorHaIsPrimaryRpm();            // 1 primary, 0 standby
void qorHaSetPrimary(bool primary);
// The chassis MAC: the host map's chassis-mac, else the MAC of the first
// mapped port. 0 and the six bytes, or -1 when there is none.
int qorHaGetChassisMacAddr(uint8_t mac[6]);
