// qorchassisd.cpp -- the chassis services as a process of their own, for a
// relay manager started with --external-chassis.
#include <pthread.h>
#include <signal.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "Chassis.h"
#include "qor/chassis.h"
#include "qor/task.h"

namespace {

void usage(FILE* to) {
    std::fprintf(to,
                 "usage: qorchassisd [--rundir DIR] [--instance N] [--host-map FILE] "
                 "[--no-replay]\n");
}

// Options of our own; the platform's (--rundir, --instance) are read by
// QOR_NbsdpInit. 0, 1 (help shown) or -1 (bad option).
int parseOptions(int argc, char** argv, ChassisOptions& out) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--help" || arg == "-h") {
            usage(stdout);
            return 1;
        }
        if (arg == "--host-map") {
            if (i + 1 >= argc) return -1;
            out.hostMapPath = argv[++i];
        } else if (arg == "--no-replay") {
            out.replayStartup = false;
        } else if (arg == "--rundir" || arg == "--instance") {
            ++i;
        } else {
            return -1;
        }
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    ChassisOptions options;
    const int rc = parseOptions(argc, argv, options);
    if (rc != 0 || QOR_NbsdpInit(argc, argv) != 0) {
        if (rc <= 0) usage(stderr);
        return rc > 0 ? 0 : 2;
    }
    // The replay's commands go out under the configuration store's name.
    qorPlatformSetIdentity(QOR_APP_CFGSTORE, qorPlatformInstance());

    // The service threads inherit the blocked signals: only this thread
    // takes them, and stops the services cleanly.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (qorChassisStart(options) != 0) return 1;
    std::printf("qorchassisd: running, run directory %s, instance %d\n", qorRunDir(),
                qorPlatformInstance());
    std::fflush(stdout);
    int signal = 0;
    sigwait(&stopSignals, &signal);
    qorChassisStop(qorPlatformInstance());
    return 0;
}
