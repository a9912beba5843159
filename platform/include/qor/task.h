// qor/task.h -- the task layer: tasks, binary semaphores, the tick counter and
// the task registry, with VxWorks semantics on Linux.
//
// On Linux a task is a detached thread. The tick counter is a 64-bit count of
// CLOCK_MONOTONIC ticks since the platform started, at sysClkRateGet() ticks a
// second (100 unless set); a test can switch it to manual mode and advance it
// by hand so that nothing waits on the wall clock. taskDelay() sleeps real
// time in automatic mode; in manual mode it waits until the hand-driven
// counter has moved on by the asked number of ticks.
//
// The task registry stands for the platform's process table: every task that
// calls qorTaskStartup() gets a task key; the key names the process's
// application (service) and instance, set once by QOR_NbsdpInit() or
// qorPlatformSetIdentity(), and its IPC key.
#pragma once

#include <cstdint>

using FUNCPTR = long (*)(long, long, long, long, long, long, long, long, long, long);
struct qorSemaphore;
using SEM_ID = qorSemaphore*;

constexpr int OK = 0;
constexpr int ERROR = -1;
constexpr int WAIT_FOREVER = -1;
constexpr int NO_WAIT = 0;
constexpr int SEM_Q_FIFO = 0;
constexpr int SEM_Q_PRIORITY = 1;
enum SEM_B_STATE { SEM_EMPTY = 0, SEM_FULL = 1 };

// Tasks. taskSpawn returns a positive task identifier, or ERROR. The ten
// arguments are passed to the entry as they are (wide enough for pointers).
int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry,
              long a1 = 0, long a2 = 0, long a3 = 0, long a4 = 0, long a5 = 0, long a6 = 0,
              long a7 = 0, long a8 = 0, long a9 = 0, long a10 = 0);
// The same with a task identifier chosen by the caller (the platform's
// well-known identifiers, e.g. 337 for the timer task). The identifier is
// returned, or ERROR when it is already in use.
int qor_taskSpawnP(int taskId, int flags, const char* name, int priority, int options,
                   int stackSize, FUNCPTR entry, long a1 = 0, long a2 = 0, long a3 = 0,
                   long a4 = 0, long a5 = 0, long a6 = 0, long a7 = 0, long a8 = 0,
                   long a9 = 0, long a10 = 0);
int taskIdSelf();
// Suspends a task. Only the calling task (taskId 0 or its own identifier) can
// be suspended on Linux: it then blocks for ever. Another task: ERROR.
int taskSuspend(int taskId);
// Waits `ticks` ticks (0 yields). Returns OK.
int taskDelay(int ticks);

// Binary semaphores.
SEM_ID semBCreate(int options, SEM_B_STATE initialState);
int semTake(SEM_ID sem, int timeoutTicks);  // OK, or ERROR on time-out / bad id
int semGive(SEM_ID sem);
int semDelete(SEM_ID sem);

// Clock.
int sysClkRateGet();
uint64_t qorTickGet();
inline uint64_t qortick_sub_tick(uint64_t later, uint64_t earlier) { return later - earlier; }
uint32_t qorGetUpTime();  // whole seconds since the platform started (follows the tick)

// Test and start-up controls of the clock.
void qorTickSetRate(int ticksPerSecond);  // before any task starts
void qorTickSetManual(bool manual);       // manual: the counter moves only by qorTickAdvance
void qorTickAdvance(uint64_t ticks);
void qorTickSet(uint64_t tick);

// Process identity and task registry.
// Parses the platform's own options (--rundir DIR, --instance N) and records
// the process's application identifier. 0 on success, non-zero on a bad option.
int QOR_NbsdpInit(int argc, char** argv);
void qorPlatformSetIdentity(int application, int instance);
int qorPlatformApplication();
int qorPlatformInstance();
// The run directory of this daemon instance (--rundir, default /run/qor):
// IPC sockets under ipc/, the event log, the flash directory.
const char* qorRunDir();
void qorSetRunDir(const char* dir);
int qorDdbInit(char** argv);  // the platform database client: nothing to do on Linux; 0

int qorTaskStartup(int argc, char** argv, int service, int instance);  // task key, or -1
int qorTaskReady(int taskKey);
int qorTaskGetServiceByKey(int taskKey);
int qorTaskGetInstanceByKey(int taskKey);
// The IPC key of the task's process: the request-queue handle that
// Key_getReqQueue() accepts. -1 until the task has started up.
int qorTaskGetIpcKey(int taskKey);
