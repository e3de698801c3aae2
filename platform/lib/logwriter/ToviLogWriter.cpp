// ToviLogWriter.cpp - building a writer, its thread, and its stop.
//
// The thread is the only code that takes records off the ring and, while
// it runs, the only code that touches the sinks. It takes whatever is
// published, formats each record once (the time stamp from the clock
// reading, a Printf call's text from its capture) and offers it to the
// sinks (file, then forwarding, then console); after a bounded batch it has
// the sinks hand what they gathered on, so each batch reaches the kernel in
// one write before the thread looks for more. When the ring runs dry after
// work it naps briefly before it sleeps, so that producers who keep coming
// find a writer that needs no waking.
//
// The stop is asked for behind the records already published, so those are
// written; the destructor then joins the thread, counts and lets go what is
// left, and closes the file. Every wait there is bounded: the writer thread
// notices a stop within 100 ms whether or not the end marker reached the
// ring, and a marker that finds no room on a writer that cannot write is
// given up at once.
#include "logwriter/ToviLogWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include <AsnType.h>

#include "ToviBaseUtil.h"
#include "logwriter/DeferredFormat.h"
#include "logwriter/FormatAsnTrace.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace {
// How often the idle writer thread looks at the stop flag, so that a stop
// never depends on an end marker reaching the ring.
constexpr unsigned kIdleWakeMs = 100;
// The record text written between two hand-overs to the kernel: with the
// heads, half the file set's own batch, so that a hand-over, not the
// file set, decides where a batch ends.
constexpr std::size_t kBatchRecordBytes = 32 * 1024;
// The nap after a batch that emptied the ring.
constexpr unsigned kDryNapUs = 2000;
// The longest text a record carries (AddLog cuts it there).
constexpr std::size_t kMaxMessageBytes = 2048;
// The pause while a producer fills the entry the writer would read next.
constexpr unsigned kFillingNapUs = 50;

// The two day-of-month characters of the last record any writer of the
// process handled, packed into one value so that both are read and replaced
// together. 0: none yet. A file gets a date line whenever a record's day
// differs from it.
std::atomic<uint16_t> g_lastDay{0};

uint16_t DayOf(const char* stamp) {
  const std::size_t at = logformat::kStampDayOffset;
  return static_cast<uint16_t>(static_cast<unsigned char>(stamp[at]) |
                               (static_cast<unsigned char>(stamp[at + 1]) << 8));
}

// "<time of day>.T<thread id in hex> " into out, which has room for 32
// characters; returns the length.
std::size_t FormatHead(const ToviLogRecord& record, char* out) {
  std::memcpy(out, record.m_pTime + logformat::kStampTimeOfDayOffset,
              logformat::kStampTimeOfDayLength);
  char* p = out + logformat::kStampTimeOfDayLength;
  p += logformat::kThreadMark.copy(p, logformat::kThreadMark.size());
  char digits[8];
  int n = 0;
  uint32_t id = record.m_nThreadId;
  do {
    digits[n++] = "0123456789abcdef"[id & 0xF];
    id >>= 4;
  } while (id != 0);
  while (n > 0) *p++ = digits[--n];
  *p++ = ' ';
  return static_cast<std::size_t>(p - out);
}

// The writer's own lines, each ending in "\n".
void WriteLine(LogFileSet& files, std::string_view text) {
  files.Write(text.data(), text.size());
  files.Write("\n", 1);
}

std::string DirectoryOf(const LogWriterOptions& options) {
  if (options.logPath.empty()) return ToviGetDefaultLogPath();
  return options.logPath.back() == '/' ? options.logPath : options.logPath + '/';
}

LogFileSet::Settings FileSettings(const LogWriterOptions& options, const std::string& dir) {
  LogFileSet::Settings settings;
  settings.dir = dir;
  settings.prefix = options.prefix;
  settings.header = options.header;
  settings.maxFileBytes = options.maxFileBytes;
  settings.fileMode = options.fileMode;
  settings.dirMode = options.dirMode;
  return settings;
}
}  // namespace

