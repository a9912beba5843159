// ChassisCfgStore.cpp -- the configuration store service: records in key
// order, the running-configuration text in pieces, write memory, and the
// startup-config replay that ends with the relay manager's init-complete.
#include "ChassisCfgStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string_view>

#include "dhcpv6RelayMsgs.h"
#include "qor/cfg.h"
#include "qor/chassis.h"
#include "qor/ifm.h"
#include "qor/ipc.h"

namespace {

constexpr size_t kRecordAt = QOR_CHASSIS_OFF_BODY;
constexpr size_t kInterfaceKeyLen = 4;     // a 32-bit ifIndex opens an interface line's key
constexpr size_t kSyncRecordsKept = 256;   // what a standby joining late would be sent
constexpr size_t kReplayLineMax = 1024;    // longer lines are no command of this system
constexpr int kInitCompleteAttempts = 2500;

// Appends a stored line as printed lines: a "\r\n" inside it starts a new
// line, carriage returns and trailing blanks are dropped, empty lines skipped.
void cfgAppendLines(std::string& out, std::string_view text) {
    while (!text.empty()) {
        const auto nl = text.find('\n');
        std::string_view part = text.substr(0, nl);
        text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
        std::string line;
        for (const char c : part)
            if (c != '\r') line += c;
        const auto last = line.find_last_not_of(" \t");
        if (last == std::string::npos) continue;
        line.resize(last + 1);
        out += line;
        out += '\n';
    }
}

bool cfgIsInterfaceLine(const ChassisCfgKey& key) {
    return key.id == DHCPV6_CFG_ID_INTERFACE && key.key.size() >= kInterfaceKeyLen;
}

bool cfgHasPrefix(const ChassisCfgKey& key, const ChassisCfgKey& node) {
    return key.owner == node.owner && key.id == node.id && key.key.size() >= node.key.size() &&
           std::equal(node.key.begin(), node.key.end(), key.key.begin());
}

// Startup-config lines as the CLI reads them: no carriage return, no
// trailing blanks.
std::string cfgCleanLine(const std::string& raw) {
    std::string line;
    for (const char c : raw)
        if (c != '\r') line += c;
    const auto last = line.find_last_not_of(" \t");
    line.resize(last == std::string::npos ? 0 : last + 1);
    return line;
}

}  // namespace

std::string chassisCfgRender(const ChassisCfgTable& table) {
    std::string out;
    std::map<uint32_t, std::vector<const std::string*>> interfaces;
    for (const auto& [key, line] : table) {
        if (cfgIsInterfaceLine(key))
            interfaces[qor::u32At(key.key, 0)].push_back(&line);
        else
            cfgAppendLines(out, line);
    }
    for (const auto& [ifIndex, lines] : interfaces) {
        char name[IFM_IFNAME_LEN] = {};
        ifmIfIndexToName(ifIndex, name);
        name[IFM_IFNAME_LEN - 1] = '\0';
        out += "!\ninterface ";
        out += name;
        out += '\n';
        for (const std::string* line : lines) cfgAppendLines(out, *line);
    }
    out += "!\nend\n";
    return out;
}

// ---- the service ------------------------------------------------------------

const ChassisHandler<ChassisCfgStore> ChassisCfgStore::kHandlers[] = {
    {QOR_MT_CFG_INSERT, kRecordAt + QOR_CFG_RECORD_LEN, false, &ChassisCfgStore::cfgInsert},
    {QOR_MT_CFG_REMOVE_EXACT, kRecordAt + QOR_CFG_RECORD_LEN, false,
     &ChassisCfgStore::cfgRemoveExact},
    {QOR_MT_CFG_REMOVE_NODE, kRecordAt + QOR_CFG_RECORD_LEN, false,
     &ChassisCfgStore::cfgRemoveNode},
    {QOR_MT_CFG_SYNC, kRecordAt + QOR_CFG_SYNC_LEN, false, &ChassisCfgStore::cfgSync},
    {QOR_MT_CFG_SHOW_RUNNING, QOR_CFG_SHOW_OFF_TOTAL + 4, true, &ChassisCfgStore::cfgShowRunning},
    {QOR_MT_CFG_WRITE_MEMORY, QOR_IPC_OFF_STATUS + 4, true, &ChassisCfgStore::cfgWriteMemory},
};

