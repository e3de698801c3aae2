// RecordJournal.cpp - the ring, its protocol and recovery.
#include "logwriter/RecordJournal.h"

#include <algorithm>
#include <cstring>

#include "logwriter/RecordQueue.h"
#include "port/ToviPort.h"

namespace {
constexpr char kMagic[8] = {'T', 'O', 'V', 'I', 'J', 'R', 'N', '2'};
constexpr char kSuffix[] = ".journal";
constexpr std::size_t kHeaderBytes = 4096;
constexpr std::size_t kFileNameBytes = 256;
// Set in a ring's head once producers must go to the ring that replaced it.
constexpr uint64_t kClosed = uint64_t{1} << 63;
// Between the two stores of a settled read position that moves to a new ring.
constexpr uint64_t kMoving = ~uint64_t{0};

enum Kind : uint64_t { kAccepted = 1, kWriting = 2, kDone = 3, kPad = 4 };
constexpr uint64_t State(uint64_t position, Kind kind) { return position << 8 | kind; }
constexpr uint64_t PositionOf(uint64_t state) { return state >> 8; }
constexpr Kind KindOf(uint64_t state) { return static_cast<Kind>(state & 0xff); }
constexpr uint64_t Round8(uint64_t n) { return (n + 7) & ~uint64_t{7}; }
// Where a scan at position goes on: the end of a lap too short to hold an
// entry is left empty (Reserve pads only where an entry fits), so the scan
// steps to the next lap.
constexpr uint64_t SkipShortLapEnd(uint64_t position) {
  const uint64_t left = RecordJournal::kRingBytes - position % RecordJournal::kRingBytes;
  return left < sizeof(RecordJournal::Entry) ? position + left : position;
}

// ".<prefix>.<seconds>.<pid>.journal": the name says whose it is, and names
// sort by age.
bool IsJournalOf(const std::string& name, const std::string& prefix) {
  const std::string lead = "." + prefix + ".";
  if (name.size() <= lead.size() + sizeof kSuffix || name.compare(0, lead.size(), lead) != 0) return false;
  if (name.compare(name.size() - (sizeof kSuffix - 1), std::string::npos, kSuffix) != 0) return false;
  const std::string middle = name.substr(lead.size(), name.size() - lead.size() - (sizeof kSuffix - 1));
  const std::size_t dot = middle.find('.');
  if (dot == std::string::npos || dot == 0 || dot + 1 == middle.size()) return false;
  return middle.find_first_not_of("0123456789.") == std::string::npos &&
         middle.find('.', dot + 1) == std::string::npos;
}
}  // namespace

struct RecordJournal::Header {
  char magic[8];
  uint32_t pid;
  uint32_t headerBytes;
  uint64_t ringBytes;
  uint64_t entryBytes;
  std::atomic<uint64_t> head;
  std::atomic<uint64_t> tail;
  std::atomic<uint64_t> dropped;
  std::atomic<uint64_t> committedGeneration;
  std::atomic<uint64_t> inflightGeneration;
  std::atomic<int64_t> inflightOffset;
  char inflightFile[kFileNameBytes];
};

RecordJournal::Entry* RecordJournal::EntryIn(const Header& header, uint64_t position) {
  const char* ring = reinterpret_cast<const char*>(&header) + kHeaderBytes;
  return reinterpret_cast<Entry*>(const_cast<char*>(ring) + position % kRingBytes);
}

void RecordJournal::FindDead(const std::string& dir, const std::string& prefix) {
  m_dir = dir;
  m_prefix = prefix;
  std::vector<std::string> names;
  toviport::ListDirectory(dir, names);
  std::sort(names.begin(), names.end());
  for (const std::string& name : names) {
    if (IsJournalOf(name, prefix)) m_deadPaths.push_back(dir + name);
  }
}

