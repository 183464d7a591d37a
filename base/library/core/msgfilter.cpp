// msgfilter.cpp - messaging: what happens to a packet read off a channel
// before it reaches the receive list.
//
// Until the IPC connection is made, packets are dropped. A packet from the
// IPC channel of any process but the communication manager passes the IPC
// filter: news of deaths and lost machines takes down the channels to the
// dead, answers the pending task requests and keeps oNotifyOnDeathList
// current; some control messages act at once and go no further. Bodies are
// read from a copy and only in their exact shape (msgbody.h); the packet
// itself is delivered as it came.
//
// Orders kept here, which applications rely on: a channel's
// MSG_CHANNEL_DOWN_MSG goes on the list before the death message that
// caused it; on a machine down, first the death notices of the watched
// processes there, then the pending task replies with code 9, then the
// channels down, and the CMGR_MACHINE_DOWN_MSG itself last.
//
// A process that takes tasks in the old plain form only gets each
// PMGR_TASK_EXT converted to a PMGR_TASK on arrival, its task context kept
// in the context.
#include "core/msgreceive.h"

#include "core/channel.h"
#include "core/context.h"
#include "core/list.h"
#include "core/msgsend.h"
#include "core/objmap.h"
#include "core/object.h"
#include "core/objwrappers.h"
#include "core/proc.h"
#include "core/strbase.h"
#include "core/trace.h"
#include "messages/msgcmgr.h"
#include "messages/msgmsg.h"
#include "messages/msgnmgr.h"
#include "messages/msgpmgr.h"
#include "msgbody.h"
#include "msgchannel.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"MESSAGE        "};

enum TraceId : int32_t {
    kIdPassed = 110,
    kIdMachineDown = 111,
    kIdAdopted = 112,
    kIdMunged = 113,
    kIdConverted = 114,
};

constexpr int32_t kUnreachableCode = 17;

constinit fh::ObjectType<PMGR_TASK> gTaskType{PMGR_TASK_MAGIC, PMGR_TASK_FORMAT, fh::kReceivable};
constinit fh::ObjectType<PMGR_TASK_EXT> gTaskExtType{PMGR_TASK_EXT_MAGIC, PMGR_TASK_EXT_FORMAT, fh::kReceivable};

LIST *listOf(void *field) { return static_cast<LIST *>(field); }
LIST *notifyList() { return listOf(gtLmContext.oMsgNotifyOnDeathList); }
LIST *pendingList() { return listOf(gtLmContext.oMsgPendingTaskList); }

// The words of a packet's header.
struct Header {
    int32_t type;
    MsgPacketAddress from, to;
};

Header headerOf(const MSG_PACKET *packet) {
    const auto *image = static_cast<const unsigned char *>(packet->oImage.pData);
    return {fh::msgGetLe32(image + 24),
            {fh::msgGetLe32(image + 8), fh::msgGetLe32(image + 12)},
            {fh::msgGetLe32(image + 16), fh::msgGetLe32(image + 20)}};
}

const PROC_ADDRESS *procAddressOf(const void *object) {
    if (object == nullptr || !ObjCheckTypeInternal(object, PROC_ADDRESS_MAGIC)) return nullptr;
    const char *format = ObjGetFormat(ObjGetTemplateFromObject(object));
    return format != nullptr && StrCompare(format, PROC_ADDRESS_FORMAT) == 0 ? static_cast<const PROC_ADDRESS *>(object)
                                                                               : nullptr;
}

bool sameText(const char *a, const char *b) {
    return a == nullptr || b == nullptr ? a == b : StrCompareNoCase(a, b) == 0;
}

// A pending entry answers the reply (or request) of unique id for service:
// the same machine and process name and interface type, and the same id.
bool answers(const PMGR_GIVE_SERVICE_A_TASK_RETURN *entry, int32_t uniqueId, const void *service) {
    const PROC_ADDRESS *a = procAddressOf(entry->oService), *b = procAddressOf(service);
    return entry->iUniqueId == uniqueId && a != nullptr && b != nullptr && sameText(a->pszMachine, b->pszMachine) &&
           sameText(a->pszProcess, b->pszProcess) && a->iInterfaceType == b->iInterfaceType;
}

