// File streams with real files and real processes: the rewrite through
// ".new" proven crash-safe under SIGKILL, the lock matrix between processes,
// the edge cases of appends, commits and cancels, and characters of the
// string layer read and written through a stream.
#include "helpers.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "syscalls.h"

namespace {

using namespace testhelp;

using FileStreamTest = LibraryTest;

constexpr int32_t kUpdate = FILE_MODE_TEXT | FILE_MODE_UPDATE;

// Version n of the file: it names its version and size and checks itself.
std::string version(uint32_t n) {
    const size_t sizes[] = {10, 5000, 9000, 70000};
    const size_t size = sizes[n % 4];
    std::string text = "version " + std::to_string(n) + " size " + std::to_string(size) + "\n";
    while (text.size() < size) text += static_cast<char>('a' + (n + text.size()) % 26);
    return text;
}
bool isAVersion(const std::string &text) {
    unsigned n = 0;
    return sscanf(text.c_str(), "version %u", &n) == 1 && text == version(n);
}

bool rewriteTo(FILE_STREAM *stream, const std::string &text) {
    return FileStreamStartRewrite(stream) && FileStreamWrite(stream, text.data(), static_cast<int32_t>(text.size())) &&
           FileStreamCloseOutput(stream);
}

TEST_F(FileStreamTest, RewriteSurvivesSigkillAtAnyMoment) {
    const std::string path = home() + "/data";
    std::ofstream(path) << version(0);
    std::mt19937 random(7);
    for (int round = 0; round < 200; ++round) {
        const pid_t writer = fork();
        if (writer == 0) {
            FILE_STREAM *stream = nullptr;
            if (!FileStreamOpen(&stream, path.c_str(), kUpdate)) _exit(1);
            for (uint32_t n = 1;; ++n) rewriteTo(stream, version(n + round * 1000));
        }
        usleep(1000 + random() % 12000);
        kill(writer, SIGKILL);
        waitpid(writer, nullptr, 0);
        ASSERT_TRUE(isAVersion(readFile(path))) << "round " << round;
    }
    // The next rewrite starts from an empty ".new", whatever a crash left there.
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), kUpdate));
    ASSERT_TRUE(FileStreamStartRewrite(stream));
    EXPECT_EQ(readFile(path + ".new"), "");
    ASSERT_TRUE(FileStreamCancelRewrite(stream));
    EXPECT_FALSE(FileExists((path + ".new").c_str()));
    FileStreamClose(&stream);
}

// TRUE when a child's open of path in mode is kept waiting while we hold ours.
bool waitsFor(const std::string &path, int32_t held, int32_t mode) {
    FILE_STREAM *ours = nullptr;
    if (!FileStreamOpen(&ours, path.c_str(), held)) return false;
    const pid_t pid = fork();
    if (pid == 0) {
        FILE_STREAM *theirs = nullptr;
        _exit(FileStreamOpen(&theirs, path.c_str(), mode) ? 0 : 1);
    }
    usleep(150 * 1000);
    const bool waiting = waitpid(pid, nullptr, WNOHANG) == 0;
    FileStreamClose(&ours);
    int status = 0;
    waitpid(pid, &status, 0);
    return waiting && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(FileStreamTest, LockMatrixBetweenProcesses) {
    const std::string path = home() + "/data";
    std::ofstream(path) << "x";
    const int32_t read = FILE_MODE_TEXT | FILE_MODE_READ, write = FILE_MODE_TEXT | FILE_MODE_WRITE,
                  append = FILE_MODE_TEXT | FILE_MODE_APPEND, shared = FILE_MODE_TEXT | FILE_MODE_UPDATE_SHARED;
    const struct {
        int32_t held, other;
        bool waits;
    } cases[] = {
        {kUpdate, read, true},     {kUpdate, kUpdate, true}, {kUpdate, shared, true}, {read, kUpdate, true},
        {shared, kUpdate, true},   {read, read, false},      {read, shared, false},   {write, append, true},
        {append, write, true},     {write, read, false},
    };
    for (const auto &c : cases) EXPECT_EQ(waitsFor(path, c.held, c.other), c.waits) << c.held << " then " << c.other;
}

// An open without a path, or whose lock file can't be made, fails with its
// trace though the file itself is readable.
TEST_F(FileStreamTest, OpensThatCannotLockOrNameNothing) {
    const std::string path = home() + "/data";
    std::ofstream(path) << "last";
    FILE_STREAM *stream = nullptr;
    EXPECT_FALSE(FileStreamOpen(&stream, "", kUpdate));
    char text[32];
    snprintf(text, sizeof text, "%p", static_cast<void *>(&stream));
    EXPECT_TRUE(traced("FILE", 40, "FileStreamOpenTags - bad args (" + std::string(text) + ", '')"));
    fh::sys().open = [](const char *p, int flags, mode_t mode) {
        return std::string(p).ends_with(".lck") ? (errno = EACCES, -1) : fh::platformCalls().open(p, flags, mode);
    };
    EXPECT_FALSE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_TEXT | FILE_MODE_READ));
    EXPECT_TRUE(traced("FILE", 41, "FileStreamOpenTags - Failed to open lock file"));
    fh::sys() = fh::platformCalls();
}