bool RecordJournal::CreateFile(int& error) {
  const std::size_t bytes = kHeaderBytes + kRingBytes;
  const std::string lead = m_dir + "." + m_prefix + ".";
  const std::string pid = "." + std::to_string(toviport::CurrentProcessId()) + kSuffix;
  for (int64_t second = toviport::CurrentTime();; ++second) {
    m_path = lead + std::to_string(second) + pid;
    error = toviport::CreateMappedFile(m_path, bytes, m_file);
    if (error != EEXIST) break;
  }
  return error == 0;
}

void RecordJournal::Start(Header* header) {
  std::memcpy(header->magic, kMagic, sizeof kMagic);
  header->pid = toviport::CurrentProcessId();
  header->headerBytes = kHeaderBytes;
  header->ringBytes = kRingBytes;
  header->entryBytes = sizeof(Entry);
  m_header = header;
  m_published.store(header, std::memory_order_release);
}

bool RecordJournal::Create(int& error) {
  static_assert(sizeof(Header) <= kHeaderBytes, "the header fits its page");
  static_assert(sizeof(Entry) % 8 == 0, "entries stay aligned");
  if (m_header != nullptr) return true;
  if (CreateFile(error)) {
    m_persistent = true;
    Start(static_cast<Header*>(m_file.base));
  } else if (toviport::CreateMemoryMapping(kHeaderBytes + kRingBytes, m_memory) == 0) {
    Start(static_cast<Header*>(m_memory.base));
  } else {
    return false;
  }
  m_cursorRing = m_header;
  m_readRing.store(m_header, std::memory_order_release);
  return true;
}

bool RecordJournal::MoveToFile(int& error) {
  if (m_persistent) return true;
  if (!CreateFile(error)) return false;
  Header* const memory = m_header;
  m_persistent = true;
  Start(static_cast<Header*>(m_file.base));
  // From here a producer's reservation in the memory ring fails, and it
  // takes the new ring; what it reserved before is read before the new ring.
  // The memory ring stays mapped: a producer may still be looking at it.
  if (memory != nullptr) memory->head.fetch_or(kClosed, std::memory_order_acq_rel);
  return true;
}

RecordJournal::~RecordJournal() {
  toviport::CloseMappedFile(m_file);
  toviport::CloseMappedFile(m_memory);
  for (toviport::MappedFile& file : m_dead) toviport::CloseMappedFile(file);
}

std::atomic<uint64_t>* RecordJournal::DropCounter() {
  return m_persistent ? &m_header->dropped : nullptr;
}

RecordJournal::Entry* RecordJournal::Reserve(std::size_t payload, const RecordQueue& queue) {
  const uint64_t size = Round8(sizeof(Entry) + payload);
  for (;;) {
    Header* const header = m_published.load(std::memory_order_acquire);
    if (header == nullptr || size > kRingBytes / 4) return nullptr;
    uint64_t head = header->head.load(std::memory_order_relaxed);
    uint64_t at = 0;
    bool reserved = false;
    while ((head & kClosed) == 0) {
      at = head;
      const uint64_t left = kRingBytes - at % kRingBytes;
      if (left < size) at += left;  // the rest of this lap is padding
      if (at + size - header->tail.load(std::memory_order_acquire) > kRingBytes) {
        // Full. Room comes back as the writer writes and trims; a writer
        // that cannot write (no file, a full disk) or has ended frees none,
        // and is not waited for: the record is dropped and counted.
        if (!queue.WriterProgressing()) return nullptr;
        toviport::SleepUs(50);
        head = header->head.load(std::memory_order_relaxed);
        continue;
      }
      // Sequentially consistent: see ToviLogWriter::WakeWriter.
      if (header->head.compare_exchange_weak(head, at + size, std::memory_order_seq_cst,
                                             std::memory_order_relaxed)) {
        reserved = true;
        break;
      }
    }
    if (!reserved) continue;  // closed: the writer moved producers on
    if (at != head && kRingBytes - head % kRingBytes >= sizeof(Entry)) {
      Entry* pad = EntryIn(*header, head);
      pad->size.store(static_cast<uint32_t>(at - head), std::memory_order_relaxed);
      pad->position.store(head, std::memory_order_release);
      pad->state.store(State(head, kPad), std::memory_order_release);
    }
    Entry* entry = EntryIn(*header, at);
    entry->size.store(static_cast<uint32_t>(size), std::memory_order_relaxed);
    entry->position.store(at, std::memory_order_release);
    return entry;
  }
}

