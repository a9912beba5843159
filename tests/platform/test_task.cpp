// Tasks, semaphores, the hand-driven tick and the list library, as the
// daemon's tasks use them.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

#include "qor/lst.h"
#include "qor/task.h"

namespace {

std::atomic<long> gotArgs[10];
std::atomic<int> gotTaskId{0};

long recordArgs(long a1, long a2, long a3, long a4, long a5, long a6, long a7, long a8, long a9,
                long a10) {
    const long a[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    for (int i = 0; i < 10; ++i) gotArgs[i] = a[i];
    gotTaskId = taskIdSelf();
    return 0;
}

template <typename Pred>
bool eventually(Pred pred) {
    // Bounded by iterations, never asserting on elapsed time.
    for (int i = 0; i < 5000; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return pred();
}

TEST(TaskSpawn, EntryGetsAllTenArgumentsAndItsOwnOrItsWellKnownId) {
    gotTaskId = 0;
    const int tid = taskSpawn("t", 200, 12, 16000, recordArgs, 1, 2, 3, 4, 5, 6, 7, 8, 9,
                              long(0x7FFF00001234));
    ASSERT_GT(tid, 0);
    ASSERT_TRUE(eventually([] { return gotTaskId.load() != 0; }));
    EXPECT_EQ(gotTaskId.load(), tid);
    EXPECT_EQ(gotArgs[0].load(), 1);
    EXPECT_EQ(gotArgs[8].load(), 9);
    EXPECT_EQ(gotArgs[9].load(), long(0x7FFF00001234)) << "a pointer-wide argument was cut";
    // A well-known identifier is kept and cannot be taken twice.
    gotTaskId = 0;
    auto blockForever = [](long, long, long, long, long, long, long, long, long, long) -> long {
        gotTaskId = taskIdSelf();
        taskSuspend(0);
        return 0;
    };
    ASSERT_EQ(qor_taskSpawnP(4337, 0, "fixed", 200, 0, 16000, blockForever), 4337);
    ASSERT_TRUE(eventually([] { return gotTaskId.load() == 4337; }));
    EXPECT_EQ(qor_taskSpawnP(4337, 0, "again", 200, 0, 16000, blockForever), ERROR);
    EXPECT_EQ(taskSuspend(4337), ERROR) << "only a task can suspend itself on Linux";
}

TEST(Semaphore, BinarySemaphoreHoldsOneGiveAndWakesAWaitingTask) {
    SEM_ID s = semBCreate(SEM_Q_FIFO, SEM_EMPTY);
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(semTake(s, NO_WAIT), ERROR);
    semGive(s);
    semGive(s);  // binary: a second give is not counted
    EXPECT_EQ(semTake(s, NO_WAIT), OK);
    EXPECT_EQ(semTake(s, NO_WAIT), ERROR);
    std::thread waiter([s] { EXPECT_EQ(semTake(s, WAIT_FOREVER), OK); });
    semGive(s);
    waiter.join();  // hangs if the give does not wake the waiter
    semDelete(s);
}

class ManualTick : public ::testing::Test {
protected:
    void SetUp() override { qorTickSetManual(true); qorTickSet(1000); }
    void TearDown() override { qorTickSetManual(false); }
};

TEST_F(ManualTick, CounterMovesOnlyByHandAndTaskDelayWaitsForIt) {
    EXPECT_EQ(qorTickGet(), 1000u);
    qorTickAdvance(250);
    EXPECT_EQ(qorTickGet(), 1250u);
    EXPECT_EQ(qorGetUpTime(), 1250u / unsigned(sysClkRateGet()));
    EXPECT_EQ(qortick_sub_tick(qorTickGet(), 1000), 250u);
    std::atomic<uint64_t> from{0}, to{0};
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        from = qorTickGet();
        taskDelay(10);
        to = qorTickGet();
        woke = true;
    });
    // Drive the clock one tick at a time until the sleeper wakes.
    for (int i = 0; i < 5000 && !woke.load(); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        qorTickAdvance(1);
    }
    sleeper.join();
    ASSERT_TRUE(woke.load());
    EXPECT_GE(to.load() - from.load(), 10u) << "woke before ten ticks had passed";
}

TEST(TaskRegistry, StartupKeyAndOptionsCarryTheProcessIdentity) {
    qorPlatformSetIdentity(336, 0);
    const int key = qorTaskStartup(0, nullptr, 0, 0);
    ASSERT_GT(key, 0);
    EXPECT_EQ(qorTaskGetServiceByKey(key), 336);
    EXPECT_EQ(qorTaskGetInstanceByKey(key), 0);
    EXPECT_EQ(qorTaskGetIpcKey(key), key);
    EXPECT_EQ(qorTaskReady(key), OK);
    EXPECT_EQ(qorTaskGetIpcKey(999999), ERROR);
    EXPECT_EQ(qorTaskGetServiceByKey(0), ERROR);
    // Platform options are taken from the command line, bad ones refused.
    char prog[] = "d", rd[] = "--rundir", dir[] = "/tmp/qor-x", inst[] = "--instance",
         one[] = "1", other[] = "--host-map", map[] = "m.ini", bad[] = "x1";
    char* good[] = {prog, rd, dir, inst, one, other, map, nullptr};
    EXPECT_EQ(QOR_NbsdpInit(7, good), 0);
    EXPECT_STREQ(qorRunDir(), "/tmp/qor-x");
    EXPECT_EQ(qorPlatformInstance(), 1);
    char* wrong[] = {prog, inst, bad, nullptr};
    EXPECT_NE(QOR_NbsdpInit(3, wrong), 0);
    char* missing[] = {prog, rd, nullptr};
    EXPECT_NE(QOR_NbsdpInit(2, missing), 0);
    qorPlatformSetIdentity(336, 0);
    qorSetRunDir("/run/qor");
}

struct Item {
    NODE node;
    int value;
};

TEST(List, AddDeleteWalkAndFree) {
    LIST l;
    lstInit(&l);
    Item items[4] = {{{}, 1}, {{}, 2}, {{}, 3}, {{}, 4}};
    for (auto& i : items) lstAdd(&l, &i.node);
    lstDelete(&l, &items[0].node);  // head
    lstDelete(&l, &items[3].node);  // tail
    lstDelete(&l, &items[1].node);  // middle... now one left
    EXPECT_EQ(lstCount(&l), 1);
    EXPECT_EQ(lstFirst(&l), &items[2].node);
    EXPECT_EQ(lstLast(&l), &items[2].node);
    EXPECT_EQ(lstNext(lstFirst(&l)), nullptr);
    lstAdd(&l, &items[0].node);
    int seen[2], n = 0;
    for (NODE* p = lstFirst(&l); p; p = lstNext(p)) seen[n++] = reinterpret_cast<Item*>(p)->value;
    ASSERT_EQ(n, 2);
    EXPECT_EQ(seen[0], 3);
    EXPECT_EQ(seen[1], 1);
    EXPECT_EQ(lstPrevious(lstLast(&l)), &items[2].node);
    LIST heap;  // lstFree releases malloc'd nodes: the sanitizer build reports a missed one
    lstInit(&heap);
    for (int i = 0; i < 5; ++i) lstAdd(&heap, static_cast<NODE*>(std::calloc(1, sizeof(Item))));
    lstFree(&heap);
    EXPECT_EQ(lstCount(&heap), 0);
    EXPECT_EQ(lstFirst(&heap), nullptr);
}

}  // namespace
