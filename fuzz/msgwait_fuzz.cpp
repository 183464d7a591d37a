// Bodies of any shape, under the types that the default handlers of the
// message wait serve, as another process could send them: the first byte
// picks the type, the rest is the body's byte form in a packet image from
// process 77 of this machine. The message read from it goes to the default
// handlers, and through a poll to the handlers and the defaults again.
// Opening and completing channels and the end of the process are stubbed
// (they would reach out of the process); the stubs still read what they are
// given. A ping is answered into the void: with no IPC channel the send
// fails, and what that queues is drained.
// No crash, no hang, no leak.
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "core/fhcore.h"
#include "codec.h"
#include "leakcheck.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "messages/msgtimer.h"
#include "messages/msgtrace.h"
#include "seams.h"

namespace {

constexpr int32_t kTypes[] = {MSG_LOST_RECEIVE_QUEUE_MSG, PMGR_KILL_YOURSELF_MSG, MSG_UNKNOWN_MSG,
                              PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, PMGR_TASK_MSG, CMGR_MACHINE_DOWN_MSG,
                              MSG_PING_MSG, MSG_CONNECT_MSG, MSG_CONNECTED_MSG, TIMER_CALLBACK_MSG,
                              TRACE_TO_FILE_MSG, 50001};

BOOL opened(MSG_ADDRESS **, const MSG_ADDRESS *peer, void *peerCookie, void *, BOOL, BOOL, BOOL) {
    const char *machine = MsgGetMachineName(peer); // null for a channel address
    CHECK(MsgGetProcessId(peer) != -1 && (machine == nullptr || std::strlen(machine) < 1u << 20));
    CHECK(peerCookie == nullptr || ObjHasValidGlobalMagic(peerCookie));
    return TRUE;
}
BOOL completed(MSG_ADDRESS **, const MSG_MESSAGE *message, BOOL, BOOL, BOOL) {
    CHECK(MsgType(message) == MSG_CONNECT_MSG);
    return TRUE;
}

MSG_PACKET *packetOf(int32_t type, const uint8_t *body, size_t size) {
    const size_t total = MSG_PACKET_BODY_OFFSET + size;
    auto *packet = static_cast<MSG_PACKET *>(ObjTemplateNewInstanceFromPool(gtObjTemplatePacket, nullptr));
    auto *image = static_cast<unsigned char *>(MemAllocateFromPool(total, nullptr));
    const uint32_t words[] = {static_cast<uint32_t>(ProcGetId()), static_cast<uint32_t>(total), 1, 77, 1,
                              static_cast<uint32_t>(ProcGetId()), static_cast<uint32_t>(type)};
    for (size_t i = 0; i < std::size(words); ++i) fh::writeLe32(image + 4 * i, words[i]);
    fh::writeLe32(image + MSG_PACKET_HEADER_SIZE, static_cast<uint32_t>(total - MSG_PACKET_HEADER_SIZE));
    fh::writeLe32(image + MSG_PACKET_HEADER_SIZE + 4, static_cast<uint32_t>(type));
    if (size > 0) std::memcpy(image + MSG_PACKET_BODY_OFFSET, body, size);
    packet->oImage.iSize = static_cast<int32_t>(total);
    packet->oImage.pData = image;
    return packet;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    char home[] = "/tmp/fhcore-msgwait-fuzz-XXXXXX";
    if (mkdtemp(home) == nullptr) abort();
    setenv("FHHOME", home, 1);
    if (!ContextInitialize() || !ProcSetId(40)) abort();
    TraceSetLevel(1);
    static const fh::MsgWaitActions stubs{opened, completed, [] {}};
    fh::msgWaitSetActions(&stubs);
    MSG_MESSAGE *none = nullptr;
    MsgPoll(&none); // the first pass makes the poll set, which stays
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0 || size > (1u << 20)) return 0;
    const InUse before;
    const int32_t type = kTypes[data[0] % std::size(kTypes)];
    MSG_PACKET *packet = packetOf(type, data + 1, size - 1);
    MSG_MESSAGE *message = nullptr;
    if (MsgMessageFromPacket(&message, packet)) {
        CHECK(MsgType(message) == type);
        const int32_t result = MsgWaitDefaultHandlers(message);
        CHECK(result >= eMsgWaitResultError && result <= eMsgWaitResultSuccess);
        ObjReleaseInternal(&message);
        MsgReceivePushPacket(&packet);
        MsgWaitPoll();
    }
    ObjReleaseInternal(&packet);
    for (MSG_PACKET *queued = nullptr; MsgReceivePopPacket(&queued);) ObjReleaseInternal(&queued);
    CHECK(!before.leaked());
    return 0;
}
