// RecordJournal.h - every record a writer accepts for its file, kept in a
// file-backed shared mapping until the record is in the file, so that no
// death of the process (a kill, a fault on the writer's own thread, a disk
// full until the end) loses it: the next start of a writer with the same
// prefix in the same directory writes what the dead one had not.
//
// The journal is a ring of entries in acceptance order. A producer reserves
// room with one compare-and-swap on the head, fills its entry and publishes
// it with a release store of the entry's state word, which carries the
// entry's own position, so that a state left from an earlier lap of the
// ring never passes for a new one. The writer thread alone does the rest.
//
// Exactly once. Before the writer hands a batch to the kernel it marks the
// batch's entries with a new generation and notes in the header the file
// and the offset the batch starts at, then the generation; once the write
// has returned it stores the generation as committed. A death anywhere in
// between leaves the generation uncommitted: recovery cuts the file back to
// the noted offset and writes the batch's entries again. An entry is done
// once its generation is committed (or it was dropped and counted); the
// tail moves over done entries, and room is never taken from one that is
// not done.
//
// Not journaled: records without an output (held back for an assertion)
// and records for the console only. A journaled record comes back without
// its ASN.1 value, which lives on the heap and is rendered by the writer.
#ifndef TOVI_LOGWRITER_RECORDJOURNAL_H
#define TOVI_LOGWRITER_RECORDJOURNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "port/MappedFile.h"

class RecordQueue;
class ToviLogRecord;

class RecordJournal {
public:
  // Room for more than a writer's queue holds: every queued record costs
  // the queue more than its entry costs here.
  static constexpr std::size_t kRingBytes = 12u << 20;

  // Notes the journals that writers of prefix left in dir (which ends in
  // "/"), then Create makes this writer's: false, with why in error, when
  // it cannot (no room, no directory yet). Create may be tried again later
  // from the writer thread; producers journal from the moment it succeeds.
  void FindDead(const std::string& dir, const std::string& prefix);
  bool Create(int& error);
  ~RecordJournal();
  // The writer thread (or before it starts).
  bool IsOpen() const { return m_header != nullptr; }

  // Producers. Journals record (its time, thread, level and text); the
  // handle to give back with Drop or Writing, 0 when there was no room.
  // A full ring is waited for, a bounded time, only while queue's writer
  // makes progress, which is what frees room; that is asked only then.
  uint64_t Append(const ToviLogRecord& record, const RecordQueue& queue);
  // The record was refused after all: not written, and counted elsewhere.
  void Drop(uint64_t handle);
  // Where drop counts are kept so that they outlive the process.
  std::atomic<uint64_t>* DropCounter();

  // The writer thread. A batch of these handles is about to be written to
  // file at offset; Committed once the write returned. Both return at once
  // for an unopened journal.
  void Writing(const std::vector<uint64_t>& handles, const std::string& file, int64_t offset);
  void Committed();
  // A batch whose write failed: its entries wait to be written again.
  void Unwrite(const std::vector<uint64_t>& handles);
  void Drop(const std::vector<uint64_t>& handles) {
    for (uint64_t handle : handles) Drop(handle);
  }
  // Moves the tail over what is done, so that its room can be taken again.
  // Any thread.
  void Trim();
  // Nothing accepted is left unwritten.
  bool Clean();
  // How many accepted records wait unwritten (a scan: for the stop).
  std::size_t Pending() const;
  // At the stop: the file goes when nothing is left in it.
  void Close();

  // What the dead writers left, for the writer thread. CutDeadFiles, before
  // anything touches the dead writers' files: takes their journals and cuts
  // each one's last file back to where its last committed write ended.
  // Recover, once a file is open: hands every unwritten record of each, in
  // acceptance order, to `take`, after the dead process's id, the count and
  // its drop count to `begin`. ForgetDead, once those are in the file:
  // removes the dead journals.
  void CutDeadFiles();
  struct Recovered {
    const char* stamp;  // "YYYY-MM-DD HH:MM:SS.uuuuuu"
    uint32_t thread;
    int level;
    const char* text;
    std::size_t textLength;
  };
  void Recover(const std::function<void(uint32_t pid, std::size_t records, uint64_t dropped)>& begin,
               const std::function<void(const Recovered&)>& take);
  void ForgetDead();

private:
  struct Header;
  struct Entry;
  // The entry at position of the ring that follows header.
  static Entry* EntryIn(const Header& header, uint64_t position);
  static void Trim(Header& header);
  // The entries accepted and not written, in acceptance order.
  static std::vector<const Entry*> Unwritten(const Header& header);

  std::string m_dir;
  std::string m_prefix;
  std::string m_path;
  // What producers see: null until Create has succeeded.
  std::atomic<Header*> m_published{nullptr};
  toviport::MappedFile m_file;
  Header* m_header = nullptr;
  // The writer thread's: the generation of the batch in flight.
  uint64_t m_generation = 0;
  std::vector<std::string> m_deadPaths;
  std::vector<toviport::MappedFile> m_dead;
  std::vector<std::string> m_deadOpen;
};

#endif
