// RecordJournal.cpp - the ring, its protocol and recovery.
#include "logwriter/RecordJournal.h"

#include <algorithm>
#include <cstring>

#include "logwriter/LogFormat.h"
#include "logwriter/RecordQueue.h"
#include "logwriter/ToviLogRecord.h"
#include "port/ToviPort.h"

namespace {
// How long a producer waits for room in a full ring before it queues its
// record unjournaled.
constexpr int64_t kRoomWaitMs = 1000;
constexpr char kMagic[8] = {'T', 'O', 'V', 'I', 'J', 'R', 'N', '1'};
constexpr char kSuffix[] = ".journal";
constexpr std::size_t kHeaderBytes = 4096;
constexpr std::size_t kFileNameBytes = 256;

enum Kind : uint64_t { kAccepted = 1, kWriting = 2, kDropped = 3, kPad = 4 };
constexpr uint64_t State(uint64_t position, Kind kind) { return position << 8 | kind; }
constexpr uint64_t PositionOf(uint64_t state) { return state >> 8; }
constexpr Kind KindOf(uint64_t state) { return static_cast<Kind>(state & 0xff); }
constexpr uint64_t Round8(uint64_t n) { return (n + 7) & ~uint64_t{7}; }

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
  std::atomic<uint64_t> head;
  std::atomic<uint64_t> tail;
  std::atomic<uint64_t> dropped;
  std::atomic<uint64_t> committedGeneration;
  std::atomic<uint64_t> inflightGeneration;
  std::atomic<int64_t> inflightOffset;
  char inflightFile[kFileNameBytes];
};

