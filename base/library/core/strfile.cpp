// strfile.cpp - characters of the string layer through a file stream.
//
// The reader takes the bytes of the stream's input and pairs a lead byte
// with the byte after it; carriage returns are dropped wherever they stand,
// between a lead byte and its partner too. The line reader stores whole characters only, so a line cut
// short never ends in half a character. A stream belongs to one thread, so
// the bytes are taken without the stdio lock: the line reader is what every
// scan of a configuration file runs on.
#include "core/strstream.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <array>
#include <cstring>

#include "core/filestream.h"
#include "text.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STRING        "};

enum TraceId : int32_t { kIdLoneLead = 10 };

// The next character of in into c; false at the end of the input, and for
// a lead byte that is the last byte of the input (traced; the byte is lost).
inline bool nextChar(FILE *in, int32_t &c) {
    int first;
    do {
        first = getc_unlocked(in);
    } while (first == '\r');
    if (first == EOF) return false;
    if (!fh::isLeadByte(static_cast<unsigned char>(first))) {
        c = first;
        return true;
    }
    int second;
    do {
        second = getc_unlocked(in);
    } while (second == '\r');
    if (second == EOF) {
        trace(kIdLoneLead, 0, 2, "Failed to read byte from stream");
        return false;
    }
    c = first << 8 | second;
    return true;
}

inline FILE *inputOf(FILE_STREAM *stream) { return stream != nullptr ? stream->pInput : nullptr; }

// Bytes that stand for themselves in a line: neither a line feed, nor a
// carriage return, nor a lead byte.
constexpr std::array<bool, 256> kPlain = [] {
    std::array<bool, 256> table{};
    for (int b = 0; b < 256; ++b) table[b] = b != '\n' && b != '\r' && !fh::isLeadByte(static_cast<unsigned char>(b));
    return table;
}();

// Moves the run of plain bytes at the front of the stream's buffer to at,
// at most room of them, and gives their number. This is what getc_unlocked
// does a byte at a time: the C library's FILE keeps its unread input
// between _IO_read_ptr and _IO_read_end, and taking bytes advances the first.
size_t takePlainRun(FILE *in, char *at, size_t room) {
    if (in->_IO_read_ptr == nullptr) return 0; // nothing read yet: no buffer
    const auto *from = reinterpret_cast<const unsigned char *>(in->_IO_read_ptr);
    const auto *end = reinterpret_cast<const unsigned char *>(in->_IO_read_end);
    const auto *stop = end - from > static_cast<ptrdiff_t>(room) ? from + room : end;
    const auto *p = from;
#if defined(__SSE2__)
    // Sixteen bytes at a time while none is a line feed, a carriage return
    // or at or above 0x80; the table decides from the first that is. (An x86
    // without SSE2, as a 32-bit build may target, takes the table alone.)
    const __m128i lineFeed = _mm_set1_epi8('\n'), carriageReturn = _mm_set1_epi8('\r');
    for (; stop - p >= 16; p += 16) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
        const __m128i special =
            _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, lineFeed), _mm_cmpeq_epi8(bytes, carriageReturn)), bytes);
        if (_mm_movemask_epi8(special) != 0) break;
    }
#endif
    while (p < stop && kPlain[*p]) ++p;
    const auto taken = static_cast<size_t>(p - from);
    memcpy(at, from, taken);
    in->_IO_read_ptr += taken;
    return taken;
}

} // namespace

BOOL StrFileReadChar(FILE_STREAM *stream, int32_t *out) {
    FILE *in = inputOf(stream);
    return out != nullptr && in != nullptr && nextChar(in, *out);
}

// Runs of plain bytes go straight from the stream's buffer to the line;
// every other character, and a buffer that must be filled again, goes
// through nextChar.
int32_t StrFileReadLine(FILE_STREAM *stream, char *buffer, int32_t size) {
    if (buffer == nullptr || size < 1) return -1;
    FILE *in = inputOf(stream);
    char *at = buffer;
    char *const limit = buffer + size - 1;
    bool any = false;
    for (int32_t c = 0; in != nullptr;) {
        const size_t taken = takePlainRun(in, at, static_cast<size_t>(limit - at));
        at += taken;
        any = any || taken > 0;
        if (!nextChar(in, c)) break;
        any = true;
        if (c == '\n') break;
        if (c <= 255 && at < limit) {
            *at++ = static_cast<char>(c);
        } else if (c > 255 && limit - at >= 2) {
            *at++ = static_cast<char>(c >> 8);
            *at++ = static_cast<char>(c);
        } else {
            // The line is full: the rest is read and dropped.
            while (nextChar(in, c) && c != '\n') {
            }
            break;
        }
    }
    *at = '\0';
    return any ? static_cast<int32_t>(at - buffer) : -1;
}

BOOL StrFileWriteChar(FILE_STREAM *stream, int32_t value) {
    if (value > 255 && !FileStreamWriteByte(stream, static_cast<unsigned char>(value >> 8))) return FALSE;
    return FileStreamWriteByte(stream, static_cast<unsigned char>(value));
}

BOOL StrFileWriteString(FILE_STREAM *stream, const char *string) {
    if (string == nullptr) return FALSE;
    for (const char *p = string; *p != '\0'; ++p)
        if (!FileStreamWriteByte(stream, static_cast<unsigned char>(*p))) return FALSE;
    return TRUE;
}
