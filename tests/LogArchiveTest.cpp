// LogArchiveTest.cpp - what a writer does to its log directory: compressing
// its newest plain log file, pruning its oldest compressed ones, sparing the
// copy of its run's first file, and never touching anything else.
#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "TestSupport.h"
#include "WriterTestSupport.h"
#include "logwriter/ToviLogWriter.h"

namespace fs = std::filesystem;
using tovitest::EndsWith;
using tovitest::ListDir;
using tovitest::ReadFile;
using tovitest::ReadGz;
using tovitest::TempDir;
using tovitest::WaitUntil;
using tovitest::WriteFile;
using tovitest::WriteGz;

namespace {

constexpr unsigned kLargeFile = 1u << 20;
// Every record with file output rolls the file over.
constexpr unsigned kRollEveryRecord = 1;

// The name the writer with this prefix gives a file created at second t.
std::string LogName(const std::string& prefix, std::time_t t) {
  std::tm local{};
  localtime_r(&t, &local);
  char buf[64];
  std::strftime(buf, sizeof buf, "%Y%m%d_%H%M%S.log", &local);
  return prefix + buf;
}

bool HasPrefix(const std::string& name, const std::string& prefix) {
  return name.compare(0, prefix.size(), prefix) == 0;
}

// Regular files of the writer's own naming scheme, sorted.
std::vector<std::string> PlainLogs(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() == prefix.size() + 19 && HasPrefix(name, prefix) && EndsWith(name, ".log") &&
        fs::is_regular_file(dir + name)) {
      out.push_back(name);
    }
  }
  return out;
}

std::vector<std::string> CompressedLogs(const std::string& dir, const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& name : ListDir(dir)) {
    if (name.size() == prefix.size() + 22 && HasPrefix(name, prefix) &&
        EndsWith(name, ".log.gz") && fs::is_regular_file(dir + name)) {
      out.push_back(name);
    }
  }
  return out;
}

// Every entry of dir: a file by its bytes, a directory by its entries.
std::map<std::string, std::string> Snapshot(const std::string& dir) {
  std::map<std::string, std::string> out;
  for (const std::string& name : ListDir(dir)) {
    if (fs::is_directory(dir + name)) {
      std::string inside = "dir:";
      for (const std::string& sub : ListDir(dir + name)) inside += sub + "/";
      out[name] = inside;
    } else {
      out[name] = "file:" + ReadFile(dir + name);
    }
  }
  return out;
}

std::unique_ptr<ToviLogWriter> StartWriter(const std::string& dir, const std::string& prefix,
                                           unsigned maxFileSize, int maxZip) {
  return std::make_unique<ToviLogWriter>(dir, prefix, "", false, false, 100, maxFileSize, maxZip);
}

// Waits for the writer's plain log file that sorts after `after`; empty when
// none shows up.
std::string WaitForLogAfter(const std::string& dir, const std::string& prefix,
                            const std::string& after) {
  std::string found;
  WaitUntil([&] {
    for (const std::string& name : PlainLogs(dir, prefix)) {
      if (name > after) {
        found = name;
        return true;
      }
    }
    return false;
  });
  return found;
}

void AddRecord(ToviLogWriter& writer, const std::string& text) {
  ASSERT_TRUE(writer.AddLog("sub", LEVEL_INFO, text.c_str(), nullptr, false, true));
}

std::size_t CountOf(const std::string& haystack, const std::string& needle) {
  std::size_t n = 0;
  for (std::size_t at = haystack.find(needle); at != std::string::npos;
       at = haystack.find(needle, at + 1)) {
    ++n;
  }
  return n;
}

// Log-like bytes that a text-mode reader or a sloppy copy would mangle.
std::string OddBytes(const std::string& tag) {
  return "File create at time 2024-01-01 00:00:00.\r\n" + tag + std::string("\0\x01\xff\n", 4) +
         std::string(3000, 'x') + "\nno final line end";
}

}  // namespace

