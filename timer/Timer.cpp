// Timer.cpp -- the timer service: the 1024-bucket timing wheel, the timer
// task and the delivery of expiries to their owners.
#include "Timer.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <span>

#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/pipe.h"
#include "qor/task.h"

timerListHead timer_global_list_array[TIMER_WHEEL_SIZE];
uint32_t timer_current_bucket = 0;
uint64_t timer_ticks_last_timer = 0;
uint32_t ticks_per_sec = 0;
uint32_t msec_per_tick = 0;
float float_msec_per_tick = 0.0f;
int16_t timer_interval_in_ticks = 6;
uint32_t timer_more_than_one_tick_elapsed = 0;
std::atomic<int32_t> timerDebug{0};
std::atomic<int32_t> timerTaskReady{0};
SEM_ID tmrTaskSemId = nullptr;

timerPipeEntry timer_pipe_fds[END_OF_APP_SERVICES * TIMER_SERVICES_PER_OWNER];
int timerPid = 0;
int timerIpcKey = -1;
int timerService = 0;
int timerInstance = 0;
int timerReqQueue = -1;
uint32_t tmrMgrWriteFailCnt = 0;
int tmrMgrWriteFailErrno = 0;
uint32_t timerEntPoolId = 0;
uint32_t timerCbPoolId = 0;

