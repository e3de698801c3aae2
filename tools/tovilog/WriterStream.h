// WriterStream.h - the items of one writer that pass the filters, its files
// one after the other, oldest first.
#ifndef TOVI_TOOLS_TOVILOG_WRITERSTREAM_H
#define TOVI_TOOLS_TOVILOG_WRITERSTREAM_H

#include <memory>

#include "FileReader.h"
#include "FileSet.h"
#include "Filter.h"

namespace tovilog {

// How many files were to be read and how many of them could be.
struct ReadTally {
  int tried = 0;
  int readable = 0;
};

class WriterStream {
public:
  WriterStream(const WriterFiles& writer, Filter& filter, ReadTally& tally)
      : writer_(writer), filter_(filter), tally_(tally) {}

  // The next item that passes the filters, valid until the next call;
  // nullptr after the last.
  const Item* Next();

private:
  bool OpenNextFile();

  const WriterFiles& writer_;
  Filter& filter_;
  ReadTally& tally_;
  std::size_t nextFile_ = 0;
  std::unique_ptr<FileReader> reader_;
};

// Reads every writer's items into `sink`, merged by time or one writer
// after the other; returns how many records went there.
uint64_t ReadFileSet(const std::vector<WriterFiles>& writers, bool merge, Filter& filter,
                     class Sink& sink, ReadTally& tally);

}  // namespace tovilog

#endif
