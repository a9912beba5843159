// qor/mrtm.h -- the multicast route table manager's client library.
//
// On Linux MRTM is a chassis service (application QOR_APP_MRTM, qor/chassis.h).
// Registration is a synchronous request answered in the caller's buffer;
// index requests and responses travel over SWP.
#pragma once

#include <cstddef>
#include <cstdint>

// Registration request (MT_MRTM_REGISTER), 128 bytes; the answer is the
// request with the status and client identifier filled in.
constexpr size_t MRTM_REG_LEN = 128;
constexpr size_t MRTM_REG_OFF_STATUS = 20;       // answer: 0 registered
constexpr size_t MRTM_REG_OFF_CLIENT_ID = 60;    // request -1; answer: the client identifier
constexpr size_t MRTM_REG_OFF_NAME = 80;         // client name, zero-padded
constexpr size_t MRTM_REG_NAME_LEN = 16;
constexpr size_t MRTM_REG_OFF_QUEUE = 96;        // the client's queue identifier (qor_getQueueId)
constexpr size_t MRTM_REG_OFF_NAME_LENGTH = 100; // 16

// Index request (type MT_MRTM_MCIDX_REQ over SWP) and response (MT_MRTM_MCIDX_RESP).
constexpr uint32_t MT_MRTM_MCIDX_REQ = 15672;
constexpr size_t MRTM_IDX_REQ_LEN = 168;
constexpr size_t MRTM_IDX_OFF_CLIENT_ID = 128;
constexpr size_t MRTM_IDX_OFF_OPERATION = 140;     // 0 allocate, 1 release
constexpr size_t MRTM_IDX_OFF_ZERO = 144;
constexpr size_t MRTM_IDX_OFF_COUNT = 148;
constexpr size_t MRTM_IDX_OFF_RELEASE_INDEX = 160;
constexpr uint32_t MRTM_IDX_ALLOCATE = 0;
constexpr uint32_t MRTM_IDX_RELEASE = 1;
constexpr size_t MRTM_RESP_OFF_RELEASE = 4 * 35;   // 1: the answer to a release
constexpr size_t MRTM_RESP_OFF_SUCCESS = 4 * 38;   // bit 0
constexpr size_t MRTM_RESP_OFF_COUNT = 4 * 39;
constexpr size_t MRTM_RESP_OFF_INDEX = 4 * 40;
constexpr size_t MRTM_RESP_LEN = 168;

// Fills the IPC header of an MRTM message: type, length, and the source and
// destination words (the daemon's identity from `templ`: service, queue,
// instance). 0 or -1 (short buffer).
int mrtmapiBuildIpcHdr(uint8_t* message, uint32_t type, uint32_t length, const uint32_t* templ);
// Sends the request and waits for MRTM's answer into the same buffer. 0
// answered, -1 send failed or no answer.
int mrtmapiIpcSendAndRecv(int queue, uint8_t* message, uint32_t length);
