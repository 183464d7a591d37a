/*
 * task.h - the task context: what travels with a task from service to
 * service.
 *
 * A TASK_CONTEXT names the server a task runs for, that server's version
 * and patch level, and carries objects that the caller passes along, at
 * most one of each type. A process has one current task context, held in
 * the context record with a reference. It is set by the program, or by the
 * message layer when a task arrives for a process that takes tasks in the
 * old plain form only; a new task inherits it, so the context follows a
 * chain of services from machine to machine.
 */
#ifndef FHCORE_TASK_H
#define FHCORE_TASK_H

#include "list.h"
#include "types.h"

FH_BEGIN_DECLS

#define TASK_CONTEXT_MAGIC 0xCC52F34Eu
#define TASK_CONTEXT_FORMAT "s;i;i;o;o;"

typedef struct TASK_CONTEXT {
    char *pszServer;     /* null when the creating machine is no server */
    int32_t iVersion;    /* the server's version, major * 1000 + minor */
    int32_t iPatchLevel; /* the server's patch level */
    LIST *oObjects;      /* extension list of context objects, or null */
    void *oReserved;     /* null */
} TASK_CONTEXT;

/* Makes context the current task context, with a new reference, and drops
 * the reference to the former one; null leaves the process without one.
 * FALSE, nothing changed, for something that is not a TASK_CONTEXT. */
FHAPI BOOL TaskSetTaskContext(void *context);

/* A new task context in *context (the caller's reference). On a server it
 * names the local machine, its version and patch level; elsewhere the name
 * is null and both numbers 0. FALSE for a null out pointer. */
FHAPI BOOL TaskCreateContext(TASK_CONTEXT **context);

/* The server name of the current task context, borrowed (not a copy); null
 * when there is no current context. */
FHAPI const char *TaskGetServerName(void);

/* The version and the patch level of the current task context; 0 when there
 * is none. */
FHAPI int32_t TaskGetServerVersion(void);
FHAPI int32_t TaskGetServerPatchLevel(void);

/* Adds object to the context's objects with a new reference, replacing one
 * of the same type. FALSE, nothing changed, for a context that is not a
 * TASK_CONTEXT or a null object (a fault of the caller). */
FHAPI BOOL TaskSetContextObject(TASK_CONTEXT *context, void *object);

/* The context's object of magic in *object, a new reference; FALSE with
 * *object null when there is none. FALSE for a null out pointer or a context
 * that is not a TASK_CONTEXT (a fault of the caller). */
FHAPI BOOL TaskGetContextObject(void **object, const TASK_CONTEXT *context, uint32_t magic);

/* Makes the template of TASK_CONTEXT, receivable from other processes;
 * called once by the module ladder (ProcApiInitialize). */
FHAPI BOOL TaskInitialize(void);

FH_END_DECLS

#endif /* FHCORE_TASK_H */
