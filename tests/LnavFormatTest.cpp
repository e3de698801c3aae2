// The lnav format shipped with the library, run by the real lnav over a file
// set that real writers made: plain and compressed files, two writers, a
// record of several lines and the writer's own lines.
#include <sys/wait.h>

#include "WriterTestSupport.h"

using namespace tovitest;

// Runs lnav with args, HOME set to home (no shell); what it printed, and
// whether it exited with 0.
static std::pair<bool, std::string> RunLnav(const std::string& home, const std::vector<std::string>& args) {
  TempDir out;
  std::vector<char*> argv{const_cast<char*>("lnav")};
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  const std::string path = out / "out";
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::setenv("HOME", home.c_str(), 1);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(fd, 1), ::dup2(fd, 2);
    ::execvp("lnav", argv.data());
    ::_exit(127);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return {WIFEXITED(status) && WEXITSTATUS(status) == 0, ReadFile(path)};
}

TEST(LnavFormat, CountsLevelsAndMatchesEveryLine) {
  TempDir home, config, dir;
  std::filesystem::create_directories(config / "formats/tovi");
  std::filesystem::copy_file(std::string(TOVI_SOURCE_DIR) + "/share/lnav/tovi_log.json",
                             config / "formats/tovi/tovi_log.json");
  std::map<std::string, int> traced;
  // lnav takes files whose first lines are the same for one file, and a
  // creation line names the second and the process: each file here starts
  // in a second of its own.
  const auto pause = [] { std::this_thread::sleep_for(std::chrono::milliseconds(1100)); };
  const char* const names[] = {"fatal", "error", "warning", "info", "debug"};
  const auto trace = [&](ToviLogWriter& writer, int from, int to) {
    for (int i = from; i < to; ++i) {
      const std::string text = "record " + std::to_string(i) + (i % 7 == 0 ? "\n  and its second line" : "") +
                               std::string(100, '.');
      ASSERT_TRUE(writer.AddLog("lnv", static_cast<ToviLogLevel>(i % 5 == 4 ? 9 : i % 5), text.c_str(), nullptr,
                                false, true));
      ++traced[names[i % 5]];
    }
  };
  {
    auto main = NewWriter(dir.path(), "lnav", "lnav test 1.0\n", 10, 64 * 1024);
    trace(*main, 0, 300);
    pause();
    trace(*main, 300, 600);  // past 64 KiB: a roll-over, and an archive
    pause();
    auto app = NewWriter(dir.path(), "lnavapp_", "app\n", 10, 64 * 1024);
    trace(*app, 600, 900);
  }
  const std::vector<std::string> files = ListDir(dir.path());
  ASSERT_TRUE(std::any_of(files.begin(), files.end(), [](const std::string& n) { return EndsWith(n, ".gz"); }));

  const auto [counted, table] = RunLnav(home.path(), {"-n", "-I", config.path(), "-c",
      ";SELECT log_level, count(*) FROM tovi_log WHERE module = 'lnv' GROUP BY log_level", dir.path()});
  EXPECT_TRUE(counted) << table;
  std::map<std::string, int> seen;
  for (const std::string& line : SplitLines(table)) {
    char level[32];
    int n = 0;
    if (std::sscanf(line.c_str(), "%31s %d", level, &n) == 2) seen[level] = n;
  }
  EXPECT_EQ(seen, traced) << table;
  // The format's own samples and the files: nothing that does not match.
  const auto [checked, report] = RunLnav(home.path(), {"-C", "-I", config.path(), dir.path()});
  EXPECT_TRUE(checked) << report;
  EXPECT_EQ(report.find("error"), std::string::npos) << report;
}
