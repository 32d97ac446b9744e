// The release path shared by doDelete, the global operators and
// MemoryObject, and the process-wide table that answers "is this pool
// memory?" in constant time without a lock.
//
// Every pool mapping starts on a 4 MiB boundary (kRegionShift), so a
// 4 MiB-aligned slot of the address space belongs to at most one recorded
// range, which covers the slot from its start. The table keeps, per slot, how
// many bytes from the slot's start are covered (0: none). It is a two-level
// radix over the 48-bit user address space: a constant-initialised array of
// leaf pointers (usable before any static constructor runs) and leaves mapped
// on first need and never freed. Writers hold the range lock; readers use
// one acquire load and one relaxed load.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdlib>

#include "kestrel/memory.h"

namespace kestrel::memory_detail {

inline constexpr unsigned kRegionShift = 22;
inline constexpr unsigned long kRegionSize = 1UL << kRegionShift;  // 4 MiB
inline constexpr unsigned kAddressBits = 48;
inline constexpr unsigned kLeafBits = 13;
inline constexpr unsigned kTopBits = kAddressBits - kRegionShift - kLeafBits;
inline constexpr std::size_t kLeafSlots = std::size_t{1} << kLeafBits;
inline constexpr std::size_t kTopSlots = std::size_t{1} << kTopBits;

extern std::atomic<std::uint32_t*> gRegionTable[kTopSlots];

// isPoolAddress for an address already known to lie below 2^48.
inline bool isRecordedUserAddress(std::uintptr_t address) {
  const std::uintptr_t slot = address >> kRegionShift;
  std::uint32_t* leaf = gRegionTable[slot >> kLeafBits].load(std::memory_order_acquire);
  if (leaf == nullptr) return false;
  const std::uint32_t covered =
      std::atomic_ref<std::uint32_t>(leaf[slot & (kLeafSlots - 1)]).load(std::memory_order_relaxed);
  return (address & (kRegionSize - 1)) < covered;
}

inline bool isPoolAddress(const void* p) {
  const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(p);
  if (address >> kAddressBits) return false;
  return isRecordedUserAddress(address);
}

// The manager header in front of a manager block.
struct BlockHeader {
  MemoryManager* owner;
  unsigned long size;
};
static_assert(sizeof(BlockHeader) == kManagerHeaderSize);

inline BlockHeader* headerOf(void* p) {
  return static_cast<BlockHeader*>(p) - 1;
}

inline void* allocate(unsigned long size, MemoryManager* mgr) {
  return mgr == nullptr ? std::malloc(size) : mgr->alloc(size);
}

inline void release(void* p) {
  const std::uintptr_t address = reinterpret_cast<std::uintptr_t>(p);
  // One comparison sets aside both null and addresses above 2^48.
  if (__builtin_expect(address - 1 >= (std::uintptr_t{1} << kAddressBits) - 1, 0)) {
    if (p != nullptr) std::free(p);
    return;
  }
  if (__builtin_expect(isRecordedUserAddress(address), 0)) {
    headerOf(p)->owner->free(p);
    return;
  }
  std::free(p);
}

}  // namespace kestrel::memory_detail
