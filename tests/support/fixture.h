// fixture.h - what every test of the library shares.
//
// LibraryTest gives each test a fresh home directory (FHHOME) under a
// temporary folder and checks at teardown that the blocks in use are back
// where the test found them, and so are the objects in use, so every test
// is also a leak test.
#ifndef FHCORE_TESTS_FIXTURE_H
#define FHCORE_TESTS_FIXTURE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "core/fhcore.h"
#include "cfgcache.h"
#include "codec.h"
#include "objcore.h"
#include "proctable.h"
#include "seams.h"
#include "sizes.h"
#include "text.h"
#include "tracer.h"

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The home directory of this test.
    const std::string &home() const { return home_; }

    // The texts of the records in the current ring, oldest first.
    static std::vector<std::string> traceTexts();

    // Success when a record with this module tag, id and text is in the
    // ring; a failure names the record wanted and shows the newest records.
    static ::testing::AssertionResult traced(const char *module, int32_t id, const std::string &text);

private:
    static int32_t blocksInUse();

    std::string home_;
    int32_t memUsedAtStart_ = 0;
    int32_t objectsAtStart_ = 0;
};

// A pool of the test's own, for the error paths: its blocks arrive full of
// garbage, its Nth Allocate and every one after fails (failFrom 0: none),
// its Free answers freeResult, and keepFreed leaves freed blocks readable.
// There is one; testPool() resets it and hands it out.
struct TestPool {
    MemPool pool;
    int failFrom, allocations, frees;
    size_t lastBytes; // what the last Allocate asked for
    BOOL freeResult;
    bool keepFreed;
};
TestPool &testPool(int failFrom = 0);

// Runs body on a thread with a stack of 256 KiB, where recursion along a
// long chain would overflow; gives what body returned.
void *runInSmallStack(void *(*body)(void *));

// A trace ring of the test's own, installed while it lives. It is exactly
// 16 + size bytes, so that the sanitizer sees any access outside it.
struct TestRing {
    TraceBuffer *buffer;
    explicit TestRing(int32_t size, int32_t level = 0);
    ~TestRing();
    std::vector<uint32_t> walk() const; // the sequence numbers, newest first
    TraceRecord *at(int32_t offset) const { return reinterpret_cast<TraceRecord *>(buffer->Data + offset); }
};

#endif // FHCORE_TESTS_FIXTURE_H
