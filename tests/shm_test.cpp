// Shared memory: keys from the manager's executable in a fresh home, the
// allocation index, clearing of stale segments, faults survived by the copy,
// and the attach message laying the process's entry into a segment that a
// second process reads.
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <string>

#include "fixture.h"
#include "helpers.h"
#include "messages/msgpmgr.h"

namespace {

class ShmTest : public LibraryTest {
  protected:
    // Each home has its own copy of the manager's executable, so tests that
    // run side by side get keys of their own.
    void SetUp() override {
        LibraryTest::SetUp();
        mkdir((home() + "/config").c_str(), 0755);
        mkdir((home() + "/bin").c_str(), 0755);
        testhelp::writeFile(home() + "/bin/fhpmgr", "manager");
        testhelp::writeFile(home() + "/config/programs.cfg", "[Process Manager]\nunix=bin/fhpmgr\n");
    }
    void TearDown() override {
        for (int index = 0; index < 4; ++index) {
            const int id = shmget(expectedKey(index), 0, 0);
            if (id >= 0) shmctl(id, IPC_RMID, nullptr);
        }
        LibraryTest::TearDown();
    }
    int32_t expectedKey(int32_t index) const {
        struct stat status;
        stat((home() + "/bin/fhpmgr").c_str(), &status);
        return static_cast<int32_t>(static_cast<uint32_t>(index) << 24 | (status.st_dev & 0xFF) << 16 |
                                    (status.st_ino & 0xFFFF));
    }
    // A segment under the key of index, as the manager of an earlier run
    // would have left it.
    int madeByHand(int32_t index) const {
        return shmget(expectedKey(index), 4096, IPC_CREAT | IPC_EXCL | 0777);
    }
    static bool exists(int id) {
        struct shmid_ds status;
        return shmctl(id, IPC_STAT, &status) == 0;
    }
};

TEST_F(ShmTest, KeysComeFromTheManagersExecutable) {
    const std::pair<int32_t, bool> cases[] = {{0, true}, {1, true}, {255, true}, {256, false}, {-1, false}};
    for (const auto &[index, ok] : cases) {
        int32_t key = 0x5A5A;
        EXPECT_EQ(IpcGetKey(&key, index), ok ? TRUE : FALSE) << index;
        EXPECT_EQ(key, ok ? expectedKey(index) : 0x5A5A) << index;
    }
    EXPECT_TRUE(traced("IPC     ", 1, "Failed to get IPC key (100,0)"));
}

TEST_F(ShmTest, AllocationUsesUpAnIndexOnEveryCall) {
    const int taken = madeByHand(0);
    ASSERT_GE(taken, 0);
    int32_t id = -7;
    EXPECT_FALSE(ShmAllocate(&id, 100)); // index 0 is in use
    EXPECT_EQ(id, -7);
    EXPECT_TRUE(traced("SHM     ", 8, "failed to get 100 byes of shared memory: (17) File exists"));
    ASSERT_TRUE(ShmAllocate(&id, 100)); // index 1
    struct shmid_ds status;
    ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_perm.__key, expectedKey(1));
    EXPECT_EQ(status.shm_segsz, 100u);
    EXPECT_TRUE(ShmFree(&id));
    EXPECT_EQ(id, -1);
    EXPECT_FALSE(ShmAllocate(&id, 0));

    // What is still on the list goes with the context.
    int32_t kept = -1;
    ASSERT_TRUE(ShmAllocate(&kept, 64));
    ShmReleaseThread(&gtLmContext);
    EXPECT_FALSE(exists(kept));
    EXPECT_TRUE(exists(taken));
    ASSERT_TRUE(ShmInitializeThread(&gtLmContext));
}

TEST_F(ShmTest, OnlyTheManagerClearsStaleSegmentsAndStopsAtOneInUse) {
    const int stale = madeByHand(0), inUse = madeByHand(1), later = madeByHand(2);
    ASSERT_TRUE(stale >= 0 && inUse >= 0 && later >= 0);
    void *attached = nullptr;
    ASSERT_TRUE(ShmAttach(&attached, inUse));

    gtLmContext.iProcessId = 5;
    EXPECT_TRUE(ShmInitialize());
    EXPECT_TRUE(exists(stale));

    gtLmContext.iProcessId = 1;
    EXPECT_FALSE(ShmInitialize());
    EXPECT_FALSE(exists(stale));
    EXPECT_TRUE(exists(inUse));
    EXPECT_TRUE(exists(later)); // beyond the one in use, nothing is looked at
    char text[80];
    snprintf(text, sizeof text, "ShmInitialize: Lathmere shared memory key 0x%x is in use",
             static_cast<unsigned>(expectedKey(1)));
    EXPECT_TRUE(traced("SHM     ", 7, text));

    ASSERT_TRUE(ShmDetach(&attached));
    EXPECT_EQ(attached, reinterpret_cast<void *>(-1));
    EXPECT_FALSE(ShmDetach(&attached));
    EXPECT_TRUE(ShmInitialize());
    EXPECT_FALSE(exists(inUse));
    EXPECT_FALSE(exists(later));
    gtLmContext.iProcessId = 0;
}

TEST_F(ShmTest, CopySurvivesFaultsAndPutsTheHandlerBack) {
    const SigHandler before = SigGet(SIGSEGV);
    void *unmapped = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(unmapped, MAP_FAILED);
    char into[16] = {};
    for (int round = 0; round < 2; ++round) { // a second fault must be caught too
        EXPECT_FALSE(ShmCopy(into, unmapped, 8));
        EXPECT_FALSE(ShmCopy(unmapped, "text", 4));
        EXPECT_EQ(SigGet(SIGSEGV), before);
    }
    munmap(unmapped, 4096);
    EXPECT_TRUE(ShmCopy(into, "copied", 7));
    EXPECT_STREQ(into, "copied");
}

