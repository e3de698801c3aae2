// SubModuleInfo.h - the registry entry of one sub-module: which levels it
// logs and where they go.
//
// Masks change only under the manager's registry lock held for writing, and
// lookups read them under that lock held for reading; the entry's own lock
// additionally serialises the changes themselves.
#ifndef TOVI_DEBUGMGR_SUBMODULEINFO_H
#define TOVI_DEBUGMGR_SUBMODULEINFO_H

#include <bitset>

#include <ace/RW_Thread_Mutex.h>

class SubModuleInfo {
public:
  SubModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output);
  SubModuleInfo(const SubModuleInfo&) = delete;
  SubModuleInfo& operator=(const SubModuleInfo&) = delete;

  bool SetLevelMask(const std::bitset<32>& mask);
  bool SetOutputMask(const std::bitset<32>& mask);
  bool SetLevelBit(unsigned n, bool on);
  bool SetOutputBit(unsigned n, bool on);

  ACE_RW_Thread_Mutex m_Lock;
  std::bitset<32> m_LevelMask;
  std::bitset<32> m_OutputMask;

private:
  // Runs change with m_Lock held for writing; false when it cannot be taken.
  template <typename Change>
  bool Locked(Change change);
};

#endif
