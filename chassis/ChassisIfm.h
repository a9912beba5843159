// ChassisIfm.h -- the interface manager service: client registrations, port
// configuration notices and the name lookups of the CLI.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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

private:
    void ifmRegister(ChassisMsg& msg);
    void ifmPortNotice(ChassisMsg& msg);
    void ifmLookup(ChassisMsg& msg);
    std::optional<uint32_t> ifmLookupInterface(const std::string& name) const;
    std::optional<uint32_t> ifmLookupVrf(const std::string& name) const;

    static const ChassisHandler<ChassisIfm> kHandlers[];

    const bool useHostMap_;
    const std::function<void()> onRelayRegistered_;
    mutable std::mutex mu_;
    std::map<std::pair<uint16_t, uint16_t>, ChassisIfmClient> clients_;  // by (application, instance)
    std::deque<std::vector<uint8_t>> portNotices_;
};
