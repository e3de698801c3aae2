// ConfigWatch.h - the debug configuration file followed while the process
// runs, so that an operator can raise a sub-module's level without a
// restart that would lose the very state worth seeing.
//
// A look compares the file's identity and modification time with the last
// look's, so that an editor's replace-by-rename shows too. Only keys whose
// value changed since the last read are applied: a mask that the program
// set through the API stays until the file's own value for that key
// changes, and a key removed from the file leaves its sub-module as it is.
// The limits are read at Init only. Looks run on the main writer's thread,
// never on a caller's.
#ifndef TOVI_DEBUGMGR_CONFIGWATCH_H
#define TOVI_DEBUGMGR_CONFIGWATCH_H

#include <map>
#include <string>
#include <vector>

#include "port/ToviPort.h"

class SubModuleRegistry;

class ConfigWatch {
public:
  // Starts from the file as it is now (Init has just applied it).
  ConfigWatch(std::string file, SubModuleRegistry& registry);

  // One look: the line for the main log when something changed or the file
  // could not be read (once per kind of failure), else empty.
  std::string Check();

private:
  bool Read(std::map<std::string, std::string>& levels, std::map<std::string, std::string>& outputs);
  // Applies what changed; the names of the sub-modules that did.
  std::vector<std::string> Apply(const std::map<std::string, std::string>& levels,
                                 const std::map<std::string, std::string>& outputs);

  const std::string m_file;
  SubModuleRegistry& m_registry;
  toviport::FileStamp m_stamp;
  bool m_stamped = false;
  std::map<std::string, std::string> m_levels;
  std::map<std::string, std::string> m_outputs;
  std::vector<int> m_saidErrors;
};

#endif
