// CliParse.h -- the pure half of dhcpv6-cli's command layer: one command line
// in, a parsed command out; parsed commands in, request messages out; answers
// in, checked fields out. Nothing here sends, receives or prints, so every
// step can be checked byte by byte without a daemon. Header-only (inline) so
// that a test links it with no more than the platform core.
#pragma once

#include <arpa/inet.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dhcpv6RelayMsgs.h"
#include "qor/bytes.h"
#include "qor/chassis.h"
#include "qor/ifm.h"
#include "qor/ipc.h"

// ---- parsed commands -----------------------------------------------------------

enum class CliCmd : uint8_t {
    Nothing,          // blank line, comment, the daemon's "DHCPv6RelayMgr:" header line
    Interface,        // interface NAME
    LeaveInterface,   // exit, end, !
    HelperAddress,    // [no] ipv6 helper-address [vrf NAME] ADDR (interface context)
    SourceInterface,  // [no] ipv6 dhcp relay source-interface NAME (global context)
    IfSourceInterface,  // the same line in interface context
    DebugLog,         // [no] debug ipv6 dhcp [level N]
    DebugFlags,       // [no] debug ipv6 dhcp flags VALUE
    ShowRunning,      // show running-config
    WriteMemory,      // write memory
    ShowAclTrap,      // show acl trap
    ClearRoutes,      // clear ipv6 route dhcp [PREFIX/LEN]
    SwitchPort,       // [no] switchport (interface context)
    ChannelGroup,     // channel-group N, no channel-group [N] (interface context)
};

struct CliParsed {
    CliCmd cmd = CliCmd::Nothing;
    bool negate = false;            // the "no" form
    std::string ifName;             // as ifmIfIndexToName prints it; empty when not given
    uint32_t ifIndex = 0;           // what the name encodes; the IFM still has to know it
    std::string vrfName;            // empty: the default VRF
    std::array<uint8_t, 16> addr{};  // helper address, network order
    uint32_t logSwitch = 0;         // DHCP_LOG_LEVEL debug switch
    uint32_t logLevel = 0;          // DHCP_LOG_LEVEL severity level
    uint32_t debugFlags = 0;        // the new dhcpv6_debug_flag
    bool allRoutes = true;          // clear ipv6 route dhcp: every route, or prefix/prefixLen
    uint8_t prefixLen = 0;
    uint32_t lagNumber = 0;         // channel-group: the port-channel, 1-65535; 0 leaves it
};

constexpr uint32_t CLI_DEBUG_LEVEL_ON = 7;   // EVT_LOGDEBUG: what "debug ipv6 dhcp" asks for
constexpr uint32_t CLI_DEBUG_LEVEL_OFF = 6;  // EVT_LOGINFO: the daemon's start-up level

// Source-interface line texts; a per-interface line is indented like every
// line of an interface block.
inline constexpr char CLI_SRC_INTF_LINE[] = "ipv6 dhcp relay source-interface";
inline constexpr char CLI_IF_SRC_INTF_LINE[] = " ipv6 dhcp relay source-interface";

// ---- words -------------------------------------------------------------------------

using CliWords = std::vector<std::string_view>;

inline CliWords cliSplitWords(std::string_view line) {
    CliWords words;
    size_t at = 0;
    while (at < line.size()) {
        while (at < line.size() && std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        const size_t start = at;
        while (at < line.size() && !std::isspace(static_cast<unsigned char>(line[at]))) ++at;
        if (at > start) words.push_back(line.substr(start, at - start));
    }
    return words;
}

// Keywords are matched whole and without regard to case.
inline bool cliIsWord(std::string_view word, std::string_view keyword) {
    if (word.size() != keyword.size()) return false;
    for (size_t i = 0; i < word.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(word[i])) != keyword[i]) return false;
    return true;
}

inline bool cliWordsAre(const CliWords& words, size_t from, std::span<const std::string_view> keywords) {
    if (words.size() < from + keywords.size()) return false;
    size_t i = from;
    for (const std::string_view k : keywords)
        if (!cliIsWord(words[i++], k)) return false;
    return true;
}
inline bool cliWordsAre(const CliWords& words, size_t from, std::initializer_list<std::string_view> keywords) {
    return cliWordsAre(words, from, std::span<const std::string_view>(keywords.begin(), keywords.size()));
}

