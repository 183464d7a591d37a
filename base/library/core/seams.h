// seams.h - what tests and fuzz targets switch inside the library, and
// nothing else calls. Each seam is defined by the module it names.
#ifndef FHCORE_SEAMS_H
#define FHCORE_SEAMS_H

#include <cstdint>

#include "core/types.h"

struct ObjectTemplate;
struct MSG_ADDRESS;
struct MSG_MESSAGE;

namespace fh {

// The process-wide crash flag that ProcCrash(0) consults.
void contextSetCrashFlag(bool on);
bool contextCrashFlag();

// The module whose Initialize or InitializeThread carries this failure code
// fails as if it had returned FALSE. 0 switches a seam off.
void contextFailInitialize(int32_t code);
void contextFailInitializeThread(int32_t code);

// For the fuzz target: takes out of the table and frees every template made
// for a received format that no object uses, so that a long run keeps
// meeting new types rather than the bound of the process.
void objectForgetUnusedForeignTemplates();

// Builds a template outside the table and frees it again: how a format that
// arrived from elsewhere is parsed, for the fuzz target.
ObjectTemplate *objectTemplateBuild(int32_t size, uint32_t magic, const char *format);
void objectTemplateFree(ObjectTemplate *objectTemplate);

// The file the home directory is registered in, and the mount table (null
// puts the system's back).
void pathRegistryFile(const char *file);
void pathMountTable(const char *file);

// Forgets the machine name, so that the next SysLocalMachineName looks it up
// again.
void sysForgetMachineName();

// The template that ProcApiInitialize reports by this code (45 to 48)
// fails as if it could not be made. 0 switches the seam off.
void procApiFailTemplate(int32_t reportCode);

// StrCompare with 16-byte blocks even where the processor has wider ones, so
// that both bodies are tested on one machine.
int32_t strCompareNarrow(const char *a, const char *b);

// What the default handlers of the message wait do beyond the process: open
// a data channel back to a task's caller, complete one that a peer asked
// for, end the process. A fuzz target that feeds the handlers bodies from
// anywhere puts its own in; a null member (or table) puts the library's
// back. endProcess of the library is ProcCleanup(0).
struct MsgWaitActions {
    BOOL (*openChannel)(MSG_ADDRESS **channelAddress, const MSG_ADDRESS *peer, void *peerCookie, void *localCookie,
                        BOOL isBlocking, BOOL isSynchronous, BOOL waitForOk);
    BOOL (*completeChannel)(MSG_ADDRESS **channelAddress, const MSG_MESSAGE *message, BOOL isBlocking,
                            BOOL isSynchronous, BOOL sendOk);
    void (*endProcess)();
};
void msgWaitSetActions(const MsgWaitActions *actions);

} // namespace fh

#endif // FHCORE_SEAMS_H
