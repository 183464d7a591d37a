// Tests of the trace ring.
#include <cstring>
#include <random>
#include <tuple>
#include <unistd.h>

#include "fixture.h"

namespace {

constexpr fh::ModuleTracer trace{"TEST"};

TracePosition put(int32_t level, const char *text) { return trace(7, 9, level, "%s", text); }
TracePosition putText(size_t length) { return put(0, std::string(length, 'x').c_str()); }

// A walk callback that reads every byte of the record it is given.
BOOL readWhole(const TraceRecord *r, int32_t length, void *) {
    for (int32_t i = 0; i < length; ++i) (void)reinterpret_cast<const volatile char *>(r)[i];
    return TRUE;
}

using TraceTest = LibraryTest;

} // namespace

TEST_F(TraceTest, RecordsLieEndToEnd) {
    TestRing ring(1024);
    const TracePosition first = put(0, "hi");
    const TraceRecord *r = ring.at(0);
    EXPECT_TRUE(first.Offset == 0);
    EXPECT_TRUE(first.Sequence == 1);
    EXPECT_TRUE(first.Buffer == ring.buffer);
    EXPECT_TRUE(r->Previous == -1 && r->Sequence == 1 && r->Length == 48 && r->Id == 7 && r->Code == 9);
    EXPECT_EQ(std::string(r->Module, 8) + r->Text, "TEST    hi");
    EXPECT_LE(time(nullptr) - r->Time, 1);
    TracePosition previous = first;
    for (const auto &[text, length] : {std::pair{0, 48}, std::pair{8, 56}, std::pair{15, 56}, std::pair{16, 64}}) {
        const TracePosition p = putText(text);
        EXPECT_TRUE(p.Offset == previous.Offset + ring.at(previous.Offset)->Length &&
                    p.Sequence == previous.Sequence + 1 && ring.at(p.Offset)->Previous == previous.Offset);
        EXPECT_EQ(ring.at(p.Offset)->Length, length) << text;
        previous = p;
    }
    EXPECT_EQ(std::string(ring.at(fh::ModuleTracer{"CONTEXTUAL"}(1, 0, 0, ".").Offset)->Module, 8), "CONTEXTU");
}

// Suspended, above the ring's level (3) or without a format: nothing stored
// and the ring's bytes untouched. The callback sees each stored record with
// its length; what it returns does not matter.
TEST_F(TraceTest, SuppressedRecords) {
    TestRing ring(256);
    static int32_t seen = 0;
    TraceSetCallback([](const TraceRecord *, int32_t length, void *) { return seen += length, FALSE; });
    put(0, "kept");
    const std::string before(reinterpret_cast<char *>(ring.buffer), 16 + 256);
    using Case = std::tuple<int32_t, int32_t, const char *>; // suspended, level, format
    for (const auto &[suspended, level, format] : {Case{1, -1, "x"}, Case{0, 4, "x"}, Case{0, 0, nullptr}}) {
        gtLmContext.bTraceSuspended = suspended;
        const TracePosition p = trace(7, 9, level, format);
        EXPECT_TRUE(p.Offset == -1);
        EXPECT_TRUE(p.Sequence == -1);
        EXPECT_TRUE(p.Buffer == nullptr);
        EXPECT_EQ(std::string(reinterpret_cast<char *>(ring.buffer), before.size()), before);
    }
    gtLmContext.bTraceSuspended = 0;
    EXPECT_EQ(putText(30).Sequence, 2);
    EXPECT_EQ(seen, 48 + 72);
    TraceSetBuffer(nullptr);
    EXPECT_TRUE(put(-1, "x").Buffer == nullptr);
    EXPECT_TRUE(TraceSetLevel(3) == 0);
}

// Four 48-byte records in a 256-byte ring: a record that ends exactly at
// Size goes behind them; one byte more goes to 0, and the records it
// overwrites drop out of the walk. Equal records wrap again and again, and
// the walk always gives the five newest across the 16-byte gap.
TEST_F(TraceTest, WrapAndWalk) {
    TestRing ring(256);
    using Walk = std::vector<uint32_t>;
    for (const auto &[text, offset, walk] :
         {std::tuple{23, 192, Walk{5, 4, 3, 2, 1}}, std::tuple{24, 0, Walk{5, 4, 3}}}) {
        TraceSetBuffer(ring.buffer);
        for (int i = 0; i < 4; ++i) putText(7);
        EXPECT_TRUE(putText(text).Offset == offset && ring.at(offset)->Previous == 144);
        EXPECT_EQ(ring.walk(), walk);
    }
    TraceSetBuffer(ring.buffer);
    for (uint32_t n = 1; n <= 12; ++n) {
        EXPECT_EQ(putText(7).Offset, int32_t((n - 1) % 5 * 48));
        Walk newest;
        for (uint32_t s = n; s >= 1 && s + 5 > n; --s) newest.push_back(s);
        EXPECT_EQ(ring.walk(), newest);
        EXPECT_EQ(TraceOldestMessage(ring.buffer), int32_t((newest.back() - 1) % 5 * 48));
    }
}

