// ToviPort.h - the one place where the library meets the operating system.
//
// The rest of the library asks for runtime and system services only through
// these functions, so their semantics (what counts as "exists", how a
// directory tree is made, what a thread id is) are decided here and nowhere
// else. A failure comes back as its errno value (0: success), so that
// callers can say why. Paths are plain data: nothing here hands one to a
// shell except RunCommand, whose caller asked for exactly that.
#ifndef TOVI_PORT_H
#define TOVI_PORT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <string>
#include <vector>

#include <ace/OS_NS_Thread.h>
#include <ace/Time_Value.h>

namespace toviport {

// The value of an environment variable, or null when it is not set.
const char* GetEnv(const char* name);

// True when something of that name exists (file, directory or other).
bool PathExists(const char* path);

// Creates the directory and every missing parent with the system's own
// calls. Components that exist already, or that another creator makes at the
// same moment, are fine. 0 when the directory exists afterwards.
int MakeDirTree(const char* path);

struct FileStatus {
  bool isRegular = false;
  bool isDirectory = false;
  int64_t size = 0;
};
// Status of a path, following symbolic links; false when it cannot be read.
bool GetFileStatus(const char* path, FileStatus& status);

// The absolute, resolved form of a directory, ending in "/". When it cannot
// be formed (the directory is gone, say) the path comes back unchanged.
std::string FullDirPath(const std::string& dir);

// The longest name of one entry that the file system holding dir takes. A
// directory that cannot be asked (not made yet, say) is answered for by its
// nearest ancestor that can; 255 when none can.
long MaxNameLength(const std::string& dir);

// Creates a new, empty file and never touches an existing one: Exists when
// something of that name is there already, Failed for every other reason.
// On Created, fd holds the file opened for writing; on Failed, error says
// why.
enum class CreateResult { Created, Exists, Failed };
CreateResult CreateNewFile(const std::string& path, int& fd, int* error = nullptr);

// Writes all of data, going on after short writes and interruptions; 0, or
// the errno of the first failure. written says how much got through.
int WriteAll(int fd, const char* data, std::size_t size, std::size_t& written);

void CloseFile(int fd);

// The advisory lock that a writer holds on its open log file, so that no
// other writer of the same prefix compresses or removes it. Taken without
// waiting: Busy when another holder has it, Failed when the file system
// offers no such lock.
enum class LockResult { Locked, Busy, Failed };
LockResult LockOpenFile(int fd);

// Opens an existing file for reading and takes its lock: Locked (fd holds
// it), Busy when a live writer or a compressor holds it, Failed otherwise
// (gone, say, or not lockable).
LockResult OpenLocked(const std::string& path, int& fd);

// read() that goes on after interruptions: bytes read, 0 at the end, minus
// the errno on error.
long ReadSome(int fd, char* buffer, std::size_t size);

// Renames within one file system, replacing a file of the new name.
int RenameFile(const char* from, const char* to);

// Cuts an open file back to size bytes and places the file offset there, so
// that the next write continues at the cut.
int CutFile(int fd, int64_t size);

// How many directory entries name the open file: 0 once it has been removed
// (with its directory, say), -1 when it cannot be read.
int OpenFileLinks(int fd);

// Removes a file (or an empty directory in its place).
int RemoveFile(const char* path);

// Runs a command line through the system's command processor.
int RunCommand(const char* command);

// Opens a text file for reading; a directory or an unopenable path fails.
bool OpenTextInput(std::ifstream& in, const std::string& path);

// The names in a directory, "." and ".." left out; false when it cannot be
// listed.
bool ListDirectory(const std::string& dir, std::vector<std::string>& names);

// Seconds since the epoch.
int64_t CurrentTime();
// The time of day to the microsecond, as the system clock gives it.
void CurrentTimeOfDay(int64_t& seconds, long& microseconds);

// The local (zone-adjusted) calendar time of a moment.
std::tm LocalTime(int64_t seconds);

// The absolute time, on the clock that ACE's timed waits use, that lies
// milliseconds from now.
ACE_Time_Value DeadlineAfterMs(unsigned milliseconds);

// The kernel's id of the calling thread (remembered per thread, since the
// trace path asks for it on every call) and the id of the process.
uint32_t CurrentThreadId();
uint32_t CurrentProcessId();

// The host's name, or empty when it cannot be had.
std::string HostName();

// Marks the calling thread as background work: it still gets its fair share
// of the processor, but waking up it does not preempt the threads that are
// running. False when the system refused.
bool MakeBackgroundThread();

// A joinable thread running entry(arg); false when the system refused one.
// Every started thread must be joined once.
typedef void* (*ThreadEntry)(void*);
typedef ACE_hthread_t ThreadHandle;
bool StartThread(ThreadEntry entry, void* arg, ThreadHandle& handle);
void JoinThread(ThreadHandle handle);

// Suspends the calling thread.
void SleepMs(unsigned milliseconds);
void SleepUs(unsigned microseconds);

// Puts text on a stdio stream; EINVAL for a null stream.
int WriteToStream(FILE* file, const char* text);
// printf on the process's standard output.
int ConsolePrintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

// The process's standard output below its stdio stream. These never wait
// longer than they are told to; how long to wait is the caller's choice.
//
// The most bytes a pipe takes in one write without splitting it: once a
// pipe has room, a write no larger than this never blocks.
std::size_t ConsoleAtomicWrite();
// Waits until standard output can take ConsoleAtomicWrite() bytes without
// blocking, or until deadline on the SteadyMs clock; true when it can. A
// deadline already past asks once, without waiting.
bool ConsoleWritable(int64_t deadline);
// One write of at most size bytes to standard output, bypassing the stdio
// stream: the bytes taken, or minus the errno (EINTR and EAGAIN included).
long ConsoleWriteOnce(const char* text, std::size_t size);

// Standard output's stdio stream, taken for the caller without waiting:
// false when another thread holds it. Every true is followed by one
// UnlockStdout.
bool TryLockStdout();
void UnlockStdout();
// The bytes the stream holds that have not gone out yet, and a flush of
// them; the caller holds the stream (TryLockStdout).
std::size_t StdoutPending();
void FlushStdoutLocked();

// A steady clock in milliseconds, for intervals only.
int64_t SteadyMs();

}  // namespace toviport

#endif
