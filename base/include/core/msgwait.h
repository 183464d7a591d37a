/*
 * msgwait.h - the message wait: waiting for one reply while everything else
 * that arrives is served.
 *
 * A wait receives messages one by one. A wanted message ends it and goes to
 * the caller, without being shown to anyone else. Every other message goes
 * to the handlers that the program added for its type, newest first, and
 * then to the default handlers, which answer pings, complete channels, fire
 * timers and give eMsgWaitResultExit when the process is to end. A handler
 * may wait itself: the wait depth counts the handler runs under way. A
 * message that nobody takes is dropped at depth 0 (unless the program keeps
 * unhandled messages); deeper, it is held and put back at the front of the
 * receive list, in its order, when that wait ends, for the level below.
 *
 * With a source, a wait also ends (FALSE) on news that the source is gone:
 * its machine down, the channel to it down, its death, or word from the
 * communication manager that it can't be reached.
 */
#ifndef FHCORE_MSGWAIT_H
#define FHCORE_MSGWAIT_H

#include "context.h"
#include "msgpacket.h"
#include "timeout.h"
#include "types.h"

FH_BEGIN_DECLS

/* The one scale of handler results and wait results. */
#define FH_MSG_WAIT_RESULTS(X)                                                                                         \
    X(eMsgWaitResultError, -1)                                                                                         \
    X(eMsgWaitResultHandled, 0)                                                                                        \
    X(eMsgWaitResultNotHandled, 1)                                                                                     \
    X(eMsgWaitResultExit, 2)                                                                                           \
    X(eMsgWaitResultTimeout, 3)                                                                                        \
    X(eMsgWaitResultKillRequest, 4)                                                                                    \
    X(eMsgWaitResultPeerDied, 5)                                                                                       \
    X(eMsgWaitResultIpcError, 6)                                                                                       \
    X(eMsgWaitResultChannelError, 7)                                                                                   \
    X(eMsgWaitResultInvalidArgument, 8)                                                                                \
    X(eMsgWaitResultDecodeError, 9)                                                                                    \
    X(eMsgWaitResultSuccess, 10)
#define FH_MSG_WAIT_RESULT_ENUM(name, value) name = (value),
typedef enum MsgWaitResult { FH_MSG_WAIT_RESULTS(FH_MSG_WAIT_RESULT_ENUM) } MsgWaitResult;
#undef FH_MSG_WAIT_RESULT_ENUM

/* A handler: the message (borrowed) and the cookie it was added with; a
 * result of the scale above. */
typedef int32_t (*MsgWaitHandlerFunction)(MSG_MESSAGE *message, void *cookie);

#define MSG_WAIT_HANDLER_MAGIC 0xCB18EE18u
#define MSG_WAIT_HANDLER_FORMAT "i;o;p;b;"
typedef struct MSG_WAIT_HANDLER {
    int32_t iType;
    void *oCookie; /* any object, or null; the entry holds a reference */
    MsgWaitHandlerFunction pfnRoutine;
    BOOL bRemoved; /* removed during a handler run: skipped, and gone at depth 0 */
} MSG_WAIT_HANDLER;

/* The callback of MsgWaitOnCallbackWithTimeout: TRUE ends the wait, with
 * what it left in *result. */
typedef BOOL (*MsgWaitCallbackFunction)(int32_t *result, void *cookie);

/* ---- Handlers --------------------------------------------------------------- */

/* Adds a handler for type in front of the list, so that it sees a message
 * before older ones; the entry takes a reference to cookie. FALSE, nothing
 * added, for a null routine or a cookie that isn't an object. */
FHAPI BOOL MsgWaitAddHandler(int32_t type, MsgWaitHandlerFunction routine, void *cookie);

/* Removes the first live entry with all three equal: during a handler run
 * it is marked and goes when the depth is back at 0, else at once. FALSE if
 * there is none. */
FHAPI BOOL MsgWaitRemoveHandler(int32_t type, MsgWaitHandlerFunction routine, void *cookie);

