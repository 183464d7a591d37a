/*
 * path.h - the home directory and paths: joining, splitting, component
 * lists, paths from configuration values, directories, recursive removal,
 * directory locks and the list of mounted file systems.
 *
 * The home directory is fixed once by PathInitialize: "FHHOME" in the
 * environment, else the first line of "/etc/.fernhaven", else
 * "/usr/fernhaven". All paths use "/" as the separator, and every string is
 * walked by characters, so the trail byte of a double-byte character that
 * looks like "/" never splits a name. Strings returned are new, from the
 * default pool, and belong to the caller.
 */
#ifndef FHCORE_PATH_H
#define FHCORE_PATH_H

#include <stdarg.h>

#include "context.h"
#include "list.h"
#include "stanza.h"
#include "types.h"

FH_BEGIN_DECLS

/* A held directory lock: the handle of its lock file and that file's path. */
#define PATH_LOCK_MAGIC 0xCAECB3D3u
#define PATH_LOCK_FORMAT "i;s;"
typedef struct PATH_LOCK {
    int32_t iHandle; /* -1 while not open */
    char *pszPath;
} PATH_LOCK;

/* One mounted file system; the figures and the type only for local ones. */
#define PATH_FH_MOUNT_POINT_MAGIC 0xCA4972C4u
#define PATH_FH_MOUNT_POINT_FORMAT "I;I;I;I;I;s;s;s;i;"
enum PathMountClass { PATH_MOUNT_LOCAL = 1, PATH_MOUNT_NETWORK = 2, PATH_MOUNT_PSEUDO = 3 };
typedef struct PATH_FH_MOUNT_POINT {
    int64_t total_bytes;
    int64_t used_bytes;
    int64_t available_bytes;
    int64_t total_files;
    int64_t used_files;
    char *mount_dir;
    char *device;
    char *type;
    int32_t mount_class;
} PATH_FH_MOUNT_POINT;

/* Fixes the home directory; TRUE when one is set. */
FHAPI BOOL PathInitialize(void);
FHAPI BOOL PathInitializeThread(void);
FHAPI void PathReleaseThread(LmContext *context);

/* The home directory registered on this machine (the environment or the
 * registry file, not the default): FALSE when there is none. */
FHAPI BOOL PathGetRegisteredHomeDir(char **out);
/* A copy of the home directory; FALSE only for a null out. */
FHAPI BOOL PathGetHomeDir(char **out);

/* The home directory with the components behind it ("/" before each that
 * does not start with one), up to a null pointer; or with "/" and each
 * string of a list (null for a null, mistyped or empty list). */
FHAPI char *PathHomeBuild(const char *first, ...);
FHAPI char *PathHomeBuildFromValueList(const LIST *list);

/* The components joined by "/" (none doubled where a component ends in one;
 * a leading "/" kept), up to a null pointer. */
FHAPI char *PathBuild(const char *first, ...);
FHAPI char *PathBuildVAList(const char *first, va_list more);

/* directory, "/", name. */
FHAPI BOOL PathAddDir(char **out, const char *directory, const char *name);
FHAPI BOOL PathAddFilename(char **out, const char *directory, const char *name);

/* What stands before the last "/" ("" when there is none or only the first);
 * null (traced) for a null path. */
FHAPI char *PathSplit(const char *path);
/* What stands behind the last "/": FALSE for a path without one (Last
 * Component) or the whole path (Leaf). */
FHAPI BOOL PathLastComponent(char **out, const char *path);
FHAPI BOOL PathLeaf(char **out, const char *path);

/* FALSE when a component of path is exactly "..". */
FHAPI BOOL PathIsDescending(const char *path);

/* A new list of OBJ_STRING components (a leading "/" is an item of its
 * own); FALSE for an empty component. The components of a list joined by
 * exactly one "/". Null arguments are a caller's fault. */
FHAPI BOOL PathToComponentList(LIST **out, const char *path);
FHAPI BOOL PathFromComponentList(char **out, const LIST *list);

/* The values of a key, or the strings of a list, joined by "/". */
FHAPI char *PathRelativeFromKey(const StanzaKey *key);
FHAPI char *PathRelativeFromValueList(const LIST *list);

/* Changes the working directory; creates one directory with mode 0700. */
FHAPI BOOL PathSetDirectory(const char *path);
FHAPI BOOL PathCreateDirectory(const char *path);
FHAPI BOOL PathIsADirectory(const char *path);
/* The working directory (at most 2048 bytes). */
FHAPI BOOL PathGetCurrentDirectory(char **out);

/* Removes a directory and everything in it; failures of the operating
 * system are traced (Remove) or quiet (Destroy). A symbolic link is removed
 * as a link, never followed, so nothing outside the tree is touched. */
FHAPI BOOL PathRemoveDirectory(const char *path);
FHAPI BOOL PathDestroyDirectory(const char *path);

/* Locks a directory through the file path".lck" beside it, waiting for a
 * shared (123) or exclusive (666) lock: 1 locked, 2 not a directory, 0 any
 * other failure. PathUnLock releases the lock and the object and clears the
 * variable; the ".lck" file stays. */
FHAPI int32_t PathLock(PATH_LOCK **out, const char *path, int32_t kind);
FHAPI BOOL PathUnLock(PATH_LOCK **lockAddress);

/* A new list of PATH_FH_MOUNT_POINT objects in the order of the mount
 * table; FALSE when it can't be read. */
FHAPI BOOL PathUnixMountPoints(LIST **out);

FH_END_DECLS

#endif /* FHCORE_PATH_H */
