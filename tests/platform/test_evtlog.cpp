// The event log as an operator reads it (RUNDIR/eventlog), the module trace
// flags and console, and the history ring.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "dhcpv6RelayEvents.h"
#include "qor/evtlog.h"
#include "qor/task.h"

namespace {

using Lines = std::vector<std::string>;

constexpr QorEvtCode kTestCodes[] = {
    {0x910001, "TEST_EMERG", EVT_LOGEMERG, "emergency", false},
    {0x910002, "TEST_ERROR", EVT_LOGERROR, "failed on %s (%d)", false},
    {0x910003, "TEST_WARNING", EVT_LOGWARNING, "warning", false},
    {0x910004, "TEST_INFO", EVT_LOGINFO, "info", false},
    {0x910005, "TEST_DEBUG", EVT_LOGDEBUG, "debug", false},
    {0x910006, "TEST_DEVLP", EVT_LOGDEVLP, "development", false},
    {0x910007, "TEST_VALUE", EVT_LOGNOTIFY, "count reached", true},
    {0x910008, "TEST_TEXT", EVT_LOGNOTIFY, "%s", false},
};

// The text after "YYYY-MM-DD HH:MM:SS.mmm ", or "" when the line does not
// start with such a time.
std::string afterTimestamp(const std::string& line) {
    const std::string shape = "0000-00-00 00:00:00.000 ";
    if (line.size() < shape.size()) return "";
    for (size_t i = 0; i < shape.size(); ++i) {
        const bool digit = std::isdigit(static_cast<unsigned char>(line[i])) != 0;
        if (shape[i] == '0' ? !digit : line[i] != shape[i]) return "";
    }
    return line.substr(shape.size());
}

// A run directory of its own for each test; the previous one comes back after.
class Evt : public ::testing::Test {
protected:
    std::string savedRunDir = qorRunDir();
    std::string runDir;
    int log = -1;

    void SetUp() override {
        qorEvtReset();
        char tmpl[] = "/tmp/qor-evtlog-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        runDir = tmpl;
        qorSetRunDir(runDir.c_str());
        qorEvtRegisterCodes(kTestCodes);
        qorEvtRegisterCodes(dhcpv6RelayEvtCodes);
        log = qorEvtOpenlog("DHCPV6RELAYMGR", 3, 336, 0);
        ASSERT_GE(log, 0);
    }
    void TearDown() override {
        qorEvtReset();
        qorSetRunDir(savedRunDir.c_str());
        std::filesystem::remove_all(runDir);
    }
    static Lines lines(const std::string& path = qorEvtLogPath()) {
        std::ifstream in(path);
        Lines out;
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
};

TEST_F(Evt, LineCarriesTimeLogSeverityNameCodeTextAndValue) {
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "eth3", 17), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910007, 4000), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910004, 4000), OK);  // this code does not show its value
    ASSERT_EQ(qorSysErr(log, 0, 0x910008, 0, std::string(5000, 'x').c_str()), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(afterTimestamp(got[0]), "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on eth3 (17)") << got[0];
    EXPECT_EQ(afterTimestamp(got[1]), "DHCPV6RELAYMGR EVT_LOGNOTIFY TEST_VALUE 0x910007: count reached (value 4000)");
    EXPECT_EQ(afterTimestamp(got[2]), "DHCPV6RELAYMGR EVT_LOGINFO TEST_INFO 0x910004: info");
    EXPECT_LT(got[3].size(), 5000u) << "a long text is cut, and its line still ends";
    EXPECT_NE(got[3].find("TEST_TEXT 0x910008: xxxx"), std::string::npos);
}