// Queues body as a message of type from and to the local address.
void queueToSelf(int32_t type, const void *body) {
    MSG_PACKET *packet = nullptr;
    if (MsgCreatePacket(&packet, MsgLocalAddress(), MsgLocalAddress(), type, body)) fh::msgQueue(&packet);
}

// Takes down every channel of the map whose peer passes the test.
template <typename Test> void channelsDown(Test test) {
    auto *map = static_cast<OBJ_MAP *>(gtLmContext.oMsgChannels);
    for (int32_t i = 0; map != nullptr && i < map->iCount; ++i) {
        MSG_CHANNEL *c = static_cast<MSG_CHANNEL **>(map->oData.pData)[i];
        if (!c->bIsDown && c->oRemoteAddress != nullptr && test(c->oRemoteAddress)) fh::msgChannelDown(c);
    }
}

void channelsToAddressDown(const MSG_ADDRESS *address) {
    channelsDown([address](const MSG_ADDRESS *remote) { return MsgAddressEqual(remote, address) != FALSE; });
}

void unwatch(const MSG_ADDRESS *address) {
    for (LISTNODE *node = notifyList() != nullptr ? notifyList()->oFirst : nullptr; node != nullptr; node = node->oNext)
        if (MsgAddressEqual(node->oItem, address)) {
            ListRemoveItem(node);
            return;
        }
}

// ---- The rows of the filter: each true when the packet goes on ----

bool taskReturned(const MSG_PACKET *packet, const Header &) {
    fh::Body<PMGR_GIVE_SERVICE_A_TASK_RETURN> reply(packet, PMGR_GIVE_SERVICE_A_TASK_RETURN_MAGIC,
                                                   PMGR_GIVE_SERVICE_A_TASK_RETURN_FORMAT);
    if (!reply) return true;
    const MSG_ADDRESS *takenBy = fh::msgAddressOf(reply->oTakenBy);
    if (reply->bTaken && takenBy != nullptr && !MsgIsLocalMachine(takenBy)) fh::msgNotifyOnDeathAdd(takenBy);
    fh::msgDropPending(reply->iUniqueId, reply->oService);
    return true;
}

bool processDied(const MSG_PACKET *packet, const Header &) {
    fh::Body<PMGR_PROCESS_DIED> died(packet, PMGR_PROCESS_DIED_MAGIC, PMGR_PROCESS_DIED_FORMAT);
    const MSG_ADDRESS *address = died ? fh::msgAddressOf(died->oAddress) : nullptr;
    if (address == nullptr) return true;
    if (!MsgIsLocalMachine(address)) unwatch(address);
    channelsToAddressDown(address);
    return true;
}

bool processUnreachable(const MSG_PACKET *packet, const Header &) {
    fh::Body<CMGR_PROCESS_UNREACHABLE> lost(packet, CMGR_PROCESS_UNREACHABLE_MAGIC, CMGR_PROCESS_UNREACHABLE_FORMAT);
    if (const MSG_ADDRESS *address = lost ? fh::msgAddressOf(lost->oAddress) : nullptr) channelsToAddressDown(address);
    return true;
}

bool machineDown(const MSG_PACKET *packet, const Header &) {
    fh::Body<CMGR_MACHINE_DOWN> down(packet, CMGR_MACHINE_DOWN_MAGIC, CMGR_MACHINE_DOWN_FORMAT);
    if (!down || down->pszMachine == nullptr) return true;
    const char *machine = down->pszMachine;
    trace(kIdMachineDown, 0, 2, "Machine %s has gone down (%ld,%ld)", machine,
          static_cast<long>(notifyList() != nullptr ? notifyList()->iCount : 0),
          static_cast<long>(pendingList() != nullptr ? pendingList()->iCount : 0));
    for (LISTNODE *node = notifyList() != nullptr ? notifyList()->oFirst : nullptr, *next; node != nullptr; node = next) {
        next = node->oNext;
        const auto *watched = static_cast<const MSG_ADDRESS *>(node->oItem);
        if (!sameText(watched->pszMachine, machine)) continue;
        void *died = fh::msgNewProcessDied(watched);
        if (died != nullptr) queueToSelf(PMGR_PROCESS_DIED_MSG, died);
        ObjReleaseInternal(&died);
        ListRemoveItem(node);
    }
    for (LISTNODE *node = pendingList() != nullptr ? pendingList()->oFirst : nullptr, *next; node != nullptr; node = next) {
        next = node->oNext;
        const PROC_ADDRESS *service =
            procAddressOf(static_cast<const PMGR_GIVE_SERVICE_A_TASK_RETURN *>(node->oItem)->oService);
        if (service == nullptr || !sameText(service->pszMachine, machine)) continue;
        queueToSelf(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, node->oItem);
        ListRemoveItem(node);
    }
    channelsDown([machine](const MSG_ADDRESS *remote) {
        return remote->pszMachine != nullptr && StrCompareNoCase(remote->pszMachine, machine) == 0;
    });
    return true;
}

