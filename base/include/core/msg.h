/*
 * msg.h - messaging: the names of message ids.
 *
 * Every message carries a 32-bit type id; the ids and their names are
 * declared per family under messages/ (msgfamily.h tells how). The context
 * holds a map of the names, built from that catalogue by MsgInitializeThread
 * and open to names added at run time. Names serve the trace, the log and
 * tools that name a message by text; only the id travels.
 */
#ifndef FHCORE_MSG_H
#define FHCORE_MSG_H

#include "types.h"

FH_BEGIN_DECLS

/* The name of message id type. With a null buffer: the name itself, which
 * stays valid while the context lives, or for an id without a name
 * "Unknown message type <id>" in a field of the context, valid until the
 * next such call. With a buffer of size bytes: the buffer, cleared in full
 * and holding the same text cut to size - 1 bytes. A size below 1 with a
 * buffer is a fault of the caller: traced, and answered as without one.
 * Before MsgInitializeThread and after MsgReleaseThread the catalogue alone
 * answers. */
FHAPI const char *MsgNameWithBuffer(int32_t type, char *buffer, int32_t size);

/* The id of a name, ignoring case, in *type: the first match in id order.
 * This walks every name; it is for operators and tools, not for every
 * message. FALSE, *type untouched, for a name that matches none (a surplus
 * blank too) or a null argument. */
FHAPI BOOL MsgTypeFromName(int32_t *type, const char *name);

/* Names id type in this process for as long as the context lives; name is
 * copied. FALSE, with nothing changed, for a null or empty name, an id that
 * already has a name (which stays), or before MsgInitializeThread. */
FHAPI BOOL MsgSetMsgName(int32_t type, const char *name);

/* The module's part of the context ladder: MsgInitialize declares the
 * message types and makes the well-known addresses (msgpacket.h);
 * MsgInitializeThread builds the map of names and the process's own
 * address, MsgReleaseThread frees them with every name added. */
FHAPI BOOL MsgInitialize(void);
FHAPI BOOL MsgInitializeThread(void);
FHAPI void MsgReleaseThread(LmContext *context);

FH_END_DECLS

#endif /* FHCORE_MSG_H */
