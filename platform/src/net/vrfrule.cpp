// vrfrule.cpp -- the policy rules that carry a VRF's packets: the relay
// marks its socket with the VRF's table, and "fwmark T lookup T" routes the
// marked packets through that table.
#include <libmnl/libmnl.h>
#include <linux/fib_rules.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <mutex>
#include <set>

#include "netintf.h"

namespace {

// Ahead of the main table's rule (32766), behind the local table's (0). A
// fixed preference lets the kernel see a second add as the same rule.
constexpr uint32_t kRulePriority = 1000;

struct MnlClose {
    void operator()(mnl_socket* s) const { mnl_socket_close(s); }
};
using MnlSocket = std::unique_ptr<mnl_socket, MnlClose>;

int addRule(uint32_t table) {
    MnlSocket nl(mnl_socket_open(NETLINK_ROUTE));
    if (!nl || mnl_socket_bind(nl.get(), 0, MNL_SOCKET_AUTOPID) < 0) return -1;
    alignas(nlmsghdr) char buf[MNL_SOCKET_BUFFER_SIZE];
    nlmsghdr* nlh = mnl_nlmsg_put_header(buf);
    nlh->nlmsg_type = RTM_NEWRULE;
    nlh->nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
    nlh->nlmsg_seq = uint32_t(time(nullptr));
    auto* rule = static_cast<fib_rule_hdr*>(mnl_nlmsg_put_extra_header(nlh, sizeof(fib_rule_hdr)));
    rule->family = AF_INET6;
    rule->action = FR_ACT_TO_TBL;
    rule->table = table < 256 ? uint8_t(table) : uint8_t(RT_TABLE_UNSPEC);
    mnl_attr_put_u32(nlh, FRA_TABLE, table);
    mnl_attr_put_u32(nlh, FRA_FWMARK, table);
    mnl_attr_put_u32(nlh, FRA_PRIORITY, kRulePriority);
    if (mnl_socket_sendto(nl.get(), nlh, nlh->nlmsg_len) < 0) return -1;
    const ssize_t n = mnl_socket_recvfrom(nl.get(), buf, sizeof buf);
    if (n < 0) return -1;
    if (mnl_cb_run(buf, size_t(n), nlh->nlmsg_seq, mnl_socket_get_portid(nl.get()), nullptr, nullptr) < 0)
        return errno == EEXIST ? 0 : -1;
    return 0;
}

}  // namespace

int qorVrfRuleEnsure(uint32_t table) {
    static std::mutex mu;
    static std::set<uint32_t> present;
    static pid_t owner = 0;
    std::lock_guard lock(mu);
    if (owner != getpid()) {  // a forked child may live in another namespace
        owner = getpid();
        present.clear();
    }
    if (present.count(table) != 0) return 0;
    if (addRule(table) != 0) return -1;
    present.insert(table);
    return 0;
}
