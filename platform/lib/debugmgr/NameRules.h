// NameRules.h - names that end up inside file names in the log directory.
#ifndef TOVI_DEBUGMGR_NAMERULES_H
#define TOVI_DEBUGMGR_NAMERULES_H

#include <string>

// A name holding a separator would let its files land outside the log
// directory, so Init and AppTrace refuse it.
inline bool HoldsPathSeparator(const std::string& name) {
  return name.find('/') != std::string::npos || name.find('\\') != std::string::npos;
}

#endif
