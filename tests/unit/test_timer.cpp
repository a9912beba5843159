// Timer service on a hand-driven tick: when an owner's callbacks run and in
// what order, what reaches the owner's pipe or service queue, what the debug
// listings show, and that no pool block is left behind.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
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
constexpr const char* kPipeName = "/qor/pipe/dhcpv6relayTmrPipe";
constexpr uint64_t kStartTick = 1000000;
constexpr size_t npos = std::string::npos;

using Fires = std::vector<std::pair<long, uint64_t>>;  // callback argument, tick since start
Fires g_fired;
uint64_t g_t0 = 0;

void recordExpiry(long arg, void*) { g_fired.emplace_back(arg, qorTickGet() - g_t0); }

// A periodic timer restarts itself from its callback, as the daemon's sweeps do.
timerEnt* g_periodic = nullptr;
void periodicExpiry(long arg, void* block) {
    recordExpiry(arg, block);
    EXPECT_EQ(timerStart(g_periodic, 100, periodicExpiry, arg), TIMER_START_OK);
}

template <typename F>
std::string captured(F f) {
    ::testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return ::testing::internal::GetCapturedStdout();
}

class TimerTest : public ::testing::Test {
protected:
    int fd = -1;
    std::vector<timerEnt*> timers;
    int savedApplication = 0, savedInstance = 0;

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
        timerTaskReady = 1;
        tmrDebug(0);
        g_periodic = nullptr;
        restartClock();
        openPipe();
    }

    void TearDown() override {
        deliver();  // stale expiries free their blocks on arrival
        for (timerEnt* t : timers) timerDelete(t);
        EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 0u) << "timer records leaked";
        EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 0u) << "expiry blocks leaked";
        timerCleanup();
        if (fd >= 0) pipeDevDelete(kPipeName);
        tmrDebug(0);
        qorTickSetManual(false);
        qorPlatformSetIdentity(savedApplication, savedInstance);
    }

    // Ticks in g_fired count from here.
    static void restartClock() {
        g_fired.clear();
        g_t0 = qorTickGet();
    }

    // The relay manager's timer pipe; other owners have none.
    void openPipe() {
        ASSERT_EQ(pipeDevCreate(kPipeName, 65536, 4), OK);
        fd = qorOsOpen(kPipeName, QOR_O_RDWR, 0);
        ASSERT_GE(fd, 0);
        ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, 12288), OK);
    }

    timerEnt* make(int owner = kOwner, int service = 0) {
        timerEnt* t = timerCreate(owner, service);
        EXPECT_NE(t, nullptr);
        if (t) timers.push_back(t);
        return t;
    }

    // A new timer, started.
    timerEnt* go(uint32_t msec, long arg) {
        timerEnt* t = make();
        EXPECT_EQ(timerStart(t, msec, recordExpiry, arg), TIMER_START_OK);
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
        while (fd >= 0 && read(fd, &w, sizeof w) == static_cast<ssize_t>(sizeof w)) words.push_back(w);
        return words;
    }

    size_t deliver() {
        const auto words = readWords();
        for (uint32_t w : words)
            if (w != 0) timerIpcCallback(w);
        return words.size();
    }

    // The timer task, one tick at a time, the owner draining its pipe after each (or not).
    void step(uint64_t ticks = 1, bool deliverAfter = true) {
        for (uint64_t i = 0; i < ticks; ++i) {
            qorTickAdvance(1);
            timerCheck();
            if (deliverAfter) deliver();
        }
    }
};

// A timer waits at least 6 ticks; a whole number of revolutions (1024 ticks)
// lands in the current bucket and fires a revolution late.
TEST_F(TimerTest, FiresOnTheExpectedTickAndOnlyOnce) {
    const std::pair<uint32_t, uint64_t> cases[] = {{0, 6},         {5, 6},         {10, 1},        {50, 5},
                                                   {70, 7},        {10230, 1023},  {10240, 2048},  {10250, 1025},
                                                   {20470, 2047},  {20480, 3072},  {20490, 2049}};
    for (const auto& [msec, firesAt] : cases) {
        SCOPED_TRACE(std::to_string(msec) + " ms");
        restartClock();
        timerEnt* t = go(msec, 42);
        step(firesAt - 1);
        EXPECT_TRUE(g_fired.empty()) << "fired early";
        EXPECT_EQ(timerActive(t), 1);
        step(1);
        EXPECT_EQ(g_fired, (Fires{{42, firesAt}}));
        EXPECT_EQ(timerActive(t), 0);
        step(1100);
        EXPECT_EQ(g_fired.size(), 1u) << "a timer fires once";
    }
}

