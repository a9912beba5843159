// CliCommands.cpp -- the command layer of dhcpv6-cli: checks names with the
// IFM, sends each parsed command to the relay manager or a chassis service
// and waits for its answer, and formats show output as text or JSON.
#include "CliCommands.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "CliParse.h"
#include "qor/task.h"

namespace {

// The running configuration is a few hundred lines; a length far beyond any
// real one means the answer is not to be believed.
constexpr uint32_t kRunningTextMax = 16u << 20;
// Reading the text in pieces starts again when it changes in between; a
// store that changes it on every read is reported rather than chased.
constexpr int kShowRunningAttempts = 3;

int cliInstance(const CliSession& session) {
    return session.instance >= 0 ? session.instance : qorPlatformInstance();
}

std::string cliQueuePath(int application, int instance) {
    return std::string(qorRunDir()) + "/ipc/" + std::to_string(application) + "." +
           std::to_string(instance) + "." + std::to_string(QOR_QUEUE_REQUEST);
}

// By default the daemon hosts the chassis services: when the configuration
// store or the ACL manager does not answer, the daemon is not running.
std::string cliNoAnswer(int application, int instance) {
    const char* who = application == QOR_APP_IFM ? "chassis" : "dhcpv6relaymgr is";
    return std::string("% Error: ") + who + " not running (no answer from " +
           cliQueuePath(application, instance) + ")";
}

// Sends msg to an application's request queue; its answer replaces msg.
// 0 answered, -1 with the reason in err.
int cliAsk(const CliSession& session, int application, std::vector<uint8_t>& msg, std::string& err) {
    const int instance = cliInstance(session);
    if (qorIpcRequest(application, instance, msg.data(), uint32_t(msg.size()), session.waitTicks) == 0)
        return 0;
    err = cliNoAnswer(application, instance);
    return -1;
}

int cliAskDaemon(const CliSession& session, std::vector<uint8_t>& msg, std::string& err) {
    if (cliAsk(session, QOR_APP_RELAYMGR, msg, err) != 0) return -1;
    const int32_t status = cliAnswerStatus(msg);
    if (status == 0) return 0;
    err = "% Error: the daemon refused the command (status " + std::to_string(status) + ")";
    return -1;
}

// The ifIndex of an interface or the id of a VRF, as the IFM knows them.
int cliIfmLookup(const CliSession& session, uint32_t kind, const std::string& name,
                 uint32_t& outValue, std::string& err) {
    const std::string unknown =
        (kind == CLI_IFM_LOOKUP_VRF ? "% Error: unknown VRF " : "% Error: unknown interface ") + name;
    std::vector<uint8_t> msg;
    if (!cliEncodeIfmLookup(cliInstance(session), kind, name, msg)) {
        err = unknown;
        return -1;
    }
    if (cliAsk(session, QOR_APP_IFM, msg, err) != 0) return -1;
    const uint32_t value = qor::u32At(msg, QOR_IFM_LOOKUP_OFF_RESULT);
    if (cliAnswerStatus(msg) != 0 || (kind == CLI_IFM_LOOKUP_INTERFACE && value == 0)) {
        err = unknown;
        return -1;
    }
    outValue = value;
    return 0;
}

std::string cliIfName(uint32_t ifIndex) {
    char name[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(ifIndex, name);
    name[IFM_IFNAME_LEN - 1] = '\0';
    return name;
}

// JSON of any text the daemon stored: bytes that are not UTF-8 become U+FFFD
// rather than an exception.
std::string cliJsonText(const nlohmann::ordered_json& j) {
    return j.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

// ---- configuration commands ------------------------------------------------------

int cliDoInterface(CliSession& session, const CliParsed& p, std::string& err) {
    uint32_t ifIndex = 0;
    if (cliIfmLookup(session, CLI_IFM_LOOKUP_INTERFACE, p.ifName, ifIndex, err) != 0) return -1;
    session.currentIfIndex = ifIndex;
    return 0;
}

int cliDoHelper(const CliSession& session, CliParsed p, std::string& err) {
    uint32_t vrfId = 0;
    if (!p.vrfName.empty()) {
        if (cliIfmLookup(session, CLI_IFM_LOOKUP_VRF, p.vrfName, vrfId, err) != 0) return -1;
        // The daemon keys a helper's line by the VRF name: the default VRF goes
        // without one, so "vrf default" and no VRF are the same helper.
        if (vrfId == 0) p.vrfName.clear();
    }
    std::vector<uint8_t> msg = cliEncodeRelayAddr(cliInstance(session), p, session.currentIfIndex, vrfId);
    return cliAskDaemon(session, msg, err);
}

int cliDoSourceIntf(const CliSession& session, CliParsed p, std::string& err) {
    uint32_t srcIfIndex = p.ifIndex;
    // Setting a source interface needs one the IFM knows; removing needs no
    // lookup, as the daemon forgets whichever one is set.
    if (!p.negate) {
        if (cliIfmLookup(session, CLI_IFM_LOOKUP_INTERFACE, p.ifName, srcIfIndex, err) != 0) return -1;
        p.ifName = cliIfName(srcIfIndex);
    }
    const int instance = cliInstance(session);
    std::vector<uint8_t> msg =
        p.cmd == CliCmd::IfSourceInterface
            ? cliEncodeIfSourceIntf(instance, p, session.currentIfIndex, srcIfIndex)
            : cliEncodeSourceIntf(instance, p, srcIfIndex);
    return cliAskDaemon(session, msg, err);
}

int cliDoDebugLog(const CliSession& session, const CliParsed& p, std::string& err) {
    std::vector<uint8_t> msg = cliEncodeLogLevel(cliInstance(session), p);
    return cliAskDaemon(session, msg, err);
}

int cliDoDebugFlags(const CliSession& session, const CliParsed& p, std::string& err) {
    std::vector<uint8_t> msg = cliEncodeDebugFlag(cliInstance(session), p);
    return cliAskDaemon(session, msg, err);
}

int cliDoWriteMemory(const CliSession& session, std::string& err) {
    std::vector<uint8_t> msg = cliEncodeWriteMemory(cliInstance(session));
    if (cliAsk(session, QOR_APP_CFGSTORE, msg, err) != 0) return -1;
    const int32_t status = cliAnswerStatus(msg);
    if (status == 0) return 0;
    err = "% Error: the startup-config could not be written (status " + std::to_string(status) + ")";
    return -1;
}

int cliDoClearRoutes(const CliSession& session, const CliParsed& p, std::string& err) {
    std::vector<uint8_t> msg = cliEncodeClearRoutes(cliInstance(session), p);
    if (cliAsk(session, QOR_APP_RTM, msg, err) != 0) return -1;
    const int32_t status = cliAnswerStatus(msg);
    if (status == 0) return 0;
    err = "% Error: the route table manager refused the clear (status " + std::to_string(status) + ")";
    return -1;
}

int cliDoPortCfg(const CliSession& session, const CliParsed& p, std::string& err) {
    std::vector<uint8_t> msg = cliEncodePortCfg(cliInstance(session), p, session.currentIfIndex);
    if (cliAsk(session, QOR_APP_IFM, msg, err) != 0) return -1;
    const int32_t status = cliAnswerStatus(msg);
    const std::string name = cliIfName(session.currentIfIndex);
    switch (status) {
    case 0:
        return 0;
    case QOR_IFM_PORT_CFG_ERR_PORT:
        err = p.cmd == CliCmd::SwitchPort
                  ? "% Error: " + name + " is not a port or port-channel of the host map"
                  : "% Error: " + name + " is not a port of the host map";
        return -1;
    case QOR_IFM_PORT_CFG_ERR_LAG:
        err = "% Error: unknown interface port-channel " + std::to_string(p.lagNumber);
        return -1;
    default:
        err = "% Error: the interface manager refused the command (status " + std::to_string(status) + ")";
        return -1;
    }
}

// ---- show running-config ----------------------------------------------------------

enum class CliRead { Done, Changed, Failed };

// Reads the whole text piece by piece. Changed when it changed between two
// pieces (its length moved, or an offset fell past its end).
CliRead cliReadRunningOnce(const CliSession& session, std::string& outText, std::string& err) {
    std::string text;
    uint32_t offset = 0;
    uint32_t total = 0;
    for (;;) {
        std::vector<uint8_t> msg = cliEncodeShowRunning(cliInstance(session), offset);
        if (cliAsk(session, QOR_APP_CFGSTORE, msg, err) != 0) return CliRead::Failed;
        if (offset > 0 && cliAnswerStatus(msg) != 0) return CliRead::Changed;
        CliShowPiece piece;
        if (!cliDecodeShowPiece(msg, offset, piece) || piece.total > kRunningTextMax) {
            err = "% Error: the configuration store sent a malformed answer";
            return CliRead::Failed;
        }
        if (offset == 0)
            total = piece.total;
        else if (piece.total != total)
            return CliRead::Changed;
        text.append(piece.text);
        offset += uint32_t(piece.text.size());
        if (offset == total) break;
        if (piece.text.empty()) {
            err = "% Error: the configuration store sent an empty piece";
            return CliRead::Failed;
        }
    }
    outText = std::move(text);
    return CliRead::Done;
}

int cliReadRunning(const CliSession& session, std::string& outText, std::string& err) {
    for (int attempt = 0; attempt < kShowRunningAttempts; ++attempt) {
        const CliRead r = cliReadRunningOnce(session, outText, err);
        if (r == CliRead::Done) return 0;
        if (r == CliRead::Failed) return -1;
    }
    err = "% Error: the running configuration kept changing while it was read; try again";
    return -1;
}

std::vector<std::string> cliTextLines(const std::string& text) {
    std::vector<std::string> lines;
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        if (nl == std::string::npos) nl = text.size();
        std::string line = text.substr(at, nl - at);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!line.empty()) lines.push_back(std::move(line));
        at = nl + 1;
    }
    return lines;
}

int cliDoShowRunning(const CliSession& session, std::string& out, std::string& err) {
    std::string text;
    if (cliReadRunning(session, text, err) != 0) return -1;
    if (session.json) {
        out += cliJsonText({{"lines", cliTextLines(text)}});
        return 0;
    }
    out += text;
    if (!text.empty() && text.back() != '\n') out += '\n';
    return 0;
}

// ---- show acl trap ----------------------------------------------------------------

std::string cliAclTable(const std::vector<CliAclTrap>& traps) {
    std::string table = "Protocol  Name              Trap\n";
    char row[96];
    for (const CliAclTrap& t : traps) {
        std::snprintf(row, sizeof row, "%-8u  %-16s  %s\n", t.protocol, cliAclProtocolName(t.protocol),
                      t.enabled ? "on" : "off");
        table += row;
    }
    return table;
}

std::string cliAclJson(const std::vector<CliAclTrap>& traps) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const CliAclTrap& t : traps)
        list.push_back({{"protocol", t.protocol},
                        {"name", cliAclProtocolName(t.protocol)},
                        {"enabled", t.enabled}});
    return cliJsonText(list);
}

