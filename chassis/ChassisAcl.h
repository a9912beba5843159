// ChassisAcl.h -- the ACL manager service: which trap protocols have their
// system flow entries switched on.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>

#include "ChassisService.h"

class ChassisAcl : public ChassisService {
public:
    explicit ChassisAcl(int instance);
    ~ChassisAcl() override;

protected:
    void chassisHandle(ChassisMsg& msg) override;

private:
    void aclSysFlow(ChassisMsg& msg);
    void aclShow(ChassisMsg& msg);

    static const ChassisHandler<ChassisAcl> kHandlers[];

    std::map<uint32_t, bool> protocols_;  // protocol -> on; service thread only
};
