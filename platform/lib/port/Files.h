// Files.h - files and directories: existence, creation, the advisory lock
// of a log file, reading and writing, renaming and removal, listings.
#ifndef TOVI_PORT_FILES_H
#define TOVI_PORT_FILES_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>
#include <vector>

namespace toviport {

// True when something of that name exists (file, directory or other).
bool PathExists(const char* path);

// Creates the directory and every missing parent with the system's own
// calls. Components that exist already, or that another creator makes at the
// same moment, are fine. 0 when the directory exists afterwards.
int MakeDirTree(const char* path, unsigned mode = 0777);

struct FileStatus {
  bool isRegular = false;
  bool isDirectory = false;
  int64_t size = 0;
};
// Status of a path, following symbolic links; false when it cannot be read.
bool GetFileStatus(const char* path, FileStatus& status);

// What tells one version of a file from another: its identity (so that an
// editor's replace-by-rename shows) and its modification time.
struct FileStamp {
  uint64_t device = 0;
  uint64_t inode = 0;
  int64_t modifiedNs = 0;
  int64_t size = 0;
  bool operator==(const FileStamp& o) const {
    return device == o.device && inode == o.inode && modifiedNs == o.modifiedNs && size == o.size;
  }
};
// 0, or the errno of the failed look.
int StampOf(const std::string& path, FileStamp& stamp);

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
// Never follows a link at path: a link planted where a file is to be made
// cannot send it elsewhere. mode is the most the file gets; the umask takes
// its share as for any file.
CreateResult CreateNewFile(const std::string& path, int& fd, int* error = nullptr,
                           unsigned mode = 0640);

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
// Cuts the file at path back to size bytes when it is longer; 0 or the
// errno. A link is not followed.
int ShortenFile(const std::string& path, int64_t size);

// Whether path still names the open file fd: the same device and inode.
// False once the file was removed, renamed, or its directory moved away or
// replaced, even while another link keeps the file itself alive; true too
// when fd cannot be examined, so that a failing check never abandons a
// file that works.
bool PathNamesOpenFile(const std::string& path, int fd);

// The file at path can be opened for reading.
bool Readable(const std::string& path);

// Removes a file (or an empty directory in its place).
int RemoveFile(const char* path);

// Opens a text file for reading; a directory or an unopenable path fails.
bool OpenTextInput(std::ifstream& in, const std::string& path);

// The names in a directory, "." and ".." left out; false when it cannot be
// listed.
bool ListDirectory(const std::string& dir, std::vector<std::string>& names);

}  // namespace toviport

#endif
