// WriterTestSupport.h - what the tests share: the one place that makes
// writers, directory listings, log lines and records, gzip reading through
// zlib, stdout capture, and an ASN.1 value that counts its live clones.
#ifndef TOVI_TESTS_WRITERTESTSUPPORT_H
#define TOVI_TESTS_WRITERTESTSUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include <AsnType.h>

#include "TestSupport.h"
#include "ToviBaseUtil.h"
#include "ToviDebugMgr.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace tovitest {

// Every writer that a test makes itself: held is how many filtered records
// wait for an assertion, fileBytes the roll-over size, zips the archives kept.
inline std::unique_ptr<ToviLogWriter> NewWriter(const std::string& dir, const std::string& prefix,
                                                const std::string& header = "", unsigned held = 10,
                                                unsigned fileBytes = 1u << 30, int zips = 10) {
  LogWriterOptions options;
  options.logPath = dir;
  options.prefix = prefix;
  options.header = header;
  options.heldBackRecords = held;
  options.maxFileBytes = fileBytes;
  options.archivesKept = zips;
  return std::make_unique<ToviLogWriter>(options);
}

// Names of the entries of dir, sorted bytewise; hidden ones (a writer's
// record journal) only with hidden.
inline std::vector<std::string> ListDir(const std::string& dir, bool hidden = false) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec))
    if (hidden || entry.path().filename().string()[0] != '.') names.push_back(entry.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

inline bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// How many times needle occurs in text, without overlaps.
inline std::size_t Occurrences(const std::string& text, const std::string& needle) {
  std::size_t n = 0;
  for (std::size_t at = text.find(needle); at != std::string::npos; ++n)
    at = text.find(needle, at + needle.size());
  return n;
}

// A thread id as the log lines print it.
inline std::string Hex(uint32_t v) { char buf[16]; return std::string(buf, std::snprintf(buf, sizeof buf, "%x", v)); }

// The lines of text without their ends; an unterminated last line is marked.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  for (std::size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  if (start < text.size()) lines.push_back(text.substr(start) + "<no line end>");
  return lines;
}

// The record texts of a log (what follows "<hh:mm:ss.micros>.T<tid> "), in
// order; other lines are skipped.
inline std::vector<std::string> RecordTexts(const std::string& log) {
  std::vector<std::string> texts;
  for (const std::string& line : SplitLines(log)) {
    const std::size_t blank = line.find(' ', 17);
    if (blank != std::string::npos && line.compare(15, 2, ".T") == 0)
      texts.push_back(line.substr(blank + 1));
  }
  return texts;
}

// The text of the single plain log file (".log") in dir; a marker naming how
// many there are otherwise.
inline std::string OnlyLog(const std::string& dir) {
  std::vector<std::string> logs;
  for (const std::string& name : ListDir(dir)) if (EndsWith(name, ".log")) logs.push_back(name);
  return logs.size() == 1 ? ReadFile(dir + "/" + logs[0]) : "<" + std::to_string(logs.size()) + " log files>";
}

// The content of a gzip file, or of a plain one; whole says whether zlib
// read it to its end without finding damage.
inline std::string ReadGz(const std::string& path, bool* whole = nullptr) {
  gzFile in = gzopen(path.c_str(), "rb");
  std::string out;
  char buf[65536];
  int n = -1, error = Z_OK;
  while (in != nullptr && (n = gzread(in, buf, sizeof buf)) > 0) out.append(buf, n);
  if (in != nullptr) gzerror(in, &error), gzclose(in);
  if (whole != nullptr) *whole = n == 0 && error == Z_OK;
  return out;
}

// Waits until pred() holds or the bound passes; returns pred().
inline bool WaitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds bound = std::chrono::seconds(20)) {
  for (const auto end = std::chrono::steady_clock::now() + bound; !pred();) {
    if (std::chrono::steady_clock::now() > end) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// An installation root of its own and a log directory; the manager is gone
// when the test ends.
struct MgrRoot : ScopedRoot {
  using ScopedRoot::ScopedRoot;
  ~MgrRoot() { ToviDebugMgr::Destroy(); }
  TempDir logs;
};

// Redirects the process's standard output into a file for its lifetime;
// Restore() puts it back and returns what was printed.
class StdoutCapture {
public:
  StdoutCapture() : saved_((std::fflush(stdout), ::dup(1))) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 1), ::close(fd);
  }
  ~StdoutCapture() { Restore(); }
  std::string Text() { return std::fflush(stdout), ReadFile(path_); }
  std::string Restore() {
    const std::string text = Text();
    if (saved_ >= 0) ::dup2(saved_, 1), ::close(saved_);
    saved_ = -1;
    return text;
  }

private:
  int saved_;
  TempDir dir_;
  std::string path_ = dir_ / "stdout.txt";
};

// An ASN.1 value that prints a fixed text and counts how many of its
// instances are alive, so that tests can see every clone freed.
class CountingAsn : public AsnType {
public:
  explicit CountingAsn(std::string text) : text_(std::move(text)) { ++Live(); }
  CountingAsn(const CountingAsn& other) : AsnType(other), text_(other.text_) { ++Live(); }
  ~CountingAsn() override { --Live(); }
  AsnType* Clone() const override { return ++Clones(), new CountingAsn(*this); }
  void Print(std::ostream& os) const override { os << text_; }
  static std::atomic<int>& Live() { static std::atomic<int> live{0}; return live; }
  static std::atomic<int>& Clones() { static std::atomic<int> clones{0}; return clones; }

private:
  std::string text_;
};

}  // namespace tovitest

#endif
