// SubModuleInfo.cpp - the four mask setters of a registry entry.
#include "debugmgr/SubModuleInfo.h"

#include <ace/Guard_T.h>

SubModuleInfo::SubModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output)
    : m_LevelMask(level), m_OutputMask(output) {}

template <typename Change>
bool SubModuleInfo::Locked(Change change) {
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_Lock);
  if (!guard.locked()) return false;
  change();
  return true;
}

bool SubModuleInfo::SetLevelMask(const std::bitset<32>& mask) {
  return Locked([&] { m_LevelMask = mask; });
}

bool SubModuleInfo::SetOutputMask(const std::bitset<32>& mask) {
  return Locked([&] { m_OutputMask = mask; });
}

bool SubModuleInfo::SetLevelBit(unsigned n, bool on) {
  return n < 32 && Locked([&] { m_LevelMask.set(n, on); });
}

bool SubModuleInfo::SetOutputBit(unsigned n, bool on) {
  return n < 32 && Locked([&] { m_OutputMask.set(n, on); });
}
