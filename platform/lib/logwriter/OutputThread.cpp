// OutputThread.cpp - building a writer, starting its thread, and the thread
// itself: the only code that consumes m_OutputQueue and, while it runs, the
// only code that touches the writer's file.
//
// The thread takes whatever is queued, up to a batch bound, writes it, and
// hands the batch to the kernel before it looks for more. When the queue runs
// dry after work it naps briefly before it waits on the queue, so that
// producers who keep coming find a writer that needs no waking.
#include <cerrno>

#include <ace/OS_NS_stdio.h>
#include <ace/OS_NS_sys_time.h>
#include <ace/Thread.h>
#include <ace/Time_Value.h>

#include "ToviBaseUtil.h"
#include "logwriter/RecordBatchQueue.h"
#include "logwriter/RecordBlock.h"
#include "logwriter/SyslogForwarder.h"
#include "logwriter/ToviLogRecord.h"
#include "logwriter/ToviLogWriter.h"
#include "port/ToviPort.h"

namespace {
// How often the idle writer thread looks at the stop flag, so that a stop
// never depends on an end marker reaching the queue.
const ACE_Time_Value kIdleWake(0, 100 * 1000);
// The record bytes written between two hand-overs to the kernel.
constexpr std::size_t kBatchRecordBytes = 64 * 1024;
// The nap after a batch that emptied the queue.
constexpr unsigned kDryNapUs = 2000;
}  // namespace

ToviLogWriter::ToviLogWriter(const std::string& logPath, const std::string& prefix,
                             const std::string& header, bool bAllPrint, bool bAllLog,
                             unsigned nFiltLogBufSize, unsigned nEachFileMaxSize,
                             int nEachProcessMaxZipNum)
    : m_bThreadExited(false),
      m_bStopRequested(false),
      m_strPrefix(prefix),
      m_strHeader(header),
      m_nFile(-1),
      m_bAllPrint(bAllPrint),
      m_bAllLog(bAllLog),
      m_nFiltLogBufSize(nFiltLogBufSize),
      m_nEachFileMaxSize(nEachFileMaxSize),
      m_bStarted(false),
      m_nEachProcessMaxZipNum(nEachProcessMaxZipNum),
      m_bNoFile(false),
      m_nDroppedRecords(0),
      m_nLastNameTime(0),
      m_nFileBytes(0),
      m_nFlushedBytes(0),
      m_nBatchRecords(0),
      m_bFileFailed(false),
      m_nWriteError(0),
      m_nRecordsSinceCheck(0),
      m_nLastLinkCheckMs(0),
      m_bConsoleStalled(false),
      m_nConsoleDropped(0),
      m_hThread(),
      m_bArchiving(false),
      m_hArchiver() {
  if (logPath.empty()) {
    m_strLogPath = ToviGetDefaultLogPath();
  } else {
    m_strLogPath = logPath;
    if (m_strLogPath.back() != '/') m_strLogPath += '/';
  }
  m_OutputQueue.high_water_mark(recordblock::kQueueWaterMark);
  m_OutputQueue.low_water_mark(recordblock::kQueueWaterMark);
  m_DiscardQueue.high_water_mark(recordblock::kQueueWaterMark);
  m_DiscardQueue.low_water_mark(recordblock::kQueueWaterMark);
  StartThread();
}

std::string ToviLogWriter::GetLogPath() const { return m_strLogPath; }

bool ToviLogWriter::StartThread() {
  {
    ACE_Guard<ACE_Thread_Mutex> guard(m_StartLock);
    if (m_bStarted) return true;
  }
  // Joinable, so that the stop sequence returns the moment the thread has
  // ended, and no thread of the library outlives its writer.
  ACE_thread_t id;
  if (ACE_Thread::spawn(&ToviLogWriter::OutputThread, this, THR_NEW_LWP | THR_JOINABLE, &id,
                        &m_hThread, 0) == -1) {
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

void* ToviLogWriter::OutputThread(void* arg) {
  ToviLogWriter* self = static_cast<ToviLogWriter*>(arg);
  if (self == nullptr) return nullptr;
  // The writer catches up in bursts; a burst must not push aside the very
  // threads whose records it writes.
  toviport::MakeBackgroundThread();

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
  if (!self->FlushFileBatch()) self->RecoverFromFailedWrite();

  self->DrainOutputQueue();

  self->ForwardBatch();
  self->FlushConsoleBatch();
  self->ReportConsoleDrops();
  self->ReportDroppedRecords();
  self->WriteString("thread handle output string exit\n");
  self->FlushFileBatch();
  // The last touch of the writer: from here on the stopping thread owns it.
  self->m_bThreadExited.store(true, std::memory_order_release);
  return nullptr;
}

void ToviLogWriter::DrainOutputQueue() {
  bool dry = true;
  for (;;) {
    if (m_bStopRequested.load(std::memory_order_acquire) && m_OutputQueue.message_count() == 0) {
      return;
    }
    ACE_Message_Block* chain = nullptr;
    ACE_Time_Value wait = dry ? ACE_OS::gettimeofday() + kIdleWake : ACE_Time_Value::zero;
    if (m_OutputQueue.dequeue_all(chain, &wait) == -1) {
      if (errno == EWOULDBLOCK) {
        if (!dry) toviport::SleepUs(kDryNapUs);
        dry = true;
        continue;
      }
      WriteString("can't get message block\n");
      FlushFileBatch();
      SleepUnlessStopped(100);
      continue;
    }
    dry = false;
    if (WriteBatch(chain)) return;
  }
}

bool ToviLogWriter::WriteBatch(ACE_Message_Block* chain) {
  // What was written since the last hand-over, in queue bytes and lengths.
  std::size_t bytes = 0;
  std::size_t length = 0;
  const auto handOver = [&] {
    // The file first: a console that is slow must not keep records from it.
    if (ReplaceRemovedFile() && !FlushFileBatch()) RecoverFromFailedWrite();
    ForwardBatch();
    FlushConsoleBatch();
    m_OutputQueue.release_bytes(bytes, length);
    bytes = length = 0;
  };
  for (ACE_Message_Block* block = chain; block != nullptr;) {
    ACE_Message_Block* next = block->next();
    block->next(nullptr);
    bytes += RecordQueue::charge(block);
    length += block->length();
    ToviLogRecord* record = recordblock::RecordIn(block);
    const bool ended = record->IsEndMarker();
    if (ended) {
      // What was queued behind the marker stays for the stop sequence to
      // count.
      if (next != nullptr) m_OutputQueue.requeue_head(next);
    } else if (record->HasData()) {
      WriteRecord(record, false);
    } else {
      WriteString("can't get output data\n");
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

void ToviLogWriter::ForwardBatch() {
  if (m_nSyslogMessages == 0 && m_nSyslogSkipped == 0) return;
  if (SyslogForwarder* forwarder = m_pForwarder.load(std::memory_order_relaxed)) {
    forwarder->Submit(m_SyslogBatch, m_nSyslogMessages);
    forwarder->Skipped(m_nSyslogSkipped);
  }
  m_SyslogBatch.clear();
  m_nSyslogMessages = 0;
  m_nSyslogSkipped = 0;
}
