// stnzfile.cpp - stanza files: the text form of configuration, scanned by
// position and rewritten through the file stream's ".new".
//
// One reader serves every scan: it takes the next line through
// StrFileReadLine into a buffer of STNZ_LINE_MAX + 1 bytes and classifies it
// as a title or a key, as views into that buffer; nothing is allocated for a
// line until an operation keeps something of it. Text is walked a character
// at a time (a lead byte and the byte behind it are one character), so a
// trail byte is never taken for a bracket, a colon, an equal sign, a comma,
// an escape or a blank.
//
// One writer serves every output: an Output gathers the bytes of a stanza or
// of a rewrite and hands them to the stream in large pieces. Rewrites share
// one discipline: start the rewrite, copy the lines kept (rebuilt from their
// parts, names as they were read), write what is new, commit; any failure,
// a line that would not read back as itself included, cancels, so the file
// is the old contents or the new, never a mixture.
//
// A STNZ_FILE's scan position is its stream's input offset plus the current
// stanza (names and the offset behind its title line) and current key. Every
// find remembers the offset first and, when it fails, goes back to it with
// nothing current changed.
#include "core/stanzafile.h"

#include <cstdio>
#include <cstring>
#include <optional>
#include <string_view>

#include "core/context.h"
#include "core/filestream.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/stanza.h"
#include "core/strbase.h"
#include "core/strstream.h"
#include "objcore.h"
#include "text.h"
#include "tracer.h"

