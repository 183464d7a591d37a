/*
 * msgtimer.h - the message that carries an expired timer.
 *
 * Timers are not signals: when one expires, the process puts this message
 * on its own receive list, and its wait delivers it like any other.
 */
#ifndef FHCORE_MESSAGES_MSGTIMER_H
#define FHCORE_MESSAGES_MSGTIMER_H

#include "msgfamily.h"

/* One id, standing alone. */
#define FH_MSG_FAMILY_TIMER(FIRST, NAME, SKIP) FIRST(TIMER_CALLBACK_MSG, 41001)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_TIMER)

#endif /* FHCORE_MESSAGES_MSGTIMER_H */