int cliDoShowAcl(const CliSession& session, std::string& out, std::string& err) {
    std::vector<uint8_t> msg = cliEncodeAclShow(cliInstance(session));
    if (cliAsk(session, QOR_APP_ACL, msg, err) != 0) return -1;
    std::vector<CliAclTrap> traps;
    if (!cliDecodeAclShow(msg, traps)) {
        err = "% Error: the ACL manager sent a malformed answer";
        return -1;
    }
    out += session.json ? cliAclJson(traps) : cliAclTable(traps);
    return 0;
}

}  // namespace

int cliExecute(CliSession& session, const std::string& line, std::string& out, std::string& err) {
    CliParsed p;
    if (cliParseLine(line, session.currentIfIndex != 0, p, err) != 0) {
        // A refused interface leaves none selected: a replayed configuration
        // goes on after an error, and the lines of that block must not land
        // on the interface before it.
        if (p.cmd == CliCmd::Interface) session.currentIfIndex = 0;
        return -1;
    }
    switch (p.cmd) {
    case CliCmd::Nothing:
        return 0;
    case CliCmd::Interface:
        session.currentIfIndex = 0;
        return cliDoInterface(session, p, err);
    case CliCmd::LeaveInterface:
        session.currentIfIndex = 0;
        return 0;
    case CliCmd::HelperAddress:
        return cliDoHelper(session, p, err);
    case CliCmd::SourceInterface:
    case CliCmd::IfSourceInterface:
        return cliDoSourceIntf(session, p, err);
    case CliCmd::DebugLog:
        return cliDoDebugLog(session, p, err);
    case CliCmd::DebugFlags:
        return cliDoDebugFlags(session, p, err);
    case CliCmd::ShowRunning:
        return cliDoShowRunning(session, out, err);
    case CliCmd::WriteMemory:
        return cliDoWriteMemory(session, err);
    case CliCmd::ShowAclTrap:
        return cliDoShowAcl(session, out, err);
    case CliCmd::ClearRoutes:
        return cliDoClearRoutes(session, p, err);
    case CliCmd::SwitchPort:
    case CliCmd::ChannelGroup:
        return cliDoPortCfg(session, p, err);
    }
    err = "% Unknown command: " + line;
    return -1;
}
