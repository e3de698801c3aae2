// ToviLogWriter.cpp - building a writer, its thread, and its stop.
//
// The thread is the only code that takes records off the queue and, while
// it runs, the only code that touches the sinks. It takes whatever is
// queued, formats each record once and offers it to the sinks (file, then
// forwarding, then console); after a bounded batch it has the sinks hand
// what they gathered on, so each batch reaches the kernel in one write
// before the thread looks for more. When the queue runs dry after work it
// naps briefly before it waits on the queue, so that producers who keep
// coming find a writer that needs no waking.
//
// The stop is asked for behind the records already queued, so those are
// written; the destructor then joins the thread, counts and drops what is
// left, and closes the file. Every wait there is bounded: the writer thread
// notices a stop within 100 ms whether or not the end marker reached the
// queue, and a marker that finds no room on a writer that cannot write is
// given up at once.
#include "logwriter/ToviLogWriter.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ToviBaseUtil.h"
#include "logwriter/FormatAsnTrace.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/TimeStamp.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace {
// How often the idle writer thread looks at the stop flag, so that a stop
// never depends on an end marker reaching the queue.
constexpr unsigned kIdleWakeMs = 100;
// The record bytes written between two hand-overs to the kernel.
constexpr std::size_t kBatchRecordBytes = 64 * 1024;
// The nap after a batch that emptied the queue.
constexpr unsigned kDryNapUs = 2000;

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
  // The journal first: what producers accept from the start must outlive
  // the process. Without one (no room, no directory) the writer works as
  // before, and says so.
  m_journal.FindDead(m_logPath, options.prefix);
  int error = 0;
  if (m_journal.Create(error)) m_queue.KeepDropCountIn(m_journal.DropCounter());
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
    if (m_queue.Drained()) return true;
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
  const auto write = [this](const RecordJournal::Recovered& recovered) {
    char stamp[logformat::kStampLength + 1];
    std::memcpy(stamp, recovered.stamp, logformat::kStampLength);
    stamp[logformat::kStampLength] = '\0';
    ToviLogRecord record;
    record.m_pTime = stamp;
    record.m_nThreadId = recovered.thread;
    record.m_nLevel = static_cast<ToviLogLevel>(recovered.level);
    char head[32];
    const std::size_t headLen = FormatHead(record, head);
    const std::size_t length = recovered.textLength;
    const bool lineEnd = length > 0 && recovered.text[length - 1] != '\n';
    static const std::string kNoAsn;
    m_files.Add(SinkRecord{record, head, headLen, recovered.text, length, lineEnd, kNoAsn, true,
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
  // A directory that was not there at the start may take the journal now;
  // one that takes files but not the journal is worth a word.
  int error = 0;
  if (!m_journal.IsOpen() && !m_journal.Create(error) && !m_journalRefused) {
    m_journalRefused = true;
    m_notice.NoJournal(error);
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
    if (m_stopRequested.load(std::memory_order_acquire) && m_queue.OutputCount() == 0) return;
    RunPeriodicTask();
    ACE_Message_Block* chain = nullptr;
    if (m_queue.TakeAll(chain, dry ? kIdleWakeMs : 0) == -1) {
      if (errno == EWOULDBLOCK) {
        if (!dry) toviport::SleepUs(kDryNapUs);
        dry = true;
        continue;
      }
      WriteLine(m_files, logformat::kNoMessageBlock);
      m_files.Flush();
      m_files.SleepUnlessStopped(100);
      continue;
    }
    dry = false;
    if (WriteBatch(chain)) return;
  }
}

bool ToviLogWriter::WriteBatch(ACE_Message_Block* chain) {
  m_writerRole.AssertHeld();
  // What was written since the last hand-over, in queue bytes and lengths.
  std::size_t bytes = 0;
  std::size_t length = 0;
  const auto handOver = [&] {
    m_sinks.HandOver();
    m_queue.Release(bytes, length);
    bytes = length = 0;
  };
  for (ACE_Message_Block* block = chain; block != nullptr;) {
    ACE_Message_Block* next = block->next();
    block->next(nullptr);
    bytes += RecordQueue::Charge(block);
    length += block->length();
    ToviLogRecord* record = recordblock::RecordIn(block);
    const bool ended = record->IsEndMarker();
    if (ended) {
      // What was queued behind the marker stays for the stop sequence to
      // count.
      if (next != nullptr) m_queue.PutBack(next);
    } else if (record->HasData()) {
      WriteRecord(record, false);
    } else {
      WriteLine(m_files, logformat::kNoOutputData);
    }
    recordblock::Release(block);
    if (ended) {
      handOver();
      return true;
    }
    if (length >= kBatchRecordBytes) handOver();
    block = next;
  }
  handOver();
  return false;
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
      m_queue.PutEndMarker();
      toviport::JoinThread(m_thread);
      m_writerRole.Claim();
      m_archive.Wait();
      m_queue.DiscardUnusedEndMarker();

      // Drops counted after the thread's last word (producers that gave up
      // on a writer without a file).
      ReportDropped();
      WriteStopLine(logformat::kStopClearHeldBack, m_queue.HeldBackCount(), true);
      if (!m_queue.ClearHeldBack()) WriteLine(m_files, logformat::kHeldBackClearFailed);
      WriteStopLine(logformat::kStopClearOutput, m_queue.OutputCount(), true);
      std::size_t unwritten = 0;
      if (!m_queue.ClearOutput(unwritten)) WriteLine(m_files, logformat::kOutputClearFailed);
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
