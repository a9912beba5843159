// evtlog.cpp -- the event log (RUNDIR/eventlog and syslog), module trace
// flags with the console sink, and the history ring.
#include "qor/evtlog.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unordered_map>

#include "qor/task.h"

namespace {

// ---- event log --------------------------------------------------------------

// One service's log. The handle is the index in EvtState::logs.
struct EvtLog {
    std::string name;
    int facility = 0;
    int service = 0;
    int instance = 0;
    uint32_t mask = 0x7F;  // EMERG..INFO, as the daemon starts
    int svceFlags = 0;
};

struct EvtState {
    std::mutex mu;
    std::vector<EvtLog> logs;
    std::unordered_map<uint32_t, QorEvtCode> codes;
    bool useSyslog = false;
    int fd = -1;
    std::string fdRunDir;  // the run directory fd was opened in
    size_t fileSize = 0;   // of the open file, as written through fd
    size_t limit = QOR_EVT_LOG_LIMIT;
    // Lines gathered for fd by loop threads, not yet written.
    std::vector<char> pending;
    size_t pendingLen = 0;
    // A thread gathers while its generation is this one: qorEvtReset ends
    // every thread's gathering by moving it on.
    uint64_t generation = 1;
    // Whether a loop has input waiting (qorEvtSetInputProbe); null: never.
    bool (*inputWaiting)() = nullptr;
    // The wall clock's second whose "YYYY-MM-DD HH:MM:SS" is in stamp.
    time_t stampSecond = -1;
    char stamp[24] = {};
    size_t stampLen = 0;
};

// The generation in which this thread called qorEvtLoopFlush; 0: never.
thread_local uint64_t tLoopGeneration = 0;

constexpr size_t kMaxLogs = 64;
// A line holds the header, up to kTextMax bytes of text and the value.
constexpr size_t kTextMax = 1024;
constexpr size_t kLineMax = kTextMax + 256;

EvtState& evt() {
    // Never destroyed: detached tasks may still log while the process exits.
    static EvtState* s = new EvtState;
    return *s;
}

const char* severityName(int severity) {
    switch (severity) {
        case EVT_LOGEMERG:
            return "EVT_LOGEMERG";
        case EVT_LOGALERT:
            return "EVT_LOGALERT";
        case EVT_LOGCRITICAL:
            return "EVT_LOGCRITICAL";
        case EVT_LOGERROR:
            return "EVT_LOGERROR";
        case EVT_LOGWARNING:
            return "EVT_LOGWARNING";
        case EVT_LOGNOTIFY:
            return "EVT_LOGNOTIFY";
        case EVT_LOGINFO:
            return "EVT_LOGINFO";
        case EVT_LOGDEBUG:
            return "EVT_LOGDEBUG";
        case EVT_LOGDEVLP:
            return "EVT_LOGDEVLP";
        default:
            return "EVT_LOGUNKNOWN";
    }
}

int syslogPriority(int severity) {
    // Severities 0..7 are syslog's own levels; the development level is debug.
    return (severity >= EVT_LOGEMERG && severity <= EVT_LOGDEBUG) ? severity : LOG_DEBUG;
}

bool severityEnabled(uint32_t mask, int severity) {
    return severity >= 0 && severity < 32 && (mask >> severity & 1u) != 0;
}

EvtLog* findLog(EvtState& s, int handle) {
    if (handle < 0 || size_t(handle) >= s.logs.size()) return nullptr;
    return &s.logs[size_t(handle)];
}

constexpr size_t kPendingMax = size_t(64) << 10;
// A loop writes what it gathered once this much is there, input or not.
constexpr size_t kPendingWriteNow = kPendingMax / 2;

void closeFd(EvtState& s) {
    if (s.fd >= 0) close(s.fd);
    s.fd = -1;
    s.fileSize = 0;
}

int openEventlog(EvtState& s) {
    s.fd = open((s.fdRunDir + "/eventlog").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    struct stat st {};
    s.fileSize = s.fd >= 0 && fstat(s.fd, &st) == 0 ? size_t(st.st_size) : 0;
    return s.fd;
}

// Past the limit the file becomes eventlog.1 and a new one starts. A reader
// following the name (tail -F) goes on with the new file.
void rotateIfFull(EvtState& s) {
    if (s.fd < 0 || s.fileSize < s.limit) return;
    const std::string path = s.fdRunDir + "/eventlog";
    if (rename(path.c_str(), (path + ".1").c_str()) != 0) return;  // kept growing rather than lost
    closeFd(s);
    openEventlog(s);
}

// With O_APPEND, each write lands whole after whatever is there; nothing
// waits for the disk. A failed write loses its events and nothing else.
void writeOut(EvtState& s, const char* bytes, size_t len) {
    if (s.fd < 0 || len == 0) return;
    const ssize_t n = write(s.fd, bytes, len);
    if (n > 0) s.fileSize += size_t(n);
    rotateIfFull(s);
}

void flushPending(EvtState& s) {
    writeOut(s, s.pending.data(), s.pendingLen);
    s.pendingLen = 0;
}

// The event log's descriptor, opened once per run directory: a test or the
// daemon may move the run directory, an event never reopens the file.
// Lines gathered for the previous directory are written there first.
int eventlogFd(EvtState& s) {
    const char* dir = qorRunDir();
    if (s.fd >= 0 && s.fdRunDir == dir) return s.fd;
    flushPending(s);
    closeFd(s);
    s.fdRunDir = dir;
    return openEventlog(s);
}

// Appends "YYYY-MM-DD HH:MM:SS.mmm" of the wall clock, local time; the
// seconds are formatted once per second.
size_t putTimestamp(EvtState& s, char* out) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    if (ts.tv_sec != s.stampSecond) {
        tm local{};
        localtime_r(&ts.tv_sec, &local);
        s.stampLen = strftime(s.stamp, sizeof s.stamp, "%Y-%m-%d %H:%M:%S", &local);
        s.stampSecond = ts.tv_sec;
    }
    std::memcpy(out, s.stamp, s.stampLen);
    size_t n = s.stampLen;
    const long ms = ts.tv_nsec / 1000000;
    out[n++] = '.';
    out[n++] = char('0' + ms / 100);
    out[n++] = char('0' + ms / 10 % 10);
    out[n++] = char('0' + ms % 10);
    return n;
}

size_t putText(char* out, const char* text) {
    const size_t n = strlen(text);
    std::memcpy(out, text, n);
    return n;
}

// Upper-case hexadecimal, at least six digits.
size_t putCode(char* out, uint32_t code) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    int digits = 6;
    while (digits < 8 && (code >> (4 * digits)) != 0) ++digits;
    for (int i = 0; i < digits; ++i) out[i] = kDigits[(code >> (4 * (digits - 1 - i))) & 0xF];
    return size_t(digits);
}