ToviLogWriter::ToviLogWriter(const LogWriterOptions& options)
    : m_options(options),
      m_logPath(DirectoryOf(options)),
      m_queue(options.heldBackRecords),
      m_archive(m_logPath, options.prefix, options.archivesKept, options.fileMode),
      m_files(FileSettings(options, m_logPath), *this, m_archive, m_journal, m_stopRequested),
      m_console(m_files),
      m_notice(m_logPath) {
  // The ring first: what producers accept from the start must outlive the
  // process. A directory that is not there yet is made now rather than by
  // the thread in a moment, so that the journal can live in it; one that
  // cannot be made gives a ring in memory until it can.
  toviport::MakeDirTree(m_logPath.c_str(), options.dirMode);
  m_journal.FindDead(m_logPath, options.prefix);
  int error = 0;
  if (!m_journal.Create(error)) return;  // not even memory: no thread, every record refused
  m_queue.KeepDropCountIn(m_journal.DropCounter());
  m_sinks.Attach(SinkChain::kFile, &m_files);
  m_sinks.Attach(SinkChain::kConsole, &m_console);
  // Joinable, so that the stop sequence returns the moment the thread has
  // ended, and no thread of the library outlives its writer.
  m_started = toviport::StartThread(&ToviLogWriter::OutputThread, this, m_thread);
}

void ToviLogWriter::SetPeriodicTask(unsigned intervalMs, std::string subModule,
                                    std::function<std::string()> task) {
  if (m_taskSet.load(std::memory_order_acquire) || !task || intervalMs == 0) return;
  m_task = std::move(task);
  m_taskSubModule = std::move(subModule);
  m_taskIntervalMs = intervalMs;
  m_taskDueMs = toviport::SteadyMs() + intervalMs;
  m_taskSet.store(true, std::memory_order_release);
}

void ToviLogWriter::RunPeriodicTask() {
  if (!m_taskSet.load(std::memory_order_acquire)) return;
  const int64_t now = toviport::SteadyMs();
  if (now < m_taskDueMs) return;
  m_taskDueMs = now + m_taskIntervalMs;
  const std::string line = m_task();
  if (line.empty()) return;
  // A record of the writer's own, in its place among the others.
  try {
    const std::string_view prefix = logformat::LevelPrefix(LEVEL_INFO);
    std::string text = m_taskSubModule + " ";
    text.append(prefix.data(), prefix.size()).append(line);
    char stamp[timestamp::kLength + 1];
    timestamp::FormatNow(stamp);
    ToviLogRecord record;
    record.m_pTime = stamp;
    record.m_pText = text.data();
    record.m_nTextLen = static_cast<uint32_t>(text.size());
    record.m_nSubModuleLen = static_cast<uint32_t>(m_taskSubModule.size());
    record.m_nThreadId = toviport::CurrentThreadId();
    record.m_nLevel = LEVEL_INFO;
    record.m_bLog = true;
    WriteRecord(&record, false);
    m_sinks.HandOver();
  } catch (...) {
    // No memory for the line: the task's work is done all the same.
  }
}

bool ToviLogWriter::WaitDrained(int64_t deadlineMs) {
  for (;;) {
    if (m_journal.AllConsumed()) return true;
    if (toviport::SteadyMs() >= deadlineMs) return false;
    toviport::SleepMs(1);
  }
}

bool ToviLogWriter::AttachSink(std::unique_ptr<RecordSink> sink) {
  if (!m_sinks.Attach(SinkChain::kForward, sink.get())) return false;
  sink.release();  // the chain's now, freed by the stop sequence
  return true;
}

void ToviLogWriter::ReportDropped() {
  // Taken only when a file can say it: a count is never lost in a line that
  // has nowhere to go.
  if (m_files.IsOpen()) m_files.ReportDropped(m_queue.TakeDropped());
}

