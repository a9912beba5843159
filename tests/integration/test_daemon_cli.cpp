// The real daemon with its chassis services, configured through dhcpv6-cli
// as an operator would: helpers and source interfaces show in the running
// configuration, switch the DHCPv6 trap on, and survive write memory and a
// restart.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon_harness.h"

namespace {

using harness::eventually;

::testing::AssertionResult has(const std::string& text, const std::string& part) {
    if (text.find(part) != std::string::npos) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "\"" << part << "\" not in:\n" << text;
}

class DaemonCli : public ::testing::Test {
protected:
    std::string dir = harness::makeTempDir("cli");
    std::string hostMap = dir + "/hostmap.ini";
    harness::Daemon daemon{dir};

    void SetUp() override {
        ASSERT_FALSE(dir.empty());
        std::ofstream(hostMap) << "[vrf red]\nid = 1\ntable = 101\n[interface vlan 10]\n[interface vlan 20]\n"
                               << "[interface vlan 30]\n[interface vlan 40]\n";
        startDaemon();
    }
    void TearDown() override {
        daemon.kill();
        if (!HasFailure()) harness::removeTree(dir);
    }
    void startDaemon() {
        ASSERT_TRUE(daemon.start({"--host-map", hostMap}));
        ASSERT_TRUE(eventually([&] { return daemon.cli("-c 'show running-config'").status == 0; }))
            << "daemon never answered; its output is in " << dir << "/daemon.out";
    }
    std::string runningConfig() { return daemon.cli("-c 'show running-config'").out; }
    std::string trap() { return daemon.cli("--json -c 'show acl trap'").out; }
};

TEST_F(DaemonCli, HelperAddressesShowInTheRunningConfigAndSwitchTheTrapOnUntilTheLastGoes) {
    const auto r = daemon.cli("-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8:ff::2' "
                              "-c 'ipv6 helper-address vrf red 2001:db8:ee::2' -c 'exit'");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string cfg = runningConfig();
    EXPECT_TRUE(has(cfg, "interface vlan 10\n ipv6 helper-address 2001:db8:ff::2\n"));
    EXPECT_TRUE(has(cfg, " ipv6 helper-address vrf red 2001:db8:ee::2\n"));
    const std::string acl = daemon.cli("-c 'show acl trap'").out;
    EXPECT_TRUE(has(acl, "dhcpv6-relay"));
    EXPECT_TRUE(has(acl, "on"));
    ASSERT_EQ(daemon.cli("-c 'interface vlan 10' -c 'no ipv6 helper-address 2001:db8:ff::2' "
                         "-c 'no ipv6 helper-address vrf red 2001:db8:ee::2'").status, 0);
    EXPECT_FALSE(has(runningConfig(), "interface vlan 10"));
    EXPECT_TRUE(has(trap(), "\"enabled\":false"));
}

TEST_F(DaemonCli, SourceInterfacesGlobalAndPerInterface) {
    ASSERT_EQ(daemon.cli("-c 'ipv6 dhcp relay source-interface vlan 30'").status, 0);
    ASSERT_EQ(daemon.cli("-c 'interface vlan 10' -c 'ipv6 dhcp relay source-interface vlan 40'").status, 0);
    const std::string cfg = runningConfig();
    EXPECT_TRUE(has(cfg, "ipv6 dhcp relay source-interface vlan 30\n"));
    EXPECT_TRUE(has(cfg, "interface vlan 10\n ipv6 dhcp relay source-interface vlan 40\n"));
    ASSERT_EQ(daemon.cli("-c 'no ipv6 dhcp relay source-interface vlan 30'").status, 0);
    EXPECT_FALSE(has(runningConfig(), "source-interface vlan 30"));
}

TEST_F(DaemonCli, ConfigurationSurvivesWriteMemoryAndARestart) {
    ASSERT_EQ(daemon.cli("-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8:ff::2' -c 'end' "
                         "-c 'debug ipv6 dhcp'").status, 0);
    const std::string before = runningConfig();
    ASSERT_EQ(daemon.cli("-c 'write memory'").status, 0);
    daemon.kill();
    startDaemon();
    // The store replays the startup-config once the daemon has registered.
    EXPECT_TRUE(eventually([&] { return runningConfig() == before; }))
        << "after restart:\n" << runningConfig() << "\nbefore:\n" << before;
    EXPECT_TRUE(has(trap(), "\"enabled\":true"));
}

// (command line, what the refusal must say)
TEST_F(DaemonCli, BadInputIsRefusedWithAReason) {
    const std::pair<const char*, const char*> cases[] = {
        {"-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8::zz'", "Invalid IPv6 address"},
        {"-c 'frobnicate'", "Unknown command"},
        {"-c 'interface vlan 5000'", ""},
        {"-c 'interface vlan 99'", "nknown interface"},  // not in the host map
        {"-c 'interface vlan 10' -c 'ipv6 helper-address vrf blue 2001:db8::1'", ""},  // VRF not in the map
    };
    for (const auto& [args, reason] : cases) {
        const auto r = daemon.cli(args);
        EXPECT_NE(r.status, 0) << args;
        EXPECT_TRUE(has(r.out, reason)) << args;
    }
    daemon.kill();
    const auto r = daemon.cli("-c 'show running-config'");
    EXPECT_NE(r.status, 0);
    EXPECT_TRUE(has(r.out, "not running"));
}

}  // namespace
