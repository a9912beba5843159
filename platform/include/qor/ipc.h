// qor/ipc.h -- IPC request queues and the IPC message header.
//
// On Linux a request queue is a Unix datagram socket, one per queue, at
// RUNDIR/ipc/<application>.<instance>.<kind>; a queue identifier packs the
// three numbers (qor_getQueueId). A message on the wire is exactly the IPC
// message: the header below, big-endian, then the command's fields at their
// byte offsets. The header is read and written only through the field
// helpers here (one header builder for the whole program).
#pragma once

#include <cstddef>
#include <cstdint>

#include "qor/bytes.h"

// Header field offsets (32-bit big-endian words).
constexpr size_t QOR_IPC_OFF_LENGTH = 8;
constexpr size_t QOR_IPC_OFF_TYPE = 12;
constexpr size_t QOR_IPC_OFF_CLEAR1 = 20;
constexpr size_t QOR_IPC_OFF_CLEAR2 = 36;
constexpr size_t QOR_IPC_OFF_SRC_ADDR = 40;
constexpr size_t QOR_IPC_OFF_SRC_QUEUE = 44;
constexpr size_t QOR_IPC_OFF_ZERO = 48;
constexpr size_t QOR_IPC_OFF_DST_ADDR = 52;
constexpr size_t QOR_IPC_OFF_DST_QUEUE = 56;
constexpr size_t QOR_IPC_OFF_STATUS = 64;
constexpr size_t QOR_IPC_OFF_COMMAND = 72;
constexpr size_t QOR_IPC_HDR_LEN = 64;     // the header proper; status and command follow
constexpr size_t QOR_IPC_MAX_MSG = 8192;   // largest message a queue carries

// Queue kinds.
constexpr int QOR_QUEUE_REQUEST = 1;
constexpr int QOR_QUEUE_SERVICE = 3;

// The card address of this route processor (all processes of one daemon
// instance share it).
uint32_t qor_sysGetIpAddr();
uint32_t qor_getQueueId(int application, int instance, int kind);
// The address of a process by application and instance. 0, or -1 when unknown.
int qor_tmeGetPeerIpAddrByName(int application, int instance, uint32_t* outAddr);

// Header builder: writes length, type, the cleared words, and the source and
// destination words. False when the buffer is shorter than the header.
bool qorIpcBuildHeader(qor::MutByteView msg, uint32_t length, uint32_t type, uint32_t srcAddr,
                       uint32_t srcQueue, uint32_t dstAddr, uint32_t dstQueue);
// The platform's form: source = this process's request queue (application,
// instance of the calling task's process), destination = (dstApplication,
// dstInstance, dstKind).
int qorIpcSetSourceHeader(qor::MutByteView msg, uint32_t length, uint32_t type,
                          int dstApplication, int dstInstance, int dstKind);

// Queues. A queue handle (>= 0) or -1. Key_getReqQueue of a task key binds
// the request queue of the task's process; of a queue handle, returns it.
int Key_getReqQueue(int key);
int Key_getSocketFd(int queue);
// Sends `length` bytes to the queue named by the message's destination word.
// 0, or -1 (no such queue, message too long, send failure).
int qorIpcSend(int queue, const void* msg, uint32_t length, int flags);

// Receives one message into buf (at most bufLen bytes); the byte count, or -1.
// The sender's socket is remembered, per queue, for qorIpcReply. The message
// is never longer than what arrived, whatever its length word says. Waits for
// a message unless flags has QOR_IPC_NOWAIT (then -1 at once when none waits).
constexpr int QOR_IPC_NOWAIT = 0x1;
int qorIpcRecv(int queue, void* buf, uint32_t bufLen, int flags, int a5, int a6);
// Sends `length` bytes of msg back to the sender of the last message received
// on `queue`. 0, -1 (send failed) or -2 (no sender to answer). When msg is the
// buffer that message was received into, at most that buffer's size is sent.
int qorIpcReply(int queue, const void* msg, uint32_t length);
// Sends msg to its destination and waits for the answer, which overwrites msg
// (at most `length` bytes). The wait is bounded: waitTicks ticks (0 = 100).
// 0 answered, -1 send failed, -2 no answer in time.
int qorIpcSendWait(int queue, void* msg, uint32_t length, int waitTicks, uint32_t type, int flags);
// Sends to the request queue of an application without a bound queue of the
// caller's own (command-line tools): the answer comes back to a private socket.
int qorIpcRequest(int dstApplication, int dstInstance, void* msg, uint32_t length, int waitTicks);

// The queue identifier a handle is bound to; 0 for a bad handle.
uint32_t qorIpcQueueId(int queue);
// True when some process has bound the queue and reads it (the SWP layer
// creates a queue to a peer only once the peer is there).
bool qorIpcQueueReachable(uint32_t queueId);
