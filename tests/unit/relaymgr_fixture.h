// relaymgr_fixture.h -- a relay manager brought up on the recording platform stand-in and taken
// down again: every test starts clean and ends by proving that no pool block was left behind.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "dhcpv6RelayMgr.h"
#include "dhcpv6RelayMsgs.h"
#include "dhcpv6Snooping.h"
#include "fake.h"
#include "pkt_builder.h"
#include "qor/chassis.h"
#include "qor/evtlog.h"
#include "qor/ha.h"
#include "qor/hostmap.h"
#include "qor/ifm.h"
#include "qor/ipc.h"
#include "qor/mem.h"
#include "qor/pipe.h"

namespace relaytest {

constexpr const char* kTimerPipe = "/qor/pipe/dhcpv6relayTmrPipe";

inline uint32_t vlanIf(uint32_t vlan) { return ifmCreateIfIndex(IFM_IFTYPE_VLAN, 0, 0, vlan); }
inline uint32_t lagIf(uint32_t lag) { return ifmCreateIfIndex(IFM_IFTYPE_LAG, 0, 0, lag); }

// A control message of `len` bytes with the type and length words set.
inline std::vector<uint8_t> typeMsg(uint32_t type, size_t len) {
    std::vector<uint8_t> m(len, 0);
    qor::putU32(m, QOR_IPC_OFF_LENGTH, uint32_t(len));
    qor::putU32(m, QOR_IPC_OFF_TYPE, type);
    return m;
}

inline std::vector<uint8_t> cmdMsg(uint32_t command, size_t len, uint32_t type = MT_DHCPV6_CMD) {
    auto m = typeMsg(type, len);
    qor::putU32(m, QOR_IPC_OFF_COMMAND, command);
    return m;
}

inline int dispatch(std::vector<uint8_t>& m) { return dhcpv6RelayProcCliCmd(dhcpv6Msg(m)); }

// The command that adds (operation 1) or removes a helper address; the offsets
// are the ones dhcpv6-cli writes.
inline std::vector<uint8_t> helperCmd(uint32_t op, uint32_t ifIndex, const char* address, uint32_t vrfId = 0,
                                      const char* vrfName = "") {
    auto m = cmdMsg(DHCP_RELAYADDR_CONFIG, 652);
    qor::putU32(m, 80, op);
    qor::putU32(m, 84, ifIndex);
    qor::putBytes(m, 92, vrfName, strlen(vrfName));
    qor::putBytes(m, 290, pkt::addr(address).data(), 16);
    qor::putU32(m, 648, vrfId);
    return m;
}

// The IFM's notice that one interface was deleted: one TLV (type IFM_TYP_DEL_IF, length 8) at 140.
inline std::vector<uint8_t> ifmDeleteNotice(uint32_t ifIndex) {
    auto m = typeMsg(MT_IFM_NOTIF_MSG, 148);
    qor::putU32(m, 128, 1);
    qor::putU32(m, 140, 0x00020008);
    qor::putU32(m, 144, ifIndex);
    return m;
}

inline std::string textAt(const std::vector<uint8_t>& b, size_t off) {
    if (off >= b.size()) return {};
    const char* p = reinterpret_cast<const char*>(b.data() + off);
    return std::string(p, strnlen(p, b.size() - off));
}

class RelayFixture : public ::testing::Test {
protected:
    dhcpv6FdSet master{};
    int nfds = 0;
    std::string runDir;
    size_t mark = 0;

    void SetUp() override {
        char tmpl[] = "/tmp/dhcpv6-unit-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        runDir = tmpl;
        qorSetRunDir(runDir.c_str());
        qorTickSetManual(true);
        clearEverything();
        qorPlatformSetIdentity(DHCPV6_RELAY_APP_ID, 0);
        bringUp();
        markCalls();
    }

    void TearDown() override {
        takeDown();
        for (const auto& b : qorMemLiveBlocks())
            ADD_FAILURE() << "block left behind: " << b.unit << ":" << b.line << " (pool " << b.poolId << ", " << b.size << " bytes)";
        EXPECT_EQ(qorMemDoubleFreeCount(), 0u);
        clearEverything();
        qorTickSetManual(false);
        std::filesystem::remove_all(runDir);
    }

    // Queues, pools, tables, the IFM and ACL queues; no registrations or timers.
    virtual void bringUp() {
        dhcpv6RelayGlobalVar.taskKey = qorTaskStartup(0, nullptr, 0, 0);
        ASSERT_EQ(dhcpv6RelayMgrVarInit(&master, &nfds), 0);
        ASSERT_EQ(dhcpv6RelayMgrMemInit(), 0);
        ASSERT_EQ(dhcpv6SnoopingInit(), 0);
        ASSERT_EQ(dhcpv6RelayTableInit(), 0);
        ASSERT_EQ(dhcpv6CreateIfmSwpQueue(), 0);
        ASSERT_EQ(dhcpv6CreateAclSwpQueue(), 0);
    }

