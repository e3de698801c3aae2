// OutputThread.cpp - building a writer, starting its thread, and the thread
// itself: the only code that consumes m_OutputQueue and, while it runs, the
// only code that touches the writer's file.
#include <cerrno>

#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Thread.h>
#include <ace/Time_Value.h>

#include "ToviBaseUtil.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// The byte budget of each queue; a queued record counts as one record object.
constexpr size_t kQueueWaterMark = 10240000;
// How often the idle writer thread looks at the stop flag, so that a stop
// never depends on an end marker reaching the queue.
const ACE_Time_Value kIdleWake(0, 100 * 1000);
// The retry period when a log file cannot be created.
constexpr unsigned kCreateRetryMs = 1000;
}  // namespace

ToviLogWriter::ToviLogWriter(const std::string& logPath, const std::string& prefix,
                             const std::string& header, bool bAllPrint, bool bAllLog,
                             unsigned nFiltLogBufSize, unsigned nEachFileMaxSize,
                             int nEachProcessMaxZipNum)
    : m_bThreadExited(false),
      m_bStopRequested(false),
      m_strPrefix(prefix),
      m_strHeader(header),
      m_pFile(nullptr),
      m_bAllPrint(bAllPrint),
      m_bAllLog(bAllLog),
      m_nFiltLogBufSize(nFiltLogBufSize),
      m_nEachFileMaxSize(nEachFileMaxSize),
      m_bStarted(false),
      m_nEachProcessMaxZipNum(nEachProcessMaxZipNum),
      m_bNoFile(false),
      m_nDroppedRecords(0),
      m_nLastNameTime(0),
      m_nFileBytes(0) {
  if (logPath.empty()) {
    m_strLogPath = ToviGetDefaultLogPath();
  } else {
    m_strLogPath = logPath;
    if (m_strLogPath.back() != '/') m_strLogPath += '/';
  }
  m_OutputQueue.high_water_mark(kQueueWaterMark);
  m_OutputQueue.low_water_mark(kQueueWaterMark);
  m_DiscardQueue.high_water_mark(kQueueWaterMark);
  m_DiscardQueue.low_water_mark(kQueueWaterMark);
  StartThread();
}

std::string ToviLogWriter::GetLogPath() const { return m_strLogPath; }

bool ToviLogWriter::StartThread() {
  {
    ACE_Guard<ACE_Thread_Mutex> guard(m_StartLock);
    if (m_bStarted) return true;
  }
  if (ACE_Thread::spawn(&ToviLogWriter::OutputThread, this, THR_NEW_LWP | THR_DETACHED, nullptr,
                        nullptr, 0) == -1) {
    return false;
  }
  m_bStarted = true;
  return true;
}

bool ToviLogWriter::SleepUnlessStopped(unsigned milliseconds) {
  for (unsigned slept = 0; slept < milliseconds; slept += 100) {
    if (m_bStopRequested.load(std::memory_order_acquire)) return false;
    toviport::SleepMs(milliseconds - slept < 100 ? milliseconds - slept : 100);
  }
  return !m_bStopRequested.load(std::memory_order_acquire);
}

bool ToviLogWriter::CreateLogFileUntilStopped() {
  while (!CreateLogFile()) {
    m_bNoFile.store(true, std::memory_order_release);
    if (!SleepUnlessStopped(kCreateRetryMs)) return false;
  }
  m_bNoFile.store(false, std::memory_order_release);
  return true;
}

void ToviLogWriter::ReportDroppedRecords() {
  if (m_nDroppedRecords.load(std::memory_order_relaxed) == 0) return;
  const unsigned long long dropped = m_nDroppedRecords.exchange(0, std::memory_order_relaxed);
  char line[512];
  ACE_OS::snprintf(line, sizeof line,
                "%llu record(s) dropped while the log file could not be written\n", dropped);
  WriteString(line);
}

void* ToviLogWriter::OutputThread(void* arg) {
  ToviLogWriter* self = static_cast<ToviLogWriter*>(arg);
  if (self == nullptr) return nullptr;

  self->MaintainArchives();
  if (!self->CreateLogFileUntilStopped()) {
    self->m_bThreadExited.store(true, std::memory_order_release);
    return nullptr;
  }

  self->WriteString("This is the first log file\n");
  char line[60];
  ACE_OS::snprintf(line, sizeof line, "Thread handle output string is 0x%x\n",
                toviport::CurrentThreadId());
  self->WriteString(line);
  self->m_pFile->flush();

  for (;;) {
    if (self->m_bStopRequested.load(std::memory_order_acquire) &&
        self->m_OutputQueue.message_count() == 0) {
      break;
    }
    ACE_Message_Block* block = nullptr;
    ACE_Time_Value wake = ACE_OS::gettimeofday() + kIdleWake;
    if (self->m_OutputQueue.dequeue_head(block, &wake) == -1) {
      if (errno == EWOULDBLOCK) continue;
      self->WriteString("can't get message block\n");
      self->SleepUnlessStopped(100);
      continue;
    }
    if (block == nullptr) {
      self->WriteString("can't get message block\n");
      continue;
    }
    ToviLogRecord* record = UnwrapRecord(block);
    if (record == nullptr) {
      self->WriteString("can't get message block's base\n");
      continue;
    }
    if (record->IsEndMarker()) {
      delete record;
      break;
    }
    if (record->HasData()) {
      self->WriteRecord(record, false);
    } else {
      self->WriteString("can't get output data\n");
    }
    delete record;
  }

  self->WriteString("thread handle output string exit\n");
  // The last touch of the writer: from here on the stopping thread owns it.
  self->m_bThreadExited.store(true, std::memory_order_release);
  return nullptr;
}