void ToviLogWriter::WriteRecovered() {
  const auto begin = [this](uint32_t pid, std::size_t records, uint64_t dropped) {
    char line[160];
    std::snprintf(line, sizeof line, "%zu%.*s%u\n", records,
                  static_cast<int>(logformat::kRecoveredLead.size()), logformat::kRecoveredLead.data(),
                  pid);
    m_files.WriteText(line);
    m_files.ReportDropped(dropped);
  };
  const auto write = [this](const RecordJournal::View& view) {
    ToviLogRecord record;
    if (!Compose(view, record)) return;  // a damaged entry
    char head[32];
    const std::size_t headLen = FormatHead(record, head);
    const std::size_t length = record.m_nTextLen;
    const bool lineEnd = length > 0 && record.m_pText[length - 1] != '\n';
    static const std::string kNoAsn;
    m_files.Add(SinkRecord{record, head, headLen, record.m_pText, length, lineEnd, kNoAsn, true,
                           false, false});
  };
  m_journal.Recover(begin, write);
}

void ToviLogWriter::FileStalled(int error, bool creating) {
  m_queue.SetWriterStalled(true);
  m_notice.Failed(error, creating);
}

void ToviLogWriter::FileWritable() {
  m_queue.SetWriterStalled(false);
  // A directory that was not usable at the start may take the journal now;
  // one that takes files but not the journal is worth a word.
  int error = 0;
  if (!m_journal.IsPersistent()) {
    if (m_journal.MoveToFile(error)) {
      m_queue.KeepDropCountIn(m_journal.DropCounter());
    } else if (!m_journalRefused) {
      m_journalRefused = true;
      m_notice.NoJournal(error);
    }
  }
  m_notice.Recovered(m_queue.DroppedSoFar());
}

void* ToviLogWriter::OutputThread(void* arg) {
  ToviLogWriter* self = static_cast<ToviLogWriter*>(arg);
  self->m_writerRole.Claim();
  // The writer catches up in bursts; a burst must not push aside the very
  // threads whose records it writes.
  toviport::MakeBackgroundThread();

  LogFileSet& files = self->m_files;
  // Before the maintenance archives the dead writers' last files.
  self->m_journal.CutDeadFiles();
  self->m_archive.Maintain();
  if (!files.OpenUntilStopped()) {
    self->m_queue.SetWriterGone();
    return nullptr;
  }

  WriteLine(files, logformat::kFirstFile);
  char line[60];
  std::snprintf(line, sizeof line, "%.*s%x\n",
                static_cast<int>(logformat::kThreadHandleLead.size()),
                logformat::kThreadHandleLead.data(), toviport::CurrentThreadId());
  files.WriteText(line);
  self->WriteRecovered();
  if (!files.Flush()) files.RecoverFromFailedWrite();
  self->m_journal.ForgetDead();

  self->DrainOutputQueue();

  self->m_sinks.HandOver();
  self->m_console.ReportDrops();
  self->ReportDropped();
  WriteLine(files, logformat::kThreadExit);
  files.Flush();
  // The last touch of the writer: from here on the stopping thread owns it.
  self->m_queue.SetWriterGone();
  return nullptr;
}

void ToviLogWriter::DrainOutputQueue() {
  m_writerRole.AssertHeld();
  bool dry = true;
  for (;;) {
    RunPeriodicTask();
    const Batch batch = WriteBatch();
    if (batch == Batch::kEnded) return;
    if (batch == Batch::kWrote) {
      dry = false;
      continue;
    }
    if (m_stopRequested.load(std::memory_order_acquire) && !m_journal.Reserved()) return;
    if (!dry) {
      toviport::SleepUs(kDryNapUs);
      dry = true;
      continue;
    }
    SleepUntilWoken(kIdleWakeMs);
  }
}

void ToviLogWriter::SleepUntilWoken(unsigned ms) {
  // See WakeWriter for why the flag and the head are read and written
  // with sequential consistency.
  m_writerAsleep.store(true, std::memory_order_seq_cst);
  if (m_journal.Reserved()) {
    // A producer is filling the next entry: it is moments away.
    m_writerAsleep.store(false, std::memory_order_relaxed);
    toviport::SleepUs(kFillingNapUs);
    return;
  }
  ACE_Time_Value deadline = toviport::DeadlineAfterMs(ms);
  m_wake.acquire(deadline);
  m_writerAsleep.store(false, std::memory_order_relaxed);
}