ChassisCfgStore::ChassisCfgStore(int instance, std::string runDir, bool replayStartup,
                                 ChassisReplaySink sink)
    : ChassisService("cfgstore", QOR_APP_CFGSTORE, instance),
      runDir_(std::move(runDir)),
      replayStartup_(replayStartup),
      sink_(sink ? std::move(sink) : ChassisReplaySink(cliExecute)) {}

ChassisCfgStore::~ChassisCfgStore() {
    stop();
    cfgJoinReplay();
}

void ChassisCfgStore::chassisHandle(ChassisMsg& msg) {
    if (!chassisDispatch(*this, kHandlers, msg)) chassisCountDrop();
}

void ChassisCfgStore::chassisStopped() { cfgJoinReplay(); }

uint64_t ChassisCfgStore::chassisCfgSyncCount() const {
    std::lock_guard lock(mu_);
    return syncCount_;
}

bool ChassisCfgStore::cfgReadRecord(const ChassisMsg& msg, ChassisCfgKey& outKey,
                                    std::string& outLine) {
    const qor::ByteView record = qor::ByteView(msg).subspan(kRecordAt, QOR_CFG_RECORD_LEN);
    const uint32_t keyLen = qor::u32At(record, QOR_CFG_OFF_KEYLEN);
    if (keyLen > QOR_CFG_KEY_MAX) {
        chassisCountDrop();
        return false;
    }
    outKey.owner = chassisQueueApplication(qor::u32At(msg, QOR_IPC_OFF_SRC_QUEUE));
    outKey.id = qor::u32At(record, QOR_CFG_OFF_ID);
    outKey.key.assign(record.begin() + QOR_CFG_OFF_KEY, record.begin() + QOR_CFG_OFF_KEY + keyLen);
    // The text ends at its zero or at the end of the record, whichever comes first.
    const auto text = record.subspan(QOR_CFG_OFF_LINE, QOR_CFG_LINE_MAX);
    const auto end = std::find(text.begin(), text.end(), uint8_t{0});
    outLine.assign(text.begin(), end);
    return true;
}

void ChassisCfgStore::cfgInsert(ChassisMsg& msg) {
    ChassisCfgKey key;
    std::string line;
    if (cfgReadRecord(msg, key, line)) table_.insert_or_assign(std::move(key), std::move(line));
}

void ChassisCfgStore::cfgRemoveExact(ChassisMsg& msg) {
    ChassisCfgKey key;
    std::string line;
    if (cfgReadRecord(msg, key, line)) table_.erase(key);
}

void ChassisCfgStore::cfgRemoveNode(ChassisMsg& msg) {
    ChassisCfgKey node;
    std::string line;
    if (!cfgReadRecord(msg, node, line)) return;
    // Every key that starts with the node's bytes sorts at or after the node.
    auto it = table_.lower_bound(node);
    while (it != table_.end() && cfgHasPrefix(it->first, node)) it = table_.erase(it);
}

void ChassisCfgStore::cfgSync(ChassisMsg& msg) {
    std::lock_guard lock(mu_);
    ++syncCount_;
    syncRecords_.emplace_back(msg.begin() + kRecordAt, msg.begin() + kRecordAt + QOR_CFG_SYNC_LEN);
    if (syncRecords_.size() > kSyncRecordsKept) syncRecords_.pop_front();
}

void ChassisCfgStore::cfgShowRunning(ChassisMsg& msg) {
    const std::string text = chassisCfgRender(table_);
    const uint32_t offset = qor::u32At(msg, QOR_CFG_SHOW_OFF_TOTAL);
    // The asker waits with a buffer as long as its request: a longer request
    // gets longer pieces.
    const size_t room = std::max(msg.size(), QOR_CFG_SHOW_OFF_TEXT) - QOR_CFG_SHOW_OFF_TEXT;
    const bool inside = offset <= text.size();
    const size_t piece = inside ? std::min(room, text.size() - offset) : 0;
    msg.resize(QOR_CFG_SHOW_OFF_TEXT + piece);
    qor::putU32(msg, QOR_IPC_OFF_STATUS, inside ? 0 : uint32_t(-1));
    qor::putU32(msg, QOR_CFG_SHOW_OFF_TOTAL, uint32_t(text.size()));
    qor::putU32(msg, QOR_CFG_SHOW_OFF_PIECE, uint32_t(piece));
    if (piece) qor::putBytes(msg, QOR_CFG_SHOW_OFF_TEXT, text.data() + offset, piece);
    chassisReply(msg);
}

