// ProcessFlags.cpp - the flag by which a process announces that the
// application is exiting. Any thread may read it while another sets it.
#include <atomic>

#include "ToviBaseUtil.h"

namespace {
std::atomic<bool> g_appExiting{false};
}

bool ToviAppIsExit() { return g_appExiting.load(); }

void SetToviAppExit(bool exit) {
  ToviOutputFrmtString("===================SetToviAppExit (%d)==================", exit ? 1 : 0);
  g_appExiting.store(exit);
}