void RecordJournal::Publish(Entry* entry) {
  const uint64_t at = entry->position.load(std::memory_order_relaxed);
  entry->state.store(State(at, kAccepted), std::memory_order_release);
}

RecordJournal::Entry* RecordJournal::Next() {
  for (;;) {
    Header* const ring = m_cursorRing;
    if (ring == nullptr) return nullptr;
    const uint64_t head = ring->head.load(std::memory_order_acquire);
    if (m_cursor >= (head & ~kClosed)) {
      if ((head & kClosed) == 0 || ring == m_header) return nullptr;
      m_cursorRing = m_header;
      m_cursor = 0;
      continue;
    }
    m_cursor = SkipShortLapEnd(m_cursor);
    if (m_cursor >= (head & ~kClosed)) continue;
    Entry* entry = EntryIn(*ring, m_cursor);
    const uint64_t state = entry->state.load(std::memory_order_acquire);
    if (PositionOf(state) != m_cursor) return nullptr;  // its producer is still at it
    if (KindOf(state) != kPad) return entry;
    m_cursor += entry->size.load(std::memory_order_relaxed);
  }
}

bool RecordJournal::Reserved() const {
  const Header* const ring = m_cursorRing;
  if (ring == nullptr) return false;
  if (ring != m_header) return true;
  return (ring->head.load(std::memory_order_seq_cst) & ~kClosed) > m_cursor;
}

uint64_t RecordJournal::HandleOf(const Entry* entry) const {
  if (!m_persistent || m_cursorRing != m_header || (entry->flags & kToFile) == 0) return 0;
  return m_cursor + 1;
}

void RecordJournal::Consumed(Entry* entry, bool done) {
  const uint64_t at = m_cursor;
  m_cursor += entry->size.load(std::memory_order_relaxed);
  if (done) entry->state.store(State(at, kDone), std::memory_order_release);
}

void RecordJournal::Settle() {
  if (m_readRing.load(std::memory_order_relaxed) != m_cursorRing) {
    m_readPosition.store(kMoving, std::memory_order_release);
    m_readRing.store(m_cursorRing, std::memory_order_release);
  }
  m_readPosition.store(m_cursor, std::memory_order_release);
}

bool RecordJournal::AllConsumed() const {
  const uint64_t position = m_readPosition.load(std::memory_order_acquire);
  const Header* const ring = m_readRing.load(std::memory_order_acquire);
  if (position == kMoving || position != m_readPosition.load(std::memory_order_acquire)) return false;
  const Header* const current = m_published.load(std::memory_order_acquire);
  if (ring == nullptr || ring != current) return ring == nullptr;
  return (ring->head.load(std::memory_order_acquire) & ~kClosed) <= position;
}

std::size_t RecordJournal::Waiting() const {
  const Header* ring = m_readRing.load(std::memory_order_acquire);
  uint64_t position = m_readPosition.load(std::memory_order_acquire);
  if (ring == nullptr || position == kMoving) return 0;
  std::size_t waiting = 0;
  for (;;) {
    const uint64_t head = ring->head.load(std::memory_order_acquire) & ~kClosed;
    while (position < head) {
      position = SkipShortLapEnd(position);
      if (position >= head) break;
      const Entry* entry = EntryIn(*ring, position);
      const uint64_t state = entry->state.load(std::memory_order_acquire);
      if (PositionOf(state) != position) break;
      if (KindOf(state) != kPad && (entry->flags & kEndMarker) == 0) ++waiting;
      position += entry->size.load(std::memory_order_relaxed);
    }
    const Header* current = m_published.load(std::memory_order_acquire);
    if (ring == current) return waiting;
    ring = current;
    position = 0;
  }
}