// Builds the whole line, newline included: "<time> <log> <severity> <name>
// 0x<code>: <text>[ (value N)]". The text is cut at kTextMax - 1 bytes and
// the line still ends with its newline. Returns the length.
size_t formatLine(EvtState& s, char* line, const EvtLog& log, const QorEvtCode& code, uint32_t value,
                  va_list ap) {
    // The header's parts are bounded: the name of a log or a code is cut at 64 bytes.
    auto putName = [](char* out, const char* name) {
        const size_t n = strnlen(name, 64);
        std::memcpy(out, name, n);
        return n;
    };
    size_t len = putTimestamp(s, line);
    line[len++] = ' ';
    len += putName(line + len, log.name.c_str());
    line[len++] = ' ';
    len += putText(line + len, severityName(code.severity));
    line[len++] = ' ';
    len += putName(line + len, code.name ? code.name : "?");
    len += putText(line + len, " 0x");
    len += putCode(line + len, code.code);
    len += putText(line + len, ": ");
    const int n = vsnprintf(line + len, kTextMax, code.format ? code.format : "", ap);
    len += std::min(size_t(std::max(n, 0)), kTextMax - 1);
    if (code.showValue) {
        const int v = snprintf(line + len, kLineMax - 1 - len, " (value %u)", value);
        len = std::min(len + size_t(std::max(v, 0)), kLineMax - 2);
    }
    line[len++] = '\n';
    line[len] = '\0';
    return len;
}

// A loop thread's line waits in the buffer; any other thread's is written
// at once, after the buffer, so lines keep their order.
void writeEvent(EvtState& s, const char* line, size_t len, int severity) {
    const int fd = eventlogFd(s);
    if (fd >= 0) {
        const bool gathering = tLoopGeneration == s.generation;
        if (s.pendingLen + len > kPendingMax) flushPending(s);
        if (gathering || s.pendingLen > 0) {
            if (s.pending.size() < kPendingMax) s.pending.resize(kPendingMax);
            std::memcpy(s.pending.data() + s.pendingLen, line, len);
            s.pendingLen += len;
            if (!gathering) flushPending(s);
        } else {
            writeOut(s, line, len);
        }
    }
    if (s.useSyslog) {
        const char* body = strchr(line, ' ');  // after the date: syslog stamps its own time
        body = body ? strchr(body + 1, ' ') : nullptr;
        syslog(LOG_DAEMON | syslogPriority(severity), "%.*s", int(len - 1), body ? body + 1 : line);
    }
}

