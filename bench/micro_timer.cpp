// micro_timer.cpp -- timing wheel throughput on a hand-driven tick: timers
// started per second, and timers expired per second through the owner's pipe
// (wheel advance, pipe write, read and timerIpcCallback).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <vector>

#include "Timer.h"
#include "qor/pipe.h"
#include "qor/task.h"

namespace {

constexpr const char* kBenchPipe = "/qor/pipe/bench-timer";
int g_pipeFd = -1;
uint64_t g_expired = 0;

void countExpiry(long /*arg*/, void* /*block*/) { ++g_expired; }

// The timer service as the relay manager sets it up, once per process.
bool timerBenchInit() {
    static const bool ready = [] {
        qorTickSetManual(true);
        qorPlatformSetIdentity(336, 0);
        timerTaskStartup();
        if (timerInit() != 0) return false;
        if (tmrTaskSemId == nullptr) tmrTaskSemId = semBCreate(SEM_Q_FIFO, SEM_FULL);
        timerTaskReady = 1;
        if (pipeDevCreate(kBenchPipe, 65536, 4) != OK) return false;
        g_pipeFd = qorOsOpen(kBenchPipe, QOR_O_RDWR, 0);
        return g_pipeFd >= 0 && timerRegPipeFd(336, 0, g_pipeFd, 12288) == OK;
    }();
    // Switching to the hand-driven tick restarts it from the real clock,
    // which may be behind the ticks an earlier run advanced by hand.
    qorTickSetManual(true);
    if (qorTickGet() < timer_ticks_last_timer) qorTickSet(timer_ticks_last_timer);
    return ready;
}

std::vector<timerEnt*> timerBenchCreate(size_t n) {
    std::vector<timerEnt*> timers;
    timers.reserve(n);
    for (size_t i = 0; i < n; ++i) timers.push_back(timerCreate(336, 0));
    return timers;
}

// Timeouts spread over 1 to 600 ticks (10 ms to 6 s), as the daemon's
// sweeps and agent timers are.
uint32_t timerBenchMsec(size_t i) { return uint32_t(10 * (1 + i % 600)); }

void timerBenchDrain() {
    uint32_t words[256];
    ssize_t got;
    while ((got = read(g_pipeFd, words, sizeof words)) > 0)
        for (ssize_t k = 0; k < got / 4; ++k) timerIpcCallback(words[k]);
}

void BM_TimerStart(benchmark::State& state) {
    if (!timerBenchInit()) {
        state.SkipWithError("timer service set-up failed");
        return;
    }
    const auto n = size_t(state.range(0));
    auto timers = timerBenchCreate(n);
    for (auto _ : state) {
        for (size_t i = 0; i < n; ++i)
            benchmark::DoNotOptimize(timerStart(timers[i], timerBenchMsec(i), countExpiry, long(i)));
        state.PauseTiming();
        for (timerEnt* t : timers) timerCancel(t);
        state.ResumeTiming();
    }
    for (timerEnt* t : timers) timerDelete(t);
    state.counters["timers_started_per_s"] =
        benchmark::Counter(double(n) * double(state.iterations()), benchmark::Counter::kIsRate);
    qorTickSetManual(false);
}
BENCHMARK(BM_TimerStart)->Arg(1000)->Arg(10000)->Arg(100000);

void BM_TimerExpire(benchmark::State& state) {
    if (!timerBenchInit()) {
        state.SkipWithError("timer service set-up failed");
        return;
    }
    const auto n = size_t(state.range(0));
    auto timers = timerBenchCreate(n);
    for (auto _ : state) {
        state.PauseTiming();
        for (size_t i = 0; i < n; ++i) timerStart(timers[i], timerBenchMsec(i), countExpiry, long(i));
        g_expired = 0;
        state.ResumeTiming();
        // The timer task's period, with the owner draining its pipe after
        // every advance.
        while (g_expired < n) {
            qorTickAdvance(uint64_t(timer_interval_in_ticks));
            timerCheck();
            timerBenchDrain();
        }
    }
    for (timerEnt* t : timers) timerDelete(t);
    state.counters["timers_expired_per_s"] =
        benchmark::Counter(double(n) * double(state.iterations()), benchmark::Counter::kIsRate);
    qorTickSetManual(false);
}
BENCHMARK(BM_TimerExpire)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

}  // namespace
