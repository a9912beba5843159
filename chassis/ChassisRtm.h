// ChassisRtm.h -- the route table manager service: client registrations and
// the route updates that arrive over the clients' SWP queues.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <tuple>

#include "ChassisService.h"

class ChassisRtm : public ChassisService {
public:
    explicit ChassisRtm(int instance);
    ~ChassisRtm() override;

protected:
    void chassisHandle(ChassisMsg& msg) override;

private:
    void rtmRegister(ChassisMsg& msg);
    void rtmSwpMessage(ChassisMsg& msg);

    static const ChassisHandler<ChassisRtm> kHandlers[];

    // (owner, address family, client name) -> handle; service thread only.
    std::map<std::tuple<uint32_t, uint32_t, std::string>, uint32_t> handles_;
    uint32_t nextHandle_ = 1;
    uint64_t updates_ = 0;
};
