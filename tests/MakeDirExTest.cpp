// Directory creation: whole trees, refusals, and paths that would have been
// commands if they had ever reached a shell.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <thread>

#include "ToviBaseUtil.h"
#include "TestSupport.h"

namespace fs = std::filesystem;
using tovitest::TempDir;

TEST(MakeDirEx, RefusalsExistingEntriesAndNewTrees) {
  TempDir dir;
  tovitest::WriteFile(dir / "file", "x");
  EXPECT_EQ(ToviMakeDirEx(nullptr), -1);
  // A regular file where a parent should be: nothing can be made below it.
  for (const std::string& bad : {std::string(), dir / "a%b", dir / "file/sub/leaf"})
    EXPECT_EQ(ToviMakeDirEx(bad.c_str()), -1) << bad;
  EXPECT_FALSE(fs::exists(dir / "a%b"));
  EXPECT_TRUE(ToviMakeDirEx(dir.path().c_str()) == 0 && ToviMakeDirEx((dir / "file").c_str()) == 0);
  EXPECT_TRUE(fs::is_regular_file(dir / "file"));

  // Every missing level is made; doubled slashes and ".." are just levels.
  const std::pair<const char*, const char*> made[] = {
      {"x/y/z", "x/y/z"}, {"t//u/v/", "t/u/v"}, {"x/y/../w", "x/w"}};
  for (const auto& [path, tree] : made)
    EXPECT_TRUE(ToviMakeDirEx((dir / path).c_str()) == 0 && fs::is_directory(dir / tree)) << path;
}

TEST(MakeDirEx, PathIsDataNeverACommand) {
  TempDir dir;
  const std::string marker = dir / "marker";
  for (const std::string& name :
       {"$(touch " + marker + ")", "`touch " + marker + "`", "q\" ; touch " + marker + " ; \"q"}) {
    // The "/"s of the marker path make levels of their own; the last level
    // is the literal name, quotes and all.
    const std::string path = dir / ("cmd/" + name);
    EXPECT_TRUE(ToviMakeDirEx(path.c_str()) == 0 && fs::is_directory(path)) << name;
    EXPECT_FALSE(fs::exists(marker)) << name;
  }
}

TEST(MakeDirEx, LengthBoundOfTheCommandLine) {
  // "mkdir \"" + path + "\"" had to fit 1023 characters: 1015 is the longest
  // path that is created, one more is refused and leaves nothing behind.
  TempDir dir;
  auto pathOfLength = [&](std::size_t total, char fill) {
    std::string path = dir.path();
    while (total - path.size() > 201) path += std::string(200, fill) + "/";
    return path + std::string(total - path.size(), fill);
  };
  const std::string fits = pathOfLength(1015, 'a');
  EXPECT_TRUE(ToviMakeDirEx(fits.c_str()) == 0 && fs::is_directory(fits));
  EXPECT_EQ(ToviMakeDirEx(pathOfLength(1016, 'b').c_str()), -1);
  EXPECT_FALSE(fs::exists(dir / std::string(200, 'b')));
}

TEST(MakeDirEx, ConcurrentCreatorsOfOneTree) {
  TempDir dir;
  const std::string path = dir / "p/q/r/s/t/u";
  std::atomic<int> failures{0};
  std::atomic<bool> go{false};  // released together, so the creators race
  std::thread threads[8];
  for (auto& t : threads)
    t = std::thread([&] {
      while (!go.load()) std::this_thread::yield();
      if (ToviMakeDirEx(path.c_str()) != 0) ++failures;
    });
  go = true;
  for (auto& t : threads) t.join();
  EXPECT_TRUE(failures.load() == 0 && fs::is_directory(path));
}