inline std::string cliJoinWords(const CliWords& words, size_t from) {
    std::string out;
    for (size_t i = from; i < words.size(); ++i) {
        if (!out.empty()) out += ' ';
        out += words[i];
    }
    return out;
}

// A 32-bit value written in decimal or, with "0x", in hex. False for
// anything else, an empty number or a value above 32 bits.
inline bool cliParseU32(std::string_view text, uint32_t& out) {
    unsigned base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty()) return false;
    uint64_t v = 0;
    for (const char c : text) {
        const int ch = std::tolower(static_cast<unsigned char>(c));
        unsigned digit;
        if (ch >= '0' && ch <= '9')
            digit = unsigned(ch - '0');
        else if (base == 16 && ch >= 'a' && ch <= 'f')
            digit = unsigned(ch - 'a' + 10);
        else
            return false;
        v = v * base + digit;
        if (v > UINT32_MAX) return false;
    }
    out = uint32_t(v);
    return true;
}

// The levels the daemon's event log knows: 1 alert to 7 debug, and 24 for
// development.
inline bool cliIsLogLevel(uint32_t level) { return (level >= 1 && level <= 7) || level == 24; }

// ---- parsing -------------------------------------------------------------------------

inline int cliParseFail(std::string& err, std::string text) {
    err = std::move(text);
    return -1;
}

inline int cliUnknownCommand(const CliWords& words, std::string& err) {
    return cliParseFail(err, "% Unknown command: " + cliJoinWords(words, 0));
}

