// ifm_tlv.cpp -- fuzz target for the IFM's interface notifications: the TLV walk of MT_IFM_NOTIF_MSG and what each
// TLV sets off (routes withdrawn and sent again, an interface's helpers and source interface removed) on the relay
// manager of harness.h. Byte 0 bit 0 formats every debug line; the rest is the notification from byte 128 on (the
// TLV count word, 8 bytes, the TLVs), handed over in a buffer of exactly its length.
#include "harness.h"
#include "qor/chassis.h"
#include "qor/ipc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace fz;
    constexpr size_t kNotifOffCount = 128;
    if (data == nullptr || size < 1) return 0;
    const size_t body = std::min<size_t>(size - 1, QOR_IPC_MAX_MSG - kNotifOffCount);
    std::vector<uint8_t> in(kNotifOffCount + body, 0);  // exactly its length
    qor::putBytes(in, kNotifOffCount, data + 1, body);
    qor::putU32(in, QOR_IPC_OFF_LENGTH, uint32_t(in.size()));
    qor::putU32(in, QOR_IPC_OFF_TYPE, MT_IFM_NOTIF_MSG);
    bringUp();
    dhcpv6_debug_flag = (data[0] & 1) ? kAllDebug : 0;
    dhcpv6ProcessIfmTlvMessage(in);
    takeDown();  // whatever was deleted, the rest comes down and no block is left
    return 0;
}
