// Timer service on a hand-driven tick: when an owner's callbacks run and in
// what order, what arrives in the owner's pipe or service queue, what the
// debug listings show, and that no pool block is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Timer.h"
#include "fake.h"
#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/pipe.h"
#include "qor/task.h"

namespace {

constexpr int kOwner = 336;  // the relay manager
constexpr int kService = 0;
constexpr const char* kPipeName = "/qor/pipe/dhcpv6relayTmrPipe";
constexpr uint64_t kStartTick = 1000000;

struct Fired {
    long arg;
    uint64_t tick;
};
std::vector<Fired> g_fired;

void recordExpiry(long arg, void* /*block*/) { g_fired.push_back({arg, qorTickGet()}); }

// A periodic timer: the callback starts its own timer again, as the daemon's
// sweeps do.
timerEnt* g_periodic = nullptr;
void periodicExpiry(long arg, void* block) {
    recordExpiry(arg, block);
    EXPECT_EQ(timerStart(g_periodic, 100, periodicExpiry, arg), TIMER_START_OK);
}

class TimerTest : public ::testing::Test {
protected:
    int fd = -1;
    uint64_t t0 = 0;  // tick of the last wheel advance when the test starts
    std::vector<timerEnt*> timers;
    int savedApplication = 0;
    int savedInstance = 0;

    void SetUp() override {
        savedApplication = qorPlatformApplication();
        savedInstance = qorPlatformInstance();
        ASSERT_EQ(sysClkRateGet(), 100) << "expectations are written for 100 ticks a second";
        qorTickSetManual(true);
        qorTickSet(kStartTick);
        qorMemReset();
        qorfake::reset();
        qorPlatformSetIdentity(kOwner, 0);
        timerTaskStartup();
        ASSERT_EQ(timerInit(), 0);
        if (tmrTaskSemId == nullptr) tmrTaskSemId = semBCreate(SEM_Q_FIFO, SEM_FULL);
        ASSERT_NE(tmrTaskSemId, nullptr);
        timerTaskReady = 1;
        tmDebugReset();
        g_fired.clear();
        g_periodic = nullptr;
        t0 = qorTickGet();
    }

    void TearDown() override {
        deliver();  // stale expiries free their blocks on arrival
        for (timerEnt* t : timers) timerDelete(t);
        EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 0u) << "timer records leaked";
        EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 0u) << "expiry blocks leaked";
        timerCleanup();
        if (fd >= 0) pipeDevDelete(kPipeName);
        tmDebugReset();
        qorTickSetManual(false);
        qorPlatformSetIdentity(savedApplication, savedInstance);
    }

    static void tmDebugReset() { tmrDebug(0); }

    void openPipe(int limit = 12288) {
        ASSERT_EQ(pipeDevCreate(kPipeName, 65536, 4), OK);
        fd = qorOsOpen(kPipeName, QOR_O_RDWR, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(timerRegPipeFd(kOwner, kService, fd, limit), OK);
    }

    timerEnt* make(int owner = kOwner, int service = kService) {
        timerEnt* t = timerCreate(owner, service);
        EXPECT_NE(t, nullptr);
        if (t) timers.push_back(t);
        return t;
    }

    void forget(timerEnt* t) { std::erase(timers, t); }

    int waiting() const {
        int n = -1;
        EXPECT_EQ(qorIoctl(fd, FIONMSGS, reinterpret_cast<long>(&n)), OK);
        return n;
    }

    // The owner's side of the daemon's loop: every word waiting in the pipe.
    std::vector<uint32_t> readWords() {
        std::vector<uint32_t> words;
        uint32_t w = 0;
        while (fd >= 0 && read(fd, &w, sizeof w) == static_cast<ssize_t>(sizeof w))
            words.push_back(w);
        return words;
    }

    size_t deliver() {
        const auto words = readWords();
        for (uint32_t w : words)
            if (w != 0) timerIpcCallback(w);
        return words.size();
    }

    // The timer task's period, one tick at a time, with the owner draining
    // its pipe after every advance (or not).
    void step(uint64_t ticks = 1, bool deliverAfter = true) {
        for (uint64_t i = 0; i < ticks; ++i) {
            qorTickAdvance(1);
            timerCheck();
            if (deliverAfter) deliver();
        }
    }

    // Ticks since the test started at which the recorded expiries fired.
    std::vector<std::pair<long, uint64_t>> firedAt() const {
        std::vector<std::pair<long, uint64_t>> out;
        for (const Fired& f : g_fired) out.emplace_back(f.arg, f.tick - t0);
        return out;
    }
};