    void markCalls() { mark = qorfake::calls().size(); }
    // The calls to `name` (to anything when empty) since markCalls().
    std::vector<qorfake::Call> since(const std::string& name) const {
        std::vector<qorfake::Call> out;
        for (size_t i = mark; i < qorfake::calls().size(); ++i)
            if (name.empty() || qorfake::calls()[i].name == name) out.push_back(qorfake::calls()[i]);
        return out;
    }

    // Sends a command that is always answered; returns the answer's status.
    int32_t status(std::vector<uint8_t> m) {
        const size_t before = since("qorIpcReply").size();
        dispatch(m);
        const auto r = since("qorIpcReply");
        EXPECT_EQ(r.size(), before + 1) << "the command is answered once";
        return r.size() > before ? int32_t(qor::u32At(r.back().bytes, QOR_IPC_OFF_STATUS)) : -99;
    }

    static std::string eventLog() {
        std::ifstream in(qorEvtLogPath());
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    template <typename F>
    static std::string debugOf(uint32_t flags, F run) {
        dhcpv6_debug_flag = flags;
        ::testing::internal::CaptureStdout();
        run();
        dhcpv6_debug_flag = 0;
        return ::testing::internal::GetCapturedStdout();
    }

    // The timer service as the timer task would have set it up.
    static void startTimerService() {
        timerTaskStartup();
        ASSERT_EQ(timerInit(), 0);
        if (tmrTaskSemId == nullptr) tmrTaskSemId = semBCreate(SEM_Q_FIFO, SEM_FULL);
        timerTaskReady = 1;
    }

private:
    static void clearEverything() {
        qorfake::reset();
        qorMemReset();
        qorEvtReset();
        dhcpv6RelayGlobalVar = dhcpv6RelayGlobal{};
        dhcpv6RelayTimert = dhcpv6RelayTimers{};
        relayv6Head = nullptr;
        dhcpv6_debug_flag = 0;
        dhcpv6IsInitComplete = 0;
        isL2McZero = 0;
        chassisMacPresent = 0;
        std::memset(mac_addr, 0, sizeof mac_addr);
        dhcpv6RtmSeqNo = QOR_SWP_SEQ{};
        std::memset(dhcpv6AgtTbl, 0, sizeof dhcpv6AgtTbl);
        std::memset(dhcpv6SwAgtTbl, 0, sizeof dhcpv6SwAgtTbl);
        pipeDevDelete("/qor/pipe/dhcpv6relaymgrPipe");
        pipeDevDelete(kTimerPipe);
    }

    // Entries are the owner's: the table frees only its own nodes.
    static void drainTable(QOR_RADIX_HANDLE table, uint32_t keyBits, void (*release)(void*)) {
        for (QOR_RADIX_NODE* n; table != nullptr && (n = qorRadixGetNext(table, nullptr, 0)) != nullptr; release(n))
            qorRadixRemove(table, n->rnKey, keyBits);
    }

    static void takeDown() {
        auto& g = dhcpv6RelayGlobalVar;
        dhcpv6_debug_flag = 0;
        g.srcIfSockFd = 0;
        drainTable(g.transTbl, DHCPV6_TRANS_KEY_BITS, dhcpv6TransactionTblRadixFree);
        drainTable(g.leaseIpTbl, DHCPV6_LEASEIP_KEY_BITS, dhcpv6LeaseIpTblRadixFree);
        // The daemon's own deletion paths empty the helper table.
        while (relayv6Head != nullptr) {
            const uint32_t ifIndex = relayv6Head->ifIndex;
            dhcpv6RelayDelIntHelper(ifIndex);
            dhcpv6RelayDelSrcInterface(ifIndex);
        }
        for (int q : {g.ifmSwpQueue, g.aclSwpQueue, g.rtmSwpQueue, g.mrtmSwpQueue})
            if (q != 0) qorSwpQueueRemove(q);
        for (QOR_RADIX_HANDLE* t : {&g.transTbl, &g.leaseIpTbl, &g.snoopTbl})
            if (*t != nullptr) qorRadixDestroy(std::exchange(*t, nullptr));
        dhcpv6SwRbtInitDeInit(0);
        for (timerEnt** t : {&dhcpv6RelayTimert.transTimer, &dhcpv6RelayTimert.snoopTimer})
            if (*t != nullptr) timerDelete(std::exchange(*t, nullptr));
        // Stale expiries free their blocks when they arrive.
        for (uint32_t w = 0; g.timerPipeFd > 0 && read(g.timerPipeFd, &w, sizeof w) == ssize_t(sizeof w);)
            if (w != 0) timerIpcCallback(w);
        timerCleanup();
        for (int fd : {g.protoSockFd, g.outSockFd})
            if (fd > 0) qorClose(fd);
    }
};

inline uint32_t ifIndexOf(const char* name) {
    uint32_t ifIndex = 0;
    EXPECT_EQ(ifmNameToIfIndex(name, &ifIndex), 0) << name;
    return ifIndex;
}

class PacketFixture : public RelayFixture {
protected:
    static constexpr pkt::Mac kRouterMac{0x00, 0x00, 0x5e, 0x00, 0x53, 0x01};
    const pkt::Addr kVlanAddr = pkt::addr("2001:db8:10::1");
    const pkt::Addr kRoutedAddr = pkt::addr("2001:db8:9::1");
    const pkt::Addr kServerSideAddr = pkt::addr("2001:db8:ff::1");
    uint32_t vlan10 = 0, port1 = 0, routedPort = 0, serverPort = 0;

