// LogFileSet.cpp - naming, opening, writing and closing a writer's log files.
//
// A file is named by its prefix and the second that created it. A name is
// never used twice: a name that is taken in the directory (by this writer, by
// another process with the same prefix, or by a compressed copy) moves on to
// the next free second, and a writer's names only ascend. Files are created
// exclusively, so an existing file is never truncated. Roll-over is decided
// record by record: a file ends with the record that took it past its limit.
//
// When the file lets the writer down the aim is that no accepted record
// goes missing without a line saying so. A failed write (a full disk, a
// file-size limit, an I/O error) leaves the file cut back to its last whole
// record and the pending records move on to a new file; a file that was
// removed with its directory is noticed within about a second and replaced,
// with a line counting what may have gone into it; and whatever had to be
// dropped meanwhile is counted in the next file. While no file can be had,
// producers do not wait for room at all (see RecordQueue.h).
#include "logwriter/LogFileSet.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>

#include "ToviBaseUtil.h"
#include "logwriter/LogArchive.h"
#include "logwriter/LogFileNames.h"
#include "logwriter/LogFormat.h"
#include "logwriter/RecordJournal.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace {
// How many seconds past the wanted one are tried for a free name.
constexpr int kNameAttempts = 3600;
// The most a single write puts into the file.
constexpr std::size_t kMaxWrite = 0x200000;
// Pending file bytes beyond this go to the kernel at the end of the record,
// so a batch never holds much more than this in memory, nor keeps it from
// the disk.
constexpr std::size_t kBatchBytes = 64 * 1024;
const char kUtf8Bom[] = "\xEF\xBB\xBF";
// The pause before another file is tried when none can be created or
// written.
constexpr unsigned kRetryMs = 1000;
// How often the writer asks whether its open file still has a name.
constexpr int64_t kLinkCheckMs = 500;
}  // namespace

LogFileSet::LogFileSet(const Settings& settings, FileSetEvents& events, LogArchive& archive,
                       RecordJournal& journal, const std::atomic<bool>& stop)
    : m_settings(settings), m_events(events), m_archive(archive), m_journal(journal), m_stop(stop) {}

void LogFileSet::DropRecords(uint64_t records, const std::vector<uint64_t>& entries) {
  // At a stop, journaled records wait for the next start. Before it they
  // are done with: the journal's room behind them must come back.
  if (m_stop.load(std::memory_order_acquire) && m_journal.IsOpen()) {
    m_journal.Unwrite(entries);
    m_events.RecordsDropped(records - entries.size());
    return;
  }
  m_journal.Drop(entries);
  m_events.RecordsDropped(records);
}

bool LogFileSet::Create() {
  const int64_t now = toviport::CurrentTime();

  // The whole tree: the directory, or its parents too, may have been removed
  // while the writer ran.
  toviport::MakeDirTree(m_settings.dir.c_str(), m_settings.dirMode);

  int fd = -1;
  bool named = false;
  int64_t nameTime = now > m_lastNameTime ? now : m_lastNameTime + 1;
  for (int attempt = 0; attempt < kNameAttempts; ++attempt, ++nameTime) {
    char stamp[32];
    const std::tm local = toviport::LocalTime(nameTime);
    if (std::strftime(stamp, sizeof stamp, "%Y%m%d_%H%M%S", &local) == 0) {
      m_createError = EINVAL;
      return false;
    }
    m_path = m_settings.dir + m_settings.prefix + stamp + logfilenames::kPlainSuffix;
    if (toviport::PathExists((m_path + logfilenames::kArchiveSuffix).c_str())) continue;

    const toviport::CreateResult made = toviport::CreateNewFile(m_path, fd, &m_createError, m_settings.fileMode);
    if (made == toviport::CreateResult::Exists) continue;
    if (made == toviport::CreateResult::Failed) return false;
    // Held while the file is open: no writer of the same prefix compresses
    // or removes it. Lost only to a writer that took the new file in the
    // moment since its creation to compress it; then the next name is used.
    // A file system without such locks leaves the file unguarded.
    if (toviport::LockOpenFile(fd) == toviport::LockResult::Busy) {
      toviport::CloseFile(fd);
      fd = -1;
      continue;
    }
    named = true;
    break;
  }
  if (!named) {
    m_createError = EEXIST;  // every name of the hour is taken
    return false;
  }

  m_fd = fd;
  m_lastNameTime = nameTime;
  m_bytes = 0;
  m_flushedBytes = 0;
  m_recordsSinceCheck = 0;
  m_lastLinkCheckMs = toviport::SteadyMs();
  m_batch.clear();
  m_batchRecords = 0;
  m_failed = false;

  if (TOVIIsGlobalVersion()) WriteText(kUtf8Bom);
  // The creation line carries the true time, even when the name had to move
  // on to a later second.
  char when[63] = "";
  const std::tm created = toviport::LocalTime(now);
  std::strftime(when, sizeof when, logformat::kCreateTimeFormat, &created);
  char line[512];
  std::snprintf(line, sizeof line, "%.*s%s%.*s%d\n", static_cast<int>(logformat::kCreateLead.size()),
                logformat::kCreateLead.data(), when, static_cast<int>(logformat::kCreatePid.size()),
                logformat::kCreatePid.data(), static_cast<int>(toviport::CurrentProcessId()));
  WriteText(line);
  WriteText(m_settings.header.c_str());
  if (!Flush()) {
    // Not even the head fits (a full disk): no headless file stays behind.
    m_createError = m_writeError;
    Abandon();
    return false;
  }
  if (!m_firstCreated) {
    m_firstCreated = true;
    m_archive.SpareArchiveOf(CurrentName());
  }
  return true;
}

