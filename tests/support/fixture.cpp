#include "fixture.h"

#include <pthread.h>

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

TestPool gPool;

void *poolAllocate(MemPool *, size_t bytes) {
    gPool.lastBytes = bytes;
    if (++gPool.allocations >= gPool.failFrom && gPool.failFrom != 0) return nullptr;
    return memset(malloc(bytes), 0xAA, bytes);
}

BOOL poolFree(void *raw) {
    ++gPool.frees;
    if (!gPool.keepFreed) free(raw);
    return gPool.freeResult;
}

constexpr MemPoolOperations kPoolOperations = {nullptr, poolAllocate, poolFree, nullptr};

} // namespace

// Blocks in use, less those that templates keep until the process ends and
// those of the thread's cache of settings files.
int32_t LibraryTest::blocksInUse() {
    return MemUsedCount() - fh::objectTemplateBlocks() - fh::cfgCacheBlocks();
}

TestPool &testPool(int failFrom) {
    gPool = {{MEM_POOL_MAGIC, &kPoolOperations}, failFrom, 0, 0, 0, TRUE, false};
    return gPool;
}

TestRing::TestRing(int32_t size, int32_t level)
    : buffer(static_cast<TraceBuffer *>(calloc(1, sizeof(TraceBuffer) + size))) {
    buffer->Size = size;
    buffer->Level = level;
    TraceSetBuffer(buffer);
}

TestRing::~TestRing() {
    TraceSetBuffer(TRACE_OWN_BUFFER);
    free(buffer);
}

std::vector<uint32_t> TestRing::walk() const {
    std::vector<const TraceRecord *> newestFirst;
    TraceWalkBuffer(buffer, collect, &newestFirst);
    std::vector<uint32_t> sequences;
    for (const TraceRecord *record : newestFirst) sequences.push_back(record->Sequence);
    return sequences;
}

void LibraryTest::SetUp() {
    char pattern[] = "/tmp/fhcore-test-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    home_ = pattern;
    setenv("FHHOME", home_.c_str(), 1);
    ASSERT_TRUE(ContextInitialize());
    PathInitialize(); // the home of this test, also when tests share a process
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

::testing::AssertionResult LibraryTest::traced(const char *module, int32_t id, const std::string &text) {
    const size_t tagLength = strlen(module);
    const std::vector<const TraceRecord *> all = records();
    for (const TraceRecord *record : all) {
        if (record->Id == id && text == record->Text && strncmp(record->Module, module, tagLength) == 0)
            return ::testing::AssertionSuccess();
    }
    constexpr size_t kShown = 8;
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << "no record " << module << ":" << id << " \"" << text << "\"; the newest of " << all.size() << ":";
    for (size_t i = all.size() > kShown ? all.size() - kShown : 0; i < all.size(); ++i)
    {
        std::string tag(all[i]->Module, strnlen(all[i]->Module, sizeof all[i]->Module));
        tag.erase(tag.find_last_not_of(' ') + 1);
        failure << "\n  " << tag << ":" << all[i]->Id << " \"" << all[i]->Text << "\"";
    }
    return failure;
}

void *runInSmallStack(void *(*body)(void *)) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 256 * 1024);
    pthread_t thread;
    void *result = nullptr;
    if (pthread_create(&thread, &attributes, body, nullptr) == 0) pthread_join(thread, &result);
    pthread_attr_destroy(&attributes);
    return result;
}
