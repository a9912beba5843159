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

// A run directory of its own for each test; the previous one comes back after.
class EvtFixture : public ::testing::Test {
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
        log = qorEvtOpenlog("DHCPV6RELAYMGR", 3, 336, 0);
        ASSERT_GE(log, 0);
    }
    void TearDown() override {
        qorEvtReset();
        qorSetRunDir(savedRunDir.c_str());
        std::filesystem::remove_all(runDir);
    }
    static std::vector<std::string> lines(const std::string& path = qorEvtLogPath()) {
        std::ifstream in(path);
        std::vector<std::string> out;
        for (std::string l; std::getline(in, l);) out.push_back(l);
        return out;
    }
};

class Evt : public EvtFixture {};

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

TEST_F(Evt, LineCarriesTimeLogSeverityNameCodeAndText) {
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "eth3", 17), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(afterTimestamp(got[0]),
              "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on eth3 (17)")
        << got[0];
}

TEST_F(Evt, ValueIsShownOnlyForCodesThatShowIt) {
    ASSERT_EQ(qorSysErr(log, 0, 0x910007, 4000), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910004, 4000), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_NE(got[0].find("TEST_VALUE 0x910007: count reached (value 4000)"), std::string::npos)
        << got[0];
    EXPECT_EQ(got[1].find("4000"), std::string::npos) << got[1];
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

TEST_F(Evt, OpenedLogStartsWithTheDaemonsSeverityMask) {
    EXPECT_EQ(qorEvtGetSeverityLevel(log), 0x7Fu);
    ASSERT_EQ(qorEvtSetSeverityLevel(log, 0x1FFFFFF), OK);
    EXPECT_EQ(qorEvtGetSeverityLevel(log), 0x1FFFFFFu);
}

TEST_F(Evt, LongTextIsCutButTheLineStillEnds) {
    const std::string longText(5000, 'x');
    ASSERT_EQ(qorSysErr(log, 0, 0x910008, 0, longText.c_str()), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910004, 0), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_LT(got[0].size(), longText.size());
    EXPECT_NE(got[0].find("TEST_TEXT 0x910008: xxxx"), std::string::npos);
    EXPECT_NE(got[1].find("TEST_INFO"), std::string::npos);
}

TEST_F(Evt, MovedRunDirectoryGetsItsOwnEventLog) {
    const std::string first = qorEvtLogPath();
    ASSERT_EQ(qorSysErr(log, 0, 0x910004, 0), OK);
    const std::string second = runDir + "/sub";
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
    auto raise = [&](int task) {
        for (int i = 0; i < kPerTask; ++i)
            qorSysErr(log, 0, 0x910002, 0, task == 0 ? "task-a" : "task-b", i);
    };
    std::thread a(raise, 0);
    std::thread b(raise, 1);
    a.join();
    b.join();
    const auto got = lines();
    ASSERT_EQ(got.size(), size_t(2 * kPerTask));
    std::set<std::pair<char, int>> seen;
    for (const auto& l : got) {
        char task = 0;
        int n = -1;
        char end = 0;
        const std::string rest = afterTimestamp(l);
        ASSERT_EQ(sscanf(rest.c_str(),
                         "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on task-%c (%d%c",
                         &task, &n, &end),
                  3)
            << l;
        EXPECT_EQ(end, ')') << l;
        EXPECT_TRUE(seen.insert({task, n}).second) << "line twice: " << l;
    }
    EXPECT_EQ(seen.size(), size_t(2 * kPerTask));
}

// Which events a severity mask lets through; the masks are those that the
// log-level command sets (bits 0 to the level).
struct MaskCase {
    const char* what;
    uint32_t mask;
    uint32_t code;
    bool written;
};
void PrintTo(const MaskCase& c, std::ostream* os) { *os << c.what; }

class EvtSeverityMask : public EvtFixture, public ::testing::WithParamInterface<MaskCase> {};

TEST_P(EvtSeverityMask, WritesOnlyEnabledSeverities) {
    const MaskCase& c = GetParam();
    ASSERT_EQ(qorEvtSetSeverityLevel(log, c.mask), OK);
    ASSERT_EQ(qorSysErr(log, 0, c.code, 0, "x", 0), OK) << "a filtered event is not an error";
    EXPECT_EQ(lines().size(), c.written ? 1u : 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Evt, EvtSeverityMask,
    ::testing::Values(MaskCase{"info_at_level_info", 0x7F, 0x910004, true},
                      MaskCase{"debug_above_level_info", 0x7F, 0x910005, false},
                      MaskCase{"debug_at_level_debug", 0xFF, 0x910005, true},
                      MaskCase{"error_at_level_error", 0x0F, 0x910002, true},
                      MaskCase{"warning_above_level_error", 0x0F, 0x910003, false},
                      MaskCase{"emergency_at_level_alert", 0x03, 0x910001, true},
                      MaskCase{"development_at_level_devlp", 0x1FFFFFF, 0x910006, true},
                      MaskCase{"development_above_level_debug", 0xFF, 0x910006, false},
                      MaskCase{"nothing_with_empty_mask", 0, 0x910001, false}),
    [](const auto& p) { return std::string(p.param.what); });

// The relay manager's own table: every code raised with the arguments its
// callers pass reads as a whole sentence.
class EvtRelayTable : public EvtFixture {
protected:
    void SetUp() override {
        EvtFixture::SetUp();
        qorEvtRegisterCodes(dhcpv6RelayEvtCodes);
    }
};

TEST_F(EvtRelayTable, CoversEveryCodeOnceWithItsName) {
    std::set<uint32_t> codes;
    for (const QorEvtCode& c : dhcpv6RelayEvtCodes) {
        EXPECT_TRUE(codes.insert(c.code).second) << std::hex << c.code;
        EXPECT_EQ(std::string(c.name).rfind("DHCPV6_EVT_", 0), 0u) << c.name;
    }
    EXPECT_EQ(codes.size(), 26u);
    EXPECT_EQ(*codes.begin(), 0x540002u);
    EXPECT_EQ(*codes.rbegin(), 0x54001Bu);
}

TEST_F(EvtRelayTable, CallerArgumentsAppearInTheLines) {
    ASSERT_EQ(qorEvtSetSeverityLevel(log, 0x7F), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SOCKET_RECV_FAILED, 7 & 0xFFFF), OK);
    ASSERT_EQ(
        qorSysErr(log, 0, DHCPV6_EVT_CLIENT_PKT_FLOODED, 0, "SOLICIT", "QORS18000a", "fe80::1"),
        OK);
    ASSERT_EQ(
        qorSysErr(log, 0, DHCPV6_EVT_CLIENT_PKT_RELAYED, 0, "REQUEST", "fe80::2", "QORS18000b"),
        OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_LEASE_ADDED, 0, "2001:db8:1::", 56), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_LEASE_REMOVED, 0, "", 56), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SNOOP_BINDING_RELEASED, 0,
                        "2001:db8:2::", "00:11:22:33:44:55", "QORS18000a", "QORS1001"),
              OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_SNOOP_TBL_FULL, 4000), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_TMR_START_FAILED, 0), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 8u);
    const std::vector<std::vector<std::string>> expect = {
        {"EVT_LOGERROR DHCPV6_EVT_SOCKET_RECV_FAILED 0x540004", "(value 7)"},
        {"DHCPV6_EVT_CLIENT_PKT_FLOODED 0x540013", "SOLICIT", "QORS18000a", "fe80::1"},
        {"DHCPV6_EVT_CLIENT_PKT_RELAYED 0x540016", "REQUEST", "fe80::2", "QORS18000b"},
        {"DHCPV6_EVT_LEASE_ADDED 0x540017", "2001:db8:1::/56"},
        {"DHCPV6_EVT_LEASE_REMOVED 0x540018", "/56"},
        {"DHCPV6_EVT_SNOOP_BINDING_RELEASED 0x54001A", "2001:db8:2::", "00:11:22:33:44:55",
         "QORS1001"},
        {"DHCPV6_EVT_SNOOP_TBL_FULL 0x54001B", "(value 4000)"},
        {"DHCPV6_EVT_TMR_START_FAILED 0x540009"},
    };
    for (size_t i = 0; i < expect.size(); ++i)
        for (const auto& part : expect[i])
            EXPECT_NE(got[i].find(part), std::string::npos) << got[i];
}

