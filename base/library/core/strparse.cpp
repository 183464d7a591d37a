// strparse.cpp - skipping blanks and tokens.
//
// Each operation is one walk over a set of bytes to pass: blanks (space and
// tab), blanks with line ends, or token characters (ASCII letters and
// digits). All of them are single-byte characters that never occur as the
// trail of a double-byte one in the forward direction, since the walk
// starts on a character boundary and stops at the first other byte; the
// backward walk steps by characters.
#include "core/strparse.h"

#include "core/strbase.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"STRPARSE        "};

enum TraceId : int32_t { kIdTokenCount = 1 };

constexpr bool blank(char c) { return c == ' ' || c == '\t'; }
constexpr bool blankOrLineEnd(char c) { return blank(c) || c == '\n' || c == '\r'; }
constexpr bool tokenChar(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

template <bool (*Pass)(char)> char *forward(const char *p) {
    while (*p != '\0' && Pass(*p)) ++p;
    return const_cast<char *>(p);
}

template <bool (*Pass)(char)> char *backward(const char *p) {
    while (Pass(*p)) StrPrevChar(&p);
    return const_cast<char *>(p);
}

} // namespace

char *StrSkipWhiteSpaceF(const char *position) { return forward<blank>(position); }
char *StrSkipWhiteSpaceEOLF(const char *position) { return forward<blankOrLineEnd>(position); }
char *StrSkipWhiteSpaceB(const char *position) { return backward<blank>(position); }
char *StrSkipWhiteSpaceEOLB(const char *position) { return backward<blankOrLineEnd>(position); }
char *StrSkipTokenF(const char *position) { return forward<tokenChar>(position); }

int32_t StrGetTokenCharCount(const char *position) {
    const auto count = static_cast<int32_t>(StrSkipTokenF(position) - position);
    trace(kIdTokenCount, 0, 3, "Token char count = '%ld'", static_cast<long>(count));
    return count;
}
