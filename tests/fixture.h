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
#include "internal.h"

class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // The home directory of this test.
    const std::string &home() const { return home_; }

    // The texts of the records in the current ring, oldest first.
    static std::vector<std::string> traceTexts();

    // TRUE when a record with this module tag, id and text is in the ring.
    static bool traced(const char *module, int32_t id, const std::string &text);

private:
    static int32_t blocksInUse();

    std::string home_;
    int32_t memUsedAtStart_ = 0;
    int32_t objectsAtStart_ = 0;
};

#endif // FHCORE_TESTS_FIXTURE_H
