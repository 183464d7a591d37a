// codec.h - the byte codecs of every byte form that leaves the process.
//
// Byte forms are exact and independent of the word width: integers go byte
// by byte, little-endian, never as a copied struct.
#ifndef FHCORE_CODEC_H
#define FHCORE_CODEC_H

#include <cstddef>
#include <cstdint>
#include <ctime>

namespace fh {

// Little-endian 32-bit integers: serialised objects, packets, frames, log
// records and record files.
constexpr uint32_t readLe32(const unsigned char *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
constexpr void writeLe32(unsigned char *p, uint32_t value) {
    p[0] = static_cast<unsigned char>(value);
    p[1] = static_cast<unsigned char>(value >> 8);
    p[2] = static_cast<unsigned char>(value >> 16);
    p[3] = static_cast<unsigned char>(value >> 24);
}

// A 64-bit integer travels as two 32-bit halves, the low one first.
constexpr uint32_t lowHalf(uint64_t value) { return static_cast<uint32_t>(value); }
constexpr uint32_t highHalf(uint64_t value) { return static_cast<uint32_t>(value >> 32); }
constexpr uint64_t joinHalves(uint32_t low, uint32_t high) { return uint64_t{high} << 32 | low; }

// A pointer in a byte form that stays in the process: pointer width, the
// low byte first.
inline constexpr size_t kPointerBytes = sizeof(uintptr_t);
constexpr void writePointerBytes(unsigned char *p, uintptr_t value) {
    for (size_t i = 0; i < kPointerBytes; ++i) p[i] = static_cast<unsigned char>(value >> (8 * i));
}
constexpr uintptr_t readPointerBytes(const unsigned char *p) {
    uintptr_t value = 0;
    for (size_t i = 0; i < kPointerBytes; ++i) value |= static_cast<uintptr_t>(p[i]) << (8 * i);
    return value;
}

// Network byte order (big-endian): IPv4 addresses and ports.
constexpr uint16_t readBe16(const unsigned char *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
constexpr uint32_t readBe32(const unsigned char *p) {
    return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
constexpr void writeBe16(unsigned char *p, uint32_t value) {
    p[0] = static_cast<unsigned char>(value >> 8);
    p[1] = static_cast<unsigned char>(value);
}
constexpr void writeBe32(unsigned char *p, uint32_t value) {
    writeBe16(p, value >> 16);
    writeBe16(p + 2, value);
}

// Byte forms carry seconds as a 32-bit count. The value is cut deliberately
// here and nowhere else; in memory the same value stays a time_t.
inline int32_t secondsToWire(time_t seconds) { return static_cast<int32_t>(static_cast<uint32_t>(seconds)); }

} // namespace fh

#endif // FHCORE_CODEC_H
