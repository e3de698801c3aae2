// ConfigReaderFuzz.cpp - the key=value reader on a file of any bytes.
// Configuration files are edited by hand and copied between machines, so one
// may hold anything. Besides memory errors it checks that the loader and the
// lookups read a file alike, that nothing read exceeds the reader's bounds,
// and that a lookup never writes past the buffer its caller offered.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"

// A broken expectation ends the run as a crash, so that libFuzzer keeps the
// input that caused it.
#define FUZZ_CHECK(cond) \
  ((cond) ? void() : (std::fprintf(stderr, "line %d: check failed: %s\n", __LINE__, #cond), std::abort()))

namespace {
// Looks key up into the last room bytes of a heap block, so that a write
// past them is an overflow the sanitizer reports, even when room is 0.
bool Lookup(const std::string& file, const std::string& key, int room, std::string& value) {
  std::vector<char> buf(static_cast<std::size_t>(room) + 1);
  int len = room;
  const bool found = ToviGetCfgString(key.c_str(), buf.data() + 1, len, file.c_str());
  FUZZ_CHECK(found ? len >= 0 && len < room && std::strlen(buf.data() + 1) == std::size_t(len)
                   : len == 0);
  value.assign(buf.data() + 1, found ? static_cast<std::size_t>(len) : 0);
  return found;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const tovitest::TempDir dir;
  const std::string file = dir / "fuzz.cfg";
  tovitest::WriteFile(file, std::string(reinterpret_cast<const char*>(data), size));

  std::map<std::string, std::string> items, levels;
  FUZZ_CHECK(LoadCfgFileToMap(items, file, "") && LoadCfgFileToMap(levels, file, "_level"));
  FUZZ_CHECK(levels.size() <= items.size());
  for (const auto& item : items) {
    FUZZ_CHECK(item.first.size() < toviconfig::kKeyBufSize);
    FUZZ_CHECK(item.second.size() < toviconfig::kValueBufSize);
  }
  // Every lookup reads the whole file again, so one key per input is looked
  // up, a different one as the input changes.
  std::string value, unused;
  if (items.empty()) {
    FUZZ_CHECK(!Lookup(file, "nEachFileMaxSize", 8, value));
    return 0;
  }
  const std::string& key = std::next(items.begin(), static_cast<long>(size % items.size()))->first;
  FUZZ_CHECK(Lookup(file, key, static_cast<int>(toviconfig::kValueBufSize), value));
  // A buffer one byte short of the first value refuses it and stays intact.
  FUZZ_CHECK(!Lookup(file, key, static_cast<int>(value.size()), unused));
  int number = 0;
  FUZZ_CHECK(ToviGetCfgInt(key.c_str(), number, file.c_str()));
  return 0;
}