// A request that the network manager could not deliver: the caller gets
// its failure now, and the packet goes no further.
bool machineUnreachable(const MSG_PACKET *packet, const Header &) {
    fh::Body<NMGR_MACHINE_UNREACHABLE> lost(packet, NMGR_MACHINE_UNREACHABLE_MAGIC, NMGR_MACHINE_UNREACHABLE_FORMAT);
    if (!lost || lost->iMsgType != PMGR_GIVE_SERVICE_A_TASK_MSG || lost->oObject == nullptr) return true;
    const void *request = lost->oObject;
    const char *format = ObjGetFormat(ObjGetTemplateFromObject(request));
    const bool isRequest =
        format != nullptr &&
        ((ObjCheckTypeInternal(request, PMGR_GIVE_SERVICE_A_TASK_MAGIC) &&
          StrCompare(format, PMGR_GIVE_SERVICE_A_TASK_FORMAT) == 0) ||
         (ObjCheckTypeInternal(request, PMGR_GIVE_SERVICE_A_TASK_EXT_MAGIC) &&
          StrCompare(format, PMGR_GIVE_SERVICE_A_TASK_EXT_FORMAT) == 0));
    if (!isRequest) return true;
    const auto *task = static_cast<const PMGR_GIVE_SERVICE_A_TASK *>(request); // the extended form begins so
    PMGR_GIVE_SERVICE_A_TASK_RETURN *reply = fh::msgNewTaskReturn(kUnreachableCode, task->iUniqueId, task->oService);
    if (reply != nullptr) queueToSelf(PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, reply);
    ObjReleaseInternal(&reply);
    fh::msgDropPending(task->iUniqueId, task->oService);
    return false;
}

bool dropped(const MSG_PACKET *, const Header &) { return false; }

bool logMemoryUsage(const MSG_PACKET *, const Header &) {
    ProcMemoryUsage();
    return false;
}

bool setTraceLevel(const MSG_PACKET *packet, const Header &) {
    void *level = nullptr;
    if (MsgObjectFromPacketInternal(&level, packet, OBJ_INTEGER_MAGIC)) TraceSetLevel(ObjGetInteger(level));
    ObjReleaseInternal(&level);
    return false;
}

bool attachToShm(const MSG_PACKET *, const Header &header) {
    if (ProcGetId() == 0) {
        ProcSetId(header.to.iProcess);
        trace(kIdAdopted, 0, 2, "Adopted process given PID %ld", static_cast<long>(header.to.iProcess));
    }
    return true;
}

struct FilterRow {
    int32_t type;
    bool (*act)(const MSG_PACKET *, const Header &);
};

// MSG_SET_TRACE_FILE_MSG asks for the trace file, which this library does
// not have yet: its packets are dropped without effect.
constexpr FilterRow kFilter[] = {
    {PMGR_GIVE_SERVICE_A_TASK_RETURN_MSG, taskReturned},
    {PMGR_PROCESS_DIED_MSG, processDied},
    {CMGR_PROCESS_UNREACHABLE_MSG, processUnreachable},
    {CMGR_MACHINE_DOWN_MSG, machineDown},
    {NMGR_MACHINE_UNREACHABLE_MSG, machineUnreachable},
    {MSG_KEEP_ALIVE_MSG, dropped},
    {MSG_SET_TRACE_LEVEL_MSG, setTraceLevel},
    {MSG_SET_TRACE_FILE_MSG, dropped},
    {MSG_LOG_MEMORY_USAGE_MSG, logMemoryUsage},
    {PMGR_ATTACH_TO_SHM_MSG, attachToShm},
};

