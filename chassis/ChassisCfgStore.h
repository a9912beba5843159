// ChassisCfgStore.h -- the configuration store: the running configuration as
// records in key order, its text (show running-config), write memory, and the
// replay of the startup-config once the relay manager has registered.
#pragma once

#include <compare>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Chassis.h"
#include "ChassisService.h"

// A line is identified by its owner (the sending application), its
// configuration identifier and its key bytes; lines are kept in that order.
struct ChassisCfgKey {
    uint32_t owner = 0;
    uint32_t id = 0;
    std::vector<uint8_t> key;
    auto operator<=>(const ChassisCfgKey&) const = default;
    bool operator==(const ChassisCfgKey&) const = default;
};
using ChassisCfgTable = std::map<ChassisCfgKey, std::string>;

// The running-configuration text: global lines first, then one block per
// interface ("interface <name>" and its lines in key order), blocks separated
// by "!" lines, then "end". Each line ends in "\n"; a stored line holding
// "\r\n" prints as two lines.
std::string chassisCfgRender(const ChassisCfgTable& table);

class ChassisCfgStore : public ChassisService {
public:
    ChassisCfgStore(int instance, std::string runDir, bool replayStartup, ChassisReplaySink sink);
    ~ChassisCfgStore() override;

    // The relay manager has registered with the IFM: starts the replay of
    // the startup-config on its own thread, which then tells the relay
    // manager that initialisation is complete. A call while a replay runs
    // does nothing; a later one (a restarted relay manager) replays again.
    void chassisCfgRelayRegistered();
    uint64_t chassisCfgSyncCount() const;
    std::string chassisCfgStartupPath() const { return runDir_ + "/startup-config"; }

protected:
    void chassisHandle(ChassisMsg& msg) override;
    void chassisStopped() override;

private:
    void cfgInsert(ChassisMsg& msg);
    void cfgRemoveExact(ChassisMsg& msg);
    void cfgRemoveNode(ChassisMsg& msg);
    void cfgSync(ChassisMsg& msg);
    void cfgShowRunning(ChassisMsg& msg);
    void cfgWriteMemory(ChassisMsg& msg);
    bool cfgReadRecord(const ChassisMsg& msg, ChassisCfgKey& outKey, std::string& outLine);
    int cfgWriteStartup(const std::string& text) const;
    void cfgReplay();
    void cfgReplayLines();
    void cfgSendInitComplete();
    void cfgJoinReplay();

    static const ChassisHandler<ChassisCfgStore> kHandlers[];

    const std::string runDir_;
    const bool replayStartup_;
    const ChassisReplaySink sink_;
    ChassisCfgTable table_;  // service thread only

    mutable std::mutex mu_;  // guards what other threads read or start
    std::deque<std::vector<uint8_t>> syncRecords_;  // the latest, for the standby
    uint64_t syncCount_ = 0;
    bool replayRunning_ = false;
    bool stopping_ = false;
    std::thread replayThread_;
};
