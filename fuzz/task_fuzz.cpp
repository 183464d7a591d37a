// A task context as it may come with a task from another machine: any
// bytes at all, read as a serialised object, become the process's current
// task context the way the task conversion stores one, unchecked. Then the
// readers of the context run over it: the server getters, the objects, the
// remote configuration it may name, and a task request in the extended
// form, which copies the context and sets an object in the copy. The
// request can't leave (there is no communication manager), so each input
// ends with exactly one failure reply on the receive list.
// No crash, no hang, no leak.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <sys/stat.h>

#include "core/fhcore.h"
#include "leakcheck.h"
#include "messages/msgpmgr.h"

namespace {

PROC_ADDRESS *gService = nullptr;
OBJ_INTEGER *gContextObject = nullptr;

int32_t failureReplies() {
    int32_t replies = 0;
    for (MSG_PACKET *p = nullptr; MsgReceivePopPacket(&p); ObjReleaseInternal(&p))
        replies += MsgPacketMsgType(p) == PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG;
    return replies;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char home[] = "/tmp/fhcore-task-fuzz-XXXXXX";
    if (mkdtemp(home) == nullptr) abort();
    setenv("FHHOME", home, 1);
    mkdir((std::string(home) + "/config").c_str(), 0755);
    std::ofstream(std::string(home) + "/config/version.cfg") << "[Details]\nLMVersion=7005\n";
    if (!ContextInitialize()) abort();
    TraceSetLevel(1);
    ProcCreateAddress(&gService, SysLocalMachineName(), "svc", 0);
    gContextObject = ObjIntegerNew(7);
    // The first request reads the settings that later ones find cached.
    ProcGiveServiceATaskExt(gService, "a", "b", FALSE, nullptr, 1, gContextObject);
    failureReplies();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const InUse before;
    void *object = nullptr;
    if (ObjReconstructFromBytes(&object, data, static_cast<int32_t>(size)) && object != nullptr) {
        gtLmContext.oMsgTaskContext = object; // takes the reference
        (void)TaskGetServerName();
        (void)TaskGetServerVersion();
        (void)TaskGetServerPatchLevel();
        char *client = nullptr, *server = nullptr;
        if (CfgUtilDoRemoteFromProcContext(&client, &server)) {
            MemFreeInternal(&client);
            MemFreeInternal(&server);
        }
        for (void *contextObject : {static_cast<void *>(gContextObject), static_cast<void *>(nullptr)}) {
            CHECK(!ProcGiveServiceATaskExt(gService, "a", "b", FALSE, nullptr, 1, contextObject));
            CHECK(failureReplies() == 1);
        }
        TaskSetTaskContext(nullptr);
    }
    CHECK(gtLmContext.oMsgTaskContext == nullptr);
    if (before.leaked()) abort();
    return 0;
}
