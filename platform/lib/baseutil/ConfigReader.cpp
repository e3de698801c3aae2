// ConfigReader.cpp - reading key=value files: single lookups and the loader.
//
// Nothing is cached; every call opens the file, reads it from the start and
// closes it. All work happens in fixed stack buffers, so a hostile file (an
// endless line, NUL bytes, binary data) is cut, never over-read.
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"
#include "port/ToviPort.h"

using toviconfig::kKeyBufSize;
using toviconfig::kLineBufSize;
using toviconfig::kValueBufSize;

// Reads one line of at most cap-1 characters into line, which the caller has
// cleared. The line end (LF, or CR LF) is consumed and not stored. A line too
// long for the buffer leaves the stream failed, so that nothing after it is
// read, as a bounded getline would.
static void ReadBoundedLine(std::istream& in, char* line, std::size_t cap) {
  std::streambuf* buf = in.rdbuf();
  std::size_t n = 0;
  for (;;) {
    const int c = buf->sbumpc();
    if (c == std::char_traits<char>::eof()) {
      in.setstate(n == 0 ? (std::ios::eofbit | std::ios::failbit) : std::ios::eofbit);
      return;
    }
    if (c == '\n') return;
    if (c == '\r' && buf->sgetc() == '\n') {
      buf->sbumpc();
      return;
    }
    if (n == cap - 1) {
      in.setstate(std::ios::failbit);
      return;
    }
    line[n++] = static_cast<char>(c);
  }
}

int SplitCfgLine(char* key, char* value, char* line) {
  if (key == nullptr || value == nullptr || line == nullptr) return -1;
  char* eq = std::strchr(line, '=');
  if (eq == nullptr) return -1;

  std::size_t keyLen = static_cast<std::size_t>(eq - line);
  if (keyLen > kKeyBufSize - 1) keyLen = kKeyBufSize - 1;
  std::memcpy(key, line, keyLen);
  key[keyLen] = '\0';
  ToviStrTrim(key);

  char* rest = eq + 1;
  ToviStrTrim(rest);
  std::size_t valueLen = std::strlen(rest);
  if (valueLen > kValueBufSize - 1) valueLen = kValueBufSize - 1;
  std::memcpy(value, rest, valueLen);
  value[valueLen] = '\0';
  return 1;
}

int ReadCfgLine(char* key, char* value, std::ifstream& stream) {
  char line[kLineBufSize] = {};
  ReadBoundedLine(stream, line, sizeof line);
  ToviStrTrim(line);
  if (line[0] == '#') return 2;
  return SplitCfgLine(key, value, line) == -1 ? 2 : 1;
}

static bool OpenForLookup(std::ifstream& in, const char* file) {
  return toviport::OpenTextInput(in, file) && in.good();
}

bool ToviGetCfgString(const char* key, char* value, int& len, const char* file) {
  std::ifstream in;
  if (file == nullptr || key == nullptr || value == nullptr || !OpenForLookup(in, file)) {
    len = 0;
    return false;
  }

  char fileKey[kKeyBufSize];
  char fileValue[kValueBufSize];
  while (in.is_open() && in.good()) {
    if (ReadCfgLine(fileKey, fileValue, in) != 1) continue;
    if (std::strcmp(fileKey, key) != 0) continue;

    // The first line with the key decides; a value too large for the
    // caller's buffer ends the search.
    const int n = static_cast<int>(std::strlen(fileValue));
    if (len < n + 1) break;
    std::memcpy(value, fileValue, static_cast<std::size_t>(n) + 1);
    len = n;
    return true;
  }
  len = 0;
  return false;
}

bool ToviGetCfgInt(const char* key, int& value, const char* file) {
  char text[kValueBufSize] = {};
  int len = static_cast<int>(sizeof text);
  if (!ToviGetCfgString(key, text, len, file)) return false;

  // atoi without its undefined overflow: out-of-range numbers saturate.
  const long long n = std::strtoll(text, nullptr, 10);
  if (n > INT32_MAX) {
    value = INT32_MAX;
  } else if (n < INT32_MIN) {
    value = INT32_MIN;
  } else {
    value = static_cast<int>(n);
  }
  return true;
}

bool LoadCfgFileToMap(std::map<std::string, std::string>& items, const std::string& file,
                      const std::string& keyPart) {
  if (file.empty()) return true;
  std::ifstream in;
  if (!OpenForLookup(in, file.c_str())) return false;

  char key[kKeyBufSize];
  char value[kValueBufSize];
  while (in.is_open() && in.good()) {
    if (ReadCfgLine(key, value, in) != 1) continue;
    std::string name(key);
    if (!keyPart.empty()) {
      const std::size_t at = name.find(keyPart);
      if (at == std::string::npos) continue;
      name.erase(at);
    }
    items[name] = value;
  }
  return true;
}
