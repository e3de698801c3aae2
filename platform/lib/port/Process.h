// Process.h - the process and its surroundings: environment, host name,
// commands, and the process's standard output.
#ifndef TOVI_PORT_PROCESS_H
#define TOVI_PORT_PROCESS_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace toviport {

// The value of an environment variable, or null when it is not set.
const char* GetEnv(const char* name);

// Keeps SIGPIPE pending on the calling thread instead of delivering it.
void BlockPipeSignal();

// The id of the process.
uint32_t CurrentProcessId();

// The host's name, or empty when it cannot be had.
std::string HostName();

// Runs a command line through the system's command processor.
int RunCommand(const char* command);

// Puts text on a stdio stream; EINVAL for a null stream.
int WriteToStream(FILE* file, const char* text);
// printf on the process's standard output.
int ConsolePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The process's standard output and standard error below their stdio
// streams. These never wait longer than they are told to; how long to wait
// is the caller's choice.
enum class Console { kOut, kError };
//
// The most bytes a pipe takes in one write without splitting it: once a
// pipe has room, a write no larger than this never blocks.
std::size_t ConsoleAtomicWrite();
// Waits until the stream can take ConsoleAtomicWrite() bytes without
// blocking, or until deadline on the SteadyMs clock; true when it can. A
// deadline already past asks once, without waiting.
bool ConsoleWritable(Console console, int64_t deadline);
// One write of at most size bytes, bypassing the stdio stream: the bytes
// taken, or minus the errno (EINTR and EAGAIN included).
long ConsoleWriteOnce(Console console, const char* text, std::size_t size);

// Standard output's stdio stream, taken for the caller without waiting:
// false when another thread holds it. Every true is followed by one
// UnlockStdout.
bool TryLockStdout();
void UnlockStdout();
// The bytes the stream holds that have not gone out yet, and a flush of
// them; the caller holds the stream (TryLockStdout).
std::size_t StdoutPending();
void FlushStdoutLocked();

}  // namespace toviport

#endif