namespace {

constexpr const char* kUnit = "Timer";

// Memory identifiers of the timer service by the service of the process that
// runs it: a fixed-block partition and its two pools.
struct TimerMemIds {
    int service;
    uint32_t partition;
    uint32_t lastPool;
    uint32_t entPool;
    uint32_t cbPool;
};
constexpr std::array<TimerMemIds, 1> kTimerMemIds{{
    {336, 0xC3F000, 0xC3F002, 0xC3F001, 0xC3F002},  // Dhcpv6RelayMgr
}};

// The timer the timer task is delivering with the semaphore released. An
// owner that cancels or deletes it waits for that one send to finish, so the
// timer task never reads a freed record or a replaced block.
timerEnt* timerSending = nullptr;

// Revolutions of the last timer in each bucket (the sum of the bucket's
// deltas), so that a timer due no earlier than all others is appended
// without walking the bucket. 0 for an empty bucket.
std::array<uint32_t, TIMER_WHEEL_SIZE> timerTailRounds{};

// Registering an owner outside the table or a pool that cannot be made is a
// programmer error: always checked, whatever the build.
void timerAssert(bool ok, const char* text) {
    if (ok) return;
    std::fprintf(stderr, "Assertion failed: %s\n", text);
    std::abort();
}

bool timerLevelAbove(int level) { return timerDebug.load(std::memory_order_relaxed) > level; }

void timerLock() { semTake(tmrTaskSemId, WAIT_FOREVER); }
void timerUnlock() { semGive(tmrTaskSemId); }

void timerWaitReady() {
    while (timerTaskReady.load() == 0) taskDelay(1);
}

// Owner pipe entry, or null for an owner/service outside the table.
timerPipeEntry* timerPipeSlot(int owner, int service) {
    if (owner < 1 || owner > END_OF_APP_SERVICES || service < 0 ||
        service >= TIMER_SERVICES_PER_OWNER)
        return nullptr;
    return &timer_pipe_fds[(owner - 1) * TIMER_SERVICES_PER_OWNER + service];
}

// Waits (semaphore held on entry and on return) until the timer task has
// finished handing this timer's expiry over.
void timerWaitNotSending(const timerEnt* timer) {
    while (timerSending == timer) {
        timerUnlock();
        taskDelay(0);
        timerLock();
    }
}

uint32_t timerBlockHandle(const timerCbIpc* block) {
    return qor::u32At(qor::ByteView(block->ipcHdr), TIMER_IPC_OFF_HANDLE);
}

// The expiry block of a timer: the IPC message to the owner's service queue,
// with the block's own handle in the header.
timerCbIpc* TimerCbAlloc(timerEnt* timer) {
    if (timerCbPoolId == 0) return nullptr;
    void* mem = qorMC_M_memBlockAlloc(kUnit, __LINE__, timerCbPoolId);
    if (mem == nullptr) return nullptr;
    auto* block = new (mem) timerCbIpc{};
    const qor::MutByteView hdr(block->ipcHdr);
    qorIpcSetSourceHeader(hdr, TIMER_IPC_MSG_LEN, TIMER_IPC_MSG_TYPE, timer->owner,
                          timer->service, QOR_QUEUE_SERVICE);
    qor::putU32(hdr, TIMER_IPC_OFF_HANDLE, qorMemBlockHandle(timerCbPoolId, block));
    block->card = qor_sysGetIpAddr();
    block->svcQueue = qor_getQueueId(timer->owner, timer->service, QOR_QUEUE_SERVICE);
    block->self = block;
    block->timer = timer;
    return block;
}

void timerFreeEnt(timerEnt* timer) {
    qorMC_M_memBlockFree(kUnit, __LINE__, timerEntPoolId, timer);
}

// Wheel ticks for a timeout in milliseconds.
uint32_t timerMsecToTicks(uint32_t msec) {
    const float ticks = static_cast<float>(msec) / float_msec_per_tick;
    if (!(ticks < 4294967040.0f)) return UINT32_MAX;
    const auto whole = static_cast<uint32_t>(ticks);
    // A timer always waits at least 6 ticks: 0 would land in the bucket just
    // processed and wait a whole revolution.
    return whole == 0 ? TIMER_MIN_TICKS : whole;
}

// Takes a timer out of its bucket; the timer behind it inherits its delta.
// Semaphore held.
void timerUnlink(timerEnt* timer) {
    timerListHead& bucket = timer_global_list_array[timer->index];
    if (timer->next != nullptr) {
        timer->next->ticks += timer->ticks;
        timer->next->prev = timer->prev;
    } else {
        bucket.last = timer->prev;
        timerTailRounds[timer->index] -= timer->ticks;
    }
    *timer->prev = timer->next;
    timer->next = nullptr;
    timer->prev = nullptr;
}

// Puts a timer into bucket `index` after every timer due in at most `rounds`
// revolutions, so equal expiries keep their insertion order. Semaphore held.
void timerInsert(timerEnt* timer, uint32_t index, uint32_t rounds) {
    timerListHead& bucket = timer_global_list_array[index];
    timer->index = index;
    if (bucket.first == nullptr || timerTailRounds[index] <= rounds) {
        timer->ticks = rounds - timerTailRounds[index];
        timer->next = nullptr;
        timer->prev = bucket.last;
        *bucket.last = timer;
        bucket.last = &timer->next;
        timerTailRounds[index] = rounds;
        if (timerLevelAbove(3))
            printf("Insert at tail, ticks: %lu total ticks: %lu\n",
                   static_cast<unsigned long>(timer->ticks), static_cast<unsigned long>(rounds));
        return;
    }
    // Some timer is due later: it is found before the end of the bucket.
    uint32_t sum = 0;
    timerEnt** link = &bucket.first;
    timerEnt* after = bucket.first;
    while (sum + after->ticks <= rounds) {
        sum += after->ticks;
        link = &after->next;
        after = after->next;
    }
    timer->ticks = rounds - sum;
    timer->next = after;
    timer->prev = link;
    *link = timer;
    after->ticks -= timer->ticks;
    after->prev = &timer->next;
    if (timerLevelAbove(3))
        printf("Total Ticks: %lu, hdl's ticks: %lu next's ticks: %lu\n",
               static_cast<unsigned long>(rounds), static_cast<unsigned long>(timer->ticks),
               static_cast<unsigned long>(after->ticks));
}

// timerStart with the semaphore held.
int timerStartLocked(timerEnt* timer, uint32_t msec, TIMER_CB callback, long argument) {
    if (timer->cb == nullptr) {
        timer->cb = TimerCbAlloc(timer);
        if (timer->cb == nullptr) {
            if (timerLevelAbove(0))
                printf("Error in allocating memory for timer IPC: %p\n", static_cast<void*>(timer));
            return TIMER_START_NO_BLOCK;
        }
    }
    if (timer->state != TIMER_STATE_IDLE) {
        if (timerLevelAbove(0))
            printf("Timer is still active. mod: %d:%d State: 0x%x Timer: %p\n", timer->owner,
                   timer->service, timer->state, static_cast<void*>(timer));
        return TIMER_START_ACTIVE;
    }
    const uint32_t ticks = timerMsecToTicks(msec);
    const uint64_t now = qorTickGet();
    // Counted from the last wheel advance, not from this call: the wheel
    // catches up the ticks since then at its next advance.
    // A counter set back behind the last advance (tests, benchmarks) re-bases
    // the wheel on it rather than pushing the timer 2^32 ticks away.
    if (now < timer_ticks_last_timer) timer_ticks_last_timer = now;
    const uint32_t total =
        ticks + static_cast<uint32_t>(qortick_sub_tick(now, timer_ticks_last_timer));
    if (timerLevelAbove(2))
        printf("ApplTime: %lums, ApplTicks: %lu, cur: %llu, last: %llu ",
               static_cast<unsigned long>(msec), static_cast<unsigned long>(ticks),
               static_cast<unsigned long long>(now),
               static_cast<unsigned long long>(timer_ticks_last_timer));
    // Deliberate: a total that is an exact multiple of 1024 lands in the
    // bucket just processed and fires one revolution late. Kept as it is.
    const uint32_t rounds = total >> 10;
    const uint32_t index = (total + timer_current_bucket) & TIMER_WHEEL_MASK;
    if (timerLevelAbove(2))
        printf("InsertIndex = %ld, remainder = %ld, CurrentIndex = %ld\n", static_cast<long>(index),
               static_cast<long>(rounds), static_cast<long>(timer_current_bucket));
    timer->cb->callback = callback;
    timer->cb->argument = argument;
    timer->cb->timer = timer;
    timerInsert(timer, index, rounds);
    timer->state = TIMER_STATE_ACTIVE;
    return TIMER_START_OK;
}

// One wheel step: the next bucket, its due timers handed over. Semaphore held
// on entry and on return; released while an expiry is sent.
void timerStep(uint64_t now) {
    timer_current_bucket = (timer_current_bucket + 1) & TIMER_WHEEL_MASK;
    ++timer_ticks_last_timer;
    timerListHead& bucket = timer_global_list_array[timer_current_bucket];
    if (timerLevelAbove(3))
        printf("Cur tick: %llu last timer: %llu diff: %llu head time: %lu\n",
               static_cast<unsigned long long>(now),
               static_cast<unsigned long long>(timer_ticks_last_timer),
               static_cast<unsigned long long>(now - timer_ticks_last_timer),
               static_cast<unsigned long>(bucket.first ? bucket.first->ticks : 0));
    while (bucket.first != nullptr) {
        timerEnt* timer = bucket.first;
        if (timer->ticks != 0) {
            --timer->ticks;
            --timerTailRounds[timer_current_bucket];
            break;
        }
        timerUnlink(timer);
        timer->state = TIMER_STATE_EXPIRED;
        timerSending = timer;
        timerUnlock();
        sendTimerIPC(timer);
        timerLock();
        timerSending = nullptr;
    }
}

// No room in the owner's pipe: the expiry is tried again a second later.
// Called on the timer task while it owns the timer's delivery.
void timerPostpone(timerEnt* timer) {
    timerLock();
    if (timer->state == TIMER_STATE_EXPIRED) {
        timer->state = TIMER_STATE_IDLE;
        timerStartLocked(timer, TIMER_POSTPONE_MSEC, timer->cb->callback, timer->cb->argument);
    }
    timerUnlock();
}

// An expiry that could not be handed over is lost. The timer goes back to
// idle so that its owner can start it again.
void timerExpiryLost(timerEnt* timer) {
    timerLock();
    if (timer->state == TIMER_STATE_EXPIRED) timer->state = TIMER_STATE_IDLE;
    timerUnlock();
}

void timerSendToPipe(timerEnt* timer, const timerPipeEntry& pipe) {
    int waiting = 0;
    qorIoctl(pipe.fd, FIONMSGS, reinterpret_cast<long>(&waiting));
    if (waiting >= pipe.pipeLen) {
        timerPostpone(timer);
        return;
    }
    const uint32_t word = timerBlockHandle(timer->cb);
    // After a successful write the owner may run the expiry at once: the
    // timer is not touched again here.
    if (write(pipe.fd, &word, sizeof word) != static_cast<ssize_t>(sizeof word)) {
        ++tmrMgrWriteFailCnt;
        tmrMgrWriteFailErrno = errno;
        timerExpiryLost(timer);
    }
}

void timerSendToQueue(timerEnt* timer) {
    if (qorIpcSend(timerReqQueue, timer->cb->ipcHdr, TIMER_IPC_MSG_LEN, 0) != -1) return;
    if (timerLevelAbove(0))
        printf("sendTimerIPC: Error %d sending ipc to module %d:%d\n", errno, timer->owner,
               timer->service);
    timerExpiryLost(timer);
}

bool timerCreatePools(const TimerMemIds& ids) {
    if (qor_memPartFixedInit(ids.partition, ids.lastPool, timerInstance) != OK)
        printf("qor_memPartFixedInit failed for TIMERMGR.\r");
    const int entRc =
        qorMC_M_memPoolCreate("timerEntPoolId", ids.entPool, timerInstance, sizeof(timerEnt));
    if (entRc != OK) {
        printf("Pool creation for TIMER ENTRY failed.\r");
        timerAssert(false, "entRc == OK");
        return false;
    }
    timerEntPoolId = ids.entPool;
    const int cbRc =
        qorMC_M_memPoolCreate("timerCbPoolId", ids.cbPool, timerInstance, sizeof(timerCbIpc));
    if (cbRc != OK) {
        printf("Pool creation for TIMER CB failed.\r");
        timerAssert(false, "cbRc == OK");
        return false;
    }
    timerCbPoolId = ids.cbPool;
    return true;
}

bool timerSemInit() {
    if (tmrTaskSemId == nullptr) tmrTaskSemId = semBCreate(SEM_Q_FIFO, SEM_FULL);
    return tmrTaskSemId != nullptr;
}

void timerSemInitOrSuspend() {
    if (timerSemInit()) return;
    if (timerLevelAbove(3)) printf("TimerMgr: failed to initialize semaphore tmrTskSemId\r");
    taskSuspend(0);
}

}  // namespace

