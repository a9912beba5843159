// fake.cpp -- the call record and chosen results of the platform stand-in.
#include "fake.h"

#include <mutex>

namespace qorfake {
namespace {
struct State {
    std::mutex mu;
    std::vector<Call> calls;
    std::map<std::string, std::deque<int64_t>> next;
    std::map<std::string, int64_t> fixed;
};
State& state() {
    static State s;
    return s;
}
}  // namespace

const std::vector<Call>& calls() { return state().calls; }

std::vector<Call> callsTo(const std::string& name) {
    std::lock_guard lock(state().mu);
    std::vector<Call> out;
    for (const auto& c : state().calls)
        if (c.name == name) out.push_back(c);
    return out;
}

void setNextResult(const std::string& name, int64_t result) {
    std::lock_guard lock(state().mu);
    state().next[name].push_back(result);
}

void setResult(const std::string& name, int64_t result) {
    std::lock_guard lock(state().mu);
    state().fixed[name] = result;
}

void reset() {
    std::lock_guard lock(state().mu);
    state().calls.clear();
    state().next.clear();
    state().fixed.clear();
}

int64_t record(const std::string& name, std::vector<int64_t> ints, std::vector<uint8_t> bytes,
               int64_t normal) {
    std::lock_guard lock(state().mu);
    auto& s = state();
    s.calls.push_back(Call{name, std::move(ints), std::move(bytes)});
    if (auto it = s.next.find(name); it != s.next.end() && !it->second.empty()) {
        int64_t r = it->second.front();
        it->second.pop_front();
        return r;
    }
    if (auto it = s.fixed.find(name); it != s.fixed.end()) return it->second;
    return normal;
}

}  // namespace qorfake
