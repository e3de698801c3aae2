// Sink.h - where the items that passed the filters go: text, JSON lines,
// or counts.
#ifndef TOVI_TOOLS_TOVILOG_SINK_H
#define TOVI_TOOLS_TOVILOG_SINK_H

#include <memory>

#include "Item.h"
#include "Output.h"

namespace tovilog {

class Sink {
public:
  virtual ~Sink() = default;
  virtual void Put(const Item& item) = 0;
  // After the last item.
  virtual void Finish() {}
};

// Each record as it stands in the file, with its date in front; with
// `labelWriters`, "[prefix] " before that.
std::unique_ptr<Sink> MakeTextSink(Output& out, bool labelWriters);
// One JSON object per line.
std::unique_ptr<Sink> MakeJsonSink(Output& out);
// The number of records (countOnly), or records per level, module, thread
// and minute with the busiest minutes, as text or as one JSON object.
std::unique_ptr<Sink> MakeStatsSink(Output& out, bool countOnly, bool json);

}  // namespace tovilog

#endif
