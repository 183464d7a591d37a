#include "fixture.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace {

BOOL collect(const TraceRecord *record, int32_t, void *cookie) {
    static_cast<std::vector<const TraceRecord *> *>(cookie)->push_back(record);
    return TRUE;
}

std::vector<const TraceRecord *> records() {
    std::vector<const TraceRecord *> newestFirst;
    TraceWalkBuffer(TraceGetBuffer(), collect, &newestFirst);
    return {newestFirst.rbegin(), newestFirst.rend()};
}

} // namespace

// Blocks in use, less those that templates keep until the process ends.
int32_t LibraryTest::blocksInUse() { return MemUsedCount() - fh::objectTemplateBlocks(); }

void LibraryTest::SetUp() {
    char pattern[] = "/tmp/fhcore-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    home_ = pattern;
    setenv("FHHOME", home_.c_str(), 1);
    ASSERT_TRUE(ContextInitialize());
    TraceSetLevel(TRACE_LEVEL_LIBVERBOSE);
    memUsedAtStart_ = blocksInUse();
    objectsAtStart_ = ObjCount();
}

void LibraryTest::TearDown() {
    EXPECT_EQ(blocksInUse(), memUsedAtStart_) << "blocks leaked by the test";
    EXPECT_EQ(ObjCount(), objectsAtStart_) << "objects leaked by the test";
    std::error_code ignored;
    std::filesystem::remove_all(home_, ignored);
}

std::vector<std::string> LibraryTest::traceTexts() {
    std::vector<std::string> texts;
    for (const TraceRecord *record : records()) texts.emplace_back(record->Text);
    return texts;
}

bool LibraryTest::traced(const char *module, int32_t id, const std::string &text) {
    const size_t tagLength = strlen(module);
    for (const TraceRecord *record : records()) {
        if (record->Id == id && text == record->Text && strncmp(record->Module, module, tagLength) == 0) return true;
    }
    return false;
}
