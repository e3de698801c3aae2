// WriterStream.cpp - reading a writer's files in turn, and merging writers.
#include "WriterStream.h"

#include "Sink.h"
#include "Warn.h"

namespace tovilog {

const Item* WriterStream::Next() {
  for (;;) {
    if (reader_ == nullptr && !OpenNextFile()) return nullptr;
    const Item* item = nullptr;
    if (reader_->Next(item) == FileReader::kItem) {
      if (filter_.Pass(*item)) return item;
      continue;
    }
    tally_.readable += reader_->Readable();
    reader_.reset();
  }
}

// Files whose time span lies outside --since/--until are not opened.
bool WriterStream::OpenNextFile() {
  while (nextFile_ < writer_.files.size()) {
    const LogFile& file = writer_.files[nextFile_++];
    if (!filter_.MayHold(file)) continue;
    ++tally_.tried;
    auto reader = std::make_unique<FileReader>(file, false);
    if (!reader->Opened()) {
      Warn(file.path, reader->OpenError());
      continue;
    }
    reader_ = std::move(reader);
    return true;
  }
  return false;
}

uint64_t ReadFileSet(const std::vector<WriterFiles>& writers, bool merge, Filter& filter,
                     Sink& sink, ReadTally& tally) {
  std::vector<WriterStream> streams;
  for (const WriterFiles& writer : writers) streams.emplace_back(writer, filter, tally);
  uint64_t records = 0;
  auto put = [&](const Item& item) {
    records += item.isRecord;
    sink.Put(item);
  };

  if (!merge || streams.size() == 1) {
    for (WriterStream& stream : streams) {
      while (const Item* item = stream.Next()) put(*item);
    }
    return records;
  }

  // Each writer's next item waits in `heads`; the earliest goes first, and
  // of equal times the writer listed first. A writer's own order is kept.
  std::vector<const Item*> heads(streams.size());
  std::vector<std::size_t> live;
  for (std::size_t i = 0; i < streams.size(); ++i) {
    heads[i] = streams[i].Next();
    if (heads[i] != nullptr) live.push_back(i);
  }
  while (!live.empty()) {
    std::size_t best = 0;
    for (std::size_t k = 1; k < live.size(); ++k) {
      if (heads[live[k]]->when < heads[live[best]]->when) best = k;
    }
    const std::size_t i = live[best];
    put(*heads[i]);
    heads[i] = streams[i].Next();
    if (heads[i] == nullptr) live.erase(live.begin() + static_cast<long>(best));
  }
  return records;
}

}  // namespace tovilog