namespace {

using fh::charBytes;
using fh::isBlank;

constexpr fh::ModuleTracer trace{"STANZA        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdSplitKey = 1,
    kIdInvalidFile = 2,
    kIdAddNullStanza = 3,
    kIdAddNullFile = 4,
    kIdReplaceNullStanza = 5,
    kIdReplaceNullFile = 6,
    kIdOpenForUpdate = 7,
    kIdReplaceFailed = 8,
    kIdBadName = 9,
    kIdWrongMode = 10,
    kIdDroppedStanza = 11,
    kIdDroppedKey = 12,
    kIdBadCopy = 13,
};

constinit fh::ObjectType<STNZ_FILE> gFileType{STNZ_FILE_MAGIC, STNZ_FILE_FORMAT};
constinit fh::ObjectType<STNZ_DYNAMIC_LIST> gDynamicListType{STNZ_DYNAMIC_LIST_MAGIC, STNZ_DYNAMIC_LIST_FORMAT};

using View = std::string_view;

// ---- Characters -------------------------------------------------------------

// Bytes of the character at text[at], within the view.
inline size_t charBytes(View text, size_t at) {
    return fh::isLeadByte(static_cast<unsigned char>(text[at])) && at + 1 < text.size() ? 2 : 1;
}

const char *skipBlanks(const char *p) {
    while (isBlank(*p)) ++p;
    return p;
}

// from..to without the blanks at its end (a character boundary in, out).
View trimEnd(const char *from, const char *to) {
    const char *end = from;
    for (const char *p = from; p < to;) {
        const int bytes = charBytes(p);
        if (bytes == 2 || !isBlank(*p)) end = p + bytes;
        p += bytes;
    }
    return {from, static_cast<size_t>(end - from)};
}

// Equal without regard to case ('a' to 'z' only; a trail byte is not a
// letter). A null text and an empty one are equal.
bool sameName(View a, const char *b) {
    const size_t length = b != nullptr ? strlen(b) : 0;
    if (a.size() != length) return false;
    for (size_t i = 0; i < length;) {
        const size_t bytes = charBytes(a, i);
        if (bytes == 2) {
            if (a[i] != b[i] || a[i + 1] != b[i + 1]) return false;
        } else if (fh::foldCase(a[i]) != fh::foldCase(b[i])) {
            return false;
        }
        i += bytes;
    }
    return true;
}
inline View viewOf(const char *text) { return text != nullptr ? View(text) : View(); }

char *newString(View text) {
    auto *copy = static_cast<char *>(MemAllocateFromPool(text.size() + 1, nullptr));
    if (copy == nullptr) return nullptr;
    memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    return copy;
}

// ---- Lines ------------------------------------------------------------------

struct TitleLine {
    bool hasCategory;
    View category;
    View title;
};

struct KeyLine {
    View keyword;
    View argument;
};

std::optional<TitleLine> parseTitle(const char *line) {
    const char *p = skipBlanks(line);
    if (*p != '[') return std::nullopt;
    p = skipBlanks(p + 1);
    if (*p == ':' || *p == '\0') return std::nullopt;
    const char *name = p;
    p += charBytes(p); // the first character counts whatever it is, even ']'
    while (*p != '\0' && *p != ':' && *p != ']') p += charBytes(p);
    if (*p == '\0') return std::nullopt;
    if (*p == ']') return TitleLine{false, {}, trimEnd(name, p)};
    const char *title = skipBlanks(p + 1);
    const char *end = title;
    while (*end != '\0' && *end != ']') end += charBytes(end);
    if (*end == '\0') return std::nullopt;
    const View text = trimEnd(title, end);
    if (text.empty()) return std::nullopt;
    return TitleLine{true, trimEnd(name, p), text};
}

std::optional<KeyLine> parseKey(const char *line) {
    const char *keyword = skipBlanks(line);
    if (*keyword == '=' || *keyword == '[' || *keyword == '\0') return std::nullopt;
    const char *p = keyword;
    while (*p != '\0' && *p != '=') p += charBytes(p);
    if (*p == '\0') return std::nullopt;
    return KeyLine{trimEnd(keyword, p), View(p + 1)};
}

// A classified line: a title, or a key of the stanza before it.
struct Line {
    bool isTitle;
    TitleLine title;
    KeyLine key;
};

bool classify(const char *text, Line &line) {
    if (auto title = parseTitle(text)) {
        line.isTitle = true;
        line.title = *title;
        return true;
    }
    if (auto key = parseKey(text)) {
        line.isTitle = false;
        line.key = *key;
        return true;
    }
    return false;
}

bool titleMatches(const TitleLine &line, const char *category, const char *title) {
    return sameName(line.title, title) && sameName(line.hasCategory ? line.category : View(), category);
}

// The next title or key line of the input; false at its end. The views of
// line stay good until the next read.
struct LineReader {
    char buffer[STNZ_LINE_MAX + 1];
    bool next(FILE_STREAM *stream, Line &line) {
        for (;;) {
            const int32_t length = StrFileReadLine(stream, buffer, sizeof buffer);
            if (length < 0) return false;
            if (length > 0 && classify(buffer, line)) return true;
        }
    }
    // The next title line, for scans that pass over keys unparsed.
    bool nextTitle(FILE_STREAM *stream, TitleLine &title) {
        for (;;) {
            const int32_t length = StrFileReadLine(stream, buffer, sizeof buffer);
            if (length < 0) return false;
            if (auto parsed = length > 0 ? parseTitle(buffer) : std::nullopt) {
                title = *parsed;
                return true;
            }
        }
    }
};

// ---- Values -----------------------------------------------------------------

int32_t countValues(View argument) {
    int32_t count = 1;
    for (size_t i = 0; i < argument.size();) {
        if (argument[i] == '!') {
            ++i;
            if (i == argument.size()) break;
        } else if (argument[i] == ',') {
            ++count;
        }
        i += charBytes(argument, i);
    }
    return count;
}

// Adds the values of argument to key, unescaping each into scratch (room for
// the argument's bytes).
bool addValues(StanzaKey *&key, View argument, char *scratch) {
    size_t i = 0;
    int32_t added = 0;
    for (;;) {
        while (i < argument.size() && isBlank(argument[i])) ++i;
        char *out = scratch;
        char *kept = scratch; // behind the last character that is not a plain blank
        while (i < argument.size() && argument[i] != ',') {
            const bool escaped = argument[i] == '!';
            if (escaped && ++i == argument.size()) { // a '!' at the very end is dropped
                kept = out;
                break;
            }
            const size_t bytes = charBytes(argument, i);
            if (escaped && bytes == 1 && argument[i] == 'n') {
                *out++ = '\n';
            } else {
                memcpy(out, argument.data() + i, bytes);
                out += bytes;
            }
            if (escaped || bytes == 2 || !isBlank(argument[i])) kept = out;
            i += bytes;
        }
        const bool atEnd = i >= argument.size();
        *kept = '\0';
        if (kept > scratch || !atEnd || added > 0) {
            if (!StnzAddValueToKey(&key, kept > scratch ? scratch : nullptr)) return false;
            ++added;
        }
        if (atEnd) return true;
        ++i; // the comma
    }
}

bool makeKey(StanzaKey **out, View keyword, View argument) {
    char keywordBuffer[STNZ_LINE_MAX + 1];
    char scratchBuffer[STNZ_LINE_MAX + 1];
    const bool small = keyword.size() <= STNZ_LINE_MAX && argument.size() <= STNZ_LINE_MAX;
    char *name = small ? keywordBuffer : newString(keyword);
    char *scratch = small ? scratchBuffer : static_cast<char *>(MemAllocateFromPool(argument.size() + 1, nullptr));
    if (small) {
        memcpy(keywordBuffer, keyword.data(), keyword.size());
        keywordBuffer[keyword.size()] = '\0';
    }
    StanzaKey *key = nullptr;
    bool ok = name != nullptr && scratch != nullptr && StnzCreateKey(&key, name, countValues(argument)) &&
              addValues(key, argument, scratch);
    if (!small) {
        MemFreeInternal(&name);
        MemFreeInternal(&scratch);
    }
    if (!ok) {
        StnzReleaseKey(&key);
        return false;
    }
    *out = key;
    return true;
}

// ---- Escapes and name limits -------------------------------------------------

// Calls put(bytes, count) with the escaped form of text, in pieces.
template <typename Put> void escape(View text, Put &&put) {
    size_t first = text.size(), last = 0; // the characters that are not blanks
    for (size_t i = 0; i < text.size();) {
        const size_t bytes = charBytes(text, i);
        if (bytes == 2 || !isBlank(text[i])) {
            first = first == text.size() ? i : first;
            last = i + bytes;
        }
        i += bytes;
    }
    size_t plain = 0; // start of the run not yet put
    for (size_t i = 0; i < text.size();) {
        const size_t bytes = charBytes(text, i);
        const char c = text[i];
        const bool marked = bytes == 1 && (c == '\n' || c == '!' || c == ',' || (isBlank(c) && (i < first || i >= last)));
        if (marked) {
            put(text.data() + plain, i - plain);
            put("!", 1);
            put(c == '\n' ? "n" : text.data() + i, 1);
            plain = i + 1;
        }
        i += bytes;
    }
    put(text.data() + plain, text.size() - plain);
}

enum class NameKind { kKeyword, kCategory, kTitle, kTitleAlone };

// How a name goes into a line: by the stanza writer, which keeps the old
// limits ('!' and ',' refused), or copied by a rewrite exactly as a reader
// took it from a line. Line ends never pass; the name's first character
// may be ']' only where a reader takes it as the first of a name.
enum class Written { kByWriter, kCopied };

// Whether name reads back the same from the line a writer makes of it.
bool keepsLimits(View name, NameKind kind, Written written = Written::kByWriter) {
    if (name.empty() || isBlank(name[0])) return false;
    if ((kind == NameKind::kKeyword && name[0] == '[') ||
        ((kind == NameKind::kCategory || kind == NameKind::kTitleAlone) && name[0] == ':'))
        return false;
    const char *forbidden = kind == NameKind::kKeyword    ? "\n\r="
                            : kind == NameKind::kCategory ? "\n\r:]"
                            : kind == NameKind::kTitle    ? "\n\r]"
                                                          : "\n\r]:";
    const bool bracketFirst = written == Written::kCopied && kind != NameKind::kKeyword && kind != NameKind::kTitle;
    for (size_t i = 0, bytes = 1; i < name.size(); i += bytes) {
        bytes = charBytes(name, i);
        if (bytes == 2) continue;
        const char c = name[i];
        const bool escapeChar = written == Written::kByWriter && (c == '!' || c == ',');
        if (escapeChar || (strchr(forbidden, c) != nullptr && !(i == 0 && c == ']' && bracketFirst))) return false;
        if (i + 1 == name.size() && (isBlank(c) || fh::isLeadByte(static_cast<unsigned char>(c)))) return false;
    }
    return true;
}

// Whether text ends in a lead byte with no byte behind it: written out, it
// would pair with the comma or line feed that follows.
bool endsInLoneLead(View text) {
    size_t last = 0;
    for (size_t i = 0; i < text.size(); i += charBytes(text, i)) last = i;
    return !text.empty() && last == text.size() - 1 && fh::isLeadByte(static_cast<unsigned char>(text[last]));
}

// Whether a key's line, as the writer makes it, reads back whole: it fits in
// a line and none of its values ends in a lone lead byte.
bool keyLineReadsBack(const StanzaKey *key) {
    size_t length = strlen(key->keyword) + 1 + (key->valueCount > 0 ? key->valueCount - 1 : 0);
    for (int32_t v = 0; v < key->valueCount; ++v) {
        if (endsInLoneLead(viewOf(key->values[v]))) return false;
        escape(viewOf(key->values[v]), [&length](const char *, size_t count) { length += count; });
    }
    return length <= STNZ_LINE_MAX;
}

// Whether the stanza reads back the same from the lines the writer makes of
// it: its names keep the limits and no line is cut short on reading.
bool stanzaKeepsLimits(const Stanza *stanza) {
    const bool hasCategory = stanza->category != nullptr;
    if (hasCategory && !keepsLimits(stanza->category, NameKind::kCategory)) return false;
    if (!keepsLimits(viewOf(stanza->title), hasCategory ? NameKind::kTitle : NameKind::kTitleAlone)) return false;
    const size_t titleLine = strlen(stanza->title) + 2 + (hasCategory ? strlen(stanza->category) + 1 : 0);
    if (titleLine > STNZ_LINE_MAX) return false;
    for (int32_t k = 0; k < stanza->keyCount; ++k)
        if (!keepsLimits(viewOf(stanza->keys[k]->keyword), NameKind::kKeyword) || !keyLineReadsBack(stanza->keys[k]))
            return false;
    return true;
}

// ---- Output -----------------------------------------------------------------

// Bytes on their way to a stream's output, handed over a buffer at a time.
// After a failed write it takes nothing more and ok stays false.
class Output {
  public:
    explicit Output(FILE_STREAM *stream) : stream_(stream) {}
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    void put(const char *bytes, size_t count) {
        while (ok_ && count > 0) {
            if (used_ == sizeof buffer_) flush();
            const size_t piece = count < sizeof buffer_ - used_ ? count : sizeof buffer_ - used_;
            memcpy(buffer_ + used_, bytes, piece);
            used_ += piece;
            bytes += piece;
            count -= piece;
        }
    }
    void put(View text) { put(text.data(), text.size()); }
    void putEscaped(View text) {
        escape(text, [this](const char *bytes, size_t count) { put(bytes, count); });
    }
    // Takes nothing more: the rewrite this output serves will not commit.
    void fail() { ok_ = false; }
    bool flush() {
        if (ok_ && used_ > 0) ok_ = FileStreamWrite(stream_, buffer_, static_cast<int32_t>(used_));
        used_ = 0;
        return ok_;
    }

