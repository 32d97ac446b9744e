// The process-wide range list and the lock-free address table behind
// MemoryPool::isPointerFromPool.
#include "memory/mapped_ranges.h"

#include <algorithm>
#include <cstdint>

#include "memory/memory_front.h"
#include "memory/system_memory.h"

namespace kestrel::memory_detail {

constinit std::atomic<std::uint32_t*> gRegionTable[kTopSlots] = {};

namespace {

constexpr std::uintptr_t kMapFailed = ~std::uintptr_t{0};

// The list lives on the system heap for the whole process (never destroyed,
// so a pool destroyed late in process exit still finds it).
std::vector<MMapRange>& rangeList() {
  static auto* const list = new std::vector<MMapRange>;
  return *list;
}

std::uint32_t* leafFor(std::uintptr_t slot, bool create) {
  std::atomic<std::uint32_t*>& top = gRegionTable[slot >> kLeafBits];
  std::uint32_t* leaf = top.load(std::memory_order_acquire);
  if (leaf != nullptr || !create) return leaf;
  void* fresh = default_mmap_func(kLeafSlots * sizeof(std::uint32_t), nullptr);
  if (reinterpret_cast<std::uintptr_t>(fresh) == kMapFailed) return nullptr;
  leaf = static_cast<std::uint32_t*>(fresh);  // zero-filled by the system
  top.store(leaf, std::memory_order_release);
  return leaf;
}

// Raises the coverage of every slot of the range to at least what the range
// covers (ranges only overlap when a stale range shares its address with a
// newer one).
void mark(const MMapRange& range) {
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(range.start) >> kRegionShift;
  for (unsigned long offset = 0; offset < range.size; offset += kRegionSize) {
    const std::uintptr_t slot = first + (offset >> kRegionShift);
    std::uint32_t* leaf = leafFor(slot, true);
    if (leaf == nullptr) throw std::bad_alloc();
    const auto covered = static_cast<std::uint32_t>(std::min(kRegionSize, range.size - offset));
    std::atomic_ref<std::uint32_t> cell(leaf[slot & (kLeafSlots - 1)]);
    if (cell.load(std::memory_order_relaxed) < covered)
      cell.store(covered, std::memory_order_release);
  }
}

void unmark(const MMapRange& range) {
  const std::uintptr_t first = reinterpret_cast<std::uintptr_t>(range.start) >> kRegionShift;
  for (unsigned long offset = 0; offset < range.size; offset += kRegionSize) {
    const std::uintptr_t slot = first + (offset >> kRegionShift);
    if (std::uint32_t* leaf = leafFor(slot, false))
      std::atomic_ref<std::uint32_t>(leaf[slot & (kLeafSlots - 1)])
          .store(0, std::memory_order_release);
  }
}

bool overlaps(const MMapRange& a, const MMapRange& b) {
  return a.start < b.start + b.size && b.start < a.start + a.size;
}

}  // namespace

SpinLock& rangeLock() {
  static auto* const lock = new SpinLock(0);
  return *lock;
}

char* mapAligned(mspace_mmap_func map, unsigned long size, void* context) {
  const unsigned long page = mspace_detail::systemPageSize();
  if (size == 0 || page == 0 || size > ~0UL - 2 * kRegionSize) return nullptr;
  const unsigned long rounded = (size + page - 1) & ~(page - 1);
  const unsigned long span = rounded + kRegionSize;
  void* raw = map(span, context);
  const auto rawStart = reinterpret_cast<std::uintptr_t>(raw);
  if (raw == nullptr || rawStart == kMapFailed) return nullptr;
  const std::uintptr_t start = (rawStart + kRegionSize - 1) & ~(kRegionSize - 1);
  const std::uintptr_t end = start + rounded;
  if (start > rawStart)
    default_munmap_func(reinterpret_cast<char*>(rawStart), start - rawStart, context);
  if (rawStart + span > end)
    default_munmap_func(reinterpret_cast<char*>(end), rawStart + span - end, context);
  if ((end - 1) >> kAddressBits) {  // outside the table's reach
    default_munmap_func(reinterpret_cast<char*>(start), rounded, context);
    return nullptr;
  }
  return reinterpret_cast<char*>(start);
}

void recordRange(const MMapRange& range, QList<MMapRange>& own) {
  std::vector<MMapRange>& list = rangeList();
  list.reserve(list.size() + 1);
  own.reserve(own.size() + 1);
  mark(range);
  list.push_back(range);
  own.push_back(range);
}

bool forgetRange(char* start) {
  std::vector<MMapRange>& list = rangeList();
  auto found = std::find_if(list.begin(), list.end(),
                            [start](const MMapRange& r) { return r.start == start; });
  if (found == list.end()) return false;
  const MMapRange removed = *found;
  *found = list.back();
  list.pop_back();
  unmark(removed);
  for (const MMapRange& other : list)
    if (overlaps(other, removed)) mark(other);
  return true;
}

void forgetOwnRange(QList<MMapRange>& own, char* start) {
  for (qsizetype i = 0; i < own.size(); ++i) {
    if (own[i].start != start) continue;
    own[i] = own.back();
    own.pop_back();
    return;
  }
}

std::vector<MMapRange> allRanges() {
  return rangeList();
}

}  // namespace kestrel::memory_detail
