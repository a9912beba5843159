// qor/ha.h -- redundancy: the route processor's role and the chassis MAC.
//
// On Linux the role is given on the daemon's command line (--standby makes
// it the standby; primary otherwise) and can be changed by the platform.
#pragma once

#include <cstdint>

int qorHaIsPrimaryRpm();            // 1 primary, 0 standby
void qorHaSetPrimary(bool primary);
