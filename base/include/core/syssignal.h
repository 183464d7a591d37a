/*
 * syssignal.h - signal handlers and critical sections.
 *
 * Handlers set here run with the notify set (SIGALRM) held, and without
 * SA_RESTART: a system call that a handled signal interrupts comes back with
 * EINTR. The file layer repeats such calls; the socket layer hands the
 * interruption back to its caller.
 *
 * SigNotifyStop and SigNotifyStart bracket a critical section in which
 * SIGALRM is held. Sections nest, and a handler counts as one between
 * SigEnteringHandler and SigLeavingHandler: only the outermost
 * SigNotifyStart releases the signal, so code that a handler also reaches
 * may use them freely. Until SigInitialize has run they do nothing.
 */
#ifndef FHCORE_SYSSIGNAL_H
#define FHCORE_SYSSIGNAL_H

#include <signal.h>
#include <sys/select.h> /* sigset_t, also for strict C */

#include "types.h"

FH_BEGIN_DECLS

/* A signal handler, as sigaction takes it; SIG_DFL and SIG_IGN too. */
typedef void (*SigHandler)(int sig);

/* Installs handler for signal with the notify set as its mask and no flags;
 * gives the handler that was there, or SIG_ERR (nothing changed) when the
 * platform refuses. */
FHAPI SigHandler SigSet(int32_t sig, SigHandler handler);

/* The handler installed for signal; SIG_ERR for a signal that has none. */
FHAPI SigHandler SigGet(int32_t sig);

/* SigSet with SIG_IGN. */
FHAPI SigHandler SigIgnore(int32_t sig);

/* Block or unblock one signal, a set, or (SigHoldAll) every signal; each
 * gives the result of sigprocmask: 0, or -1 with errno set. */
FHAPI int32_t SigHold(int32_t sig);
FHAPI int32_t SigRelease(int32_t sig);
FHAPI int32_t SigHoldSet(const sigset_t *set);
FHAPI int32_t SigReleaseSet(const sigset_t *set);
FHAPI int32_t SigHoldAll(void);

/* Ignores signals 1 to 32 (those that can be ignored), with every signal
 * held meanwhile, then restores the mask; gives the result of restoring. */
FHAPI int32_t SigIgnoreAll(void);

/* Waits for a signal other than signal: while it waits, the mask holds
 * signal alone, so signal stays pending and any other signal that has a
 * handler ends the wait. Afterwards signal is unblocked, so a pending one is
 * handled before the call returns. Gives the result of that unblocking. */
FHAPI int32_t SigPause(int32_t sig);

/* Start and end of a critical section in which SIGALRM is held; see above. */
FHAPI void SigNotifyStop(void);
FHAPI void SigNotifyStart(void);

/* A handler counts as a critical section between these two. */
FHAPI void SigEnteringHandler(void);
FHAPI void SigLeavingHandler(void);

/* Always 0: nothing sets it. */
FHAPI int32_t SigErrorCode(void);

/* Traces that signal handling ends; changes nothing. */
FHAPI void SigCleanup(void);

/* The module's part of the context ladder: SigInitialize builds the notify
 * set and switches the critical sections on. */
FHAPI BOOL SigInitialize(void);
FHAPI BOOL SigInitializeThread(void);
FHAPI void SigReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_SYSSIGNAL_H */
