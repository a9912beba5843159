// fake_state.h -- the per-service state of the platform stand-in, cleared by
// qorfake::reset(). Private to platform/fake; tests include fake.h.
#pragma once

namespace qorfake {
void resetIpcState();
void resetSwpState();
void resetClientState();
void resetPktState();
}  // namespace qorfake