int vsysErr(int handle, uint32_t code, va_list ap) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    const EvtLog* log = findLog(s, handle);
    auto it = s.codes.find(code);
    if (!log || it == s.codes.end()) return ERROR;
    const QorEvtCode& c = it->second;
    const uint32_t value = va_arg(ap, unsigned int);
    if (!severityEnabled(log->mask, c.severity)) return OK;
    char line[kLineMax];
    const size_t len = formatLine(s, line, *log, c, value, ap);
    writeEvent(s, line, len, c.severity);
    return OK;
}

// ---- tracing ------------------------------------------------------------------

constexpr int kMaxTraceModules = 1024;
constexpr size_t kTraceMax = 4096;

std::array<std::atomic<uint32_t>, kMaxTraceModules>& traceFlags() {
    static std::array<std::atomic<uint32_t>, kMaxTraceModules>* flags =
        new std::array<std::atomic<uint32_t>, kMaxTraceModules>{};
    return *flags;
}

struct Console {
    std::mutex mu;
    std::function<void(const std::string&)> sink;  // empty: standard output
};

Console& console() {
    static Console* c = new Console;
    return *c;
}

void writeStdout(const std::string& text) {
    // A trace line is one console line, whether or not its text ends one.
    fputs(text.c_str(), stdout);
    if (text.empty() || text.back() != '\n') fputc('\n', stdout);
    fflush(stdout);
}

std::string vformat(const char* format, va_list ap) {
    char buf[kTraceMax];
    const int n = vsnprintf(buf, sizeof buf, format ? format : "", ap);
    return n < 0 ? std::string() : std::string(buf, std::min(size_t(n), sizeof buf - 1));
}

int vconsolePrintf(const char* format, va_list ap) {
    const std::string text = vformat(format, ap);
    std::function<void(const std::string&)> sink;
    {
        std::lock_guard lock(console().mu);
        sink = console().sink;
    }
    if (sink)
        sink(text);
    else
        writeStdout(text);
    return int(text.size());
}

// ---- history ------------------------------------------------------------------

// A ring of `entries` slots of `entrySize` bytes: each entry is a C string of
// at most entrySize - 1 characters.
struct History {
    std::mutex mu;
    size_t entries = 0;
    size_t entrySize = 0;
    int flags = 0;
    bool enabled = false;
    std::vector<char> ring;
    size_t next = 0;   // slot written next
    size_t count = 0;  // slots in use
};

constexpr size_t kHistoryMaxBytes = size_t(64) << 20;

History& history() {
    static History* h = new History;
    return *h;
}

void historyClear(History& h) {
    h.entries = h.entrySize = 0;
    h.flags = 0;
    h.enabled = false;
    h.ring.clear();
    h.ring.shrink_to_fit();
    h.next = h.count = 0;
}

}  // namespace

// ---- event log ------------------------------------------------------------------

void qorEvtRegisterCodes(std::span<const QorEvtCode> codes) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    for (const QorEvtCode& c : codes) s.codes[c.code] = c;
}

int qorEvtOpenlog(const char* name, int facility, int service, int instance) {
    if (!name || !*name) return ERROR;
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    if (s.logs.size() >= kMaxLogs) return ERROR;
    s.logs.push_back(EvtLog{name, facility, service, instance});
    return int(s.logs.size() - 1);
}

int qorEvtSetSeverityLevel(int handle, uint32_t mask) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    EvtLog* log = findLog(s, handle);
    if (!log) return ERROR;
    log->mask = mask;
    return OK;
}

uint32_t qorEvtGetSeverityLevel(int handle) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    const EvtLog* log = findLog(s, handle);
    return log ? log->mask : 0;
}

int qorEvtRegisterSvce(int handle, int flags) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    EvtLog* log = findLog(s, handle);
    if (!log) return ERROR;
    log->svceFlags = flags;
    return OK;
}

int qorSysErr(int handle, int /*flags*/, uint32_t code, ...) {
    va_list ap;
    va_start(ap, code);
    const int rc = vsysErr(handle, code, ap);
    va_end(ap);
    return rc;
}

