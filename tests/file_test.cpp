// The file layer with real files in the test's home directory and real
// processes: modes and permission bits, record locks between processes,
// interrupted calls, close-on-exec, copies and moves, whole-file loads, and
// directory walks, with failing system calls through the call table.
#include "helpers.h"

#include <signal.h>
#include <sys/wait.h>

#include <fstream>
#include <set>
#include <string>

#include "syscalls.h"

namespace {

using namespace testhelp;

using FileTest = LibraryTest;

mode_t permissions(const std::string &path) {
    struct stat s {};
    stat(path.c_str(), &s);
    return s.st_mode & 07777;
}

// A child that runs body and exits with its result; the parent gets its pid.
template <typename Body> pid_t child(Body body) {
    const pid_t pid = fork();
    if (pid == 0) _exit(body() ? 0 : 1);
    return pid;
}
int exitCode(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(FileTest, ModesAndPermissionBits) {
    const std::string path = home() + "/data";
    int32_t handle = -1;
    ASSERT_TRUE(FileSysOpen(&handle, path.c_str(), FILE_MODE_TEXT | FILE_MODE_WRITE));
    int32_t count = 0;
    ASSERT_TRUE(FileSysWrite(&count, handle, "hello", 5));
    ASSERT_TRUE(FileSysClose(&handle));
    EXPECT_EQ(handle, -1);
    EXPECT_FALSE(FileSysClose(&handle));
    EXPECT_EQ(permissions(path), 0644u);
    ASSERT_TRUE(FileSysOpen(&handle, (path + ".lck").c_str(), FILE_MODE_LOCK_FILE));
    FileSysClose(&handle);
    EXPECT_EQ(permissions(path + ".lck"), 0666u);

    ASSERT_TRUE(FileSysOpen(&handle, path.c_str(), 0x207)); // unknown: read only
    EXPECT_TRUE(traced("FILESYS", 1, "Unknown File mode 519 in FileSysOpen"));
    EXPECT_FALSE(FileSysWrite(&count, handle, "x", 1));
    EXPECT_EQ(errno, EBADF); // left as the call set it
    EXPECT_TRUE(traced("FILESYS", 13, "Failed to write: Bad file descriptor"));
    int64_t offset = 0; // sizes and offsets as such: past 4 GiB, below
    ASSERT_TRUE(FileSysSeekEnd(handle) && FileSysSkip(handle, -2) && FileSysGetOffset(&offset, handle));
    EXPECT_EQ(offset, 3);
    FileSysClose(&handle);

    FILE *stream = nullptr;
    EXPECT_FALSE(FileSysFOpen(&stream, path.c_str(), FILE_MODE_READ)); // the kind is needed
    EXPECT_TRUE(traced("FILESYS", 7, "Unknown file mode in FileSysFOpen 1"));
    ASSERT_TRUE(FileSysFOpen(&stream, path.c_str(), FILE_MODE_BINARY | FILE_MODE_APPEND));
    ASSERT_TRUE(FileSysFWrite(stream, " world", 6));
    ASSERT_TRUE(FileSysFClose(&stream));
    EXPECT_EQ(readFile(path), "hello world");
    EXPECT_FALSE(FileExists(home().c_str())); // a directory
    EXPECT_TRUE(FileExists(path.c_str()));
    chmod(path.c_str(), 0444);
    EXPECT_TRUE(FileIsReadOnly(path.c_str()));
    EXPECT_FALSE(FileLockSet(0, 124));
}

TEST_F(FileTest, RecordLocksBetweenProcesses) {
    const std::string path = home() + "/locked";
    writeFile(path, "x");
    int32_t handle = -1;
    ASSERT_TRUE(FileSysOpen(&handle, path.c_str(), FILE_MODE_UPDATE));
    ASSERT_TRUE(FileLockSet(handle, FILE_LOCK_SHARED));
    auto tryLock = [&](int32_t kind) {
        return child([&] {
            int32_t h = -1;
            return FileSysOpen(&h, path.c_str(), FILE_MODE_UPDATE) && FileLockSetNoWait(h, kind);
        });
    };
    EXPECT_EQ(exitCode(tryLock(FILE_LOCK_SHARED)), 0);    // shared admits shared
    EXPECT_EQ(exitCode(tryLock(FILE_LOCK_EXCLUSIVE)), 1); // but not exclusive, and at once
    // A waiting exclusive lock gets it when the holder dies.
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = child([&] {
        int32_t h = -1;
        FileSysOpen(&h, path.c_str(), FILE_MODE_UPDATE);
        FileLockSet(h, FILE_LOCK_EXCLUSIVE);
        return ::write(ready[1], "!", 1) == 1 && pause() == 0;
    });
    FileSysClose(&handle); // our lock goes with the handle
    char signal = 0;
    ASSERT_EQ(::read(ready[0], &signal, 1), 1);
    const auto started = std::chrono::steady_clock::now();
    const pid_t waiter = child([&] {
        int32_t h = -1;
        return FileSysOpen(&h, path.c_str(), FILE_MODE_UPDATE) && FileLockSet(h, FILE_LOCK_EXCLUSIVE);
    });
    usleep(200 * 1000);
    kill(holder, SIGKILL);
    EXPECT_EQ(exitCode(waiter), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));
    exitCode(holder);

    // A writer replaces the file by renaming its ".new"; a reader waits for it.
    int32_t writer = -1, count = 0;
    ASSERT_TRUE(FileSysOpenLocked(&writer, path.c_str(), FILE_MODE_WRITE));
    EXPECT_FALSE(FileExists((path + ".new").c_str()));
    int32_t size = -1;
    EXPECT_TRUE(FileSize(&size, path.c_str()));
    EXPECT_TRUE(size == 0);  // (opening the file here would drop our lock)
    const pid_t reader = child([&] {
        int32_t h = -1;
        char byte = 0;
        return FileSysOpenLocked(&h, path.c_str(), FILE_MODE_READ) && ::read(h, &byte, 1) == 1 && byte == 'n';
    });
    usleep(100 * 1000);
    ASSERT_TRUE(FileSysWrite(&count, writer, "new", 3));
    FileSysClose(&writer);
    EXPECT_EQ(exitCode(reader), 0);
    EXPECT_FALSE(FileSysOpenLocked(&writer, path.c_str(), FILE_MODE_UPDATE));
}

TEST_F(FileTest, InterruptedCallsGoOn) {
    const std::string path = home() + "/fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    struct sigaction action {};
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr); // no SA_RESTART: the read returns EINTR
    const pid_t parent = getpid();
    const pid_t writer = child([&] {
        int fd = open(path.c_str(), O_WRONLY);
        usleep(100 * 1000);
        kill(parent, SIGUSR1);
        usleep(100 * 1000);
        return ::write(fd, "late", 4) == 4;
    });
    int32_t handle = -1, count = 0;
    char buffer[8] = {};
    ASSERT_TRUE(FileSysOpen(&handle, path.c_str(), FILE_MODE_READ));
    EXPECT_TRUE(FileSysRead(&count, handle, buffer, 4));
    EXPECT_EQ(std::string(buffer, count), "late");
    FileSysClose(&handle);
    EXPECT_EQ(exitCode(writer), 0);
    signal(SIGUSR1, SIG_DFL);
}

