// FileSet.cpp - finding the log files of a directory, grouping them by
// writer and putting each writer's files in order.
#include "FileSet.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>

#include "LocalTime.h"
#include "LogFileName.h"
#include "Warn.h"

namespace tovilog {
namespace {

// A file may hold records from before the second in its name: records that
// were queued before a roll-over are written after it, and a name that was
// taken moves on to a later second.
constexpr int64_t kEarlySlack = kMicrosPerHour;

using WriterMap = std::map<std::string, WriterFiles>;

std::string JoinPath(const std::string& dir, const std::string& name) {
  if (dir.empty() || dir.back() == '/') return dir + name;
  return dir + "/" + name;
}

// The last write, rounded up to the next second; every record in the file
// was stamped before it.
int64_t LastWrite(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return kEndOfTime;
  return WallFromEpoch(st.st_mtim.tv_sec) + kMicrosPerSecond;
}

void AddNamedFile(const std::string& dir, const std::string& name, const LogFileName& parsed,
                  WriterMap& writers) {
  WriterFiles& writer = writers["n" + dir + '\0' + parsed.prefix];
  writer.dir = dir;
  writer.prefix = parsed.prefix;
  writer.named = true;
  LogFile file;
  file.path = JoinPath(dir, name);
  file.name = name;
  file.prefix = parsed.prefix;
  file.created = parsed.created;
  file.lastWrite = LastWrite(file.path);
  file.compressed = parsed.compressed;
  writer.files.push_back(std::move(file));
}

void AddOtherFile(const std::string& path, WriterMap& writers) {
  WriterFiles& writer = writers["f" + path];
  writer.dir = std::filesystem::path(path).parent_path().string();
  writer.prefix = std::filesystem::path(path).filename().string();
  LogFile file;
  file.path = path;
  file.name = writer.prefix;
  file.prefix = writer.prefix;
  file.created = kNoTime;
  file.lastWrite = LastWrite(path);
  file.compressed = file.name.size() > 3 && file.name.compare(file.name.size() - 3, 3, ".gz") == 0;
  writer.files.push_back(std::move(file));
}

bool AddDirectory(const std::string& dir, const std::vector<std::string>& prefixes,
                  WriterMap& writers) {
  std::error_code ec;
  std::filesystem::directory_iterator it(dir, ec);
  for (; !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    const std::string name = it->path().filename().string();
    LogFileName parsed;
    if (!ParseLogFileName(name, parsed)) continue;
    if (!prefixes.empty() &&
        std::find(prefixes.begin(), prefixes.end(), parsed.prefix) == prefixes.end()) {
      continue;
    }
    AddNamedFile(dir, name, parsed, writers);
  }
  return !ec;
}

// Oldest first. A name that is there both plain and compressed is a
// compression that was cut short: the plain file is whole, so it is read
// and the archive is not.
void SortFiles(std::vector<LogFile>& files) {
  std::sort(files.begin(), files.end(), [](const LogFile& a, const LogFile& b) {
    return a.created != b.created ? a.created < b.created : a.compressed < b.compressed;
  });
  files.erase(std::unique(files.begin(), files.end(),
                          [](const LogFile& a, const LogFile& b) { return a.created == b.created; }),
              files.end());
}

std::vector<WriterFiles> Sorted(WriterMap& writers) {
  std::vector<WriterFiles> out;
  for (auto& entry : writers) {
    if (entry.second.named) SortFiles(entry.second.files);
    out.push_back(std::move(entry.second));
  }
  return out;
}

}  // namespace

std::vector<WriterFiles> CollectFileSet(const std::vector<std::string>& paths,
                                        const std::vector<std::string>& prefixes,
                                        SetProblems& problems) {
  WriterMap writers;
  for (const std::string& path : paths) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
      Warn(path, "cannot open: " + ErrorText(errno));
      ++problems.unreadablePaths;
      continue;
    }
    if (S_ISDIR(st.st_mode)) {
      if (!AddDirectory(path, prefixes, writers)) {
        Warn(path, "cannot list the directory");
        ++problems.unreadablePaths;
      }
      continue;
    }
    const std::filesystem::path p(path);
    LogFileName parsed;
    if (ParseLogFileName(p.filename().string(), parsed)) {
      AddNamedFile(p.has_parent_path() ? p.parent_path().string() : ".", p.filename().string(),
                   parsed, writers);
    } else {
      AddOtherFile(path, writers);
    }
  }
  return Sorted(writers);
}

std::vector<LogFile> WriterFilesIn(const std::string& dir, const std::string& prefix) {
  WriterMap writers;
  AddDirectory(dir, {prefix}, writers);
  std::vector<WriterFiles> sorted = Sorted(writers);
  return sorted.empty() ? std::vector<LogFile>() : std::move(sorted.front().files);
}

bool MayHoldRecords(const LogFile& file, int64_t since, int64_t until) {
  if (file.lastWrite < since) return false;
  return file.created == kNoTime || file.created - kEarlySlack < until;
}

}  // namespace tovilog
