// qor/tlv.h -- the one bounded walker over type-length-value lists
// (DHCPv6 options, IFM notification TLVs).
//
// Each step answers one of three things: an item (its code and a data span
// that lies inside the walked bytes), a clean end, or malformed input. A walk
// always makes progress and never reads past its span, whatever the length
// fields say. A nested walk runs a new cursor over the item's data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "qor/bytes.h"

struct dhcpv6Tlv {
    uint16_t code = 0;
    qor::ByteView data;  // the value, without the 4-byte header
};

enum class dhcpv6TlvStep { Item, End, Malformed };

class dhcpv6TlvCursor {
public:
    // How the 16-bit length field counts: DHCPv6 options give the value's
    // length; IFM TLVs give the whole TLV, header included.
    enum class LengthCounts { Value, WholeTlv };

    explicit dhcpv6TlvCursor(qor::ByteView bytes, LengthCounts counts = LengthCounts::Value)
        : bytes_(bytes), counts_(counts) {}

    dhcpv6TlvStep next(dhcpv6Tlv& out) {
        if (pos_ == bytes_.size()) return dhcpv6TlvStep::End;
        uint16_t code = 0, length = 0;
        if (!qor::getU16(bytes_, pos_, code) || !qor::getU16(bytes_, pos_ + 2, length))
            return fail();
        size_t valueLen = length;
        if (counts_ == LengthCounts::WholeTlv) {
            if (length < kHeaderLen) return fail();  // would not move on
            valueLen = length - kHeaderLen;
        }
        if (!qor::fits(bytes_.size(), pos_ + kHeaderLen, valueLen)) return fail();
        out.code = code;
        out.data = bytes_.subspan(pos_ + kHeaderLen, valueLen);
        pos_ += kHeaderLen + valueLen;
        return dhcpv6TlvStep::Item;
    }

    // Bytes consumed so far (the offset of the next item).
    size_t offset() const { return pos_; }

private:
    static constexpr size_t kHeaderLen = 4;

    dhcpv6TlvStep fail() {
        pos_ = bytes_.size();
        return dhcpv6TlvStep::Malformed;
    }

    qor::ByteView bytes_;
    LengthCounts counts_;
    size_t pos_ = 0;
};
