// timer.cpp - timers: routines called at a moment, through messages to self.
//
// The context holds a LIST of TIMR_EVENT sorted by moment, latest first, so
// that the earliest event is the last item and expiring pops from the end.
// Each event holds its TIMER_CALLBACK and a reference to a TIME_TIMEOUT,
// the caller's own for TimrSetAlarm, so the moment is read from that object
// whenever it is compared. The context's second object, the next alarm,
// is what TimrNextEvent hands out and the clock reading of a sweep.
//
// Insertion keeps two tie rules: an event whose moment is not later than the
// earliest goes behind it (and fires before it); any other goes in front of
// the first item whose moment is not later than its own (and fires after
// the items it ties with).
#include "core/timer.h"

#include "core/list.h"
#include "core/memory.h"
#include "core/msgsend.h"
#include "core/object.h"
#include "core/timeout.h"
#include "messages/msgtimer.h"
#include "objcore.h"
#include "tracer.h"

ObjectTemplate *gtObjTemplateTimerCallback = nullptr;
ObjectTemplate *gtObjTemplateTimrEvent = nullptr;

namespace {

constexpr fh::ModuleTracer trace{"TIMER        "};

// Trace ids of this module; fixed once chosen.
enum TraceId : int32_t {
    kIdSetRelative = 1,
    kIdSet = 2,
    kIdReset = 3,
    kIdSweep = 4,
    kIdNextEvent = 5,
    kIdNever = 6,
    kIdLost = 7,
};

constinit fh::ObjectType<TIMER_CALLBACK> gCallbackType{TIMER_CALLBACK_MAGIC, TIMER_CALLBACK_FORMAT, nullptr,
                                                       &gtObjTemplateTimerCallback};
constinit fh::ObjectType<TIMR_EVENT> gEventType{TIMR_EVENT_MAGIC, TIMR_EVENT_FORMAT, nullptr, &gtObjTemplateTimrEvent};

LIST *events() { return static_cast<LIST *>(gtLmContext.oTimrEvents); }
TIME_TIMEOUT *nextAlarm() { return static_cast<TIME_TIMEOUT *>(gtLmContext.oTimrNextAlarm); }

TIMR_EVENT *eventOf(const LISTNODE *node) { return static_cast<TIMR_EVENT *>(node->oItem); }

// Whether a is later than b; never is later than any moment.
bool later(const TIME_TIMEOUT *a, const TIME_TIMEOUT *b) {
    if (TimeTimeoutIsNever(a)) return !TimeTimeoutIsNever(b);
    if (TimeTimeoutIsNever(b)) return false;
    return a->iSeconds != b->iSeconds ? a->iSeconds > b->iSeconds : a->iMilliseconds > b->iMilliseconds;
}

// Where an event of moment goes: in front of the node given, or at the end
// for null.
LISTNODE *placeFor(const TIME_TIMEOUT *moment) {
    LIST *list = events();
    if (list->iCount == 0 || !later(moment, eventOf(list->oLast)->oTimeout)) return nullptr;
    LISTNODE *node = list->oFirst;
    while (later(eventOf(node)->oTimeout, moment)) node = node->oNext;
    return node;
}

// Makes the event over timeout (taking a new reference to it) and files it.
bool addEvent(TIMER_ROUTINE routine, void *cookie, TIME_TIMEOUT *timeout) {
    if (events() == nullptr) return false;
    auto *callback = gCallbackType.newInstance(MemGetDefaultPoolId());
    callback->pfnRoutine = routine;
    callback->pCookie = cookie;
    auto *event = gEventType.newInstance(MemGetDefaultPoolId());
    event->oCallback = callback;
    ObjIncRefCount(timeout);
    event->oTimeout = timeout;
    LISTNODE *before = placeFor(timeout);
    const bool filed = before != nullptr ? ListInsertBefore(before, event) : ListAddLastItem(events(), event);
    ObjReleaseInternal(&event);
    return filed;
}

bool setAlarm(TIMER_ROUTINE routine, void *cookie, TIME_TIMEOUT *timeout) {
    if (timeout == nullptr || !ObjCheckTypeInternal(timeout, TIME_TIMEOUT_MAGIC)) return false;
    if (TimeTimeoutIsNever(timeout)) {
        trace(kIdNever, 0, 2, "Refused a timer that is due never");
        return false;
    }
    return addEvent(routine, cookie, timeout);
}

bool setAlarmRelative(TIMER_ROUTINE routine, void *cookie, const TIME_OFFSET *offset) {
    if (offset == nullptr || !ObjCheckTypeInternal(offset, TIME_OFFSET_MAGIC)) return false;
    TIME_TIMEOUT *timeout = nullptr;
    const bool set = TimeCreateTimeout(&timeout) && TimeSetTimeoutFromOffset(timeout, offset) &&
                     addEvent(routine, cookie, timeout);
    ObjReleaseInternal(&timeout);
    return set;
}

bool resetAlarm(TIMER_ROUTINE routine, void *cookie) {
    if (events() == nullptr) return false;
    for (LISTNODE *node = events()->oFirst; node != nullptr; node = node->oNext) {
        const TIMER_CALLBACK *callback = eventOf(node)->oCallback;
        if (callback->pfnRoutine == routine && callback->pCookie == cookie) return ListRemoveItem(node);
    }
    return false;
}

inline void *routineText(TIMER_ROUTINE routine) { return reinterpret_cast<void *>(routine); }

} // namespace