bool passesFilter(const MSG_PACKET *packet) {
    const Header h = headerOf(packet);
    for (const FilterRow &row : kFilter)
        if (row.type == h.type && !row.act(packet, h)) return false;
    trace(kIdPassed, 0, 3, "Got %ld from %ld:%ld for %ld:%ld, I am %ld", static_cast<long>(h.type),
          static_cast<long>(h.from.iMachine), static_cast<long>(h.from.iProcess), static_cast<long>(h.to.iMachine),
          static_cast<long>(h.to.iProcess), static_cast<long>(gtLmContext.iProcessId));
    return true;
}

// ---- Tasks in the old form ----

// The packet with a PMGR_TASK_EXT body made into one with the plain form;
// the packet as it was when its body is of another shape.
void convertTask(MSG_PACKET **packet) {
    fh::Body<PMGR_TASK_EXT> task(*packet, PMGR_TASK_EXT_MAGIC, PMGR_TASK_EXT_FORMAT);
    if (!task) {
        trace(kIdMunged, 0, -1, "Munged object encountered converting new task to old style");
        return;
    }
    ObjReleaseInternal(&gtLmContext.oMsgTaskContext);
    if ((gtLmContext.oMsgTaskContext = task->oTaskContext) != nullptr) ObjIncRefCount(task->oTaskContext);
    PMGR_TASK *plain = gTaskType.newInstance(nullptr);
    if (plain == nullptr) return;
    if ((plain->oConnectBackTo = task->oConnectBackTo) != nullptr) ObjIncRefCount(plain->oConnectBackTo);
    if ((plain->oTaskObject = task->oTaskObject) != nullptr) ObjIncRefCount(plain->oTaskObject);
    plain->iConnectNow = task->iConnectNow;
    plain->iLast = task->iLast;
    const Header h = headerOf(*packet);
    MSG_ADDRESS *to = nullptr, *from = nullptr;
    MSG_PACKET *converted = nullptr;
    if (MsgAddressFromPacketAddress(&to, &h.to) && MsgAddressFromPacketAddress(&from, &h.from) &&
        MsgCreatePacket(&converted, to, from, PMGR_TASK_MSG, plain)) {
        ObjReleaseInternal(packet);
        *packet = converted;
        trace(kIdConverted, 0, 2,
              "Converted new style task to old style for legacy app. Have also set task context object");
    }
    ObjReleaseInternal(&to);
    ObjReleaseInternal(&from);
    ObjReleaseInternal(&plain);
}

} // namespace

void fh::msgDropPending(int32_t uniqueId, const void *service) {
    for (LISTNODE *node = pendingList() != nullptr ? pendingList()->oFirst : nullptr; node != nullptr; node = node->oNext)
        if (answers(static_cast<const PMGR_GIVE_SERVICE_A_TASK_RETURN *>(node->oItem), uniqueId, service)) {
            ListRemoveItem(node);
            return;
        }
}

bool fh::msgFilterInitialize() { return gTaskType.declare() && gTaskExtType.declare(); }

void fh::msgSetOldStyleTasks(bool oldStyle) { gtLmContext.bMsgOldStyleTasks = oldStyle; }

void fh::msgDeliver(MSG_CHANNEL *channel, MSG_PACKET **packet) {
    if (!gtLmContext.bMsgIpcConnected) {
        ObjReleaseInternal(packet);
        return;
    }
    const bool manager = gtLmContext.iProcessId == MSG_PROCESS_COMMMGR;
    if (!manager && channel == gtLmContext.oMsgIpcChannel && !passesFilter(*packet)) {
        ObjReleaseInternal(packet);
        return;
    }
    if (!manager && gtLmContext.bMsgOldStyleTasks && MsgPacketMsgType(*packet) == PMGR_TASK_MSG) convertTask(packet);
    msgQueue(packet);
}
