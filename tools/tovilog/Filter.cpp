// Filter.cpp - the record filters.
#include "Filter.h"

#include <algorithm>

#include <re2/re2.h>

namespace tovilog {
namespace {

constexpr std::size_t kMaxModulesSeen = 4096;

// "net*" and "db" become one anchored expression: (?:net.*|db).
std::string WildcardsToRe(const std::vector<std::string>& patterns) {
  std::string re;
  for (const std::string& pattern : patterns) {
    if (!re.empty()) re += '|';
    std::size_t start = 0;
    for (std::size_t star = pattern.find('*'); star != std::string::npos;
         star = pattern.find('*', start)) {
      re += RE2::QuoteMeta(pattern.substr(start, star - start)) + ".*";
      start = star + 1;
    }
    re += RE2::QuoteMeta(pattern.substr(start));
  }
  return "(?s:" + re + ")";
}

// The text from `begin` without the item's last line end, so that "$"
// matches at the end of the last line.
re2::StringPiece Piece(const std::string& text, std::size_t begin) {
  const std::size_t end = text.empty() ? 0 : text.size() - 1;
  return begin < end ? re2::StringPiece(text.data() + begin, end - begin) : re2::StringPiece();
}

}  // namespace

Filter::Filter(const Options& options)
    : since_(options.since),
      until_(options.until),
      levels_(options.levels),
      threads_(options.threads),
      showEvents_(!options.quietEvents && options.modules.empty() && options.threads.empty() &&
                  options.levels == kAllLevels) {
  if (!options.modules.empty()) modules_ = std::make_unique<RE2>(WildcardsToRe(options.modules));
  if (!options.grep.empty()) {
    RE2::Options reOptions;
    reOptions.set_case_sensitive(!options.ignoreCase);
    reOptions.set_log_errors(false);
    grep_ = std::make_unique<RE2>(options.grep, reOptions);
  }
}

Filter::~Filter() = default;

bool Filter::Pass(const Item& item) {
  if (item.when < since_ || item.when >= until_) return false;
  if (!item.isRecord) {
    return showEvents_ && (grep_ == nullptr || RE2::PartialMatch(Piece(item.text, 0), *grep_));
  }
  if ((levels_ & (1u << item.level)) == 0) return false;
  if (!threads_.empty() &&
      std::find(threads_.begin(), threads_.end(), item.thread) == threads_.end()) {
    return false;
  }
  if (modules_ != nullptr && !ModulePasses(item.Module())) return false;
  return grep_ == nullptr || RE2::PartialMatch(Piece(item.text, item.messageBegin), *grep_);
}

bool Filter::ModulePasses(std::string_view module) {
  const auto seen = moduleSeen_.find(module);
  if (seen != moduleSeen_.end()) return seen->second;
  if (moduleSeen_.size() >= kMaxModulesSeen) moduleSeen_.clear();
  const bool pass = RE2::FullMatch(re2::StringPiece(module.data(), module.size()), *modules_);
  moduleSeen_.emplace(std::string(module), pass);
  return pass;
}

bool Filter::MayHold(const LogFile& file) const { return MayHoldRecords(file, since_, until_); }

}  // namespace tovilog
