// OutputTraceString.h - how the library's own short messages enter the
// trace front end, under its own sub-module name.
#ifndef TOVI_TRACE_OUTPUTTRACESTRING_H
#define TOVI_TRACE_OUTPUTTRACESTRING_H

// Traces text at LEVEL_INFO under "MRB" with the given console and file
// demands; false when there is no manager or the call was refused.
bool OutputTraceString(const char* text, bool bPrint, bool bLog);

#endif
