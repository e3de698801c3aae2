// SubModuleCache.h - the sub-modules that a thread looked up last.
//
// A thread traces under a handful of names over and over. It keeps the
// entries its last few lookups found, so a repeated name costs a comparison
// of its bytes rather than hashing it and probing the index.
//
// A kept entry goes wrong only when a name would now find another entry,
// and that happens only when an index is made, takes in a new entry, or is
// destroyed. Each of those moves one process-wide version on once it is
// complete, and a thread's kept entries count only while the version they
// were found at is still the current one. Changed masks need no new
// version: callers read them from the entry, which stays the same.
#ifndef TOVI_DEBUGMGR_SUBMODULECACHE_H
#define TOVI_DEBUGMGR_SUBMODULECACHE_H

#include <cstdint>
#include <string>

class SubModuleIndex;
class SubModuleInfo;

namespace submodulecache {

// After a change that may alter which entry a name finds, once the change
// is visible to lookups: a lookup that starts after this returns finds the
// change.
void Invalidate();

// True, with entry, when the calling thread kept one for index and name
// that nothing has changed since; else false, with the version under which
// to keep what the lookup then finds. Entries may be null (nothing found).
bool Find(const SubModuleIndex* index, const std::string& name, SubModuleInfo*& entry,
          uint64_t& version);
void Keep(const SubModuleIndex* index, const std::string& name, SubModuleInfo* entry,
          uint64_t version);

}  // namespace submodulecache

#endif
