// proc.cpp - the process: its id in the system, its name, and what it keeps
// in shared memory.
//
// The id lives in the context (iProcessId), 0 until the process is told
// its own; the local message address carries it. After the attach the
// process's entry of the process table lies in the main segment: the title
// at 0, the counters at 80 to 100, the trace ring at 104 (proctable.h). The
// pointers into the segment are made only after the areas they name have
// been checked to lie inside it, since the offsets come from the manager.
#include "core/proc.h"

#include <sys/shm.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <unistd.h>

#include "core/context.h"
#include "core/memory.h"
#include "core/msgpacket.h"
#include "core/shm.h"
#include "core/strbase.h"
#include "messages/msgpmgr.h"
#include "objcore.h"
#include "procstart.h"
#include "proctable.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"PROCESS        "};

enum TraceId : int32_t {
    kIdAttachMain = 1,
    kIdAttachProgress,
    kIdAttachTable,
    kIdAttachBounds,
    kIdAttachBody,
};

constinit fh::ObjectType<PMGR_ATTACH_TO_UNIX_SHM> gAttachType{PMGR_ATTACH_TO_UNIX_SHM_MAGIC,
                                                               PMGR_ATTACH_TO_UNIX_SHM_FORMAT, fh::kReceivable};

constexpr std::array<const char *, 8> kStateTexts{"Unknown", "Creating", "Initializing", "Waiting for task",
                                                  "Busy",    "Exiting",  "Zombie",       "Restart Service"};

// Whether bytes from offset lie in a segment of size bytes, with offset a
// multiple of align.
bool inside(int64_t offset, int64_t bytes, uint64_t size, int64_t align) {
    return offset >= 0 && bytes >= 0 && offset % align == 0 && static_cast<uint64_t>(offset + bytes) <= size;
}

int32_t wordAt(const unsigned char *at) {
    int32_t value;
    memcpy(&value, at, sizeof value);
    return value;
}

// The size of a segment as the system states it; 0 when it can't.
uint64_t segmentSize(int32_t id) {
    struct shmid_ds status;
    return shmctl(id, IPC_STAT, &status) == 0 ? status.shm_segsz : 0;
}

} // namespace

namespace fh {

bool attachLayout(AttachLayout &out, unsigned char *base, uint64_t size,
                  const int32_t (&components)[kAttachComponentCount]) {
    constexpr int64_t kRingHead = sizeof(TraceBuffer);
    const int64_t entry = components[kAttachEntryOffset];
    if (!inside(entry, kEntryTraceRing + kRingHead, size, 8)) return false;
    const int32_t ringSize = wordAt(base + entry + kEntryTraceRing);
    if (ringSize < TRACE_RECORD_HEAD + 8 || !inside(entry, kEntryTraceRing + kRingHead + ringSize, size, 8))
        return false;
    const int64_t progress = components[kAttachProgressOffset];
    if (progress != 0 && (!inside(progress, 4, size, 4) || wordAt(base + progress) < 4 ||
                          !inside(progress, wordAt(base + progress), size, 4)))
        return false;
    const int64_t timeArea = components[kAttachTimeOffset];
    if (!inside(timeArea, kTimeSourceName + 1, size, 4)) return false;
    out = {base + entry, progress != 0 ? base + progress : nullptr, base + timeArea};
    return true;
}

} // namespace fh

BOOL ProcessInitialize(void) { return gAttachType.declare() && fh::procStartInitialize() ? TRUE : FALSE; }

BOOL ProcessInitializeThread(LmContext *context) { return fh::procStartInitializeThread(context) ? TRUE : FALSE; }

void ProcessReleaseThread(LmContext *context) {
    fh::procStartReleaseThread(context);
    if (context->pszProcName != nullptr) MemFreeInternal(&context->pszProcName);
    context->pProcMainSegment = nullptr;
    context->pProcTable = nullptr;
    context->pProcProgressBuffer = nullptr;
    context->pProcTimeArea = nullptr;
    context->pszProcTitle = nullptr;
}

int32_t ProcGetId(void) { return gtLmContext.iProcessId; }

BOOL ProcSetId(int32_t id) {
    gtLmContext.iProcessId = id;
    return MsgCreateLocalAddress();
}

