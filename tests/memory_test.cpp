// Tests of guarded blocks and pools.
#include <csignal>
#include <cstring>
#include <tuple>

#include "fixture.h"

namespace {

constexpr size_t kHeader = 2 * sizeof(void *);

MemBlockHeader *headerOf(void *user) { return reinterpret_cast<MemBlockHeader *>(static_cast<char *>(user) - kHeader); }

using MemoryTest = LibraryTest;

} // namespace

// Header, rounded and zero-filled user area, guard word. A failing pool is
// not told: the block comes from the heap and goes back through the default
// pool. MemFreeInternal gives what the pool's Free says.
TEST_F(MemoryTest, BlocksFromAPool) {
    TestPool &test = testPool(6);
    MemPool *pool = &test.pool, *heap = MemGetDefaultPoolId();
    const std::tuple<size_t, size_t, MemPool *, BOOL> cases[] = {
        {0, 0, pool, FALSE},  {1, 4, pool, TRUE}, {4, 4, pool, TRUE},   {5, 8, pool, TRUE},
        {13, 16, pool, TRUE}, {6, 8, heap, TRUE}, {5, 8, nullptr, TRUE}};
    for (const auto &[size, rounded, from, freed] : cases) {
        void *user = MemAllocateFromPool(size, from == heap ? pool : from);
        const MemBlockHeader *header = headerOf(user);
        EXPECT_EQ(reinterpret_cast<char *>(header->Guard), static_cast<char *>(user) + rounded) << size;
        EXPECT_TRUE(*header->Guard == MEM_GUARD_WORD && header->Pool == from);
        EXPECT_EQ(std::string(static_cast<char *>(user), rounded), std::string(rounded, '\0'));
        EXPECT_TRUE(from == nullptr || test.lastBytes == kHeader + rounded + sizeof(uint32_t));
        test.freeResult = freed;
        EXPECT_EQ(MemFreeInternal(&user), freed);
        EXPECT_EQ(user, nullptr);
    }
    EXPECT_EQ(test.frees, 5);
}

// In use goes down on every free, the highest never falls, and all three
// are copied to the process table entry.
TEST_F(MemoryTest, Counters) {
    alignas(int32_t) unsigned char entry[128];
    gtLmContext.pProcessTableEntry = entry;
    auto at = [&](size_t offset) { return *reinterpret_cast<int32_t *>(entry + offset); };
    const int32_t used = MemUsedCount(), max = std::max(MemMax(), used + 2), made = MemAllocations();
    void *a = MemAllocateFromPool(1, nullptr), *b = MemAllocateFromPool(1, nullptr), *none = nullptr;
    EXPECT_TRUE(at(80) == used + 2);
    EXPECT_TRUE(at(84) == max);
    EXPECT_TRUE(at(88) == made + 2);
    EXPECT_FALSE(MemFreeInternal(&none) || MemFreeInternal(nullptr));
    MemFreeInternal(&a);
    MemFreeInternal(&b);
    EXPECT_TRUE(MemUsedCount() == used);
    EXPECT_TRUE(at(80) == used);
    EXPECT_TRUE(MemMax() == max);
    EXPECT_TRUE(MemAllocations() == made + 2);
    gtLmContext.pProcessTableEntry = nullptr;
}

// An overrun, a second free, a destroyed header and a size that cannot be
// had end the process.
TEST_F(MemoryTest, DamagedBlockOnFreeEndsTheProcess) {
    void (*const damages[])(void *) = {[](void *user) { static_cast<char *>(user)[8] = 0; },
                                       [](void *user) { MemFreeInternal(&user); },
                                       [](void *user) { headerOf(user)->Guard = nullptr; }};
    for (auto damage : damages) {
        EXPECT_EXIT(
            {
                TestPool &test = testPool();
                test.keepFreed = true;
                void *user = MemAllocateFromPool(5, &test.pool);
                damage(user);
                TraceSetCallback(TraceToStdErr);
                MemFreeInternal(&user);
            },
            testing::KilledBySignal(SIGSEGV), "MEM .* Guard band corrupted");
    }
    EXPECT_EXIT((TraceSetCallback(TraceToStdErr), MemAllocateFromPool(SIZE_MAX - 2, nullptr)),
                testing::KilledBySignal(SIGSEGV), "MEM .* Unable to allocate");
}
