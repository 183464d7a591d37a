// Packet images from the communication manager, as any bytes at all, reach
// the IPC channel of an ordinary process (id 40) over a socket pair and are
// drained through MsgReceive and MsgReceiveMsgTypeFromAddress: the IPC
// filter, the task conversion and selective receive all read them.
//
// The input: a first byte of options (bit 0: the process takes old plain
// tasks; bits 1 to 7: the type that the selective receive asks for, as an
// offset into the ids that the filter knows), then the bytes of the
// stream, written in pieces of up to 4096 bytes with a drain after each. At
// the end the peer closes, and the channel must go down.
// No crash, no hang, no leak.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "core/fhcore.h"
#include "leakcheck.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "msgchannel.h"

namespace {

MSG_ADDRESS *gWanted = nullptr;

// Takes everything the channel has delivered off the list, through both
// receive calls.
void drain(int32_t type) {
    static const TIME_TIMEOUT now{0, 0};
    for (int rounds = 0; rounds < 256; ++rounds) {
        MSG_MESSAGE *m = nullptr;
        if (MsgReceiveMsgTypeFromAddress(&m, type, rounds % 2 == 0 ? gWanted : nullptr, &now)) {
            ObjReleaseInternal(&m);
            continue;
        }
        if (!MsgPoll(&m)) break;
        ObjReleaseInternal(&m);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char home[] = "/tmp/fhcore-msgreceive-fuzz-XXXXXX";
    if (mkdtemp(home) == nullptr) abort();
    setenv("FHHOME", home, 1);
    if (!ContextInitialize() || !ProcSetId(40)) abort();
    TraceSetLevel(1);
    MsgCreateAddress(&gWanted, SysLocalMachineName(), 1);
    MSG_MESSAGE *none = nullptr;
    MsgPoll(&none); // the first pass makes the poll set, which stays
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const InUse before;
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) abort();
    MSG_CHANNEL *ipc = nullptr;
    CHECK(MsgChannelCreateInternal(&ipc, fds[0], nullptr, FALSE, TRUE, TRUE, FALSE, FALSE));
    gtLmContext.oMsgIpcChannel = ipc; // the context's reference
    gtLmContext.bMsgIpcConnected = TRUE;
    fh::msgSetOldStyleTasks((data[0] & 1) != 0);
    const int32_t type = (data[0] >> 1) == 0 ? 0 : PMGR_KILL_YOURSELF_MSG + (data[0] >> 1);
    MSG_ADDRESS *address = nullptr;
    MsgChannelAddress(&address, ipc);
    // The stream may claim anything, the loss of the queue too: the end is
    // when the channel itself is down.
    for (size_t at = 1; at < size && !MsgChannelIsDown(ipc);) {
        const size_t piece = std::min<size_t>(4096, size - at);
        if (send(fds[1], data + at, piece, MSG_NOSIGNAL) != static_cast<ssize_t>(piece)) break;
        at += piece;
        drain(type);
    }
    close(fds[1]);
    for (int i = 0; i < 64 && !MsgChannelIsDown(ipc); ++i) drain(type);
    CHECK(MsgChannelIsDown(ipc));
    drain(type);
    CHECK(MsgReceiveCount() == 0);
    // What the filter kept: watched processes, task replies, a task context.
    ListReleaseAll(static_cast<LIST *>(gtLmContext.oMsgNotifyOnDeathList));
    ListReleaseAll(static_cast<LIST *>(gtLmContext.oMsgPendingTaskList));
    ObjReleaseInternal(&gtLmContext.oMsgTaskContext);
    CHECK(address != nullptr && MsgChannelClose(&address));
    TraceSetLevel(1);
    if (before.leaked()) {
        fprintf(stderr, "left: %ld blocks, %ld objects\n", static_cast<long>(blocksInUse() - before.blocks),
                static_cast<long>(ObjCount() - before.objects));
        abort();
    }
    return 0;
}