TEST(LogArchive, StartCompressesOnlyTheNewestPlainLog) {
  TempDir dir;
  const std::string older = OddBytes("older");
  const std::string newer = OddBytes("newer");
  WriteFile(dir / "app_20240101_000000.log", older);
  WriteFile(dir / "app_20240102_000000.log", newer);

  auto writer = StartWriter(dir.path(), "app_", kLargeFile, 10);
  const std::string own = WaitForLogAfter(dir.path(), "app_", "app_20240102_000000.log");
  ASSERT_FALSE(own.empty());
  writer.reset();

  EXPECT_EQ(ReadGz(dir / "app_20240102_000000.log.gz"), newer);
  EXPECT_EQ(ReadFile(dir / "app_20240101_000000.log"), older);
  // The last file of a run stays plain: nothing is compressed at stop.
  EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{"app_20240101_000000.log",
                                                           "app_20240102_000000.log.gz", own}));
  EXPECT_NE(ReadFile(dir / own).find("File create at time "), std::string::npos);
}

TEST(LogArchive, StartTrimsTheOldestCompressedFiles) {
  // A "." in the prefix must not change which files count or which go.
  for (const std::string prefix : {"app_", "a.b_"}) {
    SCOPED_TRACE(prefix);
    TempDir dir;
    std::vector<std::string> names;
    for (int day = 1; day <= 12; ++day) {
      char stamp[32];
      std::snprintf(stamp, sizeof stamp, "202401%02d_000000.log.gz", day);
      names.push_back(prefix + stamp);
      WriteGz(dir / names.back(), "old log " + std::to_string(day));
    }

    auto writer = StartWriter(dir.path(), prefix, kLargeFile, 10);
    const std::string own = WaitForLogAfter(dir.path(), prefix, "");
    ASSERT_FALSE(own.empty());
    writer.reset();

    // No plain file was there to compress, so only the two oldest went.
    const std::vector<std::string> kept(names.begin() + 2, names.end());
    EXPECT_EQ(CompressedLogs(dir.path(), prefix), kept);
    for (int day = 3; day <= 12; ++day) {
      EXPECT_EQ(ReadGz(dir / names[day - 1]), "old log " + std::to_string(day));
    }
    EXPECT_EQ(PlainLogs(dir.path(), prefix), std::vector<std::string>{own});
  }
}

TEST(LogArchive, ForeignEntriesAreNeverTouched) {
  TempDir dir;
  // Each one either sorts before every real compressed file, so that a
  // loose match would prune it first, or after every real plain file, so
  // that a loose match would compress it instead of the real newest one.
  for (const char* name :
       {"app_19990101_000000.tar.gz", "app_19990101_000000.tar", "app_x.log",
        "other_19990101_000000.log.gz", "APP_19990101_000000.log.gz",
        "app_19990101_00000.log.gz", "app_19990101_000000.log.gz.bak",
        "app_20991231_2359590.log", "app_2099123_235959.log", "app_20991231_235959.LOG",
        "app_20991231_235959.log.bak", "app_20991231_235959.tar", "xapp_20991231_235959.log"}) {
    WriteFile(dir / name, OddBytes(name));
  }
  WriteGz(dir / "app_19990101_000001.tar.gz", "a real tarball's gzip");
  // Directories with the exact names of a newest plain file and of an oldest
  // compressed file; empty, so that a stray remove() would take them.
  fs::create_directory(dir / "app_20991231_235959.log");
  fs::create_directory(dir / "app_19990101_000000.log.gz");
  const std::map<std::string, std::string> foreign = Snapshot(dir.path());

  // Real work next to them: one plain file to compress, twelve to prune.
  const std::string plain = OddBytes("real");
  WriteFile(dir / "app_20240102_000000.log", plain);
  std::vector<std::string> real;
  for (int month = 1; month <= 12; ++month) {
    char name[64];
    std::snprintf(name, sizeof name, "app_2023%02d01_000000.log.gz", month);
    real.push_back(name);
    WriteGz(dir / name, name);
  }

  auto writer = StartWriter(dir.path(), "app_", kLargeFile, 10);
  const std::string own = WaitForLogAfter(dir.path(), "app_", "app_20240102_000000.log");
  ASSERT_FALSE(own.empty());
  writer.reset();

  std::map<std::string, std::string> after = Snapshot(dir.path());
  for (const auto& entry : foreign) {
    auto it = after.find(entry.first);
    ASSERT_NE(it, after.end()) << entry.first << " was removed";
    EXPECT_EQ(it->second, entry.second) << entry.first << " was changed";
    after.erase(it);
  }
  // Thirteen compressed files of the writer: the three oldest went.
  std::vector<std::string> expected(real.begin() + 3, real.end());
  expected.push_back("app_20240102_000000.log.gz");
  expected.push_back(own);
  std::vector<std::string> rest;
  for (const auto& entry : after) rest.push_back(entry.first);
  EXPECT_EQ(rest, expected);
  EXPECT_EQ(ReadGz(dir / "app_20240102_000000.log.gz"), plain);
}

