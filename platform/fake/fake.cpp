// fake.cpp -- the call record and chosen results of the platform stand-in.
#include "fake.h"

#include <mutex>

#include "fake_state.h"
#include "qor/ipc.h"

namespace qorfake {
namespace {
struct State {
    std::mutex mu;
    std::vector<Call> calls;
    std::map<std::string, std::deque<int64_t>> next;
    std::map<std::string, int64_t> fixed;
    std::map<std::string, std::deque<std::vector<uint8_t>>> answers;
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

void setNextAnswer(const std::string& name, std::vector<uint8_t> bytes) {
    std::lock_guard lock(state().mu);
    state().answers[name].push_back(std::move(bytes));
}

bool takeAnswer(const std::string& name, std::vector<uint8_t>& out) {
    std::lock_guard lock(state().mu);
    auto it = state().answers.find(name);
    if (it == state().answers.end() || it->second.empty()) return false;
    out = std::move(it->second.front());
    it->second.pop_front();
    return true;
}

std::vector<uint8_t> copyBytes(const void* p, size_t length) {
    if (p == nullptr || length > QOR_IPC_MAX_MSG) return {};
    const auto* b = static_cast<const uint8_t*>(p);
    return std::vector<uint8_t>(b, b + length);
}

void reset() {
    {
        std::lock_guard lock(state().mu);
        state().calls.clear();
        state().next.clear();
        state().fixed.clear();
        state().answers.clear();
    }
    resetIpcState();
    resetSwpState();
    resetClientState();
    resetPktState();
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