  private:
    FILE_STREAM *stream_;
    size_t used_ = 0;
    bool ok_ = true;
    char buffer_[8192];
};

// Whether text holds a line end of its own (not the byte behind a lead byte).
bool holdsLineEnd(View text) {
    for (size_t i = 0, bytes = 1; i < text.size(); i += bytes) {
        bytes = charBytes(text, i);
        if (bytes == 1 && (text[i] == '\n' || text[i] == '\r')) return true;
    }
    return false;
}

// Whether a line rebuilt from these parts reads back as the same parts,
// within the longest line. A line that a reader took from a file does,
// unless its argument ends in a lone lead byte (at the end of the file, or
// before a NUL): written out, that byte would take the line feed behind it
// and the next line with it.
bool copyReadsBack(const Line &line) {
    if (line.isTitle) {
        const TitleLine &t = line.title;
        return (!t.hasCategory || keepsLimits(t.category, NameKind::kCategory, Written::kCopied)) &&
               keepsLimits(t.title, t.hasCategory ? NameKind::kTitle : NameKind::kTitleAlone, Written::kCopied) &&
               t.category.size() + t.title.size() + 3 <= STNZ_LINE_MAX;
    }
    const KeyLine &k = line.key;
    return keepsLimits(k.keyword, NameKind::kKeyword, Written::kCopied) &&
           !holdsLineEnd(k.argument) && !endsInLoneLead(k.argument) &&
           k.keyword.size() + k.argument.size() + 1 <= STNZ_LINE_MAX;
}

// A line as a rewrite copies it: rebuilt from its parts, with the names as
// they were read (readers undo no escape in a name, so escaping one again
// would change it on every copy). False, with nothing written, for parts
// that would not read back as themselves.
bool putCopied(Output &out, const Line &line) {
    if (!copyReadsBack(line)) {
        const View first = line.isTitle ? line.title.title : line.key.keyword;
        trace(kIdBadCopy, 0, 0, "A rewrite stops at a line that would not read back as itself: %.*s",
              static_cast<int>(first.size()), first.data());
        return false;
    }
    if (line.isTitle) {
        out.put("[");
        if (line.title.hasCategory) {
            out.put(line.title.category);
            out.put(":");
        }
        out.put(line.title.title);
        out.put("]\n");
    } else {
        out.put(line.key.keyword);
        out.put("=");
        out.put(line.key.argument);
        out.put("\n");
    }
    return true;
}

void putStanza(Output &out, const Stanza *stanza) {
    out.put("[");
    if (stanza->category != nullptr) {
        out.put(stanza->category);
        out.put(":");
    }
    out.put(stanza->title);
    out.put("]\n");
    for (int32_t k = 0; k < stanza->keyCount; ++k) {
        const StanzaKey *key = stanza->keys[k];
        out.putEscaped(key->keyword);
        out.put("=");
        for (int32_t v = 0; v < key->valueCount; ++v) {
            if (v > 0) out.put(",");
            out.putEscaped(viewOf(key->values[v]));
        }
        out.put("\n");
    }
    out.put("\n");
}

// A stanza the writers accept: it has a title and its names keep the limits.
bool writable(const Stanza *stanza) {
    if (stanza == nullptr || stanza->title == nullptr || *stanza->title == '\0') return false;
    if (stanzaKeepsLimits(stanza)) return true;
    trace(kIdBadName, 0, 1, "Stanza [%s%s%s] holds a name or a line that would not read back the same",
          stanza->category != nullptr ? stanza->category : "", stanza->category != nullptr ? ":" : "",
          stanza->title);
    return false;
}

// ---- The open file ----------------------------------------------------------

bool fileTemplate() {
    return gFileType.declare();
}

bool dynamicListTemplate() {
    return gDynamicListType.declare();
}

inline bool hasStream(const STNZ_FILE *file) { return file != nullptr && file->pStream != nullptr; }
inline bool isEmpty(const char *text) { return text == nullptr || *text == '\0'; }

bool tell(STNZ_FILE *file, int32_t &offset) { return FileStreamGetOffsetLong(&offset, file->pStream); }
bool seek(STNZ_FILE *file, int32_t offset) { return FileStreamSeekFromLong(file->pStream, offset); }

// Takes the input back to where it was unless kept: how a find that fails
// leaves the position alone.
class PositionGuard {
  public:
    explicit PositionGuard(STNZ_FILE *file) : file_(file), valid_(tell(file, offset_)) {}
    PositionGuard(const PositionGuard &) = delete;
    PositionGuard &operator=(const PositionGuard &) = delete;
    ~PositionGuard() {
        if (valid_ && !kept_) seek(file_, offset_);
    }
    bool valid() const { return valid_; }
    int32_t offset() const { return offset_; }
    BOOL keep() {
        kept_ = true;
        return TRUE;
    }