TEST_F(TimerTest, CountsFromTheCallNotFromTheLastWheelAdvance) {
    qorTickAdvance(3);  // the timer task has not advanced the wheel for 3 ticks
    go(100, 1);
    step(9);
    EXPECT_TRUE(g_fired.empty());
    step(1);
    EXPECT_EQ(g_fired, (Fires{{1, 13}}));
    // A tick set back behind the last advance does not push timers away.
    qorTickSet(kStartTick - 50);
    g_t0 = qorTickGet();
    go(100, 2);
    step(10);
    EXPECT_EQ(g_fired.back(), (std::pair<long, uint64_t>{2, 10}));
}

TEST_F(TimerTest, TheTaskPeriodDeliversAtTheFirstAdvanceAfterExpiry) {
    go(0, 1);
    go(70, 2);
    for (int i = 0; i < 3; ++i) {
        qorTickAdvance(timer_interval_in_ticks);
        timerCheck();
        deliver();
    }
    EXPECT_EQ(g_fired, (Fires{{1, 6}, {2, 12}}));
    EXPECT_EQ(timer_more_than_one_tick_elapsed, 0u) << "an on-time task is not late";
}

TEST_F(TimerTest, OneBucketHoldsManyRevolutionsInInsertionOrder) {
    for (long arg : {3, 1, 2}) go(100, arg);
    // Same bucket as the 50 ms timer, 1, 2 or 3 revolutions on; started out of order.
    go(20530, 13);
    go(50, 11);
    go(30770, 15);
    go(10290, 12);
    go(10290, 22);
    step(3100);
    EXPECT_EQ(g_fired, (Fires{{11, 5}, {3, 10}, {1, 10}, {2, 10}, {12, 1029}, {22, 1029}, {13, 2053}, {15, 3077}}));
}

TEST_F(TimerTest, TimersJoiningABucketAfterItWasPassedKeepTheirOrder) {
    go(20530, 1);                // bucket 5, two revolutions on
    timerEnt* c = go(30770, 3);  // bucket 5, three on
    step(5);                     // the wheel passes bucket 5 once
    ASSERT_EQ(timerCancel(c), TIMER_CANCEL_OK);
    go(10240, 2);  // bucket 5 again, a revolution late: due with the first
    step(2100);
    EXPECT_EQ(g_fired, (Fires{{1, 2053}, {2, 2053}}));
}

// Head, middle, tail and a lone timer of one bucket cancelled in turn.
TEST_F(TimerTest, CancelInABucketKeepsTheOthersOnTime) {
    const Fires all = {{1, 7}, {2, 1031}, {3, 2055}, {4, 3079}};
    for (size_t victim = 0; victim < all.size(); ++victim) {
        SCOPED_TRACE("cancelled " + std::to_string(victim));
        restartClock();
        std::vector<timerEnt*> ts;
        for (const auto& [arg, tick] : all) ts.push_back(go(uint32_t(tick) * 10, arg));
        ASSERT_EQ(timerCancel(ts[victim]), TIMER_CANCEL_OK);
        EXPECT_EQ(timerActive(ts[victim]), 0);
        step(3100);
        auto expected = all;
        expected.erase(expected.begin() + long(victim));
        EXPECT_EQ(g_fired, expected);
    }
}

TEST_F(TimerTest, CancelledTimerRestartsInAnotherBucket) {
    timerEnt* a = go(100, 1);
    go(100, 2);
    ASSERT_EQ(timerCancel(a), TIMER_CANCEL_OK);
    ASSERT_EQ(timerStart(a, 30, recordExpiry, 1), TIMER_START_OK);
    step(20);
    EXPECT_EQ(g_fired, (Fires{{1, 3}, {2, 10}}));
}

TEST_F(TimerTest, LateTaskFiresEverythingDueInOrder) {
    go(150, 2);
    go(250, 3);
    go(50, 1);
    qorTickAdvance(20);
    timerCheck();
    EXPECT_EQ(deliver(), 2u);
    EXPECT_EQ(timer_more_than_one_tick_elapsed, 1u);
    EXPECT_EQ(timer_ticks_last_timer, qorTickGet()) << "one advance catches up every tick";
    step(5);
    EXPECT_EQ(g_fired, (Fires{{1, 20}, {2, 20}, {3, 25}}));
}

