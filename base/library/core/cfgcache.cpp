// cfgcache.cpp - the parsed settings of the last few configuration files
// that a thread read, so that a program reading all its settings reads each
// file once per version instead of twice per call.
//
// Per thread there are kCfgCacheFiles slots; each holds a file's path, its
// identity when it was parsed (device, inode, size, modification time), one
// text block with every name and raw argument of the file, and one array of
// rows: a row per key of the first stanza of each name, in the order of
// (category, title, keyword) as the stanza layer compares names, the first
// key of a keyword only. A lookup is one binary search; a key is then made
// from the row's raw argument exactly as a read from the file makes it.
//
// Every use opens the file with its shared lock, as a read without the
// cache does, and compares the identity under that lock: a rewrite (a new
// inode), an append in place (size and time) and an edit by hand (time)
// all parse the file again. A file whose time is within two ticks of the
// file clock of the moment it was parsed is "racy": another change in the
// same tick could keep its time, so it is parsed again on its next use.
// The least recently used slot makes room for a new file.
#include "core/cfglocal.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>

#include "cfgcache.h"
#include "core/filestream.h"
#include "core/memory.h"
#include "core/stanzafile.h"
#include "core/strbase.h"
#include "sizes.h"
#include "syscalls.h"
#include "text.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"CFGCACHE        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdParsed = 1,
};

// One line of the file: a title (keyword -1) or a key. Names and arguments
// are offsets in the slot's text; offset 0 is the empty string.
struct Row {
    int32_t category;
    int32_t title;
    int32_t keyword;
    int32_t argument;
    int32_t stanza; // ordinal of the stanza in the file
    int32_t line;   // ordinal of the line in the file
};

// Orders names as the stanza layer's equality sees them: 'a' to 'z' fold
// onto 'A' to 'Z', except the byte behind a lead byte. Two names compare 0
// exactly when that layer finds them equal.
int compareNames(const char *a, const char *b) {
    bool aTrail = false, bTrail = false;
    for (;; ++a, ++b) {
        const auto x = static_cast<unsigned char>(aTrail ? *a : fh::foldCase(*a));
        const auto y = static_cast<unsigned char>(bTrail ? *b : fh::foldCase(*b));
        if (x != y) return x < y ? -1 : 1;
        if (x == 0) return 0;
        aTrail = !aTrail && fh::isLeadByte(static_cast<unsigned char>(*a));
        bTrail = !bTrail && fh::isLeadByte(static_cast<unsigned char>(*b));
    }
}

// A pool block that grows geometrically; used counts its elements.
template <typename T> struct Growing {
    T *data = nullptr;
    int32_t used = 0, capacity = 0;

    bool reserve(int64_t more) {
        if (used + more <= capacity) return true;
        const int64_t wanted = std::max<int64_t>({int64_t{used} + more, int64_t{capacity} * 2, 64});
        if (!fh::checkedSize(wanted, sizeof(T))) return false;
        T *grown = static_cast<T *>(fh::memAllocateFilled(static_cast<size_t>(wanted) * sizeof(T), nullptr, data,
                                                          static_cast<size_t>(used) * sizeof(T)));
        MemFreeInternal(&data);
        data = grown;
        capacity = static_cast<int32_t>(wanted);
        return true;
    }
    // Gives back the room that growth left behind Used.
    void shrink() {
        if (used == capacity || used == 0) return;
        T *exact = static_cast<T *>(fh::memAllocateFilled(static_cast<size_t>(used) * sizeof(T), nullptr, data,
                                                          static_cast<size_t>(used) * sizeof(T)));
        MemFreeInternal(&data);
        data = exact;
        capacity = used;
    }
    void release() {
        MemFreeInternal(&data);
        used = capacity = 0;
    }
};

} // namespace

namespace fh {

struct CfgSnapshot {
    char *path;
    dev_t device;
    ino_t inode;
    off_t size;
    timespec modified;
    bool racy;
    uint64_t lastUse;
    Growing<char> text;
    Growing<Row> rows;

    const char *at(int32_t offset) const { return text.data + offset; }
    void clear() {
        MemFreeInternal(&path);
        text.release();
        rows.release();
    }
};

} // namespace fh