ToviLogWriter::Batch ToviLogWriter::WriteBatch() {
  m_writerRole.AssertHeld();
  std::size_t length = 0;
  bool wrote = false;
  while (RecordJournal::Entry* entry = m_journal.Next()) {
    wrote = true;
    if ((entry->flags & RecordJournal::kEndMarker) != 0) {
      // What was published behind the marker stays for the stop sequence
      // to count.
      m_journal.Consumed(entry, true);
      HandOver();
      return Batch::kEnded;
    }
    length += WriteEntry(*entry);
    if (length >= kBatchRecordBytes) break;
  }
  if (wrote) HandOver();
  return wrote ? Batch::kWrote : Batch::kEmpty;
}

void ToviLogWriter::HandOver() {
  m_sinks.HandOver();
  m_journal.Settle();
  m_journal.Trim();
}

bool ToviLogWriter::Compose(const RecordJournal::View& view, ToviLogRecord& record) {
  timestamp::Format(static_cast<time_t>(view.seconds), view.microseconds, m_stamp);
  const std::string_view prefix = logformat::LevelPrefix(view.level);
  char* p = m_text;
  std::memcpy(p, view.name, view.nameLength);
  p += view.nameLength;
  *p++ = ' ';
  std::memcpy(p, prefix.data(), prefix.size());
  p += prefix.size();
  std::size_t messageLen = view.messageLength;
  if ((view.flags & RecordJournal::kDeferred) != 0) {
    messageLen = deferred::Render(view.message, view.messageLength, p);
    if (messageLen == 0) return false;
    // A "%c" of 0 ends the text there, as it did when the call formatted it
    // and traced the result.
    messageLen = strnlen(p, messageLen);
  } else {
    if (messageLen > kMaxMessageBytes) return false;
    std::memcpy(p, view.message, messageLen);
  }
  p[messageLen] = '\0';
  record.m_pTime = m_stamp;
  record.m_pText = m_text;
  record.m_nTextLen = static_cast<uint32_t>(p + messageLen - m_text);
  record.m_nSubModuleLen = static_cast<uint32_t>(view.nameLength);
  record.m_nThreadId = view.thread;
  record.m_nLevel = static_cast<ToviLogLevel>(view.level);
  return true;
}

std::size_t ToviLogWriter::WriteEntry(RecordJournal::Entry& entry) {
  const uint64_t handle = m_journal.HandleOf(&entry);
  ToviLogRecord record;
  // The record frees the clone once it is rendered.
  record.m_pAsn = entry.asn;
  entry.asn = nullptr;
  const bool composed = Compose(RecordJournal::ViewOf(entry), record);
  record.m_bLog = (entry.flags & RecordJournal::kToFile) != 0;
  record.m_bPrint = (entry.flags & RecordJournal::kToConsole) != 0;
  record.m_nJournal = handle;
  // Done with the entry's memory: the sinks see the writer's copy. A
  // journaled entry is done once its batch is in the file, which may be
  // within the sinks' Add; any other is done now.
  m_journal.Consumed(&entry, handle == 0);
  if (!composed) return 0;
  WriteRecord(&record, false);
  return record.m_nTextLen;
}

void ToviLogWriter::PutEndMarker() {
  RecordJournal::Entry* entry = m_journal.Reserve(0, m_queue);
  if (entry == nullptr) return;
  entry->thread = toviport::CurrentThreadId();
  entry->level = LEVEL_INFO;
  entry->flags = RecordJournal::kEndMarker;
  entry->nameLength = 0;
  entry->seconds = 0;
  entry->microseconds = 0;
  entry->messageLength = 0;
  entry->asn = nullptr;
  RecordJournal::Publish(entry);
  WakeWriter();
}

std::size_t ToviLogWriter::ClearOutput() {
  m_writerRole.AssertHeld();
  std::size_t records = 0;
  while (RecordJournal::Entry* entry = m_journal.Next()) {
    if ((entry->flags & RecordJournal::kEndMarker) == 0) ++records;
    delete entry->asn;
    entry->asn = nullptr;
    m_journal.Consumed(entry, m_journal.HandleOf(entry) == 0);
  }
  m_journal.Settle();
  return records;
}

