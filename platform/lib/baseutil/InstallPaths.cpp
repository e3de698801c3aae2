// InstallPaths.cpp - the installation root from TOVI_ROOT and the product's
// standard directories and files below it. Nothing is cached, so a change of
// the variable takes effect at the next call.
#include <string>

#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"
#include "port/ToviPort.h"

std::string ToviGetRootPath() {
  const char* value = toviport::GetEnv("TOVI_ROOT");
  if (value == nullptr) return std::string();

  std::string root = TrimString(value, " \t\r\n");
  // A variable made only of blanks names no root: the paths stay relative,
  // as when it is unset, rather than pointing at the file system's root.
  if (root.empty()) return root;
  if (root.back() != '/') root += '/';
  return root;
}

std::string ToviGetDefaultLogPath() { return ToviGetRootPath() + "var/logs/mrblog/"; }

std::string ToviGetDefaultTempPath() { return ToviGetRootPath() + "var/tmp/"; }

std::string ToviGetDefaultCfgPath() { return ToviGetRootPath() + "etc/conf/"; }

std::string ToviGetDefaultDebugCfgFile() { return ToviGetDefaultCfgPath() + "default_debug.cfg"; }

std::string ToviGetDefaultCfgFile() { return ToviGetDefaultCfgPath() + "tovi.cfg"; }

std::string ToviGetDefaultSslPath() { return ToviGetRootPath() + "etc/ssl/"; }
