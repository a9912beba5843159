// main.cpp -- process entry of the DHCPv6 relay manager: brings up the
// platform (and, unless told otherwise, the chassis services beside it),
// spawns the task "Dhcpv6RelayMgr" and ends its own thread.
#include <pthread.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Chassis.h"
#include "dhcpv6RelayMgr.h"
#include "qor/ha.h"
#include "qor/hostmap.h"
#include "qor/task.h"

namespace {

struct MainOptions {
    bool help = false;
    bool standby = false;
    bool externalChassis = false;
    std::string hostMap;
};

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: dhcpv6relaymgr [options]\n"
                 "  --rundir DIR          run directory (IPC queues, event log, flash); default /run/qor\n"
                 "  --instance N          route-processor instance; default 0\n"
                 "  --standby             start as the standby route processor (default: primary)\n"
                 "  --host-map FILE       the Linux interfaces, VLANs, port-channels and VRFs to own\n"
                 "  --external-chassis    do not host the chassis services (IFM, RTM, MRTM, ACL,\n"
                 "                        configuration store); another process plays them\n"
                 "  --help                this text\n");
}

// The platform's own options (--rundir, --instance) are read by QOR_NbsdpInit.
bool parseOptions(int argc, char** argv, MainOptions& out) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc;
        if (arg == "--help" || arg == "-h") {
            out.help = true;
        } else if (arg == "--standby") {
            out.standby = true;
        } else if (arg == "--external-chassis") {
            out.externalChassis = true;
        } else if (arg == "--host-map" && hasValue) {
            out.hostMap = argv[++i];
        } else if (arg == "--rundir" || arg == "--instance") {
            if (hasValue) ++i;  // QOR_NbsdpInit judges the platform's options
        } else {
            std::fprintf(stderr, "dhcpv6relaymgr: unknown or incomplete option '%s'\n", argv[i]);
            return false;
        }
    }
    return true;
}

// Once main's thread has ended, ps shows the process as <defunct> and
// pkill -f no longer finds it by its command line: the pid file names it.
void writePidFile() {
    const std::string path = std::string(qorRunDir()) + "/dhcpv6relaymgr.pid";
    if (FILE* f = std::fopen(path.c_str(), "w")) {
        std::fprintf(f, "%d\n", int(getpid()));
        std::fclose(f);
    }
}

}  // namespace

int main(int argc, char** argv) {
    MainOptions options;
    if (!parseOptions(argc, argv, options)) {
        usage(stderr);
        return 2;
    }
    if (options.help) {
        usage(stdout);
        return 0;
    }
    // A platform that cannot start ends the process with status 0, on purpose.
    if (QOR_NbsdpInit(argc, argv) != 0) exit(0);
    qorPlatformSetIdentity(DHCPV6_RELAY_APP_ID, qorPlatformInstance());
    qorHaSetPrimary(!options.standby);
    // The packet layer reads the host map in this process whoever plays the
    // chassis: without it no port is the daemon's and no frame is relayed.
    if (!options.hostMap.empty()) {
        QorHostMap map;
        std::string err;
        if (qorHostMapLoad(options.hostMap, map, err) != 0) {
            std::fprintf(stderr, "dhcpv6relaymgr: host map: %s\n", err.c_str());
            return 1;
        }
        qorHostMapInstall(std::move(map));
    }
    if (!options.externalChassis) {
        ChassisOptions chassis;
        chassis.hostMapPath = options.hostMap;
        chassis.instance = qorPlatformInstance();
        // The services must be there before the task registers with them.
        if (qorChassisStart(chassis) != 0) {
            std::fprintf(stderr, "dhcpv6relaymgr: cannot start the chassis services in %s\n",
                         qorRunDir());
            return 1;
        }
    }
    writePidFile();
    // Debug lines go out as they are printed, as on the switch's console,
    // also when standard output is a file.
    setvbuf(stdout, nullptr, _IONBF, 0);
    if (dhcpv6Dbg(DHCPV6_DBG_EVENT))
        printf("DHCPv6RelayMgr : DHCPv6RelayMgr Process swpanedsuccessfully!!\r");
    taskSpawn("Dhcpv6RelayMgr", 200, 12, 16000, dhcpv6RelayMgrMain, argc,
              reinterpret_cast<long>(argv), 0, 0, 0, 0, 0, 0, 0, 0);
    qorDdbInit(argv);
    // The process lives on in its tasks.
    pthread_exit(nullptr);
}