  private:
    STNZ_FILE *file_;
    int32_t offset_ = 0;
    bool valid_;
    bool kept_ = false;
};

void clearKey(STNZ_FILE *file) {
    MemFreeInternal(&file->pszKeyword);
    MemFreeInternal(&file->pszArgument);
}

// The new current names are made before the old ones go: a caller may
// hand the file's own strings to a find.
void setCurrentStanza(STNZ_FILE *file, View category, bool hasCategory, View title, int32_t offset) {
    char *newCategory = hasCategory ? newString(category) : nullptr;
    char *newTitle = newString(title);
    MemFreeInternal(&file->pszCategory);
    MemFreeInternal(&file->pszTitle);
    file->pszCategory = newCategory;
    file->pszTitle = newTitle;
    file->iStanzaOffset = offset;
    clearKey(file);
}

void setCurrentKey(STNZ_FILE *file, View keyword, View argument) {
    char *newKeyword = newString(keyword);
    char *newArgument = newString(argument);
    clearKey(file);
    file->pszKeyword = newKeyword;
    file->pszArgument = newArgument;
}

// Reads on to the first title of those names; false at the end.
bool scanToTitle(FILE_STREAM *stream, const char *category, const char *title) {
    LineReader reader;
    TitleLine line;
    while (reader.nextTitle(stream, line))
        if (titleMatches(line, category, title)) return true;
    return false;
}

// Loads the current stanza and says where it ends (the offset of the next
// title line, or of the end of the file).
bool loadCurrent(Stanza **out, STNZ_FILE *file, int32_t *endOffset) {
    if (!hasStream(file) || out == nullptr || file->pszTitle == nullptr) return false;
    PositionGuard back(file);
    if (!back.valid() || !seek(file, file->iStanzaOffset)) return false;
    LineReader reader;
    Line line;
    int32_t count = 0;
    while (reader.next(file->pStream, line) && !line.isTitle) ++count;
    Stanza *stanza = nullptr;
    const char *category = isEmpty(file->pszCategory) ? nullptr : file->pszCategory; // "" is no category
    if (!StnzCreate(&stanza, category, file->pszTitle, count) || !seek(file, file->iStanzaOffset)) {
        StnzRelease(&stanza);
        return false;
    }
    int32_t loaded = 0;
    for (; loaded < count && reader.next(file->pStream, line) && !line.isTitle; ++loaded) {
        StanzaKey *key = nullptr;
        if (!makeKey(&key, line.key.keyword, line.key.argument) || !StnzAddKeyToStanza(&stanza, &key)) {
            StnzReleaseKey(&key);
            break;
        }
    }
    int32_t end = 0;
    if (loaded != count || !tell(file, end)) {
        StnzRelease(&stanza);
        return false;
    }
    if (endOffset != nullptr) *endOffset = end;
    *out = stanza;
    return true;
}

// Ends a rewrite: commits it when everything was written, else cancels it
// and takes the input back to where it was. The file is whole either way.
BOOL finishRewrite(STNZ_FILE *file, Output &out, PositionGuard &position) {
    if (out.flush() && FileStreamCloseOutput(file->pStream)) return position.keep();
    FileStreamCancelRewrite(file->pStream);
    return FALSE;
}

// The rewrite of remove and replace: every line of the file, from its start,
// goes to eachLine, which copies what it keeps; atEnd writes what is new.
template <typename EachLine, typename AtEnd> BOOL rewriteFile(STNZ_FILE *file, EachLine eachLine, AtEnd atEnd) {
    PositionGuard position(file);
    if (!position.valid() || !FileStreamSeekStart(file->pStream) || !FileStreamStartRewrite(file->pStream))
        return FALSE;
    Output out(file->pStream);
    LineReader reader;
    Line line;
    while (reader.next(file->pStream, line)) eachLine(out, line);
    atEnd(out);
    return finishRewrite(file, out, position);
}

bool inUpdateMode(const STNZ_FILE *file) {
    if (hasStream(file) && file->iMode == STNZ_MODE_UPDATE) return true;
    trace(kIdWrongMode, 0, 2, "A stanza file rewrite needs a file open for update (mode %ld)",
          static_cast<long>(file != nullptr ? file->iMode : -1));
    return false;
}

// Whether the input's file ends inside a line: its last byte is no line feed.
bool endsMidLine(FILE_STREAM *input) {
    int32_t size = 0;
    unsigned char last = '\n';
    return FileStreamSeekEnd(input) && FileStreamGetOffsetLong(&size, input) && size > 0 &&
           FileStreamSeekFromLong(input, size - 1) && FileStreamReadByte(input, &last) && last != '\n';
}

bool isStanzaObject(const void *item) { return ObjCheckTypeInternal(item, OBJ_STANZA_MAGIC); }

// The stanzas of a replaced stanza's name after the first: a replace drops
// them with it. Their lines are noted as the rewrite passes them and traced
// for the operator once it is committed, so that what a person wrote there
// can be found again.
class Namesakes {
  public:
    Namesakes() : lines_(ListNewFromPool(OBJ_STRING_MAGIC, nullptr)) {}
    ~Namesakes() { ObjReleaseInternal(&lines_); }
    Namesakes(const Namesakes &) = delete;
    Namesakes &operator=(const Namesakes &) = delete;