/* The same for every entry with cookie, which must be an object; anything
 * else does nothing. */
FHAPI void MsgWaitRemoveHandlerByCookie(void *cookie);

/* For the life of the process: the default handlers handle nothing; and
 * messages that nobody takes at depth 0 are kept and put back. */
FHAPI void MsgWaitDisableDefaultHandlers(void);
FHAPI void MsgWaitKeepUnhandledMessages(void);

/* The number of handler runs under way. */
FHAPI int32_t MsgWaitDepth(void);

/* Applies the default handlers to message; the result of the scale. */
FHAPI int32_t MsgWaitDefaultHandlers(MSG_MESSAGE *message);

/* The name of a result, "UNKNOWN" outside the scale. */
FHAPI const char *MsgWaitResultString(int32_t code);

/* ---- Waiting ------------------------------------------------------------------ */

/* Waits for a message of one of types (ended by -1) from source (null: any
 * sender) until timeout (null: no limit). TRUE when one came; *message, if
 * given, gets it (the caller's). FALSE on a time-out, a handler's result
 * other than Handled and NotHandled, or news that the source is gone. */
FHAPI BOOL MsgWaitMultipleMessagesWithTimeout(MSG_MESSAGE **message, const void *source, const int32_t *types,
                                              const TIME_TIMEOUT *timeout);
/* The same for one type. */
FHAPI BOOL MsgWaitMessageWithTimeout(MSG_MESSAGE **message, const void *source, int32_t type,
                                     const TIME_TIMEOUT *timeout);

/* Serves messages until callback gives TRUE (the result is what it left in
 * its result word, -1 at first), the timeout expires (eMsgWaitResultTimeout)
 * or a handler gives a result other than Handled and NotHandled (that
 * result). eMsgWaitResultInvalidArgument for a null callback. */
FHAPI int32_t MsgWaitOnCallbackWithTimeout(MsgWaitCallbackFunction callback, void *cookie,
                                           const TIME_TIMEOUT *timeout);

/* Serves what is there: the first receive with timeout, the next ones
 * immediate, until the list is empty. filter, if any, sees each message
 * first, as a handler. Keeps no message. FALSE when a result other than
 * Handled and NotHandled came: the process is to stop. */
FHAPI BOOL MsgWaitPollWithTimeoutAndFilter(const TIME_TIMEOUT *timeout, MsgWaitHandlerFunction filter, void *cookie);
FHAPI BOOL MsgWaitPollWithTimeout(const TIME_TIMEOUT *timeout);
FHAPI BOOL MsgWaitPoll(void);

/* Waits for type from source, which must be on this machine, running no
 * handler at all: only a kill request, the source's channel down or death,
 * and the loss of the IPC channel end it besides. Other packets are put
 * back in their order afterwards. A result of the scale; with
 * eMsgWaitResultSuccess, *message (if given) gets the message. */
FHAPI int32_t MsgWaitExclusiveWithTimeout(MSG_MESSAGE **message, const void *source, int32_t type,
                                          const TIME_TIMEOUT *timeout);

/* Sends sendObject to address as sendType and waits for replyType from
 * there: without a limit, or for seconds (0: no limit). With replyMagic 0
 * any reply is success; otherwise the body must have that magic. *object,
 * if given, gets the body (the caller's). FALSE at once when the send
 * fails. */
FHAPI BOOL MsgWaitInterchangeInternal(void **object, const void *address, int32_t sendType, const void *sendObject,
                                      int32_t replyType, uint32_t replyMagic);
FHAPI BOOL MsgWaitInterchangeTimeoutInternal(void **object, const void *address, int32_t sendType,
                                             const void *sendObject, int32_t replyType, uint32_t replyMagic,
                                             int32_t seconds);

/* The module's part of the context ladder: the immediate timeout, and the
 * handler list of the context. */
FHAPI BOOL MsgWaitInitialize(void);
FHAPI BOOL MsgWaitInitializeThread(LmContext *context);
FHAPI void MsgWaitReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_MSGWAIT_H */
