// shm.cpp - System V shared memory segments and the keys of an installation.
//
// A key is built from the executable of the process manager: its index in
// the top byte, the low byte of its device and the low 16 bits of its node
// number below. The path is found once and kept for the life of the process.
// Each process counts its allocation index from 0, once per ShmAllocate,
// whether the call succeeds or not, so an index is never used twice; the
// segments it made stand on the context's segment list (SHM_SEGMENT items)
// until ShmFree or the context's release removes them.
//
// ShmCopy survives a fault on either side: it sets handlers that jump back to
// one static place saved with the signal mask, and puts the former handlers
// back on both paths.
#include "core/shm.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <csetjmp>
#include <csignal>
#include <cstring>
#include <unistd.h>

#include "core/config.h"
#include "core/file.h"
#include "core/list.h"
#include "core/memory.h"
#include "core/path.h"
#include "core/proc.h"
#include "core/stanza.h"
#include "core/sys.h"
#include "core/syssignal.h"
#include "objcore.h"
#include "proctable.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"SHM        "};
constexpr fh::ModuleTracer ipcTrace{"IPC        "};

enum TraceId : int32_t {
    kIdKeyIndex = 1,
    kIdKeyLocating,
    kIdKeyNoPath,
    kIdKeyFailed,
    kIdInitStatus,
    kIdInitRemoving,
    kIdInitInUse,
    kIdAllocateFailed,
    kIdAllocateArgument,
    kIdFreeFailed,
    kIdAttach,
    kIdDetach,
    kIdCopyFault,
};

// A refusal (EPERM) of a removal is asked again after a second, this often
// at most: a refusal that never ends must not hang the process.
constexpr int kRemoveRetries = 3;
constexpr int kAnyone = 0777;

constinit fh::ObjectType<SHM_SEGMENT> gSegmentType{SHM_SEGMENT_MAGIC, SHM_SEGMENT_FORMAT};

// The executable the keys come from; empty until the first successful
// IpcGetKey finds it.
char gKeyPath[4096];

bool findKeyPath() {
    ipcTrace(kIdKeyLocating, 0, 1, "Locating path for IPC key generation");
    StanzaKey *key = nullptr;
    const char *first = CfgGetKey("programs.cfg", "Process Manager", "unix", &key) ? StnzKeyValue(key, 1) : nullptr;
    if (first == nullptr) {
        if (key != nullptr) StnzReleaseKey(&key);
        ipcTrace(kIdKeyNoPath, 0, 0, "Invalid programs file?");
        return false;
    }
    char *path = PathHomeBuild(first, static_cast<char *>(nullptr));
    StnzReleaseKey(&key);
    const bool fits = path != nullptr && strlen(path) < sizeof gKeyPath;
    if (fits) strcpy(gKeyPath, path);
    if (path != nullptr) MemFreeInternal(&path);
    return fits;
}

// Removes a segment, asking again after a second while the system answers
// EPERM, up to the bound. The last answer's errno stays for the caller.
bool removeSegment(int32_t id) {
    for (int attempt = 0;; ++attempt) {
        if (shmctl(id, IPC_RMID, nullptr) == 0) return true;
        if (errno != EPERM || attempt == kRemoveRetries) return false;
        sleep(1);
    }
}

// What ShmInitialize does with the segment under one key: false stops it.
bool clearStale(int32_t key) {
    const int id = shmget(key, 0, kAnyone);
    if (id < 0) return true;
    struct shmid_ds status;
    if (shmctl(id, IPC_STAT, &status) != 0) {
        const int error = errno;
        trace(kIdInitStatus, error, 0, "ShmInitialize: failed to get status of shared memory block 0x%x, (%d) %s",
              static_cast<unsigned>(key), error, strerror(error));
        return false;
    }
    if (status.shm_nattch != 0) {
        trace(kIdInitInUse, 0, 0, "ShmInitialize: Lathmere shared memory key 0x%x is in use",
              static_cast<unsigned>(key));
        return false;
    }
    trace(kIdInitRemoving, 0, 0, "ShmInitialize: Removing unused shared memory with key 0x%x",
          static_cast<unsigned>(key));
    removeSegment(id); // any failure counts as done
    return true;
}

LIST *segmentList() { return static_cast<LIST *>(gtLmContext.oShmSegmentList); }

void forgetSegment(int32_t id) {
    LIST *list = segmentList();
    if (list == nullptr) return;
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext) {
        if (static_cast<SHM_SEGMENT *>(node->oItem)->iId == id) {
            ListRemoveItem(node);
            return;
        }
    }
}

bool attach(void **address, int32_t id, int flags) {
    if (address == nullptr || id == -1) {
        trace(kIdAttach, 0, 1, "ShmAttach(%ld) failed: no address or no segment", static_cast<long>(id));
        return false;
    }
    void *at = shmat(id, nullptr, flags);
    if (at == reinterpret_cast<void *>(-1)) {
        const int error = errno;
        trace(kIdAttach, error, 1, "ShmAttach(%ld) failed: (%d) %s", static_cast<long>(id), error, strerror(error));
        return false;
    }
    *address = at;
    return true;
}

// The place a fault inside ShmCopy jumps back to. One copy runs at a time:
// the library has one thread of control per process.
sigjmp_buf gCopyPlace;

