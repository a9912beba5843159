// main.cpp -- dhcpv6-cli: the options, then the commands of -c and -f, of a
// pipe, or of an interactive session with line editing, each run through
// cliExecute. Output goes to stdout, every message to stderr.
#include <editline/readline.h>
#include <getopt.h>
#include <strings.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CliCommands.h"
#include "qor/ifm.h"
#include "qor/task.h"

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
constexpr int kInstanceMax = 255;  // a queue identifier holds the instance in 8 bits
constexpr const char* kDefaultRunDir = "/run/qor";

struct CliSource {
    bool isFile;       // -f FILE, else -c COMMAND
    std::string text;  // the command or the file name
};

struct CliOptions {
    std::string runDir;
    int instance = 0;
    bool json = false;
    bool help = false;
    std::vector<CliSource> sources;  // in the order given
};

void cliUsage(FILE* to) {
    std::fputs(
        "usage: dhcpv6-cli [--rundir DIR] [--instance N] [--json] [-c COMMAND]... [-f FILE]\n"
        "  --rundir DIR    the daemon's run directory (default $QOR_RUNDIR, else /run/qor)\n"
        "  --instance N    the daemon instance (0-255, default 0)\n"
        "  --json          show output as JSON\n"
        "  -c COMMAND      run a command (repeatable; run in order in one session)\n"
        "  -f FILE         run each line of FILE, stopping at the first error\n"
        "Without -c or -f: an interactive session on a terminal, else lines from stdin.\n",
        to);
}

int cliUsageError(const std::string& what) {
    std::fprintf(stderr, "dhcpv6-cli: %s (see dhcpv6-cli --help)\n", what.c_str());
    return -1;
}

// The option getopt_long just refused: a short one by its letter (it may sit
// in a cluster such as "-jx"), a long one as written.
std::string cliOptionName(char** argv) {
    if (optopt > 0 && optopt < 128 && std::isalnum(optopt)) return std::string("-") + char(optopt);
    return argv[optind - 1];
}

bool cliParseInstance(const char* text, int& out) {
    const char* end = text + std::strlen(text);
    int v = -1;
    const auto [ptr, ec] = std::from_chars(text, end, v);
    if (ec != std::errc{} || ptr != end || v < 0 || v > kInstanceMax) return false;
    out = v;
    return true;
}

std::string cliDefaultRunDir() {
    const char* env = std::getenv("QOR_RUNDIR");
    return env != nullptr && *env != '\0' ? env : kDefaultRunDir;
}

// 0 with the options, or -1 after saying what is wrong.
int cliParseOptions(int argc, char** argv, CliOptions& out) {
    enum { kOptRunDir = 1000, kOptInstance, kOptJson };
    static const option kLong[] = {
        {"rundir", required_argument, nullptr, kOptRunDir},
        {"instance", required_argument, nullptr, kOptInstance},
        {"json", no_argument, nullptr, kOptJson},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    out.runDir = cliDefaultRunDir();
    opterr = 0;
    int c;
    while ((c = getopt_long(argc, argv, "+:c:f:h", kLong, nullptr)) != -1) {
        switch (c) {
        case 'c':
        case 'f':
            out.sources.push_back({c == 'f', optarg});
            break;
        case kOptRunDir:
            if (*optarg == '\0') return cliUsageError("--rundir needs a directory");
            out.runDir = optarg;
            break;
        case kOptInstance:
            if (!cliParseInstance(optarg, out.instance))
                return cliUsageError(std::string("bad instance: ") + optarg);
            break;
        case kOptJson:
            out.json = true;
            break;
        case 'h':
            out.help = true;
            break;
        case ':':
            return cliUsageError("option needs a value: " + cliOptionName(argv));
        default:
            return cliUsageError("unknown option: " + cliOptionName(argv));
        }
    }
    if (optind < argc) return cliUsageError(std::string("unexpected argument: ") + argv[optind]);
    return 0;
}

// Runs one line; output to stdout, a failure's reason to stderr after `where`.
bool cliRunLine(CliSession& session, const std::string& line, const std::string& where) {
    std::string out, err;
    const int rc = cliExecute(session, line, out, err);
    if (!out.empty()) {
        std::fwrite(out.data(), 1, out.size(), stdout);
        std::fflush(stdout);
    }
    if (rc == 0) return true;
    std::fprintf(stderr, "%s%s\n", where.c_str(), err.empty() ? "% Error: the command failed" : err.c_str());
    return false;
}

// Every line of a file or a pipe, stopping at the first that fails.
bool cliRunStream(CliSession& session, std::istream& in, const std::string& name) {
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (!cliRunLine(session, line, name + ":" + std::to_string(number) + ": ")) return false;
    }
    return true;
}

bool cliRunFile(CliSession& session, const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        std::fprintf(stderr, "dhcpv6-cli: cannot read %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    return cliRunStream(session, in, path);
}

// The -c commands and -f files in the order given, stopping at the first failure.
bool cliRunSources(CliSession& session, const std::vector<CliSource>& sources) {
    for (const CliSource& source : sources) {
        const bool ok = source.isFile ? cliRunFile(session, source.text)
                                      : cliRunLine(session, source.text, "");
        if (!ok) return false;
    }
    return true;
}

std::string cliPrompt(const CliSession& session) {
    if (session.currentIfIndex == 0) return "dhcpv6(config)# ";
    char name[IFM_IFNAME_LEN] = {};
    ifmIfIndexToName(session.currentIfIndex, name);
    name[IFM_IFNAME_LEN - 1] = '\0';
    return std::string("dhcpv6(config-if-") + name + ")# ";
}

bool cliIsBlank(const std::string& line) {
    return line.find_first_not_of(" \t") == std::string::npos;
}

std::string cliTrim(const std::string& line) {
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos) return {};
    const size_t last = line.find_last_not_of(" \t");
    return line.substr(first, last - first + 1);
}

struct CliFreeLine {
    void operator()(char* p) const { std::free(p); }
};

// A session at a terminal: errors are reported and the session goes on;
// "quit", or "exit" outside an interface, or end of input leaves it.
bool cliRunInteractive(CliSession& session) {
    bool allOk = true;
    for (;;) {
        const std::string prompt = cliPrompt(session);
        std::unique_ptr<char, CliFreeLine> raw(readline(prompt.c_str()));
        if (!raw) {
            std::fputc('\n', stdout);
            break;
        }
        const std::string line = raw.get();
        if (cliIsBlank(line)) continue;
        add_history(raw.get());
        const std::string word = cliTrim(line);
        if (strcasecmp(word.c_str(), "quit") == 0 ||
            (strcasecmp(word.c_str(), "exit") == 0 && session.currentIfIndex == 0))
            break;
        if (!cliRunLine(session, line, "")) allOk = false;
    }
    return allOk;
}

}  // namespace

int main(int argc, char** argv) {
    CliOptions options;
    if (cliParseOptions(argc, argv, options) != 0) return kExitUsage;
    if (options.help) {
        cliUsage(stdout);
        return kExitOk;
    }
    qorSetRunDir(options.runDir.c_str());
    qorPlatformSetIdentity(0, options.instance);

    CliSession session;
    session.json = options.json;
    session.instance = options.instance;

    bool ok;
    if (!options.sources.empty())
        ok = cliRunSources(session, options.sources);
    else if (isatty(STDIN_FILENO))
        ok = cliRunInteractive(session);
    else
        ok = cliRunStream(session, std::cin, "stdin");
    return ok ? kExitOk : kExitFailed;
}
