// evtlog.cpp -- the event log (RUNDIR/eventlog and syslog), module trace
// flags with the console sink, and the history ring.
#include "qor/evtlog.h"

#include <fcntl.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
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
};

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

// The event log's descriptor, opened once per run directory: a test or the
// daemon may move the run directory, an event never reopens the file.
int eventlogFd(EvtState& s) {
    const char* dir = qorRunDir();
    if (s.fd >= 0 && s.fdRunDir == dir) return s.fd;
    if (s.fd >= 0) close(s.fd);
    s.fdRunDir = dir;
    s.fd =
        open((s.fdRunDir + "/eventlog").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    return s.fd;
}

// "YYYY-MM-DD HH:MM:SS.mmm" of the wall clock, local time; out holds 32 bytes.
void formatTimestamp(char (&out)[32]) {
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    size_t n = strftime(out, sizeof out - 5, "%Y-%m-%d %H:%M:%S", &local);
    const long ms = ts.tv_nsec / 1000000;
    out[n++] = '.';
    out[n++] = char('0' + ms / 100);
    out[n++] = char('0' + ms / 10 % 10);
    out[n++] = char('0' + ms % 10);
    out[n] = '\0';
}

// Builds the whole line, newline included; a line too long for the buffer is
// cut but still ends with its newline. Returns the length.
size_t formatLine(char* line, const EvtLog& log, const QorEvtCode& code, const char* text,
                  uint32_t value) {
    char stamp[32];
    formatTimestamp(stamp);
    int n = snprintf(line, kLineMax, "%s %s %s %s 0x%06X: %s", stamp, log.name.c_str(),
                     severityName(code.severity), code.name ? code.name : "?", code.code, text);
    size_t len = std::min(size_t(std::max(n, 0)), kLineMax - 2);
    if (code.showValue) {
        n = snprintf(line + len, kLineMax - 1 - len, " (value %u)", value);
        len = std::min(len + size_t(std::max(n, 0)), kLineMax - 2);
    }
    line[len++] = '\n';
    line[len] = '\0';
    return len;
}

void writeEvent(EvtState& s, const EvtLog& log, const QorEvtCode& code, const char* text,
                uint32_t value) {
    char line[kLineMax];
    const size_t len = formatLine(line, log, code, text, value);
    const int fd = eventlogFd(s);
    // One write per event with O_APPEND: lines from several tasks never mix,
    // and nothing waits for the disk.
    if (fd >= 0 && write(fd, line, len) < 0) {
        // The event is lost; the caller's work goes on regardless.
    }
    if (s.useSyslog) {
        const char* body = strchr(line, ' ');  // after the date: syslog stamps its own time
        body = body ? strchr(body + 1, ' ') : nullptr;
        syslog(LOG_DAEMON | syslogPriority(code.severity), "%.*s", int(len - 1),
               body ? body + 1 : line);
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
    char text[kTextMax];
    vsnprintf(text, sizeof text, c.format ? c.format : "", ap);
    writeEvent(s, *log, c, text, value);
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

void qorEvtReset() {
    {
        EvtState& s = evt();
        std::lock_guard lock(s.mu);
        s.logs.clear();
        s.codes.clear();
        s.useSyslog = false;
        if (s.fd >= 0) close(s.fd);
        s.fd = -1;
        s.fdRunDir.clear();
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
