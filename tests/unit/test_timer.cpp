// Timer service on a hand-driven tick: when an owner's callbacks run and in what
// order, what reaches its pipe, and that no pool block is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <random>
#include <string>
#include <vector>

#include "Timer.h"
#include "qor/mem.h"
#include "qor/pipe.h"

namespace {

constexpr int kOwner = 336;  // the relay manager
constexpr const char* kPipe = "/qor/pipe/dhcpv6relayTmrPipe";
using Fires = std::vector<std::pair<long, uint64_t>>;  // callback argument, tick since the test began
Fires g_fired;
uint64_t g_t0 = 0;
void recordExpiry(long arg, void*) { g_fired.emplace_back(arg, qorTickGet() - g_t0); }

class Timer : public ::testing::Test {
protected:
    int fd = -1;
    std::vector<timerEnt*> timers;
    void SetUp() override {
        ASSERT_EQ(sysClkRateGet(), 100) << "expectations are written for 100 ticks a second";
        qorTickSetManual(true), qorTickSet(g_t0 = 1000000), g_fired.clear();
        qorMemReset(), qorPlatformSetIdentity(kOwner, 0), timerTaskStartup();
        ASSERT_EQ(timerInit(), 0);
        if (tmrTaskSemId == nullptr) tmrTaskSemId = semBCreate(SEM_Q_FIFO, SEM_FULL);
        timerTaskReady = 1;
        ASSERT_EQ(pipeDevCreate(kPipe, 65536, 4), OK);
        ASSERT_GE(fd = qorOsOpen(kPipe, QOR_O_RDWR, 0), 0);
        ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, 12288), OK);
    }
    void TearDown() override {
        deliver();  // stale expiries free their blocks on arrival
        for (timerEnt* t : timers) timerDelete(t);
        EXPECT_EQ(qorMemLiveCount(timerEntPoolId) + qorMemLiveCount(timerCbPoolId), 0u) << "timer blocks leaked";
        EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
        timerCleanup(), pipeDevDelete(kPipe), qorTickSetManual(false);
    }
    void go(uint32_t msec, long arg) {
        timers.push_back(timerCreate(kOwner, 0));
        EXPECT_EQ(timerStart(timers.back(), msec, recordExpiry, arg), TIMER_START_OK);
    }
    // The owner's side of the daemon's loop: every word waiting in the pipe,
    // handed over twice (a repeated word must run nothing).
    size_t deliver() {
        size_t n = 0;
        for (uint32_t w = 0; read(fd, &w, 4) == 4; ++n) timerIpcCallback(w), timerIpcCallback(w);
        return n;
    }
    // The timer task, one tick at a time, the owner reading its pipe after each (or not).
    void step(uint64_t ticks, bool deliverAfter = true) {
        for (uint64_t i = 0; i < ticks; ++i) qorTickAdvance(1), timerCheck(), deliverAfter && deliver();
    }
};

// A timer waits at least 6 ticks; a whole number of revolutions (1024 ticks)
// lands in the bucket just processed and fires a revolution late.
TEST_F(Timer, FiresOnTheExpectedTick) {
    for (uint32_t msec : {0, 5, 10, 10230, 10240, 10250, 20480}) go(msec, msec);
    step(3100);
    EXPECT_EQ(g_fired, (Fires{{10, 1}, {0, 6}, {5, 6}, {10230, 1023}, {10250, 1025}, {10240, 2048}, {20480, 3072}}));
}

