// StackTrace.h - the return addresses of the calling thread, and what they
// name.
//
// Capturing is meant for a fatal-signal hook: once PrepareStackTrace has run,
// it allocates nothing and takes no lock of the C library (the unwinder
// walks the frames through the signal frame). Describing is not safe there:
// it reads debug information and may allocate, and runs on a thread of its
// own after the capture.
#ifndef TOVI_PORT_STACKTRACE_H
#define TOVI_PORT_STACKTRACE_H

#include <cstdint>
#include <string>

namespace toviport {

// Sets up the unwinder and the symbolizer, so that a later capture has
// nothing left to set up; false when they could not be made (no frames are
// captured then).
bool PrepareStackTrace();

// Up to max return addresses of the calling thread into pcs, outermost
// last; how many. Frames before `from` (the faulting instruction, when
// known and found among them) are left out, so that the trace starts where
// the fault happened rather than in the hook.
int CaptureStack(uintptr_t* pcs, int max, uintptr_t from);

// "<module>+0x<offset>", then the function and "file:line" where symbols
// and debug information tell them.
std::string DescribeFrame(uintptr_t pc);

}  // namespace toviport

#endif