std::string captured(void (*listing)()) {
    ::testing::internal::CaptureStdout();
    listing();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

// ---- when a timer fires ------------------------------------------------------

struct FireCase {
    uint32_t msec;
    uint64_t firesAtTick;
    const char* what;
};

void PrintTo(const FireCase& c, std::ostream* os) { *os << c.msec << " ms: " << c.what; }

class TimerFireTick : public TimerTest, public ::testing::WithParamInterface<FireCase> {};

TEST_P(TimerFireTick, FiresOnTheExpectedTickAndOnlyOnce) {
    openPipe();
    const FireCase& c = GetParam();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, c.msec, recordExpiry, 42), TIMER_START_OK);
    step(c.firesAtTick - 1);
    EXPECT_TRUE(g_fired.empty()) << c.what << ": fired early";
    EXPECT_EQ(timerActive(t), 1);
    step(1);
    ASSERT_EQ(g_fired.size(), 1u) << c.what;
    EXPECT_EQ(firedAt()[0], (std::pair<long, uint64_t>{42, c.firesAtTick})) << c.what;
    EXPECT_EQ(timerActive(t), 0);
    step(1100);
    EXPECT_EQ(g_fired.size(), 1u) << c.what << ": a timer fires once";
}

INSTANTIATE_TEST_SUITE_P(
    TimerWheel, TimerFireTick,
    ::testing::Values(FireCase{0, 6, "0 ms waits the 6-tick minimum"},
                      FireCase{5, 6, "under one tick waits the minimum too"},
                      FireCase{10, 1, "one tick"},
                      FireCase{50, 5, "five ticks"},
                      FireCase{70, 7, "seven ticks"},
                      FireCase{10230, 1023, "just under one revolution"},
                      FireCase{10240, 2048, "exactly one revolution fires a revolution late"},
                      FireCase{10250, 1025, "just over one revolution"},
                      FireCase{20470, 2047, "just under two revolutions"},
                      FireCase{20480, 3072, "exactly two revolutions fire a revolution late"},
                      FireCase{20490, 2049, "just over two revolutions"}));

TEST_F(TimerTest, CountsFromTheLastWheelAdvance) {
    openPipe();
    timerEnt* t = make();
    qorTickAdvance(3);  // the timer task has not advanced the wheel for 3 ticks
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(9);
    EXPECT_TRUE(g_fired.empty());
    step(1);
    ASSERT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 13}}))
        << "10 ticks after the call, not 10 ticks after the last advance";
}

TEST_F(TimerTest, TheTaskPeriodDeliversAtTheFirstAdvanceAfterExpiry) {
    openPipe();
    timerEnt* fast = make();
    timerEnt* slow = make();
    ASSERT_EQ(timerStart(fast, 0, recordExpiry, 1), TIMER_START_OK);
    ASSERT_EQ(timerStart(slow, 70, recordExpiry, 2), TIMER_START_OK);
    for (int i = 0; i < 3; ++i) {
        qorTickAdvance(timer_interval_in_ticks);
        timerCheck();
        deliver();
    }
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 6}, {2, 12}}));
    EXPECT_EQ(timer_more_than_one_tick_elapsed, 0u) << "an on-time task is not late";
}

// ---- order inside a bucket -----------------------------------------------------

TEST_F(TimerTest, EqualExpiriesFireInInsertionOrder) {
    openPipe();
    const long order[] = {3, 1, 2, 5, 4};
    for (long arg : order) ASSERT_EQ(timerStart(make(), 100, recordExpiry, arg), TIMER_START_OK);
    step(10);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{
                             {3, 10}, {1, 10}, {2, 10}, {5, 10}, {4, 10}}));
}

TEST_F(TimerTest, OneBucketHoldsManyRevolutionsInOrder) {
    openPipe();
    // All five land in the same bucket (5 ticks past the current one), due
    // after 0, 1, 2 or 3 further revolutions; started out of order.
    ASSERT_EQ(timerStart(make(), 20530, recordExpiry, 3), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 50, recordExpiry, 1), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 30770, recordExpiry, 5), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 10290, recordExpiry, 2), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 10290, recordExpiry, 22), TIMER_START_OK);
    step(3100);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{
                             {1, 5}, {2, 1029}, {22, 1029}, {3, 2053}, {5, 3077}}));
}