// Output starts only when asked; a rewrite keeps the old contents readable
// until it is committed, and a cancel leaves them.
TEST_F(FileStreamTest, AppendCommitAndCancel) {
    const std::string path = home() + "/data";
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), kUpdate)); // created empty
    unsigned char byte = 1;
    EXPECT_FALSE(FileStreamReadByte(stream, &byte) || byte != 0);
    EXPECT_FALSE(FileStreamWrite(stream, "x", 1)); // no output before a start
    ASSERT_TRUE(FileStreamStartAppend(stream) && FileStreamPrintF(stream, "old %d\n", 1));
    ASSERT_TRUE(FileStreamCloseOutput(stream));
    EXPECT_FALSE(FileStreamCloseOutput(stream));

    ASSERT_TRUE(FileStreamStartRewrite(stream));
    char copied[4] = {};
    int32_t count = 0;
    ASSERT_TRUE(FileStreamRead(stream, copied, 3, &count)); // the old contents stay readable
    EXPECT_EQ(std::string(copied), "old");
    ASSERT_TRUE(FileStreamWrite(stream, "new", 3) && FileStreamCloseOutput(stream));
    EXPECT_TRUE(FileStreamReadByte(stream, &byte) && byte == 'n');
    ASSERT_TRUE(FileStreamStartRewrite(stream) && FileStreamWriteByte(stream, 'z'));
    ASSERT_TRUE(FileStreamCancelRewrite(stream));
    EXPECT_FALSE(FileExists((path + ".new").c_str()));
    EXPECT_TRUE(FileStreamReadByte(stream, &byte) && byte == 'n');
    EXPECT_FALSE(FileStreamCancelRewrite(stream));
    ASSERT_TRUE(FileStreamClose(&stream));
    EXPECT_FALSE(FileStreamClose(&stream));
}

// A stream opened to read refuses output and knows its path (its seeks are
// the update stream's, below, and those past 4 GiB in the file suite).
TEST_F(FileStreamTest, AReadStreamWritesNothing) {
    const std::string path = home() + "/data";
    std::ofstream(path) << "last";
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_TEXT | FILE_MODE_READ));
    EXPECT_FALSE(FileStreamStartRewrite(stream) || FileStreamStartAppend(stream));
    const char *own = nullptr;
    ASSERT_TRUE(FileStreamGetPath(&own, stream));
    EXPECT_EQ(own, path);
    FileStreamClose(&stream);
}

// New contents that fail to reach the disk when the output closes (the file
// size limit stands in for a full disk) are not committed.
TEST_F(FileStreamTest, RewriteThatFailsToFlushIsNotCommitted) {
    const std::string path = home() + "/data";
    std::ofstream(path) << "the old contents\n";
    EXPECT_EQ(0, inChild([&] {
                  signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{64, 64};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  FILE_STREAM *stream = nullptr;
                  const std::string text(1000, 'n'); // held in the output's buffer until the close
                  return FileStreamOpen(&stream, path.c_str(), kUpdate) && FileStreamStartRewrite(stream) &&
                                 FileStreamWrite(stream, text.data(), 1000) && !FileStreamCloseOutput(stream) &&
                                 FileStreamCancelRewrite(stream) && FileStreamClose(&stream)
                             ? 0
                             : 1;
              }));
    EXPECT_EQ(readFile(path), "the old contents\n");
    EXPECT_FALSE(FileExists((path + ".new").c_str()));
}

