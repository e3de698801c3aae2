// Options.cpp - the options of tovilog, with CLI11, and the checks of their
// values; every option's help carries an example.
#include "Options.h"

#include <CLI/CLI.hpp>
#include <re2/re2.h>

#include "TimeValue.h"

namespace tovilog {
namespace {

const char kDescription[] =
    "tovilog - read, filter, follow and export the log files of tovibaseutil writers.\n"
    "Reads plain (.log) and archived (.log.gz) files alike, gives every record its full\n"
    "date and time, and merges the writers of a directory by time.";

const char kExamples[] =
    "Examples:\n"
    "  tovilog /opt/p/var/logs/mrblog                    every writer, merged by time\n"
    "  tovilog /opt/p/var/logs/mrblog --prefix mysvc     one writer's files\n"
    "  tovilog mysvc20261123_091502.log.gz               given files\n"
    "  tovilog DIR --since -15m --level ERROR+           errors of the last 15 minutes\n"
    "  tovilog DIR --module 'net*' --grep 'link (up|down)' -i\n"
    "  tovilog DIR --json | jq 'select(.level==\"ERROR\") | .text'\n"
    "  tovilog DIR --stats --since 09:00 --until 10:00   what filled the log this hour\n"
    "  tovilog DIR -f --level WARN+                      watch warnings as they come\n"
    "\n"
    "Text output: each record as it stands in the file with its date in front; with\n"
    "several writers each line starts with \"[prefix] \". File events (the file's own\n"
    "lines) read \"<date> <time> -- <file>: <line>\".\n"
    "Exit status: 0 records found, 1 none found, 2 bad usage or nothing readable.";

// A usage error: reported like CLI11's own, with status 2.
int UsageError(const std::string& what) {
  std::fprintf(stderr, "tovilog: %s\nRun with --help for more information.\n", what.c_str());
  return 2;
}

std::optional<int> Resolve(Options& o, const std::string& since, const std::string& until,
                           const std::vector<std::string>& levels) {
  const int64_t now = WallNow();
  if (!since.empty() && !ParseTimeValue(since, now, o.since)) {
    return UsageError("--since: not a time: " + since);
  }
  if (!until.empty() && !ParseTimeValue(until, now, o.until)) {
    return UsageError("--until: not a time: " + until);
  }
  if (!levels.empty()) o.levels = 0;
  for (const std::string& level : levels) {
    if (!AddLevels(level, o.levels)) return UsageError("--level: not a level: " + level);
  }
  for (const std::string& text : o.threadTexts) {
    std::string hex;
    if (!RE2::FullMatch(text, "(?i)(?:0x)?([0-9a-f]{1,8})", &hex)) {
      return UsageError("--thread: not a hexadecimal thread id: " + text);
    }
    o.threads.push_back(static_cast<uint32_t>(std::stoul(hex, nullptr, 16)));
  }
  if (!o.grep.empty()) {
    RE2::Options reOptions;
    reOptions.set_log_errors(false);
    const RE2 re(o.grep, reOptions);
    if (!re.ok()) return UsageError("--grep: " + re.error());
  }
  if (o.follow && (o.count || o.stats)) {
    return UsageError("--follow cannot be combined with --count or --stats");
  }
  return std::nullopt;
}

}  // namespace

std::optional<int> ParseOptions(int argc, char** argv, Options& o) {
  CLI::App app(kDescription, "tovilog");
  app.set_version_flag("--version", std::string("tovilog ") + TOVI_VERSION);
  app.footer(kExamples);
  app.get_formatter()->column_width(28);
  std::string since, until;
  std::vector<std::string> levels;

  app.add_option("paths", o.paths,
                 "Log directories and/or log files to read. A directory gives every writer's "
                 "files in it (e.g. /opt/p/var/logs/mrblog)")
      ->required()
      ->type_name("DIR|FILE");
  app.add_option("--prefix", o.prefixes,
                 "Read only the files of the writer with this exact prefix from the "
                 "directories; repeatable (e.g. --prefix mysvc --prefix mysvcbilling_)")
      ->type_name("NAME");
  app.add_option("--since", since,
                 "Records at or after this time: a date and time (a blank or T between), a "
                 "time of day meaning today, now, today, yesterday, or a time back from now in "
                 "s, m, h or d (e.g. --since '2026-11-23 09:15', --since 2026-11-23T09:15:02, "
                 "--since 09:15, --since yesterday, --since -15m)")
      ->type_name("TIME");
  app.add_option("--until", until,
                 "Records before this time, in the same forms (e.g. --until 2026-11-24)")
      ->type_name("TIME");
  app.add_option("--module", o.modules,
                 "Records of this sub-module; * matches any characters; repeatable "
                 "(e.g. --module net --module 'db*')")
      ->type_name("NAME");
  app.add_option("-p,--level", levels,
                 "Records of this level: ASSERT, ERROR, WARN, INFO or a number 0-31 (levels "
                 "4-31 are not marked in the files and count as one level, 4-31); a "
                 "trailing + adds the more severe levels; repeatable (e.g. --level ERROR+)")
      ->type_name("LEVEL");
  app.add_option("--thread", o.threadTexts,
                 "Records of this thread, by its hexadecimal id as in the file; repeatable "
                 "(e.g. --thread 1a2c)")
      ->type_name("HEX");
  app.add_option("--grep", o.grep,
                 "Records whose text (after the level, with continuation and ASN lines) "
                 "matches this RE2 expression (e.g. --grep 'link (up|down)')")
      ->type_name("RE2");
  app.add_flag("-i,--ignore-case", o.ignoreCase,
               "Match --grep without regard to case (e.g. -i --grep timeout)");
  app.add_option_function<std::string>(
         "-o,--output",
         [&o](const std::string& format) {
           if (format != "json") throw CLI::ValidationError("--output", "only json is known");
           o.json = true;
         },
         "Output format; json is the same as --json (e.g. -o json)")
      ->type_name("FORMAT");
  app.add_flag("--json", o.json,
               "One JSON object per line: time (ISO 8601 with microseconds and zone offset), "
               "writer, file, thread, module, level, text and asn (e.g. --json | jq .text)");
  app.add_flag("--count", o.count, "Print only the number of matching records (e.g. --count)");
  app.add_flag("--stats", o.stats,
               "Print records per level, module, thread and minute, and the busiest minutes; "
               "as one JSON object with --json (e.g. --stats --since -1h)");
  app.add_flag("-f,--follow", o.follow,
               "Print new records as the writers write them, across roll-overs, until Ctrl-C; "
               "with --since, what came since first (e.g. -f --since -5m)");
  app.add_flag("--quiet-events", o.quietEvents,
               "Leave out the file events (creation, header, date, stop and close lines, "
               "dropped-record counts); a filter on module, level or thread leaves them out "
               "too (e.g. --quiet-events)");
  app.add_flag("--by-writer", o.byWriter,
               "One writer after the other instead of merged by time (e.g. --by-writer)");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    const int status = app.exit(e);
    return status == 0 ? 0 : 2;
  }
  return Resolve(o, since, until, levels);
}

}  // namespace tovilog
