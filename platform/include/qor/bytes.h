// qor/bytes.h -- the one big-endian field reader and writer.
//
// Every record exchanged with another process or a file (IPC messages, sync
// records, configuration records, the binding file, packets) is read and
// written field by field at its byte offset through these helpers; no struct
// is ever cast onto wire bytes. Reads fail (return false) on short input and
// never touch memory past the span; writes fail the same way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace qor {

using ByteView = std::span<const uint8_t>;
using MutByteView = std::span<uint8_t>;

// True when [offset, offset + len) lies inside a buffer of `size` bytes,
// written so that it cannot overflow whatever the values.
constexpr bool fits(size_t size, size_t offset, size_t len) {
    return offset <= size && len <= size - offset;
}

inline bool getU8(ByteView b, size_t off, uint8_t& out) {
    if (!fits(b.size(), off, 1)) return false;
    out = b[off];
    return true;
}
inline bool getU16(ByteView b, size_t off, uint16_t& out) {
    if (!fits(b.size(), off, 2)) return false;
    out = static_cast<uint16_t>((b[off] << 8) | b[off + 1]);
    return true;
}
inline bool getU32(ByteView b, size_t off, uint32_t& out) {
    if (!fits(b.size(), off, 4)) return false;
    out = (uint32_t{b[off]} << 24) | (uint32_t{b[off + 1]} << 16) |
          (uint32_t{b[off + 2]} << 8) | uint32_t{b[off + 3]};
    return true;
}
inline bool getU64(ByteView b, size_t off, uint64_t& out) {
    uint32_t hi = 0, lo = 0;
    if (!getU32(b, off, hi) || !getU32(b, off + 4, lo)) return false;
    out = (uint64_t{hi} << 32) | lo;
    return true;
}
inline bool getBytes(ByteView b, size_t off, void* out, size_t len) {
    if (!fits(b.size(), off, len)) return false;
    if (len) std::memcpy(out, b.data() + off, len);
    return true;
}

inline bool putU8(MutByteView b, size_t off, uint8_t v) {
    if (!fits(b.size(), off, 1)) return false;
    b[off] = v;
    return true;
}
inline bool putU16(MutByteView b, size_t off, uint16_t v) {
    if (!fits(b.size(), off, 2)) return false;
    b[off] = static_cast<uint8_t>(v >> 8);
    b[off + 1] = static_cast<uint8_t>(v);
    return true;
}
inline bool putU32(MutByteView b, size_t off, uint32_t v) {
    if (!fits(b.size(), off, 4)) return false;
    b[off] = static_cast<uint8_t>(v >> 24);
    b[off + 1] = static_cast<uint8_t>(v >> 16);
    b[off + 2] = static_cast<uint8_t>(v >> 8);
    b[off + 3] = static_cast<uint8_t>(v);
    return true;
}
inline bool putU64(MutByteView b, size_t off, uint64_t v) {
    return fits(b.size(), off, 8) && putU32(b, off, static_cast<uint32_t>(v >> 32)) &&
           putU32(b, off + 4, static_cast<uint32_t>(v));
}
inline bool putBytes(MutByteView b, size_t off, const void* src, size_t len) {
    if (!fits(b.size(), off, len)) return false;
    if (len) std::memcpy(b.data() + off, src, len);
    return true;
}

// Convenience for fields known to be inside a buffer the caller sized itself:
// a short read yields 0.
inline uint32_t u32At(ByteView b, size_t off) {
    uint32_t v = 0;
    return getU32(b, off, v) ? v : 0;
}
inline uint16_t u16At(ByteView b, size_t off) {
    uint16_t v = 0;
    return getU16(b, off, v) ? v : 0;
}

}  // namespace qor
