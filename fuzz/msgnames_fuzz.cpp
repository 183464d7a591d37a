// msgnames_fuzz.cpp - message names and sizes as text over arbitrary input.
//
// Names that operators type reach MsgTypeFromName, ids from any peer reach
// MsgNameWithBuffer, and any value may be shown as a size. The input is a
// 4-byte id, a 2-byte buffer size and an 8-byte value, all little-endian,
// then a name up to the first NUL. The name and the buffer live in blocks of
// exactly their size, so that AddressSanitizer sees any access behind them.
// Besides the sanitizers the target checks what the module promises: a name
// found gives back an id whose name matches it ignoring case; the buffer
// form is cleared in full, holds at most size - 1 bytes and agrees with the
// form without a buffer; a size text is a number, a blank and one of three
// labels; a name added at run time is found both ways; nothing leaks.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"
#include "objcore.h"
#include "leakcheck.h"

namespace {



uint64_t littleEndian(const uint8_t *bytes, int count) {
    uint64_t value = 0;
    for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
    return value;
}

void checkName(const char *name) {
    int32_t type = 0x5A5A5A5A;
    if (!MsgTypeFromName(&type, name)) {
        CHECK(type == 0x5A5A5A5A);
        return;
    }
    CHECK(StrCompareNoCase(MsgNameWithBuffer(type, nullptr, 0), name) == 0);
}

void checkBuffer(int32_t id, int32_t size) {
    const std::string whole = MsgNameWithBuffer(id, nullptr, 0);
    char *buffer = static_cast<char *>(malloc(static_cast<size_t>(size)));
    memset(buffer, 'x', static_cast<size_t>(size));
    CHECK(MsgNameWithBuffer(id, buffer, size) == buffer);
    const size_t length = strnlen(buffer, static_cast<size_t>(size));
    CHECK(length < static_cast<size_t>(size) && whole.compare(0, length, buffer) == 0);
    for (int32_t i = static_cast<int32_t>(length); i < size; ++i) CHECK(buffer[i] == '\0');
    free(buffer);
}

void checkSize(char *text) {
    const char *blank = strchr(text, ' ');
    CHECK(blank != nullptr && blank > text);
    const std::string label = blank + 1;
    CHECK(label == "bytes" || label == "Kbytes" || label == "Mbytes");
    for (const char *digit = text[0] == '-' ? text + 1 : text; digit < blank; ++digit)
        CHECK(*digit >= '0' && *digit <= '9');
    MemFreeInternal(&text);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size < 14 || size > 4096) return 0;
    const InUse before;
    const auto id = static_cast<int32_t>(littleEndian(data, 4));
    const auto bufferSize = static_cast<int32_t>(littleEndian(data + 4, 2) % 512) + 1;
    const auto value = static_cast<int64_t>(littleEndian(data + 6, 8));
    const size_t nameLength = strnlen(reinterpret_cast<const char *>(data + 14), size - 14);
    char *name = static_cast<char *>(malloc(nameLength + 1));
    memcpy(name, data + 14, nameLength);
    name[nameLength] = '\0';

    checkName(name);
    checkBuffer(id, bufferSize);
    char *text = nullptr;
    CHECK(SysInt64ToUnitString(&text, value));
    checkSize(text);
    CHECK(SysIntegerToUnitString(&text, static_cast<int32_t>(value)));
    checkSize(text);

    // A name added at run time, where the id has none, is found both ways
    // until the map is built again.
    if (nameLength > 0 && MsgSetMsgName(id, name)) {
        CHECK(strcmp(MsgNameWithBuffer(id, nullptr, 0), name) == 0);
        checkName(name);
        checkBuffer(id, bufferSize);
        MsgReleaseThread(&gtLmContext);
        CHECK(MsgInitializeThread());
    }
    free(name);
    CHECK(!before.leaked());
    return 0;
}
