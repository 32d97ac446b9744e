// The HeapManager path: per-thread caches of free blocks in front of the
// pools, and the accounting of that path.
//
// Each thread keeps, for up to four managers at a time, a list of free
// blocks per size class: manager blocks (header included) of up to
// kMaxCachedBlock bytes, rounded up to 16. A HeapManager alloc or free of
// such a block pops or pushes on the calling thread's list with no lock and
// no atomic read-modify-write; the pool's lock is taken once per batch, to
// refill an empty list or to hand back the surplus of a full one. Every
// mspace call is still made under the pool's lock. Larger blocks, and
// threads without a cache (whose cache is gone during thread exit, or could
// not be allocated), take the pool's lock for each call.
//
// A thread counts its own requests in its slot (plain stores to counters
// only it writes), and the readers add the slots to what the pools and
// managers hold, under the accounting lock. The sum is exact when no thread
// is moving blocks meanwhile; a read that races a block allocated on one
// thread and freed on another may see the release without the allocation
// (a sum below the truth, which can wrap) or the reverse. A slot's
// counts are folded into its manager and pool, and its blocks go back to
// the pool, whenever it is handed back: when its thread ends, when its
// thread needs the slot for another manager, and when its manager is
// destroyed; and when the pool is destroyed (a manager that is never
// destroyed may leave one).
//
// A block waiting in a cache is free for the accounting and in use for the
// mspace statistics; MemoryPool::getStats first hands back the calling
// thread's blocks of that pool.
//
// Lock order: the accounting lock, then a pool's lock, then the range lock.
#pragma once

namespace kestrel {
class HeapManager;
class MemoryPool;
}  // namespace kestrel

namespace kestrel::memory_detail {

struct BlockHeader;

inline constexpr unsigned long kCacheGrain = 16;
inline constexpr unsigned long kMaxCachedBlock = 512;

// The mspace request for a manager block of `bytes` (header included).
// Small blocks are rounded up to their class, on every path, so that any
// cached block of a class can serve any request of that class.
inline unsigned long poolRequest(unsigned long bytes) {
  return bytes <= kMaxCachedBlock ? (bytes + kCacheGrain - 1) & ~(kCacheGrain - 1) : bytes;
}

// The sums of the HeapManager path over every pool, live or destroyed
// (wrap-around).
struct PoolTotals {
  unsigned long bytes = 0;
  unsigned long allocs = 0;
};

// The friend of MemoryPool and HeapManager that implements the path.
struct HeapPath {
  struct Slot;         // what a thread keeps for one manager
  struct ThreadCache;  // a thread's slots

  // HeapManager::alloc and HeapManager::free, and their general paths.
  static void* alloc(HeapManager& manager, unsigned long size);
  static void free(HeapManager& manager, void* p);
  static void* allocSlowly(HeapManager& manager, unsigned long size);
  // One try from the calling thread's cache or the pool; null when the
  // pool has no room.
  static void* allocFromPool(HeapManager& manager, unsigned long size);
  static void freeSlowly(HeapManager& manager, BlockHeader* header);

  // Bytes handed out and not yet released, of one manager and of one pool
  // (the pool's addAllocation sums included).
  static unsigned long allocatedSize(const HeapManager& manager);
  static unsigned long allocatedSize(const MemoryPool& pool);
  // Bytes and blocks of the path over every pool, live or destroyed.
  static PoolTotals totals();

  // A new pool's counters join the totals; its constructor calls this.
  // Throws std::bad_alloc when the registry cannot grow.
  static void registerPool(MemoryPool& pool);
  // Hands back every thread's slots of the pool, then keeps its counts in
  // the totals. Its destructor calls this first, while the mspace stands.
  static void retirePool(MemoryPool& pool);
  // Hands back every thread's slot of the manager. Its destructor calls
  // this while the manager still holds its pool.
  static void retireManager(HeapManager& manager);
  // Hands back the calling thread's slots of the pool; false when it had
  // none.
  static bool returnCachedBlocks(MemoryPool& pool);
  // Hands back the calling thread's slots and sends its later requests
  // down the locked path. Runs when the thread ends.
  static void retireThread();

  // The calling thread's slot for the manager, claimed (and the thread's
  // cache created) on first need; null when the thread has no cache.
  static Slot* claimSlot(HeapManager& manager);
  // Under the accounting lock: the slot's blocks back to its pool, its
  // counts into its manager and pool; the slot is free afterwards.
  static void handBack(Slot& slot);
  // Fills the slot's empty list of class `cls` with a batch from the pool
  // (false when the pool has nothing), or gives the pool all but `keep`
  // blocks of a list, each under the pool's lock.
  static bool refill(Slot& slot, unsigned cls);
  static void drain(Slot& slot, unsigned cls, unsigned keep);
  // One mspace call under the pool's lock, counted in the manager's and the
  // pool's counters under that lock: for blocks too large to cache and for
  // threads without a cache.
  static void* lockedAlloc(HeapManager& manager, unsigned long request, unsigned long n);
  static void lockedFree(HeapManager& manager, void* block, unsigned long n);
};

}  // namespace kestrel::memory_detail
