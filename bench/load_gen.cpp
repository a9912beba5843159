// load_gen.cpp -- the relay load test's clients: many DHCPv6 clients (one
// DUID each) sending Solicits to All_DHCP_Relay_Agents_and_Servers on one
// link and timing the REPLY each gets back through the relay.
//
// Closed loop (default): keeps --window exchanges outstanding and sends the
// next as soon as one completes. With --rate: sends at that fixed rate (up to
// --window outstanding) and reports the latency at that load. An answer
// counts when its transaction id is outstanding and it carries the same
// client's DUID; exchanges unanswered after --timeout-ms count as lost.
//
// Prints one parseable line (LOADGEN key=value ...) and a few human lines.
#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "load_wire.h"

namespace {

constexpr size_t kBatch = 64;
constexpr size_t kPktMax = 1500;
constexpr uint64_t kNsPerSec = 1000000000ull;

struct Options {
    std::string iface;
    std::string label = "run";
    uint32_t window = 64;
    uint32_t clients = 10000;
    uint32_t timeoutMs = 1000;
    double duration = 10;
    double rate = 0;  // 0: closed loop
};

uint64_t nowNs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return uint64_t(ts.tv_sec) * kNsPerSec + uint64_t(ts.tv_nsec);
}

void usage() {
    std::fprintf(stderr,
                 "usage: bench_load_gen --iface IF [--window N] [--duration S] [--rate R]\n"
                 "                      [--clients N] [--timeout-ms MS] [--label TEXT]\n"
                 "  --window N      exchanges outstanding at most (default 64)\n"
                 "  --duration S    seconds of sending (default 10)\n"
                 "  --rate R        Solicits per second; 0 = as fast as answers come (default)\n"
                 "  --clients N     distinct client DUIDs, used in turn (default 10000)\n"
                 "  --timeout-ms MS an exchange unanswered this long is lost (default 1000)\n");
}

bool parseOptions(int argc, char** argv, Options& out) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (i + 1 >= argc) return false;
        const char* v = argv[++i];
        if (arg == "--iface") o.iface = v;
        else if (arg == "--label") o.label = v;
        else if (arg == "--window") o.window = uint32_t(std::strtoul(v, nullptr, 10));
        else if (arg == "--clients") o.clients = uint32_t(std::strtoul(v, nullptr, 10));
        else if (arg == "--timeout-ms") o.timeoutMs = uint32_t(std::strtoul(v, nullptr, 10));
        else if (arg == "--duration") o.duration = std::strtod(v, nullptr);
        else if (arg == "--rate") o.rate = std::strtod(v, nullptr);
        else return false;
    }
    if (o.iface.empty() || o.window == 0 || o.window > 65536 || o.clients == 0 ||
        o.duration <= 0 || o.rate < 0 || o.timeoutMs == 0)
        return false;
    out = o;
    return true;
}

// Outstanding exchanges: one slot per transaction. The slot number is in the
// low bits of the transaction id and a generation count above it, so an
// answer finds its slot directly and a late answer to a recycled slot does not
// match.
struct Slot {
    bool busy = false;
    uint32_t xid = 0;
    uint32_t client = 0;
    uint64_t sentNs = 0;
};

struct Stats {
    uint64_t sent = 0, answered = 0, answeredInRun = 0, lost = 0, bad = 0, skipped = 0;
    std::vector<uint32_t> latencyNs;
};

class Generator {
public:
    Generator(const Options& o, int fd, const sockaddr_in6& dest) : opt_(o), fd_(fd), dest_(dest) {
        uint32_t cap = 1;
        while (cap < o.window) cap <<= 1;
        slotBits_ = 0;
        while ((1u << slotBits_) < cap) ++slotBits_;
        slots_.resize(cap);
        stats_.latencyNs.reserve(1u << 20);
    }

    void run();
    void report() const;

private:
    void queueSend(uint64_t now);
    void flushSends();
    void receive();
    void onAnswer(qor::ByteView msg, uint64_t now);
    void expire(uint64_t now);

    const Options& opt_;
    int fd_;
    sockaddr_in6 dest_;
    std::vector<Slot> slots_;
    uint32_t slotBits_ = 0;
    uint32_t nextSlot_ = 0;
    uint32_t generation_ = 0;
    uint32_t nextClient_ = 0;
    uint32_t outstanding_ = 0;
    bool running_ = true;
    uint64_t startNs_ = 0, endNs_ = 0, doneNs_ = 0;
    Stats stats_;

    std::array<std::array<uint8_t, kPktMax>, kBatch> txBuf_{};
    std::array<iovec, kBatch> txIov_{};
    std::array<mmsghdr, kBatch> txMsg_{};
    std::array<uint32_t, kBatch> txSlot_{};
    size_t txCount_ = 0;
    std::array<std::array<uint8_t, kPktMax>, kBatch> rxBuf_{};
    std::array<iovec, kBatch> rxIov_{};
    std::array<mmsghdr, kBatch> rxMsg_{};
};

