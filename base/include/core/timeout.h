/*
 * timeout.h - deadlines and spans: TIME_TIMEOUT and TIME_OFFSET.
 *
 * All waiting in the system is against a TIME_TIMEOUT, an absolute moment
 * of the wall clock (seconds since 1970 and milliseconds 0 to 999), so that
 * a deadline passes down through any number of calls without recounting
 * what is left. A TIME_OFFSET is a span from which a deadline is made.
 *
 * Two timeout values are special: never (-1, -1), which a new timeout has
 * and which does not expire, and immediate (0, 0), simply a moment in the
 * past. A null timeout reads as never. After a span is added, milliseconds
 * above 999 carry into the seconds.
 *
 * Operations give TRUE or FALSE, FALSE for a null argument, unless a
 * comment says otherwise. Objects made here belong to the caller.
 */
#ifndef FHCORE_TIMEOUT_H
#define FHCORE_TIMEOUT_H

#include <sys/time.h>

#include "context.h"
#include "types.h"

FH_BEGIN_DECLS

#define TIME_TIMEOUT_MAGIC 0xCA1CEA91u
#define TIME_OFFSET_MAGIC 0xCA1CEAB8u
#define TIME_TIMEOUT_FORMAT "i;i;"
#define TIME_OFFSET_FORMAT "i;i;"

typedef struct TIME_TIMEOUT {
    int32_t iSeconds;      /* since 1970; -1 with -1 milliseconds is never */
    int32_t iMilliseconds; /* 0 to 999 */
} TIME_TIMEOUT;

typedef struct TIME_OFFSET {
    int32_t iSeconds;
    int32_t iMilliseconds; /* usually 0 to 999 */
} TIME_OFFSET;

/* New timeouts in *out: never; now plus a span; the value of source. */
FHAPI BOOL TimeCreateTimeout(TIME_TIMEOUT **out);
FHAPI BOOL TimeCreateAndSetTimeout(TIME_TIMEOUT **out, int32_t seconds, int32_t milliseconds);
FHAPI BOOL TimeTimeoutClone(TIME_TIMEOUT **out, const TIME_TIMEOUT *source);

/* A new span in *out, and setting one (a null offset is traced). */
FHAPI BOOL TimeCreateOffset(TIME_OFFSET **out, int32_t seconds, int32_t milliseconds);
FHAPI BOOL TimeSetOffset(TIME_OFFSET *offset, int32_t seconds, int32_t milliseconds);

/* Setting a deadline: absolute seconds (milliseconds 0; a null timeout is a
 * caller's fault); now plus offset; base plus offset; never; immediate; now;
 * the value of source. */
FHAPI BOOL TimeSetTimeout(TIME_TIMEOUT *timeout, int32_t seconds);
FHAPI BOOL TimeSetTimeoutFromOffset(TIME_TIMEOUT *timeout, const TIME_OFFSET *offset);
FHAPI BOOL TimeSetTimeoutRelative(TIME_TIMEOUT *timeout, const TIME_TIMEOUT *base, const TIME_OFFSET *offset);
FHAPI BOOL TimeSetTimeoutNever(TIME_TIMEOUT *timeout);
FHAPI BOOL TimeSetTimeoutImmediate(TIME_TIMEOUT *timeout);
FHAPI BOOL TimeSetTimeoutNow(TIME_TIMEOUT *timeout);
FHAPI BOOL TimeTimeoutCopy(TIME_TIMEOUT *target, const TIME_TIMEOUT *source);

/* Takes the value of other when other is not never and timeout is never or
 * later than other. TRUE unless an argument is null. */
FHAPI BOOL TimeSetTimeoutIfLower(TIME_TIMEOUT *timeout, const TIME_TIMEOUT *other);

/* TRUE for null or the never value. */
FHAPI BOOL TimeTimeoutIsNever(const TIME_TIMEOUT *timeout);

/* TRUE once the deadline is reached (exactly reached counts): against now,
 * or against reference. FALSE for null or never, on either side. */
FHAPI BOOL TimeTimeoutHasExpired(const TIME_TIMEOUT *timeout);
FHAPI BOOL TimeTimeoutHasExpiredRelative(const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference);

/* Milliseconds from now (or reference) to the deadline, 0 when it has
 * passed; -1 for null, and for a difference above 2147482 seconds from a
 * reference. The caller tests for never first. */
FHAPI int32_t TimeTimeoutLeft(const TIME_TIMEOUT *timeout);
FHAPI int32_t TimeTimeoutLeftRelative(const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference);

/* The time left as a timeval for select, never negative: from now, or from
 * reference. */
FHAPI BOOL TimeSetTimeval(struct timeval *out, const TIME_TIMEOUT *timeout);
FHAPI BOOL TimeSetTimevalRelative(struct timeval *out, const TIME_TIMEOUT *timeout, const TIME_TIMEOUT *reference);

/* Seconds since 1970, and milliseconds since 1970. */
FHAPI time_t TimeNow(void);
FHAPI int64_t TimeNowAsInt64(void);

/* The module's part of the context ladder. */
FHAPI BOOL TimeInitialize(void);
FHAPI BOOL TimeInitializeThread(void);
FHAPI void TimeReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_TIMEOUT_H */