void RecordJournal::Drop(uint64_t handle) {
  if (!m_persistent || handle == 0) return;
  EntryIn(*m_header, handle - 1)->state.store(State(handle - 1, kDone), std::memory_order_release);
}

void RecordJournal::Writing(const std::vector<uint64_t>& handles, const std::string& file,
                            int64_t offset) {
  if (!m_persistent) return;
  const uint64_t generation = ++m_generation;
  for (uint64_t handle : handles) {
    Entry* entry = EntryIn(*m_header, handle - 1);
    entry->generation.store(generation, std::memory_order_relaxed);
    entry->state.store(State(handle - 1, kWriting), std::memory_order_release);
  }
  if (file.compare(0, kFileNameBytes - 1, m_header->inflightFile) != 0) {
    const std::size_t length = std::min(file.size(), kFileNameBytes - 1);
    file.copy(m_header->inflightFile, length);
    m_header->inflightFile[length] = '\0';
  }
  m_header->inflightOffset.store(offset, std::memory_order_relaxed);
  m_header->inflightGeneration.store(generation, std::memory_order_release);
}

void RecordJournal::Committed() {
  if (!m_persistent) return;
  m_header->committedGeneration.store(m_generation, std::memory_order_release);
}

void RecordJournal::Unwrite(const std::vector<uint64_t>& handles) {
  if (!m_persistent) return;
  for (uint64_t handle : handles) {
    EntryIn(*m_header, handle - 1)->state.store(State(handle - 1, kAccepted), std::memory_order_release);
  }
}

void RecordJournal::Trim() {
  if (m_cursorRing != nullptr && m_cursorRing != m_header) Trim(*m_cursorRing);
  if (m_header != nullptr) Trim(*m_header);
}

void RecordJournal::Trim(Header& header) {
  uint64_t start = header.tail.load(std::memory_order_acquire);
  const uint64_t head = header.head.load(std::memory_order_acquire) & ~kClosed;
  const uint64_t committed = header.committedGeneration.load(std::memory_order_acquire);
  uint64_t tail = start;
  while (tail < head) {
    tail = SkipShortLapEnd(tail);
    if (tail >= head) break;
    const Entry* entry = EntryIn(header, tail);
    const uint64_t state = entry->state.load(std::memory_order_acquire);
    if (PositionOf(state) != tail) break;  // its producer is still at it
    const Kind kind = KindOf(state);
    const bool done = kind == kPad || kind == kDone ||
                      (kind == kWriting && entry->generation.load(std::memory_order_relaxed) <= committed);
    if (!done) break;
    tail += entry->size.load(std::memory_order_relaxed);
  }
  // Only the writer's side trims: a scan from the tail reads entries that
  // no producer can be reusing, since their room is not free until the
  // tail has passed them.
  if (tail > start) header.tail.store(tail, std::memory_order_release);
}

bool RecordJournal::Clean() {
  if (!m_persistent) return true;
  Trim();
  return m_header->tail.load(std::memory_order_relaxed) ==
             m_header->head.load(std::memory_order_relaxed) &&
         m_header->dropped.load(std::memory_order_relaxed) == 0;
}

void RecordJournal::Close() {
  if (m_header == nullptr) return;
  const bool clean = Clean();
  m_published.store(nullptr, std::memory_order_release);
  m_header = nullptr;
  m_cursorRing = nullptr;
  m_readRing.store(nullptr, std::memory_order_release);
  if (!m_persistent) return;
  toviport::CloseMappedFile(m_file);
  // What is left waits for the next start.
  if (clean) toviport::RemoveFile(m_path.c_str());
}

