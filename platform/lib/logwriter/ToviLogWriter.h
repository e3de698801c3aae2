// ToviLogWriter.h - one asynchronous log writer: the thread that drives a
// record queue, a file set and an archive.
//
// Tracing threads only copy a record into the writer's ring (AddLog). The
// writer's own thread takes the records in order, in batches, formats them
// (the time stamp, a Printf call's text), and prints them and/or
// writes them into time-stamped files, which roll over by size and are then
// compressed and pruned. Each batch reaches the kernel in one write before
// the thread waits again. Records that nobody asked to see wait, a bounded
// number of them, until an assertion brings them out.
//
//   RecordJournal    the ring of records on their way from tracing threads
//   RecordQueue      the held-back records, the drop count
//   RecordSink       where the writer thread hands each formatted record:
//     LogFileSet     the current file: create, write, roll over, close, faults
//     ConsoleOutput  the bounded console output
//     (forwarding, from the layer above, attached with AttachSink)
//   LogArchive       compressing closed files and pruning the oldest
//   AddLog.cpp       the tracing thread's side; ToviLogWriter.cpp the rest
#ifndef TOVI_LOGWRITER_TOVILOGWRITER_H
#define TOVI_LOGWRITER_TOVILOGWRITER_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include <ace/Thread_Semaphore.h>

#include "ToviLogLevel.h"
#include "logwriter/ConsoleOutput.h"
#include "logwriter/LogArchive.h"
#include "logwriter/LogFileNames.h"
#include "logwriter/LogFileSet.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordJournal.h"
#include "logwriter/RecordQueue.h"
#include "logwriter/RecordSink.h"
#include "logwriter/UnwritableNotice.h"
#include "port/ThreadRole.h"
#include "port/ToviPort.h"

class AsnType;
class ToviLogRecord;

// The limits have no defaults of their own: the manager takes them from the
// configuration (debugmgr/ConfigKeys.h), which is where they are decided.
struct LogWriterOptions {
  std::string logPath;  // empty: the installation's log directory
  std::string prefix;   // starts every file name
  std::string header;   // written after each file's creation line
  bool printAll = false;  // every record also goes to the console
  bool logAll = false;    // every record also goes to the file
  unsigned heldBackRecords = 0;  // records without an output kept for an assertion
  unsigned maxFileBytes = 0;  // a file rolls over once it holds more
  int archivesKept = 0;       // compressed files of this prefix that stay
  unsigned fileMode = logfilenames::kFileMode;  // log files and archives
  unsigned dirMode = logfilenames::kDirMode;    // directories the writer makes
};

class ToviLogWriter final : private FileSetEvents {
public:
  explicit ToviLogWriter(const LogWriterOptions& options);
  ~ToviLogWriter();
  ToviLogWriter(const ToviLogWriter&) = delete;
  ToviLogWriter& operator=(const ToviLogWriter&) = delete;

  // Tracing threads: builds and queues a record; false when it was refused
  // or dropped.
  bool AddLog(const std::string& subModule, ToviLogLevel level, const char* text,
              const AsnType* asn, bool bPrint, bool bLog);
  // The same for a Printf call's format and arguments as deferred::Capture
  // took them (size bytes): the writer thread formats them.
  bool AddCapture(const std::string& subModule, ToviLogLevel level, const char* capture,
                  std::size_t size, bool bPrint, bool bLog);
  // From now on every writer of the process refuses records from any
  // thread but thread, so that what was accepted can drain while the
  // process dies. Async-signal-safe.
  static void TakeRecordsOnlyFrom(uint32_t thread);

  std::string GetLogPath() const { return m_logPath; }
  const std::string& Prefix() const { return m_options.prefix; }
  // Records written to the file from now on also go to sink, which the
  // writer owns from here on; false (and sink dropped) when one is attached
  // already.
  bool AttachSink(std::unique_ptr<RecordSink> sink);

  // From now on the writer thread calls task about every intervalMs, and
  // writes what it returns (when not empty) as a record of subModule at
  // INFO level into the file. Set once, before records come.
  void SetPeriodicTask(unsigned intervalMs, std::string subModule,
                       std::function<std::string()> task);

