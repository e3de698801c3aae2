// ToviLogWriter.h - one asynchronous log writer: two queues, one thread and
// the current log file.
//
// Tracing threads only build a record (AddLog) and queue it (PutRecord). The
// writer's own thread takes the records in order, in batches, and prints
// them and/or writes them into time-stamped files, which roll over by size
// and are then compressed and pruned. Each batch reaches the kernel in one
// write before the thread waits again. Records that nobody asked to see
// wait, a bounded number of them, in the discard queue until an assertion
// brings them out.
//
// Where the code lives:
//   RecordQueue.cpp        PutRecord, FlushDiscardQueue (both queues)
//   RecordBlock.cpp        the recycled blocks that carry records
//   OutputThread.cpp       construction, StartThread, the writer thread
//   StopSequence.cpp       the destructor
//   LogFile.cpp            CreateLogFile, CloseLogFile, WriteString, names,
//                          handing the pending bytes to the kernel
//   RecordWriter.cpp       WriteRecord, the date line and the roll-over
//   FileFaults.cpp         failed writes, files removed from under the
//                          writer, files that cannot be created, drop counts
//   ConsoleOutput.cpp      the bounded console output and its drop count
//   LogFileNames.h         the shapes of the writer's file names
//   SyslogMessage.cpp      a record as an RFC 5424 message
//   SyslogForwarder.cpp    the process's one sender to a syslog collector
//   ArchiveMaintenance.cpp MaintainArchives, GetLogFileType, RemoveOldZipFiles
//   ArchiveThread.cpp      archiving a rolled-over file off the writer thread
//   GzipArchive.cpp        CompressLogFile, GzipFile
//   trace/AddLog.cpp       AddLog (the tracing thread's side)
#ifndef TOVI_LOGWRITER_TOVILOGWRITER_H
#define TOVI_LOGWRITER_TOVILOGWRITER_H

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include <ace/Thread_Mutex.h>

#include "ToviDebugMgr.h"
#include "logwriter/RecordBatchQueue.h"

class AsnType;
class SyslogForwarder;
class ToviLogRecord;

class ToviLogWriter {
public:
  ToviLogWriter(const std::string& logPath, const std::string& prefix, const std::string& header,
                bool bAllPrint, bool bAllLog, unsigned nFiltLogBufSize, unsigned nEachFileMaxSize,
                int nEachProcessMaxZipNum);
  ~ToviLogWriter();
  ToviLogWriter(const ToviLogWriter&) = delete;
  ToviLogWriter& operator=(const ToviLogWriter&) = delete;

  // Tracing threads.
  bool AddLog(const std::string& subModule, ToviLogLevel level, const char* text,
              const AsnType* asn, bool bPrint, bool bLog);
  // Takes over a block made by recordblock::Acquire and queues its record.
  bool PutRecord(ACE_Message_Block* block);
  std::string GetLogPath() const;
  // Records written to the file from now on are also handed to forwarder
  // (null: none), which must outlive the writer.
  void SetForwarder(SyslogForwarder* forwarder) { m_pForwarder.store(forwarder); }

  bool StartThread();
  static void* OutputThread(void* arg);

  // The writer thread (and the stop sequence once that thread has ended).
  void FlushDiscardQueue();
  bool CreateLogFile();
  void CloseLogFile();
  bool WriteString(const char* text);
  bool WriteBytes(const char* data, std::size_t size);
  bool IsLogFileName(const char* name, int kind) const;
  bool WriteRecord(ToviLogRecord* record, bool fromDiscardQueue);
  void FormatAsnTrace(const AsnType* asn, std::string& out);

  void MaintainArchives();
  int GetLogFileType(const char* name);
  // Busy: a live writer (or another compressor) holds the file.
  enum class ArchiveOutcome { Archived, Busy, Failed };
  ArchiveOutcome CompressLogFile(const std::string& name);
  bool IsTemporaryArchive(const char* name) const;
  // Compresses the open file into target; 0 when target is complete.
  static int GzipFile(int sourceFd, const std::string& target);
  void RemoveOldZipFiles();

  // True when producers must wait for room: the queued records and those the
  // writer thread holds fill the water mark.
  bool OutputQueueFull() { return m_OutputQueue.is_full(); }
  // Records waiting in each queue (not yet taken by the writer thread).
  std::size_t OutputQueueCount() { return m_OutputQueue.message_count(); }
  std::size_t DiscardQueueCount() { return m_DiscardQueue.message_count(); }

private:
  typedef RecordBatchQueue RecordQueue;

