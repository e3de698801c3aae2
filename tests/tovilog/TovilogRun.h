// TovilogRun.h - running the built tovilog in a child process, with its
// output in files, and every wait bounded.
#ifndef TOVI_TESTS_TOVILOG_TOVILOGRUN_H
#define TOVI_TESTS_TOVILOG_TOVILOGRUN_H

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <nlohmann/json.hpp>

#include "WriterTestSupport.h"

extern char** environ;

namespace tovitest {

class TovilogChild {
public:
  explicit TovilogChild(std::vector<std::string> args) {
    args.insert(args.begin(), TOVILOG_PATH);
    std::vector<char*> argv;
    for (std::string& arg : args) argv.push_back(arg.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 1, (dir_ / "out").c_str(), O_WRONLY | O_CREAT, 0644);
    posix_spawn_file_actions_addopen(&files, 2, (dir_ / "err").c_str(), O_WRONLY | O_CREAT, 0644);
    if (posix_spawn(&pid_, TOVILOG_PATH, &files, nullptr, argv.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&files);
  }
  ~TovilogChild() { Wait(std::chrono::seconds(0)); }

  // The exit status; -1 when the child had to be killed after `bound`.
  int Wait(std::chrono::seconds bound = std::chrono::seconds(120)) {
    int status = 0;
    if (pid_ > 0 && !WaitUntil([&] { return ::waitpid(pid_, &status, WNOHANG) != 0; }, bound))
      ::kill(pid_, SIGKILL), ::waitpid(pid_, &status, 0);
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  void Interrupt() { ::kill(pid_, SIGINT); }
  std::string Out() const { return ReadFile(dir_ / "out"); }
  std::string Err() const { return ReadFile(dir_ / "err"); }

private:
  TempDir dir_;
  pid_t pid_ = -1;
};

struct Result {
  int status;
  std::string out, err;
};
inline Result RunTovilog(const std::vector<std::string>& args) {
  TovilogChild child(args);
  return {child.Wait(), child.Out(), child.Err()};
}

// The JSON objects of --json output, one per line.
inline std::vector<nlohmann::json> JsonLines(const std::string& out) {
  std::vector<nlohmann::json> objects;
  for (const std::string& line : SplitLines(out)) objects.push_back(nlohmann::json::parse(line));
  return objects;
}

}  // namespace tovitest

#endif
