// DebugInitFuzz.cpp - a whole start and stop of the manager on a debug
// configuration file of any bytes: Init, a few trace calls through the
// sub-modules the file registered and through an application writer, then
// Destroy. Whatever the file says, Init must succeed and a record the caller
// sends to the file must be in it exactly once after Destroy.
#include <fcntl.h>
#include <unistd.h>

#include <bitset>
#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "FuzzCheck.h"
#include "ToviDebugMgr.h"
#include "WriterTestSupport.h"

namespace {
constexpr char kForced[] = "forced record 7f3a";

struct Fixture {
  tovitest::ScopedRoot root;  // TOVI_ROOT: no product configuration of the machine leaks in
  std::string cfg = root.Conf("fuzz_debug.cfg");
  std::string logs = root.root / "logs/";
};

Fixture& TheFixture() {
  static Fixture fixture;
  return fixture;
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // A fuzzed output mask may send records to the console; libFuzzer reports
  // on stderr, so stdout is thrown away.
  const int null = ::open("/dev/null", O_WRONLY);
  if (null >= 0) {
    ::dup2(null, 1);
    ::close(null);
  }
  TheFixture();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fixture& f = TheFixture();
  tovitest::WriteFile(f.cfg, std::string(reinterpret_cast<const char*>(data), size));

  ToviDebugMgr* mgr = ToviDebugMgr::Instance();
  FUZZ_CHECK(mgr->Init("fuzz", f.cfg, f.logs, "fuzz header\n", false, false));
  std::map<std::string, std::pair<std::bitset<32>, std::bitset<32>>> modules;
  mgr->GetAllModuleInfo(modules);
  int level = 0;
  for (const auto& module : modules) {
    if (level == 4) break;
    mgr->Trace(module.first, static_cast<ToviLogLevel>(level++), "configured", nullptr, false,
               false);
  }
  mgr->Trace("not configured", LEVEL_ERROR, "fallback", nullptr, false, false);
  mgr->AppTrace("app", LEVEL_INFO, "application", nullptr, false, true, "app");
  mgr->Trace("debug", LEVEL_INFO, kForced, nullptr, false, true);
  mgr->Trace("debug", LEVEL_ASSERT, "held-back records come out", nullptr, false, false);
  ToviDebugMgr::Destroy();

  // Whole records only: a fuzzed sub-module name may hold the text too.
  std::size_t forced = 0;
  for (const std::string& name : tovitest::ListDir(f.logs)) {
    if (!tovitest::EndsWith(name, ".log")) continue;
    for (const std::string& text : tovitest::RecordTexts(tovitest::ReadFile(f.logs + name))) {
      forced += text == std::string("debug INFO: ") + kForced ? 1 : 0;
    }
  }
  FUZZ_CHECK(forced == 1);
  // The next start finds an empty directory, as the first one did.
  std::filesystem::remove_all(f.logs);
  return 0;
}
