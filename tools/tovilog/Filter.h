// Filter.h - which items pass the options' filters.
//
// Every filter applies to records. A file event has no module, level or
// thread, so a filter on one of those leaves events out; time and --grep
// apply to events as to records.
#ifndef TOVI_TOOLS_TOVILOG_FILTER_H
#define TOVI_TOOLS_TOVILOG_FILTER_H

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Item.h"
#include "Options.h"

namespace re2 {
class RE2;
}

namespace tovilog {

class Filter {
public:
  explicit Filter(const Options& options);
  ~Filter();

  bool Pass(const Item& item);
  // Whether a file is worth opening for the time filters.
  bool MayHold(const LogFile& file) const;
  int64_t Since() const { return since_; }

private:
  bool ModulePasses(std::string_view module);

  int64_t since_;
  int64_t until_;
  unsigned levels_;
  std::vector<uint32_t> threads_;
  std::unique_ptr<re2::RE2> modules_;
  std::unique_ptr<re2::RE2> grep_;
  bool showEvents_;
  // Decisions on module names seen so far; there are few of them.
  std::map<std::string, bool, std::less<>> moduleSeen_;
};

}  // namespace tovilog

#endif
