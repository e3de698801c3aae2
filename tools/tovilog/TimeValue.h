// TimeValue.h - the --since and --until values.
#ifndef TOVI_TOOLS_TOVILOG_TIMEVALUE_H
#define TOVI_TOOLS_TOVILOG_TIMEVALUE_H

#include <cstdint>
#include <string>

namespace tovilog {

// A wall time from "2026-11-23 09:15:02.5" (or with "T"; seconds and the
// fraction may be left out, and so may the whole time), "09:15[:02]" (today),
// "-15m" (s, m, h or d before `now`) or "now". False when it is none of
// these.
bool ParseTimeValue(const std::string& text, int64_t now, int64_t& wall);

}  // namespace tovilog

#endif
