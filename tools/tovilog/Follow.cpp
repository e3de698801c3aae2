// Follow.cpp - polling the live files.
//
// A writer's live file is kept open, so it can still be read to its end
// after the writer has compressed and removed it at a roll-over. The move to
// the next file happens only once a newer file of the writer exists: the
// writer closes a file before it creates the next, so by then nothing more
// will be written to the old one. Every wait is a bounded poll, and SIGINT
// or SIGTERM ends the loop at the next turn.
#include "Follow.h"

#include <poll.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <set>
#include <string>

#include "FileReader.h"
#include "LocalTime.h"
#include "Warn.h"

namespace tovilog {
namespace {

volatile std::sig_atomic_t g_stop = 0;

extern "C" void OnStopSignal(int) { g_stop = 1; }

constexpr int kPollMs = 100;
// New writers, and newer files of a writer whose file has no close line, are
// looked for about once a second.
constexpr int kTurnsPerRescan = 10;
// Items one writer may hand out before the others get their turn.
constexpr int kItemsPerTurn = 4096;
// Turns without new data after which the item being read is shown: a
// record's continuation lines are written together with its head.
constexpr int kSettledTurns = 2;

struct LiveWriter {
  std::string dir;
  std::string prefix;
  bool named = false;
  LogFile file;  // the file being read, or the last one read
  std::unique_ptr<FileReader> reader;
  // Reading what was there before the start, which is not shown.
  bool catchingUp = false;
  // The file's close line was read: the writer is about to move on.
  bool closed = false;
  int quietTurns = 0;
};

class Follower {
public:
  Follower(const Options& options, Filter& filter, Sink& sink, Output& out)
      : options_(options), filter_(filter), sink_(sink), out_(out) {}

  void Add(const WriterFiles& writer, bool isNew);
  uint64_t Run();

private:
  bool Pump(LiveWriter& w, bool lookAround);
  bool OpenFile(LiveWriter& w, const LogFile& file);
  bool OpenNext(LiveWriter& w);
  bool HasNewer(const LiveWriter& w) const;
  void Emit(LiveWriter& w, const Item& item);
  void Rescan();

  const Options& options_;
  Filter& filter_;
  Sink& sink_;
  Output& out_;
  std::vector<std::unique_ptr<LiveWriter>> writers_;
  std::set<std::string> known_;
  uint64_t records_ = 0;
};

std::string KeyOf(const WriterFiles& writer) {
  return writer.dir + '\0' + writer.prefix + (writer.named ? "" : "\1");
}

void Follower::Add(const WriterFiles& writer, bool isNew) {
  if (!known_.insert(KeyOf(writer)).second || writer.files.empty()) return;
  auto w = std::make_unique<LiveWriter>();
  w->dir = writer.dir;
  w->prefix = writer.prefix;
  w->named = writer.named;
  // A new writer is shown whole; one that was there at the start from its
  // newest file's end on, or from --since.
  const bool fromSince = options_.since != kNoTime;
  const LogFile* start = nullptr;
  for (const LogFile& file : writer.files) {
    if (isNew || (fromSince && filter_.MayHold(file))) {
      start = &file;
      break;
    }
  }
  if (start == nullptr && !fromSince) start = &writer.files.back();
  if (start == nullptr) {
    w->file = writer.files.back();  // nothing to show yet: wait for a newer file
  } else {
    w->catchingUp = !isNew && !fromSince;
    OpenFile(*w, *start);
  }
  writers_.push_back(std::move(w));
}

bool Follower::OpenFile(LiveWriter& w, const LogFile& file) {
  w.reader.reset();
  w.file = file;
  w.closed = false;
  w.reader = std::make_unique<FileReader>(w.file, !w.file.compressed);
  if (!w.reader->Opened() && !w.file.compressed && w.reader->OpenErrno() == ENOENT) {
    // Compressed since it was listed.
    w.reader.reset();
    w.file.path += ".gz";
    w.file.name += ".gz";
    w.file.compressed = true;
    w.reader = std::make_unique<FileReader>(w.file, false);
  }
  if (w.reader->Opened()) return true;
  Warn(w.file.path, w.reader->OpenError());
  w.reader.reset();
  return false;
}

bool Follower::OpenNext(LiveWriter& w) {
  if (!w.named) return false;
  for (const LogFile& file : WriterFilesIn(w.dir, w.prefix)) {
    if (file.created > w.file.created && OpenFile(w, file)) return true;
  }
  return false;
}

bool Follower::HasNewer(const LiveWriter& w) const {
  if (!w.named) return false;
  const std::vector<LogFile> files = WriterFilesIn(w.dir, w.prefix);
  return !files.empty() && files.back().created > w.file.created;
}

void Follower::Emit(LiveWriter& w, const Item& item) {
  w.closed = w.closed || (!item.isRecord && item.event == EventKind::kClose);
  if (w.catchingUp || !filter_.Pass(item)) return;
  records_ += item.isRecord;
  sink_.Put(item);
}

// True when it handed out anything. A newer file is looked for once the
// current one has its close line, or with `lookAround` (about once a second,
// for a writer that ended without one); listing the directory at every turn
// would cost more than the reading.
bool Follower::Pump(LiveWriter& w, bool lookAround) {
  bool progressed = false;
  for (int n = 0; n < kItemsPerTurn && g_stop == 0; ++n) {
    if (w.reader == nullptr && !OpenNext(w)) return progressed;
    const Item* item = nullptr;
    switch (w.reader->Next(item)) {
      case FileReader::kItem:
        w.quietTurns = 0;
        Emit(w, *item);
        progressed = true;
        break;
      case FileReader::kNoData:
        if (w.catchingUp) {
          // The last item of the past, noted but not shown.
          if (const Item* past = w.reader->TakePending()) Emit(w, *past);
          w.catchingUp = false;
        } else if (++w.quietTurns == kSettledTurns && (item = w.reader->TakePending())) {
          Emit(w, *item);
          progressed = true;
        }
        if (!(w.closed || lookAround) || !HasNewer(w)) return progressed;
        // The writer has moved on: what the file holds now is all it will.
        w.reader->StopFollowing();
        break;
      case FileReader::kEnd:
        w.reader.reset();
        if (!OpenNext(w)) {
          w.catchingUp = false;
          return progressed;
        }
        break;
    }
  }
  return progressed;
}

void Follower::Rescan() {
  for (const std::string& path : options_.paths) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) continue;
    SetProblems problems;
    for (const WriterFiles& writer : CollectFileSet({path}, options_.prefixes, problems)) {
      Add(writer, true);
    }
  }
}

uint64_t Follower::Run() {
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);

  for (int turn = 1; g_stop == 0; ++turn) {
    const bool lookAround = turn % kTurnsPerRescan == 0;
    bool progressed = false;
    for (std::size_t i = 0; i < writers_.size(); ++i) progressed |= Pump(*writers_[i], lookAround);
    out_.Flush();
    if (lookAround) Rescan();
    if (!progressed && g_stop == 0) ::poll(nullptr, 0, kPollMs);
  }
  // The items being read when the stop came are shown too.
  for (const auto& w : writers_) {
    const Item* item = w->reader != nullptr ? w->reader->TakePending() : nullptr;
    if (item != nullptr) Emit(*w, *item);
  }
  out_.Flush();
  return records_;
}

}  // namespace

uint64_t Follow(const std::vector<WriterFiles>& writers, const Options& options, Filter& filter,
                Sink& sink, Output& out) {
  Follower follower(options, filter, sink, out);
  for (const WriterFiles& writer : writers) follower.Add(writer, false);
  return follower.Run();
}

}  // namespace tovilog
