// RecordBlock.cpp - the pool of record blocks.
//
// Each thread keeps a few blocks of each size; it refills from, and spills
// into, a shared store under one lock per batch of blocks, never per record.
// The shared store is bounded, and so is every thread's cache, so the pool
// never holds more than a few megabytes beyond what the queues count.
#include "logwriter/RecordBlock.h"

#include <new>
#include <vector>

#include <ace/Guard_T.h>
#include <ace/Thread_Mutex.h>

namespace recordblock {
namespace {

constexpr int kClasses = sizeof(kBlockSizes) / sizeof(kBlockSizes[0]);
// Blocks a thread keeps per size, and how many move to or from the shared
// store at once.
constexpr std::size_t kLocalCap[kClasses] = {64, 16, 4};
// The shared store keeps at most this many bytes of blocks per size.
constexpr std::size_t kSharedCapBytes = 8u << 20;

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

ACE_Message_Block* NewBlock(std::size_t size) {
  ACE_Message_Block* block = new (std::nothrow) ACE_Message_Block(size);
  if (block != nullptr && block->base() == nullptr) {
    delete block;
    return nullptr;
  }
  return block;
}

struct SharedStore {
  ACE_Thread_Mutex lock;
  std::vector<ACE_Message_Block*> blocks[kClasses];
};

// Never destroyed: threads hand their caches back when they end, which may
// be after the library's static objects are gone.
SharedStore& Shared() {
  static SharedStore* store = new SharedStore;
  return *store;
}

// Moves up to n blocks of class c from the shared store into out; how many.
std::size_t TakeShared(int c, ACE_Message_Block** out, std::size_t n) {
  SharedStore& store = Shared();
  ACE_Guard<ACE_Thread_Mutex> guard(store.lock);
  std::vector<ACE_Message_Block*>& blocks = store.blocks[c];
  std::size_t taken = 0;
  while (taken < n && !blocks.empty()) {
    out[taken++] = blocks.back();
    blocks.pop_back();
  }
  return taken;
}

// Hands n blocks of class c to the shared store; those beyond its bound are
// freed.
void GiveShared(int c, ACE_Message_Block* const* in, std::size_t n) {
  const std::size_t cap = kSharedCapBytes / kBlockSizes[c];
  std::size_t kept = 0;
  {
    SharedStore& store = Shared();
    ACE_Guard<ACE_Thread_Mutex> guard(store.lock);
    std::vector<ACE_Message_Block*>& blocks = store.blocks[c];
    try {
      while (kept < n && blocks.size() < cap) blocks.push_back(in[kept++]);
    } catch (...) {
      // No room to remember it: the block is freed below instead.
    }
  }
  for (std::size_t i = kept; i < n; ++i) delete in[i];
}

struct LocalCache {
  ACE_Message_Block* blocks[kClasses][64] = {};
  std::size_t count[kClasses] = {};

  LocalCache() = default;
  LocalCache(const LocalCache&) = delete;
  LocalCache& operator=(const LocalCache&) = delete;
  ~LocalCache() {
    for (int c = 0; c < kClasses; ++c) GiveShared(c, blocks[c], count[c]);
  }
};
thread_local LocalCache t_cache;

ACE_Message_Block* TakePooled(int c) {
  LocalCache& cache = t_cache;
  if (cache.count[c] == 0) cache.count[c] = TakeShared(c, cache.blocks[c], kLocalCap[c] / 2);
  if (cache.count[c] == 0) return NewBlock(kBlockSizes[c]);
  return cache.blocks[c][--cache.count[c]];
}

void GivePooled(int c, ACE_Message_Block* block) {
  LocalCache& cache = t_cache;
  if (cache.count[c] == kLocalCap[c]) {
    const std::size_t half = kLocalCap[c] / 2;
    cache.count[c] -= half;
    GiveShared(c, cache.blocks[c] + cache.count[c], half);
  }
  cache.blocks[c][cache.count[c]++] = block;
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
    delete block;
    return;
  }
  GivePooled(c, block);
}

}  // namespace recordblock
