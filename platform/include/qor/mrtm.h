// qor/mrtm.h -- the multicast route table manager's client library.
#pragma once

#include <cstddef>
#include <cstdint>

// Fills the IPC header of an MRTM message: type, length, and the source and
// destination words (the daemon's identity from `templ`: service, queue,
// instance). 0 or -1 (short buffer).
int mrtmapiBuildIpcHdr(uint8_t* message, uint32_t type, uint32_t length, const uint32_t* templ);
// Sends the request and waits for MRTM's answer into the same buffer. 0
// answered, -1 send failed or no answer.
int mrtmapiIpcSendAndRecv(int queue, uint8_t* message, uint32_t length);
