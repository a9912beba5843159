// ChassisService.h -- the frame every chassis service runs in: its request
// queue, its thread, the dispatch of its messages by type, answers and the
// receiver's side of SWP.
//
// A service binds the request queue of (application, instance) in the run
// directory and serves it on its own thread, one message at a time, so the
// state of a service needs no lock except where another thread reads it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "qor/bytes.h"
#include "qor/ipc.h"
#include "qor/swp.h"

// Owns a descriptor: closed on every path.
class ChassisFd {
public:
    ChassisFd() = default;
    explicit ChassisFd(int fd) : fd_(fd) {}
    ~ChassisFd();
    ChassisFd(const ChassisFd&) = delete;
    ChassisFd& operator=(const ChassisFd&) = delete;
    ChassisFd(ChassisFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    ChassisFd& operator=(ChassisFd&& other) noexcept;
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

// One message as it arrived; a handler may grow it to build its answer.
using ChassisMsg = std::vector<uint8_t>;

// A handler table entry: the message type, the least length its fields need,
// whether the sender waits for an answer, and the member that handles it.
template <class Service>
struct ChassisHandler {
    uint32_t type;
    size_t minLength;
    bool answered;
    void (Service::*handle)(ChassisMsg& msg);
};

class ChassisService {
public:
    ChassisService(std::string name, int application, int instance);
    virtual ~ChassisService();
    ChassisService(const ChassisService&) = delete;
    ChassisService& operator=(const ChassisService&) = delete;

    // Binds the request queue and starts the thread. 0, or -1 when the queue
    // cannot be bound (another process serves it) or the thread cannot start.
    int start();
    // Stops the thread (idempotent). The queue stays bound to the process.
    void stop();

    const std::string& name() const { return name_; }
    int application() const { return application_; }
    int instance() const { return instance_; }
    int queue() const { return queue_; }
    // The queue identifier peers address this service by.
    uint32_t queueId() const;
    // Messages dropped since start: too short, unknown type, bad sequence.
    uint64_t dropped() const;

protected:
    // One message of at least the IPC header.
    virtual void chassisHandle(ChassisMsg& msg) = 0;
    // Runs after the thread's loop has ended, on the caller of stop().
    virtual void chassisStopped() {}

    // Answers the sender of the message being handled: the length word is
    // set to the message's size. 0 or the IPC layer's error.
    int chassisReply(ChassisMsg& msg);
    // Answers a request this service cannot honour with status -1 (when it
    // is long enough to carry a status) so that the sender does not wait.
    void chassisRefuse(ChassisMsg& msg);
    // Builds the header (this service as source) and sends to a queue, up to
    // `attempts` times while the peer's queue is full. 0 / -1.
    int chassisSendTo(uint32_t dstQueueId, uint32_t type, ChassisMsg& msg, int attempts = 50);
    // The receiver's SWP check, with one sequence state per sending queue:
    // QOR_SWP_IN_ORDER when the message is to be processed. The SWP layer
    // acknowledges it.
    int chassisSwpAccept(ChassisMsg& msg);
    void chassisCountDrop();

    // Looks the message's type up in the table and runs its handler. A
    // message too short for its fields is refused (when answered) or
    // dropped. False for a type not in the table.
    template <class Service, size_t N>
    bool chassisDispatch(Service& self, const ChassisHandler<Service> (&table)[N], ChassisMsg& msg);

private:
    void run();

    std::string name_;
    int application_;
    int instance_;
    int queue_ = -1;
    ChassisFd stopFd_;
    std::thread thread_;
    std::map<std::pair<uint32_t, uint32_t>, QOR_SWP_SEQ> swpSeq_;
    mutable std::mutex statMu_;
    uint64_t dropped_ = 0;
};

// The application part of a queue identifier (qor_getQueueId packs the
// application in the top 16 bits).
constexpr uint32_t chassisQueueApplication(uint32_t queueId) { return queueId >> 16; }

template <class Service, size_t N>
bool ChassisService::chassisDispatch(Service& self, const ChassisHandler<Service> (&table)[N],
                                     ChassisMsg& msg) {
    const uint32_t type = qor::u32At(msg, QOR_IPC_OFF_TYPE);
    for (const auto& entry : table) {
        if (entry.type != type) continue;
        if (msg.size() < entry.minLength) {
            if (entry.answered)
                chassisRefuse(msg);
            else
                chassisCountDrop();
        } else {
            (self.*entry.handle)(msg);
        }
        return true;
    }
    return false;
}
