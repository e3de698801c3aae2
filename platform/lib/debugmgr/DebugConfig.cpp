// DebugConfig.cpp - reading the debug configuration. Nothing is cached:
// Init reads once per start.
#include <climits>
#include <cstdlib>
#include <cstdint>
#include <map>
#include <string>

#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"
#include "debugmgr/ConfigKeys.h"
#include "debugmgr/DebugConfig.h"
#include "logwriter/LogFileNames.h"
#include "port/ToviPort.h"

namespace {
constexpr int64_t kMiB = 1048576;
constexpr int kMaskBufSize = 2048;
using namespace configkeys;

std::bitset<32> MaskOr(const std::string& text, const char* fallback) {
  std::bitset<32> mask;
  if (!ParseBitString(text, mask)) ParseBitString(fallback, mask);
  return mask;
}

std::bitset<32> Mask(const char* text) { return MaskOr(text, text); }

class SettingReader {
public:
  SettingReader(const std::string& debugFile, const std::string& productFile)
      : m_debugFile(debugFile), m_productFile(productFile), m_useProduct(productFile != debugFile) {}

  // The number of key from the debug file, else from the product file.
  bool Int(const char* key, int& value) const {
    if (ToviGetCfgInt(key, value, m_debugFile.c_str())) return true;
    return m_useProduct && ToviGetCfgInt(key, value, m_productFile.c_str());
  }

  int IntOr(const NumberKey& key) const {
    int value = 0;
    return Int(key.name, value) ? value : key.fallback;
  }

  std::string StringOr(const char* key, const char* fallback) const {
    char value[kMaskBufSize];
    int len = kMaskBufSize;
    if (ToviGetCfgString(key, value, len, m_debugFile.c_str())) return value;
    len = kMaskBufSize;
    if (m_useProduct && ToviGetCfgString(key, value, len, m_productFile.c_str())) return value;
    return fallback;
  }

private:
  std::string m_debugFile;
  std::string m_productFile;
  bool m_useProduct;
};

// Megabytes to bytes. A count whose bytes do not fit saturates, so that the
// range check that follows rejects it instead of a wrapped value passing.
// A configured mask above 4369 ("1111" read as hexadecimal digits) keeps only
// its four lowest bits; 4369 and below stay whole.
std::bitset<32> BoundMask(const std::bitset<32>& mask) {
  const unsigned long value = mask.to_ulong();
  return std::bitset<32>(value > 4369 ? (value & 15) : value);
}

// An octal mode ("0644"), else fallback: absent, not octal digits alone, or
// beyond 0777.
unsigned ModeOr(const std::string& text, unsigned fallback) {
  if (text.empty() || text.size() > 4 || text.find_first_not_of("01234567") != std::string::npos) {
    return fallback;
  }
  const unsigned long mode = std::strtoul(text.c_str(), nullptr, 8);
  return mode <= 0777 ? static_cast<unsigned>(mode) : fallback;
}

int MebibytesToBytes(int mebibytes) {
  const int64_t bytes = static_cast<int64_t>(mebibytes) * kMiB;
  if (bytes > INT32_MAX) return INT32_MAX;
  if (bytes < INT32_MIN) return INT32_MIN;
  return static_cast<int>(bytes);
}
}  // namespace

bool ParseBitString(const std::string& text, std::bitset<32>& mask) {
  const std::size_t start = text.size() > 32 ? text.size() - 32 : 0;
  std::bitset<32> parsed;
  for (std::size_t i = start; i < text.size(); ++i) {
    const char c = text[i];
    if (c != '0' && c != '1') return false;
    parsed.set(i - start, c == '1');
  }
  mask = parsed;
  return true;
}

DebugSettings ReadDebugSettings(const std::string& requestedFile) {
  DebugSettings out;
  const bool usable = !requestedFile.empty() && toviport::PathExists(requestedFile.c_str());
  out.file = usable ? requestedFile : ToviGetDefaultDebugCfgFile();
  const SettingReader settings(out.file, ToviGetDefaultCfgFile());

  out.heldBackRecords = InRangeOrFallback(settings.IntOr(kFiltLogBufSize), kFiltLogBufSize);
  out.maxWriters = InRangeOrFallback(settings.IntOr(kMaxFileNum), kMaxFileNum);
  int mebibytes = 0;
  const int fileBytes = settings.Int(kEachFileMaxSize.name, mebibytes)
                            ? MebibytesToBytes(mebibytes)
                            : kEachFileMaxSize.fallback;
  out.maxFileBytes = InRangeOrFallback(fileBytes, kEachFileMaxSize);
  out.archivesKept = InRangeOrFallback(settings.IntOr(kEachProcessMaxZipNum), kEachProcessMaxZipNum);
  out.filesPerArchive =
      InRangeOrFallback(settings.IntOr(kZipFileIncludeFileNum), kZipFileIncludeFileNum);
  out.crashHandler = InRangeOrFallback(settings.IntOr(kCrashHandler), kCrashHandler) == 1;
  out.reloadSec = InRangeOrFallback(settings.IntOr(kConfigReloadSec), kConfigReloadSec);
  out.fileMode = ModeOr(settings.StringOr(kLogFileMode, ""), logfilenames::kFileMode);
  out.dirMode = ModeOr(settings.StringOr(kLogDirMode, ""), logfilenames::kDirMode);

  ToviModuleMasks& items = out.modules;
  const std::string defaults(kDefaultSubModule);
  items[defaults] = {
      LevelMaskOf(settings.StringOr((defaults + kLevelSuffix).c_str(), kLevelDefault)),
      BoundMask(MaskOr(settings.StringOr((defaults + kOutputSuffix).c_str(), kDefaultModuleOutput),
                       kDefaultModuleOutput))};

  std::map<std::string, std::string> levels;
  std::map<std::string, std::string> outputs;
  LoadCfgFileToMap(levels, out.file, kLevelSuffix);
  LoadCfgFileToMap(outputs, out.file, kOutputSuffix);
  // A "_level" entry replaces the whole entry, "debug" included; only an
  // "_output" key of the same file sets its output mask again.
  for (const auto& level : levels) items[level.first] = {LevelMaskOf(level.second), DefaultOutputMask()};
  for (const auto& output : outputs) {
    const std::bitset<32> mask = OutputMaskOf(output.second);
    auto found = items.find(output.first);
    if (found != items.end()) {
      found->second.second = mask;
    } else {
      items[output.first] = {DefaultLevelMask(), mask};
    }
  }
  return out;
}

std::bitset<32> LevelMaskOf(const std::string& text) { return BoundMask(MaskOr(text, kLevelDefault)); }
std::bitset<32> OutputMaskOf(const std::string& text) { return BoundMask(MaskOr(text, kOutputDefault)); }
std::bitset<32> DefaultLevelMask() { return BoundMask(Mask(kLevelDefault)); }
std::bitset<32> DefaultOutputMask() { return BoundMask(Mask(kDefaultModuleOutput)); }

SyslogKeys ReadSyslogKeys(const std::string& debugFile) {
  const SettingReader settings(debugFile, ToviGetDefaultCfgFile());
  return {settings.StringOr("syslog_target", ""),       settings.StringOr("syslog_facility", ""),
          settings.StringOr("syslog_buffer_kb", ""),    settings.StringOr("syslog_tls_ca_file", ""),
          settings.StringOr("syslog_tls_cert_file", ""), settings.StringOr("syslog_tls_key_file", "")};
}
