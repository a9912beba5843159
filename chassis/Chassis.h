// Chassis.h -- starts the switch OS's other control-plane services for a
// Linux host (configuration store, ACL manager, IFM, RTM, MRTM), each on its
// own thread with its own request queue under the run directory.
#pragma once

#include <string>

struct ChassisOptions {
    std::string hostMapPath;     // empty: no host map
    bool replayStartup = true;   // replay RUNDIR/startup-config once the relay has registered
};

// Binds every service's queue and starts its thread. 0, or -1 when a queue
// cannot be made (another instance runs in this run directory).
int qorChassisStart(const ChassisOptions& options);
