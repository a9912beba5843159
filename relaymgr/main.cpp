// main.cpp -- process entry of the DHCPv6 relay manager: brings up the
// platform, starts the timer service and waits for the daemon's work.
#include <sys/select.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "Timer.h"
#include "dhcpv6RelayEvents.h"
#include "qor/evtlog.h"
#include "qor/pipe.h"
#include "qor/task.h"

namespace {

constexpr int kRelayApplication = 336;
constexpr int kTimerTaskId = 337;
constexpr const char* kTimerPipe = "/qor/pipe/dhcpv6relayTmrPipe";

void usage() {
    std::printf("usage: dhcpv6relaymgr [--rundir DIR] [--instance N]\n");
}

}  // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i)
        if (!std::strcmp(argv[i], "--help") || !std::strcmp(argv[i], "-h")) {
            usage();
            return 0;
        }
    if (QOR_NbsdpInit(argc, argv) != 0) {
        usage();
        return 2;
    }
    qorPlatformSetIdentity(kRelayApplication, qorPlatformInstance());
    qorEvtRegisterCodes(dhcpv6RelayEvtCodes);
    const int log = qorEvtOpenlog("DHCPV6RELAYMGR", 3, kRelayApplication, qorPlatformInstance());
    if (log < 0) {
        std::fprintf(stderr, "dhcpv6relaymgr: cannot open the event log in %s\n", qorRunDir());
        return 1;
    }
    if (qor_taskSpawnP(kTimerTaskId, 0, "DHCPV6TMRMGR", 200, 0, 16000, timerTask) < 0 ||
        pipeDevCreate(kTimerPipe, 65536, 4) != 0) {
        std::fprintf(stderr, "dhcpv6relaymgr: cannot start the timer service\n");
        return 1;
    }
    const int timerPipeFd = qorOsOpen(kTimerPipe, QOR_O_RDWR, 0);
    if (timerPipeFd < 0 || timerRegPipeFd(kRelayApplication, 0, timerPipeFd, 12288) != 0) {
        std::fprintf(stderr, "dhcpv6relaymgr: cannot open the timer pipe\n");
        return 1;
    }
    std::printf("dhcpv6relaymgr: running, run directory %s, event log %s\n", qorRunDir(),
                qorEvtLogPath().c_str());
    std::fflush(stdout);
    for (;;) {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(timerPipeFd, &ready);
        if (select(timerPipeFd + 1, &ready, nullptr, nullptr, nullptr) <= 0) continue;
        uint32_t word = 0;
        if (read(timerPipeFd, &word, sizeof word) > 0 && word != 0) timerIpcCallback(word);
    }
}
