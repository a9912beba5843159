// task.cpp -- tasks as detached threads, binary semaphores, the tick counter
// and the process's task registry.
#include "qor/task.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <time.h>
#include <vector>

namespace {

// ---- clock ----------------------------------------------------------------

uint64_t monotonicNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * 1000000000ull + uint64_t(ts.tv_nsec);
}

struct Clock {
    const uint64_t startNs = monotonicNs();
    std::atomic<int> rate{100};
    std::atomic<bool> manual{false};
    std::atomic<uint64_t> manualTick{0};
    std::mutex mu;  // guards waits on the manual tick
    std::condition_variable moved;
};

Clock& clk() {
    static Clock c;
    return c;
}

uint64_t autoTick() {
    const Clock& c = clk();
    return (monotonicNs() - c.startNs) * uint64_t(c.rate.load()) / 1000000000ull;
}

std::chrono::nanoseconds ticksToDuration(int ticks) {
    return std::chrono::nanoseconds(int64_t(ticks) * 1000000000ll / clk().rate.load());
}

// ---- tasks ----------------------------------------------------------------

struct TaskRegistry {
    std::mutex mu;
    std::map<int, std::string> names;
    int nextId = 0x1000;
};

TaskRegistry& tasks() {
    static TaskRegistry r;
    return r;
}

thread_local int currentTaskId = 0;

struct TaskStart {
    int id;
    FUNCPTR entry;
    long args[10];
};

void runTask(TaskStart start) {
    currentTaskId = start.id;
    const long* a = start.args;
    start.entry(a[0], a[1], a[2], a[3], a[4], a[5], a[6], a[7], a[8], a[9]);
    std::lock_guard lock(tasks().mu);
    tasks().names.erase(start.id);
}

int startTask(int id, const char* name, FUNCPTR entry, const long (&args)[10]) {
    if (entry == nullptr) return ERROR;
    {
        std::lock_guard lock(tasks().mu);
        if (tasks().names.count(id)) return ERROR;
        tasks().names[id] = name ? name : "";
    }
    TaskStart start{id, entry, {}};
    std::memcpy(start.args, args, sizeof start.args);
    try {
        std::thread(runTask, start).detach();
    } catch (...) {
        std::lock_guard lock(tasks().mu);
        tasks().names.erase(id);
        return ERROR;
    }
    return id;
}

// ---- process identity -----------------------------------------------------

struct Identity {
    std::mutex mu;
    int application = 0;
    int instance = 0;
    std::string runDir = "/run/qor";
};

Identity& identity() {
    static Identity id;
    return id;
}

struct TaskEntry {
    int service;
    int instance;
    bool ready;
};

struct Startups {
    std::mutex mu;
    std::vector<TaskEntry> entries;  // task key = index + 1
};

Startups& startups() {
    static Startups s;
    return s;
}

bool lookupTask(int taskKey, TaskEntry& out) {
    std::lock_guard lock(startups().mu);
    if (taskKey < 1 || size_t(taskKey) > startups().entries.size()) return false;
    out = startups().entries[size_t(taskKey) - 1];
    return true;
}

bool parseInt(const char* text, int& out) {
    if (text == nullptr || *text == '\0') return false;
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 0);
    if (errno || *end != '\0' || v < 0 || v > 0xFFFF) return false;
    out = int(v);
    return true;
}

}  // namespace

// ---- tasks ----------------------------------------------------------------

int taskSpawn(const char* name, int /*priority*/, int /*options*/, int /*stackSize*/,
              FUNCPTR entry, long a1, long a2, long a3, long a4, long a5, long a6, long a7,
              long a8, long a9, long a10) {
    int id;
    {
        std::lock_guard lock(tasks().mu);
        do {
            id = tasks().nextId++;
        } while (tasks().names.count(id));
    }
    const long args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    return startTask(id, name, entry, args);
}

int qor_taskSpawnP(int taskId, int /*flags*/, const char* name, int /*priority*/,
                   int /*options*/, int /*stackSize*/, FUNCPTR entry, long a1, long a2,
                   long a3, long a4, long a5, long a6, long a7, long a8, long a9, long a10) {
    if (taskId <= 0) return ERROR;
    const long args[10] = {a1, a2, a3, a4, a5, a6, a7, a8, a9, a10};
    return startTask(taskId, name, entry, args);
}

int taskIdSelf() { return currentTaskId; }

int taskSuspend(int taskId) {
    if (taskId != 0 && taskId != currentTaskId) return ERROR;
    for (;;) std::this_thread::sleep_for(std::chrono::hours(24));
}

int taskDelay(int ticks) {
    if (ticks <= 0) {
        std::this_thread::yield();
        return OK;
    }
    Clock& c = clk();
    if (!c.manual.load()) {
        std::this_thread::sleep_for(ticksToDuration(ticks));
        return OK;
    }
    std::unique_lock lock(c.mu);
    const uint64_t until = c.manualTick.load() + uint64_t(ticks);
    // Re-check now and then: the test may switch back to the real clock.
    while (c.manual.load() && c.manualTick.load() < until)
        c.moved.wait_for(lock, std::chrono::milliseconds(50));
    return OK;
}