// An interface name of one word ("vlan10") or more ("ethernet 1/2"), written
// back the way the IFM library prints it.
inline int cliParseIfName(const CliWords& words, size_t from, CliParsed& out, std::string& err) {
    const std::string typed = cliJoinWords(words, from);
    if (typed.empty()) return cliParseFail(err, "% Error: an interface name is missing");
    uint32_t ifIndex = 0;
    if (typed.size() >= IFM_IFNAME_LEN || ifmNameToIfIndex(typed.c_str(), &ifIndex) != 0 ||
        ifIndex == 0)
        return cliParseFail(err, "% Error: unknown interface " + typed);
    char name[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(ifIndex, name);
    name[IFM_IFNAME_LEN - 1] = '\0';
    out.ifName = name;
    out.ifIndex = ifIndex;
    return 0;
}

// The server of a helper address: any IPv6 address but the unspecified one.
inline int cliParseHelperAddr(std::string_view text, CliParsed& out, std::string& err) {
    const std::string s(text);
    in6_addr a{};
    if (inet_pton(AF_INET6, s.c_str(), &a) != 1)
        return cliParseFail(err, "% Invalid IPv6 address: " + s);
    std::array<uint8_t, 16> bytes{};
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = a.s6_addr[i];
    if (bytes == std::array<uint8_t, 16>{}) return cliParseFail(err, "% Invalid IPv6 address: " + s);
    out.addr = bytes;
    return 0;
}

// [no] ipv6 helper-address [vrf NAME] ADDR, from the word after "helper-address".
inline int cliParseHelper(const CliWords& words, size_t at, bool inInterface, CliParsed& out,
                          std::string& err) {
    if (!inInterface)
        return cliParseFail(err, "% Error: ipv6 helper-address is an interface command "
                                 "(enter \"interface NAME\" first)");
    if (at < words.size() && cliIsWord(words[at], "vrf")) {
        if (words.size() != at + 3) return cliUnknownCommand(words, err);
        if (words[at + 1].size() > DHCPV6_RLY_VRF_NAME_LEN)
            return cliParseFail(err, "% Error: a VRF name has at most 32 characters: " +
                                         std::string(words[at + 1]));
        out.vrfName = std::string(words[at + 1]);
        at += 2;
    }
    if (words.size() != at + 1) return cliUnknownCommand(words, err);
    out.cmd = CliCmd::HelperAddress;
    return cliParseHelperAddr(words[at], out, err);
}

// [no] ipv6 dhcp relay source-interface NAME; the no form may leave the name
// out, as the daemon removes the setting whatever it was.
inline int cliParseSourceIntf(const CliWords& words, size_t at, bool inInterface, CliParsed& out,
                              std::string& err) {
    out.cmd = inInterface ? CliCmd::IfSourceInterface : CliCmd::SourceInterface;
    if (at == words.size() && out.negate) return 0;
    return cliParseIfName(words, at, out, err);
}

// [no] debug ipv6 dhcp [level N | flags VALUE], from the word after "dhcp".
inline int cliParseDebug(const CliWords& words, size_t at, CliParsed& out, std::string& err) {
    if (at == words.size()) {
        out.cmd = CliCmd::DebugLog;
        out.logSwitch = out.negate ? 0 : 1;
        out.logLevel = out.negate ? CLI_DEBUG_LEVEL_OFF : CLI_DEBUG_LEVEL_ON;
        return 0;
    }
    if (cliIsWord(words[at], "flags")) {
        out.cmd = CliCmd::DebugFlags;
        if (out.negate && (words.size() == at + 1 || words.size() == at + 2)) return 0;
        if (words.size() != at + 2) return cliUnknownCommand(words, err);
        if (!cliParseU32(words[at + 1], out.debugFlags))
            return cliParseFail(err, "% Error: invalid debug flags " + std::string(words[at + 1]) +
                                         " (a 32-bit value, decimal or 0x hex)");
        return 0;
    }
    if (!out.negate && cliIsWord(words[at], "level") && words.size() == at + 2) {
        out.cmd = CliCmd::DebugLog;
        out.logSwitch = 1;
        if (!cliParseU32(words[at + 1], out.logLevel) || !cliIsLogLevel(out.logLevel))
            return cliParseFail(err, "% Error: invalid debug level " + std::string(words[at + 1]) +
                                         " (1-7 or 24)");
        return 0;
    }
    return cliUnknownCommand(words, err);
}

// [no] switchport and channel-group N / no channel-group [N]: the IFM's port
// configuration, from the word after any "no".
inline int cliParsePortCfg(const CliWords& words, size_t at, bool inInterface, CliParsed& out,
                           std::string& err) {
    const bool mode = cliIsWord(words[at], "switchport");
    if (!inInterface)
        return cliParseFail(err, std::string("% Error: ") + (mode ? "switchport" : "channel-group") +
                                     " is an interface command (enter \"interface NAME\" first)");
    if (mode) {
        if (words.size() != at + 1) return cliUnknownCommand(words, err);
        out.cmd = CliCmd::SwitchPort;
        return 0;
    }
    out.cmd = CliCmd::ChannelGroup;
    if (out.negate && words.size() == at + 1) return 0;
    if (words.size() != at + 2) return cliUnknownCommand(words, err);
    uint32_t n = 0;
    if (!cliParseU32(words[at + 1], n) || n < 1 || n > 65535)
        return cliParseFail(err, "% Error: invalid port-channel number " + std::string(words[at + 1]) +
                                     " (1-65535)");
    // "no channel-group N" leaves whichever port-channel the port is in.
    out.lagNumber = out.negate ? 0 : n;
    return 0;
}

// Commands that may take the "no" form, from the word after any "no".
inline int cliParseConfig(const CliWords& words, size_t at, bool inInterface, CliParsed& out,
                          std::string& err) {
    if (cliWordsAre(words, at, {"ipv6", "helper-address"}))
        return cliParseHelper(words, at + 2, inInterface, out, err);
    if (cliWordsAre(words, at, {"ipv6", "dhcp", "relay", "source-interface"}))
        return cliParseSourceIntf(words, at + 4, inInterface, out, err);
    if (cliWordsAre(words, at, {"debug", "ipv6", "dhcp"}))
        return cliParseDebug(words, at + 3, out, err);
    if (cliWordsAre(words, at, {"switchport"}) || cliWordsAre(words, at, {"channel-group"}))
        return cliParsePortCfg(words, at, inInterface, out, err);
    return cliUnknownCommand(words, err);
}

// Commands that have no "no" form.
inline bool cliParseFixed(const CliWords& words, CliParsed& out) {
    struct Fixed {
        std::array<std::string_view, 4> words;
        size_t count;
        CliCmd cmd;
    };
    // The daemon's debugging line shows in the running configuration as a
    // header line and an indented line: the first means nothing by itself,
    // the second is "debug ipv6 dhcp" again.
    static constexpr Fixed kFixed[] = {
        {{"exit"}, 1, CliCmd::LeaveInterface},
        {{"end"}, 1, CliCmd::LeaveInterface},
        {{"show", "running-config"}, 2, CliCmd::ShowRunning},
        {{"show", "acl", "trap"}, 3, CliCmd::ShowAclTrap},
        {{"write", "memory"}, 2, CliCmd::WriteMemory},
        {{"dhcpv6relaymgr:"}, 1, CliCmd::Nothing},
        {{"dhcpv6", "debugging", "is", "on"}, 4, CliCmd::DebugLog},
    };
    for (const Fixed& f : kFixed) {
        const std::span<const std::string_view> keywords(f.words.data(), f.count);
        if (words.size() != f.count || !cliWordsAre(words, 0, keywords)) continue;
        out.cmd = f.cmd;
        if (f.cmd == CliCmd::DebugLog) {
            out.logSwitch = 1;
            out.logLevel = CLI_DEBUG_LEVEL_ON;
        }
        return true;
    }
    return false;
}

// clear ipv6 route dhcp [PREFIX/LEN]: the prefix is given as routed, its
// length 0-128.
inline int cliParseClearRoutes(const CliWords& words, CliParsed& out, std::string& err) {
    out.cmd = CliCmd::ClearRoutes;
    if (words.size() == 4) return 0;
    if (words.size() != 5) return cliUnknownCommand(words, err);
    const std::string text(words[4]);
    const size_t slash = text.find('/');
    uint32_t len = 0;
    in6_addr a{};
    if (slash == std::string::npos || inet_pton(AF_INET6, text.substr(0, slash).c_str(), &a) != 1 ||
        !cliParseU32(std::string_view(text).substr(slash + 1), len) || len > 128)
        return cliParseFail(err, "% Invalid IPv6 prefix: " + text + " (PREFIX/LEN, LEN 0-128)");
    out.allRoutes = false;
    out.prefixLen = uint8_t(len);
    for (size_t i = 0; i < out.addr.size(); ++i) out.addr[i] = a.s6_addr[i];
    return 0;
}

// Parses one line. `inInterface` says whether an interface is being
// configured (it decides what a source-interface line means). 0 with `out`
// filled, or -1 with the operator's message in `err`.
inline int cliParseLine(std::string_view line, bool inInterface, CliParsed& out, std::string& err) {
    out = CliParsed{};
    const CliWords words = cliSplitWords(line);
    if (words.empty() || words[0].front() == '#') return 0;
    // "!" closes a block in a saved configuration, whatever follows it.
    if (words[0].front() == '!') {
        out.cmd = CliCmd::LeaveInterface;
        return 0;
    }
    if (cliParseFixed(words, out)) return 0;
    if (cliWordsAre(words, 0, {"clear", "ipv6", "route", "dhcp"})) return cliParseClearRoutes(words, out, err);
    if (cliIsWord(words[0], "interface")) {
        out.cmd = CliCmd::Interface;
        return cliParseIfName(words, 1, out, err);
    }
    size_t at = 0;
    if (cliIsWord(words[0], "no")) {
        out.negate = true;
        at = 1;
    }
    return cliParseConfig(words, at, inInterface, out, err);
}

// ---- request messages ---------------------------------------------------------------

constexpr size_t CLI_IFM_LOOKUP_LEN = QOR_IFM_LOOKUP_OFF_RESULT + 4;
constexpr uint32_t CLI_IFM_LOOKUP_INTERFACE = 0;
constexpr uint32_t CLI_IFM_LOOKUP_VRF = 1;
// Show answers come back in a buffer as long as the request: ask with the
// longest message a queue carries to get the longest pieces.
constexpr size_t CLI_SHOW_MSG_LEN = QOR_IPC_MAX_MSG;

// A zeroed message of `length` bytes with the header addressed to the
// request queue of (application, instance).
inline std::vector<uint8_t> cliNewMsg(size_t length, uint32_t type, int application, int instance) {
    std::vector<uint8_t> msg(length, 0);
    qorIpcSetSourceHeader(msg, uint32_t(length), type, application, instance, QOR_QUEUE_REQUEST);
    return msg;
}

inline std::vector<uint8_t> cliNewDaemonCmd(size_t length, uint32_t command, int instance) {
    std::vector<uint8_t> msg = cliNewMsg(length, MT_DHCPV6_CMD, QOR_APP_RELAYMGR, instance);
    qor::putU32(msg, QOR_IPC_OFF_COMMAND, command);
    return msg;
}

// Copies text into a zero-padded field, always leaving its last byte zero.
inline void cliPutText(std::vector<uint8_t>& msg, size_t offset, size_t fieldLen, std::string_view text) {
    const size_t n = text.size() < fieldLen ? text.size() : fieldLen - 1;
    qor::putBytes(msg, offset, text.data(), n);
}

inline std::vector<uint8_t> cliEncodeRelayAddr(int instance, const CliParsed& p, uint32_t ifIndex,
                                                uint32_t vrfId) {
    std::vector<uint8_t> msg = cliNewDaemonCmd(DHCPV6_RLY_MSG_LEN, DHCP_RELAYADDR_CONFIG, instance);
    qor::putU32(msg, DHCPV6_RLY_OFF_OPERATION, p.negate ? 0 : 1);
    qor::putU32(msg, DHCPV6_RLY_OFF_IFINDEX, ifIndex);
    // A name of the full 32 bytes fills the field with no zero: the daemon
    // reads it into a buffer one byte longer.
    const size_t n = p.vrfName.size() < DHCPV6_RLY_VRF_NAME_LEN ? p.vrfName.size()
                                                                : DHCPV6_RLY_VRF_NAME_LEN;
    qor::putBytes(msg, DHCPV6_RLY_OFF_VRF_NAME, p.vrfName.data(), n);
    qor::putBytes(msg, DHCPV6_RLY_OFF_ADDR, p.addr.data(), p.addr.size());
    qor::putU32(msg, DHCPV6_RLY_OFF_VRF_ID, vrfId);
    return msg;
}

// The configuration line a source-interface command carries; the daemon
// stores it as it stands.
inline std::string cliSourceIntfLine(bool perInterface, const std::string& ifName) {
    std::string line = perInterface ? CLI_IF_SRC_INTF_LINE : CLI_SRC_INTF_LINE;
    if (!ifName.empty()) line += " " + ifName;
    return line;
}

inline std::vector<uint8_t> cliEncodeSourceIntf(int instance, const CliParsed& p, uint32_t srcIfIndex) {
    std::vector<uint8_t> msg = cliNewDaemonCmd(DHCPV6_SRC_MSG_LEN, DHCP_SOURCE_INTERFACE, instance);
    qor::putU32(msg, DHCPV6_SRC_OFF_OPERATION, p.negate ? 0 : 1);
    qor::putU32(msg, DHCPV6_SRC_OFF_IFINDEX, srcIfIndex);
    cliPutText(msg, DHCPV6_SRC_OFF_LINE, DHCPV6_SRC_LINE_LEN, cliSourceIntfLine(false, p.ifName));
    return msg;
}

inline std::vector<uint8_t> cliEncodeIfSourceIntf(int instance, const CliParsed& p,
                                                  uint32_t clientIfIndex, uint32_t srcIfIndex) {
    std::vector<uint8_t> msg =
        cliNewDaemonCmd(DHCPV6_IFSRC_MSG_LEN, DHCP_IF_SOURCE_INTERFACE, instance);
    qor::putU32(msg, DHCPV6_IFSRC_OFF_CLIENT_IFINDEX, clientIfIndex);
    qor::putU32(msg, DHCPV6_IFSRC_OFF_OPERATION, p.negate ? 0 : 1);
    qor::putU32(msg, DHCPV6_IFSRC_OFF_SRC_IFINDEX, srcIfIndex);
    cliPutText(msg, DHCPV6_IFSRC_OFF_LINE, DHCPV6_SRC_LINE_LEN, cliSourceIntfLine(true, p.ifName));
    return msg;
}

inline std::vector<uint8_t> cliEncodeLogLevel(int instance, const CliParsed& p) {
    std::vector<uint8_t> msg = cliNewDaemonCmd(DHCPV6_LOG_MSG_LEN, DHCP_LOG_LEVEL, instance);
    qor::putU32(msg, DHCPV6_LOG_OFF_DEBUG_SWITCH, p.logSwitch);
    qor::putU32(msg, DHCPV6_LOG_OFF_LEVEL, p.logLevel);
    return msg;
}

inline std::vector<uint8_t> cliEncodeDebugFlag(int instance, const CliParsed& p) {
    std::vector<uint8_t> msg =
        cliNewMsg(DHCPV6_DBGFLAG_MSG_LEN, MT_DHCPV6_SET_DEBUG_FLAG, QOR_APP_RELAYMGR, instance);
    qor::putU32(msg, DHCPV6_DBGFLAG_OFF_VALUE, p.debugFlags);
    return msg;
}

// kind: CLI_IFM_LOOKUP_INTERFACE or CLI_IFM_LOOKUP_VRF. The name field keeps
// a terminating zero, so a name of 64 bytes or more has no message.
inline bool cliEncodeIfmLookup(int instance, uint32_t kind, std::string_view name,
                               std::vector<uint8_t>& outMsg) {
    if (name.size() >= QOR_IFM_LOOKUP_NAME_LEN) return false;
    outMsg = cliNewMsg(CLI_IFM_LOOKUP_LEN, QOR_MT_IFM_LOOKUP, QOR_APP_IFM, instance);
    qor::putU32(outMsg, QOR_IFM_LOOKUP_OFF_KIND, kind);
    cliPutText(outMsg, QOR_IFM_LOOKUP_OFF_NAME, QOR_IFM_LOOKUP_NAME_LEN, name);
    return true;
}

inline std::vector<uint8_t> cliEncodeShowRunning(int instance, uint32_t offset) {
    std::vector<uint8_t> msg =
        cliNewMsg(CLI_SHOW_MSG_LEN, QOR_MT_CFG_SHOW_RUNNING, QOR_APP_CFGSTORE, instance);
    qor::putU32(msg, QOR_CFG_SHOW_OFF_TOTAL, offset);  // the request's word 80 is the offset
    return msg;
}

inline std::vector<uint8_t> cliEncodeWriteMemory(int instance) {
    return cliNewMsg(QOR_CHASSIS_OFF_BODY, QOR_MT_CFG_WRITE_MEMORY, QOR_APP_CFGSTORE, instance);
}

inline std::vector<uint8_t> cliEncodeAclShow(int instance) {
    return cliNewMsg(CLI_SHOW_MSG_LEN, QOR_MT_ACL_SHOW, QOR_APP_ACL, instance);
}

// The operator's route clear (qor/chassis.h: QOR_MT_RTM_CLEAR_REQUEST).
inline std::vector<uint8_t> cliEncodeClearRoutes(int instance, const CliParsed& p) {
    std::vector<uint8_t> msg = cliNewMsg(QOR_RTM_CLEAR_LEN, QOR_MT_RTM_CLEAR_REQUEST, QOR_APP_RTM, instance);
    qor::putU32(msg, QOR_RTM_CLEAR_OFF_ALL, p.allRoutes ? 1 : 0);
    if (!p.allRoutes) {
        qor::putU32(msg, QOR_RTM_CLEAR_OFF_PREFIX_LEN, p.prefixLen);
        qor::putBytes(msg, QOR_RTM_CLEAR_OFF_PREFIX, p.addr.data(), p.addr.size());
    }
    return msg;
}

inline std::vector<uint8_t> cliEncodePortCfg(int instance, const CliParsed& p, uint32_t portIfIndex) {
    std::vector<uint8_t> msg = cliNewMsg(QOR_IFM_PORT_CFG_LEN, QOR_MT_IFM_PORT_CONFIG, QOR_APP_IFM, instance);
    qor::putU32(msg, QOR_IFM_PORT_CFG_OFF_IFINDEX, portIfIndex);
    const bool mode = p.cmd == CliCmd::SwitchPort;
    qor::putU32(msg, QOR_IFM_PORT_CFG_OFF_WHAT, mode ? QOR_IFM_PORT_CFG_MODE : QOR_IFM_PORT_CFG_LAG);
    qor::putU32(msg, QOR_IFM_PORT_CFG_OFF_VALUE, mode ? (p.negate ? 0 : 1) : p.lagNumber);
    return msg;
}

// ---- answers ------------------------------------------------------------------------------

inline int32_t cliAnswerStatus(qor::ByteView answer) {
    return int32_t(qor::u32At(answer, QOR_IPC_OFF_STATUS));
}

// The part of an answer its sender wrote: its length word, when that is
// inside the buffer, bounds every field read from it.
inline qor::ByteView cliAnswerBytes(qor::ByteView answer) {
    const uint32_t length = qor::u32At(answer, QOR_IPC_OFF_LENGTH);
    return length >= QOR_IPC_HDR_LEN && length < answer.size() ? answer.first(length) : answer;
}

// One piece of the running configuration, asked for at `offset`.
struct CliShowPiece {
    uint32_t total = 0;     // the length of the whole text
    std::string_view text;  // this piece
};

// False when the answer is refused or its lengths do not hold together (a
// piece past the text, or longer than the answer that carries it).
inline bool cliDecodeShowPiece(qor::ByteView answer, uint32_t offset, CliShowPiece& out) {
    const qor::ByteView bytes = cliAnswerBytes(answer);
    uint32_t total = 0, piece = 0;
    if (cliAnswerStatus(bytes) != 0 || !qor::getU32(bytes, QOR_CFG_SHOW_OFF_TOTAL, total) ||
        !qor::getU32(bytes, QOR_CFG_SHOW_OFF_PIECE, piece))
        return false;
    if (offset > total || piece > total - offset || !qor::fits(bytes.size(), QOR_CFG_SHOW_OFF_TEXT, piece))
        return false;
    out.total = total;
    out.text = std::string_view(reinterpret_cast<const char*>(bytes.data() + QOR_CFG_SHOW_OFF_TEXT), piece);
    return true;
}

struct CliAclTrap {
    uint32_t protocol = 0;
    bool enabled = false;
};

constexpr size_t CLI_ACL_OFF_COUNT = QOR_CHASSIS_OFF_BODY;
constexpr size_t CLI_ACL_OFF_PAIRS = QOR_CHASSIS_OFF_BODY + 4;
constexpr size_t CLI_ACL_PAIR_LEN = 8;

// False when the answer is refused or claims more pairs than it carries.
inline bool cliDecodeAclShow(qor::ByteView answer, std::vector<CliAclTrap>& out) {
    const qor::ByteView bytes = cliAnswerBytes(answer);
    uint32_t count = 0;
    if (cliAnswerStatus(bytes) != 0 || !qor::getU32(bytes, CLI_ACL_OFF_COUNT, count)) return false;
    if (count > (bytes.size() - CLI_ACL_OFF_PAIRS) / CLI_ACL_PAIR_LEN) return false;
    std::vector<CliAclTrap> traps;
    for (size_t i = 0; i < count; ++i) {
        const size_t at = CLI_ACL_OFF_PAIRS + i * CLI_ACL_PAIR_LEN;
        traps.push_back({qor::u32At(bytes, at), qor::u32At(bytes, at + 4) != 0});
    }
    out = std::move(traps);
    return true;
}

// The trap protocols the relay manager switches (ACL entries 30 and 39).
inline const char* cliAclProtocolName(uint32_t protocol) {
    switch (protocol) {
    case 30:
        return "dhcpv6-relay";
    case 39:
        return "dhcpv6-snooping";
    default:
        return "unknown";
    }
}