void RecordJournal::CutDeadFiles() {
  for (const std::string& path : m_deadPaths) {
    toviport::MappedFile file;
    if (toviport::OpenDeadMappedFile(path, file) != 0) continue;  // alive, or not ours to read
    const Header* header = static_cast<const Header*>(file.base);
    const bool valid = file.size == kHeaderBytes + kRingBytes &&
                       std::memcmp(header->magic, kMagic, sizeof kMagic) == 0 &&
                       header->headerBytes == kHeaderBytes && header->ringBytes == kRingBytes &&
                       header->entryBytes == sizeof(Entry);
    if (!valid) {
      // A writer killed while it made its journal, before the header: no
      // producer ever saw it, so it holds nothing. Anything else that is not
      // ours to read stays.
      const bool unmade = file.size >= sizeof kMagic && std::all_of(header->magic, header->magic + sizeof kMagic,
                                                                    [](char c) { return c == 0; });
      toviport::CloseMappedFile(file);
      if (unmade) toviport::RemoveFile(path.c_str());
      continue;
    }
    // A batch whose write was under way: the file loses it here and gets
    // it again from the entries, so that nothing comes out twice.
    const uint64_t inflight = header->inflightGeneration.load(std::memory_order_acquire);
    if (inflight > header->committedGeneration.load(std::memory_order_acquire) &&
        header->inflightFile[0] != '\0') {
      const std::string name(header->inflightFile, strnlen(header->inflightFile, kFileNameBytes));
      if (name.find('/') == std::string::npos) {
        toviport::ShortenFile(m_dir + name, header->inflightOffset.load(std::memory_order_relaxed));
      }
    }
    m_dead.push_back(file);
    m_deadOpen.push_back(path);
  }
}

std::vector<const RecordJournal::Entry*> RecordJournal::Unwritten(const Header& header) {
  const uint64_t head = header.head.load(std::memory_order_acquire) & ~kClosed;
  const uint64_t committed = header.committedGeneration.load(std::memory_order_acquire);
  std::vector<const Entry*> unwritten;
  for (uint64_t p = header.tail.load(std::memory_order_acquire); p < head;) {
    p = SkipShortLapEnd(p);
    if (p >= head) break;
    const uint64_t left = kRingBytes - p % kRingBytes;
    const Entry* entry = EntryIn(header, p);
    const uint32_t size = entry->size.load(std::memory_order_relaxed);
    if (entry->position.load(std::memory_order_acquire) != p || size < sizeof(Entry) ||
        size > left) {
      p += 8;  // a producer died before it said where its entry ends
      continue;
    }
    const uint64_t state = entry->state.load(std::memory_order_acquire);
    const Kind kind = KindOf(state);
    const bool unfinished =
        kind == kAccepted ||
        (kind == kWriting && entry->generation.load(std::memory_order_relaxed) > committed);
    if (PositionOf(state) == p && unfinished && (entry->flags & kToFile) != 0 &&
        uint64_t{entry->nameLength} + entry->messageLength <= size - sizeof(Entry)) {
      unwritten.push_back(entry);
    }
    p += size;
  }
  return unwritten;
}

std::size_t RecordJournal::Pending() const {
  return m_persistent && m_header != nullptr ? Unwritten(*m_header).size() : 0;
}

RecordJournal::View RecordJournal::ViewOf(const Entry& entry) {
  const char* payload = entry.Payload();
  return View{entry.seconds, entry.microseconds, entry.thread, entry.level, entry.flags,
              payload, entry.nameLength, payload + entry.nameLength, entry.messageLength};
}

void RecordJournal::Recover(
    const std::function<void(uint32_t pid, std::size_t records, uint64_t dropped)>& begin,
    const std::function<void(const View&)>& take) {
  for (std::size_t i = 0; i < m_dead.size(); ++i) {
    Header* header = static_cast<Header*>(m_dead[i].base);
    const std::vector<const Entry*> unwritten = Unwritten(*header);
    const uint64_t dropped = header->dropped.load(std::memory_order_relaxed);
    if (!unwritten.empty() || dropped > 0) begin(header->pid, unwritten.size(), dropped);
    for (const Entry* entry : unwritten) take(ViewOf(*entry));
  }
}

void RecordJournal::ForgetDead() {
  for (std::size_t i = 0; i < m_dead.size(); ++i) {
    toviport::CloseMappedFile(m_dead[i]);
    toviport::RemoveFile(m_deadOpen[i].c_str());
  }
  m_dead.clear();
  m_deadOpen.clear();
}