// ---- public operations ------------------------------------------------------

timerEnt* timerCreate(int owner, int service) {
    timerWaitReady();
    void* mem = timerEntPoolId ? qorMC_M_memBlockAlloc(kUnit, __LINE__, timerEntPoolId) : nullptr;
    if (mem == nullptr) {
        if (timerLevelAbove(0)) printf("Error in allocating memory for timer");
        return nullptr;
    }
    auto* timer = new (mem) timerEnt{};
    timer->owner = static_cast<int16_t>(owner);
    timer->service = static_cast<int16_t>(service);
    timer->state = TIMER_STATE_IDLE;
    timer->ticks = 0;
    timer->cb = TimerCbAlloc(timer);
    if (timer->cb == nullptr) {
        if (timerLevelAbove(0)) printf("Error in allocating memory for timer IPC");
        timerFreeEnt(timer);
        return nullptr;
    }
    if (timerLevelAbove(2))
        printf("timerCreate::owner %d, service %d pid %d\r\n", owner, service, taskIdSelf());
    return timer;
}

int timerStart(timerEnt* timer, uint32_t msec, TIMER_CB callback, long argument) {
    if (timer == nullptr) return -1;
    timerLock();
    const int rc = timerStartLocked(timer, msec, callback, argument);
    timerUnlock();
    return rc;
}

