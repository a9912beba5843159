// ChassisIfm.h -- the interface manager service: client registrations, port
// configuration notices, the name lookups of the CLI, and the interface
// notifications (state up, down, deleted; switch-port mode; LAG members) its
// clients get over SWP, from the Linux links of the mapped interfaces and the
// operator's port configuration.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "ChassisNetlink.h"
#include "ChassisService.h"
#include "qor/chassis.h"

// A client as its registration request names it.
struct ChassisIfmClient {
    uint16_t application = 0;
    uint16_t instance = 0;
    uint32_t address = 0;
    uint32_t queueId = 0;
    std::array<uint32_t, QOR_IFM_REG_MAX_TYPE + 1> masks{};  // per service type
};

class ChassisIfm : public ChassisService {
public:
    // useHostMap: the interface and VRF lookups answer from the installed
    // host map (qor/hostmap.h); without it every well-formed interface name
    // is known, and only the VRF "default".
    // onRelayRegistered runs on this service's thread after the relay
    // manager's registration has been answered.
    ChassisIfm(int instance, bool useHostMap,
               std::function<void()> onRelayRegistered);
    ~ChassisIfm() override;

    std::vector<std::vector<uint8_t>> chassisIfmPortNotices() const;
    std::vector<ChassisIfmClient> chassisIfmClients() const;

protected:
    void chassisHandle(ChassisMsg& msg) override;
    void chassisStopped() override;

private:
    void ifmRegister(ChassisMsg& msg);
    void ifmPortNotice(ChassisMsg& msg);
    void ifmLookup(ChassisMsg& msg);
    void ifmAck(ChassisMsg& msg);
    void ifmPortConfig(ChassisMsg& msg);
    // "channel-group": the port joins port-channel lagNumber (0: leaves its
    // own). 0 or a QOR_IFM_PORT_CFG_ERR_* status.
    int32_t ifmSetPortLag(uint32_t port, uint32_t lagNumber) const;
    std::optional<uint32_t> ifmLookupInterface(const std::string& name) const;
    std::optional<uint32_t> ifmLookupVrf(const std::string& name) const;

    static const ChassisHandler<ChassisIfm> kHandlers[];

    const bool useHostMap_;
    const std::function<void()> onRelayRegistered_;
    mutable std::mutex mu_;
    std::map<std::pair<uint16_t, uint16_t>, ChassisIfmClient> clients_;  // by (application, instance)
    std::deque<std::vector<uint8_t>> portNotices_;

    // ---- interface notifications (the watcher thread) ----
    // What a mapped interface is to its clients.
    enum class IfState { Absent, Down, Up };
    // An interface notification not yet acknowledged.
    struct Unacked {
        uint32_t seq;
        ChassisMsg msg;
        std::chrono::steady_clock::time_point sent;
    };
    struct NotifyQueue {
        uint32_t lastSeq = 0;
        std::deque<Unacked> unacked;
    };
    void watchStart();
    void watchStop();
    void watchRun();
    // Compares the mapped interfaces and LAG members with what the clients
    // were last told and sends them the difference. `announce` false: learn
    // the state without telling (the state at registration).
    void watchUpdate(bool announce);
    void notifyClients(const std::vector<std::pair<uint16_t, std::vector<uint32_t>>>& tlvs);
    void notifyResend();

    ChassisLinkWatch linkWatch_;
    ChassisFd watchStopFd_;
    std::thread watcher_;
    ChassisLinkStates links_;                                // watcher thread only
    std::map<uint32_t, IfState> ifStates_;                   // watcher thread only
    std::map<uint32_t, std::vector<uint32_t>> lagMembers_;   // watcher thread only
    std::map<uint32_t, bool> switchPorts_;                   // watcher thread only
    std::map<uint32_t, NotifyQueue> notify_;                 // by client queue; under mu_
};