namespace {

using fh::CfgSnapshot;

thread_local std::array<CfgSnapshot, fh::kCfgCacheFiles> tFiles{};
thread_local uint64_t tUses = 0;
thread_local int32_t tParses = 0;

// Two ticks of the clock that stamps files, in nanoseconds.
int64_t racyMargin() {
    static const int64_t margin = [] {
        timespec tick{};
        clock_getres(CLOCK_REALTIME_COARSE, &tick);
        return std::max<int64_t>(2 * (int64_t{tick.tv_sec} * 1000000000 + tick.tv_nsec), 2000000);
    }();
    return margin;
}

int64_t nanoseconds(const timespec &t) { return int64_t{t.tv_sec} * 1000000000 + t.tv_nsec; }

bool sameFile(const CfgSnapshot &slot, const struct stat &status) {
    return slot.device == status.st_dev && slot.inode == status.st_ino && slot.size == status.st_size &&
           slot.modified.tv_sec == status.st_mtim.tv_sec && slot.modified.tv_nsec == status.st_mtim.tv_nsec;
}

// The offset of a copy of text in the slot's text block; -1 when it will
// not fit.
int32_t addText(CfgSnapshot &slot, const char *text) {
    if (text == nullptr || *text == '\0') return 0;
    const size_t length = strlen(text) + 1;
    if (!slot.text.reserve(static_cast<int64_t>(length))) return -1;
    const int32_t offset = slot.text.used;
    memcpy(slot.text.data + offset, text, length);
    slot.text.used += static_cast<int32_t>(length);
    return offset;
}

// Reads every line of the open file into the slot's rows.
bool readRows(CfgSnapshot &slot, STNZ_FILE *file) {
    if (!slot.text.reserve(1)) return false;
    slot.text.data[slot.text.used++] = '\0'; // offset 0: the empty string
    StnzLineRecord record{};
    Row stanza{0, -1, -1, 0, -1, 0};
    bool ok = true;
    for (int32_t line = 0; ok && StnzReadRecord(file, &record); ++line) {
        Row row = stanza;
        if (record.title != nullptr) {
            row = {addText(slot, record.category), addText(slot, record.title), -1, 0, stanza.stanza + 1, line};
            ok = row.category >= 0 && row.title >= 0;
            stanza = row;
        } else if (stanza.stanza < 0) {
            continue; // a key before the first title belongs to no stanza
        } else {
            row.keyword = addText(slot, record.keyword);
            row.argument = addText(slot, record.argument);
            row.line = line;
            ok = row.keyword >= 0 && row.argument >= 0;
        }
        ok = ok && slot.rows.reserve(1);
        if (ok) slot.rows.data[slot.rows.used++] = row;
    }
    StnzReleaseRecord(&record);
    return ok;
}

// Sorts the rows by names, titles first and then keys in file order, and
// keeps only the first key of each keyword in the first stanza of each name.
void indexRows(CfgSnapshot &slot) {
    const auto order = [&slot](const Row &a, const Row &b) {
        if (int c = compareNames(slot.at(a.category), slot.at(b.category)); c != 0) return c < 0;
        if (int c = compareNames(slot.at(a.title), slot.at(b.title)); c != 0) return c < 0;
        if ((a.keyword < 0) != (b.keyword < 0)) return a.keyword < 0;
        if (a.keyword >= 0) {
            if (int c = compareNames(slot.at(a.keyword), slot.at(b.keyword)); c != 0) return c < 0;
        }
        return a.line < b.line;
    };
    Row *rows = slot.rows.data;
    std::sort(rows, rows + slot.rows.used, order);
    int32_t kept = 0, firstStanza = -1;
    for (int32_t i = 0; i < slot.rows.used; ++i) {
        const Row row = rows[i]; // rows[i - 1] is still the sorted row: kept <= i
        // A name's rows start with its title rows, the first stanza first.
        if (i == 0 || compareNames(slot.at(rows[i - 1].category), slot.at(row.category)) != 0 ||
            compareNames(slot.at(rows[i - 1].title), slot.at(row.title)) != 0)
            firstStanza = row.stanza;
        if (row.keyword < 0 || row.stanza != firstStanza) continue;
        if (kept > 0 && rows[kept - 1].stanza == row.stanza &&
            compareNames(slot.at(rows[kept - 1].keyword), slot.at(row.keyword)) == 0)
            continue;
        rows[kept++] = row;
    }
    slot.rows.used = kept;
}

// Parses the open file into slot, which is empty.
bool parse(CfgSnapshot &slot, STNZ_FILE *file, const char *path, const struct stat &status) {
    slot.path = StrDuplicateIntoPool(path, nullptr);
    slot.device = status.st_dev;
    slot.inode = status.st_ino;
    slot.size = status.st_size;
    slot.modified = status.st_mtim;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    slot.racy = nanoseconds(status.st_mtim) + racyMargin() >= nanoseconds(now);
    if (slot.path == nullptr || !readRows(slot, file)) {
        slot.clear();
        return false;
    }
    indexRows(slot);
    slot.text.shrink();
    slot.rows.shrink();
    ++tParses;
    trace(kIdParsed, 0, 3, "Parsed '%s': %ld settings%s", path, static_cast<long>(slot.rows.used),
          slot.racy ? ", changed too recently to keep" : "");
    return true;
}

// The slot for path: its own, else an empty one, else the least recently used.
CfgSnapshot &slotFor(const char *path) {
    CfgSnapshot *chosen = &tFiles[0];
    for (CfgSnapshot &slot : tFiles) {
        if (slot.path != nullptr && strcmp(slot.path, path) == 0) return slot;
        if (chosen->path != nullptr && (slot.path == nullptr || slot.lastUse < chosen->lastUse)) chosen = &slot;
    }
    return *chosen;
}

} // namespace