TEST_F(TimerTest, TimersJoiningABucketAfterItWasPassedKeepTheirOrder) {
    openPipe();
    timerEnt* a = make();
    timerEnt* c = make();
    ASSERT_EQ(timerStart(a, 20530, recordExpiry, 1), TIMER_START_OK);  // bucket 5, two revolutions on
    ASSERT_EQ(timerStart(c, 30770, recordExpiry, 3), TIMER_START_OK);  // bucket 5, three on
    step(5);  // the wheel passes bucket 5 once
    ASSERT_EQ(timerCancel(c), TIMER_CANCEL_OK);
    // 1024 ticks from here is bucket 5 again, a revolution late: due with a.
    ASSERT_EQ(timerStart(make(), 10240, recordExpiry, 2), TIMER_START_OK);
    step(2100);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 2053}, {2, 2053}}));
}

TEST_F(TimerTest, TickSetBackDoesNotPushTimersAway) {
    openPipe();
    qorTickSet(kStartTick - 50);  // behind the last wheel advance
    const uint64_t base = qorTickGet();
    ASSERT_EQ(timerStart(make(), 100, recordExpiry, 1), TIMER_START_OK);
    step(10);
    ASSERT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_fired[0].tick - base, 10u);
}

class TimerCancelInBucket : public TimerTest, public ::testing::WithParamInterface<int> {};

TEST_P(TimerCancelInBucket, OthersInTheBucketStayOnTime) {
    openPipe();
    const std::vector<std::pair<long, uint64_t>> all = {{1, 7}, {2, 1031}, {3, 2055}, {4, 3079}};
    std::vector<timerEnt*> ts;
    for (const auto& [arg, tick] : all) {
        ts.push_back(make());
        ASSERT_EQ(timerStart(ts.back(), uint32_t(tick) * 10, recordExpiry, arg), TIMER_START_OK);
    }
    const int victim = GetParam();
    ASSERT_EQ(timerCancel(ts[size_t(victim)]), TIMER_CANCEL_OK);
    EXPECT_EQ(timerActive(ts[size_t(victim)]), 0);
    step(3100);
    auto expected = all;
    expected.erase(expected.begin() + victim);
    EXPECT_EQ(firedAt(), expected);
}

INSTANTIATE_TEST_SUITE_P(TimerHeadMiddleTail, TimerCancelInBucket, ::testing::Values(0, 1, 2, 3));

TEST_F(TimerTest, CancelledTimerRestartsInAnotherBucket) {
    openPipe();
    timerEnt* a = make();
    timerEnt* b = make();
    ASSERT_EQ(timerStart(a, 100, recordExpiry, 1), TIMER_START_OK);
    ASSERT_EQ(timerStart(b, 100, recordExpiry, 2), TIMER_START_OK);
    ASSERT_EQ(timerCancel(a), TIMER_CANCEL_OK);
    ASSERT_EQ(timerStart(a, 30, recordExpiry, 1), TIMER_START_OK);
    step(20);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 3}, {2, 10}}));
}

// ---- a late timer task ---------------------------------------------------------------

struct LateCase {
    uint64_t elapsed;
    uint32_t bucketAfter;
    uint32_t lateAdvances;
};

void PrintTo(const LateCase& c, std::ostream* os) { *os << c.elapsed << " ticks late"; }

class TimerLateTask : public TimerTest, public ::testing::WithParamInterface<LateCase> {};

TEST_P(TimerLateTask, OneAdvanceCatchesUpEveryTick) {
    const LateCase& c = GetParam();
    qorTickAdvance(c.elapsed);
    timerCheck();
    EXPECT_EQ(timer_current_bucket, c.bucketAfter);
    EXPECT_EQ(timer_more_than_one_tick_elapsed, c.lateAdvances);
    EXPECT_EQ(timer_ticks_last_timer, qorTickGet());
}

INSTANTIATE_TEST_SUITE_P(TimerElapsed, TimerLateTask,
                         ::testing::Values(LateCase{0, 0, 0}, LateCase{1, 1, 0},
                                           LateCase{6, 6, 0}, LateCase{7, 7, 1},
                                           LateCase{20, 20, 1}, LateCase{1030, 6, 1}));