TEST_F(Evt, UnknownCodeOrHandleIsRefusedAndWritesNothing) {
    EXPECT_EQ(qorSysErr(log, 0, 0x910099, 0), ERROR);
    EXPECT_EQ(qorSysErr(log + 1, 0, 0x910004, 0), ERROR);
    EXPECT_EQ(qorSysErr(-1, 0, 0x910004, 0), ERROR);
    EXPECT_TRUE(lines().empty());
    EXPECT_EQ(qorEvtSetSeverityLevel(log + 1, 0xFF), ERROR);
    EXPECT_EQ(qorEvtRegisterSvce(-1, 1), ERROR);
    EXPECT_EQ(qorEvtRegisterSvce(log, 1), OK);
}

TEST_F(Evt, SeverityMaskLetsThroughOnlyItsLevels) {
    EXPECT_EQ(qorEvtGetSeverityLevel(log), 0x7Fu) << "a log opens at level info";
    // The masks the log-level command sets: bits 0 to the level.
    struct Case {
        uint32_t mask, code;
        bool written;
    };
    size_t expected = 0;
    for (const Case& c : {Case{0x7F, 0x910004, true}, Case{0x7F, 0x910005, false}, Case{0xFF, 0x910005, true},
                          Case{0x0F, 0x910002, true}, Case{0x0F, 0x910003, false}, Case{0x03, 0x910001, true},
                          Case{0x1FFFFFF, 0x910006, true}, Case{0xFF, 0x910006, false}, Case{0, 0x910001, false},
                          // Level notify keeps lease events and drops the per-packet ones.
                          Case{0x3F, DHCPV6_EVT_RELAY_FWD_SENT, false}, Case{0x3F, DHCPV6_EVT_LEASE_ADDED, true}}) {
        ASSERT_EQ(qorEvtSetSeverityLevel(log, c.mask), OK);
        EXPECT_EQ(qorEvtGetSeverityLevel(log), c.mask);
        ASSERT_EQ(qorSysErr(log, 0, c.code, 0, "x", 0), OK) << "a filtered event is not an error";
        expected += c.written;
        EXPECT_EQ(lines().size(), expected) << std::hex << "mask " << c.mask << " code " << c.code;
    }
}

TEST_F(Evt, MovedRunDirectoryGetsItsOwnEventLog) {
    const std::string first = qorEvtLogPath(), second = runDir + "/sub";
    ASSERT_EQ(qorSysErr(log, 0, 0x910004, 0), OK);
    std::filesystem::create_directory(second);
    qorSetRunDir(second.c_str());
    ASSERT_EQ(qorSysErr(log, 0, 0x910003, 0), OK);
    EXPECT_EQ(lines(first).size(), 1u);
    const auto moved = lines(second + "/eventlog");
    ASSERT_EQ(moved.size(), 1u);
    EXPECT_NE(moved[0].find("TEST_WARNING"), std::string::npos);
    qorSetRunDir(runDir.c_str());
}

TEST_F(Evt, EventsFromTwoTasksAreWholeLines) {
    constexpr int kPerTask = 2000;
    auto raise = [&](const char* task) {
        for (int i = 0; i < kPerTask; ++i) qorSysErr(log, 0, 0x910002, 0, task, i);
    };
    std::thread a(raise, "task-a"), b(raise, "task-b");
    a.join();
    b.join();
    const auto got = lines();
    ASSERT_EQ(got.size(), size_t(2 * kPerTask));
    std::set<std::pair<char, int>> seen;
    for (const auto& l : got) {
        char task = 0, end = 0;
        int n = -1;
        ASSERT_EQ(sscanf(afterTimestamp(l).c_str(),
                         "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on task-%c (%d%c", &task, &n, &end),
                  3)
            << l;
        EXPECT_EQ(end, ')') << l;
        EXPECT_TRUE(seen.insert({task, n}).second) << "line twice: " << l;
    }
}

