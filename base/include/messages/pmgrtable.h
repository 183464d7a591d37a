/*
 * pmgrtable.h - the process manager's shared memory: the main segment and
 * the process table, as fhpmgr lays them out and viewers read them.
 *
 * Both are System V segments that the process manager (id 1) makes under
 * the first two keys of IpcGetKey. Every number is a 32-bit word in this
 * machine's byte order; the manager is the only writer of the table, and a
 * process the only writer of its own entry after its attach (its title,
 * counters and trace ring). Readers take no lock and may see a stale word.
 *
 * Main segment:
 *   0                      the time area (PMGR_TIME_AREA_BYTES): the signed
 *                          64-bit difference in milliseconds at 0, the valid
 *                          word at 8, the time source's name from 12
 *   PMGR_MAIN_ENTRIES      PMGR_TABLE_SLOTS process table entries, each
 *                          PMGR_ENTRY_BYTES: title (80), six counters (80 to
 *                          100), trace ring head at 104 and its
 *                          PMGR_ENTRY_RING_BYTES of records
 *   PMGR_MAIN_PROGRESS     PMGR_TABLE_SLOTS progress buffers, each
 *                          PMGR_PROGRESS_BYTES, the first word its size
 *
 * Table segment: a head of PMGR_TABLE_HEAD_BYTES, then PMGR_TABLE_SLOTS
 * slots of PMGR_TABLE_SLOT_BYTES. Slot i names entry i and progress buffer
 * i of the main segment. A slot whose process id is 0 is free; a reader
 * that wants a consistent view reads the generation word before and after.
 */
#ifndef FHCORE_MESSAGES_PMGRTABLE_H
#define FHCORE_MESSAGES_PMGRTABLE_H

/* ---- The table head, byte offsets ---- */
#define PMGR_TABLE_MAGIC 0x50544231u /* "PTB1" */
#define PMGR_TABLE_HEAD_MAGIC 0       /* PMGR_TABLE_MAGIC */
#define PMGR_TABLE_HEAD_SLOTS 4       /* number of slots */
#define PMGR_TABLE_HEAD_SLOT_BYTES 8  /* size of a slot */
#define PMGR_TABLE_HEAD_TIME 12       /* offset of the time area in the main segment */
#define PMGR_TABLE_HEAD_GENERATION 16 /* counts every change of a slot */
#define PMGR_TABLE_HEAD_MANAGER 20    /* operating system pid of the manager */
#define PMGR_TABLE_HEAD_BYTES 32

/* ---- A slot, byte offsets ---- */
#define PMGR_SLOT_PROCESS 0   /* process id; 0: free */
#define PMGR_SLOT_PID 4       /* operating system pid; 0: not known */
#define PMGR_SLOT_STATE 8     /* PROC_STATE_* as the process last told it */
#define PMGR_SLOT_ENTRY 12    /* offset of its entry in the main segment */
#define PMGR_SLOT_PROGRESS 16 /* offset of its progress buffer; 0: none */
#define PMGR_SLOT_FLAGS 20    /* PMGR_SLOT_FLAG_* */
#define PMGR_SLOT_STATUSES 24 /* status messages received */
#define PMGR_TABLE_SLOT_BYTES 32

#define PMGR_SLOT_FLAG_CHILD 1u    /* started by the manager */
#define PMGR_SLOT_FLAG_ATTACHED 2u /* the attach message went out */
#define PMGR_SLOT_FLAG_NEW_TASKS 4u /* takes tasks in the extended form */

/* ---- Sizes of the main segment ---- */
#define PMGR_TABLE_SLOTS 64
#define PMGR_TIME_AREA_BYTES 64
#define PMGR_ENTRY_HEAD_BYTES 104 /* title and counters, before the ring */
#define PMGR_ENTRY_RING_BYTES 16384
#define PMGR_ENTRY_BYTES (PMGR_ENTRY_HEAD_BYTES + 16 + PMGR_ENTRY_RING_BYTES)
#define PMGR_PROGRESS_BYTES 256
#define PMGR_MAIN_ENTRIES PMGR_TIME_AREA_BYTES
#define PMGR_MAIN_PROGRESS (PMGR_MAIN_ENTRIES + PMGR_TABLE_SLOTS * PMGR_ENTRY_BYTES)
#define PMGR_MAIN_BYTES (PMGR_MAIN_PROGRESS + PMGR_TABLE_SLOTS * PMGR_PROGRESS_BYTES)
#define PMGR_TABLE_BYTES (PMGR_TABLE_HEAD_BYTES + PMGR_TABLE_SLOTS * PMGR_TABLE_SLOT_BYTES)

/* Process ids the manager hands to adopted processes (id 0) start here. */
#define PMGR_FIRST_ADOPTED_ID 100

#endif /* FHCORE_MESSAGES_PMGRTABLE_H */