TEST_F(TimerTest, LateTaskFiresEverythingDueInOrder) {
    openPipe();
    ASSERT_EQ(timerStart(make(), 150, recordExpiry, 2), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 250, recordExpiry, 3), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 50, recordExpiry, 1), TIMER_START_OK);
    qorTickAdvance(20);
    timerCheck();
    EXPECT_EQ(deliver(), 2u);
    EXPECT_EQ(timer_more_than_one_tick_elapsed, 1u);
    ASSERT_EQ(g_fired.size(), 2u);
    EXPECT_EQ(g_fired[0].arg, 1);
    EXPECT_EQ(g_fired[1].arg, 2);
    step(5);
    ASSERT_EQ(g_fired.size(), 3u);
    EXPECT_EQ(g_fired[2].arg, 3);
    EXPECT_EQ(g_fired[2].tick - t0, 25u);
}

// ---- start, cancel, active ---------------------------------------------------------

TEST_F(TimerTest, StartingAnActiveTimerChangesNothing) {
    openPipe();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    tmrDebug(1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(timerStart(t, 500, recordExpiry, 2), TIMER_START_ACTIVE);
    std::fflush(stdout);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("Timer is still active. mod: 336:0 State: 0x22222222 Timer: "),
              std::string::npos)
        << out;
    tmrDebug(0);
    step(60);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 10}}));
}

TEST_F(TimerTest, StartingAnExpiredTimerInFlightChangesNothing) {
    openPipe();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    EXPECT_EQ(timerStart(t, 500, recordExpiry, 2), TIMER_START_ACTIVE);
    deliver();
    step(60);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{1, 10}}));
}

enum class IdleHow { NeverStarted, Cancelled, Delivered };

class TimerCancelIdle : public TimerTest, public ::testing::WithParamInterface<IdleHow> {};

TEST_P(TimerCancelIdle, ReturnsNotActive) {
    openPipe();
    timerEnt* t = make();
    if (GetParam() != IdleHow::NeverStarted) {
        ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
        if (GetParam() == IdleHow::Cancelled)
            ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
        else
            step(10);
    }
    EXPECT_EQ(timerActive(t), 0);
    EXPECT_EQ(timerCancel(t), TIMER_CANCEL_NOT_ACTIVE);
    EXPECT_EQ(timerStart(t, 100, recordExpiry, 7), TIMER_START_OK) << "an idle timer starts";
}

INSTANTIATE_TEST_SUITE_P(TimerStates, TimerCancelIdle,
                         ::testing::Values(IdleHow::NeverStarted, IdleHow::Cancelled,
                                           IdleHow::Delivered));

TEST_F(TimerTest, ActiveFollowsTheLifecycle) {
    openPipe();
    EXPECT_EQ(timerActive(nullptr), 0);
    timerEnt* t = make();
    EXPECT_EQ(timerActive(t), 0) << "created";
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    EXPECT_EQ(timerActive(t), 1) << "on the wheel";
    step(10, false);
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(timerActive(t), 1) << "expiry on its way";
    EXPECT_TRUE(g_fired.empty()) << "the callback runs only when the owner reads its pipe";
    deliver();
    EXPECT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(timerActive(t), 0) << "delivered";
    EXPECT_EQ(timerRemainMsec(t), 0u);
}

TEST_F(TimerTest, PeriodicTimerRestartsFromItsCallback) {
    openPipe();
    g_periodic = make();
    ASSERT_EQ(timerStart(g_periodic, 100, periodicExpiry, 9), TIMER_START_OK);
    step(35);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{9, 10}, {9, 20}, {9, 30}}));
    EXPECT_EQ(timerActive(g_periodic), 1);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "the timer reuses its one block";
}

// ---- cancel and delete while the expiry is on its way ------------------------------------

TEST_F(TimerTest, CancelWhileExpiryInFlightDropsItAndAllowsRestart) {
    openPipe();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    ASSERT_EQ(waiting(), 1);
    ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
    EXPECT_EQ(timerActive(t), 0);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 2u) << "the block in flight and the timer's new one";
    ASSERT_EQ(timerStart(t, 50, recordExpiry, 2), TIMER_START_OK) << "restarts at once";
    EXPECT_EQ(deliver(), 1u);
    EXPECT_TRUE(g_fired.empty()) << "a cancelled expiry runs nothing";
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "the stale block was freed on arrival";
    EXPECT_EQ(timerActive(t), 1) << "the restarted timer is untouched by the stale expiry";
    step(5);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{2, 15}}));
}

