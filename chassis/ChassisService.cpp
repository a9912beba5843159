// ChassisService.cpp -- the service frame: request queue, thread and loop,
// answers, sends and the receiver's SWP sequence state per sender.
#include "ChassisService.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>

#include "qor/ipc.h"
#include "qor/task.h"

namespace {
constexpr auto kSendRetryPause = std::chrono::milliseconds(2);
}  // namespace

ChassisFd::~ChassisFd() { reset(); }

ChassisFd& ChassisFd::operator=(ChassisFd&& other) noexcept {
    if (this != &other) reset(std::exchange(other.fd_, -1));
    return *this;
}

void ChassisFd::reset(int fd) {
    if (fd_ >= 0) close(fd_);
    fd_ = fd;
}

ChassisService::ChassisService(std::string name, int application, int instance)
    : name_(std::move(name)), application_(application), instance_(instance) {}

ChassisService::~ChassisService() { stop(); }

uint32_t ChassisService::queueId() const {
    return qor_getQueueId(application_, instance_, QOR_QUEUE_REQUEST);
}

int ChassisService::start() {
    if (thread_.joinable()) return 0;
    if (queue_ < 0) {
        const int key = qorTaskStartup(0, nullptr, application_, instance_);
        if (key < 0) return -1;
        queue_ = Key_getReqQueue(key);
        if (queue_ < 0) return -1;
        qorTaskReady(key);
    }
    stopFd_.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!stopFd_.valid()) return -1;
    thread_ = std::thread([this] { run(); });
    return 0;
}

void ChassisService::stop() {
    if (!thread_.joinable()) return;
    const uint64_t one = 1;
    // An eventfd write of 8 bytes cannot be short.
    [[maybe_unused]] const ssize_t n = write(stopFd_.get(), &one, sizeof one);
    thread_.join();
    stopFd_.reset();
    chassisStopped();
}

uint64_t ChassisService::dropped() const {
    std::lock_guard lock(statMu_);
    return dropped_;
}

void ChassisService::chassisCountDrop() {
    std::lock_guard lock(statMu_);
    ++dropped_;
}

void ChassisService::run() {
    std::array<uint8_t, QOR_IPC_MAX_MSG> buf{};
    std::array<pollfd, 2> fds{pollfd{Key_getSocketFd(queue_), POLLIN, 0},
                              pollfd{stopFd_.get(), POLLIN, 0}};
    ChassisMsg msg;
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        const int n = qorIpcRecv(queue_, buf.data(), uint32_t(buf.size()), 0, 0, 0);
        if (n < int(QOR_IPC_HDR_LEN)) {
            if (n >= 0) chassisCountDrop();
            continue;
        }
        msg.assign(buf.begin(), buf.begin() + n);
        chassisHandle(msg);
    }
}

int ChassisService::chassisReply(ChassisMsg& msg) {
    if (msg.size() < QOR_IPC_HDR_LEN || msg.size() > QOR_IPC_MAX_MSG) return -1;
    qor::putU32(msg, QOR_IPC_OFF_LENGTH, uint32_t(msg.size()));
    return qorIpcReply(queue_, msg.data(), uint32_t(msg.size()));
}

void ChassisService::chassisRefuse(ChassisMsg& msg) {
    chassisCountDrop();
    if (msg.size() < QOR_IPC_OFF_STATUS + 4) return;
    qor::putU32(msg, QOR_IPC_OFF_STATUS, uint32_t(-1));
    chassisReply(msg);
}

int ChassisService::chassisSendTo(uint32_t dstQueueId, uint32_t type, ChassisMsg& msg,
                                  int attempts) {
    const uint32_t card = qor_sysGetIpAddr();
    if (!qorIpcBuildHeader(msg, uint32_t(msg.size()), type, card, queueId(), card, dstQueueId))
        return -1;
    // A queue holds only a few datagrams (net.unix.max_dgram_qlen); a peer
    // busy with a burst takes this one once it has read some.
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (attempt) std::this_thread::sleep_for(kSendRetryPause);
        if (qorIpcSend(queue_, msg.data(), uint32_t(msg.size()), 0) == 0) return 0;
    }
    return -1;
}

int ChassisService::chassisSwpAccept(ChassisMsg& msg) {
    const auto sender = std::make_pair(qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE),
                                       qor::u32At(msg, QOR_SWP_OFF_QUEUE));
    QOR_SWP_SEQ& seq = swpSeq_.try_emplace(sender, QOR_SWP_SEQ{0, 0}).first->second;
    const int rc = qorSwpCkSeqAndAck(msg.data(), uint32_t(msg.size()), &seq, queue_);
    if (rc != QOR_SWP_IN_ORDER) chassisCountDrop();
    return rc;
}