BOOL TimrSetAlarm(TIMER_ROUTINE routine, void *cookie, TIME_TIMEOUT *timeout) {
    const bool set = setAlarm(routine, cookie, timeout);
    trace(kIdSet, 0, 2, "%s = TimrSetAlarm(%p, %p, %p)", fh::boolText(set), routineText(routine), cookie,
          static_cast<void *>(timeout));
    return set;
}

BOOL TimrSetAlarmRelative(TIMER_ROUTINE routine, void *cookie, const TIME_OFFSET *offset) {
    const bool set = setAlarmRelative(routine, cookie, offset);
    trace(kIdSetRelative, 0, 2, "%s = TimrSetAlarmRelative(%p, %p, %p)", fh::boolText(set), routineText(routine),
          cookie, static_cast<const void *>(offset));
    return set;
}

BOOL TimrResetAlarm(TIMER_ROUTINE routine, void *cookie) {
    const bool reset = resetAlarm(routine, cookie);
    trace(kIdReset, 0, 2, "%s = TimrResetAlarm(%p, %p)", fh::boolText(reset), routineText(routine), cookie);
    return reset;
}

TIME_TIMEOUT *TimrNextEvent(void) {
    TIME_TIMEOUT *next = nextAlarm();
    if (next == nullptr) return nullptr;
    if (events()->iCount == 0)
        TimeSetTimeoutNever(next);
    else
        TimeTimeoutCopy(next, eventOf(events()->oLast)->oTimeout);
    return next;
}

void TimrClearTimers(void) {
    LIST *list = events();
    if (list == nullptr || list->iCount == 0) return;
    TIME_TIMEOUT *now = nextAlarm();
    TimeSetTimeoutNow(now);
    trace(kIdSweep, 0, 2, "Timer at %ld.%03ld", static_cast<long>(now->iSeconds), static_cast<long>(now->iMilliseconds));
    while (list->iCount > 0) {
        const TIMR_EVENT *event = eventOf(list->oLast);
        const TIMER_CALLBACK *callback = event->oCallback;
        trace(kIdNextEvent, 0, 2, "Next Event (%p, %p) at %ld.%03ld", routineText(callback->pfnRoutine),
              callback->pCookie, static_cast<long>(event->oTimeout->iSeconds),
              static_cast<long>(event->oTimeout->iMilliseconds));
        if (!TimeTimeoutHasExpiredRelative(event->oTimeout, now)) return;
        // An event that can't be queued is dropped all the same: kept, it
        // would fail again at every sweep. Its loss is said here.
        if (!MsgSendObjectToSelf(TIMER_CALLBACK_MSG, callback))
            trace(kIdLost, 0, -1, "Lost timer (%p, %p): its message could not be queued",
                  routineText(callback->pfnRoutine), callback->pCookie);
        ListRemoveLastItem(list);
    }
}

BOOL TimerInitialize(void) { return gCallbackType.declare() && gEventType.declare(); }

BOOL TimerInitializeThread(LmContext *context) {
    context->oTimrEvents = ListNewFromPool(TIMR_EVENT_MAGIC, MemGetDefaultPoolId());
    TIME_TIMEOUT *next = nullptr;
    if (!TimeCreateTimeout(&next)) return FALSE;
    context->oTimrNextAlarm = next;
    return context->oTimrEvents != nullptr;
}

void TimerReleaseThread(LmContext *context) {
    ObjReleaseInternal(&context->oTimrEvents);
    ObjReleaseInternal(&context->oTimrNextAlarm);
}