// A main segment laid out as the manager lays it: the entry at 1024 with the
// name as title and a ring of 4096 bytes, the time area and a progress buffer.
constexpr int32_t kEntry = 1024, kTime = 8192, kProgress = 12288, kRing = 4096;

TEST_F(ShmTest, AttachPutsTraceCountersAndTitleInTheEntry) {
    int32_t main = -1;
    ASSERT_TRUE(ShmAllocate(&main, 16384));
    void *manager = nullptr;
    ASSERT_TRUE(ShmAttach(&manager, main));
    auto *base = static_cast<unsigned char *>(manager);
    strcpy(reinterpret_cast<char *>(base + kEntry), "worker");
    memcpy(base + kEntry + 104, &kRing, 4);
    const int32_t progressSize = 256;
    memcpy(base + kProgress, &progressSize, 4);

    auto *body = testhelp::newObject<PMGR_ATTACH_TO_UNIX_SHM>(PMGR_ATTACH_TO_UNIX_SHM_MAGIC,
                                                               PMGR_ATTACH_TO_UNIX_SHM_FORMAT);
    *body = {main, main, kEntry, kProgress, kTime};
    MSG_PACKET *packet = nullptr;
    ASSERT_TRUE(MsgCreatePacket(&packet, MsgLocalAddress(), MsgLocalAddress(), PMGR_ATTACH_TO_SHM_MSG, body));
    EXPECT_EQ(ProcGetProgressBuffer(), nullptr);
    ASSERT_TRUE(ProcAttachSharedMemory(packet, 0));

    unsigned char *entry = static_cast<unsigned char *>(ProcShmAddress(kEntry));
    EXPECT_STREQ(ProcName(), "worker");
    EXPECT_EQ(ProcGetProgressBuffer(), ProcShmAddress(kProgress));
    EXPECT_EQ(ProcGetKeelTimeArea(), ProcShmAddress(kTime));
    EXPECT_EQ(reinterpret_cast<unsigned char *>(TraceGetBuffer()), entry + 104);
    ProcSetTitle(std::string(100, 't').c_str());
    EXPECT_EQ(std::string(ProcTitle()), std::string(79, 't'));
    void *block = MemAllocateFromPool(32, nullptr);
    fh::ModuleTracer{"PROBE        "}(1, 0, 0, "seen from elsewhere");

    // Another process reads what this one wrote, without asking it.
    const int32_t used = gtLmContext.iMemUsed, made = gtLmContext.iMemAllocations;
    const int result = testhelp::inChild([&] {
        const auto *view = static_cast<const unsigned char *>(shmat(main, nullptr, SHM_RDONLY));
        if (view == reinterpret_cast<const void *>(-1)) return 1;
        const unsigned char *e = view + kEntry;
        int32_t counters[6];
        memcpy(counters, e + 80, sizeof counters);
        const auto *ring = reinterpret_cast<const TraceBuffer *>(e + 104);
        const auto *newest = reinterpret_cast<const TraceRecord *>(ring->Data + ring->Position);
        if (std::string(reinterpret_cast<const char *>(e)) != std::string(79, 't')) return 2;
        if (counters[0] != used || counters[2] != made || counters[1] < used) return 3;
        return std::string(newest->Text) == "seen from elsewhere" ? 0 : 4;
    });
    EXPECT_EQ(result, 0);

    MemFreeInternal(&block);
    TraceSetBuffer(TRACE_OWN_BUFFER);
    ProcSetDetails(nullptr);
    testhelp::release({packet, body});
    ShmDetach(&manager);
    void *own = ProcShmAddress(0);
    ShmDetach(&own);
    ProcSetName(nullptr);
    ShmFree(&main);
}

TEST_F(ShmTest, AttachRefusesAreasOutsideTheSegment) {
    alignas(8) unsigned char segment[16384] = {};
    memcpy(segment + kEntry + 104, &kRing, 4);
    const int32_t progressSize = 256, hugeRing = 1 << 30;
    memcpy(segment + kProgress, &progressSize, 4);
    memcpy(segment + 2048 + 104, &hugeRing, 4);
    struct Case {
        int32_t entry, progress, time;
        bool ok;
    } cases[] = {
        {kEntry, kProgress, kTime, true},   {kEntry, 0, kTime, true},
        {-8, 0, kTime, false},              {16384 - 104, 0, kTime, false}, // ring head outside
        {kEntry + 4, 0, kTime, false},      {2048, 0, kTime, false},        // ring longer than the segment
        {kEntry, 16382, kTime, false},      {kEntry, kTime, kTime, false},  // progress size word 0
        {kEntry, 0, 16384 - 12, false},     {kEntry, 0, kTime + 2, false},
    };
    for (const Case &c : cases) {
        const int32_t components[] = {0, 0, c.entry, c.progress, c.time};
        fh::AttachLayout layout{};
        EXPECT_EQ(fh::attachLayout(layout, segment, sizeof segment, components), c.ok)
            << c.entry << " " << c.progress << " " << c.time;
        if (c.ok) {
            EXPECT_EQ(layout.entry, segment + c.entry);
        }
    }
}

TEST_F(ShmTest, StatesHaveTheirTexts) {
    const std::pair<int32_t, const char *> cases[] = {
        {-2, "Invalid"}, {-1, "Unknown"}, {0, "Creating"}, {2, "Waiting for task"}, {6, "Restart Service"},
        {7, "Invalid"}};
    for (const auto &[state, text] : cases) EXPECT_STREQ(ProcProcessStateDescription(state), text) << state;
}

} // namespace