int timerCancel(timerEnt* timer) {
    if (timer == nullptr) return TIMER_CANCEL_NOT_ACTIVE;
    int rc = TIMER_CANCEL_OK;
    timerLock();
    timerWaitNotSending(timer);
    switch (timer->state) {
    case TIMER_STATE_EXPIRED:
        if (timerLevelAbove(3))
            printf("timerCancel: Timer cancelled after sending IPC : %p\n", static_cast<void*>(timer));
        // The block in flight is the owner's to free on arrival.
        timer->cb->timer = nullptr;
        timer->cb = TimerCbAlloc(timer);
        timer->state = TIMER_STATE_IDLE;
        break;
    case TIMER_STATE_ACTIVE:
        if (timer->next != nullptr && timerLevelAbove(3))
            printf("add ticks to next, new value: %lu\n",
                   static_cast<unsigned long>(timer->next->ticks + timer->ticks));
        timerUnlink(timer);
        if (timerLevelAbove(3))
            printf("timerCancel: Timer cancelled while it was active: %p\n",
                   static_cast<void*>(timer));
        timer->ticks = 0;
        timer->state = TIMER_STATE_IDLE;
        break;
    default:
        if (timerLevelAbove(3))
            printf("timerCancel: timer not active : %p\n", static_cast<void*>(timer));
        rc = TIMER_CANCEL_NOT_ACTIVE;
        break;
    }
    timerUnlock();
    return rc;
}