// The number of descriptors a program started by exec finds open.
int descriptorsAfterExec(const std::string &listing) {
    const std::string command = "ls /proc/self/fd | wc -l > " + listing;
    const pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), static_cast<char *>(nullptr));
        _exit(127);
    }
    return exitCode(pid) == 0 ? std::stoi(readFile(listing)) : -1;
}

TEST_F(FileTest, NoHandleSurvivesExec) {
    const std::string path = home() + "/open", listing = home() + "/fds";
    const int before = descriptorsAfterExec(listing);
    ASSERT_GT(before, 0);
    int32_t plain = -1, locked = -1;
    FILE *stream = nullptr;
    ASSERT_TRUE(FileSysOpen(&plain, path.c_str(), FILE_MODE_WRITE));
    ASSERT_TRUE(FileSysOpenLocked(&locked, path.c_str(), FILE_MODE_WRITE));
    ASSERT_TRUE(FileSysFOpen(&stream, path.c_str(), FILE_MODE_TEXT | FILE_MODE_READ));
    EXPECT_EQ(descriptorsAfterExec(listing), before);
    FileSysClose(&plain);
    FileSysClose(&locked);
    FileSysFClose(&stream);
}

// A file past 4 GiB (sparse, so it costs one block): a handle seeks there
// and reports offset and size whole, its status reports the size, and a
// stream opens it and comes back to a position there, on every word width.
TEST_F(FileTest, OffsetsAndSizesPast4GiB) {
    const std::string path = home() + "/large";
    constexpr int64_t kGiB = int64_t{1} << 30, kLast = 5 * kGiB + 3;
    int32_t handle = -1, count = 0;
    ASSERT_TRUE(FileSysOpen(&handle, path.c_str(), FILE_MODE_BINARY | FILE_MODE_WRITE));
    ASSERT_TRUE(FileSysSeek(handle, kLast));
    ASSERT_TRUE(FileSysWrite(&count, handle, "z", 1));
    int64_t offset = 0, size = 0;
    EXPECT_TRUE(FileSysGetOffset(&offset, handle));
    EXPECT_EQ(offset, kLast + 1);
    EXPECT_TRUE(FileSysSize(&size, handle));
    EXPECT_EQ(size, kLast + 1);
    ASSERT_TRUE(FileSysSeekRelative(handle, -4 * kGiB));
    EXPECT_TRUE(FileSysGetOffset(&offset, handle));
    EXPECT_EQ(offset, kLast + 1 - 4 * kGiB);
    FileSysClose(&handle);
    SYS_STAT status{};
    ASSERT_TRUE(FileStat(&status, path.c_str(), 1));
    EXPECT_EQ(status.size, kLast + 1);

    FILE_STREAM *stream = nullptr;
    ASSERT_TRUE(FileStreamOpen(&stream, path.c_str(), FILE_MODE_BINARY | FILE_MODE_READ));
    fpos_t end{};
    unsigned char byte = 0;
    ASSERT_TRUE(FileStreamSeekEnd(stream));
    ASSERT_TRUE(FileStreamGetOffset(&end, stream));
    ASSERT_TRUE(FileStreamSeekStart(stream));
    ASSERT_TRUE(FileStreamSeek(stream, end));
    ASSERT_TRUE(FileStreamSeekRelative(stream, -1));
    ASSERT_TRUE(FileStreamReadByte(stream, &byte));
    EXPECT_EQ(byte, 'z');
    FileStreamClose(&stream);
}

