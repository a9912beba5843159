// CliCommands.h -- the command layer of dhcpv6-cli: one configuration or show
// line in, messages to the daemon and the chassis services out, text back.
// The configuration store replays the startup-config through it, so every
// line the running configuration shows is a command accepted here.
#pragma once

#include <cstdint>
#include <string>

struct CliSession {
    uint32_t currentIfIndex = 0;  // set by "interface ...", cleared by "exit" / "end" / "!"
    bool json = false;            // show output as JSON
    int waitTicks = 300;          // bound of each request's wait
    int instance = -1;            // daemon instance spoken to; -1: this process's (qorPlatformInstance)
};

// Runs one line. 0 on success, with any output appended to `out`; non-zero
// on error with a one-line reason in `err` (unknown command, bad address,
// unknown interface, daemon not running, refused by the daemon).
int cliExecute(CliSession& session, const std::string& line, std::string& out, std::string& err);