// On the wheel, and expired with its expiry in the pipe.
TEST_F(TimerTest, StartingAnActiveOrInFlightTimerChangesNothing) {
    for (bool inFlight : {false, true}) {
        SCOPED_TRACE(inFlight ? "in flight" : "on the wheel");
        restartClock();
        timerEnt* t = go(100, 1);
        if (inFlight) step(10, false);
        tmrDebug(1);
        const std::string out = captured([&] { EXPECT_EQ(timerStart(t, 500, recordExpiry, 2), TIMER_START_ACTIVE); });
        if (!inFlight) {
            EXPECT_NE(out.find("Timer is still active. mod: 336:0 State: 0x22222222 Timer: "), npos) << out;
        }
        tmrDebug(0);
        deliver();
        step(60);
        EXPECT_EQ(g_fired, (Fires{{1, 10}}));
    }
}

TEST_F(TimerTest, IdleTimerCancelReturnsNotActiveAndStartsAgain) {
    EXPECT_EQ(timerActive(nullptr), 0);
    enum { NeverStarted, Cancelled, Delivered };
    for (int how : {NeverStarted, Cancelled, Delivered}) {
        SCOPED_TRACE(how);
        timerEnt* t = make();
        if (how != NeverStarted) {
            ASSERT_EQ(timerStart(t, 100, recordExpiry, 1), TIMER_START_OK);
            if (how == Cancelled) {
                ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
            } else {
                step(10);
            }
        }
        EXPECT_EQ(timerActive(t), 0);
        EXPECT_EQ(timerRemainMsec(t), 0u);
        EXPECT_EQ(timerCancel(t), TIMER_CANCEL_NOT_ACTIVE);
        EXPECT_EQ(timerStart(t, 100, recordExpiry, 7), TIMER_START_OK) << "an idle timer starts";
    }
}

TEST_F(TimerTest, PeriodicTimerRestartsFromItsCallback) {
    g_periodic = make();
    ASSERT_EQ(timerStart(g_periodic, 100, periodicExpiry, 9), TIMER_START_OK);
    step(35);
    EXPECT_EQ(g_fired, (Fires{{9, 10}, {9, 20}, {9, 30}}));
    EXPECT_EQ(timerActive(g_periodic), 1);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "the timer reuses its one block";
}

TEST_F(TimerTest, ExpiryRunsOnlyWhenReadAndCancelInFlightDropsIt) {
    timerEnt* t = go(100, 1);
    step(10, false);
    EXPECT_EQ(waiting(), 1);
    EXPECT_EQ(timerActive(t), 1) << "expiry on its way";
    EXPECT_TRUE(g_fired.empty()) << "nothing runs before the owner reads its pipe";
    ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
    EXPECT_EQ(timerActive(t), 0);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 2u) << "the block in flight and the timer's new one";
    ASSERT_EQ(timerStart(t, 50, recordExpiry, 2), TIMER_START_OK) << "restarts at once";
    EXPECT_EQ(deliver(), 1u);
    EXPECT_TRUE(g_fired.empty()) << "a cancelled expiry runs nothing";
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "the stale block was freed on arrival";
    EXPECT_EQ(timerActive(t), 1) << "the restarted timer is untouched by the stale expiry";
    step(5);
    EXPECT_EQ(g_fired, (Fires{{2, 15}}));
}

TEST_F(TimerTest, DeleteFreesActiveIdleAndInFlightTimers) {
    timerEnt* inFlight = go(100, 1);
    step(10, false);
    ASSERT_EQ(waiting(), 1);
    timerEnt* active = go(100, 2);
    timerEnt* idle = make();
    go(100, 3);
    for (timerEnt* t : {inFlight, active, idle}) {
        forget(t);
        EXPECT_EQ(timerDelete(t), 0);
    }
    EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 1u);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 2u) << "the block in flight belongs to the owner now";
    EXPECT_EQ(deliver(), 1u);
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u);
    step(10);
    EXPECT_EQ(g_fired, (Fires{{3, 20}}));
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

TEST_F(TimerTest, WordsThatAreNotExpiriesAreIgnored) {
    timerEnt* t = make();
    const uint32_t idleWord = qorMemBlockHandle(timerCbPoolId, t->cb);
    ASSERT_NE(idleWord, 0u);
    for (uint32_t w : {0u, 0xFFFFFFFFu, 0x12345u, idleWord}) timerIpcCallback(w);
    EXPECT_TRUE(g_fired.empty());
    EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 1u) << "an idle timer's block is not freed";
    for (long arg : {1, 2}) {
        ASSERT_EQ(timerStart(t, 100, recordExpiry, arg), TIMER_START_OK);
        step(10, false);
        const auto words = readWords();
        ASSERT_EQ(words.size(), 1u);
        if (arg == 2) {  // a stale word of a freed block no longer resolves
            forget(t);
            timerDelete(t);
        }
        timerIpcCallback(words[0]);
        timerIpcCallback(words[0]);  // read twice: runs once
    }
    EXPECT_EQ(g_fired.size(), 1u);
    EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
}