// Random starts (some while the wheel lags), restarts, cancels and deletes,
// the task on time or late, the owner reading its pipe at once or later,
// against a list of deadlines: start plus length in ticks as above, counted
// from the wheel's last advance, equal deadlines in start order, each fired
// once, run only when read, never after a cancel.
TEST_F(Timer, RandomTrafficFiresAsAListOfDeadlinesSays) {
    struct Due {
        uint64_t tick, seq;
        long slot;
    };
    std::vector<Due> pending, inFlight;
    Fires expected;
    for (int i = 0; i < 24; ++i) timers.push_back(timerCreate(kOwner, 0));
    uint64_t now = 0, last = 0, seq = 0, lateChecks = 0;
    const uint32_t lengths[] = {0, 5, 10, 50, 10230, 10240, 10250, 20470, 20480, 30720};
    std::mt19937 rng(3);
    for (int op = 0; op < 50000; ++op) {
        const long slot = long(rng() % 24);
        auto mine = [slot](const Due& d) { return d.slot == slot; };
        auto busy = [&] { return std::ranges::any_of(pending, mine) || std::ranges::any_of(inFlight, mine); };
        const bool wasBusy = busy();
        if (const uint32_t roll = rng() % 16; roll < 6) {
            const uint32_t msec = rng() % 2 ? lengths[rng() % 10] : rng() % 25000;
            const uint64_t total = (msec / 10 ? msec / 10 : 6) + now - last;
            ASSERT_EQ(timerStart(timers[slot], msec, recordExpiry, slot), wasBusy ? TIMER_START_ACTIVE : 0);
            if (!wasBusy) pending.push_back({last + total + (total % 1024 ? 0 : 1024), seq++, slot});
        } else if (roll < 8) {  // a cancel, or a delete and a new timer
            ASSERT_EQ(roll == 6 ? timerCancel(timers[slot]) : timerDelete(timers[slot]),
                      roll == 7 ? 0 : wasBusy ? TIMER_CANCEL_OK : TIMER_CANCEL_NOT_ACTIVE);
            if (roll == 7) timers[slot] = timerCreate(kOwner, 0);
            std::erase_if(pending, mine), std::erase_if(inFlight, mine);
        } else if (roll < 10) {  // the wheel lags behind the tick
            qorTickAdvance(1 + rng() % 3);
            now = qorTickGet() - g_t0;
        } else {  // the task runs, at times late; the owner reads its pipe, at times later
            qorTickAdvance(rng() % 8 ? 1 : 7 + rng() % 100);
            now = qorTickGet() - g_t0;
            lateChecks += now - last > uint64_t(timer_interval_in_ticks);
            timerCheck();
            last = now;
            std::ranges::sort(pending, {}, [](const Due& d) { return std::pair(d.tick, d.seq); });
            for (; !pending.empty() && pending.front().tick <= now; pending.erase(pending.begin()))
                inFlight.push_back(pending.front());
            if (rng() % 4 == 0) continue;
            deliver();
            for (const Due& d : inFlight) expected.emplace_back(d.slot, now);
            inFlight.clear();
            ASSERT_EQ(g_fired, expected) << "op " << op;
        }
        ASSERT_EQ(timerActive(timers[slot]), busy() ? 1 : 0) << "op " << op;
    }
    EXPECT_EQ(timer_more_than_one_tick_elapsed, lateChecks) << "late runs of the task are counted";
}

// An expiry that finds `unread` words waiting at or over the owner's limit
// waits a second; when the pipe itself is full it is lost, counted, and the
// timer is idle again.
TEST_F(Timer, FullPipePostponesTheExpiryOneSecondOrLosesIt) {
    const struct {
        int limit, unread, due;
        size_t delivered;
        Fires fired;
    } cases[] = {{4, 3, 1, 4, {{1, 10}}}, {4, 4, 1, 4, {{1, 110}}}, {4, 5, 1, 5, {{1, 110}}},
                 {12288, 12287, 1, 12288, {{1, 10}}}, {12288, 12288, 1, 12288, {{1, 110}}},  // the daemon's limit
                 {4, 0, 6, 4, {{1, 10}, {2, 10}, {3, 10}, {4, 10}, {5, 110}, {6, 110}}},
                 {1 << 20, 1 << 20, 1, 0, {}}};  // the pipe full: delivered is what was written
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.unread) + " unread, limit " + std::to_string(c.limit));
        ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, c.limit), OK);
        g_fired.clear(), g_t0 = qorTickGet();
        const uint32_t junk = 0xFFFFFFFF, failsBefore = tmrMgrWriteFailCnt;  // words that name no block
        int written = 0;
        while (written < c.unread && write(fd, &junk, 4) == 4) ++written;
        for (long arg = 1; arg <= c.due; ++arg) go(100, arg);
        step(10, false);
        EXPECT_EQ(tmrMgrWriteFailCnt - failsBefore, c.fired.empty() ? 1u : 0u);
        EXPECT_EQ(deliver(), c.delivered ? c.delivered : size_t(written));
        step(200);
        EXPECT_EQ(g_fired, c.fired);
        EXPECT_EQ(timerActive(timers.back()), 0);
    }
    EXPECT_EQ(tmrMgrWriteFailErrno, EAGAIN);
}

}  // namespace
