// fake.h -- the recording stand-in for the platform's outward services, linked
// by unit tests instead of qor_net. Every outward call is recorded with its
// arguments, in order; a test chooses what calls return and how synchronous
// requests are answered. qorHaSetPrimary sets the role, unrecorded.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qor/l2sock.h"

namespace qorfake {

struct Call {
    std::string name;            // the platform function called
    std::vector<int64_t> ints;   // its numeric arguments, in order
    std::vector<uint8_t> bytes;  // the message / record / frame it carried
};
const std::vector<Call>& calls();  // since the last reset, oldest first
std::vector<Call> callsTo(const std::string& name);
void setNextResult(const std::string& name, int64_t result);  // queued, once each
void setResult(const std::string& name, int64_t result);      // every later call, until reset
// The answer (queued, once each) the next successful qorIpcSendWait or
// mrtmapiIpcSendAndRecv copies over the caller's buffer, or qorRecvfrom4
// delivers (bytes 0-11 the logical, physical and receiving-port ifIndex, then
// the frame). Without one a request keeps its own bytes (the MRTM answers
// status 0, client id 1) and qorRecvfrom4 returns -1.
void setNextAnswer(const std::string& name, std::vector<uint8_t> bytes);
void queueIncoming(std::vector<uint8_t> bytes);  // for qorIpcRecv, oldest first, whatever the queue
// Clears every record and choice, the SWP queues (blocks forgotten, not
// freed), configuration, sends and interfaces; this processor is primary again.
void reset();

// Blocks qorSwpEnqueue accepted (numbered from 1 per queue) until qorSwpDequeue
// gets the acknowledgement naming them.
struct SwpBlock {
    uint32_t seq;
    std::vector<uint8_t> bytes;  // as enqueued
    void* block;
};
std::vector<SwpBlock> swpPending(int queue);
std::vector<uint8_t> swpAck(int queue, uint32_t seq);  // the 64-byte MT_SWP_ACK for it

// The running configuration: one line per (identifier, key), in key order.
std::vector<std::string> cfgLines();

// Each qorSendto (also a call with ints fd, length, flags, egress ifIndex).
struct Sent {
    int fd;
    uint32_t egressIfIndex;
    std::vector<uint8_t> bytes;  // the frame or datagram
    std::vector<uint8_t> dst;    // the destination address as given
};
std::vector<Sent> sent();
// What nbsdGetIntfInfoForName("QORS<hex ifIndex>") answers; unset: unknown (0).
void setIntfInfo(uint32_t ifIndex, const nbsdIntfInfo& info);
void addLocalAddress(int vrfId, const uint8_t addr[16]);  // nbsdGetIntfInfoFromIpv6Addr: ours in that VRF
void setChassisMac(const uint8_t* mac);  // for qorHaGetChassisMacAddr; null (the default): none (-1)

}  // namespace qorfake
