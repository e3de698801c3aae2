// WriterTestSupport.h - what the log writer tests share: directory listings,
// gzip reading through zlib, stdout capture, and an ASN.1 value that counts
// its live clones.
#ifndef TOVI_TESTS_WRITERTESTSUPPORT_H
#define TOVI_TESTS_WRITERTESTSUPPORT_H

#include <fcntl.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <AsnType.h>

#include "TestSupport.h"

namespace tovitest {

// Names of the entries of dir, sorted bytewise.
inline std::vector<std::string> ListDir(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
    names.push_back(entry.path().filename().string());
  }
  std::sort(names.begin(), names.end());
  return names;
}

inline bool EndsWith(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() && s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// How many times needle occurs in text, without overlaps.
inline std::size_t Occurrences(const std::string& text, const std::string& needle) {
  std::size_t n = 0;
  for (std::size_t at = text.find(needle); at != std::string::npos;
       at = text.find(needle, at + needle.size())) {
    ++n;
  }
  return n;
}

// The decompressed content of a gzip file; "<unreadable>" when zlib cannot
// open it.
inline std::string ReadGz(const std::string& path) {
  gzFile in = gzopen(path.c_str(), "rb");
  if (in == nullptr) return "<unreadable>";
  std::string out;
  char buf[65536];
  int n;
  while ((n = gzread(in, buf, sizeof buf)) > 0) out.append(buf, static_cast<std::size_t>(n));
  gzclose(in);
  return out;
}

// Writes bytes as a gzip file.
inline void WriteGz(const std::string& path, const std::string& bytes) {
  gzFile out = gzopen(path.c_str(), "wb");
  gzwrite(out, bytes.data(), static_cast<unsigned>(bytes.size()));
  gzclose(out);
}

// Waits until pred() holds or the bound passes; returns pred().
inline bool WaitUntil(const std::function<bool()>& pred,
                      std::chrono::milliseconds bound = std::chrono::seconds(20)) {
  const auto end = std::chrono::steady_clock::now() + bound;
  while (!pred()) {
    if (std::chrono::steady_clock::now() > end) return pred();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Redirects the process's standard output into a file for its lifetime;
// Text() returns what was printed so far.
class StdoutCapture {
public:
  StdoutCapture() : path_(dir_ / "stdout.txt") {
    std::fflush(stdout);
    saved_ = ::dup(1);
    const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ::dup2(fd, 1);
    ::close(fd);
  }
  ~StdoutCapture() { Restore(); }
  std::string Text() {
    std::fflush(stdout);
    return ReadFile(path_);
  }
  void Restore() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    ::dup2(saved_, 1);
    ::close(saved_);
    saved_ = -1;
  }

private:
  TempDir dir_;
  std::string path_;
  int saved_ = -1;
};

// An ASN.1 value that prints a fixed text and counts how many of its
// instances are alive, so that tests can see every clone freed.
class CountingAsn : public AsnType {
public:
  explicit CountingAsn(std::string text) : text_(std::move(text)) { ++Live(); }
  CountingAsn(const CountingAsn& other) : AsnType(other), text_(other.text_) { ++Live(); }
  ~CountingAsn() override { --Live(); }
  AsnType* Clone() const override {
    ++Clones();
    return new CountingAsn(*this);
  }
  void Print(std::ostream& os) const override { os << text_; }

  static std::atomic<int>& Live() {
    static std::atomic<int> live{0};
    return live;
  }
  static std::atomic<int>& Clones() {
    static std::atomic<int> clones{0};
    return clones;
  }

private:
  std::string text_;
};

}  // namespace tovitest

#endif
