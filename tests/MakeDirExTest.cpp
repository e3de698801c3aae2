// Directory creation: whole trees, refusals, and paths that would have been
// commands if they had ever reached a shell.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "ToviBaseUtil.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using tovitest::TempDir;
using tovitest::WriteFile;

TEST(MakeDirEx, RefusalsExistingEntriesAndNewTrees) {
  TempDir dir;
  EXPECT_EQ(ToviMakeDirEx(nullptr), -1);
  EXPECT_EQ(ToviMakeDirEx(""), -1);
  EXPECT_EQ(ToviMakeDirEx((dir / "a%b").c_str()), -1);
  EXPECT_FALSE(fs::exists(dir / "a%b"));

  EXPECT_EQ(ToviMakeDirEx(dir.path().c_str()), 0);
  WriteFile(dir / "file", "x");
  EXPECT_EQ(ToviMakeDirEx((dir / "file").c_str()), 0);
  EXPECT_TRUE(fs::is_regular_file(dir / "file"));

  // A regular file where a parent should be: nothing can be made below it.
  EXPECT_EQ(ToviMakeDirEx((dir / "file/sub/leaf").c_str()), -1);
  // A component longer than any file system takes.
  EXPECT_EQ(ToviMakeDirEx((dir / std::string(300, 'n')).c_str()), -1);

  // Every missing level is made; doubled slashes and ".." are just levels.
  EXPECT_EQ(ToviMakeDirEx((dir / "x/y/z").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(dir / "x/y/z"));
  EXPECT_EQ(ToviMakeDirEx((dir / "t//u/v/").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(dir / "t/u/v"));
  EXPECT_EQ(ToviMakeDirEx((dir / "x/y/../w").c_str()), 0);
  EXPECT_TRUE(fs::is_directory(dir / "x/w"));
}

TEST(MakeDirEx, PathIsDataNeverACommand) {
  TempDir dir;
  const std::string marker = dir / "marker";
  const std::vector<std::string> names = {
      "$(touch " + marker + ")",
      "`touch " + marker + "`",
      "q\" ; touch " + marker + " ; \"q",
      "semi; touch " + marker,
      "x && touch " + marker,
  };
  for (const std::string& name : names) {
    // Every "/" in the marker path makes levels of its own; the last one is
    // the literal name, quotes and all.
    const std::string path = dir / ("cmd/" + name);
    EXPECT_EQ(ToviMakeDirEx(path.c_str()), 0) << name;
    EXPECT_TRUE(fs::is_directory(path)) << name;
    EXPECT_FALSE(fs::exists(marker)) << name;
  }
}

TEST(MakeDirEx, LengthBoundOfTheCommandLine) {
  // "mkdir \"" + path + "\"" had to fit 1023 characters: 1015 is the longest
  // path that is created, one more is refused and leaves nothing behind.
  TempDir dir;
  auto pathOfLength = [&](std::size_t total, char fill) {
    std::string path = dir.path();
    while (path.size() < total) {
      const std::size_t room = total - path.size();
      const std::size_t piece = room > 201 ? 200 : room;
      path += std::string(piece, fill);
      if (path.size() < total) path += '/';
    }
    return path;
  };
  const std::string fits = pathOfLength(1015, 'a');
  ASSERT_EQ(fits.size(), 1015u);
  ASSERT_NE(fits.back(), '/');
  EXPECT_EQ(ToviMakeDirEx(fits.c_str()), 0);
  EXPECT_TRUE(fs::is_directory(fits));

  const std::string tooLong = pathOfLength(1016, 'b');
  ASSERT_EQ(tooLong.size(), 1016u);
  EXPECT_EQ(ToviMakeDirEx(tooLong.c_str()), -1);
  EXPECT_FALSE(fs::exists(dir / std::string(200, 'b')));
}

TEST(MakeDirEx, ConcurrentCreatorsOfOneTree) {
  TempDir dir;
  const std::string path = dir / "p/q/r/s/t/u";
  std::atomic<int> failures{0};
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&] {
      while (!go.load()) std::this_thread::yield();
      if (ToviMakeDirEx(path.c_str()) != 0) ++failures;
    });
  }
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_TRUE(fs::is_directory(path));
}
