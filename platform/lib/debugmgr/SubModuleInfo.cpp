// SubModuleInfo.cpp - the four mask setters of a registry entry.
#include "debugmgr/SubModuleInfo.h"

#include <ace/Guard_T.h>

SubModuleInfo::SubModuleInfo(const std::bitset<32>& level, const std::bitset<32>& output)
    : m_LevelMask(level), m_OutputMask(output) {}

bool SubModuleInfo::SetLevelMask(const std::bitset<32>& mask) {
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_Lock);
  if (!guard.locked()) return false;
  m_LevelMask = mask;
  return true;
}

bool SubModuleInfo::SetOutputMask(const std::bitset<32>& mask) {
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_Lock);
  if (!guard.locked()) return false;
  m_OutputMask = mask;
  return true;
}

bool SubModuleInfo::SetLevelBit(unsigned n, bool on) {
  if (n >= 32) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_Lock);
  if (!guard.locked()) return false;
  m_LevelMask.set(n, on);
  return true;
}

bool SubModuleInfo::SetOutputBit(unsigned n, bool on) {
  if (n >= 32) return false;
  ACE_Write_Guard<ACE_RW_Thread_Mutex> guard(m_Lock);
  if (!guard.locked()) return false;
  m_OutputMask.set(n, on);
  return true;
}
