// A configuration file of any bytes, read through the cache of parsed
// settings and by a scan of the file, must give the same answer to every
// lookup: each stanza name and keyword the file holds, in its own case and
// folded, asked as both forms of a setting. The cache reads a file of
// bytes from elsewhere: no crash, no hang, no difference, nothing left.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "cfgcache.h"
#include "leakcheck.h"

namespace {

std::string gPath;

bool sameKey(const StanzaKey *a, const StanzaKey *b) {
    if ((a == nullptr) != (b == nullptr)) return false;
    if (a == nullptr) return true;
    if (strcmp(a->keyword, b->keyword) != 0 || a->valueCount != b->valueCount) return false;
    for (int32_t v = 0; v < a->valueCount; ++v) {
        const char *x = a->values[v], *y = b->values[v];
        if ((x == nullptr) != (y == nullptr) || (x != nullptr && strcmp(x, y) != 0)) return false;
    }
    return true;
}

std::string upper(std::string text) {
    for (char &c : text) c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    return text;
}

struct Name {
    std::string category, title, keyword;
    bool hasCategory;
};

// Every (category, title, keyword) of the file, as the stanza layer reads it.
std::vector<Name> namesOf(const char *path) {
    std::vector<Name> names;
    STNZ_FILE *file = nullptr;
    if (!StnzOpenFile(&file, path, STNZ_MODE_READ)) return names;
    StnzLineRecord record{};
    Name stanza{"", "", "", false};
    while (names.size() < 64 && StnzReadRecord(file, &record)) {
        if (record.title != nullptr) {
            stanza = {record.category != nullptr ? record.category : "", record.title, "", record.category != nullptr};
        } else if (!stanza.title.empty()) {
            names.push_back({stanza.category, stanza.title, record.keyword, stanza.hasCategory});
        }
    }
    StnzReleaseRecord(&record);
    StnzCloseFile(&file);
    return names;
}

void compare(const fh::CfgSnapshot *snapshot, const char *category, const char *title, const char *keyword) {
    StanzaKey *cached = nullptr, *scanned = nullptr;
    fh::cfgSnapshotKey(&cached, snapshot, category, title, keyword);
    StnzLoadKeyFromFile(&scanned, gPath.c_str(), category, title, keyword);
    CHECK(sameKey(cached, scanned));
    StnzReleaseKey(&cached);
    StnzReleaseKey(&scanned);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char directory[] = "/tmp/fhcore-cfgcache-fuzz-XXXXXX";
    if (mkdtemp(directory) == nullptr || !ContextInitialize()) abort();
    gPath = std::string(directory) + "/fuzz.cfg";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FILE *file = fopen(gPath.c_str(), "wb");
    if (size > 0) fwrite(data, 1, size, file);
    fclose(file);
    const InUse before; // the cache is empty between inputs
    const fh::CfgSnapshot *snapshot = nullptr;
    if (fh::cfgCacheSnapshot(&snapshot, gPath.c_str()) == fh::CfgCached::kReady) {
        for (const Name &n : namesOf(gPath.c_str())) {
            const char *category = n.hasCategory ? n.category.c_str() : nullptr;
            compare(snapshot, category, n.title.c_str(), n.keyword.c_str());
            compare(snapshot, upper(n.category).c_str(), upper(n.title).c_str(), upper(n.keyword).c_str());
            compare(snapshot, nullptr, n.title.c_str(), n.keyword.c_str());
            compare(snapshot, n.title.c_str(), n.keyword.c_str(), "value");
        }
    }
    fh::cfgCacheRelease();
    CHECK(!before.leaked());
    return 0;
}
