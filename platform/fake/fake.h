// fake.h -- the recording stand-in for the platform's outward services.
//
// Unit tests link qor_fake instead of qor_net. Every outward call (IPC sends,
// replies and requests, SWP queues and blocks, configuration records, port
// notices, ACL entries, RTM and MRTM registrations, RTM route updates as
// their route records) is recorded with its
// arguments, in order, and a test can choose what the next calls of a service
// return and what a synchronous request is answered. The route processor's
// role (qorHaIsPrimaryRpm) is set with qorHaSetPrimary and not recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "qor/l2sock.h"

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
// The answer the next successful synchronous request of `name` gets
// (qorIpcSendWait, qorIpcRequest, mrtmapiIpcSendAndRecv): `bytes` are copied
// over the caller's buffer, at most its length. Queued, once each; without
// one the buffer is left as sent (a request answered with its own bytes),
// except that mrtmapiIpcSendAndRecv answers status 0 and client id 1.
void setNextAnswer(const std::string& name, std::vector<uint8_t> bytes);
// A message for qorIpcRecv to deliver (oldest first, whatever the queue).
void queueIncoming(std::vector<uint8_t> bytes);
// Clears the record, every chosen result and answer, the incoming messages,
// the SWP queues (their blocks are forgotten, not freed), the configuration
// lines, and makes this route processor the primary again.
void reset();

// ---- SWP -------------------------------------------------------------------
// qorSwpEnqueue keeps each accepted block with a sequence number (from 1 per
// queue); the acknowledgement a peer would send for one hands it back through
// qorSwpDequeue.
struct SwpBlock {
    uint32_t seq;
    std::vector<uint8_t> bytes;  // as enqueued
    void* block;
};
std::vector<SwpBlock> swpPending(int queue);
// The MT_SWP_ACK message acknowledging `seq` of `queue` (64 bytes).
std::vector<uint8_t> swpAck(int queue, uint32_t seq);

// ---- configuration store -----------------------------------------------------
// The running configuration as the inserts and removals so far left it: one
// line per (identifier, key), in key order.
std::vector<std::string> cfgLines();

// For the fake's own implementations: record a call and get the result chosen
// for it, or `normal` when the test chose none.
int64_t record(const std::string& name, std::vector<int64_t> ints, std::vector<uint8_t> bytes,
               int64_t normal);
// Takes the next answer chosen for `name`; false when none is queued.
bool takeAnswer(const std::string& name, std::vector<uint8_t>& out);
// Copies the bytes of a caller's buffer for the record (none when null or
// longer than any message).
std::vector<uint8_t> copyBytes(const void* p, size_t length);

// ---- packets and interfaces -----------------------------------------------------
// qorSendto records each send here (and as a call "qorSendto" with ints fd,
// length, flags, egress ifIndex) and returns the length unless the test chose
// a result.
struct Sent {
    int fd;
    uint32_t egressIfIndex;
    std::vector<uint8_t> bytes;  // the frame or datagram
    std::vector<uint8_t> dst;    // the destination address as given
};
std::vector<Sent> sent();
// What nbsdGetIntfInfoForName("QORS<hex>") answers for an interface; an
// interface never set is unknown (0).
void setIntfInfo(uint32_t ifIndex, const nbsdIntfInfo& info);
// An address nbsdGetIntfInfoFromIpv6Addr calls this system's in a VRF.
void addLocalAddress(int vrfId, const uint8_t addr[16]);
// The chassis MAC qorHaGetChassisMacAddr gives; null (the default): none (-1).
void setChassisMac(const uint8_t* mac);

}  // namespace qorfake
