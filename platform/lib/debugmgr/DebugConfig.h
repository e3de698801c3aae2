// DebugConfig.h - reading the debug configuration: the writer limits, the
// masks of every sub-module (written as strings of "0" and "1", first
// character bit 0) and the forwarding keys.
#ifndef TOVI_DEBUGMGR_DEBUGCONFIG_H
#define TOVI_DEBUGMGR_DEBUGCONFIG_H

#include <bitset>
#include <string>

#include "ToviLogLevel.h"
#include "forward/Forwarding.h"

// What Init takes from the configuration, each limit already within its
// range (see ConfigKeys.h).
struct DebugSettings {
  // The debug file that was read: the one asked for when it exists, else
  // the installation's default.
  std::string file;
  int heldBackRecords = 0;
  int maxWriters = 0;
  int maxFileBytes = 0;
  int archivesKept = 0;
  int filesPerArchive = 0;
  bool crashHandler = true;
  int reloadSec = 0;
  unsigned fileMode = 0;
  unsigned dirMode = 0;
  // The sub-modules' masks, as Init registers them.
  ToviModuleMasks modules;
};

// Each limit comes from the debug file, else from the product file, else
// from its default; sub-module keys come from the debug file only.
DebugSettings ReadDebugSettings(const std::string& requestedFile);

// Parses a mask. Only the last 32 characters count; an empty text sets no
// bit. False, with mask untouched, when a counted character is not 0 or 1.
bool ParseBitString(const std::string& text, std::bitset<32>& mask);

// The masks a sub-module gets from its keys' texts, as Init reads them:
// "<name>_level" (with the default output) and "<name>_output" (with the
// default level), each bounded as Init bounds it.
std::bitset<32> LevelMaskOf(const std::string& text);
std::bitset<32> OutputMaskOf(const std::string& text);
std::bitset<32> DefaultLevelMask();
std::bitset<32> DefaultOutputMask();

// The forwarding keys as written, from the debug file, else from the
// product file; empty when absent.
SyslogKeys ReadSyslogKeys(const std::string& debugFile);

#endif
