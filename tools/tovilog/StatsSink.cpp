// StatsSink.cpp - counting records by level, module, thread and minute.
#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <map>
#include <vector>

#include <nlohmann/json.hpp>

#include "Level.h"
#include "LocalTime.h"
#include "Sink.h"

namespace tovilog {
namespace {

constexpr std::size_t kBusiest = 10;
constexpr int64_t kMicrosPerMinute = 60 * kMicrosPerSecond;

std::string Hex(uint32_t value) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "%x", value);
  return buf;
}

std::string Minute(int64_t minute) { return FormatWall(minute * kMicrosPerMinute).substr(0, 16); }

class StatsSink : public Sink {
public:
  StatsSink(Output& out, bool countOnly, bool json) : out_(out), countOnly_(countOnly), json_(json) {}

  void Put(const Item& item) override {
    if (!item.isRecord) return;
    ++total_;
    if (countOnly_) return;
    ++levels_[item.level];
    const auto module = modules_.find(item.Module());
    if (module != modules_.end()) {
      ++module->second;
    } else {
      modules_.emplace(std::string(item.Module()), 1);
    }
    ++threads_[item.thread];
    const int64_t minute = item.when / kMicrosPerMinute - (item.when % kMicrosPerMinute < 0);
    ++minutes_[minute];
  }

  void Finish() override {
    if (countOnly_) return Print(std::to_string(total_) + "\n");
    std::vector<std::pair<int64_t, uint64_t>> busiest(minutes_.begin(), minutes_.end());
    std::stable_sort(busiest.begin(), busiest.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    if (busiest.size() > kBusiest) busiest.resize(kBusiest);
    if (json_) return PrintJson(busiest);

    Print(Row("records", total_));
    Print("levels\n");
    for (int level = 0; level <= kUnmarkedLevel; ++level) {
      if (levels_[level] > 0) Print(Row(std::string("  ") + LevelName(level), levels_[level]));
    }
    Print("modules\n");
    for (const auto& [name, n] : modules_) Print(Row("  " + name, n));
    Print("threads\n");
    for (const auto& [thread, n] : threads_) Print(Row("  " + Hex(thread), n));
    Print("minutes\n");
    for (const auto& [minute, n] : minutes_) Print(Row("  " + Minute(minute), n));
    Print("busiest minutes\n");
    for (const auto& [minute, n] : busiest) Print(Row("  " + Minute(minute), n));
  }

private:
  void Print(const std::string& text) { out_.Append(text); }

  static std::string Row(const std::string& name, uint64_t n) {
    char buf[32];
    std::snprintf(buf, sizeof buf, " %12" PRIu64 "\n", n);
    return name + std::string(name.size() < 24 ? 24 - name.size() : 0, ' ') + buf;
  }

  void PrintJson(const std::vector<std::pair<int64_t, uint64_t>>& busiest) {
    nlohmann::ordered_json j;
    j["records"] = total_;
    j["levels"] = nlohmann::ordered_json::object();
    for (int level = 0; level <= kUnmarkedLevel; ++level) {
      if (levels_[level] > 0) j["levels"][LevelName(level)] = levels_[level];
    }
    j["modules"] = nlohmann::ordered_json::object();
    for (const auto& [name, n] : modules_) j["modules"][name] = n;
    j["threads"] = nlohmann::ordered_json::object();
    for (const auto& [thread, n] : threads_) j["threads"][Hex(thread)] = n;
    j["minutes"] = nlohmann::ordered_json::object();
    for (const auto& [minute, n] : minutes_) j["minutes"][Minute(minute)] = n;
    j["busiest"] = nlohmann::ordered_json::array();
    for (const auto& [minute, n] : busiest) {
      j["busiest"].push_back({{"minute", Minute(minute)}, {"records", n}});
    }
    Print(j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
  }

  Output& out_;
  bool countOnly_;
  bool json_;
  uint64_t total_ = 0;
  uint64_t levels_[kUnmarkedLevel + 1] = {};
  std::map<std::string, uint64_t, std::less<>> modules_;
  std::map<uint32_t, uint64_t> threads_;
  std::map<int64_t, uint64_t> minutes_;
};

}  // namespace

std::unique_ptr<Sink> MakeStatsSink(Output& out, bool countOnly, bool json) {
  return std::make_unique<StatsSink>(out, countOnly, json);
}

}  // namespace tovilog