// Takes a free slot for the next client and builds its Solicit in the batch.
void Generator::queueSend(uint64_t now) {
    uint32_t slot = nextSlot_;
    for (uint32_t tries = 0; slots_[slot].busy; ++tries) {
        if (tries == slots_.size()) return;
        slot = (slot + 1) & uint32_t(slots_.size() - 1);
    }
    nextSlot_ = (slot + 1) & uint32_t(slots_.size() - 1);
    if (nextSlot_ == 0) ++generation_;
    Slot& s = slots_[slot];
    s.busy = true;
    s.xid = ((generation_ << slotBits_) | slot) & 0xffffff;
    s.client = nextClient_;
    s.sentNs = now;
    nextClient_ = (nextClient_ + 1) % opt_.clients;
    const size_t len = loadwire::buildSolicit(txBuf_[txCount_], s.xid, loadwire::clientDuid(s.client),
                                              s.client);
    txIov_[txCount_] = iovec{txBuf_[txCount_].data(), len};
    txMsg_[txCount_] = mmsghdr{};
    txMsg_[txCount_].msg_hdr.msg_name = &dest_;
    txMsg_[txCount_].msg_hdr.msg_namelen = sizeof(dest_);
    txMsg_[txCount_].msg_hdr.msg_iov = &txIov_[txCount_];
    txMsg_[txCount_].msg_hdr.msg_iovlen = 1;
    txSlot_[txCount_] = slot;
    ++txCount_;
    ++outstanding_;
    if (txCount_ == kBatch) flushSends();
}

// Sends the queued Solicits; one the socket refuses frees its slot again.
void Generator::flushSends() {
    size_t done = 0;
    while (done < txCount_) {
        const int n = sendmmsg(fd_, &txMsg_[done], unsigned(txCount_ - done), 0);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) continue;
            if (n < 0 && (errno == EAGAIN || errno == ENOBUFS)) {
                pollfd p{fd_, POLLOUT, 0};
                poll(&p, 1, 1);
                continue;
            }
            // The link or its address is gone: no point sending on.
            std::fprintf(stderr, "load_gen: sendmmsg: %s\n", std::strerror(errno));
            for (size_t i = done; i < txCount_; ++i) slots_[txSlot_[i]].busy = false;
            outstanding_ -= uint32_t(txCount_ - done);
            running_ = false;
            break;
        }
        done += size_t(n);
    }
    stats_.sent += done;
    txCount_ = 0;
}

void Generator::onAnswer(qor::ByteView msg, uint64_t now) {
    loadwire::ClientMsg reply;
    if (!loadwire::parseClientMsg(msg, reply) || reply.type != loadwire::kReply) {
        ++stats_.bad;
        return;
    }
    Slot& s = slots_[reply.xid & uint32_t(slots_.size() - 1)];
    const loadwire::Duid duid = loadwire::clientDuid(s.client);
    if (!s.busy || s.xid != reply.xid || reply.clientId.size() != duid.size() ||
        std::memcmp(reply.clientId.data(), duid.data(), duid.size()) != 0) {
        ++stats_.bad;
        return;
    }
    s.busy = false;
    --outstanding_;
    ++stats_.answered;
    if (now <= endNs_) ++stats_.answeredInRun;
    const uint64_t lat = now - s.sentNs;
    stats_.latencyNs.push_back(uint32_t(std::min<uint64_t>(lat, UINT32_MAX)));
}