struct RecordJournal::Entry {
  // (position << 8) | kind, stored last with release: the entry is whole
  // once its state names its own position.
  std::atomic<uint64_t> state;
  // Stored right after size, so that a scan can step over an entry whose
  // producer died before publishing it.
  std::atomic<uint64_t> position;
  std::atomic<uint32_t> size;
  uint32_t thread;
  int32_t level;
  uint32_t textLength;
  // The batch that wrote it; read by any thread that trims.
  std::atomic<uint64_t> generation;
  char stamp[32];
  char* Text() { return reinterpret_cast<char*>(this + 1); }
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

bool RecordJournal::Create(int& error) {
  if (m_header != nullptr) return true;
  static_assert(sizeof(Header) <= kHeaderBytes, "the header fits its page");
  const std::size_t bytes = kHeaderBytes + kRingBytes;
  const std::string lead = m_dir + "." + m_prefix + ".";
  const std::string pid = "." + std::to_string(toviport::CurrentProcessId()) + kSuffix;
  for (int64_t second = toviport::CurrentTime();; ++second) {
    m_path = lead + std::to_string(second) + pid;
    error = toviport::CreateMappedFile(m_path, bytes, m_file);
    if (error != EEXIST) break;
  }
  if (error != 0) return false;
  m_header = static_cast<Header*>(m_file.base);
  std::memcpy(m_header->magic, kMagic, sizeof kMagic);
  m_header->pid = toviport::CurrentProcessId();
  m_header->headerBytes = kHeaderBytes;
  m_header->ringBytes = kRingBytes;
  m_published.store(m_header, std::memory_order_release);
  return true;
}

RecordJournal::~RecordJournal() {
  toviport::CloseMappedFile(m_file);
  for (toviport::MappedFile& file : m_dead) toviport::CloseMappedFile(file);
}

std::atomic<uint64_t>* RecordJournal::DropCounter() {
  return m_header != nullptr ? &m_header->dropped : nullptr;
}

uint64_t RecordJournal::Append(const ToviLogRecord& record, const RecordQueue& queue) {
  Header* const header = m_published.load(std::memory_order_acquire);
  if (header == nullptr) return 0;
  const uint64_t size = Round8(sizeof(Entry) + record.m_nTextLen);
  uint64_t head = header->head.load(std::memory_order_relaxed);
  uint64_t at = 0;
  int64_t giveUpMs = 0;
  for (;;) {
    at = head;
    const uint64_t left = kRingBytes - at % kRingBytes;
    if (left < size) at += left;  // the rest of this lap is padding
    if (at + size - header->tail.load(std::memory_order_acquire) > kRingBytes) {
      // Full: an entry near the tail is still being filled by a producer
      // that lost the processor, or the writer has not trimmed yet. Room
      // comes back within moments, so wait for it, with a bound.
      Trim(*header);
      const int64_t now = toviport::SteadyMs();
      if (giveUpMs == 0) giveUpMs = now + kRoomWaitMs;
      if (now > giveUpMs || !queue.WriterProgressing()) return 0;
      toviport::SleepUs(50);
      head = header->head.load(std::memory_order_relaxed);
      continue;
    }
    if (header->head.compare_exchange_weak(head, at + size, std::memory_order_acq_rel,
                                           std::memory_order_relaxed)) {
      break;
    }
  }
  if (at != head && kRingBytes - head % kRingBytes >= sizeof(Entry)) {
    Entry* pad = EntryIn(*header, head);
    pad->size.store(static_cast<uint32_t>(at - head), std::memory_order_relaxed);
    pad->position.store(head, std::memory_order_release);
    pad->state.store(State(head, kPad), std::memory_order_release);
  }
  Entry* entry = EntryIn(*header, at);
  entry->size.store(static_cast<uint32_t>(size), std::memory_order_relaxed);
  entry->position.store(at, std::memory_order_release);
  entry->thread = record.m_nThreadId;
  entry->level = record.m_nLevel;
  entry->textLength = record.m_nTextLen;
  std::memcpy(entry->stamp, record.m_pTime, logformat::kStampLength);
  std::memcpy(entry->Text(), record.m_pText, record.m_nTextLen);
  entry->state.store(State(at, kAccepted), std::memory_order_release);
  return at + 1;
}

void RecordJournal::Drop(uint64_t handle) {
  Header* const header = m_published.load(std::memory_order_acquire);
  if (header == nullptr || handle == 0) return;
  EntryIn(*header, handle - 1)->state.store(State(handle - 1, kDropped), std::memory_order_release);
}

void RecordJournal::Writing(const std::vector<uint64_t>& handles, const std::string& file,
                            int64_t offset) {
  if (m_header == nullptr) return;
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
  if (m_header == nullptr) return;
  m_header->committedGeneration.store(m_generation, std::memory_order_release);
}

void RecordJournal::Unwrite(const std::vector<uint64_t>& handles) {
  if (m_header == nullptr) return;
  for (uint64_t handle : handles) {
    EntryIn(*m_header, handle - 1)->state.store(State(handle - 1, kAccepted), std::memory_order_release);
  }
}

void RecordJournal::Trim() {
  if (m_header != nullptr) Trim(*m_header);
}

void RecordJournal::Trim(Header& header) {
  uint64_t start = header.tail.load(std::memory_order_acquire);
  const uint64_t head = header.head.load(std::memory_order_acquire);
  const uint64_t committed = header.committedGeneration.load(std::memory_order_acquire);
  uint64_t tail = start;
  while (tail < head) {
    const uint64_t left = kRingBytes - tail % kRingBytes;
    if (left < sizeof(Entry)) {
      tail += left;
      continue;
    }
    const Entry* entry = EntryIn(header, tail);
    const uint64_t state = entry->state.load(std::memory_order_acquire);
    if (PositionOf(state) != tail) break;  // its producer is still at it
    const Kind kind = KindOf(state);
    const bool done = kind == kPad || kind == kDropped ||
                      (kind == kWriting && entry->generation.load(std::memory_order_relaxed) <= committed);
    if (!done) break;
    tail += entry->size.load(std::memory_order_relaxed);
  }
  // Producers trim too when they find no room: the tail only moves forward.
  while (tail > start && !header.tail.compare_exchange_weak(start, tail, std::memory_order_acq_rel)) {
  }
}

bool RecordJournal::Clean() {
  if (m_header == nullptr) return true;
  Trim();
  return m_header->tail.load(std::memory_order_relaxed) ==
             m_header->head.load(std::memory_order_relaxed) &&
         m_header->dropped.load(std::memory_order_relaxed) == 0;
}

void RecordJournal::Close() {
  if (m_header == nullptr) return;
  const bool clean = Clean();
  m_published.store(nullptr, std::memory_order_release);
  toviport::CloseMappedFile(m_file);
  m_header = nullptr;
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
                       header->headerBytes == kHeaderBytes && header->ringBytes == kRingBytes;
    if (!valid) {
      toviport::CloseMappedFile(file);
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
  const uint64_t head = header.head.load(std::memory_order_acquire);
  const uint64_t committed = header.committedGeneration.load(std::memory_order_acquire);
  std::vector<const Entry*> unwritten;
  for (uint64_t p = header.tail.load(std::memory_order_acquire); p < head;) {
    const uint64_t left = kRingBytes - p % kRingBytes;
    if (left < sizeof(Entry)) {
      p += left;
      continue;
    }
    const Entry* entry = EntryIn(header, p);
    const uint32_t size = entry->size.load(std::memory_order_relaxed);
    if (entry->position.load(std::memory_order_acquire) != p || size < sizeof(Entry) ||
        size > left) {
      p += 8;  // a producer died before it said where its entry ends
      continue;
    }
    const uint64_t state = entry->state.load(std::memory_order_acquire);
    const Kind kind = KindOf(state);
    if (PositionOf(state) == p &&
        (kind == kAccepted ||
         (kind == kWriting && entry->generation.load(std::memory_order_relaxed) > committed)) &&
        entry->textLength <= size - sizeof(Entry)) {
      unwritten.push_back(entry);
    }
    p += size;
  }
  return unwritten;
}

std::size_t RecordJournal::Pending() const {
  return m_header != nullptr ? Unwritten(*m_header).size() : 0;
}

void RecordJournal::Recover(
    const std::function<void(uint32_t pid, std::size_t records, uint64_t dropped)>& begin,
    const std::function<void(const Recovered&)>& take) {
  for (std::size_t i = 0; i < m_dead.size(); ++i) {
    Header* header = static_cast<Header*>(m_dead[i].base);
    const std::vector<const Entry*> unwritten = Unwritten(*header);
    const uint64_t dropped = header->dropped.load(std::memory_order_relaxed);
    if (!unwritten.empty() || dropped > 0) begin(header->pid, unwritten.size(), dropped);
    for (const Entry* entry : unwritten) {
      take(Recovered{entry->stamp, entry->thread, entry->level,
                      reinterpret_cast<const char*>(entry + 1), entry->textLength});
    }
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
