// load_server.cpp -- the relay load test's DHCPv6 server: answers every
// Relay-Forward at once with a Relay-Reply (hop-count, link- and
// peer-address copied, Interface-ID echoed, a REPLY to the client inside),
// sent back to the address and port the Relay-Forward came from. It keeps no
// leases: its cost per exchange stays small and constant, so the relay is
// what a load test measures.
//
// Runs until SIGINT or SIGTERM, then prints one line:
//   LOADSERVER received=N answered=N ignored=N cpu_s=S
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>

#include "load_wire.h"

namespace {

constexpr size_t kBatch = 64;
constexpr size_t kPktMax = 2048;

volatile sig_atomic_t g_stop = 0;
void onSignal(int) { g_stop = 1; }

struct Counters {
    uint64_t received = 0, answered = 0, ignored = 0;
};

int openServerSocket(const std::string& iface) {
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int one = 1, big = 8 << 20;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
    if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof(big)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof(big));
    if (!iface.empty() &&
        setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, iface.c_str(), socklen_t(iface.size())) != 0) {
        close(fd);
        return -1;
    }
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_port = htons(547);
    local.sin6_addr = in6addr_any;
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// Reads Relay-Forwards in batches and answers each batch with one sendmmsg.
class Server {
public:
    explicit Server(int fd) : fd_(fd) {
        const loadwire::Duid id = loadwire::clientDuid(0xfeedu);
        serverDuid_ = id;
    }

    void serveBatch() {
        for (size_t i = 0; i < kBatch; ++i) {
            rxIov_[i] = iovec{rxBuf_[i].data(), rxBuf_[i].size()};
            rxMsg_[i] = mmsghdr{};
            rxMsg_[i].msg_hdr.msg_name = &peer_[i];
            rxMsg_[i].msg_hdr.msg_namelen = sizeof(peer_[i]);
            rxMsg_[i].msg_hdr.msg_iov = &rxIov_[i];
            rxMsg_[i].msg_hdr.msg_iovlen = 1;
        }
        const int n = recvmmsg(fd_, rxMsg_.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (n <= 0) return;
        size_t out = 0;
        for (size_t i = 0; i < size_t(n); ++i) {
            ++counters_.received;
            const qor::ByteView in(rxBuf_[i].data(), rxMsg_[i].msg_len);
            const size_t len = loadwire::answerRelayForward(in, txBuf_[out], serverDuid_);
            if (len == 0) {
                ++counters_.ignored;
                continue;
            }
            txIov_[out] = iovec{txBuf_[out].data(), len};
            txMsg_[out] = mmsghdr{};
            txMsg_[out].msg_hdr.msg_name = &peer_[i];
            txMsg_[out].msg_hdr.msg_namelen = rxMsg_[i].msg_hdr.msg_namelen;
            txMsg_[out].msg_hdr.msg_iov = &txIov_[out];
            txMsg_[out].msg_hdr.msg_iovlen = 1;
            ++out;
        }
        size_t done = 0;
        while (done < out) {
            const int sent = sendmmsg(fd_, &txMsg_[done], unsigned(out - done), 0);
            if (sent <= 0) {
                if (sent < 0 && errno == EINTR) continue;
                break;  // an answer the kernel will not take is a lost exchange
            }
            done += size_t(sent);
        }
        counters_.answered += done;
    }

    const Counters& counters() const { return counters_; }

private:
    int fd_;
    Counters counters_;
    loadwire::Duid serverDuid_{};
    std::array<sockaddr_in6, kBatch> peer_{};
    std::array<std::array<uint8_t, kPktMax>, kBatch> rxBuf_{};
    std::array<iovec, kBatch> rxIov_{};
    std::array<mmsghdr, kBatch> rxMsg_{};
    std::array<std::array<uint8_t, kPktMax>, kBatch> txBuf_{};
    std::array<iovec, kBatch> txIov_{};
    std::array<mmsghdr, kBatch> txMsg_{};
};

double cpuSeconds() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return double(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) +
           double(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
    std::string iface;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--iface") == 0 && i + 1 < argc) {
            iface = argv[++i];
        } else {
            std::fprintf(stderr, "usage: bench_load_server [--iface IF]\n");
            return 2;
        }
    }
    const int fd = openServerSocket(iface);
    if (fd < 0) {
        std::fprintf(stderr, "load_server: socket on [::]:547: %s\n", std::strerror(errno));
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = onSignal;  // no SA_RESTART: poll returns on the signal
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    static Server server(fd);  // batch buffers are too large for the stack
    std::printf("LOADSERVER ready\n");
    std::fflush(stdout);
    while (!g_stop) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 200) > 0) server.serveBatch();
    }
    const Counters& c = server.counters();
    std::printf("LOADSERVER received=%" PRIu64 " answered=%" PRIu64 " ignored=%" PRIu64
                " cpu_s=%.2f\n",
                c.received, c.answered, c.ignored, cpuSeconds());
    close(fd);
    return 0;
}
