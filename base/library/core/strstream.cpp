// strstream.cpp - characters of the string layer through a file stream.
//
// The reader takes bytes with FileStreamReadByte and pairs a lead byte with
// the byte after it; the line reader stores whole characters only, so a
// line cut short never ends in half a character.
#include "internal.h"

namespace {

constexpr fh::ModuleTracer trace{"STRING        "};

enum TraceId : int32_t { kIdLoneLead = 10 };

// The lead bytes of the double-byte model (as strbase.cpp).
constexpr bool isLead(unsigned char b) { return (b >= 0x80 && b <= 0x9F) || b >= 0xE0; }

} // namespace

BOOL StrFileReadChar(FILE_STREAM *stream, int32_t *out) {
    if (out == nullptr) return FALSE;
    unsigned char first = 0;
    do {
        if (!FileStreamReadByte(stream, &first)) return FALSE;
    } while (first == '\r');
    if (!isLead(first)) {
        *out = first;
        return TRUE;
    }
    unsigned char second = 0;
    if (!FileStreamReadByte(stream, &second)) {
        trace(kIdLoneLead, 0, 2, "Failed to read byte from stream");
        return FALSE;
    }
    *out = first << 8 | second;
    return TRUE;
}

int32_t StrFileReadLine(FILE_STREAM *stream, char *buffer, int32_t size) {
    if (buffer == nullptr || size < 1) return -1;
    int32_t c = 0;
    if (!StrFileReadChar(stream, &c)) {
        *buffer = '\0';
        return -1;
    }
    char *at = buffer, *const limit = buffer + size - 1;
    for (bool room = true; c != '\n';) {
        const int32_t bytes = c > 255 ? 2 : 1;
        if (room && limit - at >= bytes) {
            StrPutChar(&at, c);
        } else {
            room = false; // the line is closed; the rest is read and dropped
        }
        if (!StrFileReadChar(stream, &c)) break;
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
