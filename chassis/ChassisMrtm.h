// ChassisMrtm.h -- the multicast route table manager service: client
// registrations and multicast group indexes.
#pragma once

#include <cstdint>
#include <map>
#include <set>

#include "ChassisService.h"

class ChassisMrtm : public ChassisService {
public:
    explicit ChassisMrtm(int instance);
    ~ChassisMrtm() override;

protected:
    void chassisHandle(ChassisMsg& msg) override;

private:
    void mrtmRegister(ChassisMsg& msg);
    void mrtmIndexRequest(ChassisMsg& msg);
    void mrtmAck(ChassisMsg& msg);
    uint32_t mrtmAllocate();
    uint32_t mrtmClientQueue(const ChassisMsg& request) const;
    void mrtmRespond(uint32_t dstQueueId, uint32_t clientId, bool release, bool success,
                     uint32_t count, uint32_t index);

    static const ChassisHandler<ChassisMrtm> kHandlers[];

    // Service thread only.
    std::map<uint32_t, uint32_t> clientIds_;     // client's queue -> client id
    std::map<uint32_t, uint32_t> clientQueues_;  // client id -> client's queue
    std::map<uint32_t, uint32_t> sendSeq_;       // client's queue -> last sequence sent
    std::set<uint32_t> indexes_;                 // allocated group indexes
};