int timerDelete(timerEnt* timer) {
    if (timer == nullptr) return 0;
    timerLock();
    timerWaitNotSending(timer);
    if (timer->state == TIMER_STATE_ACTIVE) timerUnlink(timer);
    if (timer->cb != nullptr) {
        if (timer->state == TIMER_STATE_EXPIRED)
            timer->cb->timer = nullptr;  // freed by the owner when it arrives
        else
            timerFreeCbIpc(timer->cb);
    }
    timerFreeEnt(timer);
    timerUnlock();
    return 0;
}

int timerActive(const timerEnt* timer) {
    if (timer == nullptr) return 0;
    timerLock();
    const bool idle = timer->state == TIMER_STATE_IDLE;
    timerUnlock();
    return idle ? 0 : 1;
}

uint32_t timerRemainMsec(const timerEnt* /*timer*/) { return 0; }

uint32_t current_msec() {
    const float msec = static_cast<float>(qorTickGet()) * float_msec_per_tick;
    if (!(msec < 1.8e19f)) return 0;
    return static_cast<uint32_t>(static_cast<uint64_t>(msec));
}

// ---- the wheel ---------------------------------------------------------------

void timerCheck() {
    timerLock();
    const uint64_t now = qorTickGet();
    const uint64_t last = timer_ticks_last_timer;
    // A counter set back must not spin the wheel 2^64 times: re-based instead.
    const uint64_t elapsed = now >= last ? qortick_sub_tick(now, last) : 0;
    if (timerLevelAbove(3))
        printf("timer popped, cur %llu, last %llu\n", static_cast<unsigned long long>(now),
               static_cast<unsigned long long>(last));
    if (elapsed > static_cast<uint64_t>(timer_interval_in_ticks)) ++timer_more_than_one_tick_elapsed;
    if (now < last) timer_ticks_last_timer = now;
    // timer_ticks_last_timer follows the bucket one step at a time, so that a
    // timer started while the wheel catches up is placed from where the wheel
    // really is; it equals `now` once the loop is done.
    for (uint64_t step = 0; step < elapsed; ++step) {
        timerStep(now);
        timerUnlock();
        timerLock();
    }
    timerUnlock();
}