    // A line of a stanza of the replaced name.
    void pass(const Line &line) {
        if (line.isTitle) ++seen_;
        if (seen_ < 2) return;
        char text[STNZ_LINE_MAX + 4];
        const View first = line.isTitle ? line.title.category : line.key.keyword;
        const View second = line.isTitle ? line.title.title : line.key.argument;
        snprintf(text, sizeof text, line.isTitle ? "[%.*s%s%.*s]" : "%.*s%s%.*s", static_cast<int>(first.size()),
                 first.data(), line.isTitle ? (line.title.hasCategory ? ":" : "") : "=", static_cast<int>(second.size()),
                 second.data());
        OBJ_STRING *item = ObjStringNew(text);
        ListPushLastItemInternal(lines_, &item);
    }

    void report(const FILE_STREAM *stream) const {
        const char *path = nullptr, *stanza = "";
        FileStreamGetPath(&path, stream);
        for (const LISTNODE *node = lines_->oFirst; node != nullptr; node = node->oNext) {
            const char *text = ObjGetString(node->oItem);
            if (*text == '[') {
                stanza = text;
                trace(kIdDroppedStanza, 0, 0, "Dropped another stanza %s of that name from '%s'", stanza, path);
            } else {
                trace(kIdDroppedKey, 0, 0, "Dropped with %s: %s", stanza, text);
            }
        }
    }

  private:
    LIST *lines_;
    int32_t seen_ = 0;
};

} // namespace

// ---- Lines ------------------------------------------------------------------

BOOL StnzLineIsTitle(const char *line) {
    if (line == nullptr) return FALSE;
    const char *p = skipBlanks(line);
    if (*p != '[') return FALSE;
    while (*p != '\0' && *p != ']') p += charBytes(p);
    return *p == ']';
}

BOOL StnzLineIsKey(const char *line) { return line != nullptr && parseKey(line).has_value(); }

BOOL StnzLineToTitle(char **category, char **title, const char *line) {
    if (category == nullptr || title == nullptr || line == nullptr) return FALSE;
    const auto parts = parseTitle(line);
    if (!parts) return FALSE;
    *category = parts->hasCategory ? newString(parts->category) : nullptr;
    *title = newString(parts->title);
    return TRUE;
}

BOOL StnzLineToKeywordAndArgument(char **keyword, char **argument, const char *line) {
    if (keyword == nullptr || argument == nullptr || line == nullptr) return FALSE;
    const auto parts = parseKey(line);
    if (!parts) return FALSE;
    *keyword = newString(parts->keyword);
    *argument = newString(parts->argument);
    return TRUE;
}

BOOL StnzLineToKey(StanzaKey **out, const char *line) {
    if (out == nullptr || line == nullptr) return FALSE;
    const auto parts = parseKey(line);
    if (!parts) {
        trace(kIdSplitKey, 0, 2, "Failed to split key line %s", line);
        return FALSE;
    }
    return makeKey(out, parts->keyword, parts->argument);
}

BOOL StnzAddValues(StanzaKey **out, const char *keyword, const char *argument) {
    if (out == nullptr || keyword == nullptr) return FALSE;
    return makeKey(out, keyword, viewOf(argument));
}

char *StnzEscapeText(const char *text) {
    if (text == nullptr) return nullptr;
    size_t length = 0;
    escape(text, [&length](const char *, size_t count) { length += count; });
    auto *escaped = static_cast<char *>(MemAllocateFromPool(length + 1, nullptr));
    if (escaped == nullptr) return nullptr;
    char *at = escaped;
    escape(text, [&at](const char *bytes, size_t count) {
        memcpy(at, bytes, count);
        at += count;
    });
    *at = '\0';
    return escaped;
}

