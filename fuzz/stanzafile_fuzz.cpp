// Configuration files are edited by hand and copied between machines: any
// bytes (no final line feed, NULs, lead bytes before a line feed, unclosed
// titles, enormous lines, runs of '!') go through the line parsers, the
// value-list parser and its escape, the split of a value list nested in a
// value, and as a file through the scanner, the finds, a load of every
// stanza and a rewrite. Every stanza that the writer accepts is written
// alone and read back: it must come back the same. A rewrite keeps every
// stanza it copies as it was read, and a second rewrite changes no byte.
// No crash, no hang, nothing left behind.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"

namespace {

std::string gInput, gCopy, gAlone, gInputText;

void check(bool condition) {
    if (!condition) abort();
}

bool sameText(const char *a, const char *b) { return (a == nullptr) == (b == nullptr) && (a == nullptr || !strcmp(a, b)); }

bool sameStanza(const Stanza *a, const Stanza *b) {
    if (!sameText(a->category, b->category) || !sameText(a->title, b->title) || a->keyCount != b->keyCount)
        return false;
    for (int32_t k = 0; k < a->keyCount; ++k) {
        const StanzaKey *x = a->keys[k], *y = b->keys[k];
        if (strcmp(x->keyword, y->keyword) != 0 || x->valueCount != y->valueCount) return false;
        for (int32_t v = 0; v < x->valueCount; ++v)
            if (!sameText(x->values[v], y->values[v])) return false;
    }
    return true;
}

void writeFile(const std::string &path, const uint8_t *data, size_t size) {
    FILE *file = fopen(path.c_str(), "wb");
    if (size > 0) fwrite(data, 1, size, file);
    fclose(file);
}

// The line-level parsers on one line, and the escape of every value.
void parseLine(const char *line) {
    StnzLineIsTitle(line);
    char *first = nullptr, *second = nullptr;
    if (StnzLineToTitle(&first, &second, line)) {
        check(second != nullptr && *second != '\0' && (first == nullptr || *first != '\0'));
        MemFreeInternal(&first);
        MemFreeInternal(&second);
    }
    check(StnzLineIsKey(line) == StnzLineToKeywordAndArgument(&first, &second, line));
    if (first == nullptr) return;
    StanzaKey *key = nullptr;
    check(StnzLineToKey(&key, line));
    for (int32_t v = 0; v < key->valueCount; ++v) {
        const char *value = key->values[v];
        if (value == nullptr) continue;
        LIST *nested = ListNewFromPool(0, nullptr), *items = nullptr;
        OBJ_STRING *text = ObjStringNew(value);
        ListPushLastItemInternal(nested, &text);
        check(CfgParseValueList(&items, nested));
        for (const LISTNODE *item = items->oFirst; item != nullptr; item = item->oNext) {
            const char *part = ObjGetString(item->oItem);
            check(part == nullptr || strlen(part) <= strlen(value));
        }
        ObjReleaseInternal(&items);
        ObjReleaseInternal(&nested);
        char *escaped = StnzEscapeText(value);
        StanzaKey *again = nullptr;
        check(StnzAddValues(&again, "k", escaped) && again->valueCount == 1 && sameText(again->values[0], value));
        StnzReleaseKey(&again);
        MemFreeInternal(&escaped);
    }
    StnzReleaseKey(&key);
    MemFreeInternal(&first);
    MemFreeInternal(&second);
}

// Scans the file with the finds; a failed find leaves the position alone.
void scan(const std::string &path) {
    STNZ_FILE *file = nullptr;
    check(StnzOpenFile(&file, path.c_str(), STNZ_MODE_READ));
    StnzFindKeyword(file, "k");
    for (int32_t stanzas = 0; StnzFindNextStanza(file); ++stanzas) {
        int32_t before = 0, after = 0;
        FileStreamGetOffsetLong(&before, file->pStream);
        check(!StnzFindStanza(file, "no such", "stanza"));
        FileStreamGetOffsetLong(&after, file->pStream);
        check(after == before);
        Stanza *stanza = nullptr;
        if (StnzLoadCurrentStanza(&stanza, file)) StnzRelease(&stanza);
        while (StnzFindNextKeyword(file)) {
        }
        FileStreamGetOffsetLong(&after, file->pStream);
        check(after >= before);
        if (stanzas == 0 && StnzFindStanza(file, file->pszCategory, file->pszTitle)) StnzFindKeywordInStanza(file, "k");
    }
    StnzCloseFile(&file);
}

// Every stanza that the writer takes, written alone, reads back the same.
void roundTrip(const LIST *list) {
    int32_t tried = 0;
    for (const LISTNODE *node = list->oFirst; node != nullptr && tried++ < 8; node = node->oNext) {
        const Stanza *stanza = static_cast<const OBJ_STANZA *>(node->oItem)->pStanza;
        writeFile(gAlone, nullptr, 0);
        if (!StnzAddStanzaToFile(stanza, gAlone.c_str())) continue;
        LIST *back = nullptr;
        check(StnzLoadStanzaListFromFile(&back, gAlone.c_str()) && back->iCount == 1);
        check(sameStanza(stanza, static_cast<const OBJ_STANZA *>(back->oFirst->oItem)->pStanza));
        ObjReleaseInternal(&back);
    }
}

std::string readFile(const std::string &path) {
    std::string text;
    FILE *file = fopen(path.c_str(), "rb");
    char block[4096];
    for (size_t n; (n = fread(block, 1, sizeof block, file)) > 0;) text.append(block, n);
    fclose(file);
    return text;
}

// A rewrite that removes nothing (no title holds a line feed) keeps every
// stanza as it was read, and a second one gives the same bytes as the first;
// or it fails, at a line it cannot copy, and the file is as it was.
void copiesKeepEverything(const LIST *list) {
    writeFile(gCopy, reinterpret_cast<const uint8_t *>(gInputText.data()), gInputText.size());
    if (!StnzRemoveStanzaFromFile(nullptr, "no\nsuch", gCopy.c_str())) {
        check(readFile(gCopy) == gInputText);
        return;
    }
    const std::string once = readFile(gCopy);
    check(StnzRemoveStanzaFromFile(nullptr, "no\nsuch", gCopy.c_str()));
    check(readFile(gCopy) == once);
    LIST *copied = nullptr;
    check(StnzLoadStanzaListFromFile(&copied, gCopy.c_str()) && copied->iCount == list->iCount);
    for (const LISTNODE *a = list->oFirst, *b = copied->oFirst; a != nullptr; a = a->oNext, b = b->oNext)
        check(sameStanza(static_cast<const OBJ_STANZA *>(a->oItem)->pStanza,
                         static_cast<const OBJ_STANZA *>(b->oItem)->pStanza));
    ObjReleaseInternal(&copied);
}

void run(const uint8_t *data, size_t size) {
    gInputText.assign(reinterpret_cast<const char *>(data), size);
    std::string text(reinterpret_cast<const char *>(data), size);
    for (size_t start = 0; start <= text.size();) {
        const size_t end = std::min(text.find('\n', start), text.size());
        parseLine(text.substr(start, end - start).c_str());
        start = end + 1;
    }
    writeFile(gInput, data, size);
    scan(gInput);
    LIST *list = nullptr;
    check(StnzLoadStanzaListFromFile(&list, gInput.c_str()));
    roundTrip(list);
    copiesKeepEverything(list);
    ObjReleaseInternal(&list);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    // Memory-backed where there is such a file system: each input is a few files.
    char shm[] = "/dev/shm/fhcore-stanzafile-XXXXXX", tmp[] = "/tmp/fhcore-stanzafile-XXXXXX";
    char *directory = access("/dev/shm", W_OK) == 0 ? shm : tmp;
    if (mkdtemp(directory) == nullptr) abort();
    gInput = std::string(directory) + "/input.cfg";
    gCopy = std::string(directory) + "/copy.cfg";
    gAlone = std::string(directory) + "/alone.cfg";
    const char seed[] = "[a:b]\nk=x,y\n";
    run(reinterpret_cast<const uint8_t *>(seed), sizeof seed - 1); // makes the templates, which live on
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int32_t objects = ObjCount(), blocks = MemUsedCount();
    run(data, size);
    if (ObjCount() != objects || MemUsedCount() != blocks) abort();
    return 0;
}
