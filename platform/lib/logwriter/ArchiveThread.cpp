// ArchiveThread.cpp - compressing a rolled-over file beside the writer
// thread rather than on it.
//
// Compressing a full file takes the better part of a second; done on the
// writer thread it would stop the queue from draining and make every
// producer wait. So each roll-over hands the closed file to a thread of its
// own, which compresses it and prunes the oldest archives. There is at most
// one such thread per writer: a roll-over that comes while the last one
// still runs waits for it, and the stop sequence joins the last one.
#include <ace/Thread.h>

#include "logwriter/ToviLogWriter.h"

void ToviLogWriter::ArchiveInBackground(const std::string& closedName) {
  WaitForArchiving();
  m_strArchiveJob = closedName;
  if (ACE_Thread::spawn(&ToviLogWriter::ArchiveThread, this, THR_NEW_LWP | THR_JOINABLE, nullptr,
                        &m_hArchiver, 0) == -1) {
    ArchiveThread(this);  // no thread to be had: archive here and now
    return;
  }
  m_bArchiving = true;
}

void ToviLogWriter::WaitForArchiving() {
  if (!m_bArchiving) return;
  ACE_Thread::join(m_hArchiver, nullptr);
  m_bArchiving = false;
}

void* ToviLogWriter::ArchiveThread(void* arg) {
  ToviLogWriter* self = static_cast<ToviLogWriter*>(arg);
  self->CompressLogFile(self->m_strArchiveJob);
  self->RemoveOldZipFiles();
  return nullptr;
}
