// DebugConfig.h - masks written as strings of "0" and "1" in the debug
// configuration file, first character bit 0.
#ifndef TOVI_DEBUGMGR_DEBUGCONFIG_H
#define TOVI_DEBUGMGR_DEBUGCONFIG_H

#include <bitset>
#include <string>

#include "forward/Forwarding.h"

// Parses a mask. Only the last 32 characters count; an empty text sets no
// bit. False, with mask untouched, when a counted character is not 0 or 1.
bool ParseBitString(const std::string& text, std::bitset<32>& mask);

// The forwarding keys as written, from the debug file, else from the
// product file; empty when absent.
SyslogKeys ReadSyslogKeys(const std::string& debugFile);

#endif
