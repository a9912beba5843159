// ifm_tlv.cpp -- fuzz target for the interface notifications of the IFM: the
// TLV walk of MT_IFM_NOTIF_MSG and what each TLV sets off (routes withdrawn
// and sent again, an interface's helpers and source interface removed), on a
// relay manager set up as in a real run (relay_harness.h: helpers on VLANs 10
// and 20, one client recorded).
//
// Byte 0 of the input: bit 0 formats every debug line. The rest is the
// notification from byte 128 on: the TLV count word, 8 bytes, then the TLVs.
// The message is handed over in a buffer of exactly its length, so a walk
// that trusts a count or a length past the message stops the run.
#include "relay_harness.h"

#include "qor/chassis.h"
#include "qor/ipc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

using namespace relayfuzz;

constexpr size_t kNotifOffCount = 128;
constexpr uint8_t kDebugOn = 0x01;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 1) return 0;
    process();
    const size_t bodyLen = std::min<size_t>(size - 1, QOR_IPC_MAX_MSG - kNotifOffCount);
    const size_t length = kNotifOffCount + bodyLen;
    auto msg = std::make_unique<uint8_t[]>(length);
    std::memset(msg.get(), 0, kNotifOffCount);
    qor::putU32(qor::MutByteView(msg.get(), length), QOR_IPC_OFF_LENGTH, uint32_t(length));
    qor::putU32(qor::MutByteView(msg.get(), length), QOR_IPC_OFF_TYPE, MT_IFM_NOTIF_MSG);
    if (bodyLen != 0) std::memcpy(msg.get() + kNotifOffCount, data + 1, bodyLen);

    bringUp();
    {
        QuietStdout quiet((data[0] & kDebugOn) != 0);
        dhcpv6_debug_flag = (data[0] & kDebugOn) ? kAllDebug : 0;
        dhcpv6ProcessIfmTlvMessage(dhcpv6Msg(msg.get(), length));
        dhcpv6_debug_flag = 0;
    }
    // Whatever was deleted, the rest of the configuration comes down cleanly
    // and no block is left behind.
    takeDown();
    return 0;
}