  bool EnqueueOutput(ACE_Message_Block* block);
  // Compresses a closed file and prunes the archives on a thread of its own.
  void ArchiveInBackground(const std::string& closedName);
  void WaitForArchiving();
  static void* ArchiveThread(void* arg);
  // Takes batches off m_OutputQueue until the end marker, or a stop with
  // nothing left to write.
  void DrainOutputQueue();
  // Writes the records of a chain; true when it held the end marker.
  bool WriteBatch(ACE_Message_Block* chain);
  // Hands the pending file bytes, then the pending console text, on.
  // False when the write failed: the file was cut back to its last whole
  // record and the batch is kept for RecoverFromFailedWrite.
  bool FlushFileBatch();
  void FlushConsoleBatch();
  void ReportConsoleDrops();
  // Hands the syslog messages of what reached the file to the forwarder.
  void ForwardBatch();
  bool RollOver();
  // Creates the next file, retrying once a second; false when a stop came
  // first.
  bool CreateLogFileUntilStopped();
  void ReportDroppedRecords();
  // Closes the open file without a closing line; removes it if it is empty.
  void AbandonFile();
  // Moves the pending records of a failed file on to a new one; false when
  // a stop came first.
  bool RecoverFromFailedWrite();
  // At most every half second: when the open file has been removed, opens a
  // new one and says how many records may have been lost; false when a stop
  // came first.
  bool ReplaceRemovedFile();
  bool SleepUnlessStopped(unsigned milliseconds);
  void ClearQueueAtStop(RecordQueue& queue, const char* failure);
  void DiscardUnusedEndMarker();

  std::atomic<bool> m_bThreadExited;
  std::atomic<bool> m_bStopRequested;
  std::string m_strCurFile;
  std::string m_strPrefix;
  std::string m_strLogPath;
  std::string m_strHeader;
  // The open log file, -1 when none.
  int m_nFile;
  std::string m_strFirstFile;
  bool m_bAllPrint;
  bool m_bAllLog;
  uint32_t m_nFiltLogBufSize;
  uint32_t m_nEachFileMaxSize;
  bool m_bStarted;
  int32_t m_nEachProcessMaxZipNum;
  RecordQueue m_OutputQueue;
  RecordQueue m_DiscardQueue;
  ACE_Thread_Mutex m_StartLock;

  // True while the writer thread has no file to write to because creating
  // one failed: producers then stop waiting for room after about a second.
  std::atomic<bool> m_bNoFile;
  // Records that producers had to drop; reported in the log once a file is
  // open again.
  std::atomic<uint64_t> m_nDroppedRecords;
  // The time that named the newest file of this writer, so that names never
  // repeat and keep ascending.
  int64_t m_nLastNameTime;
  // Bytes in the current file, pending ones included, so that the size test
  // after every record costs no system call.
  int64_t m_nFileBytes;
  // Bytes of the current file known to be on their way to the disk.
  int64_t m_nFlushedBytes;
  // What the writer thread has formatted but not yet handed to the kernel:
  // whole records only, so that a failed write can be undone cleanly.
  std::string m_FileBatch;
  uint64_t m_nBatchRecords;
  // The last write failed (errno in m_nWriteError); the batch still waits.
  bool m_bFileFailed;
  int m_nWriteError;
  // Records handed to the kernel since the file was last seen to have a
  // name, and when that was.
  uint64_t m_nRecordsSinceCheck;
  int64_t m_nLastLinkCheckMs;
  std::string m_ConsoleBatch;
  std::atomic<SyslogForwarder*> m_pForwarder{nullptr};
  // The framed syslog messages of the records in the pending batches, and
  // what every message of this writer shares.
  std::string m_SyslogBatch;
  std::size_t m_nSyslogMessages = 0;
  // Records not formatted because the forwarder's backlog was full.
  std::size_t m_nSyslogSkipped = 0;
  std::string m_strSyslogIdentity;
  // Where each record of m_ConsoleBatch ends, to count those a stalled
  // console did not take.
  std::vector<std::size_t> m_ConsoleRecordEnds;
  bool m_bConsoleStalled;
  uint64_t m_nConsoleDropped;
  ACE_hthread_t m_hThread;
  // The archiving thread of the last roll-over, while it may still run, and
  // the name of the file it compresses.
  bool m_bArchiving;
  ACE_hthread_t m_hArchiver;
  std::string m_strArchiveJob;
};

#endif