void ToviLogWriter::WriteRecord(ToviLogRecord* record, bool fromDiscardQueue) {
  m_writerRole.AssertHeld();
  if (record == nullptr || record->m_pTime == nullptr) return;
  if (m_files.HasFailedWrite()) m_files.RecoverFromFailedWrite();
  if (!m_files.IsOpen()) {
    // Only after a stop during a wait for a file: a journaled record waits
    // there for the next start, any other is counted.
    if (record->m_nJournal != 0 && m_journal.IsOpen()) return;
    if (record->m_bLog) m_queue.CountDropped(1);
    return;
  }
  ReportDropped();
  // Held-back records come out before the assertion that explains them.
  if (record->m_nLevel == LEVEL_ASSERT && !fromDiscardQueue) FlushDiscardQueue();

  char head[32];
  const std::size_t headLen = FormatHead(*record, head);
  const uint16_t day = DayOf(record->m_pTime);
  // The record's lines after the head: its text, a line end unless the text
  // has one, then the rendered ASN.1 value.
  const char* text = record->m_pText != nullptr ? record->m_pText : "";
  const std::size_t textLen = record->m_pText != nullptr ? record->m_nTextLen : 0;
  std::string asn;
  if (record->m_pAsn != nullptr) {
    try {
      FormatAsnTrace(record->m_pAsn, asn);
      asn += '\n';
    } catch (...) {
      asn.clear();  // no memory for the rendering: the record goes out without it
    }
  }
  const bool newDay = day != g_lastDay.load(std::memory_order_relaxed);
  m_sinks.Add(SinkRecord{*record, head, headLen, text, textLen,
                         textLen > 0 && text[textLen - 1] != '\n', asn, record->m_bLog,
                         record->m_bPrint, newDay});
  g_lastDay.store(day, std::memory_order_relaxed);
}

void ToviLogWriter::FlushDiscardQueue() {
  while (ACE_Message_Block* block = m_queue.TakeHeldBack()) {
    ToviLogRecord* record = recordblock::RecordIn(block);
    record->m_bLog = true;
    record->m_bPrint = true;
    WriteRecord(record, true);
    recordblock::Release(block);
  }
}

void ToviLogWriter::WriteStopLine(std::string_view what, std::size_t count, bool counted) {
  char stamp[timestamp::kLength + 1];
  char line[512];
  timestamp::FormatNow(stamp);
  const int length = static_cast<int>(what.size());
  if (counted) {
    std::snprintf(line, sizeof line, "%s%.*s(%d)\n", stamp, length, what.data(),
                  static_cast<int>(count));
  } else {
    std::snprintf(line, sizeof line, "%s%.*s\n", stamp, length, what.data());
  }
  m_files.WriteText(line);
}

ToviLogWriter::~ToviLogWriter() {
  m_stopRequested.store(true, std::memory_order_release);
  if (m_started) {
    try {
      PutEndMarker();
      toviport::JoinThread(m_thread);
      m_writerRole.Claim();
      m_archive.Wait();

      // Drops counted after the thread's last word (producers that gave up
      // on a writer without a file).
      ReportDropped();
      WriteStopLine(logformat::kStopClearHeldBack, m_queue.HeldBackCount(), true);
      if (!m_queue.ClearHeldBack()) WriteLine(m_files, logformat::kHeldBackClearFailed);
      WriteStopLine(logformat::kStopClearOutput, m_journal.Waiting(), true);
      const std::size_t unwritten = ClearOutput();
      WriteStopLine(logformat::kStopCleared, 0, false);
      // Without a file none of that reached anyone who looks in the files;
      // with a journal it is written at the next start.
      if (!m_files.IsOpen()) {
        const bool kept = m_journal.IsOpen() && !m_journal.Clean();
        m_notice.Stopped(m_queue.DroppedSoFar() + (kept ? m_journal.Pending() : unwritten), kept);
      }
    } catch (...) {
      // A destructor must not throw; the file is still closed below.
    }
  }
  m_files.Close();
  m_journal.Close();
  delete m_sinks.Detach(SinkChain::kForward);
}
