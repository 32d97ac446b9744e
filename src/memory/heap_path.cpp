// The HeapManager path: per-thread block caches and their accounting.
#include "memory/heap_path.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <new>
#include <vector>

#include "kestrel/memory.h"
#include "memory/memory_front.h"

namespace kestrel::memory_detail {

namespace {

constexpr unsigned kClassCount = kMaxCachedBlock / kCacheGrain;
constexpr unsigned kSlotsPerThread = 4;

// Class c holds blocks of (c + 1) * 16 bytes.
unsigned classOf(unsigned long request) {
  return static_cast<unsigned>(request / kCacheGrain) - 1;
}

unsigned long requestOf(unsigned cls) {
  return (cls + 1UL) * kCacheGrain;
}

// The most blocks a list keeps: 128, or fewer so that a list holds at most
// 16 KiB. Fewer trips to the pool matter more than a few KiB per thread.
// A full list gives half back; an empty one takes half a list at once.
constexpr std::array<unsigned char, kClassCount> kCapacity = [] {
  std::array<unsigned char, kClassCount> capacity{};
  for (unsigned cls = 0; cls < kClassCount; ++cls) {
    const unsigned long blocks = 16384 / ((cls + 1UL) * kCacheGrain);
    capacity[cls] = static_cast<unsigned char>(blocks > 128 ? 128 : blocks);
  }
  return capacity;
}();

// A counter written under its pool's lock and read without it: a plain sum,
// stored whole.
void addLocked(unsigned long& counter, unsigned long n) {
  std::atomic_ref<unsigned long> cell(counter);
  cell.store(cell.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

unsigned long loadCounter(const unsigned long& counter) {
  return std::atomic_ref<unsigned long>(const_cast<unsigned long&>(counter))
      .load(std::memory_order_relaxed);
}

// A slot counter: written by the slot's thread (or under the accounting
// lock once the slot is handed back), read by anyone under that lock.
void bump(std::atomic<unsigned long>& counter, unsigned long n) {
  counter.store(counter.load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

}  // namespace

// A singly linked list of free blocks, linked through their first word.
struct FreeList {
  void* head = nullptr;
  unsigned count = 0;
};

// `manager` and `pool` change under the accounting lock only. The lists
// belong to the slot's thread; another thread touches them only while
// handing the slot back under that lock, which the owner never does while
// it uses the manager.
struct HeapPath::Slot {
  std::atomic<HeapManager*> manager{nullptr};
  MemoryPool* pool = nullptr;
  std::atomic<unsigned long> bytes{0};   // requests counted since the last fold
  std::atomic<unsigned long> blocks{0};  // blocks counted since the last fold
  FreeList lists[kClassCount];
};

struct HeapPath::ThreadCache {
  Slot entries[kSlotsPerThread];
  unsigned nextVictim = 0;
  ThreadCache* prev = nullptr;
  ThreadCache* next = nullptr;
};

namespace {

using Slot = HeapPath::Slot;
using ThreadCache = HeapPath::ThreadCache;

// The calling thread's cache: null until first need, kRetired once the
// thread has ended (its later requests take the locked path).
ThreadCache* const kRetired = reinterpret_cast<ThreadCache*>(std::uintptr_t{1});
constinit thread_local ThreadCache* tCache __attribute__((tls_model("initial-exec"))) = nullptr;

bool usable(const ThreadCache* cache) {
  return reinterpret_cast<std::uintptr_t>(cache) > 1;
}

// Everything the readers add up, under one lock. Never destroyed: threads
// and pools may outlive static destruction.
struct Registry {
  SpinLock lock{0};
  ThreadCache* caches = nullptr;
  std::vector<MemoryPool*> pools;
  PoolTotals retired;  // what destroyed pools left
};

Registry& registry() {
  static auto* const instance = new Registry;
  return *instance;
}

template <class Visit>
void forEachSlot(Registry& r, Visit visit) {
  for (ThreadCache* cache = r.caches; cache != nullptr; cache = cache->next)
    for (Slot& slot : cache->entries)
      if (slot.manager.load(std::memory_order_relaxed) != nullptr) visit(slot);
}

// Hands the thread's slots back when the thread ends.
struct ThreadReaper {
  ThreadReaper() = default;
  ThreadReaper(const ThreadReaper&) = delete;
  ThreadReaper& operator=(const ThreadReaper&) = delete;
  ~ThreadReaper() { HeapPath::retireThread(); }
};

// The calling thread's slot for the manager, if it has one.
inline Slot* ownSlot(const HeapManager& manager) {
  ThreadCache* cache = tCache;
  if (!usable(cache)) return nullptr;
  for (Slot& slot : cache->entries)
    if (slot.manager.load(std::memory_order_relaxed) == &manager) return &slot;
  return nullptr;
}

// The same, claimed on first need; null when the thread has no cache.
Slot* slotFor(HeapManager& manager) {
  Slot* slot = ownSlot(manager);
  return slot != nullptr ? slot : HeapPath::claimSlot(manager);
}

// The largest request served from the caches.
constexpr unsigned long kMaxCachedSize = kMaxCachedBlock - kManagerHeaderSize;

void push(FreeList& list, void* block) {
  *static_cast<void**>(block) = list.head;
  list.head = block;
  ++list.count;
}

void* pop(FreeList& list) {
  void* block = list.head;
  list.head = *static_cast<void**>(block);
  --list.count;
  return block;
}

// Writes the manager header into a block and returns the user pointer.
inline void* stamp(HeapManager& manager, void* block, unsigned long size) {
  auto* header = static_cast<BlockHeader*>(block);
  header->owner = &manager;
  header->size = size;
  return header + 1;
}

// The list's first block, handed out and counted as a request of `size`.
inline void* handOut(HeapManager& manager, Slot& slot, FreeList& list, unsigned long size) {
  bump(slot.bytes, size);
  bump(slot.blocks, 1);
  return stamp(manager, pop(list), size);
}

// A released block of `size`, kept in the list and counted.
inline void takeBack(Slot& slot, FreeList& list, BlockHeader* header, unsigned long size) {
  push(list, header);
  bump(slot.bytes, 0UL - size);  // the counters wrap, they never overflow
  bump(slot.blocks, ~0UL);
}

}  // namespace

// alloc and free are a short path for the common case (the thread has a
// slot for the manager, the list has a block or room for one), which the
// compiler keeps free of calls, and a general path for everything else,
// kept out of line so that it adds nothing to the short one.

void* HeapPath::alloc(HeapManager& manager, unsigned long size) {
  if (size <= kMaxCachedSize) {
    if (Slot* slot = ownSlot(manager)) {
      FreeList& list = slot->lists[classOf(poolRequest(size + kManagerHeaderSize))];
      if (list.head != nullptr) return handOut(manager, *slot, list, size);
    }
  }
  return allocSlowly(manager, size);
}

[[gnu::noinline]] void* HeapPath::allocSlowly(HeapManager& manager, unsigned long size) {
  if (size > ~0UL - kManagerHeaderSize) return nullptr;
  if (void* p = allocFromPool(manager, size)) return p;
  // The pool is out of room: the blocks this thread caches of it may serve.
  if (!returnCachedBlocks(*manager.mPool)) return nullptr;
  return allocFromPool(manager, size);
}

void* HeapPath::allocFromPool(HeapManager& manager, unsigned long size) {
  const unsigned long request = poolRequest(size + kManagerHeaderSize);
  if (size <= kMaxCachedSize) {
    if (Slot* slot = slotFor(manager)) {
      const unsigned cls = classOf(request);
      FreeList& list = slot->lists[cls];
      if (list.head == nullptr && !refill(*slot, cls)) return nullptr;
      return handOut(manager, *slot, list, size);
    }
  }
  void* block = lockedAlloc(manager, request, size);
  return block != nullptr ? stamp(manager, block, size) : nullptr;
}

void HeapPath::free(HeapManager& manager, void* p) {
  if (p == nullptr) return;
  BlockHeader* header = headerOf(p);
  const unsigned long size = header->size;
  if (size <= kMaxCachedSize) {
    if (Slot* slot = ownSlot(manager)) {
      const unsigned cls = classOf(poolRequest(size + kManagerHeaderSize));
      FreeList& list = slot->lists[cls];
      if (list.count < kCapacity[cls]) {
        takeBack(*slot, list, header, size);
        return;
      }
    }
  }
  freeSlowly(manager, header);
}

[[gnu::noinline]] void HeapPath::freeSlowly(HeapManager& manager, BlockHeader* header) {
  const unsigned long size = header->size;
  Slot* slot = size <= kMaxCachedSize ? slotFor(manager) : nullptr;
  if (slot == nullptr) {
    lockedFree(manager, header, size);
    return;
  }
  const unsigned cls = classOf(poolRequest(size + kManagerHeaderSize));
  takeBack(*slot, slot->lists[cls], header, size);
  if (slot->lists[cls].count > kCapacity[cls]) drain(*slot, cls, kCapacity[cls] / 2U);
}

bool HeapPath::refill(Slot& slot, unsigned cls) {
  MemoryPool& pool = *slot.pool;
  if (pool.mSpace == nullptr) return false;
  FreeList& list = slot.lists[cls];
  const unsigned long request = requestOf(cls);
  CSMutex hold(pool.mLock);
  for (unsigned i = kCapacity[cls] / 2U; i > 0; --i) {
    void* block = mspace_malloc(pool.mSpace, request);
    if (block == nullptr) break;
    push(list, block);
  }
  return list.head != nullptr;
}

void HeapPath::drain(Slot& slot, unsigned cls, unsigned keep) {
  // Keeps the `keep` blocks freed last (the ones most likely in cache).
  FreeList& list = slot.lists[cls];
  if (list.count <= keep) return;
  void** link = &list.head;
  for (unsigned i = 0; i < keep; ++i) link = static_cast<void**>(*link);
  void* surplus = *link;
  *link = nullptr;
  list.count = keep;
  MemoryPool& pool = *slot.pool;
  CSMutex hold(pool.mLock);
  while (surplus != nullptr) {
    void* next = *static_cast<void**>(surplus);
    mspace_free(pool.mSpace, surplus);
    surplus = next;
  }
}

void HeapPath::handBack(Slot& slot) {
  HeapManager* manager = slot.manager.load(std::memory_order_relaxed);
  if (manager == nullptr) return;
  MemoryPool& pool = *slot.pool;
  const unsigned long bytes = slot.bytes.load(std::memory_order_relaxed);
  const unsigned long blocks = slot.blocks.load(std::memory_order_relaxed);
  {
    CSMutex hold(pool.mLock);
    for (FreeList& list : slot.lists)
      while (list.head != nullptr) mspace_free(pool.mSpace, pop(list));
    addLocked(manager->mAllocated, bytes);
    addLocked(pool.mLockedAllocated, bytes);
    addLocked(pool.mLockedAllocs, blocks);
  }
  slot.bytes.store(0, std::memory_order_relaxed);
  slot.blocks.store(0, std::memory_order_relaxed);
  slot.pool = nullptr;
  slot.manager.store(nullptr, std::memory_order_relaxed);
}

Slot* HeapPath::claimSlot(HeapManager& manager) {
  ThreadCache* cache = tCache;
  if (cache == kRetired) return nullptr;
  Registry& r = registry();
  if (cache == nullptr) {
    cache = new (std::nothrow) ThreadCache;
    if (cache == nullptr) return nullptr;
    static thread_local ThreadReaper reaper;  // constructed here, destroyed at thread exit
    CSMutex hold(r.lock);
    cache->next = r.caches;
    if (r.caches != nullptr) r.caches->prev = cache;
    r.caches = cache;
    tCache = cache;
  }
  CSMutex hold(r.lock);
  Slot* slot = nullptr;
  for (Slot& candidate : cache->entries) {
    if (candidate.manager.load(std::memory_order_relaxed) == nullptr) {
      slot = &candidate;
      break;
    }
  }
  if (slot == nullptr) {
    slot = &cache->entries[cache->nextVictim];
    cache->nextVictim = (cache->nextVictim + 1) % kSlotsPerThread;
    handBack(*slot);
  }
  slot->pool = manager.mPool;
  slot->manager.store(&manager, std::memory_order_relaxed);
  return slot;
}

void HeapPath::retireThread() {
  ThreadCache* cache = tCache;
  tCache = kRetired;
  if (!usable(cache)) return;
  Registry& r = registry();
  {
    CSMutex hold(r.lock);
    for (Slot& slot : cache->entries) handBack(slot);
    if (cache->prev != nullptr) cache->prev->next = cache->next;
    else r.caches = cache->next;
    if (cache->next != nullptr) cache->next->prev = cache->prev;
  }
  delete cache;
}

void HeapPath::retireManager(HeapManager& manager) {
  Registry& r = registry();
  CSMutex hold(r.lock);
  forEachSlot(r, [&](Slot& slot) {
    if (slot.manager.load(std::memory_order_relaxed) == &manager) handBack(slot);
  });
}

bool HeapPath::returnCachedBlocks(MemoryPool& pool) {
  ThreadCache* cache = tCache;
  if (!usable(cache)) return false;
  CSMutex hold(registry().lock);
  bool handedBack = false;
  for (Slot& slot : cache->entries) {
    if (slot.manager.load(std::memory_order_relaxed) != nullptr && slot.pool == &pool) {
      handBack(slot);
      handedBack = true;
    }
  }
  return handedBack;
}

void HeapPath::registerPool(MemoryPool& pool) {
  Registry& r = registry();
  CSMutex hold(r.lock);
  r.pools.push_back(&pool);
}

void HeapPath::retirePool(MemoryPool& pool) {
  Registry& r = registry();
  CSMutex hold(r.lock);
  forEachSlot(r, [&](Slot& slot) {
    // The pool's mspace still stands: its blocks go back like any others.
    if (slot.pool == &pool) handBack(slot);
  });
  for (auto it = r.pools.begin(); it != r.pools.end(); ++it) {
    if (*it != &pool) continue;
    r.retired.bytes += loadCounter(pool.mLockedAllocated);
    r.retired.allocs += loadCounter(pool.mLockedAllocs);
    *it = r.pools.back();
    r.pools.pop_back();
    return;
  }
}

unsigned long HeapPath::allocatedSize(const HeapManager& manager) {
  Registry& r = registry();
  CSMutex hold(r.lock);
  unsigned long total = loadCounter(manager.mAllocated);
  forEachSlot(r, [&](Slot& slot) {
    if (slot.manager.load(std::memory_order_relaxed) == &manager)
      total += slot.bytes.load(std::memory_order_relaxed);
  });
  return total;
}

unsigned long HeapPath::allocatedSize(const MemoryPool& pool) {
  Registry& r = registry();
  CSMutex hold(r.lock);
  unsigned long total = loadCounter(pool.mAllocated) + loadCounter(pool.mLockedAllocated);
  forEachSlot(r, [&](Slot& slot) {
    if (slot.pool == &pool) total += slot.bytes.load(std::memory_order_relaxed);
  });
  return total;
}

PoolTotals HeapPath::totals() {
  Registry& r = registry();
  CSMutex hold(r.lock);
  PoolTotals totals = r.retired;
  for (const MemoryPool* pool : r.pools) {
    totals.bytes += loadCounter(pool->mLockedAllocated);
    totals.allocs += loadCounter(pool->mLockedAllocs);
  }
  forEachSlot(r, [&](Slot& slot) {
    totals.bytes += slot.bytes.load(std::memory_order_relaxed);
    totals.allocs += slot.blocks.load(std::memory_order_relaxed);
  });
  return totals;
}

void* HeapPath::lockedAlloc(HeapManager& manager, unsigned long request, unsigned long n) {
  MemoryPool& pool = *manager.mPool;
  if (pool.mSpace == nullptr) return nullptr;
  CSMutex hold(pool.mLock);
  void* block = mspace_malloc(pool.mSpace, request);
  if (block == nullptr) return nullptr;
  addLocked(manager.mAllocated, n);
  addLocked(pool.mLockedAllocated, n);
  addLocked(pool.mLockedAllocs, 1);
  return block;
}

void HeapPath::lockedFree(HeapManager& manager, void* block, unsigned long n) {
  MemoryPool& pool = *manager.mPool;
  if (pool.mSpace == nullptr) return;
  const unsigned long negated = 0UL - n;  // the counters wrap, they never overflow
  CSMutex hold(pool.mLock);
  addLocked(manager.mAllocated, negated);
  addLocked(pool.mLockedAllocated, negated);
  addLocked(pool.mLockedAllocs, ~0UL);
  mspace_free(pool.mSpace, block);
}

}  // namespace kestrel::memory_detail

namespace kestrel {

// Here rather than with the rest of HeapManager, so that the path inlines.
void* HeapManager::alloc(unsigned long size) {
  return memory_detail::HeapPath::alloc(*this, size);
}

void HeapManager::free(void* p) {
  memory_detail::HeapPath::free(*this, p);
}

}  // namespace kestrel
