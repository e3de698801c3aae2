// SubModuleInfo.h - the registry entry of one sub-module: which levels it
// logs and where they go.
//
// Both masks live in one atomic word, so a trace call reads them with one
// load and no lock, and never sees one mask of an old setting beside the
// other of a new one. Changes are made under the manager's registry lock.
#ifndef TOVI_DEBUGMGR_SUBMODULEINFO_H
#define TOVI_DEBUGMGR_SUBMODULEINFO_H

#include <atomic>
#include <bitset>
#include <cstdint>
#include <string>

class SubModuleInfo {
public:
  SubModuleInfo(const std::string& name, const std::bitset<32>& level,
                const std::bitset<32>& output);
  SubModuleInfo(const SubModuleInfo&) = delete;
  SubModuleInfo& operator=(const SubModuleInfo&) = delete;

  const std::string& Name() const { return m_name; }
  uint64_t Hash() const { return m_hash; }

  void Load(std::bitset<32>& level, std::bitset<32>& output) const;

  // Changes; the registry lock held for writing serialises them.
  void SetMasks(const std::bitset<32>& level, const std::bitset<32>& output);
  bool SetLevelBit(unsigned n, bool on);
  bool SetOutputBit(unsigned n, bool on);

  // The hash that the index files a name under.
  static uint64_t HashOf(const std::string& name);

private:
  // Sets bit n of the packed word (levels 0-31, outputs 32-63).
  bool SetWordBit(unsigned n, bool on);

  const std::string m_name;
  const uint64_t m_hash;
  // Level mask in the low half, output mask in the high half.
  std::atomic<uint64_t> m_masks;
};

#endif
