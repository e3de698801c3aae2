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

#include <atomic>
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
  bool toFile;     // for the file, and so for forwarding
  bool toConsole;  // for the console
  // Its day of the month differs from that of the last record the process
  // handled: the file shows a date line before it.
  bool newDay;
};

class RecordSink {
public:
  virtual ~RecordSink() = default;
  // Takes one record into the current batch.
  virtual void Add(const SinkRecord& record) = 0;
  // Passes the batch on.
  virtual void HandOver() = 0;
};

// A writer's sinks in their fixed order: the file first, so that a slow
// console or network never keeps records from it, then forwarding, then
// the console. Slots are filled before the writer thread starts, except
// forwarding, which may be attached once from any thread while it runs.
class SinkChain {
public:
  enum Slot { kFile, kForward, kConsole, kSlots };

  // Fills slot when it is empty; false (and nothing changed) otherwise.
  bool Attach(Slot slot, RecordSink* sink) {
    RecordSink* none = nullptr;
    return sink != nullptr &&
           m_slots[slot].compare_exchange_strong(none, sink, std::memory_order_acq_rel);
  }
  RecordSink* Detach(Slot slot) { return m_slots[slot].exchange(nullptr, std::memory_order_acq_rel); }

  // The writer thread.
  void Add(const SinkRecord& record) {
    for (auto& slot : m_slots) {
      if (RecordSink* sink = slot.load(std::memory_order_acquire)) sink->Add(record);
    }
  }
  void HandOver() {
    for (auto& slot : m_slots) {
      if (RecordSink* sink = slot.load(std::memory_order_acquire)) sink->HandOver();
    }
  }

private:
  std::atomic<RecordSink*> m_slots[kSlots] = {};
};

#endif
