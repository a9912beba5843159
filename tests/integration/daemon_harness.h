// daemon_harness.h -- starts the real dhcpv6relaymgr in a temporary run
// directory, runs dhcpv6-cli against it, and cleans up whatever happens.
#pragma once

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace harness {

struct CmdResult {
    int status = -1;  // exit status
    std::string out;
};

// Runs a command line through the shell, capturing stdout and stderr.
inline CmdResult run(const std::string& cmd) {
    CmdResult r;
    FILE* p = popen((cmd + " 2>&1").c_str(), "r");
    if (!p) return r;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    const int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

// Polls `pred` until it holds, bounded by a number of tries, never by a
// clock the assertion depends on.
inline bool eventually(const std::function<bool()>& pred, int tries = 200) {
    for (int i = 0; i < tries; ++i) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return pred();
}

class Daemon {
public:
    explicit Daemon(std::string runDir) : runDir_(std::move(runDir)) {}
    ~Daemon() { kill(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    bool start(const std::vector<std::string>& extra = {}) {
        pid_ = fork();
        if (pid_ < 0) return false;
        if (pid_ == 0) {
            if (std::freopen((runDir_ + "/daemon.out").c_str(), "a", stdout)) dup2(fileno(stdout), 2);
            std::vector<std::string> args = {DHCPV6RELAYMGR_BIN, "--rundir", runDir_};
            args.insert(args.end(), extra.begin(), extra.end());
            std::vector<char*> argv;
            for (auto& a : args) argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        return true;
    }
    // SIGKILL, as an operator's kill -9 or a crash would end it.
    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        int st = 0;
        waitpid(pid_, &st, 0);
        pid_ = -1;
    }
    CmdResult cli(const std::string& args) const {
        return run(std::string(DHCPV6CLI_BIN) + " --rundir " + runDir_ + " " + args);
    }

private:
    std::string runDir_;
    pid_t pid_ = -1;
};

inline std::string makeTempDir(const char* tag) {
    std::string tmpl = std::string("/tmp/dhcpv6-") + tag + "-XXXXXX";
    return mkdtemp(tmpl.data()) ? tmpl : "";
}

inline void removeTree(const std::string& dir) {
    std::error_code ec;
    if (dir.rfind("/tmp/dhcpv6-", 0) == 0) std::filesystem::remove_all(dir, ec);
}

}  // namespace harness
