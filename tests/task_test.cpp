// Tests of the task context: what a context names on a server and on a
// client, the current context, its objects one per type, and the remote
// configuration that a context can name.
#include <sys/stat.h>

#include "helpers.h"

namespace {

std::string withPointers(const char *format, const void *a, const void *b) {
    char text[128];
    snprintf(text, sizeof text, format, a, b);
    return text;
}

using testhelp::release;

// A client's context is empty; a server's names the machine, its version
// and patch level, which the current context gives until it is cleared.
TEST_F(LibraryTest, TaskContextOnClientAndServer) {
    TASK_CONTEXT *client = nullptr, *server = nullptr;
    ASSERT_TRUE(TaskCreateContext(&client));
    EXPECT_TRUE(client->pszServer == nullptr && client->iVersion == 0 && client->iPatchLevel == 0);
    mkdir((home() + "/config").c_str(), 0755);
    testhelp::writeFile(home() + "/config/configure.cfg", "[Details]\nServer=true\nLMBuildLevel=3\n");
    testhelp::writeFile(home() + "/config/version.cfg", "[Details]\nLMVersion=7005\n");
    ASSERT_TRUE(TaskCreateContext(&server));
    EXPECT_STREQ(server->pszServer, SysLocalMachineName());
    ASSERT_TRUE(TaskSetTaskContext(server));
    EXPECT_EQ(TaskGetServerName(), server->pszServer);
    EXPECT_EQ(TaskGetServerVersion() * 10 + TaskGetServerPatchLevel(), 70053);
    EXPECT_TRUE(traced("TASK", 2, "New task context for server '" + std::string(SysLocalMachineName()) +
                                      "', version 7.05, patch level 3"));
    OBJ_INTEGER *other = ObjIntegerNew(1);
    EXPECT_FALSE(TaskSetTaskContext(other));
    EXPECT_EQ(TaskGetServerVersion(), 7005);
    ObjReleaseInternal(&other);
    ASSERT_TRUE(TaskSetTaskContext(nullptr));
    EXPECT_TRUE(TaskGetServerName() == nullptr && TaskGetServerVersion() == 0 && TaskGetServerPatchLevel() == 0);
    release({client, server});
}

// One object per type: a second of the same type replaces the first. The
// faults of the caller are traced as such and change nothing.
TEST_F(LibraryTest, TaskContextObjectsOnePerType) {
    TASK_CONTEXT *context = nullptr;
    ASSERT_TRUE(TaskCreateContext(&context));
    OBJ_INTEGER *first = ObjIntegerNew(1), *second = ObjIntegerNew(2);
    for (void *object : {first, second}) EXPECT_TRUE(TaskSetContextObject(context, object));
    void *found = nullptr;
    ASSERT_TRUE(TaskGetContextObject(&found, context, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(found == second && context->oObjects->iCount == 1);
    ObjReleaseInternal(&found);
    EXPECT_FALSE(TaskGetContextObject(&found, context, OBJ_BOOLEAN_MAGIC));
    EXPECT_FALSE(TaskSetContextObject(reinterpret_cast<TASK_CONTEXT *>(first), second));
    EXPECT_TRUE(traced("TASK", 3, withPointers("TaskSetContextObject(%p, %p) - bad args", first, second)));
    EXPECT_FALSE(TaskSetContextObject(context, nullptr));
    EXPECT_FALSE(TaskGetContextObject(nullptr, context, OBJ_INTEGER_MAGIC));
    EXPECT_TRUE(traced("TASK", 4, withPointers("TaskGetContextObjectld(%p, %p, ) - bad args", nullptr, context)));
    EXPECT_EQ(context->oObjects->iCount, 1);
    release({context, first, second});
}

// A configuration call goes remote only for a current context whose details
// name both a client and a server.
TEST_F(LibraryTest, TaskContextNamesRemoteConfiguration) {
    for (const char *clientName : {"cli", ""}) {
        TASK_CONTEXT *context = nullptr;
        ASSERT_TRUE(TaskCreateContext(&context));
        auto *details = static_cast<CFG_UTIL_REMOTE_CONFIG_DETAILS *>(ObjNewInternal(
            2 * sizeof(void *), CFG_UTIL_REMOTE_CONFIG_DETAILS_MAGIC, "s;s;", nullptr, nullptr));
        details->pszServer = StrDuplicateIntoPool("srv", nullptr);
        details->pszClient = StrDuplicateIntoPool(clientName, nullptr);
        ASSERT_TRUE(TaskSetContextObject(context, details));
        char *client = nullptr, *server = nullptr;
        EXPECT_FALSE(CfgUtilDoRemoteFromProcContext(&client, &server)); // no current context yet
        ASSERT_TRUE(TaskSetTaskContext(context));
        EXPECT_EQ(CfgUtilDoRemoteFromProcContext(&client, &server), *clientName != '\0');
        EXPECT_EQ(testhelp::taken(client) + testhelp::taken(server), *clientName ? "clisrv" : "<null><null>");
        TaskSetTaskContext(nullptr);
        release({details, context});
    }
}

} // namespace