TEST(LogArchive, FailedCompressionLeavesThePlainLogAndNoTarget) {
  {
    TempDir dir;
    const std::string bytes = OddBytes("kept");
    WriteFile(dir / "app_20240102_000000.log", bytes);
    fs::create_directory(dir / "app_20240102_000000.log.gz");

    auto writer = StartWriter(dir.path(), "app_", kLargeFile, 10);
    const std::string own = WaitForLogAfter(dir.path(), "app_", "app_20240102_000000.log");
    ASSERT_FALSE(own.empty());
    writer.reset();

    EXPECT_EQ(ReadFile(dir / "app_20240102_000000.log"), bytes);
    EXPECT_TRUE(fs::is_directory(dir / "app_20240102_000000.log.gz"));
    EXPECT_TRUE(ListDir(dir / "app_20240102_000000.log.gz").empty());
    EXPECT_EQ(ListDir(dir.path()), (std::vector<std::string>{
                                       "app_20240102_000000.log", "app_20240102_000000.log.gz",
                                       own}));
  }

  TempDir dir;
  // Sizes around the copy buffer, so that a lost or doubled last piece shows.
  std::mt19937 random(7);
  for (std::size_t size : {0u, 1u, 65534u, 65535u, 65536u, 65537u, 131071u, 200003u}) {
    SCOPED_TRACE(size);
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    // Not the gzip magic: a source that looked compressed would be inflated.
    if (size > 0) bytes[0] = 'L';
    WriteFile(dir / "source.log", bytes);
    fs::remove(dir / "copy.gz");
    EXPECT_EQ(ToviLogWriter::GzipFile(dir / "source.log", dir / "copy.gz"), 0);
    EXPECT_EQ(ReadGz(dir / "copy.gz"), bytes);
    EXPECT_EQ(ReadFile(dir / "source.log"), bytes);
  }

  EXPECT_EQ(ToviLogWriter::GzipFile(dir / "missing.log", dir / "missing.log.gz"), -1);
  EXPECT_FALSE(fs::exists(dir / "missing.log.gz"));

  // A directory opens for reading and fails only at the first read, by which
  // time the target has been created.
  fs::create_directory(dir / "folder.log");
  EXPECT_EQ(ToviLogWriter::GzipFile(dir / "folder.log", dir / "folder.log.gz"), -1);
  EXPECT_FALSE(fs::exists(dir / "folder.log.gz"));

  EXPECT_EQ(ToviLogWriter::GzipFile(dir / "source.log", dir / "no/such/dir/copy.gz"), -1);
  EXPECT_FALSE(fs::exists(dir / "no"));

  fs::create_directory(dir / "taken.gz");
  EXPECT_EQ(ToviLogWriter::GzipFile(dir / "source.log", dir / "taken.gz"), -1);
  EXPECT_TRUE(fs::is_directory(dir / "taken.gz"));
}

