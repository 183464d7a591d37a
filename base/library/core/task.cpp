// task.cpp - the task context: which server a task runs for, that server's
// version and patch level, and the objects the caller passes along.
//
// A TASK_CONTEXT is a plain object of "s;i;i;o;o;". Its objects stand in an
// extension list (ListSetExtensionItem), at most one of each magic; the list
// is made by the first object set. The current context is held in the
// context record with one reference (oMsgTaskContext); the message layer
// sets it too, when a task arrives for a process of the old plain form.
//
// A current context may have come from another machine. A reader takes its
// fields only once the object has the magic and exactly the format of a
// TASK_CONTEXT, and the list calls refuse a component that is not a LIST.
#include "core/task.h"

#include "core/context.h"
#include "core/list.h"
#include "core/machinfo.h"
#include "core/object.h"
#include "core/strbase.h"
#include "core/sys.h"
#include "objcore.h"
#include "tracer.h"

namespace {

constexpr fh::ModuleTracer trace{"TASK        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdChanged = 1,
    kIdNewContext = 2,
    kIdSetBadArgs = 3,
    kIdGetBadArgs = 4,
    kIdNotAContext = 5,
};

constinit fh::ObjectType<TASK_CONTEXT> gContextType{TASK_CONTEXT_MAGIC, TASK_CONTEXT_FORMAT, fh::kReceivable};

TASK_CONTEXT *contextOf(const void *object) {
    return fh::objectShaped<TASK_CONTEXT>(object, TASK_CONTEXT_MAGIC, TASK_CONTEXT_FORMAT);
}

const TASK_CONTEXT *current() { return contextOf(gtLmContext.oMsgTaskContext); }

} // namespace

BOOL TaskInitialize(void) { return gContextType.declare(); }

BOOL TaskSetTaskContext(void *context) {
    const TASK_CONTEXT *next = contextOf(context);
    if (context != nullptr && next == nullptr) {
        trace(kIdNotAContext, 0, -1, "TaskSetTaskContext(%p) - not a task context", context);
        return FALSE;
    }
    if (context != nullptr) ObjIncRefCount(context);
    ObjReleaseInternal(&gtLmContext.oMsgTaskContext);
    gtLmContext.oMsgTaskContext = context;
    trace(kIdChanged, 0, 2, "Task context changed to %p", context);
    if (next != nullptr)
        trace(kIdNewContext, 0, 2, "New task context for server '%s', version %s, patch level %ld",
              next->pszServer != nullptr ? next->pszServer : "", MachInfoLMVersionStringFromLMVersion(next->iVersion),
              static_cast<long>(next->iPatchLevel));
    return TRUE;
}

BOOL TaskCreateContext(TASK_CONTEXT **context) {
    if (context == nullptr || !gContextType.declare()) return FALSE;
    TASK_CONTEXT *made = gContextType.newInstance(nullptr);
    if (made == nullptr) return FALSE;
    const char *local = SysLocalMachineName();
    BOOL server = FALSE;
    if (local != nullptr && MachInfoIsLMServer(&server, local) && server) {
        made->pszServer = StrDuplicateIntoPool(local, nullptr);
        MachInfoGetLMVersion(&made->iVersion, local);
        MachInfoGetLMPatchLevel(&made->iPatchLevel, local);
    }
    *context = made;
    return TRUE;
}

const char *TaskGetServerName(void) { return current() != nullptr ? current()->pszServer : nullptr; }
int32_t TaskGetServerVersion(void) { return current() != nullptr ? current()->iVersion : 0; }
int32_t TaskGetServerPatchLevel(void) { return current() != nullptr ? current()->iPatchLevel : 0; }

BOOL TaskSetContextObject(TASK_CONTEXT *context, void *object) {
    if (contextOf(context) == nullptr || object == nullptr)
        return trace.fault(FALSE, kIdSetBadArgs, 0, "TaskSetContextObject(%p, %p) - bad args",
                           static_cast<void *>(context), object);
    return ListSetExtensionItem(&context->oObjects, object);
}

BOOL TaskGetContextObject(void **object, const TASK_CONTEXT *context, uint32_t magic) {
    if (object == nullptr || contextOf(context) == nullptr)
        return trace.fault(FALSE, kIdGetBadArgs, 0, "TaskGetContextObjectld(%p, %p, ) - bad args",
                           static_cast<void *>(object), static_cast<const void *>(context));
    *object = nullptr;
    return ListGetExtensionItem(object, context->oObjects, magic);
}
