// qor/evtlog.h -- the event log, module tracing and the history ring.
//
// Event log: qorEvtOpenlog() opens the log of one service; qorSysErr() writes
// one line per event to RUNDIR/eventlog (and to syslog when asked): time,
// severity, the code's name and its text. The codes, their names, severities
// and text formats are the owner's table, registered once with
// qorEvtRegisterCodes(). An event is written only when its severity's bit is
// set in the log's severity mask. Lines go to the kernel with write(), never
// synced to disk, so that per-packet events stay cheap.
//
// An event loop may gather its events: once a thread has called
// qorEvtLoopFlush(), its events wait in a buffer (at most 64 KB) until its
// next call, which the loop makes at the end of each pass, before it waits
// for input. That call writes them, unless the loop has more input already
// waiting (the socket layer's probe, qorEvtSetInputProbe), so that it will
// not wait: then a busy loop's lines go out together, one write for many
// passes, and still before the loop next waits (or once 32 KB are
// gathered). A reader tailing the log sees every event once the loop is
// idle, and within 32 KB of lines while it is busy. An event of any other
// thread writes the buffer first and then itself, so lines keep their order.
//
// Size: when the file passes the limit (QOR_EVT_LOG_LIMIT, 16 MB, or
// qorEvtSetLogLimit) it becomes RUNDIR/eventlog.1, replacing the previous
// one, and a new RUNDIR/eventlog is started: the log keeps at most about
// twice the limit on disk.
//
// Tracing: each platform module has a word of trace flags
// (wrap_modtraceflags); qorTracePrintf/qorErrorPrintf print to the console
// (standard output) through a sink that tests may replace.
//
// History: a ring buffer of the last N formatted entries.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

// Severities (the bit numbers of the severity mask).
enum QorEvtSeverity : int {
    EVT_LOGEMERG = 0,
    EVT_LOGALERT = 1,
    EVT_LOGCRITICAL = 2,
    EVT_LOGERROR = 3,
    EVT_LOGWARNING = 4,
    EVT_LOGNOTIFY = 5,
    EVT_LOGINFO = 6,
    EVT_LOGDEBUG = 7,
    EVT_LOGDEVLP = 24,
};

// One event code. qorSysErr(handle, flags, code, value, ...) takes a 32-bit
// value first and then the arguments of `format` (printf conversions).
// When showValue is set the line ends with " (value N)".
struct QorEvtCode {
    uint32_t code;
    const char* name;
    int severity;
    const char* format;
    bool showValue;
};

void qorEvtRegisterCodes(std::span<const QorEvtCode> codes);

// A handle (>= 0) or -1. `facility` is the platform's log facility, kept.
int qorEvtOpenlog(const char* name, int facility, int service, int instance);
int qorEvtSetSeverityLevel(int handle, uint32_t mask);  // OK or ERROR (bad handle)
uint32_t qorEvtGetSeverityLevel(int handle);
int qorEvtRegisterSvce(int handle, int flags);
int qorSysErr(int handle, int flags, uint32_t code, ...);  // OK, or ERROR (bad handle / code)
void qorEvtUseSyslog(bool on);
// The event log's file (RUNDIR/eventlog) for readers and tests.
std::string qorEvtLogPath();
// Writes the events the calling thread gathered (see above), and gathers
// its later events. Call it at the end of each pass of the loop.
void qorEvtLoopFlush();
// probe() tells whether the loop has input waiting, so that it will not
// block: the socket layer's, for its protocol socket; null for none.
void qorEvtSetInputProbe(bool (*probe)());
// The size at which the event log is rotated; 0 restores QOR_EVT_LOG_LIMIT.
constexpr size_t QOR_EVT_LOG_LIMIT = size_t(16) << 20;
void qorEvtSetLogLimit(size_t bytes);
// Closes every log and forgets registrations (tests); also writes what was
// gathered, ends every thread's gathering, restores the size limit, clears
// the trace flags, restores the console sink and drops the history table.
void qorEvtReset();

// Module tracing.
constexpr int QOR_TRACE_MODULE_DHCPV6 = 102;
uint32_t wrap_modtraceflags(int module);
void qorSetModTraceFlags(int module, uint32_t flags);
int qorTracePrintf(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
int qorErrorPrintf(int module, const char* format, ...) __attribute__((format(printf, 2, 3)));
// Where trace and error lines go (default: stdout). Null restores the default.
void qorSetConsoleSink(std::function<void(const std::string&)> sink);

// History ring: `entries` slots of `entrySize` bytes, each entry a C string
// of at most entrySize - 1 characters (longer ones are cut); the oldest entry
// is overwritten when the ring is full. Recording starts when enabled.
// qorHistory returns ERROR before qorInitHistoryTable, OK otherwise.
int qorInitHistoryTable(int entries, int entrySize, int flags);
int qorEnableHistoryLogging();
int qorDisableHistoryLogging();
int qorHistory(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Oldest first.
std::vector<std::string> qorHistoryEntries();
