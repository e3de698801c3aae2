// RecordSink.h - where a writer's records go: the one interface through
// which the writer thread hands them on.
//
// The writer thread formats each record once (its head, its text, its
// rendered ASN.1 value) and offers the result to its sinks in a fixed order:
// the file, then forwarding, then the console. A sink gathers what it is
// given into a batch of its own and passes the batch on at HandOver, which
// the writer calls after each batch of records (and once more before its
// thread ends). Sinks are called from the writer thread only, never
// concurrently, and must not wait without a bound.
#ifndef TOVI_LOGWRITER_RECORDSINK_H
#define TOVI_LOGWRITER_RECORDSINK_H

#include <cstddef>
#include <string>

class ToviLogRecord;

// One record as the writer thread has formatted it for every output.
struct SinkRecord {
  const ToviLogRecord& record;
  const char* head;  // "HH:MM:SS.uuuuuu.T<id> "
  std::size_t headLength;
  const char* text;  // "<sub-module> <prefix><message>", not NUL-terminated
  std::size_t textLength;
  bool lineEnd;            // the text needs a "\n" after it
  const std::string& asn;  // the rendered ASN.1 lines, each ending "\n"; or empty
};

class RecordSink {
public:
  virtual ~RecordSink() = default;
  // Takes one record into the current batch.
  virtual void Add(const SinkRecord& record) = 0;
  // Passes the batch on.
  virtual void HandOver() = 0;
};

#endif