// The system calls of a commit, in order, with the file or directory each
// one acted on.
std::vector<std::string> gCalls;
std::string pathOf(int fd) {
    char link[64], target[4096];
    snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    const ssize_t n = readlink(link, target, sizeof target - 1);
    return std::string(target, n > 0 ? static_cast<size_t>(n) : 0);
}
int recordFsync(int fd) {
    gCalls.push_back("fsync " + pathOf(fd));
    return fh::platformCalls().fsync(fd);
}
int failFsync(int) {
    errno = EIO;
    return -1;
}
int recordRename(const char *from, const char *to) {
    gCalls.push_back(std::string("rename ") + from + " " + to);
    return fh::platformCalls().rename(from, to);
}

// A commit puts the new data on the disk before the rename, and the
// directory after it; data that does not reach the disk is not committed.
TEST_F(FileStreamTest, ACommitReachesTheDiskAroundItsRename) {
    const std::string path = home() + "/data", fresh = path + ".new";
    std::ofstream(path) << "old\n";
    fh::sys().fsync = recordFsync;
    fh::sys().rename = recordRename;
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), kUpdate));
    ASSERT_TRUE(rewriteTo(stream, "new\n"));
    const std::vector<std::string> commit = {"fsync " + fresh, "rename " + fresh + " " + path, "fsync " + home()};
    EXPECT_EQ(gCalls, commit);
    gCalls.clear();
    ASSERT_TRUE(FileStreamStartRewrite(stream) && FileStreamWrite(stream, "closed\n", 7));
    EXPECT_TRUE(FileStreamClose(&stream)); // a close in the midst of a rewrite commits it the same way
    EXPECT_EQ(gCalls, commit);
    EXPECT_EQ(readFile(path), "closed\n");

    fh::sys().fsync = failFsync;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), kUpdate));
    ASSERT_TRUE(FileStreamStartRewrite(stream) && FileStreamWrite(stream, "lost\n", 5));
    EXPECT_FALSE(FileStreamCloseOutput(stream));
    EXPECT_TRUE(traced("FILE", 48, "Failed to flush '" + fresh + "' to the disk: " + strerror(EIO)));
    EXPECT_TRUE(FileStreamCancelRewrite(stream));
    EXPECT_TRUE(FileStreamClose(&stream));
    EXPECT_EQ(readFile(path), "closed\n");
    EXPECT_FALSE(FileExists(fresh.c_str()));
    fh::sys() = fh::platformCalls();
}

TEST_F(FileStreamTest, CharactersThroughAStream) {
    const std::string path = home() + "/text";
    std::ofstream(path, std::ios::binary) << "ab\x81\x41\r\n\r\nabcdef\n\xE0\x40xyz\nlast\x81";
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_BINARY | FILE_MODE_READ));
    for (const int32_t expected : {int32_t{'a'}, int32_t{'b'}, int32_t{0x8141}, int32_t{'\n'}}) { // CR dropped
        int32_t c = 0;
        ASSERT_TRUE(StrFileReadChar(stream, &c));
        ASSERT_EQ(c, expected);
    }
    char line[8];
    EXPECT_EQ(StrFileReadLine(stream, line, sizeof line), 0); // CR LF alone
    EXPECT_EQ(StrFileReadLine(stream, line, 4), 3);
    EXPECT_STREQ(line, "abc"); // the rest of the line is dropped
    EXPECT_EQ(StrFileReadLine(stream, line, 3), 2);
    EXPECT_STREQ(line, "\xE0\x40"); // a whole character, and the line closed behind it
    EXPECT_EQ(StrFileReadLine(stream, line, sizeof line), 4);
    EXPECT_STREQ(line, "last"); // no line feed; the lone lead byte at the end is dropped
    EXPECT_TRUE(traced("STRING", 10, "Failed to read byte from stream"));
    EXPECT_EQ(StrFileReadLine(stream, line, sizeof line), -1);
    FileStreamClose(&stream);

    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_BINARY | FILE_MODE_WRITE));
    ASSERT_TRUE(StrFileWriteChar(stream, 0x8141));
    ASSERT_TRUE(StrFileWriteChar(stream, 'x'));
    ASSERT_TRUE(StrFileWriteString(stream, ""));
    ASSERT_TRUE(StrFileWriteString(stream, "yz"));
    EXPECT_FALSE(StrFileWriteString(stream, nullptr));
    FileStreamClose(&stream);
    EXPECT_EQ(readFile(path), "\x81\x41xyz");
}

