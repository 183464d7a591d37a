/*
 * msgmsg.h - the messages of the channels themselves.
 *
 * Two families: the channel status that a process tells itself (a queue
 * lost, a subsystem failed, a message nobody handled), and the messages
 * that channels exchange (ping and pong, connect and disconnect, flush,
 * tunnels, trace settings, socket hand-over).
 */
#ifndef FHCORE_MESSAGES_MSGMSG_H
#define FHCORE_MESSAGES_MSGMSG_H

#include "msgfamily.h"

/* Channel status: 3 to 11. */
#define FH_MSG_FAMILY_CHANNEL_STATUS(FIRST, NAME, SKIP)                                                                \
    FIRST(MSG_LOST_RECEIVE_QUEUE_MSG, 3)                                                                               \
    NAME(MSG_LOST_SEND_QUEUE_MSG)                                                                                      \
    NAME(MSG_UNEXPECTED_RECEIVE_ERROR_MSG)                                                                             \
    NAME(MSG_UNEXPECTED_SEND_ERROR_MSG)                                                                                \
    NAME(MSG_NO_ADOPTION_FILE_MSG)                                                                                     \
    NAME(MSG_INVALID_ADOPTION_FILE_MSG)                                                                                \
    NAME(MSG_FATAL_SUBSYSTEM_ERROR_MSG)                                                                                \
    NAME(MSG_UNKNOWN_MSG)                                                                                              \
    NAME(MSG_ERROR_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_CHANNEL_STATUS)

/* The channel layer: 2701 to 2727. */
#define FH_MSG_FAMILY_CHANNEL(FIRST, NAME, SKIP)                                                                       \
    FIRST(MSG_PING_MSG, 2701)                                                                                          \
    NAME(MSG_PONG_MSG)                                                                                                 \
    NAME(MSG_KEEP_ALIVE_MSG)                                                                                           \
    NAME(MSG_CONNECT_MSG)                                                                                              \
    NAME(MSG_CHANNEL_DOWN_MSG)                                                                                         \
    NAME(MSG_CONNECTED_MSG)                                                                                            \
    NAME(MSG_FATAL_SELECT_ERROR_MSG)                                                                                   \
    NAME(MSG_DISCONNECT_MSG)                                                                                           \
    NAME(MSG_FLUSH_CHANNEL_MSG)                                                                                        \
    NAME(MSG_CHANNEL_FLUSHED_MSG)                                                                                      \
    NAME(MSG_CONNECTED_OK_MSG)                                                                                         \
    NAME(MSG_TIMEOUT_EXPIRED_MSG)                                                                                      \
    NAME(MSG_SET_TRACE_LEVEL_MSG)                                                                                      \
    NAME(MSG_SET_TRACE_FILE_MSG)                                                                                       \
    NAME(MSG_LOG_MEMORY_USAGE_MSG)                                                                                     \
    NAME(MSG_IPC_CONNECT_MSG)                                                                                          \
    NAME(MSG_TUNNEL_LISTEN_REQUEST_MSG)                                                                                \
    NAME(MSG_TUNNEL_CONNECT_MSG)                                                                                       \
    NAME(MSG_CHANNEL_AUTH_MSG)                                                                                         \
    NAME(MSG_SET_PROCESS_CONTEXT_REQUEST_MSG)                                                                          \
    NAME(MSG_SET_PROCESS_CONTEXT_REPLY_MSG)                                                                            \
    NAME(MSG_PROXY_SOURCE_MSG)                                                                                         \
    NAME(MSG_INHERIT_SOCKET_MSG)                                                                                       \
    NAME(MSG_INHERITED_SOCKET_MSG)                                                                                     \
    NAME(MSG_CHILD_INITIALIZED_MSG)                                                                                    \
    NAME(MSG_READY_FOR_PROXY_MSG)                                                                                      \
    NAME(MSG_PROXY_STARTED_MSG)

FH_MSG_DECLARE_FAMILY(FH_MSG_FAMILY_CHANNEL)

/* The body of MSG_CHILD_INITIALIZED_MSG, to the process that started this
 * one and waits: the new process's id and its system pid. */
#define MSG_CHILD_INITIALIZED_MAGIC 0xCA13380Cu
#define MSG_CHILD_INITIALIZED_FORMAT "i;i;"
typedef struct MSG_CHILD_INITIALIZED {
    int32_t iProcessId;
    int32_t iPid;
} MSG_CHILD_INITIALIZED;

#endif /* FHCORE_MESSAGES_MSGMSG_H */