TEST_F(TimerTest, DeleteWhileExpiryInFlightFreesEverythingOnArrival) {
    openPipe();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    ASSERT_EQ(waiting(), 1);
    forget(t);
    EXPECT_EQ(timerDelete(t), 0);
    EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 0u);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "the block in flight belongs to the owner now";
    EXPECT_EQ(deliver(), 1u);
    EXPECT_TRUE(g_fired.empty());
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 0u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

TEST_F(TimerTest, DeleteOfActiveAndIdleTimersFreesBothBlocks) {
    openPipe();
    timerEnt* active = make();
    timerEnt* idle = make();
    timerEnt* neighbour = make();
    ASSERT_EQ(timerStart(active, 100, recordExpiry, 1), TIMER_START_OK);
    ASSERT_EQ(timerStart(neighbour, 100, recordExpiry, 2), TIMER_START_OK);
    forget(active);
    forget(idle);
    timerDelete(active);
    timerDelete(idle);
    EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 1u);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u);
    step(10);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{2, 10}}));
}

TEST_F(TimerTest, WordsThatAreNotExpiriesAreIgnored) {
    openPipe();
    timerEnt* t = make();
    const uint32_t idleWord = qorMemBlockHandle(timerCbPoolId, t->cb);
    ASSERT_NE(idleWord, 0u);
    for (uint32_t w : {0u, 0xFFFFFFFFu, 0x12345u, idleWord}) timerIpcCallback(w);
    EXPECT_TRUE(g_fired.empty());
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "an idle timer's block is not freed";
    EXPECT_EQ(timerActive(t), 0);

    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    const auto words = readWords();
    ASSERT_EQ(words.size(), 1u);
    timerIpcCallback(words[0]);
    timerIpcCallback(words[0]);  // read twice: runs once
    EXPECT_EQ(g_fired.size(), 1u);

    // A stale word of a freed block no longer resolves.
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 2), TIMER_START_OK);
    step(10, false);
    const auto stale = readWords();
    ASSERT_EQ(stale.size(), 1u);
    forget(t);
    timerDelete(t);
    timerIpcCallback(stale[0]);
    timerIpcCallback(stale[0]);
    EXPECT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

// ---- the pipe backlog ----------------------------------------------------------------------

struct BacklogCase {
    int limit;
    int unread;       // words already waiting in the pipe when the timer expires
    bool postponed;
};

void PrintTo(const BacklogCase& c, std::ostream* os) {
    *os << c.unread << " unread, limit " << c.limit;
}

class TimerBacklog : public TimerTest, public ::testing::WithParamInterface<BacklogCase> {};

TEST_P(TimerBacklog, FullPipePostponesTheExpiryOneSecond) {
    const BacklogCase& c = GetParam();
    openPipe(c.limit);
    const uint32_t failsBefore = tmrMgrWriteFailCnt;
    const uint32_t junk = 0xFFFFFFFF;  // words that name no block
    for (int i = 0; i < c.unread; ++i) ASSERT_EQ(write(fd, &junk, 4), 4);
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    EXPECT_EQ(waiting(), c.postponed ? c.unread : c.unread + 1);
    EXPECT_EQ(timerActive(t), 1);
    deliver();
    step(200);
    ASSERT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(g_fired[0].tick - t0, c.postponed ? 110u : 10u);
    EXPECT_EQ(tmrMgrWriteFailCnt, failsBefore) << "a postponed expiry is not a lost one";
}

INSTANTIATE_TEST_SUITE_P(TimerLimits, TimerBacklog,
                         ::testing::Values(BacklogCase{4, 3, false}, BacklogCase{4, 4, true},
                                           BacklogCase{4, 5, true},
                                           BacklogCase{12288, 12287, false},
                                           BacklogCase{12288, 12288, true}));

TEST_F(TimerTest, BacklogDeliversEveryExpiryOnceThereIsRoom) {
    openPipe(4);
    for (long arg = 1; arg <= 6; ++arg)
        ASSERT_EQ(timerStart(make(), 100, recordExpiry, arg), TIMER_START_OK);
    step(10, false);
    EXPECT_EQ(waiting(), 4);
    EXPECT_EQ(deliver(), 4u);
    step(100);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{
                             {1, 10}, {2, 10}, {3, 10}, {4, 10}, {5, 110}, {6, 110}}));
}