// The line reader against a model of its rule, on lines where a carriage
// return, a lead byte or the line feed falls at every offset around the
// 16-byte blocks and the 4096-byte buffer, with a line limit that cuts
// before, at and after them.
std::string modelLine(const std::string &text, size_t &at, size_t limit, bool &eof) {
    std::string line;
    bool full = false;
    eof = at >= text.size();
    while (at < text.size()) {
        unsigned char c = text[at++];
        if (c == '\r') continue;
        if (c == '\n') break;
        std::string character(1, static_cast<char>(c));
        if (StrIsDBCSLeadByte(c)) {
            while (at < text.size() && text[at] == '\r') ++at; // dropped here too
            if (at >= text.size()) break; // a lone lead byte at the end is lost
            character += text[at++];
        }
        full = full || line.size() + character.size() > limit;
        if (!full) line += character;
    }
    return line;
}

TEST_F(FileStreamTest, LineReaderMatchesItsRuleAtEveryOffset) {
    const std::string path = home() + "/lines";
    std::string text;
    for (size_t offset = 0; offset < 40; ++offset)
        for (const char *special : {"\r", "\x81\n", "\xE0\x41", "\x9F\r", "\x9F\r\r\n"})
            text += std::string(offset, 'p') + special + std::string(offset % 7, 'q') + "\n";
    text += std::string(5000, 'L') + "\r\n" + std::string(4095, 'M') + "\n" + std::string(4094, 'N') + "\x81\x41\n";
    text += std::string(4093, 'P') + "\x81\x41" + "tail";
    std::ofstream(path, std::ios::binary) << text;
    for (int32_t size : {4096, 17, 16, 2}) {
        FILE_STREAM *stream = nullptr;
        ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_BINARY | FILE_MODE_READ));
        std::vector<char> buffer(size);
        size_t at = 0;
        for (int n = 0;; ++n) {
            bool eof = false;
            const std::string expected = modelLine(text, at, size - 1, eof);
            const int32_t length = StrFileReadLine(stream, buffer.data(), size);
            if (eof) {
                EXPECT_EQ(length, -1);
                break;
            }
            ASSERT_EQ(std::string(buffer.data(), length), expected) << "line " << n << ", size " << size;
        }
        FileStreamClose(&stream);
    }
}

// Seeks inside the input's buffer and outside it, forward and back, after
// the end of the file and after a rewrite, all land on the right byte.
TEST_F(FileStreamTest, SeeksLandOnTheirByte) {
    const std::string path = home() + "/positions";
    std::string text;
    for (int i = 0; i < 20000; ++i) text += static_cast<char>('a' + (i * 7 + i / 26) % 26);
    std::ofstream(path, std::ios::binary) << text;
    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_TEXT | FILE_MODE_UPDATE));
    std::mt19937 random(7);
    unsigned char byte = 0;
    int32_t offset = 0;
    for (int i = 0; i < 2000; ++i) {
        const int32_t target = static_cast<int32_t>(random() % (text.size() + 1));
        ASSERT_TRUE(FileStreamSeekFromLong(stream, target));
        ASSERT_TRUE(FileStreamGetOffsetLong(&offset, stream));
        ASSERT_EQ(offset, target);
        const bool inside = target < static_cast<int32_t>(text.size());
        ASSERT_EQ(FileStreamReadByte(stream, &byte), inside) << target;
        if (inside) {
            ASSERT_EQ(byte, static_cast<unsigned char>(text[target])) << target;
        }
        if (i % 97 == 0) { // to the end of the file and past it
            FileStreamSeekEnd(stream);
            FileStreamReadByte(stream, &byte);
        }
    }
    EXPECT_FALSE(FileStreamSeekFromLong(stream, -1));
    // After a rewrite the input reads the new contents from their start.
    ASSERT_TRUE(rewriteTo(stream, "0123456789"));
    ASSERT_TRUE(FileStreamSeekFromLong(stream, 5) && FileStreamReadByte(stream, &byte));
    EXPECT_EQ(byte, '5');
    ASSERT_TRUE(FileStreamSeekStart(stream) && FileStreamReadByte(stream, &byte));
    EXPECT_EQ(byte, '0');
    FileStreamClose(&stream);
}

} // namespace
