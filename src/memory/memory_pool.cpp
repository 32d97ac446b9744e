// MemoryPool: an mspace on 4 MiB-aligned anonymous mappings, each recorded in
// the pool's own list and the process-wide list.
#include <atomic>
#include <vector>

#include "kestrel/memory.h"
#include "memory/heap_path.h"
#include "memory/mapped_ranges.h"
#include "memory/memory_front.h"
#include "memory/mspace_layout.h"

namespace kestrel {

using memory_detail::rangeLock;

namespace {

void* const kMapFailed = reinterpret_cast<void*>(~0UL);

// While a pool is destroyed, the mspace's unmapping goes through this
// function: it unmaps as the default does and notes what it unmapped, so
// that the pool unmaps afterwards only what the mspace left mapped and never
// unmaps an address twice (another thread may have mapped it again).
struct UnmapNotes {
  std::vector<MMapRange> unmapped;
};

int notingMunmap(char* start, unsigned long size, void* context) {
  auto* notes = static_cast<UnmapNotes*>(context);
  notes->unmapped.push_back({start, size});
  return default_munmap_func(start, size, nullptr);
}

bool touched(const UnmapNotes& notes, const MMapRange& range) {
  for (const MMapRange& gone : notes.unmapped)
    if (gone.start < range.start + range.size && range.start < gone.start + gone.size) return true;
  return false;
}

}  // namespace

MemoryPool::MemoryPool(const char* name, unsigned long size)
    : mName(QString::fromUtf8(name)), mLock(0) {
  memory_detail::HeapPath::registerPool(*this);
  void* base = directMmapCB(size, this);
  if (base != kMapFailed) {
    mSpace = create_mspace_with_base_ca(base, size, 0, mmapCB, directMmapCB, sbreakCB, this);
  }
  mspace_mallopt(kMspaceGranularity, 0x400000);
  mspace_mallopt(kMspaceTrimThreshold, -1);
}

MemoryPool::~MemoryPool() {
  memory_detail::HeapPath::retirePool(*this);
  UnmapNotes notes;
  notes.unmapped.reserve(64);
  QList<MMapRange> ranges;
  {
    // Forget the ranges first: from here on no pointer is routed to this pool.
    CSMutex hold(rangeLock());
    ranges = mRanges;
    for (const MMapRange& range : ranges) memory_detail::forgetRange(range.start);
    mRanges.clear();
  }
  if (mSpace != nullptr) {
    mSpace->context = &notes;
    mSpace->munmap = notingMunmap;
    mspace_trim(mSpace, 0);
    destroy_mspace(mSpace);
  }
  for (const MMapRange& range : ranges)
    if (!touched(notes, range)) default_munmap_func(range.start, range.size, nullptr);
}

void* MemoryPool::malloc(unsigned long size) {
  if (mSpace == nullptr) return nullptr;
  CSMutex hold(mLock);
  return mspace_malloc(mSpace, size);
}

void MemoryPool::free(void* p) {
  if (mSpace == nullptr) return;
  CSMutex hold(mLock);
  mspace_free(mSpace, p);
}

void MemoryPool::addAllocation(unsigned long n) {
  MemInfo::ChangePoolBytes(static_cast<int>(n), MemInfo::kAlloc);
  std::atomic_ref<unsigned long>(mAllocated).fetch_add(n, std::memory_order_relaxed);
}

void MemoryPool::subtractAllocation(unsigned long n) {
  // The negation in unsigned arithmetic: the counters wrap, they never overflow.
  MemInfo::ChangePoolBytes(static_cast<int>(0U - static_cast<unsigned>(n)), MemInfo::kFree);
  std::atomic_ref<unsigned long>(mAllocated).fetch_sub(n, std::memory_order_relaxed);
}

unsigned long MemoryPool::getAllocatedMemory() const {
  return memory_detail::HeapPath::allocatedSize(*this);
}

mspace_mallinfo_record MemoryPool::getStats() {
  if (mSpace == nullptr) return {};
  memory_detail::HeapPath::returnCachedBlocks(*this);
  CSMutex hold(mLock);
  return mspace_mallinfo(mSpace);
}

QList<MMapRange> MemoryPool::getRanges() const {
  CSMutex hold(rangeLock());
  return mRanges;
}

bool MemoryPool::isPointerFromPool(const void* p) {
  return memory_detail::isPoolAddress(p);
}

QList<MMapRange> MemoryPool::getAllRanges() {
  std::vector<MMapRange> ranges;
  {
    CSMutex hold(rangeLock());
    ranges = memory_detail::allRanges();
  }
  return QList<MMapRange>(ranges.begin(), ranges.end());
}

void* MemoryPool::recordMapping(mspace_mmap_func map, unsigned long size, void* pool) {
  char* start = memory_detail::mapAligned(map, size, pool);
  if (start == nullptr) return kMapFailed;
  try {
    CSMutex hold(rangeLock());
    memory_detail::recordRange({start, size}, static_cast<MemoryPool*>(pool)->mRanges);
  } catch (...) {
    default_munmap_func(start, size, pool);
    return kMapFailed;
  }
  return start;
}

void* MemoryPool::directMmapCB(unsigned long size, void* pool) {
  return recordMapping(default_direct_mmap_func, size, pool);
}

void* MemoryPool::mmapCB(unsigned long size, void* pool) {
  return recordMapping(default_mmap_func, size, pool);
}

int MemoryPool::munmapCB(char* start, unsigned long size, void* pool) {
  const int result = default_munmap_func(start, size, pool);
  CSMutex hold(rangeLock());
  memory_detail::forgetRange(start);
  memory_detail::forgetOwnRange(static_cast<MemoryPool*>(pool)->mRanges, start);
  return result;
}

void* MemoryPool::sbreakCB(int /*increment*/, void* /*pool*/) {
  return kMapFailed;
}

}  // namespace kestrel
