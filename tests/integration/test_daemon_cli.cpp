// The real daemon with its chassis services, configured through dhcpv6-cli
// as an operator would: helpers and source interfaces show in the running
// configuration, switch the DHCPv6 trap on, and survive write memory and a
// restart.
#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "daemon_harness.h"

namespace {

using harness::Daemon;
using harness::eventually;

class DaemonCli : public ::testing::Test {
protected:
    std::string dir = harness::makeTempDir("cli");
    std::string hostMap = dir + "/hostmap.ini";
    Daemon daemon{dir};

    void SetUp() override {
        ASSERT_FALSE(dir.empty());
        std::ofstream(hostMap) << "[vrf red]\nid = 1\ntable = 101\n"
                               << "[interface vlan 10]\n[interface vlan 20]\n"
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
};

TEST_F(DaemonCli, HelperAddressesShowInTheRunningConfigAndSwitchTheTrapOn) {
    const auto r = daemon.cli(
        "-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8:ff::2' "
        "-c 'ipv6 helper-address vrf red 2001:db8:ee::2' -c 'exit'");
    ASSERT_EQ(r.status, 0) << r.out;
    const std::string cfg = runningConfig();
    EXPECT_NE(cfg.find("interface vlan 10\n ipv6 helper-address 2001:db8:ff::2\n"), std::string::npos)
        << cfg;
    EXPECT_NE(cfg.find(" ipv6 helper-address vrf red 2001:db8:ee::2\n"), std::string::npos) << cfg;
    const std::string acl = daemon.cli("-c 'show acl trap'").out;
    EXPECT_NE(acl.find("dhcpv6-relay"), std::string::npos) << acl;
    EXPECT_NE(acl.find("on"), std::string::npos) << acl;
}

TEST_F(DaemonCli, RemovingTheLastHelperRemovesTheLineAndTheTrap) {
    ASSERT_EQ(daemon.cli("-c 'interface vlan 20' -c 'ipv6 helper-address 2001:db8::9'").status, 0);
    ASSERT_EQ(daemon.cli("-c 'interface vlan 20' -c 'no ipv6 helper-address 2001:db8::9'").status, 0);
    const std::string cfg = runningConfig();
    EXPECT_EQ(cfg.find("2001:db8::9"), std::string::npos) << cfg;
    EXPECT_EQ(cfg.find("interface vlan 20"), std::string::npos) << cfg;
    const auto acl = daemon.cli("--json -c 'show acl trap'").out;
    EXPECT_NE(acl.find("\"enabled\":false"), std::string::npos) << acl;
}

TEST_F(DaemonCli, SourceInterfacesGlobalAndPerInterface) {
    ASSERT_EQ(daemon.cli("-c 'ipv6 dhcp relay source-interface vlan 30'").status, 0);
    ASSERT_EQ(daemon.cli("-c 'interface vlan 10' -c 'ipv6 dhcp relay source-interface vlan 40'").status, 0);
    const std::string cfg = runningConfig();
    EXPECT_NE(cfg.find("ipv6 dhcp relay source-interface vlan 30\n"), std::string::npos) << cfg;
    EXPECT_NE(cfg.find("interface vlan 10\n ipv6 dhcp relay source-interface vlan 40\n"),
              std::string::npos)
        << cfg;
    ASSERT_EQ(daemon.cli("-c 'no ipv6 dhcp relay source-interface vlan 30'").status, 0);
    EXPECT_EQ(runningConfig().find("source-interface vlan 30"), std::string::npos);
}

TEST_F(DaemonCli, ConfigurationSurvivesWriteMemoryAndARestart) {
    ASSERT_EQ(daemon.cli("-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8:ff::2' "
                         "-c 'end' -c 'debug ipv6 dhcp'")
                  .status,
              0);
    const std::string before = runningConfig();
    ASSERT_EQ(daemon.cli("-c 'write memory'").status, 0);
    daemon.kill();
    startDaemon();
    // The store replays the startup-config once the daemon has registered.
    EXPECT_TRUE(eventually([&] { return runningConfig() == before; }))
        << "after restart:\n" << runningConfig() << "\nbefore:\n" << before;
    const std::string acl = daemon.cli("--json -c 'show acl trap'").out;
    EXPECT_NE(acl.find("\"enabled\":true"), std::string::npos) << acl;
}

TEST_F(DaemonCli, BadInputIsRefusedWithAReason) {
    auto r = daemon.cli("-c 'interface vlan 10' -c 'ipv6 helper-address 2001:db8::zz'");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.out.find("Invalid IPv6 address"), std::string::npos) << r.out;
    r = daemon.cli("-c 'frobnicate'");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.out.find("Unknown command"), std::string::npos) << r.out;
    r = daemon.cli("-c 'interface vlan 5000'");
    EXPECT_NE(r.status, 0);
    r = daemon.cli("-c 'interface vlan 99'");
    EXPECT_NE(r.status, 0) << "an interface the host map does not name";
    EXPECT_NE(r.out.find("nknown interface"), std::string::npos) << r.out;
    r = daemon.cli("-c 'interface vlan 10' -c 'ipv6 helper-address vrf blue 2001:db8::1'");
    EXPECT_NE(r.status, 0) << "a VRF the host map does not name";
    daemon.kill();
    r = daemon.cli("-c 'show running-config'");
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.out.find("not running"), std::string::npos) << r.out;
}

}  // namespace
