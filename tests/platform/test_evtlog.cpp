// The event log as an operator reads it (RUNDIR/eventlog).
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "dhcpv6RelayEvents.h"
#include "qor/task.h"

namespace {

using Lines = std::vector<std::string>;
constexpr QorEvtCode kTestCodes[] = {{0x910002, "TEST_ERROR", EVT_LOGERROR, "failed on %s (%d)", false},
                                     {0x910005, "TEST_DEBUG", EVT_LOGDEBUG, "debug", false},  // below info
                                     {0x910006, "TEST_DEVLP", EVT_LOGDEVLP, "development", false},
                                     {0x910008, "TEST_TEXT", EVT_LOGINFO, "%s", true}};

class Evt : public ::testing::Test {
protected:
    std::string runDir;
    int log = -1;
    void SetUp() override {
        char tmpl[] = "/tmp/qor-evtlog-XXXXXX";
        qorEvtReset(), qorSetRunDir((runDir = mkdtemp(tmpl)).c_str());
        qorEvtRegisterCodes(kTestCodes), qorEvtRegisterCodes(dhcpv6RelayEvtCodes);
        ASSERT_GE(log = qorEvtOpenlog("DHCPV6RELAYMGR", 3, 336, 0), 0);
    }
    void TearDown() override { qorEvtReset(), qorSetRunDir("/run/qor"), std::filesystem::remove_all(runDir); }
    // Each line's text after its "YYYY-MM-DD HH:MM:SS.mmm " time ("?" without one).
    static Lines lines(const std::string& path = qorEvtLogPath()) {
        const std::string t = "0000-00-00 00:00:00.000 ";  // '0': any digit
        std::ifstream in(path);
        Lines out;
        for (std::string l; std::getline(in, l);) {
            size_t i = 0;
            while (i < t.size() && i < l.size() && (l[i] == t[i] || (t[i] == '0' && l[i] > '0' && l[i] <= '9'))) ++i;
            out.push_back(i == t.size() ? l.substr(i) : "?");
        }
        return out;
    }
};

// Each line: time, log, severity, code name and number, the text with the
// caller's arguments, and the value where the code shows it; a long text is
// cut. Only the severities set in the log's mask are written.
TEST_F(Evt, LineCarriesTimeLogSeverityNameCodeTextAndValue) {
    EXPECT_EQ(qorEvtGetSeverityLevel(log), 0x7Fu) << "a log opens at level info";
    EXPECT_EQ(qorSysErr(log, 0, 0x910099, 0), ERROR) << "unknown code";
    EXPECT_EQ(qorSysErr(log + 1, 0, 0x910002, 0, "eth3", 17), ERROR) << "unknown log";
    ASSERT_EQ(qorSysErr(log, 0, 0x910005, 0), OK) << "a filtered event is not an error";
    ASSERT_EQ(qorSysErr(log, 0, 0x910002, 4000, "eth3", 17), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910008, 4000, std::string(5000, 'x').c_str()), OK);
    ASSERT_EQ(qorEvtSetSeverityLevel(log, 0x3F), OK);  // level notify: lease events kept, per-packet ones dropped
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_RELAY_FWD_SENT, 0), OK);
    ASSERT_EQ(qorSysErr(log, 0, DHCPV6_EVT_LEASE_ADDED, 0, "2001:db8:1::", 56), OK);
    ASSERT_EQ(qorEvtSetSeverityLevel(log, 0x1FFFFFF), OK);
    ASSERT_EQ(qorSysErr(log, 0, 0x910006, 0), OK);
    const auto got = lines();
    ASSERT_EQ(got.size(), 4u);
    EXPECT_EQ(got[0], "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on eth3 (17)");
    EXPECT_TRUE(got[1].starts_with("DHCPV6RELAYMGR EVT_LOGINFO TEST_TEXT 0x910008: xxxx") && got[1].size() < 5000 &&
                got[1].ends_with("x (value 4000)")) << got[1];
    EXPECT_TRUE(got[2].starts_with("DHCPV6RELAYMGR EVT_LOGNOTIFY DHCPV6_EVT_LEASE_ADDED 0x540017: ") &&
                got[2].find("2001:db8:1::/56") != std::string::npos) << got[2];
    EXPECT_EQ(got[3], "DHCPV6RELAYMGR EVT_LOGDEVLP TEST_DEVLP 0x910006: development");
}

// Past its limit the log moves to eventlog.1 and starts again; no line is
// lost or split, and only one older file is kept, written at once or gathered.
TEST_F(Evt, LogPastItsLimitRotatesIntoOneOlderFile) {
    qorEvtSetLogLimit(2000);
    for (int last : {99, 199}) {
        if (last == 199) qorEvtLoopFlush();
        for (int i = last - 99; i <= last; ++i) ASSERT_EQ(qorSysErr(log, 0, 0x910002, 0, "eth3", i), OK);
        qorEvtLoopFlush();
        auto all = lines(qorEvtLogPath() + ".1");
        ASSERT_GT(all.size(), 0u);
        for (auto& l : lines()) all.push_back(l);
        EXPECT_FALSE(std::filesystem::exists(qorEvtLogPath() + ".2"));
        EXPECT_LE(std::filesystem::file_size(qorEvtLogPath()), 2000u + 128);
        for (size_t i = 0; i < all.size(); ++i)
            EXPECT_EQ(all[i], "DHCPV6RELAYMGR EVT_LOGERROR TEST_ERROR 0x910002: failed on eth3 (" +
                                  std::to_string(last + 1 - int(all.size() - i)) + ")");
    }
}

}  // namespace