TEST_F(TimerTest, LostExpiryIsCountedAndLeavesTheTimerIdle) {
    openPipe(1000000);  // a limit beyond what the pipe holds
    const uint32_t junk = 0xFFFFFFFF;
    while (write(fd, &junk, 4) == 4) {
    }
    const uint32_t failsBefore = tmrMgrWriteFailCnt;
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    EXPECT_EQ(tmrMgrWriteFailCnt, failsBefore + 1);
    EXPECT_EQ(tmrMgrWriteFailErrno, EAGAIN);
    EXPECT_EQ(timerActive(t), 0);
    deliver();
    EXPECT_TRUE(g_fired.empty());
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 2), TIMER_START_OK);
    step(10);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{2, 20}}));
}

// ---- owners without a pipe: an IPC message to the service queue ----------------------------

TEST_F(TimerTest, OwnerWithoutPipeGetsTheExpiryAsAnIpcMessage) {
    timerEnt* t = make(200, 1);
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 5), TIMER_START_OK);
    step(10);
    const auto sends = qorfake::callsTo("qorIpcSend");
    ASSERT_EQ(sends.size(), 1u);
    const qor::ByteView msg(sends[0].bytes);
    ASSERT_EQ(msg.size(), 64u);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_LENGTH), 64u);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_TYPE), 801u);
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_DST_QUEUE), qor_getQueueId(200, 1, QOR_QUEUE_SERVICE));
    EXPECT_EQ(qor::u32At(msg, QOR_IPC_OFF_DST_ADDR), qor_sysGetIpAddr());
    EXPECT_TRUE(g_fired.empty());
    // The owner hands the header's handle word to the timer service.
    timerIpcCallback(qor::u32At(msg, TIMER_IPC_OFF_HANDLE));
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{5, 10}}));
}

TEST_F(TimerTest, FailedIpcSendIsReportedAndLeavesTheTimerIdle) {
    timerEnt* t = make(200, 1);
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 5), TIMER_START_OK);
    qorfake::setNextResult("qorIpcSend", -1);
    tmrDebug(1);
    ::testing::internal::CaptureStdout();
    step(10);
    std::fflush(stdout);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("sendTimerIPC: Error "), std::string::npos) << out;
    EXPECT_NE(out.find(" sending ipc to module 200:1\n"), std::string::npos) << out;
    EXPECT_EQ(timerActive(t), 0);
}

// ---- registration ----------------------------------------------------------------------------

class TimerOwnerOutsideTable : public TimerTest, public ::testing::WithParamInterface<int> {};

TEST_P(TimerOwnerOutsideTable, FailsTheRegistrationAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(timerRegPipeFd(GetParam(), 0, 5, 4), "\\(mod - 1\\) < END_OF_APP_SERVICES");
}

INSTANTIATE_TEST_SUITE_P(TimerOwners, TimerOwnerOutsideTable, ::testing::Values(365, 0, -1));

TEST_F(TimerTest, LastOwnerRegistersAndIsListed) {
    openPipe();
    ASSERT_EQ(timerRegPipeFd(364, 1, fd, 4), OK);
    const std::string out = captured(showTmrMgrSvc);
    EXPECT_EQ(out, "Index 670, pipefd " + std::to_string(fd) + ", pipeLen 12288\r\n" +
                       "Index 727, pipefd " + std::to_string(fd) + ", pipeLen 4\r\n");
}

TEST_F(TimerTest, RegistrationOnANonPipeReportsTheIoctl) {
    tmrDebug(1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(timerRegPipeFd(kOwner, 1, 9999, 4), ERROR);
    std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "timerRegPipeFd: ioctl FIOSMSGS failed: errno 9, fd 9999\r\n");
}

// ---- allocation failures ------------------------------------------------------------------------

struct AllocCase {
    bool blockPool;
    const char* text;
};

void PrintTo(const AllocCase& c, std::ostream* os) { *os << c.text; }

class TimerCreateFails : public TimerTest, public ::testing::WithParamInterface<AllocCase> {};

TEST_P(TimerCreateFails, ReturnsNullAndKeepsNothing) {
    const AllocCase& c = GetParam();
    qorMemFailNextAlloc(c.blockPool ? timerCbPoolId : timerEntPoolId);
    tmrDebug(1);
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(timerCreate(kOwner, kService), nullptr);
    std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), c.text);
    EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 0u);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 0u);
}

INSTANTIATE_TEST_SUITE_P(TimerPools, TimerCreateFails,
                         ::testing::Values(AllocCase{false, "Error in allocating memory for timer"},
                                           AllocCase{true,
                                                     "Error in allocating memory for timer IPC"}));

