// SubModuleCache.cpp - each thread's last few lookups of sub-modules.
#include "debugmgr/SubModuleCache.h"

#include <atomic>
#include <cstddef>
#include <cstring>
#include <new>

namespace submodulecache {
namespace {

// Sub-module names are short; a longer one is looked up in the index each
// time rather than making every thread's cache larger.
constexpr std::size_t kNameBytes = 63;
constexpr unsigned kSlots = 4;

struct Slot {
  const SubModuleIndex* index;
  SubModuleInfo* entry;
  unsigned char size;
  char name[kNameBytes];
};

// Version 0 is never current, so a new cache is empty.
struct Cache {
  uint64_t version;
  Slot slots[kSlots];
  unsigned next;  // the slot that the next Keep overwrites
};

// Frees the thread's cache when the thread ends.
struct CacheOwner {
  Cache* cache = nullptr;
  CacheOwner() = default;
  CacheOwner(const CacheOwner&) = delete;
  CacheOwner& operator=(const CacheOwner&) = delete;
  ~CacheOwner();
};
thread_local CacheOwner t_cacheOwner;
// The pointer alone sits in the static thread-local block, so a lookup
// reaches it without a call into the dynamic loader, and the block stays
// small enough for a library loaded late.
thread_local Cache* t_cache __attribute__((tls_model("initial-exec"))) = nullptr;
// Set once the thread's cache is freed: lookups in the thread's last moments
// go to the index.
thread_local bool t_cacheGone __attribute__((tls_model("initial-exec"))) = false;

CacheOwner::~CacheOwner() {
  t_cache = nullptr;
  t_cacheGone = true;
  delete cache;
}

std::atomic<uint64_t> g_version{1};

}  // namespace

void Invalidate() { g_version.fetch_add(1, std::memory_order_seq_cst); }

bool Find(const SubModuleIndex* index, const std::string& name, SubModuleInfo*& entry,
          uint64_t& version) {
  // Acquire: pairs with Invalidate, so that a miss sees the whole change.
  version = g_version.load(std::memory_order_acquire);
  const Cache* cache = t_cache;
  if (cache == nullptr || cache->version != version) return false;
  const std::size_t size = name.size();
  for (const Slot& slot : cache->slots) {
    if (slot.index == index && slot.size == size && std::memcmp(slot.name, name.data(), size) == 0) {
      entry = slot.entry;
      return true;
    }
  }
  return false;
}

void Keep(const SubModuleIndex* index, const std::string& name, SubModuleInfo* entry,
          uint64_t version) {
  if (name.size() > kNameBytes) return;
  Cache* cache = t_cache;
  if (cache == nullptr) {
    if (t_cacheGone) return;
    cache = new (std::nothrow) Cache{};
    if (cache == nullptr) return;
    t_cacheOwner.cache = cache;
    t_cache = cache;
  }
  // The version was read before the lookup that found entry: a change that
  // raced with that lookup has moved the version past it, or is about to.
  if (cache->version != version) *cache = Cache{version, {}, 0};
  Slot& slot = cache->slots[cache->next++ % kSlots];
  slot.index = index;
  slot.entry = entry;
  slot.size = static_cast<unsigned char>(name.size());
  std::memcpy(slot.name, name.data(), name.size());
}

}  // namespace submodulecache
