// LogFileSet.h - the writer's current log file and the files before it:
// creating the next one, writing into it, rolling it over, closing it, and
// what happens when it lets the writer down.
//
// What the writer thread formats goes into a pending batch of whole records,
// which reaches the kernel in one write at each hand-over, so a failed write
// can be undone cleanly. Used by the writer thread only (and by the stop
// sequence once that thread has ended).
#ifndef TOVI_LOGWRITER_LOGFILESET_H
#define TOVI_LOGWRITER_LOGFILESET_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "logwriter/RecordSink.h"

class LogArchive;
class RecordJournal;

// What the file set tells its writer the moment it happens: producers must
// learn at once that no file can be had, and what had to be dropped must be
// counted where the writer keeps such counts.
class FileSetEvents {
public:
  // No file could be created (creating) or written, for error (an errno
  // value); said on every failed attempt while the writer retries.
  virtual void FileStalled(int error, bool creating) = 0;
  // A file is open and takes records (again).
  virtual void FileWritable() = 0;
  // Records that were accepted but will never reach a file.
  virtual void RecordsDropped(uint64_t records) = 0;

protected:
  ~FileSetEvents() = default;
};

class LogFileSet final : public RecordSink {
public:
  struct Settings {
    std::string dir;  // ends in "/"
    std::string prefix;
    std::string header;
    uint32_t maxFileBytes = 0;
    unsigned fileMode = 0;
    unsigned dirMode = 0;
  };
  // archive takes the closed files; stop ends every wait for a file.
  // journal learns which records reached the file.
  LogFileSet(const Settings& settings, FileSetEvents& events, LogArchive& archive,
             RecordJournal& journal, const std::atomic<bool>& stop);
  LogFileSet(const LogFileSet&) = delete;
  LogFileSet& operator=(const LogFileSet&) = delete;

  // The sink: a record for the file joins the pending batch (after a date
  // line when its day is new), and the file rolls over once it has grown
  // past its limit. HandOver hands the batch to the kernel, after checking
  // (at most every half second) that the file still has a name.
  void Add(const SinkRecord& record) override;
  void HandOver() override;

  bool IsOpen() const { return m_fd >= 0; }
  // Creates the next file, retrying once a second; false when a stop came
  // first.
  bool OpenUntilStopped();
  // Writes the closing line and closes the file.
  void Close();

  // The writer's own lines: appended to the pending batch (at most 2 MiB in
  // one piece).
  bool Write(const char* data, std::size_t size);
  bool WriteText(const char* text);
  // Says how many records had to be dropped, when any were.
  void ReportDropped(uint64_t records);

  // Hands the pending batch to the kernel; false when the write failed: the
  // file was cut back to its last whole record and the batch is kept.
  bool Flush();
  bool HasFailedWrite() const { return m_failed; }
  // Moves the records of a failed file on to a new one; false when a stop
  // came first.
  bool RecoverFromFailedWrite();

  // Sleeps, in steps that notice a stop; false when one came.
  bool SleepUnlessStopped(unsigned milliseconds);

private:
  // False with m_createError set when no file could be made.
  bool Create();
  bool RollOver();
  // Closes the open file without a closing line; removes it if it is empty.
  void Abandon();
  // The records of a batch that will never be written: counted, and so done
  // with in the journal.
  void DropRecords(uint64_t records, const std::vector<uint64_t>& entries);
  // When the open file has been removed, opens a new one and says how many
  // records may have been lost; false when a stop came first.
  bool ReplaceIfRemoved();
  std::string CurrentName() const { return m_path.substr(m_settings.dir.size()); }

  const Settings m_settings;
  FileSetEvents& m_events;
  LogArchive& m_archive;
  RecordJournal& m_journal;
  const std::atomic<bool>& m_stop;

  // The open file, -1 when none, and its path.
  int m_fd = -1;
  std::string m_path;
  bool m_firstCreated = false;
  // The time that named the newest file, so that names never repeat and
  // keep ascending.
  int64_t m_lastNameTime = 0;
  // Bytes in the current file, pending ones included, so that the size test
  // after every record costs no system call.
  int64_t m_bytes = 0;
  // Bytes of the current file known to be on their way to the disk.
  int64_t m_flushedBytes = 0;
  std::string m_batch;
  uint64_t m_batchRecords = 0;
  // The journal entries of the batch's records.
  std::vector<uint64_t> m_batchEntries;
  // The last write failed (with m_writeError); the batch still waits.
  bool m_failed = false;
  int m_writeError = 0;
  // Why the last Create failed.
  int m_createError = 0;
  // Records handed to the kernel since the file was last seen to have a
  // name, and when that was.
  uint64_t m_recordsSinceCheck = 0;
  int64_t m_lastLinkCheckMs = 0;
};

#endif
