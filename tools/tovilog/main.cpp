// tovilog - reads, filters, follows and exports the log files of the
// library's writers, plain and archived alike. See --help.
#include <sys/stat.h>

#include "FileSet.h"
#include "Follow.h"
#include "Options.h"
#include "Sink.h"
#include "Warn.h"
#include "WriterStream.h"

using namespace tovilog;

namespace {

bool IsDirectory(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Lines carry their writer's prefix when more than one writer can show up.
bool LabelWriters(const Options& options, const std::vector<WriterFiles>& writers) {
  if (writers.size() > 1) return true;
  if (!options.follow || options.prefixes.size() == 1) return false;
  for (const std::string& path : options.paths) {
    if (IsDirectory(path)) return true;
  }
  return false;
}

std::unique_ptr<Sink> MakeSink(const Options& options, Output& out, bool labelWriters) {
  if (options.count || options.stats) return MakeStatsSink(out, !options.stats, options.json);
  if (options.json) return MakeJsonSink(out);
  return MakeTextSink(out, labelWriters);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (const std::optional<int> status = ParseOptions(argc, argv, options)) return *status;

  SetProblems problems;
  const std::vector<WriterFiles> writers =
      CollectFileSet(options.paths, options.prefixes, problems);
  const bool canWait = options.follow && problems.unreadablePaths < static_cast<int>(options.paths.size());
  if (writers.empty() && !canWait) {
    if (problems.unreadablePaths == 0) Warn("", "no log files found");
    return 2;
  }

  Filter filter(options);
  Output out;
  const std::unique_ptr<Sink> sink = MakeSink(options, out, LabelWriters(options, writers));
  ReadTally tally;
  const uint64_t records =
      options.follow ? Follow(writers, options, filter, *sink, out)
                     : ReadFileSet(writers, !options.byWriter, filter, *sink, tally);
  sink->Finish();
  out.Flush();
  if (tally.tried > 0 && tally.readable == 0) return 2;
  return records > 0 ? 0 : 1;
}
