// The system module: sizes as text, the machine name from the platform and
// the configuration, environment variables, file size limits in child
// processes, free disk space on real and made-up file systems, sleeping
// through a signal, and file status objects.
#include "helpers.h"

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <fstream>
#include <string>

#include "syscalls.h"

namespace {

using SysTest = LibraryTest;
using testhelp::inChild; // exit code 77: "can't be tested here"

std::string text(BOOL (*convert)(char **, int64_t), int64_t value) {
    char *out = nullptr;
    return convert(&out, value) ? testhelp::taken(out) : "<FALSE>";
}
BOOL narrow(char **out, int64_t value) { return SysIntegerToUnitString(out, static_cast<int32_t>(value)); }

TEST_F(SysTest, SizesRoundUpInTheirUnit) {
    const struct {
        int64_t value;
        const char *wide, *narrow;
    } cases[] = {
        {0, "0 bytes", "0 bytes"}, {10239, "10239 bytes", "10239 bytes"}, {10240, "10 Kbytes", "10 Kbytes"},
        {10241, "11 Kbytes", "11 Kbytes"}, {10485759, "10240 Kbytes", "10240 Kbytes"},
        {10485760, "10 Mbytes", "10 Mbytes"}, {10485761, "11 Mbytes", "11 Mbytes"}, {-5, "-5 bytes", "-5 bytes"},
        {-20000000, "-20000000 bytes", "-20000000 bytes"}, {INT32_MAX, "2048 Mbytes", "2048 Mbytes"},
        {int64_t{1} << 32, "4096 Mbytes", "0 bytes"}, // the narrow form sees the low word
        {(int64_t{1} << 32) + 5, "4097 Mbytes", "5 bytes"}, {INT64_MAX, "8796093022208 Mbytes", "-1 bytes"},
        {INT64_MIN, "-9223372036854775808 bytes", "0 bytes"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(text(SysInt64ToUnitString, c.value), c.wide) << c.value;
        EXPECT_EQ(text(narrow, c.value), c.narrow) << c.value;
    }
    EXPECT_FALSE(SysInt64ToUnitString(nullptr, 1));
    EXPECT_FALSE(SysIntegerToUnitString(nullptr, 1));
    EXPECT_EQ(SysConvertToMegs((int64_t{3} << 20) + 5), 3u);
    EXPECT_EQ(SysConvertToMegs(int64_t{5000} << 20), 5000u);
}

TEST_F(SysTest, UnpackReadsLeastSignificantFirst) {
    const unsigned char one[8] = {1, 0, 0, 0, 0, 0, 0, 0}, mixed[8] = {1, 2, 3, 4, 5, 6, 7, 8},
                        top[8] = {0, 0, 0, 0, 0, 0, 0, 0x80};
    EXPECT_EQ(SysUnpackInt64(one), 1);
    EXPECT_EQ(SysUnpackInt64(mixed), 0x0807060504030201);
    EXPECT_EQ(SysUnpackInt64(top), INT64_MIN);
    EXPECT_EQ(SysUnpackInt64(nullptr), 0);
}

// The node name that the platform call of the table gives, and how often
// it was asked.
std::string gNode;
int gNodeCalls = 0;
bool gSetDuringLookup = false;

int fakeNodeName(char *name, size_t size) {
    ++gNodeCalls;
    if (gSetDuringLookup) SysSetLocalMachineName("set-meanwhile");
    if (gNode.empty()) return errno = EFAULT, -1;
    snprintf(name, size, "%s", gNode.c_str());
    return 0;
}

TEST_F(SysTest, MachineNameIsTheNodeNameCutTo63UnlessConfigured) {
    const std::string seventy(70, 'n'), sixtyFour(64, 's');
    const struct {
        std::string node, configured;
        bool setDuringLookup;
        const char *expected; // null: no name
    } cases[] = {
        {seventy, "", false, nullptr}, {sixtyFour, "", false, nullptr}, {"short", "", false, "short"},
        {seventy, "cfgname", false, "cfgname"}, {"", "cfgname", false, "cfgname"}, {"", "", false, nullptr},
        {seventy, "cfgname", true, "set-meanwhile"},
    };
    const std::string file = home() + "/config/configure.cfg";
    mkdir((home() + "/config").c_str(), 0755);
    fh::sys().gethostname = fakeNodeName;
    for (const auto &c : cases) {
        gNode = c.node;
        gSetDuringLookup = c.setDuringLookup;
        std::ofstream(file) << (c.configured.empty() ? "[Other]\nName=x\n" : "[Machine]\nName=" + c.configured + "\n");
        fh::sysForgetMachineName();
        const char *name = SysLocalMachineName();
        const std::string expected = c.expected != nullptr ? c.expected : c.node.substr(0, 63);
        if (c.expected == nullptr && c.node.empty())
            EXPECT_EQ(name, nullptr);
        else
            EXPECT_STREQ(name, expected.c_str()) << c.node << " / " << c.configured;
    }
    // Looked up once: later calls neither ask the platform nor read the file.
    gSetDuringLookup = false;
    gNode = "first";
    fh::sysForgetMachineName();
    std::ofstream(file) << "";
    EXPECT_STREQ(SysLocalMachineName(), "first");
    gNode = "second";
    const int calls = gNodeCalls;
    EXPECT_STREQ(SysLocalMachineName(), "first");
    EXPECT_EQ(gNodeCalls, calls);
    EXPECT_TRUE(traced("SYSTEM", 1, "Get machine name"));
    EXPECT_FALSE(SysSetLocalMachineName(nullptr));
    EXPECT_TRUE(SysSetLocalMachineName("other"));
    EXPECT_STREQ(SysLocalMachineName(), "other");
    fh::sys() = fh::platformCalls();
    fh::sysForgetMachineName();
    SysLocalMachineName(); // as the start-up of messaging left it
}

// The longest node name Linux allows, set in a UTS namespace of a child.
TEST_F(SysTest, RealNodeNameOf64CharactersGives63) {
    const std::string sixtyFour(64, 'u');
    const int result = inChild([&] {
        if (unshare(CLONE_NEWUTS) != 0 || sethostname(sixtyFour.c_str(), sixtyFour.size()) != 0) return 77;
        fh::sysForgetMachineName(); // the start-up of messaging asked before
        const char *name = SysLocalMachineName();
        return name != nullptr && std::string(name) == sixtyFour.substr(0, 63) ? 0 : 1;
    });
    if (result == 77) GTEST_SKIP() << "no UTS namespace for this test";
    EXPECT_EQ(result, 0);
}

// Takes back the block that SysSetEnvString handed to the environment.
void reclaim(const char *name) {
    char *entry = getenv(name) - strlen(name) - 1;
    unsetenv(name);
    MemFreeInternal(&entry);
}

TEST_F(SysTest, EnvironmentKeepsTheStringItIsGiven) {
    const int32_t before = MemUsedCount();
    ASSERT_TRUE(SysSetEnvString("FHCORE_SYS_TEST", "v1"));
    EXPECT_EQ(MemUsedCount(), before + 1) << "putenv keeps the block";
    char *value = nullptr;
    ASSERT_TRUE(SysGetEnvString(&value, "FHCORE_SYS_TEST"));
    EXPECT_STREQ(value, "v1");
    MemFreeInternal(&value);
    reclaim("FHCORE_SYS_TEST");

    const struct {
        const char *set; // null: unset
        BOOL result;
        int32_t value;
    } integers[] = {{"-42", TRUE, -42}, {" 17", TRUE, 17}, {"12x", FALSE, 0}, {"", FALSE, 0}, {nullptr, FALSE, 99}};
    for (const auto &c : integers) {
        if (c.set != nullptr) {
            ASSERT_TRUE(SysSetEnvString("FHCORE_SYS_INT", c.set));
        }
        int32_t out = 99;
        EXPECT_EQ(SysGetEnvInteger(&out, "FHCORE_SYS_INT"), c.result) << c.set;
        EXPECT_EQ(out, c.value) << c.set;
        if (c.set != nullptr) reclaim("FHCORE_SYS_INT");
    }
    ASSERT_TRUE(SysSetEnvInteger("FHCORE_SYS_INT", -7));
    EXPECT_STREQ(getenv("FHCORE_SYS_INT"), "-7");
    reclaim("FHCORE_SYS_INT");
    EXPECT_FALSE(SysGetEnvString(&value, "FHCORE_SYS_INT"));
    EXPECT_EQ(value, nullptr);

    // Refused names and a failing putenv keep no block.
    for (const char *bad : {static_cast<const char *>(nullptr), "", "A=B"}) EXPECT_FALSE(SysSetEnvString(bad, "x"));
    fh::sys().putenv = [](char *) { return errno = ENOMEM, -1; };
    EXPECT_FALSE(SysSetEnvString("FHCORE_SYS_TEST", "v2"));
    fh::sys() = fh::platformCalls();
    EXPECT_EQ(getenv("FHCORE_SYS_TEST"), nullptr);
    EXPECT_EQ(MemUsedCount(), before);
}

bool fileSizeLimits(rlim_t soft, rlim_t hard) {
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur == soft && limit.rlim_max == hard;
}
bool setFileSizeLimits(rlim_t soft, rlim_t hard) {
    const rlimit limit{soft, hard};
    return setrlimit(RLIMIT_FSIZE, &limit) == 0;
}

// Each case in a child. Once lowered, the hard limit can only be raised
// with privilege.
const rlim_t kMega = 1 << 20;

TEST_F(SysTest, SoftFileSizeLimitIsLiftedUpToTheHardOne) {
    EXPECT_EQ(0, inChild([&] {
                  if (!setFileSizeLimits(kMega, RLIM_INFINITY) || SysSetLimits() != 0) return 1;
                  return fileSizeLimits(RLIM_INFINITY, RLIM_INFINITY) ? 0 : 2;
              }));
    EXPECT_EQ(0, inChild([&] {
                  if (!setFileSizeLimits(kMega, 2 * kMega) || SysSetLimits() != -1) return 1;
                  return fileSizeLimits(kMega, 2 * kMega) ? 0 : 2;
              }));
    // Without privilege (dropped here if the test has it) the hard limit
    // stays, and so does the soft one; the creation mask is cleared anyway.
    EXPECT_EQ(0, inChild([&] {
                  if (!setFileSizeLimits(kMega, 2 * kMega)) return 1;
                  rlim_t hard = 2 * kMega;
                  if (setFileSizeLimits(kMega, 4 * kMega) && (hard = 4 * kMega, setuid(65534) != 0)) return 2;
                  umask(022);
                  if (SysMaxFileLimit() || umask(0) != 0) return 3;
                  return fileSizeLimits(kMega, hard) ? 0 : 4;
              }));
}

TEST_F(SysTest, HardFileSizeLimitIsLiftedWithPrivilege) {
    const int result = inChild([&] {
        if (!setFileSizeLimits(kMega, 2 * kMega)) return 1;
        if (!setFileSizeLimits(kMega, 4 * kMega)) return 77;
        umask(022);
        if (!SysMaxFileLimit() || umask(0) != 0) return 2;
        return fileSizeLimits(RLIM_INFINITY, RLIM_INFINITY) ? 0 : 3;
    });
    if (result == 77) GTEST_SKIP() << "raising the hard limit needs privilege";
    EXPECT_EQ(result, 0);
}

struct statvfs gFakeStatus;
int fakeStatvfs(const char *, struct statvfs *status) {
    *status = gFakeStatus;
    return 0;
}

TEST_F(SysTest, DiskFreeSpaceOnRealAndSmallFileSystems) {
    int64_t bytes = -1;
    int32_t percent = -1;
    ASSERT_TRUE(SysGetDiskFreeSpace(&bytes, &percent, home().c_str()));
    EXPECT_GT(bytes, 0);
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
    EXPECT_TRUE(SysGetDiskFreeSpace(nullptr, nullptr, home().c_str()));
    // A pseudo file system has no blocks: 0 %, nothing divided by zero.
    ASSERT_TRUE(SysGetDiskFreeSpace(&bytes, &percent, "/proc"));
    EXPECT_EQ(percent, 0);

    const std::string missing = home() + "/missing";
    bytes = 5;
    EXPECT_FALSE(SysGetDiskFreeSpace(&bytes, nullptr, missing.c_str()));
    EXPECT_FALSE(SysGetDiskFreeSpace(nullptr, nullptr, missing.c_str()));
    EXPECT_EQ(bytes, 5);
    EXPECT_TRUE(traced("SYSTEM", 19, "SysGetDiskFreeSpace(): failed to statvfs " + missing));

    const struct {
        unsigned long blockSize, fragmentSize;
        fsblkcnt_t total, free;
        int64_t bytes;
        int32_t percent;
    } cases[] = {
        {4096, 1024, 1000, 250, 256000, 25},
        {4096, 0, 1000, 250, 1024000, 25},
        {512, 512, 50, 25, 12800, 50},
        {512, 512, 1, 1, 512, 100},
        {512, 512, 0, 0, 0, 0},
        {512, 512, 150, 150, 76800, 100},
        {512, 512, 12345, 0, 0, 0},
    };
    fh::sys().statvfs = fakeStatvfs;
    for (const auto &c : cases) {
        memset(&gFakeStatus, 0, sizeof gFakeStatus);
        gFakeStatus.f_bsize = c.blockSize;
        gFakeStatus.f_frsize = c.fragmentSize;
        gFakeStatus.f_blocks = c.total;
        gFakeStatus.f_bfree = c.free;
        ASSERT_TRUE(SysGetDiskFreeSpace(&bytes, &percent, "/any"));
        EXPECT_EQ(bytes, c.bytes) << c.total;
        EXPECT_EQ(percent, c.percent) << c.total;
    }
    fh::sys() = fh::platformCalls();
}

TEST_F(SysTest, SleepEndsOnAHandledSignal) {
    EXPECT_TRUE(SysSleep(0));
    SigHandler old = SigSet(SIGALRM, [](int) {});
    itimerval shortly{{0, 0}, {0, 100 * 1000}};
    setitimer(ITIMER_REAL, &shortly, nullptr);
    timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    EXPECT_FALSE(SysSleep(20));
    clock_gettime(CLOCK_MONOTONIC, &end);
    EXPECT_LT(end.tv_sec - start.tv_sec, 5) << "the signal did not end the sleep";
    SigSet(SIGALRM, old);
}

TEST_F(SysTest, StatWithoutOutMakesNoObject) {
    const int32_t objects = ObjCount();
    EXPECT_TRUE(SysStat(home().c_str(), nullptr, 1));
    EXPECT_FALSE(SysStat((home() + "/missing").c_str(), nullptr, 1));
    EXPECT_EQ(ObjCount(), objects);
}

} // namespace