  // Waits until every record queued so far has been handed to the sinks and
  // the file's batch to the kernel, or until deadline (SteadyMs); false
  // when the deadline came first.
  bool WaitDrained(int64_t deadlineMs);

  // Records waiting in each queue (not yet taken by the writer thread).
  std::size_t OutputQueueCount() const { return m_journal.Waiting(); }
  std::size_t DiscardQueueCount() { return m_queue.HeldBackCount(); }

private:
  // The hot path's parts (AddLog.cpp).
  bool Admits(uint32_t thread) const;
  bool Enqueue(const std::string& subModule, ToviLogLevel level, uint16_t flags,
               const char* message, std::size_t messageLen, const AsnType* asn, uint32_t thread);
  bool HoldBack(const std::string& subModule, ToviLogLevel level, const char* text,
                std::size_t messageLen, const AsnType* asn, uint32_t thread);
  void WakeWriter();

  static void* OutputThread(void* self);
  // Takes batches off the ring until the end marker, or a stop with
  // nothing left to write.
  void DrainOutputQueue();
  enum class Batch { kEmpty, kWrote, kEnded };
  // Writes what is published, one batch at most.
  Batch WriteBatch();
  // Hands what the sinks gathered on.
  void HandOver();
  // Sleeps up to ms, or until a producer wakes the thread.
  void SleepUntilWoken(unsigned ms);
  // What an entry says, as a record with its stamp and text in the
  // writer's buffers; false when the entry is damaged.
  bool Compose(const RecordJournal::View& view, ToviLogRecord& record);
  // Formats one entry and offers it to the sinks; its text bytes.
  std::size_t WriteEntry(RecordJournal::Entry& entry);
  // Queues the entry that tells the writer thread to end, behind the rest.
  void PutEndMarker();
  // The stop sequence: counts what the ring still holds and lets it go
  // (what the file should have waits in the journal for the next start).
  std::size_t ClearOutput();
  // Formats one record and offers it to the sinks.
  void WriteRecord(ToviLogRecord* record, bool fromDiscardQueue);
  void FlushDiscardQueue();
  // Says in the file how many records producers or the file set dropped.
  void ReportDropped();
  // Writes what dead writers of the same prefix left in their journals.
  void WriteRecovered();
  // Runs the periodic task when it is due.
  void RunPeriodicTask();
  // The stop sequence's count of what a queue still holds.
  void WriteStopLine(std::string_view what, std::size_t count, bool counted);

  // FileSetEvents: what the file set says goes to the producers' side.
  void FileStalled(int error, bool creating) override;
  void FileWritable() override;
  void RecordsDropped(uint64_t records) override { m_queue.CountDropped(records); }

  const LogWriterOptions m_options;
  const std::string m_logPath;
  std::atomic<bool> m_stopRequested{false};
  RecordJournal m_journal;
  RecordQueue m_queue;
  LogArchive m_archive;
  LogFileSet m_files;
  ConsoleOutput m_console;
  SinkChain m_sinks;
  UnwritableNotice m_notice;
  // The journal could not be made even with a usable directory (said once).
  bool m_journalRefused = false;
  // The writer thread sleeps; a producer that sees it wakes it.
  std::atomic<bool> m_writerAsleep{false};
  ACE_Thread_Semaphore m_wake{0};
  // The writer thread's: an entry's stamp and composed text.
  char m_stamp[logformat::kStampLength + 1] = {};
  char m_text[4096] = {};
  // Set before the writer has records; then the writer thread's.
  std::function<std::string()> m_task;
  std::string m_taskSubModule;
  unsigned m_taskIntervalMs = 0;
  int64_t m_taskDueMs = 0;
  std::atomic<bool> m_taskSet{false};
  // The state above that the writer thread alone touches while it runs; the
  // stop sequence takes the role over once that thread has ended.
  toviport::ThreadRole m_writerRole;
  bool m_started = false;
  toviport::ThreadHandle m_thread{};
};

#endif