TEST_F(TraceTest, SequenceWrapsFromTheHighestTo0) {
    TestRing ring(1024);
    gtLmContext.iTraceNextSequence = 0x3FFFFFFF;
    for (uint32_t expected : {0x3FFFFFFFu, TRACE_SEQUENCE_MAX, 0u, 1u}) {
        TracePosition p;
        EXPECT_EQ(uint32_t(put(0, "x").Sequence), expected);
        EXPECT_TRUE(TraceGetPosition(&p));
        EXPECT_TRUE(uint32_t(p.Sequence) == expected);
    }
    EXPECT_EQ(ring.walk(), (std::vector<uint32_t>{1, 0, TRACE_SEQUENCE_MAX, 0x3FFFFFFF}));
}

// The longest text is 8,151 bytes with its NUL, or what the ring can hold.
TEST_F(TraceTest, LongTextsAreCut) {
    const std::tuple<int32_t, size_t, int32_t> cases[] = {
        {TRACE_OWN_BUFFER_SIZE, 8150, 8192}, {8192, 8150, 8192}, {256, 214, 256}, {100, 54, 96}};
    for (const auto &[size, text, length] : cases) {
        TestRing ring(size);
        const TraceRecord *r = ring.at(putText(9000).Offset);
        EXPECT_TRUE(strlen(r->Text) == text && r->Length == length) << size;
    }
}

// A new ring is empty, so no reader finds a record in it, and counts from 1
// again; it takes the level of the ring it replaces, or keeps its own.
TEST_F(TraceTest, InstallingARing) {
    EXPECT_TRUE(TraceSetLevel(1) == TRACE_LEVEL_LIBVERBOSE);
    EXPECT_TRUE(TraceSetLevel(-2) == 1);
    EXPECT_TRUE(TraceSetLevel(-2) == 1);
    put(0, "old");
    TraceSetBuffer(TRACE_OWN_BUFFER);
    TracePosition p = {5, 5, nullptr};
    EXPECT_FALSE(TraceGetPosition(&p) || TraceCurrentMessage(TraceGetBuffer()) ||
                 TraceWalkBuffer(TraceGetBuffer(), readWhole, nullptr) || p.Offset != 5);
    testing::internal::CaptureStderr();
    EXPECT_EQ(TraceCurrentSequenceNumber(TraceGetBuffer()), 0xFFFFFFFFu);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Arrrggh!\n");
    EXPECT_EQ(put(0, "new").Sequence, 1);
    EXPECT_EQ(TestRing(256, 2).buffer->Level, 1);
    TraceSetBuffer(nullptr);
    EXPECT_EQ(TestRing(256, 2).buffer->Level, 2);
}

// One line per record: level digit, tag, pid, id, code, HHMMSS in UTC and
// the text cut at 400.
TEST_F(TraceTest, TextLines) {
    TestRing ring(1024);
    char pid[16];
    snprintf(pid, sizeof pid, "%04ld", static_cast<long>(getpid()));
    const std::tuple<int32_t, int32_t, std::string, std::string> cases[] = {
        {-1, 306309, std::string(500, 'y'),
         "0 TAG     :" + std::string(pid) + "   14  -5 130509 " + std::string(400, 'y')},
        {3, 1700000000, "hello", "4 TAG     :" + std::string(pid) + "   14  -5 221320 hello"}};
    for (const auto &[level, time, text, line] : cases) {
        TraceRecord *r = ring.at(fh::ModuleTracer{"TAG"}(14, -5, level, "%s", text.c_str()).Offset);
        r->Time = time;
        testing::internal::CaptureStdout();
        EXPECT_TRUE(TraceToStdOut(r, r->Length, nullptr));
        EXPECT_EQ(testing::internal::GetCapturedStdout(), line + "\n");
    }
}

// Rings with a few damaged words, or full of plausible garbage, as a reader
// in another process may find them: every walk ends, no record handed out
// reaches outside the ring, and the writer's next record lands inside it.
TEST_F(TraceTest, DamagedRings) {
    std::mt19937 random(2024);
    for (int round = 0; round < 4000; ++round) {
        const int32_t size = 64 + 8 * int32_t(random() % 64);
        TestRing ring(size);
        for (int records = int(random() % 40); records > 0; --records) putText(random() % 120);
        auto *words = reinterpret_cast<uint32_t *>(ring.buffer);
        const size_t count = (16 + size) / 4, wholly = round % 2;
        for (size_t i = 0, n = wholly ? count : 1 + random() % 4; i < n; ++i) {
            const uint32_t choice[] = {uint32_t(int32_t(random() % (size + 24)) - 16) & ~7u, uint32_t(random() % 200),
                                       uint32_t(TRACE_SEQUENCE_MAX - random() % 3), uint32_t(random())};
            words[wholly ? i : random() % count] = choice[random() % 4];
        }
        ring.buffer->Size = size, ring.buffer->Level = 0;
        TraceWalkBuffer(ring.buffer, readWhole, nullptr);
        const TracePosition p = trace(7, 9, 0, "%d", round);
        ASSERT_TRUE(p.Offset >= 0 && p.Offset % 8 == 0 && p.Offset + ring.at(p.Offset)->Length <= size);
    }
}
