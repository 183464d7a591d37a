/*
 * linux.h - what differs on Linux: the platform test and the width facts
 * that the rest of the headers rely on.
 */
#ifndef FHCORE_MACHINES_LINUX_H
#define FHCORE_MACHINES_LINUX_H

#define FH_PLATFORM_LINUX 1
#define FH_PLATFORM_NAME "linux"

/* Byte forms that leave the process are little-endian; the trace ring and
 * shared memory use this machine's own order. */
#define FH_LITTLE_ENDIAN (__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)

#endif /* FHCORE_MACHINES_LINUX_H */
