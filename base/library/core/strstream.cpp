// strstream.cpp - characters of the string layer through a file stream.
//
// The reader takes the bytes of the stream's input and pairs a lead byte
// with the byte after it; carriage returns in front of a character are
// dropped. The line reader stores whole characters only, so a line cut
// short never ends in half a character. A stream belongs to one thread, so
// the bytes are taken without the stdio lock: the line reader is what every
// scan of a configuration file runs on.
#include "internal.h"

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
    const int second = getc_unlocked(in);
    if (second == EOF) {
        trace(kIdLoneLead, 0, 2, "Failed to read byte from stream");
        return false;
    }
    c = first << 8 | second;
    return true;
}

inline FILE *inputOf(FILE_STREAM *stream) { return stream != nullptr ? stream->pInput : nullptr; }

} // namespace

BOOL StrFileReadChar(FILE_STREAM *stream, int32_t *out) {
    FILE *in = inputOf(stream);
    return out != nullptr && in != nullptr && nextChar(in, *out);
}

int32_t StrFileReadLine(FILE_STREAM *stream, char *buffer, int32_t size) {
    if (buffer == nullptr || size < 1) return -1;
    FILE *in = inputOf(stream);
    int32_t c = 0;
    if (in == nullptr || !nextChar(in, c)) {
        *buffer = '\0';
        return -1;
    }
    char *at = buffer;
    char *const limit = buffer + size - 1;
    while (c != '\n') {
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
        if (!nextChar(in, c)) break;
    }
    *at = '\0';
    return static_cast<int32_t>(at - buffer);
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
