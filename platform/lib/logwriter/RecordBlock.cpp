// RecordBlock.cpp - the pool of record blocks.
//
// Each thread keeps a few blocks of each size; it refills from, and spills
// into, a shared store under one lock per batch of blocks, never per record.
// The shared store is bounded, and so is every thread's cache, so the pool
// never holds more than a few megabytes beyond what the queues count.
#include "logwriter/RecordBlock.h"

#include <new>
#include <vector>

#include <ace/Malloc_Allocator.h>

#include "port/Lock.h"

namespace recordblock {
namespace {

constexpr int kClasses = sizeof(kBlockSizes) / sizeof(kBlockSizes[0]);
// Blocks a thread keeps per size, and how many move to or from the shared
// store at once.
constexpr std::size_t kLocalCap[kClasses] = {256, 16, 4};
// The shared store keeps at most this many bytes of blocks, all sizes
// together: enough for a full queue's worth of small records to come back
// and be used again rather than freed and made anew.
constexpr std::size_t kSharedCapBytes = 12u << 20;

int ClassOf(std::size_t bytes) {
  for (int c = 0; c < kClasses; ++c) {
    if (bytes <= kBlockSizes[c]) return c;
  }
  return -1;
}

int ClassOfBlock(const ACE_Message_Block* block) {
  for (int c = 0; c < kClasses; ++c) {
    if (block->size() == kBlockSizes[c]) return c;
  }
  return -1;
}

// A block is one allocation: its data block first, its message block next,
// then the data. ACE releases a message block before its data block, so the
// data block's allocator is the one that frees the whole allocation, and the
// message block's allocator frees nothing.
class WholeBlockAllocator : public ACE_New_Allocator {
public:
  void free(void* dataBlock) override { ::operator delete(dataBlock); }
};
class PartOfBlockAllocator : public ACE_New_Allocator {
public:
  void free(void*) override {}
};

// Never destroyed, like the shared store: blocks refer to them to the end.
ACE_Allocator* WholeBlock() {
  static ACE_Allocator* allocator = new WholeBlockAllocator;
  return allocator;
}
ACE_Allocator* PartOfBlock() {
  static ACE_Allocator* allocator = new PartOfBlockAllocator;
  return allocator;
}

constexpr std::size_t RoundUp(std::size_t n) { return (n + 15) & ~static_cast<std::size_t>(15); }
constexpr std::size_t kMessageBlockAt = RoundUp(sizeof(ACE_Data_Block));
constexpr std::size_t kDataAt = kMessageBlockAt + RoundUp(sizeof(ACE_Message_Block));

ACE_Message_Block* NewBlock(std::size_t size) {
  char* whole = static_cast<char*>(::operator new(kDataAt + size, std::nothrow));
  if (whole == nullptr) return nullptr;
  ACE_Data_Block* data = new (whole)
      ACE_Data_Block(size, ACE_Message_Block::MB_DATA, whole + kDataAt, PartOfBlock(), nullptr,
                     ACE_Message_Block::DONT_DELETE, WholeBlock());
  return new (whole + kMessageBlockAt) ACE_Message_Block(data, 0, PartOfBlock());
}

struct SharedStore {
  toviport::Mutex lock;
  std::vector<ACE_Message_Block*> blocks[kClasses] GUARDED_BY(lock);
  std::size_t bytes GUARDED_BY(lock) = 0;
};

// Never destroyed: threads hand their caches back when they end, which may
// be after the library's static objects are gone.
SharedStore& Shared() {
  static SharedStore* store = new SharedStore;
  return *store;
}

// Moves up to n blocks of class c from the shared store into out; how many.
// None when the store's lock cannot be had: the caller makes new ones.
std::size_t TakeShared(int c, ACE_Message_Block** out, std::size_t n) {
  SharedStore& store = Shared();
  toviport::MutexLock guard(store.lock);
  if (!guard) return 0;
  std::vector<ACE_Message_Block*>& blocks = store.blocks[c];
  std::size_t taken = 0;
  while (taken < n && !blocks.empty()) {
    out[taken++] = blocks.back();
    blocks.pop_back();
  }
  store.bytes -= taken * kBlockSizes[c];
  return taken;
}

// Moves as many of the n blocks of class c into the shared store as its
// bound allows; how many, counted from the front of in.
std::size_t KeepShared(int c, ACE_Message_Block* const* in, std::size_t n) {
  SharedStore& store = Shared();
  toviport::MutexLock guard(store.lock);
  if (!guard) return 0;
  std::vector<ACE_Message_Block*>& blocks = store.blocks[c];
  std::size_t kept = 0;
  try {
    while (kept < n && store.bytes + kBlockSizes[c] <= kSharedCapBytes) {
      blocks.push_back(in[kept]);
      ++kept;
      store.bytes += kBlockSizes[c];
    }
  } catch (...) {
    // No room to remember it: the caller frees the block instead.
  }
  return kept;
}

// Hands n blocks of class c to the shared store; those beyond its bound, or
// all of them when the store's lock cannot be had, are freed.
void GiveShared(int c, ACE_Message_Block* const* in, std::size_t n) {
  const std::size_t kept = KeepShared(c, in, n);
  for (std::size_t i = kept; i < n; ++i) in[i]->release();
}

struct LocalCache {
  ACE_Message_Block* blocks[kClasses][256] = {};
  std::size_t count[kClasses] = {};
};

// Hands a thread's blocks back to the shared store when the thread ends.
struct LocalCacheOwner {
  LocalCache* cache = nullptr;
  LocalCacheOwner() = default;
  LocalCacheOwner(const LocalCacheOwner&) = delete;
  LocalCacheOwner& operator=(const LocalCacheOwner&) = delete;
  ~LocalCacheOwner();
};
thread_local LocalCacheOwner t_cacheOwner;
// The pointer alone sits in the static thread-local block, so the hot path
// reaches it without a call into the dynamic loader.
thread_local LocalCache* t_cache __attribute__((tls_model("initial-exec"))) = nullptr;
// Set once the thread's cache went back: whatever the thread releases in its
// last moments goes straight to the shared store.
thread_local bool t_cacheGone __attribute__((tls_model("initial-exec"))) = false;

LocalCacheOwner::~LocalCacheOwner() {
  if (cache == nullptr) return;
  for (int c = 0; c < kClasses; ++c) GiveShared(c, cache->blocks[c], cache->count[c]);
  delete cache;
  t_cache = nullptr;
  t_cacheGone = true;
}

LocalCache* Local() {
  LocalCache* cache = t_cache;
  if (cache != nullptr || t_cacheGone) return cache;
  cache = new (std::nothrow) LocalCache;
  if (cache == nullptr) return nullptr;
  t_cacheOwner.cache = cache;
  t_cache = cache;
  return cache;
}

ACE_Message_Block* TakePooled(int c) {
  LocalCache* cache = Local();
  if (cache == nullptr) return NewBlock(kBlockSizes[c]);
  if (cache->count[c] == 0) cache->count[c] = TakeShared(c, cache->blocks[c], kLocalCap[c] / 2);
  if (cache->count[c] == 0) return NewBlock(kBlockSizes[c]);
  return cache->blocks[c][--cache->count[c]];
}

void GivePooled(int c, ACE_Message_Block* block) {
  LocalCache* cache = Local();
  if (cache == nullptr) {
    GiveShared(c, &block, 1);
    return;
  }
  if (cache->count[c] == kLocalCap[c]) {
    const std::size_t half = kLocalCap[c] / 2;
    cache->count[c] -= half;
    GiveShared(c, cache->blocks[c] + cache->count[c], half);
  }
  cache->blocks[c][cache->count[c]++] = block;
}

}  // namespace

ACE_Message_Block* Acquire(std::size_t bytes) {
  const int c = ClassOf(bytes);
  ACE_Message_Block* block = c >= 0 ? TakePooled(c) : NewBlock(bytes);
  if (block == nullptr) return nullptr;
  new (block->base()) ToviLogRecord();
  return block;
}

void Release(ACE_Message_Block* block) {
  if (block == nullptr) return;
  RecordIn(block)->~ToviLogRecord();
  block->reset();
  block->next(nullptr);
  block->prev(nullptr);
  const int c = ClassOfBlock(block);
  if (c < 0) {
    block->release();
    return;
  }
  GivePooled(c, block);
}

}  // namespace recordblock
