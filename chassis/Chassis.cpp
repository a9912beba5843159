// Chassis.cpp -- starts and stops the chassis services of one instance: the
// configuration store, the ACL manager, the IFM, the RTM and the MRTM.
#include "Chassis.h"

#include <cstdio>
#include <map>
#include <memory>
#include <mutex>

#include "ChassisAcl.h"
#include "ChassisCfgStore.h"
#include "ChassisIfm.h"
#include "ChassisMrtm.h"
#include "ChassisRtm.h"
#include "qor/hostmap.h"
#include "qor/task.h"

namespace {

struct ChassisInstance {
    std::unique_ptr<ChassisCfgStore> cfg;
    std::unique_ptr<ChassisAcl> acl;
    std::unique_ptr<ChassisIfm> ifm;
    std::unique_ptr<ChassisRtm> rtm;
    std::unique_ptr<ChassisMrtm> mrtm;

    // The IFM first: it is the one that starts the store's replay.
    void stop() {
        for (ChassisService* s : services()) s->stop();
    }
    std::vector<ChassisService*> services() const {
        return {ifm.get(), cfg.get(), acl.get(), rtm.get(), mrtm.get()};
    }
};

struct Chassis {
    std::mutex mu;
    std::map<int, std::unique_ptr<ChassisInstance>> instances;
};

Chassis& chassis() {
    static Chassis c;
    return c;
}

// Reads the host map and installs it for the whole process: the packet
// layer and the interface lookups answer from the installed map.
int chassisLoadHostMap(const std::string& path) {
    QorHostMap map;
    std::string err;
    if (qorHostMapLoad(path, map, err) != 0) {
        std::fprintf(stderr, "chassis: host map: %s\n", err.c_str());
        return -1;
    }
    qorHostMapInstall(std::move(map));
    return 0;
}

std::unique_ptr<ChassisInstance> chassisBuild(const ChassisOptions& options, int instance) {
    auto c = std::make_unique<ChassisInstance>();
    c->cfg = std::make_unique<ChassisCfgStore>(instance, qorRunDir(), options.replayStartup,
                                               options.replaySink);
    ChassisCfgStore* store = c->cfg.get();
    c->ifm = std::make_unique<ChassisIfm>(instance, !options.hostMapPath.empty(),
                                          [store] { store->chassisCfgRelayRegistered(); });
    c->acl = std::make_unique<ChassisAcl>(instance);
    c->rtm = std::make_unique<ChassisRtm>(instance);
    c->mrtm = std::make_unique<ChassisMrtm>(instance);
    return c;
}

ChassisInstance* chassisFind(int instance) {
    const auto it = chassis().instances.find(instance);
    return it == chassis().instances.end() ? nullptr : it->second.get();
}

}  // namespace

int qorChassisStart(const ChassisOptions& options) {
    const int instance = options.instance >= 0 ? options.instance : qorPlatformInstance();
    std::lock_guard lock(chassis().mu);
    if (chassisFind(instance)) {
        std::fprintf(stderr, "chassis: instance %d already runs\n", instance);
        return -1;
    }
    if (!options.hostMapPath.empty() && chassisLoadHostMap(options.hostMapPath) != 0) return -1;
    auto c = chassisBuild(options, instance);
    for (ChassisService* s : c->services()) {
        if (s->start() != 0) {
            std::fprintf(stderr, "chassis: cannot start the %s service (queue %d.%d in %s)\n",
                         s->name().c_str(), s->application(), instance, qorRunDir());
            c->stop();
            return -1;
        }
    }
    chassis().instances.emplace(instance, std::move(c));
    return 0;
}

void qorChassisStop(int instance) {
    std::unique_ptr<ChassisInstance> c;
    {
        std::lock_guard lock(chassis().mu);
        const auto it = chassis().instances.find(instance);
        if (it == chassis().instances.end()) return;
        c = std::move(it->second);
        chassis().instances.erase(it);
    }
    c->stop();
}

std::vector<std::vector<uint8_t>> qorChassisIfmPortNotices(int instance) {
    std::lock_guard lock(chassis().mu);
    const ChassisInstance* c = chassisFind(instance);
    return c ? c->ifm->chassisIfmPortNotices() : std::vector<std::vector<uint8_t>>{};
}

uint64_t qorChassisCfgSyncCount(int instance) {
    std::lock_guard lock(chassis().mu);
    const ChassisInstance* c = chassisFind(instance);
    return c ? c->cfg->chassisCfgSyncCount() : 0;
}
