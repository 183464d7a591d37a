// pmgr_child - a managed process for the process manager's tests, started
// by fhpmgr with its id as argument.
//
// It goes through the start-up conversation (initial status, attach,
// first state 2) and reads its part from the stanza "Process <id>" of
// programs.cfg:
//   Title    a title to set once attached
//   Objects  objects to make and keep, so that the counters move
//   View     a process id to read from shared memory as a viewer; what it
//            finds goes to "view.txt" in the home, and then it ends
//   Stubborn true: ignores PMGR_KILL_YOURSELF_MSG and SIGTERM
// After its work it reports state 3 and waits for messages until it is
// asked to die.
#include <signal.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/fhcore.h"
#include "messages/msgmsg.h"
#include "messages/msgpmgr.h"
#include "messages/pmgrtable.h"

namespace {

template <typename T> ObjectTemplate *declare(uint32_t magic, const char *format) {
    ObjectTemplate *made = nullptr;
    ObjTemplateCreateInternal(&made, sizeof(T), magic, format, nullptr);
    return made;
}

bool sendStatus(int32_t type, int32_t state, bool viewer) {
    auto *status = static_cast<PMGR_PROCESS_STATUS *>(ObjTemplateNewInstanceFromPool(
        declare<PMGR_PROCESS_STATUS>(PMGR_PROCESS_STATUS_MAGIC, PMGR_PROCESS_STATUS_FORMAT), nullptr));
    *status = {state, 0, 0, TRUE, viewer ? TRUE : FALSE, 0};
    void *body = status;
    if (type == PMGR_PROCESS_INITIAL_STATUS_MSG) {
        auto *initial = static_cast<PMGR_PROCESS_INITIAL_STATUS *>(ObjTemplateNewInstanceFromPool(
            declare<PMGR_PROCESS_INITIAL_STATUS>(PMGR_PROCESS_INITIAL_STATUS_MAGIC, PMGR_PROCESS_INITIAL_STATUS_FORMAT),
            nullptr));
        initial->oStatus = status;
        body = initial;
    }
    const bool sent = MsgSendObject(MsgProcMgrAddress(), type, body);
    ObjReleaseInternal(&body);
    return sent;
}

// The conversation up to the first state; false when it fails.
bool startUp(bool viewer) {
    if (!sendStatus(PMGR_PROCESS_INITIAL_STATUS_MSG, PROC_STATE_CREATING, viewer)) return false;
    for (;;) {
        MSG_PACKET *packet = nullptr;
        if (!MsgReceivePacket(&packet, nullptr)) return false;
        const int32_t type = MsgPacketMsgType(packet);
        const bool attached = type == PMGR_ATTACH_TO_SHM_MSG && ProcAttachSharedMemory(packet, viewer ? 1 : 0);
        ObjReleaseInternal(&packet);
        if (type == PMGR_ATTACH_TO_SHM_MSG) return attached && sendStatus(PMGR_PROCESS_STATUS_MSG, 2, false);
        if (type >= MSG_LOST_RECEIVE_QUEUE_MSG && type <= MSG_UNEXPECTED_SEND_ERROR_MSG) return false;
    }
}

void trace(const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    TraceMessageVa("CHILD           ", 1, 0, 0, format, arguments);
    va_end(arguments);
}

int32_t word(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

BOOL keepText(const TraceRecord *record, int32_t, void *cookie) {
    static_cast<std::vector<std::string> *>(cookie)->push_back(record->Text);
    return TRUE;
}

// Waits (bounded) for process id to report state 3, then writes what the
// table and its entry show.
bool view(int32_t id) {
    const auto *table = static_cast<const unsigned char *>(ProcGetProcessTable());
    if (table == nullptr || word(table + PMGR_TABLE_HEAD_MAGIC) != static_cast<int32_t>(PMGR_TABLE_MAGIC)) return false;
    const int32_t slots = word(table + PMGR_TABLE_HEAD_SLOTS), slotBytes = word(table + PMGR_TABLE_HEAD_SLOT_BYTES);
    for (int tries = 0; tries < 1000; ++tries) {
        for (int32_t i = 0; i < slots; ++i) {
            const unsigned char *slot = table + PMGR_TABLE_HEAD_BYTES + i * slotBytes;
            if (word(slot + PMGR_SLOT_PROCESS) != id || word(slot + PMGR_SLOT_STATE) != PROC_STATE_BUSY) continue;
            const auto *entry = static_cast<const unsigned char *>(ProcShmAddress(word(slot + PMGR_SLOT_ENTRY)));
            std::vector<std::string> texts;
            TraceWalkBuffer(reinterpret_cast<const TraceBuffer *>(entry + PMGR_ENTRY_HEAD_BYTES), keepText, &texts);
            char *home = nullptr;
            PathGetHomeDir(&home);
            std::ofstream out(std::string(home) + "/view.txt");
            MemFreeInternal(&home);
            out << "state " << word(slot + PMGR_SLOT_STATE) << "\nstatuses " << word(slot + PMGR_SLOT_STATUSES)
                << "\ntitle " << reinterpret_cast<const char *>(entry) << "\n";
            for (int counter = 80; counter <= 100; counter += 4) out << "counter " << word(entry + counter) << "\n";
            for (const std::string &text : texts) out << "trace " << text << "\n";
            return true;
        }
        usleep(10 * 1000);
    }
    return false;
}

} // namespace

int main(int argc, char **argv) {
    const long id = argc == 2 ? strtol(argv[1], nullptr, 10) : 0;
    if (!ContextInitialize() || !ProcSetId(static_cast<int32_t>(id)) || !MsgIpcConnect(0)) return 3;
    // The viewer flag goes out before the attach brings the name, so the
    // settings are found by id.
    char me[32];
    snprintf(me, sizeof me, "Process %ld", id);
    int32_t viewId = 0;
    CfgGetInteger(&viewId, "programs.cfg", me, "View", 0);
    if (!startUp(viewId != 0)) return 4;
    char *title = nullptr;
    int32_t objects = 0;
    BOOL stubborn = FALSE;
    CfgGetString(&title, "programs.cfg", me, "Title", "");
    CfgGetInteger(&objects, "programs.cfg", me, "Objects", 0);
    CfgGetBoolean(&stubborn, "programs.cfg", me, "Stubborn", FALSE);
    if (stubborn) signal(SIGTERM, SIG_IGN);
    if (title != nullptr && *title != '\0') ProcSetTitle(title);
    MemFreeInternal(&title);
    std::vector<void *> kept;
    for (int32_t i = 0; i < objects; ++i) kept.push_back(ObjIntegerNew(i));
    trace("child %ld made %ld objects", id, static_cast<long>(objects));
    if (viewId != 0) return view(viewId) ? 0 : 5;
    sendStatus(PMGR_PROCESS_STATUS_MSG, PROC_STATE_BUSY, false);
    for (;;) {
        MSG_PACKET *packet = nullptr;
        if (!MsgReceivePacket(&packet, nullptr)) return 6;
        const int32_t type = MsgPacketMsgType(packet);
        ObjReleaseInternal(&packet);
        if (type == PMGR_KILL_YOURSELF_MSG && !stubborn) break;
        if (type >= MSG_LOST_RECEIVE_QUEUE_MSG && type <= MSG_UNEXPECTED_SEND_ERROR_MSG) return 7;
    }
    for (void *object : kept) ObjReleaseInternal(&object);
    ContextReleaseThread();
    return 0;
}
