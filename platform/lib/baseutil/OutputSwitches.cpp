// OutputSwitches.cpp - the library's own short messages: "EnablePrint" and
// "EnableLog" of the product configuration file decide, once per process,
// whether they ask for the console and for the log file.
//
// The switches are read at their first use and never again, so that the
// output functions cost no file access afterwards. Two threads at the first
// use may both read the file; they store the same values.
#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "ToviBaseUtil.h"
#include "baseutil/OutputSwitches.h"

namespace {
constexpr std::size_t kFormatBufSize = 2048;
constexpr std::size_t kMaxFormatted = 2046;

std::atomic<int> g_enablePrint{0};
std::atomic<int> g_enableLog{1};
std::atomic<bool> g_switchesLoaded{false};
std::atomic<LibraryMessageSink> g_sink{nullptr};

void LoadSwitch(const char* key, std::atomic<int>& value, const std::string& file) {
  int number = 0;
  if (ToviGetCfgInt(key, number, file.c_str())) value.store(number != 0 ? 1 : 0);
}

void Output(const char* text) {
  LoadOutputSwitches();
  const LibraryMessageSink sink = g_sink.load(std::memory_order_acquire);
  if (sink != nullptr) sink(text, g_enablePrint.load() != 0, g_enableLog.load() != 0);
}
}  // namespace

void SetLibraryMessageSink(LibraryMessageSink sink) {
  g_sink.store(sink, std::memory_order_release);
}

void LoadOutputSwitches() {
  if (g_switchesLoaded.load(std::memory_order_acquire)) return;
  const std::string file = ToviGetDefaultCfgFile();
  LoadSwitch("EnablePrint", g_enablePrint, file);
  LoadSwitch("EnableLog", g_enableLog, file);
  g_switchesLoaded.store(true, std::memory_order_release);
}

void ToviOutputFrmtString(const char* format, ...) {
  char text[kFormatBufSize] = {};
  if (format != nullptr) {
    va_list args;
    va_start(args, format);
    const int n = std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (n < 0 || static_cast<std::size_t>(n) > kMaxFormatted) text[kMaxFormatted] = '\0';
  }
  Output(text);
}

void ToviOutputString_i(const char* text) { Output(text); }