// A loop thread's events appear at the end of its pass, or, while more
// input waits, at the end of a later pass; another thread's event appears
// at once, after them, in order.
TEST_F(Evt, LoopEventsAppearAtTheLoopsFlushAndOtherThreadsKeepTheOrder) {
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "before", 0), OK);
    EXPECT_EQ(lines().size(), 1u) << "a thread that never flushed writes at once";
    qorEvtLoopFlush();
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "loop", 1), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "loop", 2), OK);
    EXPECT_EQ(lines().size(), 1u) << "gathered until the loop's flush";
    std::thread([&] { qorSysErr(log, 0, 0x910002, 0, "chassis", 3); }).join();
    EXPECT_EQ(lines().size(), 4u);
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "loop", 4), OK);
    static bool inputWaits = true;
    qorEvtSetInputProbe([] { return inputWaits; });
    qorEvtLoopFlush();
    EXPECT_EQ(lines().size(), 4u) << "input waits: the loop comes back before it blocks";
    inputWaits = false;
    qorEvtLoopFlush();
    std::string order;
    for (const auto& l : lines()) order += l.substr(l.find('(') + 1, 1);
    EXPECT_EQ(order, "01234");
}

// Past its limit the log moves to eventlog.1 and starts again; no line is
// lost or split, and only one old file is kept.
TEST_F(Evt, LogPastItsLimitRotatesIntoOneOlderFile) {
    constexpr size_t kLimit = 2000;
    qorEvtSetLogLimit(kLimit);
    for (bool loop : {false, true}) {
        if (loop) qorEvtLoopFlush();
        const int last = loop ? 199 : 99;  // numbered on across both rounds
        for (int i = last - 99; i <= last; ++i) ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "eth3", i), OK);
        qorEvtLoopFlush();
        auto all = lines(qorEvtLogPath() + ".1");
        const size_t older = all.size();
        for (auto& l : lines()) all.push_back(l);
        EXPECT_FALSE(std::filesystem::exists(qorEvtLogPath() + ".2"));
        ASSERT_GT(older, 0u);
        EXPECT_LE(std::filesystem::file_size(qorEvtLogPath()), kLimit + 128) << "loop " << loop;
        int next = -1;
        for (const auto& l : all) {
            int n = -1;
            ASSERT_EQ(sscanf(afterTimestamp(l).c_str(),
                             "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on eth3 (%d)", &n),
                      1)
                << l;
            if (next >= 0) {
                EXPECT_EQ(n, next) << "loop " << loop;
            }
            next = n + 1;
        }
        EXPECT_EQ(next, last + 1) << "the newest line is the last one kept";
    }
}

// The relay manager's own table: every code raised with the arguments its
// callers pass reads as a whole sentence.
TEST_F(Evt, RelayCodesAreEachNamedOnceAndShowTheirCallersArguments) {
    std::set<uint32_t> codes;
    for (const QorEvtCode& c : dhcpv6RelayEvtCodes) {
        EXPECT_TRUE(codes.insert(c.code).second) << std::hex << c.code;
        EXPECT_EQ(std::string(c.name).rfind("DHCPV6_EVT_", 0), 0u) << c.name;
    }
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SOCKET_RECV_FAILED, 7), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_CLIENT_PKT_FLOODED, 0, "SOLICIT", "QORS18000a", "fe80::1"), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_CLIENT_PKT_RELAYED, 0, "REQUEST", "fe80::2", "QORS18000b"), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_LEASE_ADDED, 0, "2001:db8:1::", 56), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_LEASE_REMOVED, 0, "", 56), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SNOOP_BINDING_RELEASED, 0, "2001:db8:2::", "00:11:22:33:44:55",
                        "QORS18000a", "QORS1001"),
              OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SNOOP_TBL_FULL, 4000), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_TMR_START_FAILED, 0), OK);
    const auto got = lines();
    const std::vector<Lines> expect = {
        {"EVT_LOGERROR DHCPV6_EVT_SOCKET_RECV_FAILED 0x540004", "(value 7)"},
        {"DHCPV6_EVT_CLIENT_PKT_FLOODED 0x540013", "SOLICIT", "QORS18000a", "fe80::1"},
        {"DHCPV6_EVT_CLIENT_PKT_RELAYED 0x540016", "REQUEST", "fe80::2", "QORS18000b"},
        {"DHCPV6_EVT_LEASE_ADDED 0x540017", "2001:db8:1::/56"},
        {"DHCPV6_EVT_LEASE_REMOVED 0x540018", "/56"},
        {"DHCPV6_EVT_SNOOP_BINDING_RELEASED 0x54001A", "2001:db8:2::", "00:11:22:33:44:55", "QORS1001"},
        {"DHCPV6_EVT_SNOOP_TBL_FULL 0x54001B", "(value 4000)"},
        {"DHCPV6_EVT_TMR_START_FAILED 0x540009"},
    };
    ASSERT_EQ(got.size(), expect.size());
    for (size_t i = 0; i < expect.size(); ++i)
        for (const auto& part : expect[i]) EXPECT_NE(got[i].find(part), std::string::npos) << got[i];
}

