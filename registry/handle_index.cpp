#include "registry/handle_index.h"

#include <sys/mman.h>

#include <cstdint>
#include <new>

namespace MetricsFramework {

namespace {

constexpr unsigned int kInitialBits = 6;
constexpr size_t kHugePage = size_t{2} << 20;

}  // namespace

// Slots of `count` entries, all empty. The 2 MiB-aligned stretches of a large
// table go on huge pages where the system allows it: resolutions land on
// random slots, and with small pages nearly each one would also miss the
// address translation cache.
HandleIndex::Slot* HandleIndex::AllocateSlots(size_t count) {
  const size_t bytes = count * sizeof(Slot);
  void* memory = ::operator new(bytes);
  const uintptr_t begin = (reinterpret_cast<uintptr_t>(memory) + kHugePage - 1) & ~(kHugePage - 1);
  const uintptr_t end = (reinterpret_cast<uintptr_t>(memory) + bytes) & ~(kHugePage - 1);
  if (end > begin) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);  // a hint
  Slot* slots = static_cast<Slot*>(memory);
  for (size_t i = 0; i < count; ++i) new (&slots[i]) Slot{};
  return slots;
}

void HandleIndex::FreeSlots(Slot* slots) { ::operator delete(slots); }

HandleIndex::Table::Table(unsigned int bits)
    : shift(64 - bits),
      mask((size_t{1} << bits) - 1),
      slots(AllocateSlots(size_t{1} << bits), &FreeSlots) {}

size_t HandleIndex::Table::Home(unsigned long handle) const {
  // Handles are folded addresses whose low bits repeat; multiplying spreads
  // them, and the top bits of the product pick the slot.
  return static_cast<size_t>((handle * 0x9E3779B97F4A7C15ul) >> shift);
}

bool HandleIndex::Table::Read(unsigned long handle, Path** found) const {
  size_t i = Home(handle);
  for (size_t walked = 0; walked <= mask; ++walked, i = (i + 1) & mask) {
    Path* target = slots[i].target.load(std::memory_order_relaxed);
    if (target == nullptr) {
      *found = nullptr;
      return true;
    }
    if (slots[i].handle.load(std::memory_order_relaxed) == handle) {
      *found = target;
      return true;
    }
  }
  return false;
}

size_t HandleIndex::Table::Locate(unsigned long handle) const {
  size_t i = Home(handle);
  while (slots[i].target.load(std::memory_order_relaxed) != nullptr &&
         slots[i].handle.load(std::memory_order_relaxed) != handle) {
    i = (i + 1) & mask;
  }
  return i;
}

HandleIndex::HandleIndex() : m_sequence(0), m_table(nullptr), m_count(0) {
  m_tables.emplace_back(new Table(kInitialBits));
  m_table.store(m_tables.back().get(), std::memory_order_release);
}

HandleIndex::~HandleIndex() = default;

Path* HandleIndex::Find(unsigned long handle) const {
  const unsigned long before = m_sequence.load(std::memory_order_acquire);
  if ((before & 1) == 0) {
    Path* found = nullptr;
    const bool whole = m_table.load(std::memory_order_acquire)->Read(handle, &found);
    std::atomic_thread_fence(std::memory_order_acquire);
    if (whole && m_sequence.load(std::memory_order_relaxed) == before) return found;
  }
  // A change ran meanwhile: read again behind the writers instead of spinning.
  std::lock_guard<std::mutex> hold(m_mutex);
  Path* found = nullptr;
  m_table.load(std::memory_order_relaxed)->Read(handle, &found);
  return found;
}

void HandleIndex::Set(unsigned long handle, Path* target) {
  std::lock_guard<std::mutex> hold(m_mutex);
  Table* table = m_table.load(std::memory_order_relaxed);
  size_t i = table->Locate(handle);
  const bool added = table->slots[i].target.load(std::memory_order_relaxed) == nullptr;
  if (added && (m_count + 1) * 4 > (table->mask + 1) * 3) {
    Grow();
    table = m_table.load(std::memory_order_relaxed);
    i = table->Locate(handle);
  }
  BeginChange();
  table->slots[i].handle.store(handle, std::memory_order_relaxed);
  table->slots[i].target.store(target, std::memory_order_relaxed);
  EndChange();
  if (added) ++m_count;
}

void HandleIndex::Erase(unsigned long handle) {
  std::lock_guard<std::mutex> hold(m_mutex);
  Table& table = *m_table.load(std::memory_order_relaxed);
  size_t hole = table.Locate(handle);
  if (table.slots[hole].target.load(std::memory_order_relaxed) == nullptr) return;
  BeginChange();
  // Every entry after the hole, up to the end of the run, moves into the hole
  // unless its home lies cyclically in (hole, j]: then it is still reached.
  for (size_t j = (hole + 1) & table.mask;; j = (j + 1) & table.mask) {
    Path* target = table.slots[j].target.load(std::memory_order_relaxed);
    if (target == nullptr) break;
    const unsigned long key = table.slots[j].handle.load(std::memory_order_relaxed);
    const size_t home = table.Home(key);
    const bool stays = hole <= j ? (hole < home && home <= j) : (hole < home || home <= j);
    if (stays) continue;
    table.slots[hole].handle.store(key, std::memory_order_relaxed);
    table.slots[hole].target.store(target, std::memory_order_relaxed);
    hole = j;
  }
  table.slots[hole].target.store(nullptr, std::memory_order_relaxed);
  EndChange();
  --m_count;
}

size_t HandleIndex::Size() const {
  std::lock_guard<std::mutex> hold(m_mutex);
  return m_count;
}

void HandleIndex::Grow() {
  // The old table does not change while the new one is filled, so readers
  // keep using it; they switch when the new one is published.
  const Table& old = *m_table.load(std::memory_order_relaxed);
  const unsigned int bits = 64 - old.shift + 1;
  std::unique_ptr<Table> grown(new Table(bits));
  for (size_t i = 0; i <= old.mask; ++i) {
    Path* target = old.slots[i].target.load(std::memory_order_relaxed);
    if (target == nullptr) continue;
    const unsigned long key = old.slots[i].handle.load(std::memory_order_relaxed);
    Slot& slot = grown->slots[grown->Locate(key)];
    slot.handle.store(key, std::memory_order_relaxed);
    slot.target.store(target, std::memory_order_relaxed);
  }
  m_table.store(grown.get(), std::memory_order_release);
  m_tables.push_back(std::move(grown));
}

void HandleIndex::BeginChange() {
  const unsigned long sequence = m_sequence.load(std::memory_order_relaxed);
  m_sequence.store(sequence + 1, std::memory_order_relaxed);
  // Orders the odd number before the slot stores that follow, for readers
  // that load it again after their slot loads.
  std::atomic_thread_fence(std::memory_order_release);
}

void HandleIndex::EndChange() {
  m_sequence.store(m_sequence.load(std::memory_order_relaxed) + 1, std::memory_order_release);
}

}  // namespace MetricsFramework
