// cfgcache.h - the settings of recently read configuration files, parsed,
// per thread, for the getters of cfglocal.
//
// A file is served from the cache only while it is the same file: the same
// device, inode, size and modification time (with nanoseconds), checked
// under the shared lock that a read takes anyway. A rewrite renames a new
// file in (a new inode); an append in place shows in size and time. A file
// modified within two ticks of the file clock before it was parsed is
// parsed again on its next read, since a change in the same tick could
// leave its time as it was.
#ifndef FHCORE_CFGCACHE_H
#define FHCORE_CFGCACHE_H

#include <cstdint>

#include "core/stanza.h"

namespace fh {

// Files kept per thread, and the largest file kept (a larger one is read
// from the file on each call, as without the cache).
inline constexpr int32_t kCfgCacheFiles = 4;
inline constexpr int64_t kCfgCacheLargestFile = 1 << 20;

// One parsed file: valid until the next call of cfgCacheSnapshot on the
// same thread.
struct CfgSnapshot;

// What cfgCacheSnapshot found.
enum class CfgCached {
    kReady,   // *out is the file's snapshot, from the cache or parsed now
    kNoFile,  // the file does not exist or cannot be read or locked
    kTooLarge // the file is not cached; the caller reads it itself
};
CfgCached cfgCacheSnapshot(const CfgSnapshot **out, const char *path);

// A new key, made with the caller's keyword, of the first key of keyword in
// the first stanza [category:title] of the snapshot (a null category and
// an empty one are equal; names compare as the stanza layer compares them).
// false when there is none.
bool cfgSnapshotKey(StanzaKey **out, const CfgSnapshot *snapshot, const char *category, const char *title,
                    const char *keyword);

// The pool blocks this thread's cache holds, the files it has parsed since
// the thread began (for tests), and the cache emptied (at thread release).
int32_t cfgCacheBlocks();
int32_t cfgCacheParses();
void cfgCacheRelease();

} // namespace fh

#endif // FHCORE_CFGCACHE_H