TEST_F(EvtRelayTable, PacketEventsStayOutAtLevelNotify) {
    // Level 5 (notify) keeps lease events and drops the per-packet ones.
    ASSERT_EQ(qorEvtSetSeverityLevel(log, 0x3F), OK);
    qorSysErr(log, 0, DHCPV6_EVT_RELAY_FWD_SENT, 0);
    qorSysErr(log, 0, DHCPV6_EVT_LEASE_ADDED, 0, "2001:db8::", 48);
    const auto got = lines();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_NE(got[0].find("DHCPV6_EVT_LEASE_ADDED"), std::string::npos);
}

// Trace flags and the console.
class EvtTrace : public ::testing::Test {
protected:
    std::vector<std::string> printed;
    void SetUp() override {
        qorEvtReset();
        qorSetConsoleSink([this](const std::string& s) { printed.push_back(s); });
    }
    void TearDown() override { qorEvtReset(); }
};

TEST_F(EvtTrace, ModuleFlagsAreKeptPerModule) {
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0u);
    qorSetModTraceFlags(QOR_TRACE_MODULE_DHCPV6, 0x3);
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0x3u);
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6 + 1), 0u);
    EXPECT_EQ(wrap_modtraceflags(-1), 0u);
    qorEvtReset();
    EXPECT_EQ(wrap_modtraceflags(QOR_TRACE_MODULE_DHCPV6), 0u);
}