void LogFileSet::Close() {
  if (m_fd < 0) return;
  char when[511] = "";
  const std::tm local = toviport::LocalTime(toviport::CurrentTime());
  std::strftime(when, sizeof when, logformat::kCloseTimeFormat, &local);
  char line[sizeof when + 16];
  std::snprintf(line, sizeof line, "%.*s%s\n", static_cast<int>(logformat::kCloseLead.size()),
                logformat::kCloseLead.data(), when);
  WriteText(line);
  if (!Flush()) {
    // What could not be written now never will be: count its records.
    DropRecords(m_batchRecords, m_batchEntries);
    m_batch.clear();
    m_batchRecords = 0;
    m_batchEntries.clear();
    m_failed = false;
  }
  toviport::CloseFile(m_fd);
  m_fd = -1;
}

bool LogFileSet::WriteText(const char* text) {
  if (text == nullptr) return false;
  return Write(text, std::strlen(text));
}

bool LogFileSet::Write(const char* data, std::size_t size) {
  if (m_fd < 0) return false;
  if (size > kMaxWrite) size = kMaxWrite;
  try {
    m_batch.append(data, size);
  } catch (...) {
    return false;
  }
  m_bytes += static_cast<int64_t>(size);
  return true;
}

bool LogFileSet::Flush() {
  if (m_fd < 0 || m_batch.empty()) return !m_failed;
  std::size_t written = 0;
  m_journal.Writing(m_batchEntries, CurrentName(), m_flushedBytes);
  const int error = toviport::WriteAll(m_fd, m_batch.data(), m_batch.size(), written);
  if (error == 0) {
    m_journal.Committed();
    m_journal.Trim();
    m_flushedBytes += static_cast<int64_t>(written);
    m_recordsSinceCheck += m_batchRecords;
    m_batch.clear();
    m_batchRecords = 0;
    m_batchEntries.clear();
    m_failed = false;
    return true;
  }
  m_journal.Unwrite(m_batchEntries);
  // The batch holds whole records only; cutting back to its start leaves no
  // torn record, and the batch waits for the next file.
  m_writeError = error;
  toviport::CutFile(m_fd, m_flushedBytes);
  m_bytes = m_flushedBytes + static_cast<int64_t>(m_batch.size());
  m_failed = true;
  return false;
}

void LogFileSet::HandOver() {
  if (ReplaceIfRemoved() && !Flush()) RecoverFromFailedWrite();
}

void LogFileSet::Add(const SinkRecord& record) {
  if (!record.toFile) return;
  if (record.newDay) {
    char line[64];
    const std::string_view lead = logformat::kDateLead;
    lead.copy(line, lead.size());
    std::memcpy(line + lead.size(), record.record.m_pTime, logformat::kStampLength);
    std::memcpy(line + lead.size() + logformat::kStampLength, "\n", 2);
    WriteText(line);
  }
  Write(record.head, record.headLength);
  Write(record.text, record.textLength);
  if (record.lineEnd) Write("\n", 1);
  Write(record.asn.data(), record.asn.size());
  ++m_batchRecords;
  if (record.record.m_nJournal != 0) {
    try {
      m_batchEntries.push_back(record.record.m_nJournal);
    } catch (...) {
      // Not followed: written or not, it must not come back at a restart.
      m_journal.Drop(record.record.m_nJournal);
    }
  }
  // A file ends with the record that took it past its limit.
  if (m_bytes > static_cast<int64_t>(m_settings.maxFileBytes)) {
    RollOver();
  } else if (m_batch.size() >= kBatchBytes) {
    Flush();
  }
}

