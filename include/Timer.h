// Timer.h -- the timer service: one-shot millisecond timers on a 1024-bucket
// timing wheel, advanced by the timer task "DHCPV6TMRMGR", with expiries
// handed to the owning task through its pipe (or its service queue).
//
// Life of a timer: idle --timerStart--> active --the wheel reaches it-->
// expired (its expiry block is on its way to the owner) --the owner's
// timerIpcCallback--> idle, and the callback runs on the owner's task.
// timerCancel brings an active or expired timer back to idle; a cancelled
// expiry that is still on its way is discarded (and its block freed) when it
// arrives. Timers fire once; a periodic timer restarts itself from its
// callback.
//
// The pipe carries 4-byte words, and addresses are 8 bytes on 64-bit Linux:
// the word an owner reads from its pipe is the expiry block's handle in the
// "timerCbPoolId" pool (qorMemBlockHandle), in host byte order (the pipe never
// leaves the process). timerIpcCallback resolves it and ignores a word that
// does not name a live block of that pool, so a stale or bogus word is never
// dereferenced.
//
// An owner without a registered pipe gets the expiry as a 64-byte IPC message
// (type 801, length 64) addressed to its service queue; the block handle is
// the header word at byte offset 60 (TIMER_IPC_OFF_HANDLE), which the owner
// passes to timerIpcCallback as it would a pipe word.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "qor/task.h"

// Timer states.
constexpr uint32_t TIMER_STATE_IDLE = 0x11111111;     // created, cancelled or delivered
constexpr uint32_t TIMER_STATE_ACTIVE = 0x22222222;   // on the wheel
constexpr uint32_t TIMER_STATE_EXPIRED = 0xEEEEEEEE;  // off the wheel, expiry on its way

// timerStart results.
constexpr int TIMER_START_OK = 0;
constexpr int TIMER_START_ACTIVE = 1;     // already running: nothing changed
constexpr int TIMER_START_NO_BLOCK = 3;   // no expiry block could be allocated
// timerCancel results.
constexpr int TIMER_CANCEL_OK = 0;
constexpr int TIMER_CANCEL_NOT_ACTIVE = 2;

constexpr uint32_t TIMER_WHEEL_SIZE = 1024;
constexpr uint32_t TIMER_WHEEL_MASK = TIMER_WHEEL_SIZE - 1;
constexpr int END_OF_APP_SERVICES = 364;  // owners are numbered 1..364
constexpr int TIMER_SERVICES_PER_OWNER = 2;
constexpr int TIMER_MIN_TICKS = 6;          // a timer of 0 ticks waits this long
constexpr uint32_t TIMER_POSTPONE_MSEC = 1000;  // retry delay of an expiry the pipe has no room for

// The expiry IPC message.
constexpr uint32_t TIMER_IPC_MSG_TYPE = 801;
constexpr uint32_t TIMER_IPC_MSG_LEN = 64;
constexpr size_t TIMER_IPC_OFF_HANDLE = 60;  // header word carrying the block handle

struct timerEnt;

// A timer callback runs on the owner's task with the argument given to
// timerStart and the timer's expiry block. The block belongs to the timer:
// the callback must not free it, but may start, cancel or delete the timer.
typedef void (*TIMER_CB)(long argument, void* block);

// Expiry message block, one per timer (pool "timerCbPoolId").
struct timerCbIpc {
    uint8_t ipcHdr[TIMER_IPC_MSG_LEN];  // IPC header to the owner's service queue; handle at 60
    uint32_t zero;
    uint32_t card;       // qor_sysGetIpAddr()
    uint32_t svcQueue;   // qor_getQueueId(owner, service, 3)
    timerCbIpc* self;
    TIMER_CB callback;
    long argument;
    timerEnt* timer;     // null once the timer was cancelled or deleted while the block travelled
};

// Timer record, the handle timerCreate returns (pool "timerEntPoolId").
struct timerEnt {
    timerEnt* next;
    timerEnt** prev;   // the previous element's next field, or the bucket's first field
    int16_t owner;     // 1..364
    int16_t service;   // 0 or 1
    uint32_t ticks;    // revolutions still to wait, as a delta over the timers ahead in the bucket
    uint32_t index;    // the bucket
    uint32_t state;    // TIMER_STATE_*
    timerCbIpc* cb;
};

// One bucket of the wheel: first element, and the address of the last
// element's next field (of `first` when empty).
struct timerListHead {
    timerEnt* first;
    timerEnt** last;
};

// One registered owner pipe.
struct timerPipeEntry {
    int fd;       // 0: none registered
    int pipeLen;  // length limit in messages
};

// Wheel globals.
extern timerListHead timer_global_list_array[TIMER_WHEEL_SIZE];
extern uint32_t timer_current_bucket;
extern uint64_t timer_ticks_last_timer;
extern uint32_t ticks_per_sec;
extern uint32_t msec_per_tick;
extern float float_msec_per_tick;
extern int16_t timer_interval_in_ticks;
extern uint32_t timer_more_than_one_tick_elapsed;
extern std::atomic<int32_t> timerDebug;
extern std::atomic<int32_t> timerTaskReady;
extern SEM_ID tmrTaskSemId;

// Task globals.
extern timerPipeEntry timer_pipe_fds[END_OF_APP_SERVICES * TIMER_SERVICES_PER_OWNER];
extern int timerPid;
extern int timerIpcKey;
extern int timerService;
extern int timerInstance;
extern int timerReqQueue;
extern uint32_t tmrMgrWriteFailCnt;
extern int tmrMgrWriteFailErrno;
extern uint32_t timerEntPoolId;  // 0 until timerInit created the pools
extern uint32_t timerCbPoolId;

// Public operations (owner's task).
timerEnt* timerCreate(int owner, int service);
int timerStart(timerEnt* timer, uint32_t msec, TIMER_CB callback, long argument);
int timerCancel(timerEnt* timer);
int timerDelete(timerEnt* timer);
int timerActive(const timerEnt* timer);
uint32_t timerRemainMsec(const timerEnt* timer);  // always 0: callers must not depend on it
uint32_t current_msec();

// The timer task. timerTask is the task entry (never returns); it runs
// timerTaskStartup, timerInit, creates tmrTaskSemId, sets timerTaskReady and
// enters TimerMgr, which calls timerCheck every timer_interval_in_ticks.
long timerTask(long, long, long, long, long, long, long, long, long, long);
int timerTaskStartup();  // task key, IPC key, service, instance, request queue
int timerInit();         // wheel, pipe table, clock values and pools; 0 or -1
void timerCleanup();     // frees the two pools
void TimerMgr();
void timerCheck();

// Delivery.
int timerRegPipeFd(int owner, int service, int fd, int pipeLength);
// Delivers the expiry of a timer the wheel has just taken off (timer task
// only, semaphore not held).
void sendTimerIPC(timerEnt* timer);
// Owner side: one word read from the pipe (or from byte 60 of a type 801
// message). Runs the callback, frees a cancelled expiry, ignores anything else.
void timerIpcCallback(uint32_t word);
void timerFreeCbIpc(timerCbIpc* block);

// Debug listings.
void showTimer(const timerEnt* timer);
void timerShow();
void showTmrMgrSvc();
void printTimerValues();
void tmrDebug(int level);