// ---- the timer task -----------------------------------------------------------

int timerTaskStartup() {
    timerPid = qorTaskStartup(0, nullptr, 0, 0);
    while ((timerIpcKey = qorTaskGetIpcKey(timerPid)) == -1) taskDelay(5);
    timerService = qorTaskGetServiceByKey(timerIpcKey);
    timerInstance = qorTaskGetInstanceByKey(timerIpcKey);
    timerReqQueue = Key_getReqQueue(timerIpcKey);
    return timerPid;
}

int timerInit() {
    for (timerListHead& bucket : timer_global_list_array) {
        bucket.first = nullptr;
        bucket.last = &bucket.first;
    }
    timerTailRounds.fill(0);
    for (timerPipeEntry& e : timer_pipe_fds) e = {0, 0};
    timer_current_bucket = 0;
    timer_ticks_last_timer = qorTickGet();
    timer_more_than_one_tick_elapsed = 0;
    const int rate = sysClkRateGet();
    ticks_per_sec = rate > 0 ? static_cast<uint32_t>(rate) : 100;
    msec_per_tick = 1000 / ticks_per_sec;
    float_msec_per_tick = 1000.0f / static_cast<float>(ticks_per_sec);
    timerEntPoolId = 0;
    timerCbPoolId = 0;
    for (const TimerMemIds& ids : kTimerMemIds) {
        if (ids.service != timerService) continue;
        if (!timerCreatePools(ids)) return -1;
        if (timerLevelAbove(3)) printf("Mem Pool init is done");
        return 0;
    }
    printf("Unrecognized service in TIMERMGR.\r");
    return -1;
}

void timerCleanup() {
    if (timerEntPoolId != 0) qorMC_M_memPoolDelete(timerEntPoolId);
    if (timerCbPoolId != 0) qorMC_M_memPoolDelete(timerCbPoolId);
    timerEntPoolId = 0;
    timerCbPoolId = 0;
}

long timerTask(long, long, long, long, long, long, long, long, long, long) {
    timerTaskStartup();
    qorTaskReady(timerPid);
    timerInit();
    // The semaphore exists before any owner can get past timerTaskReady.
    timerSemInitOrSuspend();
    timerTaskReady = 1;
    if (timerLevelAbove(0)) printf("%s : timerTaskReady = %d\r\n", "timerTask", timerTaskReady.load());
    TimerMgr();
    return 0;
}

void TimerMgr() {
    timerSemInitOrSuspend();
    for (;;) {
        timerCheck();
        taskDelay(timer_interval_in_ticks);
    }
}

// ---- delivery ------------------------------------------------------------------

int timerRegPipeFd(int owner, int service, int fd, int pipeLength) {
    timerWaitReady();
    const int mod = owner;
    timerAssert(static_cast<unsigned>(mod - 1) < unsigned{END_OF_APP_SERVICES},
                "(mod - 1) < END_OF_APP_SERVICES");
    timerAssert(static_cast<unsigned>(service) < unsigned{TIMER_SERVICES_PER_OWNER},
                "service < 2");
    timerPipeEntry* slot = timerPipeSlot(owner, service);
    slot->fd = fd;
    slot->pipeLen = pipeLength;
    const int rc = qorIoctl(fd, FIOSMSGS, 4);
    if (rc != OK && timerDebug.load() >= 1)
        printf("%s: ioctl FIOSMSGS failed: errno %d, fd %d\r\n", "timerRegPipeFd", errno, fd);
    return rc;
}

void sendTimerIPC(timerEnt* timer) {
    const timerPipeEntry* slot = timerPipeSlot(timer->owner, timer->service);
    const int fd = slot ? slot->fd : 0;
    if (timerLevelAbove(2))
        printf("sendTImerIPC: mtype %d mlen %d t.card %x t.svce %d pid %d pipefd %d owner %d\r\n",
               static_cast<int>(TIMER_IPC_MSG_TYPE), static_cast<int>(TIMER_IPC_MSG_LEN),
               timer->cb->card, static_cast<int>(timer->cb->svcQueue), timerPid, fd, timer->owner);
    if (fd != 0)
        timerSendToPipe(timer, *slot);
    else
        timerSendToQueue(timer);
}