TEST_F(FileTest, CopiesMovesLoadsAndMatches) {
    const std::string a = home() + "/a", b = home() + "/b";
    mkdir(a.c_str(), 0755);
    mkdir(b.c_str(), 0755);
    std::string big(3 * 32768 + 17, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
    for (const std::string &bytes : {std::string(), std::string(65536, 'z'), big}) {
        writeFile(a + "/src", bytes);
        chmod((a + "/src").c_str(), 0600);
        ASSERT_TRUE(FileCopy((a + "/src").c_str(), (b + "/copy").c_str()));
        EXPECT_EQ(readFile(b + "/copy"), bytes);
        EXPECT_EQ(permissions(b + "/copy"), 0644u);
        EXPECT_TRUE(FilesMatch((a + "/src").c_str(), (b + "/copy").c_str()));
        ASSERT_TRUE(FileRenameAndMove((b + "/copy").c_str(), (a + "/src").c_str())); // onto an existing file
        EXPECT_FALSE(FileExists((b + "/copy").c_str()));
        char *text = nullptr;
        ASSERT_TRUE(LoadTextFile(&text, (a + "/src").c_str()));
        EXPECT_EQ(memcmp(text, bytes.data(), bytes.size()), 0);
        EXPECT_EQ(text[bytes.size()], '\0');
        MemFreeInternal(&text);
    }
    writeFile(b + "/other", std::string(big.size(), 'q'));
    EXPECT_FALSE(FilesMatch((a + "/src").c_str(), (b + "/other").c_str()));
    ASSERT_TRUE(FileCopyMoveAppendInternal((b + "/other").c_str(), (a + "/src").c_str(), TRUE, TRUE));
    EXPECT_EQ(readFile(b + "/other").size(), 2 * big.size());
    EXPECT_FALSE(FileExists((a + "/src").c_str()));
    EXPECT_FALSE(FileSaveText("x", 0, (b + "/other").c_str()));
    EXPECT_TRUE(traced("FILEWRAP", 1, "FileSaveText - bad params."));
    ASSERT_TRUE(FileSaveBinary("abc", 3, (b + "/other").c_str()));
    void *bytes = nullptr;
    int32_t size = 0;
    ASSERT_TRUE(LoadBinaryFile(&bytes, &size, (b + "/other").c_str()));
    EXPECT_EQ(std::string(static_cast<char *>(bytes), size), "abc");
    MemFreeInternal(&bytes);

    // A file that shrinks between its size and its read is not loaded.
    fh::sys().stat = [](const char *p, struct stat *st) {
        const int r = fh::platformCalls().stat(p, st);
        st->st_size += 10;
        return r;
    };
    EXPECT_FALSE(LoadBinaryFile(&bytes, &size, (b + "/other").c_str()));
    EXPECT_TRUE(traced("FILEWRAP", 5, "LoadBinaryFile - failed to read contents of file '" + b + "/other'"));
    fh::sys() = fh::platformCalls();

    // A write that fails halfway: the copy fails, nothing leaks.
    fh::sys().write = [](int, const void *, size_t) -> ssize_t { return errno = ENOSPC, -1; };
    writeFile(a + "/src", big);
    EXPECT_FALSE(FileCopy((a + "/src").c_str(), (b + "/copy").c_str()));
    EXPECT_TRUE(traced("FILESYS", 13, "Failed to write: No space left on device"));
    fh::sys().rename = [](const char *, const char *) { return errno = EXDEV, -1; };
    fh::sys().write = fh::platformCalls().write;
    ASSERT_TRUE(FileRenameAndMove((a + "/src").c_str(), (b + "/moved").c_str()));
    EXPECT_TRUE(traced("FILE", 4, "Try copy+delete instead of simple move"));
    EXPECT_EQ(readFile(b + "/moved"), big);
    fh::sys() = fh::platformCalls();
}

struct Seen {
    std::multiset<std::string> entries;
    std::string stopAt;
};
BOOL note(const char *directory, const char *entry, void *user) {
    auto &seen = *static_cast<Seen *>(user);
    seen.entries.insert(std::string(directory) + "|" + entry);
    return seen.stopAt != entry;
}

TEST_F(FileTest, DirectoryWalks) {
    const std::string root = home() + "/tree";
    for (const char *dir : {"", "/a", "/a/b", "/c"}) mkdir((root + dir).c_str(), 0755);
    for (const char *file : {"/f", "/a/g", "/a/b/h"}) writeFile(root + file, "x");
    Seen seen;
    EXPECT_EQ(DirScanDirectRecursive(root.c_str(), note, &seen, TRUE), 1);
    EXPECT_EQ(seen.entries, (std::multiset<std::string>{"|f", "|a", "|c", "a/|g", "a/|b", "a/b/|h"}));
    seen = {{}, "b"};
    EXPECT_EQ(DirScanDirectRecursive(root.c_str(), note, &seen, FALSE), 2);
    EXPECT_TRUE(seen.entries.count(root + "/a/|b") == 1);
    EXPECT_TRUE(seen.entries.count(root + "/a/b/|h") == 0);

    // A directory that can't be read stops the walk with 0.
    static std::string refused;
    refused = root + "/a/";
    fh::sys().opendir = [](const char *path) -> DIR * {
        return refused == path ? (errno = EACCES, nullptr) : fh::platformCalls().opendir(path);
    };
    seen = {};
    EXPECT_EQ(DirScanDirectRecursive(root.c_str(), note, &seen, TRUE), 0);
    EXPECT_TRUE(traced("DIRSCAN", 5, "Error when scanning directory '" + refused + "'"));
    fh::sys() = fh::platformCalls();

    // DirScan calls back after reading: a callback may delete its entry.
    auto remove = [](const char *directory, const char *entry, void *) -> BOOL {
        return FileDelete((std::string(directory) + "/" + entry).c_str()) || FileIsDir((std::string(directory) + "/" + entry).c_str());
    };
    EXPECT_TRUE(DirScan(root.c_str(), remove, nullptr));
    EXPECT_FALSE(FileExists((root + "/f").c_str()));
    int64_t sum = 0;
    ASSERT_TRUE(DirGetContentsSize(&sum, (root + "/a").c_str()));
    EXPECT_GE(sum, 1);
    EXPECT_TRUE(DirScan((root + "/c").c_str(), note, nullptr)); // empty: no callback
}

} // namespace
