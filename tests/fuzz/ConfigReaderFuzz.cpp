// ConfigReaderFuzz.cpp - the key=value reader on a file of any bytes.
// Configuration files are edited by hand and copied between machines, so one
// may hold anything. Besides memory errors it checks that the loader and the
// lookups read a file alike, that nothing read exceeds the reader's bounds,
// and that a lookup never writes past the buffer its caller offered.
#include <cstdint>
#include <cstring>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "TestSupport.h"
#include "ToviBaseUtil.h"
#include "baseutil/ConfigReader.h"

namespace {
const std::string& CfgFile() {
  static const tovitest::TempDir dir;
  static const std::string file = dir / "fuzz.cfg";
  return file;
}

// Looks key up into the last room bytes of a heap block, so that a write
// past them is an overflow the sanitizer reports, even when room is 0.
bool Lookup(const std::string& key, int room, std::string& value) {
  std::vector<char> buf(static_cast<std::size_t>(room) + 1);
  int len = room;
  const bool found = ToviGetCfgString(key.c_str(), buf.data() + 1, len, CfgFile().c_str());
  if (!found) {
    FUZZ_CHECK(len == 0);
    return false;
  }
  FUZZ_CHECK(len >= 0 && len < room &&
             std::strlen(buf.data() + 1) == static_cast<std::size_t>(len));
  value.assign(buf.data() + 1, static_cast<std::size_t>(len));
  return true;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& file = CfgFile();
  tovitest::WriteFile(file, std::string(reinterpret_cast<const char*>(data), size));

  std::map<std::string, std::string> items;
  FUZZ_CHECK(LoadCfgFileToMap(items, file, ""));
  std::map<std::string, std::string> levels;
  FUZZ_CHECK(LoadCfgFileToMap(levels, file, "_level"));
  FUZZ_CHECK(levels.size() <= items.size());

  for (const auto& item : items) {
    FUZZ_CHECK(item.first.size() < toviconfig::kKeyBufSize);
    FUZZ_CHECK(item.second.size() < toviconfig::kValueBufSize);
  }
  // Every lookup reads the whole file again, so one key per input is looked
  // up, a different one as the input changes.
  if (items.empty()) {
    std::string value;
    FUZZ_CHECK(!Lookup("nEachFileMaxSize", 8, value));
    return 0;
  }
  auto item = items.begin();
  std::advance(item, static_cast<long>(size % items.size()));
  std::string value;
  FUZZ_CHECK(Lookup(item->first, static_cast<int>(toviconfig::kValueBufSize), value));
  // A buffer one byte short of the first value refuses it and stays intact.
  std::string unused;
  FUZZ_CHECK(!Lookup(item->first, static_cast<int>(value.size()), unused));
  int number = 0;
  FUZZ_CHECK(ToviGetCfgInt(item->first.c_str(), number, file.c_str()));
  return 0;
}