void StnzReleaseRecord(StnzLineRecord *record) {
    if (record == nullptr) return;
    MemFreeInternal(&record->category);
    MemFreeInternal(&record->title);
    MemFreeInternal(&record->keyword);
    MemFreeInternal(&record->argument);
}

BOOL StnzReadRecord(STNZ_FILE *file, StnzLineRecord *record) {
    if (record == nullptr) return FALSE;
    StnzReleaseRecord(record);
    if (!hasStream(file)) return FALSE;
    LineReader reader;
    Line line;
    if (!reader.next(file->pStream, line)) return FALSE;
    if (line.isTitle) {
        if (line.title.hasCategory) record->category = newString(line.title.category);
        record->title = newString(line.title.title);
    } else {
        record->keyword = newString(line.key.keyword);
        record->argument = newString(line.key.argument);
    }
    return TRUE;
}

BOOL StnzWriteRecord(STNZ_FILE *file, const StnzLineRecord *record) {
    if (!hasStream(file) || record == nullptr) return FALSE;
    Line line{};
    if (record->title != nullptr) {
        line = {true, {record->category != nullptr, viewOf(record->category), record->title}, {}};
    } else if (record->keyword != nullptr) {
        line = {false, {}, {record->keyword, viewOf(record->argument)}};
    } else {
        return FALSE;
    }
    Output out(file->pStream);
    return putCopied(out, line) && out.flush();
}

// ---- An open file ----------------------------------------------------------

BOOL StnzOpenFile(STNZ_FILE **out, const char *path, int32_t mode) {
    if (out == nullptr || isEmpty(path) || !fileTemplate()) return FALSE;
    FILE_STREAM *stream = nullptr;
    if (!FileStreamOpen(&stream, path, mode)) return FALSE;
    auto *file = gFileType.newInstance(nullptr);
    if (file == nullptr) {
        FileStreamClose(&stream);
        return FALSE;
    }
    file->pStream = stream;
    file->iMode = mode;
    *out = file;
    return TRUE;
}

BOOL StnzCloseFile(STNZ_FILE **fileAddress) {
    if (fileAddress == nullptr || *fileAddress == nullptr) return FALSE;
    const BOOL closed = FileStreamClose(&(*fileAddress)->pStream);
    ObjReleaseInternal(fileAddress); // frees the current strings
    return closed;
}

BOOL StnzRewindFile(STNZ_FILE *file) {
    if (!hasStream(file)) return FALSE;
    MemFreeInternal(&file->pszCategory);
    MemFreeInternal(&file->pszTitle);
    clearKey(file);
    file->iStanzaOffset = 0;
    return FileStreamSeekStart(file->pStream);
}

int32_t StnzFileOpenMode(const STNZ_FILE *file) { return hasStream(file) ? file->iMode : -1; }

BOOL StnzCurrentTitle(char **category, char **title, const STNZ_FILE *file) {
    if (title == nullptr || file == nullptr || file->pszTitle == nullptr) return FALSE;
    if (category != nullptr) *category = file->pszCategory != nullptr ? newString(file->pszCategory) : nullptr;
    *title = newString(file->pszTitle);
    return TRUE;
}

BOOL StnzCurrentKeyword(char **out, const STNZ_FILE *file) {
    if (out == nullptr || file == nullptr || file->pszKeyword == nullptr) return FALSE;
    *out = newString(file->pszKeyword);
    return TRUE;
}

BOOL StnzCurrentArgument(char **out, const STNZ_FILE *file) {
    if (out == nullptr || file == nullptr || file->pszArgument == nullptr) return FALSE;
    *out = newString(file->pszArgument);
    return TRUE;
}

BOOL StnzLoadCurrentKey(StanzaKey **out, const STNZ_FILE *file) {
    if (out == nullptr || file == nullptr || file->pszKeyword == nullptr) return FALSE;
    return makeKey(out, file->pszKeyword, viewOf(file->pszArgument));
}

BOOL StnzLoadCurrentStanza(Stanza **out, STNZ_FILE *file) { return loadCurrent(out, file, nullptr); }

BOOL StnzFindStanza(STNZ_FILE *file, const char *category, const char *title) {
    if (!hasStream(file) || isEmpty(title)) return FALSE;
    if (file->pszTitle != nullptr && sameName(file->pszTitle, title) && sameName(viewOf(file->pszCategory), category)) {
        clearKey(file);
        return seek(file, file->iStanzaOffset);
    }
    PositionGuard position(file);
    int32_t offset = 0;
    if (!position.valid() || !FileStreamSeekStart(file->pStream) || !scanToTitle(file->pStream, category, title) ||
        !tell(file, offset))
        return FALSE;
    setCurrentStanza(file, viewOf(category), category != nullptr, title, offset);
    return position.keep();
}

BOOL StnzFindKeyword(STNZ_FILE *file, const char *keyword) {
    if (!hasStream(file) || isEmpty(keyword)) return FALSE;
    PositionGuard position(file);
    if (!position.valid()) return FALSE;
    // The running stanza: the current one, then each title line passed. Its
    // names live in a copy of that line, since the reader's buffer moves on.
    char titleLine[STNZ_LINE_MAX + 1];
    bool running = false; // false: still the current stanza
    TitleLine stanza{};
    int32_t stanzaOffset = file->iStanzaOffset;
    LineReader reader;
    Line line;
    while (reader.next(file->pStream, line)) {
        if (line.isTitle) {
            memcpy(titleLine, reader.buffer, line.title.title.data() + line.title.title.size() - reader.buffer);
            const auto copied = [&](View name) {
                return name.empty() ? View() : View(titleLine + (name.data() - reader.buffer), name.size());
            };
            stanza = {line.title.hasCategory, copied(line.title.category), copied(line.title.title)};
            running = true;
            tell(file, stanzaOffset);
        } else if (sameName(line.key.keyword, keyword)) {
            char *found = newString(keyword); // keyword may be one of the file's own strings
            if (running) setCurrentStanza(file, stanza.category, stanza.hasCategory, stanza.title, stanzaOffset);
            setCurrentKey(file, found, line.key.argument);
            MemFreeInternal(&found);
            return position.keep();
        }
    }
    return FALSE;
}