void jumpBack(int) { siglongjmp(gCopyPlace, 1); }

// Byte by byte through volatile pointers, so that the access that faults is
// ours and not inside a library routine.
void copyBytes(void *destination, const void *source, size_t length) {
    auto *to = static_cast<volatile unsigned char *>(destination);
    auto *from = static_cast<const volatile unsigned char *>(source);
    for (size_t i = 0; i < length; ++i) to[i] = from[i];
}

} // namespace

BOOL IpcGetKey(int32_t *key, int32_t index) {
    if (key == nullptr || index < 0 || index >= IPC_KEY_COUNT) {
        ipcTrace(kIdKeyIndex, 0, 0, "Failed to get IPC key (%x,%x)", static_cast<unsigned>(index), 0u);
        return FALSE;
    }
    SYS_STAT status;
    if ((gKeyPath[0] == '\0' && !findKeyPath()) || !FileStat(&status, gKeyPath, 1)) {
        ipcTrace(kIdKeyFailed, errno, 0, "Failed to get IPC key (%x,%x)", static_cast<unsigned>(index),
                 static_cast<unsigned>(errno));
        return FALSE;
    }
    const uint32_t value = static_cast<uint32_t>(index) << 24 | (static_cast<uint32_t>(status.device) & 0xFF) << 16 |
                           (static_cast<uint32_t>(status.inode) & 0xFFFF);
    *key = static_cast<int32_t>(value);
    return TRUE;
}

BOOL ShmInitialize(void) {
    if (ProcGetId() != 1) return TRUE;
    for (int32_t index = 0; index < IPC_KEY_COUNT; ++index) {
        int32_t key = 0;
        if (!IpcGetKey(&key, index) || !clearStale(key)) return FALSE;
    }
    return TRUE;
}

BOOL ShmInitializeThread(LmContext *context) {
    if (!gSegmentType.declare()) return FALSE;
    return ListCreateFromPool(reinterpret_cast<LIST **>(&context->oShmSegmentList), SHM_SEGMENT_MAGIC, nullptr);
}

void ShmReleaseThread(LmContext *context) {
    LIST *list = static_cast<LIST *>(context->oShmSegmentList);
    if (list == nullptr) return;
    for (LISTNODE *node = list->oFirst; node != nullptr; node = node->oNext)
        removeSegment(static_cast<SHM_SEGMENT *>(node->oItem)->iId);
    ObjReleaseInternal(&context->oShmSegmentList);
}

BOOL ShmAllocate(int32_t *id, int32_t size) {
    if (id == nullptr || size < 1)
        return trace.fault(FALSE, kIdAllocateArgument, 0, "ShmAllocate: no id or a size of %ld",
                           static_cast<long>(size));
    const int32_t index = gtLmContext.iShmNextIndex++;
    int32_t key = 0;
    if (!IpcGetKey(&key, index)) return FALSE;
    const int made = shmget(key, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | kAnyone);
    if (made < 0) {
        const int error = errno;
        trace(kIdAllocateFailed, error, 0, "failed to get %ld byes of shared memory: (%d) %s",
              static_cast<long>(size), error, strerror(error));
        return FALSE;
    }
    auto *item = gSegmentType.newInstance(nullptr);
    if (item == nullptr || !ListAddLastItem(segmentList(), item)) {
        if (item != nullptr) ObjReleaseInternal(&item);
        shmctl(made, IPC_RMID, nullptr);
        return FALSE;
    }
    item->iId = made;
    ObjReleaseInternal(&item); // the list holds it
    *id = made;
    return TRUE;
}

BOOL ShmFree(int32_t *id) {
    if (id == nullptr) return FALSE;
    const bool removed = removeSegment(*id);
    if (!removed) {
        const int error = errno;
        trace(kIdFreeFailed, error, 1, "ShmFree(%ld) failed: (%d) %s", static_cast<long>(*id), error,
              strerror(error));
    }
    forgetSegment(*id);
    *id = -1;
    return removed;
}

BOOL ShmAttach(void **address, int32_t id) { return attach(address, id, 0); }

BOOL ShmAttachReadOnly(void **address, int32_t id) { return attach(address, id, SHM_RDONLY); }

BOOL ShmDetach(void **address) {
    if (address == nullptr || *address == reinterpret_cast<void *>(-1) || shmdt(*address) != 0) {
        trace(kIdDetach, errno, 1, "ShmDetach failed");
        return FALSE;
    }
    *address = reinterpret_cast<void *>(-1);
    return TRUE;
}

BOOL ShmCopy(void *destination, const void *source, int32_t length) {
    if (length <= 0) return TRUE;
    const SigHandler formerSegv = SigSet(SIGSEGV, jumpBack);
    const SigHandler formerBus = SigSet(SIGBUS, jumpBack);
    volatile bool copied = false;
    if (sigsetjmp(gCopyPlace, 1) == 0) {
        copyBytes(destination, source, static_cast<size_t>(length));
        copied = true;
    }
    SigSet(SIGSEGV, formerSegv);
    SigSet(SIGBUS, formerBus);
    if (!copied) trace(kIdCopyFault, 0, 1, "ShmCopy of %ld bytes faulted", static_cast<long>(length));
    return copied ? TRUE : FALSE;
}

void ShmSetId(int32_t *address, int32_t id) {
    if (address != nullptr) *address = id;
}