TEST_F(TimerTest, TimerWithoutBlockCannotStartUntilOneIsFound) {
    openPipe();
    timerEnt* t = make();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    qorMemFailNextAlloc(timerCbPoolId);  // no fresh block for the cancelled timer
    ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
    qorMemFailNextAlloc(timerCbPoolId);
    EXPECT_EQ(timerStart(t, 100, recordExpiry, 2), TIMER_START_NO_BLOCK);
    EXPECT_EQ(timerActive(t), 0);
    EXPECT_EQ(timerStart(t, 100, recordExpiry, 3), TIMER_START_OK);
    step(10);
    EXPECT_EQ(firedAt(), (std::vector<std::pair<long, uint64_t>>{{3, 20}}));
}

// ---- start-up and listings ------------------------------------------------------------------------

TEST_F(TimerTest, UnknownServiceGetsNoPools) {
    timerCleanup();
    qorPlatformSetIdentity(999, 0);
    timerTaskStartup();
    ::testing::internal::CaptureStdout();
    EXPECT_EQ(timerInit(), -1);
    std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "Unrecognized service in TIMERMGR.\r");
    EXPECT_EQ(timerCreate(999, 0), nullptr);
    qorMemReset();
    qorPlatformSetIdentity(kOwner, 0);
    timerTaskStartup();
    ASSERT_EQ(timerInit(), 0);
}

TEST_F(TimerTest, TimerShowListsTheWheel) {
    ASSERT_EQ(timerStart(make(), 100, recordExpiry, 7), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 200, recordExpiry, 9), TIMER_START_OK);
    ASSERT_EQ(timerStart(make(), 10340, recordExpiry, 8), TIMER_START_OK);
    const std::string out = captured(timerShow);
    for (const char* line :
         {"Current Array Index        : 0\n", "Elements in Array Index 10:\n",
          "There were 2 elements in array index 10\n", "Elements in Array Index 20:\n",
          "There were 1 elements in array index 20\n",
          "There were a total of 3 elements in the timing wheel\n",
          "The max list length was 2 at array index 10\n", "more than one tick elapsed : 0\n"})
        EXPECT_NE(out.find(line), std::string::npos) << line << "\n" << out;
    EXPECT_NE(out.find("owner 336 0 10 ticks 0, fp "), std::string::npos) << out;
    EXPECT_NE(out.find(", data 7\nowner 336 0 10 ticks 1, fp "), std::string::npos)
        << "the second timer waits one more revolution\n" << out;
    EXPECT_NE(out.find(", data 8\n"), std::string::npos) << out;
}

TEST_F(TimerTest, PrintTimerValuesShowsTheClock) {
    qorTickAdvance(4);
    const std::string out = captured(printTimerValues);
    EXPECT_EQ(out, "ticks_per_sec: 100 \r\nmsec_per_tick: 10 \r\nfloat_msec_per_tick: 10.000000 \r\n"
                   "time_in_ticks: 1000004 \r\ntimer_interval_in_ticks 6 \r\n"
                   "timer_ticks_last_timer: 1000000 \r\n");
    EXPECT_EQ(current_msec(), 10000040u);
}

TEST_F(TimerTest, CancelTracesSayWhatWasCancelled) {
    openPipe();
    timerEnt* a = make();
    timerEnt* b = make();
    ASSERT_EQ(timerStart(a, 100, recordExpiry, 1), TIMER_START_OK);
    ASSERT_EQ(timerStart(b, 10340, recordExpiry, 2), TIMER_START_OK);  // same bucket, a revolution on
    tmrDebug(4);
    ::testing::internal::CaptureStdout();
    timerCancel(a);
    timerCancel(a);
    std::fflush(stdout);
    const std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("add ticks to next, new value: 1\n"), std::string::npos) << out;
    EXPECT_NE(out.find("timerCancel: Timer cancelled while it was active: "), std::string::npos);
    EXPECT_NE(out.find("timerCancel: timer not active : "), std::string::npos);
    tmrDebug(0);
    ASSERT_EQ(timerStart(a, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    tmrDebug(4);
    ::testing::internal::CaptureStdout();
    timerCancel(a);
    std::fflush(stdout);
    EXPECT_NE(::testing::internal::GetCapturedStdout().find(
                  "timerCancel: Timer cancelled after sending IPC : "),
              std::string::npos);
}

}  // namespace