    void bringUp() override {
        RelayFixture::bringUp();
        installMap(false);
        ASSERT_EQ(dhcpv6RelayMgrCreateOutSockFd(), 0);
        vlan10 = vlanIf(10);
        port1 = ifIndexOf("ethernet 1/1");
        routedPort = ifIndexOf("ethernet 1/9");
        serverPort = ifIndexOf("ethernet 1/8");
        setIntf(vlan10, &kVlanAddr);
        setIntf(routedPort, &kRoutedAddr);
        setIntf(serverPort, &kServerSideAddr);
        qorfake::setChassisMac(std::array<uint8_t, 6>{0x02, 0x00, 0x5e, 0x10, 0x00, 0x01}.data());
    }
    void TearDown() override {
        RelayFixture::TearDown();
        qorHostMapInstall(QorHostMap{});
    }

    // VLAN 10 on plain, sub-, tagged, port-channel, port-extender and stack-unit-2 ports; a routed
    // client port (1/9), a routed port towards the servers (1/8); VRFs red (1) and blue (2).
    static void installMap(bool fourTuple) {
        const std::string text =
            std::string("[system]\nmaster-slot = 1\nports-per-module = 4\nfour-tuple = ") + (fourTuple ? "yes" : "no") +
            "\n[vrf red]\nid = 1\n[vrf blue]\nid = 2\n[interface ethernet 1/1]\nuntagged = 10\n"
            "[interface ethernet 1/2:3]\nuntagged = 10\n[interface ethernet 1/7:2]\ntagged = 10\n[interface ethernet 1/4]\n"
            "[interface port-channel 3]\nmembers = ethernet 1/4\nuntagged = 10\n[interface pe-ethernet 0/1/5]\nuntagged = 10\n"
            "[interface ethernet 2/1]\nuntagged = 10\n[interface ethernet 1/9]\n[interface ethernet 1/8]\n[interface vlan 10]\n";
        QorHostMap map;
        std::string err;
        ASSERT_EQ(qorHostMapParse(text, map, err), 0) << err;
        qorHostMapInstall(map);
    }
    // An interface with the router's MAC and, unless null, a global address.
    static void setIntf(uint32_t ifIndex, const pkt::Addr* global) {
        nbsdIntfInfo info{};
        info.ifIndex = ifIndex;
        info.hasGlobalIpv6 = global != nullptr;
        if (global != nullptr) std::memcpy(info.ipv6Addr, global->data(), 16);
        std::memcpy(info.mac, kRouterMac.data(), 6);
        qorfake::setIntfInfo(ifIndex, info);
    }
    static void addHelper(uint32_t ifIndex, const char* address, uint32_t vrfId = 0, const char* vrfName = "") {
        auto m = helperCmd(1, ifIndex, address, vrfId, vrfName);
        dispatch(m);
    }
    // Hands a frame to the relay as the protocol socket delivers it.
    static uint32_t receive(pkt::Bytes frame, uint32_t logical, uint32_t recv, uint32_t phys) {
        return dhcpv6RelayStart(frame.data(), uint32_t(frame.size()), logical, recv, phys);
    }
    // What went to servers (UDP, an IPv6 socket address) and out of ports.
    static std::vector<qorfake::Sent> forwards() { return sentWhere([](auto& s) { return s.dst.size() == sizeof(sockaddr_in6); }); }
    static std::vector<qorfake::Sent> portSends() { return sentWhere([](auto& s) { return s.fd == dhcpv6RelayGlobalVar.outSockFd; }); }
    template <typename P>
    static std::vector<qorfake::Sent> sentWhere(P pred) {
        std::vector<qorfake::Sent> out;
        for (auto& s : qorfake::sent())
            if (pred(s)) out.push_back(s);
        return out;
    }
};

}  // namespace relaytest
