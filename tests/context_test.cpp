// Tests of the context record and the module ladder.
#include <csignal>
#include <sys/stat.h>
#include <tuple>

#include "fixture.h"

// The first call clears the umask and makes the own ring; a second one runs
// nothing again: same ring, same records.
TEST(ContextStart, InitializeOnceThenNothing) {
    umask(022);
    EXPECT_FALSE(ContextSetThreadData(7));
    ASSERT_TRUE(ContextInitialize());
    EXPECT_EQ(umask(0), 0u);
    EXPECT_TRUE(ContextSetThreadData(7));
    EXPECT_TRUE(ContextGetThreadData() == 7);
    TraceBuffer *own = TraceGetBuffer();
    ASSERT_TRUE(own != nullptr && own->Size == TRACE_OWN_BUFFER_SIZE);
    const TracePosition kept = fh::ModuleTracer{"TEST"}(1, 0, 0, "kept");
    ASSERT_TRUE(ContextInitialize());
    TracePosition now;
    ASSERT_TRUE(TraceGetPosition(&now));
    EXPECT_TRUE(now.Buffer == own);
    EXPECT_TRUE(now.Offset == kept.Offset);
    EXPECT_TRUE(now.Sequence == kept.Sequence);
}

// A failing module prints its code alone; a further call runs the ladder
// again and, the marker being set, makes no per-context state.
TEST(ContextStart, ModuleFailureAndRetry) {
    const std::tuple<int32_t, BOOL, const char *> steps[] = {
        {395, FALSE, "395\n"}, {390, FALSE, "390\n"}, {0, TRUE, ""}};
    for (const auto &[failing, result, printed] : steps) {
        fh::contextFailInitialize(failing);
        testing::internal::CaptureStdout();
        EXPECT_EQ(ContextInitialize(), result);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), printed);
        EXPECT_EQ(ContextIsInitialized(), result);
        EXPECT_EQ(gtLmContext.pTraceOwnBuffer, nullptr) << failing;
    }
}

// A failing InitializeThread releases what the modules before it made.
TEST(ContextStart, InitializeThreadFailureReleasesEverything) {
    fh::contextFailInitializeThread(395);
    EXPECT_FALSE(ContextInitialize());
    EXPECT_TRUE(ContextIsInitialized());
    EXPECT_EQ(gtLmContext.pTraceOwnBuffer, nullptr);
    fh::contextFailInitializeThread(0);
    EXPECT_TRUE(ContextInitialize());
    EXPECT_EQ(TraceGetBuffer(), nullptr);
}

// Release runs backwards (Memory still traces into the ring that Trace frees
// after it), stops the counter copies and is not undone by ContextInitialize.
TEST_F(LibraryTest, ReleaseThreadIsFinal) {
    static std::string last;
    TraceSetCallback([](const TraceRecord *r, int32_t, void *) { return last = r->Text, TRUE; });
    unsigned char entry[128];
    gtLmContext.pProcessTableEntry = entry;
    void *block = MemAllocateFromPool(4, nullptr);
    ContextReleaseThread();
    EXPECT_EQ(last, "MemReleaseThread " + std::to_string(MemUsedCount()) + " pieces left");
    EXPECT_EQ(gtLmContext.pProcessTableEntry, nullptr);
    EXPECT_TRUE(ContextInitialize());
    EXPECT_EQ(TraceGetBuffer(), nullptr);
    MemFreeInternal(&block);
    // Every module's state went with the release; the fixture's leak check
    // counts it, so it is built again.
    EXPECT_EQ(gtLmContext.pMsgNameMap, nullptr);
    EXPECT_TRUE(ContextInitializeThread());
}

// ProcCrash(0) returns unless the crash flag is on; otherwise the process
// ends with SIGSEGV, whatever the program did to that signal.
TEST_F(LibraryTest, ProcCrash) {
    ProcCrash(0);
    const std::tuple<bool, int32_t, void (*)(int)> cases[] = {
        {true, 0, SIG_DFL}, {false, 1, SIG_DFL}, {true, 1, SIG_IGN}, {false, 1, [](int) {}}};
    for (const auto &[flag, force, disposition] : cases) {
        EXPECT_EXIT(
            {
                fh::contextSetCrashFlag(flag);
                signal(SIGSEGV, disposition);
                TraceSetCallback(TraceToStdErr);
                ProcCrash(force);
            },
            testing::KilledBySignal(SIGSEGV), "CONTEXT .* Crash program");
    }
}