TEST_F(EvtTrace, TraceAndErrorTextsReachTheConsoleAsFormatted) {
    qorTracePrintf(QOR_TRACE_MODULE_DHCPV6, "%s: line %d:dhcpv6RelayMgrVarInit failed ",
                   "dhcpv6RelayMgrMain", 123);
    qorErrorPrintf(QOR_TRACE_MODULE_DHCPV6, "DHCPV6RELAYMGR select returned error: %d", 4);
    ASSERT_EQ(printed.size(), 2u);
    EXPECT_EQ(printed[0], "dhcpv6RelayMgrMain: line 123:dhcpv6RelayMgrVarInit failed ");
    EXPECT_EQ(printed[1], "DHCPV6RELAYMGR select returned error: 4");
}

// The history ring.
class History : public ::testing::Test {
protected:
    void SetUp() override { qorEvtReset(); }
    void TearDown() override { qorEvtReset(); }
};

struct RingCase {
    const char* what;
    int appended;
    std::vector<std::string> kept;  // oldest first
};
void PrintTo(const RingCase& c, std::ostream* os) { *os << c.what; }

class HistoryRing : public History, public ::testing::WithParamInterface<RingCase> {};

TEST_P(HistoryRing, KeepsTheNewestEntriesInOrder) {
    ASSERT_EQ(qorInitHistoryTable(4, 32, 1), OK);
    ASSERT_EQ(qorEnableHistoryLogging(), OK);
    for (int i = 1; i <= GetParam().appended; ++i) ASSERT_EQ(qorHistory("send %d failed", i), OK);
    EXPECT_EQ(qorHistoryEntries(), GetParam().kept);
}

INSTANTIATE_TEST_SUITE_P(
    History, HistoryRing,
    ::testing::Values(
        RingCase{"empty", 0, {}},
        RingCase{"partly_full", 3, {"send 1 failed", "send 2 failed", "send 3 failed"}},
        RingCase{"exactly_full",
                 4,
                 {"send 1 failed", "send 2 failed", "send 3 failed", "send 4 failed"}},
        RingCase{"one_past_full",
                 5,
                 {"send 2 failed", "send 3 failed", "send 4 failed", "send 5 failed"}},
        RingCase{"wrapped_twice",
                 10,
                 {"send 7 failed", "send 8 failed", "send 9 failed", "send 10 failed"}}),
    [](const auto& p) { return std::string(p.param.what); });

TEST_F(History, EntriesAreCutToTheirSlot) {
    ASSERT_EQ(qorInitHistoryTable(2, 16, 1), OK);
    ASSERT_EQ(qorEnableHistoryLogging(), OK);
    qorHistory("%s: size act/sent %d/%d err %d\r\n", "sendDhcpV6Packet", 120, 0, 101);
    const auto got = qorHistoryEntries();
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], "sendDhcpV6Packe");
}

TEST_F(History, RecordsOnlyWhileEnabled) {
    EXPECT_EQ(qorHistory("before the table"), ERROR);
    ASSERT_EQ(qorInitHistoryTable(10000, 200, 1), OK);
    EXPECT_EQ(qorHistory("not yet enabled"), OK);
    ASSERT_EQ(qorEnableHistoryLogging(), OK);
    qorHistory("kept");
    ASSERT_EQ(qorDisableHistoryLogging(), OK);
    qorHistory("dropped");
    EXPECT_EQ(qorHistoryEntries(), std::vector<std::string>{"kept"});
    EXPECT_EQ(qorInitHistoryTable(0, 200, 1), ERROR);
    EXPECT_EQ(qorInitHistoryTable(10, 1, 1), ERROR);
}

}  // namespace