int32_t ProcGetRealId(void) { return static_cast<int32_t>(getpid()); }

const char *ProcProcessStateDescription(int32_t state) {
    return state >= -1 && state + 1 < static_cast<int32_t>(kStateTexts.size()) ? kStateTexts[state + 1] : "Invalid";
}

const char *ProcName(void) { return gtLmContext.pszProcName; }

BOOL ProcSetName(const char *name) {
    char *copy = nullptr;
    if (name != nullptr && (copy = StrDuplicateIntoPool(name, nullptr)) == nullptr) return FALSE;
    if (gtLmContext.pszProcName != nullptr) MemFreeInternal(&gtLmContext.pszProcName);
    gtLmContext.pszProcName = copy;
    return TRUE;
}

BOOL ProcAttachSharedMemory(const MSG_PACKET *packet, int32_t viewer) {
    LmContext &c = gtLmContext;
    PMGR_ATTACH_TO_UNIX_SHM *body = nullptr;
    if (!MsgObjectFromPacketInternal(reinterpret_cast<void **>(&body), packet, PMGR_ATTACH_TO_UNIX_SHM_MAGIC)) {
        trace(kIdAttachBody, 0, 0, "No PMGR_ATTACH_TO_UNIX_SHM in the attach message");
        return FALSE;
    }
    const int32_t components[fh::kAttachComponentCount] = {body->iMainSegment, body->iTableSegment,
                                                           body->iEntryOffset, body->iProgressOffset,
                                                           body->iTimeOffset};
    ObjReleaseInternal(&body);
    void *base = nullptr;
    if (!ShmAttach(&base, components[fh::kAttachMainSegment])) {
        trace(kIdAttachMain, 0, 0, "Failed to attach to shared memory");
        return FALSE;
    }
    fh::AttachLayout layout;
    if (!fh::attachLayout(layout, static_cast<unsigned char *>(base), segmentSize(components[fh::kAttachMainSegment]),
                          components)) {
        trace(kIdAttachBounds, 0, 0, "Failed to attach shared memory");
        ShmDetach(&base);
        return FALSE;
    }
    TraceSetBuffer(reinterpret_cast<TraceBuffer *>(layout.entry + fh::kEntryTraceRing));
    if (layout.progress != nullptr) {
        trace(kIdAttachProgress, 0, 1, "Progress buffer is at offset %ld",
              static_cast<long>(components[fh::kAttachProgressOffset]));
        c.pProcProgressBuffer = layout.progress;
    }
    char *title = reinterpret_cast<char *>(layout.entry + fh::kEntryTitle);
    title[fh::kEntryTitleBytes - 1] = '\0';
    c.pszProcTitle = title;
    if (title[0] != '\0') ProcSetName(title);
    c.pProcTimeArea = layout.timeArea;
    if (viewer == 1 && !ShmAttachReadOnly(&c.pProcTable, components[fh::kAttachTableSegment])) {
        trace(kIdAttachTable, 0, 0, "Failed to attach to process table");
        return FALSE;
    }
    ProcSetDetails(layout.entry);
    c.pProcMainSegment = static_cast<unsigned char *>(base);
    return TRUE;
}

void *ProcGetProgressBuffer(void) { return gtLmContext.pProcProgressBuffer; }

void *ProcGetKeelTimeArea(void) { return gtLmContext.pProcTimeArea; }

void *ProcGetProcessTable(void) { return gtLmContext.pProcTable; }

void *ProcShmAddress(int32_t offset) {
    unsigned char *base = gtLmContext.pProcMainSegment;
    return base != nullptr ? base + offset : nullptr;
}

void ProcSetDetails(void *entry) { gtLmContext.pProcessTableEntry = static_cast<unsigned char *>(entry); }

const char *ProcTitle(void) { return gtLmContext.pszProcTitle; }

void ProcSetTitle(const char *title) {
    char *to = gtLmContext.pszProcTitle;
    if (title == nullptr || to == nullptr) return;
    const size_t length = std::min(strlen(title), fh::kEntryTitleBytes - 1);
    memcpy(to, title, length);
    to[length] = '\0';
}
