// NameRules.cpp - what a name must be to become the start of file names in
// the log directory.
#include "debugmgr/NameRules.h"

#include "logwriter/LogFileNames.h"
#include "port/ToviPort.h"

bool EscapesLogDirectory(const std::string& name) {
  return name == ".." || name.find('/') != std::string::npos ||
         name.find('\\') != std::string::npos;
}

bool PrefixFitsFileNames(const std::string& logDir, const std::string& prefix) {
  const long limit = toviport::MaxNameLength(logDir);
  return prefix.size() + logfilenames::kLongestAddition <= static_cast<std::size_t>(limit);
}