void ChassisCfgStore::cfgWriteMemory(ChassisMsg& msg) {
    const int rc = cfgWriteStartup(chassisCfgRender(table_));
    qor::putU32(msg, QOR_IPC_OFF_STATUS, uint32_t(rc));
    chassisReply(msg);
}

// A reader sees the old file or the new one, never a part: the text goes to
// a temporary file that replaces the startup-config in one rename.
int ChassisCfgStore::cfgWriteStartup(const std::string& text) const {
    const std::string path = chassisCfgStartupPath();
    const std::string temp = path + ".tmp";
    ChassisFd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    if (!fd.valid()) return -1;
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = write(fd.get(), text.data() + done, text.size() - done);
        if (n <= 0) break;
        done += size_t(n);
    }
    const bool written = done == text.size() && fsync(fd.get()) == 0;
    fd.reset();
    if (!written || rename(temp.c_str(), path.c_str()) != 0) {
        unlink(temp.c_str());
        return -1;
    }
    return 0;
}

// ---- start-up replay ----------------------------------------------------------

void ChassisCfgStore::chassisCfgRelayRegistered() {
    std::thread finished;
    {
        std::lock_guard lock(mu_);
        // A registration while a replay runs is the same relay manager
        // asking again; one after it is a restarted relay manager.
        if (replayRunning_ || stopping_) return;
        replayRunning_ = true;
        finished = std::move(replayThread_);
    }
    if (finished.joinable()) finished.join();
    // The replay's commands go to the relay manager, which answers them only
    // from its event loop: it runs beside the IFM and this service, never on
    // their threads.
    std::lock_guard lock(mu_);
    if (stopping_) {
        replayRunning_ = false;
        return;
    }
    replayThread_ = std::thread([this] { cfgReplay(); });
}

void ChassisCfgStore::cfgJoinReplay() {
    std::thread replay;
    {
        std::lock_guard lock(mu_);
        stopping_ = true;
        replay = std::move(replayThread_);
    }
    if (replay.joinable()) replay.join();
    std::lock_guard lock(mu_);
    stopping_ = false;
}

void ChassisCfgStore::cfgReplay() {
    if (replayStartup_) cfgReplayLines();
    bool stopping = false;
    {
        // Done before init-complete goes out: a relay manager that has it
        // and registers again is a new one.
        std::lock_guard lock(mu_);
        stopping = stopping_;
        replayRunning_ = false;
    }
    // A chassis that stops mid-replay leaves the relay manager uninitialised.
    if (!stopping) cfgSendInitComplete();
}

void ChassisCfgStore::cfgReplayLines() {
    std::ifstream in(chassisCfgStartupPath());
    if (!in) return;
    CliSession session;
    std::string raw;
    int number = 0;
    while (std::getline(in, raw)) {
        ++number;
        {
            std::lock_guard lock(mu_);
            if (stopping_) return;
        }
        const std::string line = cfgCleanLine(raw);
        if (line.empty()) continue;
        std::string out, err;
        if (line.size() > kReplayLineMax) {
            err = "line too long";
        } else if (sink_(session, line, out, err) == 0) {
            continue;
        }
        std::fprintf(stderr, "chassis: %s line %d: %s: %.80s\n", chassisCfgStartupPath().c_str(),
                     number, err.empty() ? "refused" : err.c_str(), line.c_str());
    }
}

void ChassisCfgStore::cfgSendInitComplete() {
    ChassisMsg msg(QOR_IPC_HDR_LEN, 0);
    const uint32_t relay = qor_getQueueId(QOR_APP_RELAYMGR, instance(), QOR_QUEUE_REQUEST);
    // The relay manager may be busy with the replay's own commands: give its
    // queue a few seconds to drain.
    if (chassisSendTo(relay, MT_DHCPV6_INIT_COMPLETE, msg, kInitCompleteAttempts) != 0)
        std::fprintf(stderr, "chassis: cannot tell the relay manager that start-up is complete\n");
}
