// The platform layer's decisions that other parts of the library rely on.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>

#include "TestSupport.h"
#include "port/ToviPort.h"

namespace fs = std::filesystem;
using tovitest::TempDir;

TEST(Port, ExistenceReasons) {
  TempDir dir;
  EXPECT_EQ(toviport::CheckPath(dir.path().c_str()), toviport::PathState::Exists);
  EXPECT_EQ(toviport::CheckPath((dir / "not-yet").c_str()), toviport::PathState::Absent);
  EXPECT_EQ(toviport::CheckPath((dir / "no/such/parent").c_str()), toviport::PathState::Absent);
  EXPECT_EQ(toviport::CheckPath((dir / std::string(256, 'c')).c_str()),
            toviport::PathState::TooLong);
  std::string deep = dir.path();
  while (deep.size() < 5000) deep += std::string(100, 'd') + "/";
  EXPECT_EQ(toviport::CheckPath(deep.c_str()), toviport::PathState::TooLong);
}

TEST(Port, FullDirPathResolvesAndKeepsTheSlash) {
  TempDir dir;
  fs::create_directories(dir / "real/logs");
  fs::create_directory_symlink(dir / "real", dir / "link");
  const std::string resolved = fs::canonical(dir / "real/logs").string() + "/";
  EXPECT_EQ(toviport::FullDirPath(dir / "link/logs/"), resolved);
  EXPECT_EQ(toviport::FullDirPath(dir / "link/./logs"), resolved);
  EXPECT_EQ(toviport::FullDirPath("/"), "/");
  EXPECT_EQ(toviport::FullDirPath(dir / "gone/"), dir / "gone/");
  EXPECT_EQ(toviport::FullDirPath(""), "");
}

TEST(Port, ThreadIdsAreTheKernels) {
  const uint32_t mine = toviport::CurrentThreadId();
  uint32_t other = mine;
  std::thread([&] { other = toviport::CurrentThreadId(); }).join();
  EXPECT_NE(mine, other);
  EXPECT_EQ(toviport::CurrentProcessId(), mine);  // the main thread's id is the process id
}
