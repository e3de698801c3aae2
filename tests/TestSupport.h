// TestSupport.h - real files in fresh temporary directories, and scoped
// environment changes, for the tests.
#ifndef TOVI_TESTS_TESTSUPPORT_H
#define TOVI_TESTS_TESTSUPPORT_H

#include <bitset>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>

namespace tovitest {

// A directory of its own under the system's temporary directory, removed
// with everything in it when the test ends. Its path ends in "/".
class TempDir {
public:
  TempDir() : path_((std::filesystem::temp_directory_path() / "tovi-XXXXXX").string()) {
    path_ = ::mkdtemp(path_.data()) != nullptr ? path_ + "/" : std::string();
  }
  ~TempDir() { std::error_code ec; if (!path_.empty()) std::filesystem::remove_all(path_, ec); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + name; }

private:
  std::string path_;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Sets or unsets an environment variable for the scope and restores it after.
class ScopedEnv {
public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = std::string(old);
    Set(value);
  }
  ~ScopedEnv() { Set(old_ ? old_->c_str() : nullptr); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;
  void Set(const char* value) { value ? ::setenv(name_.c_str(), value, 1) : ::unsetenv(name_.c_str()); }

private:
  std::string name_;
  std::optional<std::string> old_;
};

// A 32-bit mask from the numbers of its set bits, so that no test has to
// think about which end of a string std::bitset counts from.
inline std::bitset<32> Bits(std::initializer_list<int> bits) {
  std::bitset<32> mask;
  for (int bit : bits) mask.set(static_cast<std::size_t>(bit));
  return mask;
}

// An installation root of its own, named by TOVI_ROOT for the scope, with
// etc/conf/ holding the debug and the product configuration files when they
// are given, so that no configuration of the machine leaks in.
struct ScopedRoot {
  explicit ScopedRoot(const std::string& debugCfg = "", const std::string& productCfg = "") {
    std::filesystem::create_directories(root / "etc/conf");
    if (!debugCfg.empty()) WriteFile(Conf("default_debug.cfg"), debugCfg);
    if (!productCfg.empty()) WriteFile(Conf("tovi.cfg"), productCfg);
  }
  std::string Conf(const std::string& name) const { return root / ("etc/conf/" + name); }
  TempDir root;
  ScopedEnv env{"TOVI_ROOT", root.path().c_str()};
};

}  // namespace tovitest

#endif
