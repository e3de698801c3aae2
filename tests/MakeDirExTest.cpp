// Directory creation: whole trees, refusals, the length bound, paths that
// would have been commands if they had ever reached a shell, and creators
// that race for one tree.
#include "WriterTestSupport.h"

namespace fs = std::filesystem;
using tovitest::TempDir;

TEST(MakeDirEx, TreesRefusalsTheLengthBoundAndRacingCreators) {
  TempDir dir;
  tovitest::WriteFile(dir / "file", "x");
  EXPECT_EQ(ToviMakeDirEx(nullptr), -1);
  // A regular file where a parent should be: nothing can be made below it.
  for (const std::string& bad : {std::string(), dir / "a%b", dir / "file/sub/leaf"})
    EXPECT_EQ(ToviMakeDirEx(bad.c_str()), -1) << bad;
  EXPECT_FALSE(fs::exists(dir / "a%b"));
  EXPECT_TRUE(ToviMakeDirEx(dir.path().c_str()) == 0 && ToviMakeDirEx((dir / "file").c_str()) == 0);
  // Every missing level is made; doubled slashes and ".." are just levels.
  // Quotes, "$(...)" and backticks are characters of a name.
  const std::string marker = dir / "marker";
  for (const auto& [path, tree] : std::vector<std::pair<std::string, std::string>>{
           {"x/y/z", "x/y/z"}, {"t//u/v/", "t/u/v"}, {"x/y/../w", "x/w"},
           {"c/$(touch " + marker + ")", ""}, {"c/`touch " + marker + "`", ""},
           {"c/q\" ; touch " + marker + " ; \"q", ""}}) {
    EXPECT_TRUE(ToviMakeDirEx((dir / path).c_str()) == 0 &&
                fs::is_directory(dir / (tree.empty() ? path : tree)))
        << path;
  }
  EXPECT_FALSE(fs::exists(marker));
  // "mkdir \"" + path + "\"" had to fit 1023 characters: 1015 is the longest
  // path that is created, one more is refused and leaves nothing behind.
  const auto pathOfLength = [&](std::size_t total, char fill) {
    std::string path = dir.path();
    while (total - path.size() > 201) path += std::string(200, fill) + "/";
    return path + std::string(total - path.size(), fill);
  };
  const std::string fits = pathOfLength(1015, 'a');
  EXPECT_TRUE(ToviMakeDirEx(fits.c_str()) == 0 && fs::is_directory(fits));
  EXPECT_EQ(ToviMakeDirEx(pathOfLength(1016, 'b').c_str()), -1);
  EXPECT_FALSE(fs::exists(dir / std::string(200, 'b')));
  // Creators that race for one tree all succeed.
  std::atomic<int> failures{0};
  std::vector<std::thread> racers;
  for (int i = 0; i < 8; ++i)
    racers.emplace_back([&] { failures += ToviMakeDirEx((dir / "p/q/r/s/t/u").c_str()) != 0; });
  for (auto& racer : racers) racer.join();
  EXPECT_TRUE(failures.load() == 0 && fs::is_directory(dir / "p/q/r/s/t/u"));
}