namespace fh {

CfgCached cfgCacheSnapshot(const CfgSnapshot **out, const char *path) {
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_READ)) return CfgCached::kNoFile;
    struct stat status{};
    CfgSnapshot &slot = slotFor(path);
    CfgCached result = CfgCached::kReady;
    if (sys().fstat(fileno(file->pStream->pInput), &status) != 0 || status.st_size > kCfgCacheLargestFile) {
        if (slot.path != nullptr && strcmp(slot.path, path) == 0) slot.clear();
        result = CfgCached::kTooLarge;
    } else if (slot.path == nullptr || strcmp(slot.path, path) != 0 || slot.racy || !sameFile(slot, status)) {
        slot.clear();
        if (!parse(slot, file, path, status)) result = CfgCached::kTooLarge;
    }
    StnzCloseFile(&file);
    if (result == CfgCached::kReady) {
        slot.lastUse = ++tUses;
        *out = &slot;
    }
    return result;
}

bool cfgSnapshotKey(StanzaKey **out, const CfgSnapshot *snapshot, const char *category, const char *title,
                    const char *keyword) {
    if (out == nullptr || snapshot == nullptr || title == nullptr || *title == '\0' || keyword == nullptr ||
        *keyword == '\0')
        return false;
    const char *names[] = {category != nullptr ? category : "", title, keyword};
    const auto below = [snapshot](const Row &row, const char *const *key) {
        if (int c = compareNames(snapshot->at(row.category), key[0]); c != 0) return c < 0;
        if (int c = compareNames(snapshot->at(row.title), key[1]); c != 0) return c < 0;
        return compareNames(snapshot->at(row.keyword), key[2]) < 0;
    };
    const Row *begin = snapshot->rows.data, *end = begin + snapshot->rows.used;
    const char *const *key = names;
    const Row *row = std::lower_bound(begin, end, key, below);
    if (row == end || compareNames(snapshot->at(row->category), names[0]) != 0 ||
        compareNames(snapshot->at(row->title), title) != 0 || compareNames(snapshot->at(row->keyword), keyword) != 0)
        return false;
    return StnzAddValues(out, keyword, snapshot->at(row->argument));
}

int32_t cfgCacheBlocks() {
    int32_t blocks = 0;
    for (const CfgSnapshot &slot : tFiles)
        blocks += (slot.path != nullptr) + (slot.text.data != nullptr) + (slot.rows.data != nullptr);
    return blocks;
}

int32_t cfgCacheParses() { return tParses; }

void cfgCacheRelease() {
    for (CfgSnapshot &slot : tFiles) slot.clear();
}

} // namespace fh