TEST(EvtTrace, ModuleFlagsAreKeptPerModuleAndTextsReachTheConsoleAsFormatted) {
    qorEvtReset();
    Lines printed;
    qorSetConsoleSink([&printed](const std::string& s) { printed.push_back(s); });
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0u);
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0x3);
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0x3u);
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6 + 1), 0u);
    EXPECT_EQ(wrap_modtraceflags(-1), 0u);
    qorTracePrintf(QOR_TRACE_MODULE_DHCPV6, "%s: line %d:dhcpv6RelayMgrVarInit failed ", "dhcpv6RelayMgrMain", 123);
    qorErrorPrintf(QOR_TRACE_MODULE_DHCPV6, "DHCPV6RELAYMGR select returned error: %d", 4);
    EXPECT_EQ(printed, (Lines{"dhcpv6RelayMgrMain: line 123:dhcpv6RelayMgrVarInit failed ",
                              "DHCPV6RELAYMGR select returned error: 4"}));
    qorEvtReset();
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0u);
}

TEST(History, RingKeepsTheNewestEntriesInOrder) {
    const std::pair<int, std::vector<int>> cases[] = {
        {0, {}}, {3, {1, 2, 3}}, {4, {1, 2, 3, 4}}, {5, {2, 3, 4, 5}}, {10, {7, 8, 9, 10}}};
    for (const auto& [appended, kept] : cases) {
        qorEvtReset();
        ASSERT_EQ(qorInitHistoryTable(4, 32, 1), OK);
        ASSERT_EQ(qorEnableHistoryLogging(), OK);
        for (int i = 1; i <= appended; ++i) ASSERT_EQ(qorHistory("send %d failed", i), OK);
        Lines expected;
        for (int n : kept) expected.push_back("send " + std::to_string(n) + " failed");
        EXPECT_EQ(qorHistoryEntries(), expected) << appended << " appended";
    }
    qorEvtReset();
}

TEST(History, RecordsOnlyWhileEnabledAndCutsEntriesToTheirSlot) {
    qorEvtReset();
    EXPECT_EQ(qorHistory("before the table"), ERROR);
    EXPECT_EQ(qorInitHistoryTable(0, 200, 1), ERROR);
    EXPECT_EQ(qorInitHistoryTable(10, 1, 1), ERROR);
    ASSERT_EQ(qorInitHistoryTable(10000, 16, 1), OK);
    EXPECT_EQ(qorHistory("not yet enabled"), OK);
    ASSERT_EQ(qorEnableHistoryLogging(), OK);
    qorHistory("%s: size act/sent %d/%d err %d\r\n", "sendDhcpV6Packet", 120, 0, 101);
    ASSERT_EQ(qorDisableHistoryLogging(), OK);
    qorHistory("dropped");
    EXPECT_EQ(qorHistoryEntries(), Lines{"sendDhcpV6Packe"});
    qorEvtReset();
}

}  // namespace