// An expiry that finds `unread` words waiting at or over the owner's limit
// waits a second; it is postponed, not lost.
TEST_F(TimerTest, FullPipePostponesTheExpiryOneSecond) {
    const struct {
        int limit, unread;
        bool postponed;
    } cases[] = {{4, 3, false}, {4, 4, true}, {4, 5, true}, {12288, 12287, false}, {12288, 12288, true}};
    const uint32_t junk = 0xFFFFFFFF;  // words that name no block
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.unread) + " unread, limit " + std::to_string(c.limit));
        ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, c.limit), OK);
        restartClock();
        const uint32_t failsBefore = tmrMgrWriteFailCnt;
        for (int i = 0; i < c.unread; ++i) ASSERT_EQ(write(fd, &junk, 4), 4);
        timerEnt* t = go(100, 1);
        step(10, false);
        EXPECT_EQ(waiting(), c.postponed ? c.unread : c.unread + 1);
        EXPECT_EQ(timerActive(t), 1);
        deliver();
        step(200);
        EXPECT_EQ(g_fired, (Fires{{1, c.postponed ? 110u : 10u}}));
        EXPECT_EQ(tmrMgrWriteFailCnt, failsBefore);
    }
    // Several due at once: as many as there is room for now, the rest a second later.
    ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, 4), OK);
    restartClock();
    for (long arg = 1; arg <= 6; ++arg) go(100, arg);
    step(10, false);
    EXPECT_EQ(deliver(), 4u);
    step(100);
    EXPECT_EQ(g_fired, (Fires{{1, 10}, {2, 10}, {3, 10}, {4, 10}, {5, 110}, {6, 110}}));
}

TEST_F(TimerTest, LostExpiryIsCountedAndLeavesTheTimerIdle) {
    ASSERT_EQ(timerRegPipeFd(kOwner, 0, fd, 1000000), OK);  // a limit beyond what the pipe holds
    const uint32_t junk = 0xFFFFFFFF;
    while (write(fd, &junk, 4) == 4) {
    }
    const uint32_t failsBefore = tmrMgrWriteFailCnt;
    timerEnt* t = go(100, 1);
    step(10, false);
    EXPECT_EQ(tmrMgrWriteFailCnt, failsBefore + 1);
    EXPECT_EQ(tmrMgrWriteFailErrno, EAGAIN);
    EXPECT_EQ(timerActive(t), 0);
    deliver();
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 2), TIMER_START_OK);
    step(10);
    EXPECT_EQ(g_fired, (Fires{{2, 20}}));
}

TEST_F(TimerTest, OwnerWithoutPipeGetsTheExpiryAsAnIpcMessage) {
    ASSERT_EQ(timerStart(make(200, 1), 100, recordExpiry, 5), TIMER_START_OK);
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
    timerIpcCallback(qor::u32At(msg, TIMER_IPC_OFF_HANDLE));  // the owner hands the word back
    EXPECT_EQ(g_fired, (Fires{{5, 10}}));
}

TEST_F(TimerTest, FailedIpcSendIsReportedAndLeavesTheTimerIdle) {
    timerEnt* t = make(200, 1);
    ASSERT_EQ(timerStart(t, 100, recordExpiry, 5), TIMER_START_OK);
    qorfake::setNextResult("qorIpcSend", -1);
    tmrDebug(1);
    const std::string out = captured([&] { step(10); });
    EXPECT_NE(out.find("sendTimerIPC: Error "), npos) << out;
    EXPECT_NE(out.find(" sending ipc to module 200:1\n"), npos) << out;
    EXPECT_EQ(timerActive(t), 0);
}

TEST_F(TimerTest, OwnerOutsideTheTableFailsTheRegistrationAssertion) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (int owner : {365, 0, -1})
        EXPECT_DEATH(timerRegPipeFd(owner, 0, 5, 4), "\\(mod - 1\\) < END_OF_APP_SERVICES") << owner;
}

TEST_F(TimerTest, RegistrationsAreListedAndANonPipeIsRefused) {
    ASSERT_EQ(timerRegPipeFd(364, 1, fd, 4), OK);  // the last owner in the table
    const std::string f = std::to_string(fd);
    EXPECT_EQ(captured(showTmrMgrSvc),
              "Index 670, pipefd " + f + ", pipeLen 12288\r\nIndex 727, pipefd " + f + ", pipeLen 4\r\n");
    tmrDebug(1);
    EXPECT_EQ(captured([] { EXPECT_EQ(timerRegPipeFd(kOwner, 1, 9999, 4), ERROR); }),
              "timerRegPipeFd: ioctl FIOSMSGS failed: errno 9, fd 9999\r\n");
}

