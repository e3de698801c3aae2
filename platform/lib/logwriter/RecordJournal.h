// RecordJournal.h - the ring through which every record with an output goes
// from its tracing thread to its writer thread, kept in a file-backed shared
// mapping until the record is in the file, so that no death of the process
// (a kill, a fault on the writer's own thread, a disk full until the end)
// loses it: the next start of a writer with the same prefix in the same
// directory writes what the dead one had not.
//
// The ring holds entries in acceptance order. A producer reserves room with
// one compare-and-swap on the head, fills its entry in place and publishes
// it with a release store of the entry's state word, which carries the
// entry's own position, so that a state left from an earlier lap of the
// ring never passes for a new one. That is the whole hand-off: no lock, and
// the record is copied once, into the memory that also outlives the
// process. The writer thread alone reads entries, in position order, so the
// file shows records in the order their producers reserved room: each
// thread's in call order, and across threads by that reservation.
//
// Exactly once. Before the writer hands a batch to the kernel it marks the
// batch's entries with a new generation and notes in the header the file
// and the offset the batch starts at, then the generation; once the write
// has returned it stores the generation as committed. A death anywhere in
// between leaves the generation uncommitted: recovery cuts the file back to
// the noted offset and writes the batch's entries again. An entry is done
// once its generation is committed, or once the writer is through with an
// entry that needs no file (console only, an end marker, or any entry of a
// ring in memory); the tail moves over done entries, and room is never
// taken from one that is not done.
//
// A directory that cannot take the journal file gives the writer a ring in
// plain memory: the same hand-off without the promise. When the directory
// takes files later, the writer moves producers on to a file-backed ring:
// the memory ring is closed (a bit in its head that fails every later
// reservation), and the writer reads what it holds before it reads the new
// one.
//
// Not here: records without an output (held back for an assertion). A
// recovered record comes back without its ASN.1 value, which lives on the
// heap and is only pointed to.
#ifndef TOVI_LOGWRITER_RECORDJOURNAL_H
#define TOVI_LOGWRITER_RECORDJOURNAL_H

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "port/MappedFile.h"

class AsnType;
class RecordQueue;

class RecordJournal {
public:
  // What a writer holds before its producers wait: the bytes of about
  // ten megabytes of records.
  static constexpr std::size_t kRingBytes = 10u << 20;

  enum Flags : uint16_t {
    kToFile = 1,     // for the file (and forwarding): journaled
    kToConsole = 2,  // for the console
    kDeferred = 4,   // the message is a capture (deferred::Capture) to format
    kEndMarker = 8,  // tells the writer thread to end
  };

  // One record, filled in place by its producer.
  struct Entry {
    // (position << 8) | kind, stored last with release: the entry is whole
    // once its state names its own position.
    std::atomic<uint64_t> state;
    // Stored right after size, so that a scan can step over an entry whose
    // producer died before publishing it.
    std::atomic<uint64_t> position;
    std::atomic<uint32_t> size;
    uint32_t thread;
    int32_t level;
    uint16_t flags;
    uint16_t nameLength;  // the sub-module name, first in the payload
    int64_t seconds;      // the time of the call, as the system clock gave it
    int32_t microseconds;
    uint32_t messageLength;  // the text, or the capture, after the name
    AsnType* asn;            // this process's clone, or null
    // The batch that wrote it; read by any thread that trims.
    std::atomic<uint64_t> generation;

    char* Payload() { return reinterpret_cast<char*>(this + 1); }
    const char* Payload() const { return reinterpret_cast<const char*>(this + 1); }
  };

  // Notes the journals that writers of prefix left in dir (which ends in
  // "/"), then Create makes this writer's ring: in the file when it can,
  // else in memory, with why in error. False only when not even memory
  // could be had; producers use the ring from the moment it succeeds.
  void FindDead(const std::string& dir, const std::string& prefix);
  bool Create(int& error);
  ~RecordJournal();
  bool IsOpen() const { return m_header != nullptr; }
  // The current ring is the file's.
  bool IsPersistent() const { return m_persistent; }
  // The writer thread: moves producers from a ring in memory to one in the
  // file; false, with why in error, when the file cannot be made.
  bool MoveToFile(int& error);

