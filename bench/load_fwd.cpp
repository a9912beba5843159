// load_fwd.cpp -- a minimal DHCPv6 relay for the load test's calibration: it
// wraps each client message from one link in a Relay-Forward to one server
// and unwraps each Relay-Reply to the client, nothing else (no tables, no
// options but Relay-Message, no checks beyond the message layout). What it
// carries is the most the load test's clients, server and links can carry on
// this host, the ceiling every real relay is compared with.
//
//   bench_load_fwd --lower IF --server ADDR
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
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

// The first global address of an interface: the link-address of the
// Relay-Forwards (the server picks the client's subnet by it).
bool globalAddress(const char* ifName, in6_addr& out) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) return false;
    bool found = false;
    for (ifaddrs* a = list; a && !found; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET6 || std::strcmp(a->ifa_name, ifName) != 0)
            continue;
        const auto* sin6 = reinterpret_cast<const sockaddr_in6*>(a->ifa_addr);
        if (IN6_IS_ADDR_LINKLOCAL(&sin6->sin6_addr)) continue;
        out = sin6->sin6_addr;
        found = true;
    }
    freeifaddrs(list);
    return found;
}

class Forwarder {
public:
    Forwarder(int fd, unsigned lowerIfIndex, const in6_addr& linkAddr, const sockaddr_in6& server)
        : fd_(fd), lowerIfIndex_(lowerIfIndex), linkAddr_(linkAddr), server_(server) {}

    void serveBatch() {
        for (size_t i = 0; i < kBatch; ++i) {
            rxIov_[i] = iovec{rxBuf_[i].data(), rxBuf_[i].size()};
            rxMsg_[i] = mmsghdr{};
            rxMsg_[i].msg_hdr.msg_name = &from_[i];
            rxMsg_[i].msg_hdr.msg_namelen = sizeof(from_[i]);
            rxMsg_[i].msg_hdr.msg_iov = &rxIov_[i];
            rxMsg_[i].msg_hdr.msg_iovlen = 1;
        }
        const int n = recvmmsg(fd_, rxMsg_.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (n <= 0) return;
        size_t out = 0;
        for (size_t i = 0; i < size_t(n); ++i) {
            const qor::ByteView in(rxBuf_[i].data(), rxMsg_[i].msg_len);
            if (in.empty()) continue;
            const bool fromServer = in[0] == loadwire::kRelayRepl;
            const size_t len = fromServer ? unwrap(in, out) : wrap(in, from_[i].sin6_addr, out);
            if (len == 0) continue;
            txIov_[out] = iovec{txBuf_[out].data(), len};
            txMsg_[out] = mmsghdr{};
            txMsg_[out].msg_hdr.msg_name = fromServer ? &to_[out] : &server_;
            txMsg_[out].msg_hdr.msg_namelen = sizeof(sockaddr_in6);
            txMsg_[out].msg_hdr.msg_iov = &txIov_[out];
            txMsg_[out].msg_hdr.msg_iovlen = 1;
            ++out;
        }
        for (size_t done = 0; done < out;) {
            const int sent = sendmmsg(fd_, &txMsg_[done], unsigned(out - done), 0);
            if (sent <= 0) {
                if (sent < 0 && errno == EINTR) continue;
                break;
            }
            done += size_t(sent);
        }
    }

private:
    // A client's message in a Relay-Forward to the server.
    size_t wrap(qor::ByteView in, const in6_addr& peer, size_t slot) {
        qor::MutByteView out(txBuf_[slot]);
        if (!qor::fits(out.size(), 0, loadwire::kRelayHdrLen)) return 0;
        qor::putU8(out, 0, loadwire::kRelayForw);
        qor::putU8(out, 1, 0);
        qor::putBytes(out, 2, &linkAddr_, 16);
        qor::putBytes(out, 18, &peer, 16);
        size_t used = loadwire::kRelayHdrLen;
        return loadwire::putOption(out, used, loadwire::kOptRelayMsg, in) ? used : 0;
    }

    // A Relay-Reply's message, addressed to its peer-address on the client link.
    size_t unwrap(qor::ByteView in, size_t slot) {
        loadwire::RelayView reply;
        if (!loadwire::parseRelay(in, loadwire::kRelayRepl, reply)) return 0;
        sockaddr_in6& to = to_[slot];
        to = sockaddr_in6{};
        to.sin6_family = AF_INET6;
        to.sin6_port = htons(reply.hopCount ? 547 : 546);
        qor::getBytes(reply.linkAndPeer, 16, &to.sin6_addr, 16);
        to.sin6_scope_id = lowerIfIndex_;
        if (!qor::fits(txBuf_[slot].size(), 0, reply.relayMsg.size())) return 0;
        qor::putBytes(txBuf_[slot], 0, reply.relayMsg.data(), reply.relayMsg.size());
        return reply.relayMsg.size();
    }

    int fd_;
    unsigned lowerIfIndex_;
    in6_addr linkAddr_;
    sockaddr_in6 server_;
    std::array<sockaddr_in6, kBatch> from_{};
    std::array<sockaddr_in6, kBatch> to_{};
    std::array<std::array<uint8_t, kPktMax>, kBatch> rxBuf_{};
    std::array<iovec, kBatch> rxIov_{};
    std::array<mmsghdr, kBatch> rxMsg_{};
    std::array<std::array<uint8_t, kPktMax>, kBatch> txBuf_{};
    std::array<iovec, kBatch> txIov_{};
    std::array<mmsghdr, kBatch> txMsg_{};
};

// One socket on port 547 for both sides: client messages arrive on the
// All_DHCP_Relay_Agents_and_Servers group of the lower link, Relay-Replies
// unicast from the server.
int openRelaySocket(unsigned lowerIfIndex) {
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    const int big = 8 << 20;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &big, sizeof(big)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof(big));
    sockaddr_in6 local{};
    local.sin6_family = AF_INET6;
    local.sin6_port = htons(547);
    local.sin6_addr = in6addr_any;
    ipv6_mreq group{};
    inet_pton(AF_INET6, "ff02::1:2", &group.ipv6mr_multiaddr);
    group.ipv6mr_interface = lowerIfIndex;
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &group, sizeof(group)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

int main(int argc, char** argv) {
    std::string lower, serverText;
    for (int i = 1; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--lower") == 0) lower = argv[i + 1];
        else if (std::strcmp(argv[i], "--server") == 0) serverText = argv[i + 1];
    }
    sockaddr_in6 server{};
    server.sin6_family = AF_INET6;
    server.sin6_port = htons(547);
    const unsigned lowerIfIndex = lower.empty() ? 0 : if_nametoindex(lower.c_str());
    in6_addr linkAddr{};
    if (lowerIfIndex == 0 || inet_pton(AF_INET6, serverText.c_str(), &server.sin6_addr) != 1 ||
        !globalAddress(lower.c_str(), linkAddr)) {
        std::fprintf(stderr, "usage: bench_load_fwd --lower IF --server ADDR (IF needs a global address)\n");
        return 2;
    }
    const int fd = openRelaySocket(lowerIfIndex);
    if (fd < 0) {
        std::fprintf(stderr, "load_fwd: socket on [::]:547: %s\n", std::strerror(errno));
        return 1;
    }
    struct sigaction sa {};
    sa.sa_handler = onSignal;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    static Forwarder forwarder(fd, lowerIfIndex, linkAddr, server);
    while (!g_stop) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 200) > 0) forwarder.serveBatch();
    }
    close(fd);
    return 0;
}