TEST(LogArchive, FirstFileOfTheRunIsSpared) {
  // With "a.b_" a key cut at the first "." would match every file and spare
  // them all.
  for (const std::string prefix : {"app_", "a.b_"}) {
    SCOPED_TRACE(prefix);
    TempDir dir;
    // An earlier run's files dated ahead of this run's, so that this run's
    // first compressed file is the oldest.
    std::vector<std::string> future;
    for (int i = 0; i < 10; ++i) {
      future.push_back(prefix + "20990101_00000" + std::to_string(i) + ".log.gz");
      WriteGz(dir / future.back(), "future " + std::to_string(i));
    }

    auto writer = StartWriter(dir.path(), prefix, kRollEveryRecord, 10);
    const std::string first = WaitForLogAfter(dir.path(), prefix, "");
    ASSERT_FALSE(first.empty());
    EXPECT_EQ(CompressedLogs(dir.path(), prefix), future);

    AddRecord(*writer, "record #1#");
    const std::string second = WaitForLogAfter(dir.path(), prefix, first);
    ASSERT_FALSE(second.empty());
    // Eleven compressed files: the first file's copy is the oldest and stays,
    // the next one in order goes in its place.
    std::vector<std::string> expected{first + ".gz"};
    expected.insert(expected.end(), future.begin() + 1, future.end());
    EXPECT_EQ(CompressedLogs(dir.path(), prefix), expected);
    const std::string firstText = ReadGz(dir / (first + ".gz"));
    EXPECT_NE(firstText.find("This is the first log file"), std::string::npos);
    EXPECT_EQ(CountOf(firstText, "record #1#"), 1u);
    EXPECT_NE(firstText.rfind("File close at "), std::string::npos);

    AddRecord(*writer, "record #2#");
    const std::string third = WaitForLogAfter(dir.path(), prefix, second);
    ASSERT_FALSE(third.empty());
    writer.reset();

    // Again eleven: now the second file's copy is the oldest one not spared.
    EXPECT_EQ(CompressedLogs(dir.path(), prefix), expected);
    EXPECT_EQ(ReadGz(dir / (first + ".gz")), firstText);
    for (int i = 1; i < 10; ++i) EXPECT_EQ(ReadGz(dir / future[i]), "future " + std::to_string(i));
    EXPECT_EQ(PlainLogs(dir.path(), prefix), std::vector<std::string>{third});
  }
}

TEST(LogArchive, LimitCountsTheSparedFile) {
  const std::string prefix = "p_";
  // The limit compares unsigned: a negative one removes nothing.
  for (int limit : {-1, 0, 1}) {
    SCOPED_TRACE(limit);
    TempDir dir;
    std::vector<std::string> earlier;
    for (int day = 1; day <= 3; ++day) {
      earlier.push_back(prefix + "2024010" + std::to_string(day) + "_000000.log.gz");
      WriteGz(dir / earlier.back(), "earlier " + std::to_string(day));
    }
    WriteFile(dir / (prefix + "20240104_000000.log"), "earlier 4\n");
    earlier.push_back(prefix + "20240104_000000.log.gz");

    auto writer = StartWriter(dir.path(), prefix, kRollEveryRecord, limit);
    const std::string first = WaitForLogAfter(dir.path(), prefix, prefix + "20240104_000000.log");
    ASSERT_FALSE(first.empty());
    const std::vector<std::string> atStart = CompressedLogs(dir.path(), prefix);
    if (limit < 0) {
      EXPECT_EQ(atStart, earlier);
    } else {
      EXPECT_EQ(atStart, std::vector<std::string>(earlier.end() - limit, earlier.end()));
    }

    for (int i = 1; i <= 3; ++i) AddRecord(*writer, "record #" + std::to_string(i) + "#");
    writer.reset();

    const std::vector<std::string> plain = PlainLogs(dir.path(), prefix);
    ASSERT_EQ(plain.size(), 1u);
    EXPECT_GT(plain[0], first);
    std::vector<std::string> own;
    for (const std::string& name : CompressedLogs(dir.path(), prefix)) {
      if (name > earlier.back()) own.push_back(name);
    }
    if (limit < 0) {
      // Nothing removed: every record is in exactly one file.
      EXPECT_EQ(CompressedLogs(dir.path(), prefix).size(), earlier.size() + 3);
      ASSERT_EQ(own.size(), 3u);
      EXPECT_EQ(own[0], first + ".gz");
      std::string all = ReadFile(dir / plain[0]);
      for (const std::string& name : own) all += ReadGz(dir / name);
      for (int i = 1; i <= 3; ++i) EXPECT_EQ(CountOf(all, "record #" + std::to_string(i) + "#"), 1u);
      EXPECT_EQ(CountOf(all, "File create at time "), 4u);
      EXPECT_EQ(CountOf(all, "File close at "), 4u);
    } else {
      // Only the spared copy of the first file is left.
      EXPECT_EQ(CompressedLogs(dir.path(), prefix), std::vector<std::string>{first + ".gz"});
      EXPECT_EQ(CountOf(ReadGz(dir / (first + ".gz")), "record #1#"), 1u);
    }
  }
}

