/*
 * machinfo.h - what is known of a machine of the system: its operating
 * system, whether it is a server, its description, version, build level and
 * addresses.
 *
 * Every operation takes a machine name, compared with the local one without
 * regard to case. The local machine answers from its own configuration:
 * "configure.cfg" and "version.cfg", section "Details". Any other machine
 * answers from its stanza in "etc/machines.dat" under the home directory,
 * which the network manager keeps current; the stanza is read anew for
 * every question, and a machine without one answers FALSE. A key that is
 * missing takes its default and the answer is TRUE, unless an operation
 * says otherwise.
 *
 * A version is major * 1000 + minor: 6003 is 6.03. Version and build level
 * together are version * 1000 + build level.
 */
#ifndef FHCORE_MACHINFO_H
#define FHCORE_MACHINFO_H

#include "types.h"

FH_BEGIN_DECLS

/* System types. */
#define MACHINFO_SYSTEM_UNIX 0
#define MACHINFO_SYSTEM_WINDOWS 1

/* Brings the machine's details up to date: asks the network manager and
 * waits, without a time limit, for its answer (news that the manager can't
 * be reached ends the wait). TRUE at once for the local machine; FALSE when
 * the request can't be sent or no sound answer comes. */
FHAPI BOOL MachInfoFind(const char *machine);

/* The system type in *type (MACHINFO_SYSTEM_...). For the local machine
 * TRUE with *type untouched. FALSE, traced, for a "Type" other than "unix"
 * or "winnt". */
FHAPI BOOL MachInfoGetSystemType(int32_t *type, const char *machine);

/* Whether the machine is a server, in *server. A machine's stanza without
 * "Server" is traced and answers FALSE in *server, with the result TRUE. */
FHAPI BOOL MachInfoIsLMServer(BOOL *server, const char *machine);

/* The description, a new string in *description (the caller's). FALSE,
 * traced, with *description untouched, when there is none. */
FHAPI BOOL MachInfoGetDescription(char **description, const char *machine);

/* The version in *version; 6003 when the machine names none. */
FHAPI BOOL MachInfoGetLMVersion(int32_t *version, const char *machine);

/* Version * 1000 + build level, in *versionAndBuild. A machine's stanza
 * without a build level is traced and counts as 0. */
FHAPI BOOL MachInfoGetLMVersionAndBuild(int32_t *versionAndBuild, const char *machine);

/* The build level in *level, 0 when none is named. The local machine reads
 * it from "configure.cfg" (MachInfoGetLMVersionAndBuild: "version.cfg"). */
FHAPI BOOL MachInfoGetLMPatchLevel(int32_t *level, const char *machine);

/* The address to use, and the address for contact, as new strings (the
 * caller's); the machine name when none is set. */
FHAPI BOOL MachInfoGetPreferredAddr(char **address, const char *machine);
FHAPI BOOL MachInfoGetContactAddr(char **address, const char *machine);

/* The major or minor number of the machine's version; 0 if it can't be
 * read. The FromLMVersion forms take a version number. */
FHAPI int32_t MachInfoLMVersionMajor(const char *machine);
FHAPI int32_t MachInfoLMVersionMinor(const char *machine);
FHAPI int32_t MachInfoLMVersionMajorFromLMVersion(int32_t version);
FHAPI int32_t MachInfoLMVersionMinorFromLMVersion(int32_t version);

/* The version as text, "6.03" for 6003 and "6.13" for 6013, in one static
 * buffer of the module: the next call overwrites it. */
FHAPI const char *MachInfoLMVersionString(const char *machine);
FHAPI const char *MachInfoLMVersionStringFromLMVersion(int32_t version);

FH_END_DECLS

#endif /* FHCORE_MACHINFO_H */
