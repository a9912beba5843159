// ChassisNetlink.cpp -- link states and delegated-prefix routes over
// rtnetlink (libmnl).
#include "ChassisNetlink.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <vector>

namespace {

struct MnlClose {
    void operator()(mnl_socket* s) const { mnl_socket_close(s); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlClose>;

MnlSocket mnlOpen(unsigned groups) {
    MnlSocket nl(mnl_socket_open(NETLINK_ROUTE));
    if (nl && mnl_socket_bind(nl.get(), groups, MNL_SOCKET_AUTOPID) < 0) nl.reset();
    return nl;
}

int linkAttr(const nlattr* attr, void* data) {
    if (mnl_attr_get_type(attr) == IFLA_IFNAME && mnl_attr_validate(attr, MNL_TYPE_NUL_STRING) >= 0)
        *static_cast<const char**>(data) = mnl_attr_get_str(attr);
    return MNL_CB_OK;
}

// One RTM_NEWLINK / RTM_DELLINK into the states.
int linkMessage(const nlmsghdr* nlh, void* data) {
    auto& links = *static_cast<ChassisLinkStates*>(data);
    if (nlh->nlmsg_type != RTM_NEWLINK && nlh->nlmsg_type != RTM_DELLINK) return MNL_CB_OK;
    if (mnl_nlmsg_get_payload_len(nlh) < sizeof(ifinfomsg)) return MNL_CB_OK;
    const auto* ifi = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(nlh));
    const char* name = nullptr;
    if (mnl_attr_parse(nlh, sizeof(ifinfomsg), linkAttr, &name) < 0 || name == nullptr) return MNL_CB_OK;
    if (nlh->nlmsg_type == RTM_DELLINK)
        links.erase(name);
    else
        links[name] = (ifi->ifi_flags & IFF_UP) && (ifi->ifi_flags & IFF_RUNNING);
    return MNL_CB_OK;
}

// Sends one request and reads its answers up to the acknowledgement or the
// end of the dump. 0 or the negative errno.
int mnlTalk(mnl_socket* nl, nlmsghdr* nlh, mnl_cb_t cb, void* data) {
    static uint32_t seq = uint32_t(time(nullptr));
    nlh->nlmsg_seq = __atomic_add_fetch(&seq, 1, __ATOMIC_RELAXED);
    if (mnl_socket_sendto(nl, nlh, nlh->nlmsg_len) < 0) return -errno;
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    const unsigned portid = mnl_socket_get_portid(nl);
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(nl, buf.data(), buf.size());
        if (n < 0) return -errno;
        const int rc = mnl_cb_run(buf.data(), size_t(n), nlh->nlmsg_seq, portid, cb, data);
        if (rc < 0) return -errno;
        if (rc == MNL_CB_STOP) return 0;
    }
}

}  // namespace

int ChassisLinkWatch::open() {
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) return -1;
    sock_.reset(fd);
    sockaddr_nl addr{};
    addr.nl_family = AF_NETLINK;
    addr.nl_groups = RTMGRP_LINK;
    if (bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        sock_.reset();
        return -1;
    }
    return 0;
}

bool ChassisLinkWatch::drain(ChassisLinkStates& links, const std::function<void()>& changed) {
    std::vector<char> buf(MNL_SOCKET_BUFFER_SIZE);
    std::pair<ChassisLinkStates*, const std::function<void()>*> each{&links, &changed};
    const auto oneByOne = [](const nlmsghdr* nlh, void* data) {
        auto& [states, after] = *static_cast<decltype(each)*>(data);
        linkMessage(nlh, states);
        (*after)();
        return int(MNL_CB_OK);
    };
    for (;;) {
        const ssize_t n = recv(sock_.get(), buf.data(), buf.size(), 0);
        if (n < 0) return errno != ENOBUFS;
        if (n == 0) return true;
        mnl_cb_run(buf.data(), size_t(n), 0, 0, oneByOne, &each);
    }
}

int chassisLinkSnapshot(ChassisLinkStates& links) {
    MnlSocket nl = mnlOpen(0);
    if (!nl) return -1;
    alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = RTM_GETLINK;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    auto* gen = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtgenmsg)));
    gen->rtgen_family = AF_UNSPEC;
    ChassisLinkStates fresh;
    if (mnlTalk(nl.get(), nlh, linkMessage, &fresh) != 0) return -1;
    links = std::move(fresh);
    return 0;
}

int chassisRouteChange(const ChassisRoute& route, bool add) {
    MnlSocket nl = mnlOpen(0);
    if (!nl) return -errno;
    const auto build = [&](char* buf, bool onlink) {
        nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
        nlh->nlmsg_type = add ? RTM_NEWROUTE : RTM_DELROUTE;
        nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_REPLACE : 0);
        auto* rtm = static_cast<rtmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(rtmsg)));
        rtm->rtm_family = AF_INET6;
        rtm->rtm_dst_len = route.prefixLen;
        const uint32_t table = route.table ? route.table : RT_TABLE_MAIN;
        rtm->rtm_table = table < 256 ? uint8_t(table) : uint8_t(RT_TABLE_UNSPEC);
        rtm->rtm_protocol = RTPROT_DHCP;
        rtm->rtm_scope = RT_SCOPE_UNIVERSE;
        rtm->rtm_type = RTN_UNICAST;
        if (onlink) rtm->rtm_flags = RTNH_F_ONLINK;
        mnl_attr_put_u32(nlh, RTA_TABLE, table);
        mnl_attr_put(nlh, RTA_DST, route.prefix.size(), route.prefix.data());
        mnl_attr_put(nlh, RTA_GATEWAY, route.nextHop.size(), route.nextHop.data());
        mnl_attr_put_u32(nlh, RTA_OIF, route.linuxIfIndex);
        return nlh;
    };
    alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
    int rc = mnlTalk(nl.get(), build(buf, false), nullptr, nullptr);
    // A global next hop with no on-link route to it is still the client on
    // that interface: the relay saw it there.
    if (add && (rc == -EHOSTUNREACH || rc == -ENETUNREACH || rc == -EINVAL))
        rc = mnlTalk(nl.get(), build(buf, true), nullptr, nullptr);
    if (!add && rc == -ESRCH) return 0;
    return rc;
}
