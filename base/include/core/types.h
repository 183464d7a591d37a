/*
 * types.h - the scalar types, the truth values and the export macro that every
 * header of the library shares. Compiles as C99 and as C++.
 */
#ifndef FHCORE_TYPES_H
#define FHCORE_TYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define FH_BEGIN_DECLS extern "C" {
#define FH_END_DECLS }
#else
#define FH_BEGIN_DECLS
#define FH_END_DECLS
#endif

/* Marks the functions and the one data object that the library exports. */
#define FHAPI __attribute__((visibility("default")))

/* Results are truth values unless an operation says otherwise. */
typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

/* Forward names of the records that several modules pass around. */
typedef struct LmContext LmContext;
typedef struct MemPool MemPool;
typedef struct TraceBuffer TraceBuffer;
typedef struct TraceRecord TraceRecord;

#endif /* FHCORE_TYPES_H */
