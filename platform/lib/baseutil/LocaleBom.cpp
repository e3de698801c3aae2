// LocaleBom.cpp - whether the product runs with UTF-8 text, and the
// byte-order mark that then heads every new log file.
//
// The locale is decided once per process. The decision and its result are
// one atomic value, so a thread that sees it decided also sees the result.
#include <atomic>
#include <cstring>

#include "ToviBaseUtil.h"
#include "port/ToviPort.h"

namespace {
enum LocaleState : int { kUndecided = -1, kOther = 0, kUtf8 = 1 };
std::atomic<int> g_locale{kUndecided};
const char kUtf8Bom[] = "\xEF\xBB\xBF";
}  // namespace

bool TOVIIsGlobalVersion() {
  const int known = g_locale.load(std::memory_order_acquire);
  if (known != kUndecided) return known == kUtf8;
  const char* value = toviport::GetEnv("TOVI_LOCALE");
  const bool utf8 = value != nullptr && std::strcmp(value, "UTF-8") == 0;
  g_locale.store(utf8 ? kUtf8 : kOther, std::memory_order_release);
  return utf8;
}

void TOVIInsertBOM(std::ofstream& file) {
  if (TOVIIsGlobalVersion() && file.is_open()) file << kUtf8Bom;
}

void TOVIInsertBOM(FILE* file) {
  if (TOVIIsGlobalVersion()) toviport::WriteToStream(file, kUtf8Bom);
}