// ---- semaphores -----------------------------------------------------------

struct qorSemaphore {
    std::mutex mu;
    std::condition_variable cv;
    bool full;
};

SEM_ID semBCreate(int /*options*/, SEM_B_STATE initialState) {
    auto* s = new (std::nothrow) qorSemaphore;
    if (s) s->full = initialState == SEM_FULL;
    return s;
}

int semTake(SEM_ID sem, int timeoutTicks) {
    if (sem == nullptr) return ERROR;
    std::unique_lock lock(sem->mu);
    if (timeoutTicks == WAIT_FOREVER) {
        sem->cv.wait(lock, [sem] { return sem->full; });
    } else if (!sem->cv.wait_for(lock, ticksToDuration(timeoutTicks),
                                 [sem] { return sem->full; })) {
        errno = EAGAIN;
        return ERROR;
    }
    sem->full = false;
    return OK;
}

int semGive(SEM_ID sem) {
    if (sem == nullptr) return ERROR;
    {
        std::lock_guard lock(sem->mu);
        sem->full = true;
    }
    sem->cv.notify_one();
    return OK;
}

int semDelete(SEM_ID sem) {
    if (sem == nullptr) return ERROR;
    delete sem;
    return OK;
}

// ---- clock ----------------------------------------------------------------

int sysClkRateGet() { return clk().rate.load(); }

uint64_t qorTickGet() {
    const Clock& c = clk();
    return c.manual.load() ? c.manualTick.load() : autoTick();
}

uint32_t qorGetUpTime() { return uint32_t(qorTickGet() / uint64_t(sysClkRateGet())); }

void qorTickSetRate(int ticksPerSecond) {
    if (ticksPerSecond > 0) clk().rate = ticksPerSecond;
}

void qorTickSetManual(bool manual) {
    Clock& c = clk();
    std::lock_guard lock(c.mu);
    if (manual && !c.manual.load()) c.manualTick = autoTick();
    c.manual = manual;
    c.moved.notify_all();
}

void qorTickAdvance(uint64_t ticks) {
    Clock& c = clk();
    std::lock_guard lock(c.mu);
    c.manualTick += ticks;
    c.moved.notify_all();
}

void qorTickSet(uint64_t tick) {
    Clock& c = clk();
    std::lock_guard lock(c.mu);
    c.manualTick = tick;
    c.moved.notify_all();
}

// ---- identity and registry ------------------------------------------------

int QOR_NbsdpInit(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (argv[i] == nullptr) break;
        const std::string arg = argv[i];
        const bool hasValue = i + 1 < argc && argv[i + 1] != nullptr;
        if (arg == "--rundir") {
            if (!hasValue || *argv[i + 1] == '\0') return 1;
            qorSetRunDir(argv[++i]);
        } else if (arg == "--instance") {
            int inst = 0;
            if (!hasValue || !parseInt(argv[++i], inst)) return 1;
            std::lock_guard lock(identity().mu);
            identity().instance = inst;
        }
    }
    return 0;
}

void qorPlatformSetIdentity(int application, int instance) {
    std::lock_guard lock(identity().mu);
    identity().application = application;
    identity().instance = instance;
}

int qorPlatformApplication() {
    std::lock_guard lock(identity().mu);
    return identity().application;
}

int qorPlatformInstance() {
    std::lock_guard lock(identity().mu);
    return identity().instance;
}

const char* qorRunDir() {
    // The string only changes before the daemon's tasks start.
    return identity().runDir.c_str();
}

void qorSetRunDir(const char* dir) {
    std::lock_guard lock(identity().mu);
    identity().runDir = dir ? dir : "/run/qor";
}

int qorDdbInit(char** /*argv*/) { return 0; }

int qorTaskStartup(int /*argc*/, char** /*argv*/, int service, int instance) {
    TaskEntry e{service ? service : qorPlatformApplication(),
                instance ? instance : qorPlatformInstance(), false};
    std::lock_guard lock(startups().mu);
    startups().entries.push_back(e);
    return int(startups().entries.size());
}

int qorTaskReady(int taskKey) {
    std::lock_guard lock(startups().mu);
    if (taskKey < 1 || size_t(taskKey) > startups().entries.size()) return ERROR;
    startups().entries[size_t(taskKey) - 1].ready = true;
    return OK;
}

int qorTaskGetServiceByKey(int taskKey) {
    TaskEntry e{};
    return lookupTask(taskKey, e) ? e.service : ERROR;
}

int qorTaskGetInstanceByKey(int taskKey) {
    TaskEntry e{};
    return lookupTask(taskKey, e) ? e.instance : ERROR;
}

int qorTaskGetIpcKey(int taskKey) {
    TaskEntry e{};
    return lookupTask(taskKey, e) ? taskKey : ERROR;
}
