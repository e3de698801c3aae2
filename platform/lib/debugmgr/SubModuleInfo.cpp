// SubModuleInfo.cpp - the masks of a registry entry.
#include "debugmgr/SubModuleInfo.h"

namespace {
uint32_t Low(uint64_t masks) { return static_cast<uint32_t>(masks); }
uint32_t High(uint64_t masks) { return static_cast<uint32_t>(masks >> 32); }
uint32_t Bits(const std::bitset<32>& mask) { return static_cast<uint32_t>(mask.to_ulong()); }
}  // namespace

SubModuleInfo::SubModuleInfo(const std::string& name, const std::bitset<32>& level,
                             const std::bitset<32>& output)
    : m_name(name),
      m_hash(HashOf(name)),
      m_masks(static_cast<uint64_t>(Bits(output)) << 32 | Bits(level)) {}

uint64_t SubModuleInfo::HashOf(const std::string& name) {
  // FNV-1a: a few instructions per byte, and names are short.
  uint64_t hash = 14695981039346656037ull;
  for (const char c : name) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

void SubModuleInfo::Load(std::bitset<32>& level, std::bitset<32>& output) const {
  const uint64_t masks = m_masks.load(std::memory_order_acquire);
  level = std::bitset<32>(Low(masks));
  output = std::bitset<32>(High(masks));
}

void SubModuleInfo::SetMasks(const std::bitset<32>& level, const std::bitset<32>& output) {
  m_masks.store(static_cast<uint64_t>(Bits(output)) << 32 | Bits(level),
                 std::memory_order_release);
}

bool SubModuleInfo::SetLevelBit(unsigned n, bool on) { return n < 32 && SetWordBit(n, on); }

bool SubModuleInfo::SetOutputBit(unsigned n, bool on) { return n < 32 && SetWordBit(32 + n, on); }

bool SubModuleInfo::SetWordBit(unsigned n, bool on) {
  const uint64_t bit = uint64_t{1} << n;
  const uint64_t masks = m_masks.load(std::memory_order_relaxed);
  m_masks.store(on ? masks | bit : masks & ~bit, std::memory_order_release);
  return true;
}