TEST_F(TimerTest, CreateWithoutMemoryReturnsNullAndKeepsNothing) {
    tmrDebug(1);
    for (bool blockPool : {false, true}) {
        qorMemFailNextAlloc(blockPool ? timerCbPoolId : timerEntPoolId);
        EXPECT_EQ(captured([] { EXPECT_EQ(timerCreate(kOwner, 0), nullptr); }),
                  blockPool ? "Error in allocating memory for timer IPC" : "Error in allocating memory for timer");
        EXPECT_EQ(qorMemLiveCount(timerEntPoolId), 0u);
        EXPECT_EQ(qorMemLiveCount(timerCbPoolId), 0u);
    }
}

TEST_F(TimerTest, TimerWithoutBlockCannotStartUntilOneIsFound) {
    timerEnt* t = go(100, 1);
    step(10, false);
    qorMemFailNextAlloc(timerCbPoolId);  // no fresh block for the cancelled timer
    ASSERT_EQ(timerCancel(t), TIMER_CANCEL_OK);
    qorMemFailNextAlloc(timerCbPoolId);
    EXPECT_EQ(timerStart(t, 100, recordExpiry, 2), TIMER_START_NO_BLOCK);
    EXPECT_EQ(timerActive(t), 0);
    EXPECT_EQ(timerStart(t, 100, recordExpiry, 3), TIMER_START_OK);
    step(10);
    EXPECT_EQ(g_fired, (Fires{{3, 20}}));
}

TEST_F(TimerTest, UnknownServiceGetsNoPools) {
    timerCleanup();
    qorPlatformSetIdentity(999, 0);
    timerTaskStartup();
    EXPECT_EQ(captured([] { EXPECT_EQ(timerInit(), -1); }), "Unrecognized service in TIMERMGR.\r");
    EXPECT_EQ(timerCreate(999, 0), nullptr);
    qorMemReset();
    qorPlatformSetIdentity(kOwner, 0);
    timerTaskStartup();
    ASSERT_EQ(timerInit(), 0);
}

TEST_F(TimerTest, ListingsShowTheWheelAndTheClock) {
    go(100, 7);
    go(200, 9);
    go(10340, 8);
    const std::string out = captured(timerShow);
    for (const char* line :
         {"Current Array Index        : 0\n", "Elements in Array Index 10:\n",
          "There were 2 elements in array index 10\n", "Elements in Array Index 20:\n",
          "There were 1 elements in array index 20\n",
          "There were a total of 3 elements in the timing wheel\n", "The max list length was 2 at array index 10\n",
          "more than one tick elapsed : 0\n", "owner 336 0 10 ticks 0, fp ", ", data 8\n"})
        EXPECT_NE(out.find(line), npos) << line << "\n" << out;
    EXPECT_NE(out.find(", data 7\nowner 336 0 10 ticks 1, fp "), npos)
        << "the second timer waits one more revolution\n" << out;
    qorTickAdvance(4);
    EXPECT_EQ(captured(printTimerValues),
              "ticks_per_sec: 100 \r\nmsec_per_tick: 10 \r\nfloat_msec_per_tick: 10.000000 \r\n"
              "time_in_ticks: 1000004 \r\ntimer_interval_in_ticks 6 \r\ntimer_ticks_last_timer: 1000000 \r\n");
    EXPECT_EQ(current_msec(), 10000040u);
}

TEST_F(TimerTest, CancelTracesSayWhatWasCancelled) {
    timerEnt* a = go(100, 1);
    go(10340, 2);  // same bucket, a revolution on
    tmrDebug(4);
    std::string out = captured([&] {
        timerCancel(a);
        timerCancel(a);
    });
    EXPECT_NE(out.find("add ticks to next, new value: 1\n"), npos) << out;
    EXPECT_NE(out.find("timerCancel: Timer cancelled while it was active: "), npos) << out;
    EXPECT_NE(out.find("timerCancel: timer not active : "), npos) << out;
    tmrDebug(0);
    ASSERT_EQ(timerStart(a, 100, recordExpiry, 1), TIMER_START_OK);
    step(10, false);
    tmrDebug(4);
    out = captured([&] { timerCancel(a); });
    EXPECT_NE(out.find("timerCancel: Timer cancelled after sending IPC : "), npos) << out;
}

}  // namespace