void Generator::receive() {
    for (;;) {
        for (size_t i = 0; i < kBatch; ++i) {
            rxIov_[i] = iovec{rxBuf_[i].data(), rxBuf_[i].size()};
            rxMsg_[i] = mmsghdr{};
            rxMsg_[i].msg_hdr.msg_iov = &rxIov_[i];
            rxMsg_[i].msg_hdr.msg_iovlen = 1;
        }
        const int n = recvmmsg(fd_, rxMsg_.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (n <= 0) return;
        const uint64_t now = nowNs();
        for (int i = 0; i < n; ++i)
            onAnswer(qor::ByteView(rxBuf_[size_t(i)].data(), rxMsg_[size_t(i)].msg_len), now);
        if (size_t(n) < kBatch) return;
    }
}

void Generator::expire(uint64_t now) {
    const uint64_t timeout = uint64_t(opt_.timeoutMs) * 1000000ull;
    for (Slot& s : slots_) {
        if (s.busy && now - s.sentNs > timeout) {
            s.busy = false;
            --outstanding_;
            ++stats_.lost;
        }
    }
}

void Generator::run() {
    startNs_ = nowNs();
    endNs_ = startNs_ + uint64_t(opt_.duration * double(kNsPerSec));
    const uint64_t interval = opt_.rate > 0 ? uint64_t(double(kNsPerSec) / opt_.rate) : 0;
    const uint64_t timeout = uint64_t(opt_.timeoutMs) * 1000000ull;
    uint64_t nextSend = startNs_, nextExpire = startNs_ + 10000000ull;
    for (;;) {
        uint64_t now = nowNs();
        if (running_ && now >= endNs_) running_ = false;
        if (!running_ && (outstanding_ == 0 || now > endNs_ + timeout)) break;
        if (running_) {
            if (interval == 0) {
                while (outstanding_ < opt_.window) queueSend(now);
            } else {
                for (; nextSend <= now; nextSend += interval) {
                    if (outstanding_ < opt_.window) queueSend(now);
                    else ++stats_.skipped;
                }
            }
            flushSends();
        }
        if (now >= nextExpire) {
            expire(now);
            nextExpire = now + 10000000ull;
        }
        // Wait for answers, or until the next scheduled Solicit.
        uint64_t waitNs = 10000000ull;
        if (running_ && interval != 0) waitNs = std::min(waitNs, nextSend > now ? nextSend - now : 0);
        pollfd p{fd_, POLLIN, 0};
        const timespec ts{time_t(waitNs / kNsPerSec), long(waitNs % kNsPerSec)};
        if (ppoll(&p, 1, &ts, nullptr) > 0) receive();
    }
    expire(UINT64_MAX / 2);
    doneNs_ = nowNs();
}

uint32_t percentile(std::vector<uint32_t>& v, double q) {
    if (v.empty()) return 0;
    const size_t k = std::min(v.size() - 1, size_t(q * double(v.size())));
    std::nth_element(v.begin(), v.begin() + long(k), v.end());
    return v[k];
}

double cpuSeconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

void Generator::report() const {
    std::vector<uint32_t> lat = stats_.latencyNs;
    const double us = 1000.0;
    const double p50 = percentile(lat, 0.50) / us, p90 = percentile(lat, 0.90) / us;
    const double p99 = percentile(lat, 0.99) / us, p999 = percentile(lat, 0.999) / us;
    const double maxUs = lat.empty() ? 0 : *std::max_element(lat.begin(), lat.end()) / us;
    const double secs = opt_.duration;
    const double xps = double(stats_.answeredInRun) / secs;
    std::printf(
        "LOADGEN label=%s mode=%s window=%u rate=%.0f clients=%u duration_s=%.2f sent=%" PRIu64
        " answered=%" PRIu64 " lost=%" PRIu64 " bad=%" PRIu64 " skipped=%" PRIu64
        " xps=%.0f p50_us=%.1f p90_us=%.1f p99_us=%.1f p999_us=%.1f max_us=%.1f gen_cpu_s=%.2f\n",
        opt_.label.c_str(), opt_.rate > 0 ? "rate" : "closed", opt_.window, opt_.rate, opt_.clients,
        secs, stats_.sent, stats_.answered, stats_.lost, stats_.bad, stats_.skipped, xps, p50, p90,
        p99, p999, maxUs, cpuSeconds());
    std::printf("  %s: %" PRIu64 " Solicits, %" PRIu64 " REPLYs matched, %" PRIu64 " lost, %" PRIu64
                " unmatched\n",
                opt_.label.c_str(), stats_.sent, stats_.answered, stats_.lost, stats_.bad);
    std::printf("  %.0f exchanges/s over %.1f s; latency p50 %.1f us, p99 %.1f us, max %.1f us\n",
                xps, secs, p50, p99, maxUs);
    std::fflush(stdout);
}

// A UDP socket on the client port of one link, sending to the relay agents'
// multicast group on that link.
int openClientSocket(const std::string& iface, unsigned ifIndex) {
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int one = 1, zero = 0, big = 8 << 20;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof(big)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, iface.c_str(), socklen_t(iface.size())) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_IF, &ifIndex, sizeof(ifIndex)) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &zero, sizeof(zero)) != 0) {
        close(fd);
        return -1;
    }
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_port = htons(546);
    local.sin6_addr = in6addr_any;
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!parseOptions(argc, argv, opt)) {
        usage();
        return 2;
    }
    const unsigned ifIndex = if_nametoindex(opt.iface.c_str());
    if (ifIndex == 0) {
        std::fprintf(stderr, "load_gen: no interface %s\n", opt.iface.c_str());
        return 1;
    }
    const int fd = openClientSocket(opt.iface, ifIndex);
    if (fd < 0) {
        std::fprintf(stderr, "load_gen: client socket on %s: %s\n", opt.iface.c_str(),
                     std::strerror(errno));
        return 1;
    }
    prctl(PR_SET_TIMERSLACK, 1UL, 0, 0, 0);  // paced sends need sub-millisecond wake-ups
    sockaddr_in6 dest{};
    dest.sin6_family = AF_INET6;
    dest.sin6_port = htons(547);
    dest.sin6_scope_id = ifIndex;
    inet_pton(AF_INET6, "ff02::1:2", &dest.sin6_addr);
    Generator gen(opt, fd, dest);
    gen.run();
    gen.report();
    close(fd);
    return 0;
}
