// fake.h -- the recording stand-in for the platform's outward services.
//
// Unit tests link qor_fake instead of qor_net. Every outward call (IPC sends,
// and with later features configuration records, ACL entries, routes, peer
// records, frames) is recorded with its arguments, in order, and a test can
// choose what the next calls of a service return.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace qorfake {

struct Call {
    std::string name;                 // the platform function called
    std::vector<int64_t> ints;        // its numeric arguments, in order
    std::vector<uint8_t> bytes;       // the message / record / frame it carried
};

// All calls since the last reset, oldest first.
const std::vector<Call>& calls();
std::vector<Call> callsTo(const std::string& name);
// The next call of `name` returns `result` (queued; once each).
void setNextResult(const std::string& name, int64_t result);
// Every later call of `name` returns `result` until reset.
void setResult(const std::string& name, int64_t result);
// Clears the record and every chosen result.
void reset();

// For the fake's own implementations: record a call and get the result chosen
// for it, or `normal` when the test chose none.
int64_t record(const std::string& name, std::vector<int64_t> ints, std::vector<uint8_t> bytes,
               int64_t normal);

}  // namespace qorfake
