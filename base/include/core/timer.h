/*
 * timer.h - routines called at a given moment, in the program's own wait.
 *
 * There is no timer thread and no signal. Pending events are a list in the
 * context, sorted latest first; the receive layer limits its select by the
 * earliest (TimrNextEvent) and expires what is due (TimrClearTimers). An
 * expired event becomes a TIMER_CALLBACK_MSG that the process sends to
 * itself, so its routine runs in order with every other message, where the
 * program waits. A timer fires once.
 *
 * A TIMER_CALLBACK holds a routine and a cookie as plain pointers: it means
 * something only in the process that made it, and a TIMER_CALLBACK_MSG read
 * from any socket is dropped.
 *
 * An event refers to the caller's TIME_TIMEOUT: a later change of that
 * object changes the moment at which the event is looked at, but not its
 * place in the list, which is fixed when it is set.
 *
 * The never value. TimrSetAlarm refuses a timeout that is never when it is
 * set: such an event has no moment to sort by and would never fire. A
 * timeout that the caller turns to never after setting it holds back, while
 * it is the earliest event, the events that were set in front of it, until
 * TimrResetAlarm removes it.
 */
#ifndef FHCORE_TIMER_H
#define FHCORE_TIMER_H

#include "context.h"
#include "object.h"
#include "timeout.h"
#include "types.h"

FH_BEGIN_DECLS

#define TIMER_CALLBACK_MAGIC 0xCA18F97Au
#define TIMER_CALLBACK_FORMAT "p;p;"
#define TIMR_EVENT_MAGIC 0xC920FCDFu
#define TIMR_EVENT_FORMAT "o;o;"

/* The routine of a timer; the default handler of TIMER_CALLBACK_MSG calls it
 * with the cookie. */
typedef void (*TIMER_ROUTINE)(void *cookie);

/* The body of TIMER_CALLBACK_MSG. */
typedef struct TIMER_CALLBACK {
    TIMER_ROUTINE pfnRoutine;
    void *pCookie; /* a plain pointer value, not an object */
} TIMER_CALLBACK;

/* A pending event: its callback, and the caller's timeout with a reference. */
typedef struct TIMR_EVENT {
    TIMER_CALLBACK *oCallback;
    TIME_TIMEOUT *oTimeout;
} TIMR_EVENT;

/* The templates of the two types. */
extern FHAPI ObjectTemplate *gtObjTemplateTimerCallback;
extern FHAPI ObjectTemplate *gtObjTemplateTimrEvent;

/* Sets an event due at timeout, which must be a TIME_TIMEOUT that is not
 * never; the event holds a reference to it. FALSE, nothing set, otherwise. */
FHAPI BOOL TimrSetAlarm(TIMER_ROUTINE routine, void *cookie, TIME_TIMEOUT *timeout);

/* Sets an event due offset (a TIME_OFFSET) from now, on a timeout of its
 * own. FALSE, nothing set, for anything else. */
FHAPI BOOL TimrSetAlarmRelative(TIMER_ROUTINE routine, void *cookie, const TIME_OFFSET *offset);

/* Removes the first event, counted from the latest, with this routine and
 * cookie. FALSE if there is none: an expired event is gone, even while its
 * message waits on the receive list. */
FHAPI BOOL TimrResetAlarm(TIMER_ROUTINE routine, void *cookie);

/* The context's timeout, set to the moment of the earliest event, or never
 * when none is pending. Borrowed: valid until the next call. Null before
 * TimerInitializeThread. */
FHAPI TIME_TIMEOUT *TimrNextEvent(void);

/* Expires timers: each event whose moment has come, earliest first, leaves
 * the list and its TIMER_CALLBACK goes to the process itself as
 * TIMER_CALLBACK_MSG. */
FHAPI void TimrClearTimers(void);

/* The module's part of the context ladder. */
FHAPI BOOL TimerInitialize(void);
FHAPI BOOL TimerInitializeThread(LmContext *context);
FHAPI void TimerReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_TIMER_H */