void timerIpcCallback(uint32_t word) {
    if (timerCbPoolId == 0 || word == 0) return;
    auto* block = static_cast<timerCbIpc*>(qorMemBlockFromHandle(timerCbPoolId, word));
    if (block == nullptr) return;
    timerLock();
    timerEnt* timer = block->timer;
    if (timer == nullptr) {
        // Cancelled or deleted while on its way: nothing to run.
        timerUnlock();
        timerFreeCbIpc(block);
        return;
    }
    if (timer->state != TIMER_STATE_EXPIRED || timer->cb != block) {
        // Not an expiry on its way (a repeated word): ignored.
        timerUnlock();
        return;
    }
    timer->state = TIMER_STATE_IDLE;
    const TIMER_CB callback = block->callback;
    const long argument = block->argument;
    timerUnlock();
    if (callback != nullptr) callback(argument, block);
}

void timerFreeCbIpc(timerCbIpc* block) {
    if (block != nullptr) qorMC_M_memBlockFree(kUnit, __LINE__, timerCbPoolId, block);
}

// ---- debug listings -------------------------------------------------------------

void showTimer(const timerEnt* timer) {
    const timerCbIpc* cb = timer->cb;
    printf("owner %d %d %d ticks %lu, fp %p, data %ld\n", timer->owner, timer->service,
           static_cast<int>(timer->index), static_cast<unsigned long>(timer->ticks),
           cb ? reinterpret_cast<void*>(cb->callback) : nullptr, cb ? cb->argument : 0L);
}

void timerShow() {
    timerLock();
    printf("Current Array Index        : %ld\n", static_cast<long>(timer_current_bucket));
    unsigned total = 0, maxLen = 0, maxIndex = 0;
    for (unsigned i = 0; i < TIMER_WHEEL_SIZE; ++i) {
        const timerEnt* timer = timer_global_list_array[i].first;
        if (timer == nullptr) continue;
        printf("Elements in Array Index %u:\n", i);
        unsigned count = 0;
        for (; timer != nullptr; timer = timer->next, ++count) showTimer(timer);
        printf("There were %u elements in array index %u\n", count, i);
        total += count;
        if (count > maxLen) {
            maxLen = count;
            maxIndex = i;
        }
    }
    printf("There were a total of %u elements in the timing wheel\n", total);
    printf("The max list length was %u at array index %u\n", maxLen, maxIndex);
    printf("more than one tick elapsed : %ld\n", static_cast<long>(timer_more_than_one_tick_elapsed));
    timerUnlock();
}

void showTmrMgrSvc() {
    for (int i = 0; i < END_OF_APP_SERVICES * TIMER_SERVICES_PER_OWNER; ++i) {
        if (timer_pipe_fds[i].fd != 0)
            printf("Index %d, pipefd %d, pipeLen %d\r\n", i, timer_pipe_fds[i].fd,
                   timer_pipe_fds[i].pipeLen);
    }
}

void printTimerValues() {
    printf("ticks_per_sec: %ld \r\n", static_cast<long>(ticks_per_sec));
    printf("msec_per_tick: %ld \r\n", static_cast<long>(msec_per_tick));
    printf("float_msec_per_tick: %f \r\n", static_cast<double>(float_msec_per_tick));
    printf("time_in_ticks: %ld \r\n", static_cast<long>(qorTickGet()));
    printf("timer_interval_in_ticks %d \r\n", timer_interval_in_ticks);
    printf("timer_ticks_last_timer: %llu \r\n", static_cast<unsigned long long>(timer_ticks_last_timer));
}

void tmrDebug(int level) { timerDebug = level; }
