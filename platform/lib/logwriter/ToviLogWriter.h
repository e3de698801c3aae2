// ToviLogWriter.h - one asynchronous log writer: two queues, one thread and
// the current log file.
//
// Tracing threads only build a record (AddLog) and queue it (PutRecord). The
// writer's own thread takes the records in order and prints them and/or
// writes them into time-stamped files, which roll over by size and are then
// compressed and pruned. Records that nobody asked to see wait, a bounded
// number of them, in the discard queue until an assertion brings them out.
//
// Where the code lives:
//   RecordQueue.cpp        PutRecord, FlushDiscardQueue (both queues)
//   OutputThread.cpp       construction, StartThread, the writer thread
//   StopSequence.cpp       the destructor
//   LogFile.cpp            CreateLogFile, CloseLogFile, WriteString, names
//   RecordWriter.cpp       WriteRecord, the date line and the roll-over
//   ArchiveMaintenance.cpp MaintainArchives, GetLogFileType, RemoveOldZipFiles
//   GzipArchive.cpp        CompressLogFile, GzipFile
//   trace/AddLog.cpp       AddLog (the tracing thread's side)
#ifndef TOVI_LOGWRITER_TOVILOGWRITER_H
#define TOVI_LOGWRITER_TOVILOGWRITER_H

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

#include <ace/Condition_Thread_Mutex.h>
#include <ace/Message_Queue.h>
#include <ace/Synch.h>
#include <ace/Thread_Mutex.h>

#include "ToviDebugMgr.h"

class AsnType;
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
  bool PutRecord(ToviLogRecord* record);
  std::string GetLogPath() const;

  bool StartThread();
  static void* OutputThread(void* arg);

  // The writer thread (and the stop sequence once that thread has ended).
  void FlushDiscardQueue();
  bool CreateLogFile();
  void CloseLogFile();
  bool WriteString(const char* text);
  bool IsLogFileName(const char* name, int kind) const;
  bool WriteRecord(ToviLogRecord* record, bool fromDiscardQueue);
  void FormatAsnTrace(const AsnType* asn, std::string& out);

  void MaintainArchives();
  int GetLogFileType(const char* name);
  void CompressLogFile(const std::string& name);
  static int GzipFile(const std::string& source, const std::string& target);
  void RemoveOldZipFiles();

  // Records waiting in each queue.
  std::size_t OutputQueueCount() { return m_OutputQueue.message_count(); }
  std::size_t DiscardQueueCount() { return m_DiscardQueue.message_count(); }

private:
  typedef ACE_Message_Queue<ACE_MT_SYNCH> RecordQueue;

  bool EnqueueOutput(ACE_Message_Block* block);
  bool RollOver();
  // Creates the next file, retrying once a second; false when a stop came
  // first.
  bool CreateLogFileUntilStopped();
  void ReportDroppedRecords();
  bool SleepUnlessStopped(unsigned milliseconds);
  void ClearQueueAtStop(RecordQueue& queue, const char* failure);
  void DiscardUnusedEndMarker();

  std::atomic<bool> m_bThreadExited;
  std::atomic<bool> m_bStopRequested;
  std::string m_strCurFile;
  std::string m_strPrefix;
  std::string m_strLogPath;
  std::string m_strHeader;
  std::ofstream* m_pFile;
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
  // Bytes in the current file, so that the size test after every record
  // costs no system call.
  int64_t m_nFileBytes;
};

#endif
