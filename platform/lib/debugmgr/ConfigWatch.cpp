// ConfigWatch.cpp - a look at the debug file, and what changed in it.
#include "debugmgr/ConfigWatch.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>

#include "baseutil/ConfigReader.h"
#include "debugmgr/ConfigKeys.h"
#include "debugmgr/DebugConfig.h"
#include "debugmgr/SubModuleRegistry.h"

namespace {
// How many changed sub-modules the line names.
constexpr std::size_t kNamed = 3;
}  // namespace

ConfigWatch::ConfigWatch(std::string file, SubModuleRegistry& registry)
    : m_file(std::move(file)), m_registry(registry) {
  m_stamped = toviport::StampOf(m_file, m_stamp) == 0;
  Read(m_levels, m_outputs);
}

bool ConfigWatch::Read(std::map<std::string, std::string>& levels,
                       std::map<std::string, std::string>& outputs) {
  return LoadCfgFileToMap(levels, m_file, configkeys::kLevelSuffix) &&
         LoadCfgFileToMap(outputs, m_file, configkeys::kOutputSuffix);
}

std::string ConfigWatch::Check() try {
  toviport::FileStamp stamp;
  int error = toviport::StampOf(m_file, stamp);
  if (error == 0 && m_stamped && stamp == m_stamp) return std::string();
  std::map<std::string, std::string> levels;
  std::map<std::string, std::string> outputs;
  if (error == 0 && !Read(levels, outputs)) error = EIO;
  if (error != 0) {
    // Everything stays as it is; said once per kind of failure.
    if (std::find(m_saidErrors.begin(), m_saidErrors.end(), error) != m_saidErrors.end()) return {};
    m_saidErrors.push_back(error);
    return "debug configuration not reloaded: " + m_file + ": " + std::strerror(error);
  }
  m_stamp = stamp;
  m_stamped = true;
  const std::vector<std::string> changed = Apply(levels, outputs);
  m_levels.swap(levels);
  m_outputs.swap(outputs);
  if (changed.empty()) return std::string();
  std::string line = "debug configuration reloaded: " + std::to_string(changed.size()) +
                     " sub-module(s) changed:";
  for (std::size_t i = 0; i < changed.size() && i < kNamed; ++i) line += (i ? ", " : " ") + changed[i];
  if (changed.size() > kNamed) line += ", ...";
  return line;
} catch (...) {
  return std::string();  // no memory for a look: the next one tries again
}

std::vector<std::string> ConfigWatch::Apply(const std::map<std::string, std::string>& levels,
                                            const std::map<std::string, std::string>& outputs) {
  const auto changedIn = [](const std::map<std::string, std::string>& now,
                            const std::map<std::string, std::string>& before, const std::string& name) {
    const auto found = now.find(name);
    if (found == now.end()) return false;
    const auto old = before.find(name);
    return old == before.end() || old->second != found->second;
  };
  std::set<std::string> names;
  for (const auto& entry : levels) names.insert(entry.first);
  for (const auto& entry : outputs) names.insert(entry.first);
  std::vector<std::string> changed;
  for (const std::string& name : names) {
    const bool level = changedIn(levels, m_levels, name);
    const bool output = changedIn(outputs, m_outputs, name);
    if (!level && !output) continue;
    std::bitset<32> levelMask = DefaultLevelMask();
    std::bitset<32> outputMask = DefaultOutputMask();
    m_registry.Get(name, levelMask, outputMask);  // a known sub-module keeps what did not change
    if (level) levelMask = LevelMaskOf(levels.at(name));
    if (output) outputMask = OutputMaskOf(outputs.at(name));
    if (m_registry.Register(name, levelMask, outputMask, false)) changed.push_back(name);
  }
  return changed;
}
