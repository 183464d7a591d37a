// Paths: the home directory and its registry file, building and taking
// apart (with double-byte characters whose trail byte is "/"), component
// lists, recursive removal that never follows a link out of the tree, the
// directory lock between processes, and the mount table.
#include "helpers.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace testhelp;

using PathTest = LibraryTest;

std::vector<std::string> items(const LIST *list) {
    std::vector<std::string> out;
    for (const LISTNODE *n = list->oFirst; n != nullptr; n = n->oNext) out.push_back(ObjGetString(n->oItem));
    return out;
}

TEST_F(PathTest, HomeDirectoryFromEnvironmentRegistryOrDefault) {
    char *home = nullptr;
    ASSERT_TRUE(PathGetHomeDir(&home));
    EXPECT_EQ(taken(home), this->home());
    EXPECT_EQ(taken(PathHomeBuild("/x", "y", static_cast<char *>(nullptr))), this->home() + "/x/y");

    const std::string registry = this->home() + "/registry";
    fh::pathRegistryFile(registry.c_str());
    unsetenv("FHHOME");
    ASSERT_TRUE(PathInitialize()); // no registry file: the default
    EXPECT_EQ(taken(PathHomeBuild(static_cast<char *>(nullptr))), "/usr/fernhaven");
    EXPECT_FALSE(PathGetRegisteredHomeDir(&home));
    std::ofstream(registry) << "/opt/fh home\nsecond line\n";
    ASSERT_TRUE(PathInitialize());
    ASSERT_TRUE(PathGetRegisteredHomeDir(&home));
    EXPECT_EQ(taken(home), "/opt/fh home");
    std::ofstream(registry) << "\n/not/this\n"; // an empty first line registers nothing
    EXPECT_FALSE(PathGetRegisteredHomeDir(&home));
    fh::pathRegistryFile(nullptr);
    setenv("FHHOME", this->home().c_str(), 1);
    PathInitialize();
}

TEST_F(PathTest, BuildingAndTakingApart) {
    EXPECT_EQ(taken(PathBuild("/usr/", "lib", static_cast<char *>(nullptr))), "/usr/lib");
    EXPECT_EQ(taken(PathBuild("/usr", "/lib", static_cast<char *>(nullptr))), "/usr//lib");
    EXPECT_EQ(taken(PathBuild(static_cast<char *>(nullptr))), "");
    EXPECT_EQ(taken(PathBuild("", "a", static_cast<char *>(nullptr))), "a");
    // The trail byte of \x81/ is a "/" byte, not a separator.
    EXPECT_EQ(taken(PathBuild("a\x81/", "b", static_cast<char *>(nullptr))), "a\x81//b");
    EXPECT_EQ(taken(PathSplit("dir/a\x81/")), "dir");
    EXPECT_EQ(taken(PathSplit("/etc")), "");
    EXPECT_EQ(taken(PathSplit("/a/b")), "/a");
    EXPECT_EQ(PathSplit(nullptr), nullptr);
    char *leaf = nullptr;
    ASSERT_TRUE(PathLeaf(&leaf, "dir/a\x81/"));
    EXPECT_EQ(taken(leaf), "a\x81/");
    ASSERT_TRUE(PathLeaf(&leaf, "bare"));
    EXPECT_EQ(taken(leaf), "bare");
    EXPECT_FALSE(PathLastComponent(&leaf, "bare"));
    ASSERT_TRUE(PathLastComponent(&leaf, "a/"));
    EXPECT_EQ(taken(leaf), "");

    for (const auto &[path, descending] : std::vector<std::pair<const char *, bool>>{
             {"a..b/c", true}, {"...", true}, {"..", false}, {"../a", false}, {"a/..", false}, {"a/../b", false}})
        EXPECT_EQ(PathIsDescending(path), descending) << path;

    const std::vector<std::pair<const char *, std::vector<std::string>>> lists = {
        {"a/b/", {"a", "b"}}, {"/", {"/"}}, {"", {}}, {"/x/\x81/y", {"/", "x", "\x81/y"}}};
    for (const auto &[path, expected] : lists) {
        LIST *list = nullptr;
        ASSERT_TRUE(PathToComponentList(&list, path)) << path;
        EXPECT_EQ(items(list), expected) << path;
        char *back = nullptr;
        ASSERT_TRUE(PathFromComponentList(&back, list));
        if (std::string(path) == "/") EXPECT_EQ(taken(back), "/");
        else MemFreeInternal(&back);
        ObjReleaseInternal(&list);
    }
    for (const char *bad : {"a//b", "//a"}) {
        LIST *list = nullptr;
        EXPECT_FALSE(PathToComponentList(&list, bad));
        EXPECT_EQ(list, nullptr);
    }
    LIST *list = ListNewFromPool(0, nullptr);
    for (const char *s : {"/", "a"}) {
        OBJ_STRING *item = ObjStringNew(s);
        ListPushLastItemInternal(list, &item);
    }
    char *joined = nullptr;
    ASSERT_TRUE(PathFromComponentList(&joined, list));
    EXPECT_EQ(taken(joined), "//a"); // nothing is treated specially
    EXPECT_EQ(taken(PathRelativeFromValueList(list)), "//a");
    EXPECT_EQ(taken(PathHomeBuildFromValueList(list)), home() + "///a");
    StanzaKey *key = nullptr;
    StnzCreateKey(&key, "dir", 0);
    EXPECT_EQ(taken(PathRelativeFromKey(key)), "");
    for (const char *v : {"log", "today"}) StnzAddValueToKey(&key, v);
    EXPECT_EQ(taken(PathRelativeFromKey(key)), "log/today");
    EXPECT_TRUE(traced("PATH", 8, "PathRelativeFromKey: 'log/today'"));
    StnzReleaseKey(&key);
    ObjReleaseInternal(&list);
}

