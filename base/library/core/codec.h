// codec.h - the byte codecs of every byte form that leaves the process.
//
// Byte forms are exact and independent of the word width: integers go byte
// by byte, little-endian, never as a copied struct.
#ifndef FHCORE_CODEC_H
#define FHCORE_CODEC_H

#include <cstdint>
#include <ctime>

namespace fh {

// Byte forms carry seconds as a 32-bit count. The value is cut deliberately
// here and nowhere else; in memory the same value stays a time_t.
inline int32_t secondsToWire(time_t seconds) { return static_cast<int32_t>(static_cast<uint32_t>(seconds)); }

// A 32-bit integer in four bytes, least significant first.
inline uint32_t readLe32(const unsigned char *p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
inline void writeLe32(unsigned char *p, uint32_t value) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(value >> (8 * i));
}

} // namespace fh

#endif // FHCORE_CODEC_H