BOOL StnzFindKeywordInStanza(STNZ_FILE *file, const char *keyword) {
    if (!hasStream(file) || isEmpty(keyword) || file->pszTitle == nullptr) return FALSE;
    PositionGuard position(file);
    if (!position.valid() || !seek(file, file->iStanzaOffset)) return FALSE;
    LineReader reader;
    Line line;
    while (reader.next(file->pStream, line) && !line.isTitle) {
        if (sameName(line.key.keyword, keyword)) {
            setCurrentKey(file, keyword, line.key.argument);
            return position.keep();
        }
    }
    return FALSE;
}

BOOL StnzFindNextStanza(STNZ_FILE *file) {
    if (!hasStream(file)) {
        trace(kIdInvalidFile, 0, 1, "Invalid file pointer");
        return FALSE;
    }
    PositionGuard position(file);
    LineReader reader;
    TitleLine line;
    int32_t offset = 0;
    if (!position.valid() || !reader.nextTitle(file->pStream, line) || !tell(file, offset)) return FALSE;
    setCurrentStanza(file, line.category, line.hasCategory, line.title, offset);
    return position.keep();
}

BOOL StnzFindNextKeyword(STNZ_FILE *file) {
    if (!hasStream(file)) return FALSE;
    PositionGuard position(file);
    LineReader reader;
    Line line;
    if (!position.valid() || !reader.next(file->pStream, line) || line.isTitle) return FALSE;
    setCurrentKey(file, line.key.keyword, line.key.argument);
    return position.keep();
}

// ---- Writing ----------------------------------------------------------------

BOOL StnzFileWriteStanza(STNZ_FILE *file, const Stanza *stanza) {
    if (!hasStream(file) || (file->iMode != STNZ_MODE_APPEND && file->iMode != STNZ_MODE_UPDATE) ||
        !writable(stanza))
        return FALSE;
    Output out(file->pStream);
    putStanza(out, stanza);
    return out.flush();
}

BOOL StnzFileAppendStanza(STNZ_FILE *file, const Stanza *stanza) {
    if (!hasStream(file) || file->iMode != STNZ_MODE_APPEND) return FALSE;
    return StnzFileWriteStanza(file, stanza);
}

BOOL StnzFileRemoveStanza(STNZ_FILE *file, const char *category, const char *title) {
    if (isEmpty(title) || !inUpdateMode(file)) return FALSE;
    bool skipping = false;
    return rewriteFile(
        file,
        [&](Output &out, const Line &line) {
            if (line.isTitle) skipping = titleMatches(line.title, category, title);
            if (!skipping && !putCopied(out, line)) out.fail();
        },
        [](Output &) {});
}

BOOL StnzFileReplaceStanza(STNZ_FILE *file, const Stanza *stanza) {
    if (!inUpdateMode(file) || !writable(stanza)) return FALSE;
    bool skipping = false, copiedTitle = false;
    Namesakes namesakes;
    const BOOL replaced = rewriteFile(
        file,
        [&](Output &out, const Line &line) {
            if (line.isTitle) {
                skipping = titleMatches(line.title, stanza->category, stanza->title);
                if (!skipping && copiedTitle) out.put("\n");
                copiedTitle = copiedTitle || !skipping;
            }
            if (skipping) namesakes.pass(line);
            else if (!putCopied(out, line)) out.fail();
        },
        [&](Output &out) {
            if (copiedTitle) out.put("\n\n");
            putStanza(out, stanza);
        });
    if (replaced) namesakes.report(file->pStream);
    return replaced;
}

BOOL StnzFileLoadStanzaList(LIST **out, STNZ_FILE *file) {
    if (out == nullptr || !hasStream(file)) return FALSE;
    LIST *list = ListNewFromPool(0, nullptr);
    if (list == nullptr) return FALSE;
    while (StnzFindNextStanza(file)) {
        Stanza *stanza = nullptr;
        int32_t end = 0;
        OBJ_STANZA *item = loadCurrent(&stanza, file, &end) ? ObjStanzaNew(stanza) : nullptr;
        if (item == nullptr || !ListPushLastItemInternal(list, &item) || !seek(file, end)) {
            if (item == nullptr) StnzRelease(&stanza);
            ObjReleaseInternal(&item);
            ObjReleaseInternal(&list);
            return FALSE;
        }
    }
    *out = list;
    return TRUE;
}

BOOL StnzFileSaveStanzaList(const LIST *list, STNZ_FILE *file) {
    if (!ObjCheckTypeInternal(list, LIST_MAGIC) || !inUpdateMode(file)) return FALSE;
    PositionGuard position(file);
    if (!position.valid() || !FileStreamStartRewrite(file->pStream)) return FALSE;
    Output out(file->pStream);
    for (const LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        if (!isStanzaObject(node->oItem)) continue;
        const Stanza *stanza = static_cast<const OBJ_STANZA *>(node->oItem)->pStanza;
        if (writable(stanza)) putStanza(out, stanza); // one the writer refuses is traced and left out

    }
    return finishRewrite(file, out, position);
}

// ---- By path ----------------------------------------------------------------

BOOL StnzLoadStanzaFromFile(Stanza **out, const char *path, const char *category, const char *title) {
    if (out == nullptr || isEmpty(path) || isEmpty(title)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_READ)) return FALSE;
    const bool loaded = StnzFindStanza(file, category, title) && StnzLoadCurrentStanza(out, file);
    StnzCloseFile(&file);
    return loaded;
}

