// qor/swp.h -- SWP: reliable, sequence-numbered message queues between
// processes, on top of IPC.
//
// The sender's side: qorSwpEnqueue() puts a block (a whole IPC message the
// caller built, allocated with the queue's allocation callback) on the queue
// and pokes the owner's SWP pipe; the owner's event loop calls
// qorSwpReadPipe(), which sends every queued block not yet in flight (up to
// the window) to the peer, each with the next sequence number, and resends
// blocks that stay unacknowledged past the retransmission interval (a
// platform thread pokes the pipe when one is due). The peer acknowledges
// each message with an MT_SWP_ACK (402) message into the sender's request
// queue; the sender's dispatcher hands it to qorSwpDequeue(), which takes
// the block off the queue and gives it back for freeing.
//
// The receiver's side: qorSwpCkSeqAndAck() checks an incoming message's
// sequence number against the receiver's sequence state, acknowledges it,
// and says whether to process it (0, in order) or drop it (6, a duplicate
// already processed; other values: out of order, not acknowledged).
//
// Wire form: an SWP message is an IPC message (qor/ipc.h) whose word at byte
// 0 is the sequence number (from 1) and whose word at byte 4 is the sender's
// SWP queue identifier; an acknowledgement is a 64-byte IPC message of type
// MT_SWP_ACK with the acknowledged sequence number at byte 0 and the SWP
// queue identifier being acknowledged at byte 4. The SWP layer addresses
// every message it sends from the owner's request queue to the peer's
// (source and destination words), so the acknowledgement always reaches the
// owner's dispatcher; the caller's other header words are sent as they are.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr uint32_t MT_SWP_ACK = 402;
constexpr size_t QOR_SWP_OFF_SEQ = 0;
constexpr size_t QOR_SWP_OFF_QUEUE = 4;
constexpr int QOR_SWP_IN_ORDER = 0;
constexpr int QOR_SWP_DUPLICATE = 6;
constexpr int QOR_SWP_OUT_OF_ORDER = 7;

using SWP_MALLOC = void* (*)(uint32_t size);
using SWP_FREE = int (*)(void* block);
using SWP_ERR = void (*)(int queue, int error);

// Receiver sequence state: two words (next expected sequence, last acked).
struct QOR_SWP_SEQ {
    uint32_t expected;
    uint32_t lastAcked;
};

// Creates the SWP pipe (a pipe device, qor/pipe.h) and opens it: a descriptor or -1.
int qorSwpCreatePipe(const char* name);

// maxEntries: blocks the queue may hold (0 = no limit); window: blocks in
// flight at once; retransmitTicks: ticks before an unacknowledged block is
// sent again; srcApplication/srcInstance/srcQueue: the owner (srcQueue is its
// request-queue handle, whose socket sends); dstApplication/dstInstance: the
// peer; msgType: the type stamped on blocks whose own type word is 0.
// 0 and *outHandle set, or -1 (the peer's queue does not exist yet, ...).
int qorSwpQueueCreate_p(int evtLogHandle, int maxEntries, int window, int retransmitTicks,
                        int srcApplication, int srcInstance, int srcQueue, int dstApplication,
                        int dstInstance, uint32_t msgType, SWP_MALLOC allocCb, int allocArg,
                        SWP_FREE freeCb, SWP_ERR errCb, int* outHandle, int pipeFd);
// The same with the owner's service queue identifier (acknowledgements and
// peer messages may be addressed to it) and one more reserved word.
int qorSwpQueueCreateQs(int evtLogHandle, int maxEntries, int window, int retransmitTicks,
                        int srcApplication, int srcInstance, int srcQueue, int dstApplication,
                        int dstInstance, uint32_t serviceQueueId, int reserved, uint32_t msgType,
                        SWP_MALLOC allocCb, int allocArg, SWP_FREE freeCb, SWP_ERR errCb,
                        int* outHandle, int pipeFd);
// A block of `size` bytes from the queue's allocation callback, for a
// message to enqueue; null when the queue is unknown or the allocation fails.
void* qorSwpAllocBlock(int queue, uint32_t size);
// Returns a block that was not enqueued through the queue's free callback. 0 / -1.
int qorSwpFreeBlock(int queue, void* block);
// Queues a block of `length` bytes (its IPC header filled by the caller); the
// queue owns it from then on. 0, or -1 (full, bad queue, bad length) and the
// caller keeps it.
int qorSwpEnqueue(int queue, void* block, uint32_t length);
// Handles an MT_SWP_ACK: 0 and *outBlock = the acknowledged block (the caller
// frees it), or -1 (unknown queue or sequence; *outBlock untouched).
int qorSwpDequeue(const void* ackMessage, uint32_t length, void** outBlock);
// Receiver: 0 process, 6 duplicate (acknowledged again, drop), 7 out of order (drop).
int qorSwpCkSeqAndAck(const void* message, uint32_t length, QOR_SWP_SEQ* seq, int reqQueue);
// Runs the SWP work of the owner's pipe: sends and resends. 0.
int qorSwpReadPipe(int pipeFd);
// Removes a queue, freeing its blocks through its free callback. 0 / -1.
int qorSwpQueueRemove(int queue);
// Frees every queued block (through the free callback) and keeps the queue. 0 / -1.
int qorSwpQueueFlush(int queue);
// Blocks queued (in flight or waiting), for tests and show commands.
int qorSwpQueueDepth(int queue);
