// StackTrace.cpp - libbacktrace for unwinding and symbols, the dynamic
// linker for modules.
#include "port/StackTrace.h"

#include <backtrace.h>
#include <cxxabi.h>
#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace toviport {
namespace {
std::atomic<backtrace_state*> g_state{nullptr};

void IgnoreError(void*, const char*, int) {}

struct Capture {
  uintptr_t* pcs;
  int max;
  int count;
};

int OnPc(void* data, uintptr_t pc) {
  Capture* capture = static_cast<Capture*>(data);
  // The unwinder ends some stacks with an address that names nothing.
  if (pc == 0 || pc == UINTPTR_MAX) return 0;
  if (capture->count >= capture->max) return 1;
  capture->pcs[capture->count++] = pc;
  return 0;
}

// A readable name for a symbol, demangled where it is a C++ one.
std::string Readable(const char* name) {
  if (name == nullptr) return std::string();
  int status = 0;
  char* demangled = abi::__cxa_demangle(name, nullptr, nullptr, &status);
  std::string result = status == 0 && demangled != nullptr ? demangled : name;
  std::free(demangled);
  return result;
}

struct Where {
  std::string function;
  std::string file;
  int line = 0;
};

int OnPcInfo(void* data, uintptr_t, const char* file, int line, const char* function) {
  Where* where = static_cast<Where*>(data);
  // The innermost inlined frame comes first: keep it.
  if (where->function.empty() && function != nullptr) where->function = Readable(function);
  if (where->file.empty() && file != nullptr) {
    where->file = file;
    where->line = line;
  }
  return 0;
}

void OnSymInfo(void* data, uintptr_t, const char* symbol, uintptr_t, uintptr_t) {
  Where* where = static_cast<Where*>(data);
  if (where->function.empty() && symbol != nullptr) where->function = Readable(symbol);
}
}  // namespace

bool PrepareStackTrace() {
  if (g_state.load(std::memory_order_acquire) == nullptr) {
    backtrace_state* state = backtrace_create_state(nullptr, 1, &IgnoreError, nullptr);
    backtrace_state* none = nullptr;
    // States are never freed (libbacktrace has no way): a lost race leaks one.
    if (state != nullptr) g_state.compare_exchange_strong(none, state);
  }
  backtrace_state* state = g_state.load(std::memory_order_acquire);
  if (state == nullptr) return false;
  // A first capture sets the unwinder up now rather than in a signal hook.
  // The symbols are read only when a report describes its frames: a process
  // that never faults never pays for its debug information.
  uintptr_t pcs[4];
  CaptureStack(pcs, 4, 0);
  return true;
}

int CaptureStack(uintptr_t* pcs, int max, uintptr_t from) {
  backtrace_state* state = g_state.load(std::memory_order_acquire);
  if (state == nullptr || max <= 0) return 0;
  Capture capture{pcs, max, 0};
  backtrace_simple(state, 0, &OnPc, &IgnoreError, &capture);
  if (from == 0) return capture.count;
  for (int i = 0; i < capture.count; ++i) {
    if (pcs[i] != from && pcs[i] + 1 != from && pcs[i] != from + 1) continue;
    std::memmove(pcs, pcs + i, static_cast<std::size_t>(capture.count - i) * sizeof *pcs);
    return capture.count - i;
  }
  return capture.count;
}

std::string DescribeFrame(uintptr_t pc) {
  char text[64];
  std::string out;
  Dl_info info = {};
  if (::dladdr(reinterpret_cast<void*>(pc), &info) != 0 && info.dli_fname != nullptr) {
    const char* slash = std::strrchr(info.dli_fname, '/');
    out = slash != nullptr ? slash + 1 : info.dli_fname;
    std::snprintf(text, sizeof text, "+0x%lx",
                  static_cast<unsigned long>(pc - reinterpret_cast<uintptr_t>(info.dli_fbase)));
  } else {
    out = "?";
    std::snprintf(text, sizeof text, "+0x%lx", static_cast<unsigned long>(pc));
  }
  out += text;
  Where where;
  if (backtrace_state* state = g_state.load(std::memory_order_acquire)) {
    backtrace_pcinfo(state, pc, &OnPcInfo, &IgnoreError, &where);
    if (where.function.empty()) backtrace_syminfo(state, pc, &OnSymInfo, &IgnoreError, &where);
  }
  if (where.function.empty() && info.dli_sname != nullptr) where.function = Readable(info.dli_sname);
  if (!where.function.empty()) out += " " + where.function;
  if (!where.file.empty()) out += " " + where.file + ":" + std::to_string(where.line);
  return out;
}

}  // namespace toviport