TEST(LogArchive, NamesAreNeverReused) {
  TempDir dir;
  const std::string prefix = "app_";
  const std::time_t now = std::time(nullptr);
  // This second and the next few are taken by plain files, one more by a
  // compressed one; the newest plain one is compressed at start, which
  // takes its second too.
  std::vector<std::string> taken;
  for (int i = 0; i < 4; ++i) {
    taken.push_back(LogName(prefix, now + i));
    WriteFile(dir / taken.back(), OddBytes("taken " + std::to_string(i)));
  }
  const std::string lastPlain = taken.back();
  const std::string takenGz = LogName(prefix, now + 4) + ".gz";
  WriteGz(dir / takenGz, "taken by a compressed file");
  const std::map<std::string, std::string> before = Snapshot(dir.path());

  const std::time_t started = std::time(nullptr);
  auto writer = StartWriter(dir.path(), prefix, kLargeFile, 10);
  const std::string own = WaitForLogAfter(dir.path(), prefix, LogName(prefix, now + 4));
  const std::time_t seen = std::time(nullptr);
  ASSERT_FALSE(own.empty());
  writer.reset();

  std::map<std::string, std::string> after = Snapshot(dir.path());
  for (const auto& entry : before) {
    SCOPED_TRACE(entry.first);
    if (entry.first == lastPlain) {
      EXPECT_EQ(after.count(entry.first), 0u);
      EXPECT_EQ("file:" + ReadGz(dir / (lastPlain + ".gz")), entry.second);
    } else {
      EXPECT_EQ(after[entry.first], entry.second);
    }
  }
  EXPECT_EQ(after.size(), before.size() + 1);
  EXPECT_EQ(after.count(own), 1u);
  EXPECT_EQ(after.count(lastPlain + ".gz"), 1u);

  // The creation line tells when the file was made, not what it is called.
  const std::string text = ReadFile(dir / own);
  const std::string tag = "File create at time ";
  const std::size_t at = text.find(tag);
  ASSERT_NE(at, std::string::npos);
  const std::string created = text.substr(at + tag.size(), 19);
  bool plausible = false;
  for (std::time_t t = started; t <= seen; ++t) {
    std::tm local{};
    localtime_r(&t, &local);
    char buf[32];
    std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &local);
    plausible = plausible || created == buf;
  }
  EXPECT_TRUE(plausible) << created;
}

TEST(LogArchive, MissingLogDirectoryIsCreated) {
  TempDir dir;
  const std::string logs = dir / "logs";
  auto writer = StartWriter(logs, "app_", kLargeFile, 10);
  const std::string own = WaitForLogAfter(logs + "/", "app_", "");
  ASSERT_FALSE(own.empty());
  AddRecord(*writer, "record #1#");
  writer.reset();

  EXPECT_EQ(ListDir(logs), std::vector<std::string>{own});
  EXPECT_EQ(CountOf(ReadFile(logs + "/" + own), "record #1#"), 1u);
}
