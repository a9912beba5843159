// ChassisRtm.h -- the route table manager service: client registrations, the
// route updates that arrive over the clients' SWP queues (installed in the
// kernel), and the operator's clear, which the RTM passes on to its clients.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "ChassisNetlink.h"
#include "ChassisService.h"

class ChassisRtm : public ChassisService {
public:
    explicit ChassisRtm(int instance);
    ~ChassisRtm() override;

protected:
    void chassisHandle(ChassisMsg& msg) override;

private:
    struct Client {
        uint32_t queueId = 0;  // where the clear-route message goes
        uint32_t family = 0;
        uint32_t lastSeq = 0;  // of the messages sent to it
        std::set<ChassisRoute> routes;  // what this service put in the kernel for it
    };

    void rtmRegister(ChassisMsg& msg);
    void rtmRouteUpdate(ChassisMsg& msg);
    void rtmClearAck(ChassisMsg& msg);
    void rtmClearRequest(ChassisMsg& msg);
    void rtmSwpMessage(ChassisMsg& msg);
    // One route record of an update for a client.
    void rtmApply(Client& client, bool add, qor::ByteView record);
    // Removes the client's routes (all, or those of one prefix) from the
    // kernel and tells the client, which then sends its routes again.
    void rtmClear(uint32_t handle, Client& client, bool all, uint8_t prefixLen,
                  const std::array<uint8_t, 16>& prefix);

    static const ChassisHandler<ChassisRtm> kHandlers[];

    // (owner, address family, client name) -> handle; service thread only.
    std::map<std::tuple<uint32_t, uint32_t, std::string>, uint32_t> handles_;
    std::map<uint32_t, Client> clients_;  // by handle
    uint32_t nextHandle_ = 1;
};