bool LogFileSet::RollOver() {
  if (!Flush()) return RecoverFromFailedWrite();
  Close();
  m_archive.ArchiveInBackground(CurrentName());
  return OpenUntilStopped();
}

bool LogFileSet::SleepUnlessStopped(unsigned milliseconds) {
  for (unsigned slept = 0; slept < milliseconds; slept += 100) {
    if (m_stop.load(std::memory_order_acquire)) return false;
    toviport::SleepMs(milliseconds - slept < 100 ? milliseconds - slept : 100);
  }
  return !m_stop.load(std::memory_order_acquire);
}

bool LogFileSet::OpenUntilStopped() {
  while (!Create()) {
    m_events.FileStalled(m_createError, true);
    if (!SleepUnlessStopped(kRetryMs)) return false;
  }
  m_events.FileWritable();
  return true;
}

void LogFileSet::ReportDropped(uint64_t records) {
  if (records == 0) return;
  char line[160];
  logformat::CountLine(line, sizeof line, records, logformat::kDroppedUnwritable);
  WriteText(line);
}

void LogFileSet::Abandon() {
  if (m_fd < 0) return;
  toviport::CloseFile(m_fd);
  m_fd = -1;
  // A file that never received a whole line is only clutter.
  if (m_flushedBytes == 0) toviport::RemoveFile(m_path.c_str());
}

bool LogFileSet::RecoverFromFailedWrite() {
  std::string carried;
  carried.swap(m_batch);
  const uint64_t carriedRecords = m_batchRecords;
  std::vector<uint64_t> carriedEntries;
  carriedEntries.swap(m_batchEntries);
  const bool sizeLimit = m_writeError == EFBIG;
  // What the failed file holds is whole and is archived like any other.
  const std::string closed = m_flushedBytes > 0 ? CurrentName() : "";
  Abandon();
  if (!closed.empty()) m_archive.ArchiveInBackground(closed);
  m_failed = false;
  m_batchRecords = 0;
  // A file-size limit leaves room in a new file at once; a full disk or an
  // I/O error gets a pause first.
  if (!sizeLimit) m_events.FileStalled(m_writeError, false);
  if ((sizeLimit || SleepUnlessStopped(kRetryMs)) && OpenUntilStopped()) {
    Write(carried.data(), carried.size());
    m_batchRecords = carriedRecords;
    m_batchEntries.swap(carriedEntries);
    if (Flush()) return true;
    // Not even a fresh file takes them: count them rather than go round.
    m_batch.clear();
    m_batchRecords = 0;
    m_batchEntries.swap(carriedEntries);
    m_failed = false;
    m_bytes = m_flushedBytes;
  }
  DropRecords(carriedRecords, carriedEntries);
  return m_fd >= 0;
}

bool LogFileSet::ReplaceIfRemoved() {
  if (m_fd < 0) return false;
  const int64_t now = toviport::SteadyMs();
  if (now - m_lastLinkCheckMs < kLinkCheckMs) return true;
  m_lastLinkCheckMs = now;
  if (toviport::PathNamesOpenFile(m_path, m_fd)) {
    m_recordsSinceCheck = 0;
    return true;
  }
  // Everything handed to the kernel since the last check may have gone into
  // the removed file; what is still pending goes into the new one.
  const unsigned long long unsure = m_recordsSinceCheck;
  std::string carried;
  carried.swap(m_batch);
  const uint64_t carriedRecords = m_batchRecords;
  std::vector<uint64_t> carriedEntries;
  carriedEntries.swap(m_batchEntries);
  toviport::CloseFile(m_fd);
  m_fd = -1;
  if (!OpenUntilStopped()) {
    DropRecords(carriedRecords, carriedEntries);
    return false;
  }
  char line[160];
  logformat::CountLine(line, sizeof line, unsure, logformat::kLostRemoved);
  WriteText(line);
  Write(carried.data(), carried.size());
  m_batchRecords = carriedRecords;
  m_batchEntries.swap(carriedEntries);
  return true;
}