TEST_F(PathTest, RecursiveRemovalStaysInsideTheTree) {
    const std::string tree = home() + "/tree", outside = home() + "/outside";
    ASSERT_TRUE(PathCreateDirectory(tree.c_str()));
    struct stat s {};
    stat(tree.c_str(), &s);
    EXPECT_EQ(s.st_mode & 07777, 0700u);
    for (const char *dir : {"/a", "/a/b"}) ASSERT_TRUE(PathCreateDirectory((tree + dir).c_str()));
    mkdir(outside.c_str(), 0755);
    std::ofstream(outside + "/keep") << "x";
    for (const char *file : {"/f", "/a/g", "/a/b/h"}) {
        std::ofstream(tree + file) << "x";
        chmod((tree + file).c_str(), 0444);
    }
    ASSERT_EQ(symlink(outside.c_str(), (tree + "/a/link").c_str()), 0);
    EXPECT_FALSE(PathRemoveDirectory((tree + "/a/link").c_str())); // not through a link either
    ASSERT_TRUE(PathRemoveDirectory(tree.c_str()));
    EXPECT_FALSE(FileIsDir(tree.c_str()));
    EXPECT_TRUE(FileExists((outside + "/keep").c_str()));
    EXPECT_FALSE(PathDestroyDirectory(tree.c_str()));
    EXPECT_TRUE(traced("PATH", 24, "Bad args to PathDestroyDirectory"));
}

TEST_F(PathTest, DirectoryLockMakesASecondProcessWait) {
    const std::string dir = home() + "/locked";
    ASSERT_TRUE(PathCreateDirectory(dir.c_str()));
    PATH_LOCK *lock = nullptr;
    EXPECT_EQ(PathLock(&lock, (dir + "/missing").c_str(), FILE_LOCK_SHARED), 2);
    EXPECT_EQ(PathLock(&lock, dir.c_str(), 124), 0);
    ASSERT_EQ(PathLock(&lock, dir.c_str(), FILE_LOCK_EXCLUSIVE), 1);
    EXPECT_TRUE(FileExists((dir + ".lck").c_str())); // beside the directory, not in it
    EXPECT_EQ(PathLock(&lock, (dir + ".lck").c_str(), FILE_LOCK_SHARED), 2);

    const auto started = std::chrono::steady_clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        PATH_LOCK *other = nullptr;
        _exit(PathLock(&other, dir.c_str(), FILE_LOCK_SHARED) == 1 && PathUnLock(&other) ? 0 : 1);
    }
    usleep(200 * 1000);
    ASSERT_TRUE(PathUnLock(&lock));
    EXPECT_EQ(lock, nullptr);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(200));
    EXPECT_FALSE(PathUnLock(&lock));
}

TEST_F(PathTest, MountTable) {
    LIST *mounts = nullptr;
    ASSERT_TRUE(PathUnixMountPoints(&mounts));
    EXPECT_GT(mounts->iCount, 0);
    ObjReleaseInternal(&mounts);

    const std::string table = home() + "/mtab";
    std::ofstream(table) << "server:/x /mnt/x nfs rw 0 0\nnone /skip ignore rw 0 0\n/dev/root / ext4 rw 0 0\n";
    fh::pathMountTable(table.c_str());
    ASSERT_TRUE(PathUnixMountPoints(&mounts));
    fh::pathMountTable(nullptr);
    ASSERT_EQ(mounts->iCount, 2);
    const auto *nfs = static_cast<PATH_FH_MOUNT_POINT *>(mounts->oFirst->oItem);
    EXPECT_EQ(nfs->mount_class, PATH_MOUNT_NETWORK);
    EXPECT_EQ(nfs->type, nullptr);
    EXPECT_EQ(nfs->total_bytes, 0);
    const auto *root = static_cast<PATH_FH_MOUNT_POINT *>(mounts->oLast->oItem);
    EXPECT_STREQ(root->type, "ext4");
    EXPECT_GT(root->total_bytes, 0);
    ObjReleaseInternal(&mounts);
}

} // namespace