BOOL StnzLoadKeyFromFile(StanzaKey **out, const char *path, const char *category, const char *title,
                         const char *keyword) {
    if (out == nullptr || isEmpty(path) || isEmpty(title) || isEmpty(keyword)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_READ)) return FALSE;
    const bool loaded = StnzFindStanza(file, category, title) && StnzFindKeywordInStanza(file, keyword) &&
                        makeKey(out, keyword, viewOf(file->pszArgument));
    StnzCloseFile(&file);
    return loaded;
}

BOOL StnzAddStanzaToFile(const Stanza *stanza, const char *path) {
    if (stanza == nullptr) {
        trace(kIdAddNullStanza, 0, 1, "Attemped to add NULL stanza to file '%s'", path != nullptr ? path : "(null)");
        return FALSE;
    }
    if (isEmpty(path)) {
        trace(kIdAddNullFile, 0, 1, "Attemped to add stanza to NULL file");
        return FALSE;
    }
    if (!writable(stanza)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_APPEND)) return FALSE;
    // The append stream reads nothing, so the test reads through an input of
    // its own, without a lock (the append holds it), and closes it last:
    // closing a descriptor lets go of every record lock on its file.
    FILE_STREAM *input = nullptr;
    // A last line without its line feed gets one, or the title would join it.
    bool added = FileStreamOpenTags(&input, -2, FILE_STREAM_TAG_PATH, path, FILE_STREAM_TAG_MODE,
                                    static_cast<int>(STNZ_MODE_READ), FILE_STREAM_TAG_LOCK, FALSE, -1) &&
                 !scanToTitle(input, stanza->category, stanza->title) &&
                 (!endsMidLine(input) || FileStreamWrite(file->pStream, "\n", 1)) && StnzFileWriteStanza(file, stanza);
    added = StnzCloseFile(&file) && added;
    FileStreamClose(&input);
    return added;
}

BOOL StnzReplaceStanzaInFile(const Stanza *stanza, const char *path) {
    if (stanza == nullptr) {
        trace(kIdReplaceNullStanza, 0, 1, "Attemped to replace NULL stanza to file '%s'",
              path != nullptr ? path : "(null)");
        return FALSE;
    }
    if (isEmpty(path)) {
        trace(kIdReplaceNullFile, 0, 1, "Attemped to replace stanza to NULL file");
        return FALSE;
    }
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_UPDATE)) {
        trace(kIdOpenForUpdate, 0, 1, "Failed to open '%s' for update", path);
        return FALSE;
    }
    bool replaced = StnzFileReplaceStanza(file, stanza);
    if (!replaced) trace(kIdReplaceFailed, 0, 1, "Failed to replace stanza in file");
    replaced = StnzCloseFile(&file) && replaced;
    return replaced;
}

BOOL StnzRemoveStanzaFromFile(const char *category, const char *title, const char *path) {
    if (isEmpty(path) || isEmpty(title)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_UPDATE)) return FALSE;
    const bool removed = StnzFileRemoveStanza(file, category, title);
    return StnzCloseFile(&file) && removed;
}

BOOL StnzAddKeyToFile(const char *path, const char *category, const char *title, StanzaKey **keyAddress,
                      BOOL replace) {
    if (isEmpty(path) || isEmpty(title) || keyAddress == nullptr || *keyAddress == nullptr) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_UPDATE)) return FALSE;
    // The exclusive lock holds from the find to the rewrite.
    Stanza *stanza = nullptr;
    bool ok = StnzFindStanza(file, category, title) ? StnzLoadCurrentStanza(&stanza, file)
                                                     : StnzCreate(&stanza, isEmpty(category) ? nullptr : category,
                                                                  title, 1);
    ok = ok && (replace ? StnzReplaceKeyInStanza(&stanza, keyAddress) : StnzAddKeyToStanza(&stanza, keyAddress));
    ok = ok && StnzFileReplaceStanza(file, stanza);
    ok = StnzCloseFile(&file) && ok;
    StnzRelease(&stanza);
    return ok;
}

BOOL StnzLoadStanzaListFromFile(LIST **out, const char *path) {
    if (out == nullptr || isEmpty(path)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_READ)) return FALSE;
    const bool loaded = StnzFileLoadStanzaList(out, file);
    StnzCloseFile(&file);
    return loaded;
}

BOOL StnzSaveStanzaListToFile(const LIST *list, const char *path) {
    if (isEmpty(path) || !ObjCheckTypeInternal(list, LIST_MAGIC)) return FALSE;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_UPDATE)) return FALSE;
    const bool saved = StnzFileSaveStanzaList(list, file);
    return StnzCloseFile(&file) && saved;
}

BOOL StnzLoadDynamicStanzaListFromFile(STNZ_DYNAMIC_LIST **out, const char *path) {
    if (out == nullptr || isEmpty(path) || !dynamicListTemplate()) return FALSE;
    LIST *list = nullptr;
    if (!StnzLoadStanzaListFromFile(&list, path)) return FALSE;
    auto *dynamicList =
        gDynamicListType.newInstance(nullptr);
    if (dynamicList == nullptr) {
        ObjReleaseInternal(&list);
        return FALSE;
    }
    dynamicList->oList = list;
    dynamicList->pszPath = StrDuplicateIntoPool(path, nullptr);
    *out = dynamicList;
    return TRUE;
}

BOOL StnzSaveDynamicStanzaListToFile(const STNZ_DYNAMIC_LIST *dynamicList) {
    if (!ObjCheckTypeInternal(dynamicList, STNZ_DYNAMIC_LIST_MAGIC)) return FALSE;
    return StnzSaveStanzaListToFile(dynamicList->oList, dynamicList->pszPath);
}

// ---- The module ---------------------------------------------------------------

BOOL StnzFileInitialize(void) { return fileTemplate(); }

BOOL StnzFileInitializeThread(void) { return TRUE; }

void StnzFileReleaseThread(LmContext *) {}
