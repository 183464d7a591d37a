// Text that operators edit by hand: arbitrary bytes (lead bytes anywhere,
// no final line feed) go through the value-list parser, and through the
// character and line readers of a file stream; the lists they make are
// printed again. No crash, no read past the input, nothing left behind.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "core/fhcore.h"

namespace {

std::string gPath;


void run(const uint8_t *data, size_t size) {
    char *line = static_cast<char *>(malloc(size + 1));
    memcpy(line, data, size);
    line[size] = '\0';
    LIST *list = nullptr;
    if (!StrValueListFromString(&list, line)) abort();
    char *again = nullptr;
    if (StrFromStrList(&again, list)) MemFreeInternal(&again);
    ObjReleaseInternal(&list);
    free(line);

    FILE *file = fopen(gPath.c_str(), "wb");
    fwrite(data, 1, size, file);
    fclose(file);
    FILE_STREAM *stream = nullptr;
    if (!FileStreamOpen(&stream, gPath.c_str(), FILE_MODE_BINARY | FILE_MODE_READ)) abort();
    char buffer[16];
    for (int32_t n; (n = StrFileReadLine(stream, buffer, sizeof buffer)) != -1;)
        if (n < 0 || n > 15 || strlen(buffer) > static_cast<size_t>(n)) abort();
    FileStreamSeekStart(stream);
    for (int32_t c = 0, read = 0; StrFileReadChar(stream, &c); ++read)
        if (c == '\r' || c < 0 || c > 0xFFFF || read > static_cast<int32_t>(size)) abort();
    FileStreamClose(&stream);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    ContextInitialize();
    char directory[] = "/tmp/fhcore-textline-XXXXXX";
    if (mkdtemp(directory) == nullptr) abort();
    gPath = std::string(directory) + "/input";
    run(reinterpret_cast<const uint8_t *>("a,b\n"), 4); // makes the templates, which live on
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const int32_t objects = ObjCount(), blocks = MemUsedCount();
    run(data, size);
    if (ObjCount() != objects || MemUsedCount() != blocks) abort();
    return 0;
}
