// NameRules.h - names that end up inside file names in the log directory:
// the Init name is the main writer's prefix, and the Init name, an
// application name and "_" make an application writer's.
#ifndef TOVI_DEBUGMGR_NAMERULES_H
#define TOVI_DEBUGMGR_NAMERULES_H

#include <string>

// A separator would let a name's files land outside the log directory, and
// ".." names the directory above it. Init refuses such a name, and AppTrace
// such an application name.
bool EscapesLogDirectory(const std::string& name);

// True when the longest file name that a writer makes from prefix fits the
// file system of logDir. A writer whose names do not fit could never create
// its files, or never archive them.
bool PrefixFitsFileNames(const std::string& logDir, const std::string& prefix);

#endif