  // Producers. Room for an entry with payload bytes after it, its size and
  // position set; null when there is none. A full ring is waited for only
  // while queue's writer makes progress, which is what frees room.
  Entry* Reserve(std::size_t payload, const RecordQueue& queue);
  // The entry is whole: the writer may take it.
  static void Publish(Entry* entry);
  // Where drop counts are kept so that they outlive the process (null for
  // a ring in memory).
  std::atomic<uint64_t>* DropCounter();

  // The writer thread (and the stop sequence once that thread has ended).
  // The next published entry in acceptance order, null when there is none
  // yet; Reserved says whether a producer holds room that it has not
  // published yet (or has just published).
  Entry* Next();
  bool Reserved() const;
  // The handle of the entry Next gave, for Writing and Drop; 0 when it is
  // not journaled (its ring is in memory, or it is not for the file).
  uint64_t HandleOf(const Entry* entry) const;
  // Moves past the entry Next gave; done: nothing will refer to it again.
  void Consumed(Entry* entry, bool done);
  // Makes what was consumed so far count as handed on: after each hand-over.
  void Settle();
  // Everything published so far was consumed and settled (any thread).
  bool AllConsumed() const;
  // Published entries not yet consumed (any thread; a scan, for tests and
  // the stop).
  std::size_t Waiting() const;

  // The record was refused after all: not written, and counted elsewhere.
  void Drop(uint64_t handle);
  void Drop(const std::vector<uint64_t>& handles) {
    for (uint64_t handle : handles) Drop(handle);
  }
  // A batch of these handles is about to be written to file at offset;
  // Committed once the write returned. Both return at once for a ring in
  // memory.
  void Writing(const std::vector<uint64_t>& handles, const std::string& file, int64_t offset);
  void Committed();
  // A batch whose write failed: its entries wait to be written again.
  void Unwrite(const std::vector<uint64_t>& handles);
  // Moves the tails over what is done, so that its room can be taken again.
  // The writer thread's alone (and the stop sequence's).
  void Trim();
  // Nothing accepted is left unwritten.
  bool Clean();
  // How many accepted records wait unwritten (a scan: for the stop).
  std::size_t Pending() const;
  // At the stop: the file goes when nothing is left in it.
  void Close();

  // What a record holds, read from an entry of this process or a dead one.
  struct View {
    int64_t seconds;
    int32_t microseconds;
    uint32_t thread;
    int level;
    uint16_t flags;
    const char* name;
    std::size_t nameLength;
    const char* message;
    std::size_t messageLength;
  };
  static View ViewOf(const Entry& entry);

  // What the dead writers left, for the writer thread. CutDeadFiles, before
  // anything touches the dead writers' files: takes their journals and cuts
  // each one's last file back to where its last committed write ended.
  // Recover, once a file is open: hands every unwritten record of each, in
  // acceptance order, to `take`, after the dead process's id, the count and
  // its drop count to `begin`. ForgetDead, once those are in the file:
  // removes the dead journals.
  void CutDeadFiles();
  void Recover(const std::function<void(uint32_t pid, std::size_t records, uint64_t dropped)>& begin,
               const std::function<void(const View&)>& take);
  void ForgetDead();

private:
  struct Header;
  // The entry at position of the ring that follows header.
  static Entry* EntryIn(const Header& header, uint64_t position);
  static void Trim(Header& header);
  // The entries accepted and not written, in acceptance order.
  static std::vector<const Entry*> Unwritten(const Header& header);
  bool CreateFile(int& error);
  void Start(Header* header);

  std::string m_dir;
  std::string m_prefix;
  std::string m_path;
  // What producers see: null until Create has succeeded.
  std::atomic<Header*> m_published{nullptr};
  toviport::MappedFile m_file;
  toviport::MappedFile m_memory;
  // The ring producers use, and whether it is the file's.
  Header* m_header = nullptr;
  bool m_persistent = false;
  // The writer thread's: the ring it reads and where; and the same as of
  // the last Settle, for AllConsumed and Waiting.
  Header* m_cursorRing = nullptr;
  uint64_t m_cursor = 0;
  std::atomic<Header*> m_readRing{nullptr};
  std::atomic<uint64_t> m_readPosition{0};
  // The writer thread's: the generation of the batch in flight.
  uint64_t m_generation = 0;
  std::vector<std::string> m_deadPaths;
  std::vector<toviport::MappedFile> m_dead;
  std::vector<std::string> m_deadOpen;
};

#endif
