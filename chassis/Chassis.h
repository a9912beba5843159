// Chassis.h -- starts the switch OS's other control-plane services for a
// Linux host (configuration store, ACL manager, IFM, RTM, MRTM), each on its
// own thread with its own request queue under the run directory.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "CliCommands.h"

// Where the configuration store sends each startup-config line at replay:
// cliExecute's form (0 accepted; otherwise err says why).
using ChassisReplaySink =
    std::function<int(CliSession& session, const std::string& line, std::string& out, std::string& err)>;

struct ChassisOptions {
    std::string hostMapPath;     // empty: no host map
    bool replayStartup = true;   // replay RUNDIR/startup-config once the relay has registered
    int instance = -1;           // -1: this process's instance (--instance)
    ChassisReplaySink replaySink;  // empty: cliExecute
};

// Binds every service's queue and starts its thread. 0, or -1 when a queue
// cannot be made (another instance runs in this run directory), the host map
// cannot be read (the reason goes to stderr) or the instance already runs in
// this process.
int qorChassisStart(const ChassisOptions& options);
// Stops the services of an instance started by qorChassisStart (their queues
// stay bound to the process). Waits for a replay in progress to end.
void qorChassisStop(int instance);

// For show commands and tests: the port-configuration notices the IFM of an
// instance accepted (132-byte records, oldest first), and the number of
// configuration-sync records its configuration store received.
std::vector<std::vector<uint8_t>> qorChassisIfmPortNotices(int instance);
uint64_t qorChassisCfgSyncCount(int instance);