void qorEvtUseSyslog(bool on) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    s.useSyslog = on;
}

std::string qorEvtLogPath() { return std::string(qorRunDir()) + "/eventlog"; }

void qorEvtLoopFlush() {
    // What a loop gathered when the process exits is written then.
    static const int atExit = std::atexit([] {
        EvtState& e = evt();
        std::lock_guard lock(e.mu);
        flushPending(e);
    });
    (void)atExit;
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    tLoopGeneration = s.generation;
    // Input waiting: the loop does not block and comes back here soon.
    if (s.pendingLen < kPendingWriteNow && s.inputWaiting != nullptr && s.inputWaiting()) return;
    flushPending(s);
}

void qorEvtSetInputProbe(bool (*probe)()) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    s.inputWaiting = probe;
}

void qorEvtSetLogLimit(size_t bytes) {
    EvtState& s = evt();
    std::lock_guard lock(s.mu);
    s.limit = bytes != 0 ? bytes : QOR_EVT_LOG_LIMIT;
    rotateIfFull(s);
}

void qorEvtReset() {
    {
        EvtState& s = evt();
        std::lock_guard lock(s.mu);
        s.logs.clear();
        s.codes.clear();
        s.useSyslog = false;
        flushPending(s);
        closeFd(s);
        s.fdRunDir.clear();
        s.limit = QOR_EVT_LOG_LIMIT;
        s.inputWaiting = nullptr;
        ++s.generation;
    }
    for (auto& f : traceFlags()) f.store(0);
    qorSetConsoleSink(nullptr);
    History& h = history();
    std::lock_guard lock(h.mu);
    historyClear(h);
}

// ---- tracing ------------------------------------------------------------------

uint32_t wrap_modtraceflags(int module) {
    if (module < 0 || module >= kMaxTraceModules) return 0;
    return traceFlags()[size_t(module)].load(std::memory_order_relaxed);
}

void qorSetModTraceFlags(int module, uint32_t flags) {
    if (module < 0 || module >= kMaxTraceModules) return;
    traceFlags()[size_t(module)].store(flags, std::memory_order_relaxed);
}

int qorTracePrintf(int /*module*/, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const int n = vconsolePrintf(format, ap);
    va_end(ap);
    return n;
}

int qorErrorPrintf(int /*module*/, const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    const int n = vconsolePrintf(format, ap);
    va_end(ap);
    return n;
}

void qorSetConsoleSink(std::function<void(const std::string&)> sink) {
    std::lock_guard lock(console().mu);
    console().sink = std::move(sink);
}

// ---- history ------------------------------------------------------------------

int qorInitHistoryTable(int entries, int entrySize, int flags) {
    if (entries <= 0 || entrySize <= 1) return ERROR;
    if (size_t(entries) * size_t(entrySize) > kHistoryMaxBytes) return ERROR;
    History& h = history();
    std::lock_guard lock(h.mu);
    historyClear(h);
    h.entries = size_t(entries);
    h.entrySize = size_t(entrySize);
    h.flags = flags;
    h.ring.assign(h.entries * h.entrySize, '\0');
    return OK;
}

int qorEnableHistoryLogging() {
    History& h = history();
    std::lock_guard lock(h.mu);
    if (h.entries == 0) return ERROR;
    h.enabled = true;
    return OK;
}

int qorDisableHistoryLogging() {
    History& h = history();
    std::lock_guard lock(h.mu);
    if (h.entries == 0) return ERROR;
    h.enabled = false;
    return OK;
}

int qorHistory(const char* format, ...) {
    History& h = history();
    std::lock_guard lock(h.mu);
    if (h.entries == 0) return ERROR;
    if (!h.enabled) return OK;
    if (format == nullptr) return ERROR;
    va_list ap;
    va_start(ap, format);
    vsnprintf(&h.ring[h.next * h.entrySize], h.entrySize, format, ap);
    va_end(ap);
    h.next = (h.next + 1) % h.entries;
    h.count = std::min(h.count + 1, h.entries);
    return OK;
}

std::vector<std::string> qorHistoryEntries() {
    History& h = history();
    std::lock_guard lock(h.mu);
    std::vector<std::string> out;
    out.reserve(h.count);
    const size_t first = (h.next + h.entries - h.count) % std::max<size_t>(h.entries, 1);
    for (size_t i = 0; i < h.count; ++i)
        out.emplace_back(&h.ring[(first + i) % h.entries * h.entrySize]);
    return out;
}
