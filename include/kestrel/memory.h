// The memory family of libbase.
//
// Everything the library and its clients use to obtain and account for
// memory lives behind this header. The family is built in layers:
//
//   * mspaces (this part): independent allocation spaces, each a complete
//     boundary-tag allocator with its own bins, top chunk and segments. An
//     mspace takes all of its memory through system-memory functions that its
//     owner may replace, together with a context pointer, so that the owner
//     sees every mapping made on its behalf.
//   * memory pools (MemoryPool), heap managers (HeapManager) and heap
//     buffers (HeapBuffer), built on one mspace each. A pool maps its memory
//     in 4 MiB-aligned regions and records every region, so that any pointer
//     can be recognised as pool memory in constant time (isPointerFromPool);
//   * the allocator interface behind `new`/`delete` (MemoryManager, doNew,
//     doDelete, the global operators, MemoryObject) and the allocation
//     accounting counters (MemInfo) mirrored into the settings group
//     "Memory", plus CacheObserver for caches that hold memory outside pools.
//
// Which to use when:
//   * plain `new`/`delete`, Malloc/Free: the system heap. Any block of this
//     library, pool block or not, may be released with `delete` or Free.
//   * `new (manager) T`, doNew(size, manager): a block from a HeapManager;
//     classes derive from MemoryObject to get these forms.
//   * HeapBuffer: a fixed-capacity byte buffer that never grows.
//
//   kestrel::HeapManager manager(nullptr);      // the shared "default" pool
//   void* block = kestrel::doNew(100, &manager);
//   kestrel::Free(block);                       // back to `manager`
//
// Allocation never throws: every entry point returns null when the request
// cannot be met, including sizes so large that the header would wrap.
//
// The mspace functions are plain C-linkage symbols (unmangled) so that they
// can be called from any language; in C++ they are also reachable as
// kestrel::mspace_malloc and so on.
//
// Common contract of the mspace functions:
//   * Every block is aligned to kMspaceAlignment (two pointer-sized words).
//   * Not thread-safe: one thread at a time per mspace. The allocator takes no
//     lock of its own; the `locked` argument of the creation functions is
//     accepted and ignored. Callers lock (the memory pools do).
//   * Allocation failure returns null and sets errno to ENOMEM; it never
//     throws and never leaves the mspace inconsistent.
//   * Passing something that is not a live mspace, or a pointer that was not
//     returned by the same mspace, is a usage error: when detected the
//     process aborts.
#pragma once

#include <cstddef>

#include <QList>
#include <QString>

#include "kestrel/export.h"
#include "kestrel/settings.h"
#include "kestrel/threads.h"

namespace kestrel {

// Opaque handle of one allocation space.
struct mspace_state;
typedef mspace_state* mspace;

// Alignment of every block returned by an mspace: two pointer-sized words.
inline constexpr unsigned long kMspaceAlignment = 2 * sizeof(void*);

// Bytes of a caller-supplied region that create_mspace_with_base needs for
// its own bookkeeping: the state record of the mspace, padded to a chunk,
// plus the fixed foot reserved behind the top chunk. On a 64-bit target this
// is 960 + 80 = 1040 bytes; a capacity must exceed it (1040 fails, 1041
// succeeds). The allocator checks this value against its layout at build time.
inline constexpr unsigned long kMspaceBaseOverhead = 1040;

// Parameter numbers of mspace_mallopt. The parameters are shared by every
// mspace of the process.
inline constexpr int kMspaceTrimThreshold = -1;  // any value; default 2 MiB
inline constexpr int kMspaceGranularity = -2;    // power of two >= page size; default 64 KiB
inline constexpr int kMspaceMmapThreshold = -3;  // any value; default all bits set (off)

// Statistics of one mspace, as returned by mspace_mallinfo. Named apart from
// the C library's struct mallinfo so that both headers can be included.
struct mspace_mallinfo_record {
  std::size_t
      arena;  // bytes of all segments (memory obtained from the system, direct maps excluded)
  std::size_t ordblks;   // number of free chunks, the top chunk included
  std::size_t smblks;    // always 0
  std::size_t hblks;     // always 0
  std::size_t hblkhd;    // bytes in directly mapped chunks
  std::size_t usmblks;   // largest footprint reached
  std::size_t fsmblks;   // always 0
  std::size_t uordblks;  // bytes in use: footprint less every free byte
  std::size_t fordblks;  // free bytes: free chunks, the top chunk and its fixed foot
  std::size_t keepcost;  // bytes of the top chunk (what trimming could give back)
};

extern "C" {

// System-memory functions of an mspace. Each receives the context pointer of
// its mspace as last argument. A mapping function returns the start of
// `size` fresh read-write bytes, or all bits set ((void*)-1) on failure (a
// null result is treated as a failure too). The unmapping function returns 0
// on success. The break function is never called: every mspace grows by
// mapping new segments.
typedef void* (*mspace_mmap_func)(unsigned long size, void* context);
typedef int (*mspace_munmap_func)(char* start, unsigned long size, void* context);
typedef void* (*mspace_sbrk_func)(int increment, void* context);

// Creates an mspace in a region mapped with default_mmap_func. The region has
// the granularity-aligned size of capacity + kMspaceBaseOverhead (capacity 0:
// of one granularity; the alignment rule adds one granule to a size that is
// already a multiple, so capacity 0 maps two granules). Returns null if the
// mapping fails or capacity >= (all bits set) - kMspaceBaseOverhead - page
// size. The region is a segment of the mspace and is unmapped by
// destroy_mspace; it holds the mspace's own record and never grows (no later
// mapping is merged with it); mspace_trim never unmaps it whole, but may cut
// its free tail while it is the newest segment. `locked` is ignored.
KESTREL_EXPORT mspace create_mspace(unsigned long capacity, int locked);

// Creates an mspace inside the caller's region [base, base + capacity). The
// region becomes an external segment: the mspace never unmaps it, trims it or
// merges it with other memory; the caller frees it after destroy_mspace.
// Returns null unless kMspaceBaseOverhead < capacity < (all bits set) -
// kMspaceBaseOverhead - page size. A base that is not aligned to
// kMspaceAlignment costs up to kMspaceAlignment bytes of the capacity; if the
// bookkeeping then no longer fits, the result is null. `locked` is ignored.
KESTREL_EXPORT mspace create_mspace_with_base(void* base, unsigned long capacity, int locked);

// As create_mspace_with_base, then stores `context` and installs the
// functions: `segment_mmap` maps new segments, `direct_mmap` maps single
// chunks at or above the mapping threshold, `sbrk` is the (never called)
// break function. A null function keeps the default. The unmapping function
// stays default_munmap_func. Null under the same conditions as
// create_mspace_with_base.
KESTREL_EXPORT mspace create_mspace_with_base_ca(void* base, unsigned long capacity, int locked,
                                                 mspace_mmap_func segment_mmap,
                                                 mspace_mmap_func direct_mmap,
                                                 mspace_sbrk_func sbrk, void* context);

// Destroys an mspace: unmaps, through its unmapping function, every segment
// that it mapped itself (the region of create_mspace and every segment added
// since), never an external one. Returns the bytes unmapped. Directly mapped
// chunks still allocated are not segments and are not unmapped: free them
// first. The handle is invalid afterwards.
KESTREL_EXPORT unsigned long destroy_mspace(mspace msp);

// Returns a block of at least `bytes` bytes (0 is served as a minimal block),
// or null with errno ENOMEM when the request cannot be met (including every
// size within a few words of the largest unsigned value).
KESTREL_EXPORT void* mspace_malloc(mspace msp, unsigned long bytes);

// Returns a block to its mspace. Null does nothing. A pointer that was not
// allocated from this mspace, or is freed twice, is a usage error (the
// process aborts when the allocator notices).
KESTREL_EXPORT void mspace_free(mspace msp, void* mem);

// Resizes a block, in place when the block or its free neighbour allows,
// else by allocate-copy-free; the contents up to the smaller size are kept.
// Null `mem` behaves as mspace_malloc. Size 0 shrinks the block to a minimal
// one and returns it (it does not free). On failure returns null with errno
// ENOMEM and leaves the old block untouched and allocated.
KESTREL_EXPORT void* mspace_realloc(mspace msp, void* mem, unsigned long newsize);

// Returns a zero-filled block for n_elements * elem_size bytes; null with
// errno ENOMEM when the product overflows or cannot be met.
KESTREL_EXPORT void* mspace_calloc(mspace msp, unsigned long n_elements, unsigned long elem_size);

// Returns a block whose address is a multiple of `alignment`. An alignment
// that is not a power of two is rounded up to the next power of two; one at
// or below kMspaceAlignment (0 included) is an ordinary mspace_malloc. Null
// with errno ENOMEM when the request cannot be met or the alignment cannot be
// rounded up (above 2^63). The block is freed with mspace_free.
KESTREL_EXPORT void* mspace_memalign(mspace msp, unsigned long alignment, unsigned long bytes);

// Allocates n_elements zero-filled blocks of elem_size bytes each, carved
// from one contiguous region, each freeable on its own with mspace_free.
// Pointers go into `chunks` if it is not null (and `chunks` is returned),
// else into a newly allocated array that is itself freeable with mspace_free.
// n_elements 0 returns `chunks`, or a minimal block when `chunks` is null.
// Returns null with errno ENOMEM on failure or overflow.
KESTREL_EXPORT void** mspace_independent_calloc(mspace msp, unsigned long n_elements,
                                                unsigned long elem_size, void* chunks[]);

// As mspace_independent_calloc, but block i has sizes[i] bytes and the
// blocks are not cleared.
KESTREL_EXPORT void** mspace_independent_comalloc(mspace msp, unsigned long n_elements,
                                                  const unsigned long sizes[], void* chunks[]);

// Gives memory back through the unmapping function, in two steps:
//   * the top chunk (the free space at the end of the newest segment) is cut
//     from the end of that segment by the largest whole number of granules
//     that leaves it more than `pad` bytes (besides its fixed foot of a few
//     words), so that afterwards it holds at most `pad` + one granule; only
//     from a segment that the mspace mapped itself (a caller's region is
//     never cut);
//   * every other segment that the mspace mapped and that holds no block in
//     use is unmapped whole. The first region of create_mspace holds the
//     mspace's own record and is never unmapped whole; later mappings are
//     never merged with it, so it never grows.
// So after every block is freed, mspace_trim(msp, 0) leaves at most the
// first region (create_mspace's, or the caller's) plus one granule, whatever
// addresses the system chose for the mappings. A pad within a few words of
// the largest unsigned value releases nothing. Returns 1 if anything was
// released, else 0. Frees that leave the top above the trim threshold run the
// same with pad 0.
KESTREL_EXPORT int mspace_trim(mspace msp, unsigned long pad);

// Always abort the process: the usage-error action of this release runs
// unconditionally. Kept deliberately so that callers that depend on it keep
// failing loudly; read the footprint from mspace_mallinfo (arena + hblkhd,
// and usmblks for the maximum) instead.
[[noreturn]] KESTREL_EXPORT unsigned long mspace_footprint(mspace msp);
[[noreturn]] KESTREL_EXPORT unsigned long mspace_max_footprint(mspace msp);

// Statistics of the mspace (see mspace_mallinfo_record). Walks every segment.
KESTREL_EXPORT mspace_mallinfo_record mspace_mallinfo(mspace msp);

// Prints exactly three lines to standard error, values right-aligned in ten
// columns: "max system bytes = %10lu\n", "system bytes     = %10lu\n",
// "in use bytes     = %10lu\n" (largest footprint, current footprint, and
// the footprint less the top chunk, its fixed foot and every free chunk).
// All three are 0 for an mspace that was never initialised.
KESTREL_EXPORT void mspace_malloc_stats(mspace msp);

// Sets a process-wide parameter (kMspaceTrimThreshold, kMspaceGranularity,
// kMspaceMmapThreshold; `value` is converted to unsigned, so -1 is the
// largest value). Returns 1 on success, 0 for an unknown parameter or a
// granularity that is not a power of two at least the page size. Not
// synchronised with allocations: set parameters before use.
KESTREL_EXPORT int mspace_mallopt(int param, int value);

// The default system-memory functions. The context is ignored.
// Anonymous, private, read-write mapping at an address of the system's choice.
KESTREL_EXPORT void* default_direct_mmap_func(unsigned long size, void* context);
// Identical to default_direct_mmap_func.
KESTREL_EXPORT void* default_mmap_func(unsigned long size, void* context);
// Unmaps [start, start + size); returns the system result (0 on success).
KESTREL_EXPORT int default_munmap_func(char* start, unsigned long size, void* context);
// Always fails, returning all bits set ((void*)-1).
KESTREL_EXPORT void* default_sbrk_func(int increment, void* context);

}  // extern "C"

// ---------------------------------------------------------------------------
// Memory front
// ---------------------------------------------------------------------------

// The allocator interface. A null MemoryManager* always means the system
// heap. Implementations hand out blocks preceded by the manager header.
class KESTREL_EXPORT MemoryManager {
 public:
  MemoryManager() = default;
  MemoryManager(const MemoryManager&) = delete;
  MemoryManager& operator=(const MemoryManager&) = delete;
  // Does nothing.
  virtual ~MemoryManager();
  // Returns a block of `size` bytes, or null when it cannot be served.
  virtual void* alloc(unsigned long size) = 0;
  // Releases a block that this manager's alloc returned (the user pointer).
  virtual void free(void* p) = 0;
};

// The manager block header: two pointer-sized words in front of the user
// pointer, the owning MemoryManager* (two words before) and the requested
// size in bytes (one word before). 16 bytes on a 64-bit target.
inline constexpr unsigned long kManagerHeaderSize = 2 * sizeof(void*);

// mgr null: system malloc(size); else mgr->alloc(size). Null on failure;
// never throws. Size 0 on the system heap is a distinct freeable block.
KESTREL_EXPORT void* doNew(unsigned long size, MemoryManager* mgr);
// Same as doNew.
KESTREL_EXPORT void* Malloc(unsigned long size, MemoryManager* mgr);
// Releases a block of any allocator of this library to its true owner: a
// block inside pool memory goes to the manager named in its header, anything
// else to the system free. `mgr` is ignored. Null does nothing. Thread-safe
// as far as the owner is (pools lock; the system heap is thread-safe).
KESTREL_EXPORT void doDelete(void* p, MemoryManager* mgr);
// doDelete(p, nullptr).
KESTREL_EXPORT void Free(void* p);
// p null: doNew(size, nullptr); otherwise the system realloc, also for a
// manager block (callers pass only system-heap blocks; kept deliberately).
KESTREL_EXPORT void* Realloc(void* p, unsigned long size);
// doNew(size, mgr), then the `size` bytes are zeroed. One size argument, not
// count and size. Null (nothing written) when doNew fails.
KESTREL_EXPORT void* Calloc(unsigned long size, MemoryManager* mgr);

// A base class with no data that gives a class the manager-taking `new` and
// `delete`: `new (manager) T(...)`. Each operator forwards to the global
// operator of the same signature (the array forms included), so `delete` of
// such an object always reaches the block's true owner.
class KESTREL_EXPORT MemoryObject {
 public:
  static void* operator new(unsigned long size);
  static void* operator new[](unsigned long size);
  static void* operator new(unsigned long size, MemoryManager* mgr);
  static void* operator new[](unsigned long size, MemoryManager* mgr);
  static void operator delete(void* p);
  static void operator delete[](void* p);
  static void operator delete(void* p, MemoryManager* mgr);
  static void operator delete[](void* p, MemoryManager* mgr);
};

// Process-wide allocation counters (unsigned 32-bit, starting at 0). They
// wrap around. ChangeHeapBytes/ChangePoolBytes update them in one atomic
// step each. The pool counters also include the blocks of every
// HeapManager, which each thread counts on its own (see HeapManager);
// reading them, and the result of ChangePoolBytes, adds up those counts
// under a short process-wide lock.
class KESTREL_EXPORT MemInfo {
 public:
  // kAlloc counts one allocation up, kFree one down; any other value is
  // accepted and changes bytes only.
  enum Operation { kAlloc = 0, kFree = 1 };

  // Heap bytes += delta (wrap-around); allocations per `op`. Returns the new
  // heap byte total.
  static unsigned ChangeHeapBytes(int delta, Operation op);
  // The same on the pool counters (called by MemoryPool's accounting).
  static unsigned ChangePoolBytes(int delta, Operation op);
  // Copies the counters and the two arguments into the "Memory" settings,
  // in the order alchemyBytes, unpooledBytes, poolBytes, poolAllocs,
  // heapBytes, heapAllocs (through IntSetting::set: observers hear only of
  // changed values). Does nothing before the group exists. Main thread.
  static void UpdateMemSettings(unsigned long alchemyBytes, unsigned long unpooledBytes);

  // Current counter values.
  static unsigned getHeapBytes();
  static unsigned getHeapAllocs();
  static unsigned getPoolBytes();
  static unsigned getPoolAllocs();
};

class CacheObserver;

// Interface of the application's global cache (implemented outside this
// library).
class KESTREL_EXPORT GlobalCache {
 public:
  virtual ~GlobalCache();
  virtual void changeReclaimableBytes(int delta) = 0;
  // Head of the list into which new reclaimable observers are linked; null
  // when there is none.
  virtual CacheObserver** getObserverList() = 0;
};

// A cache that holds memory outside the pools reports it through this
// observer; reclaimable observers are linked into the global cache's list.
// Unsynchronised: callers coordinate.
class KESTREL_EXPORT CacheObserver : public Observer {
 public:
  // The query record of one LRU search (see getLru).
  struct Event {
    int oldestFrame = 0x7fffffff;        // last-use frame of the best candidate so far
    CacheObserver* candidate = nullptr;  // best candidate so far
    int ignoreAge = 0;                   // non-zero: skip the age tests
  };

  // Unpooled bytes 0, reclaimable; linked at the front of the global cache's
  // list when sGlobalCache is set and its list is not null. Reports nothing.
  CacheObserver();
  // Unlinks from its list.
  ~CacheObserver() override;

  // One step of an LRU search: an observer whose lastUseFrame() f is
  // non-negative becomes the event's candidate (and f its oldest frame)
  // unless, without ignoreAge, f >= System::sCurFrame - 4 or f >= the
  // event's oldest frame. With ignoreAge every candidate replaces the
  // previous one (the last visited wins).
  virtual void getLru(Event& event);
  // Role left to the cache.
  virtual void reclaim() = 0;
  // Frame of the last use of the cached data; negative: no candidate.
  virtual int lastUseFrame() = 0;
  // Role left to the cache.
  virtual void purge() = 0;

  // Unpooled bytes += delta; reported to sGlobalCache while reclaimable.
  void changeUnpooledBytes(int delta);
  // No-op when unchanged. false: reports -unpooled bytes (sGlobalCache set)
  // and unlinks. true with sGlobalCache set: relinks at the front of its
  // list (when not null) and reports +unpooled bytes.
  void setIsReclaimable(bool reclaimable);

  int getUnpooledBytes() const { return mUnpooledBytes; }
  bool isReclaimable() const { return mReclaimable; }
  // The list this observer is linked into (null when none) and its neighbour.
  CacheObserver** cacheList() const { return mCacheList; }
  CacheObserver* nextInCache() const { return mCacheNext; }

  // The application's global cache; may be null.
  static GlobalCache* sGlobalCache;

 private:
  void unlinkFromCache();
  void linkInto(CacheObserver** list);

  CacheObserver** mCacheList = nullptr;
  CacheObserver* mCacheNext = nullptr;
  CacheObserver* mCachePrev = nullptr;
  int mUnpooledBytes = 0;
  bool mReclaimable = true;
};

// ---------------------------------------------------------------------------
// Memory pools
// ---------------------------------------------------------------------------

namespace memory_detail {
struct HeapPath;  // the HeapManager path (internal)
}  // namespace memory_detail

// One mapped region of a pool.
struct MMapRange {
  char* start;
  unsigned long size;
};

// A named region allocator on one mspace whose memory comes only from
// anonymous mappings, each starting on a 4 MiB boundary and recorded in the
// pool's list and the process-wide list. Reference-counted by the
// HeapManagers that use it. malloc/free lock the pool; the accounting does
// not.
class KESTREL_EXPORT MemoryPool : public MemoryObject {
 public:
  // Maps `size` bytes (recorded like any later mapping), builds the mspace
  // on them, and sets the process-wide mspace granularity to 4 MiB and the
  // trim threshold to its largest value. Reference count 1.
  MemoryPool(const char* name, unsigned long size);
  MemoryPool(const MemoryPool&) = delete;
  MemoryPool& operator=(const MemoryPool&) = delete;
  // Trims and destroys the mspace, then removes every recorded range of this
  // pool from the process-wide list and unmaps it.
  virtual ~MemoryPool();

  // Under the pool lock: mspace_malloc / mspace_free. These blocks carry no
  // manager header: never pass them to doDelete or `delete`.
  void* malloc(unsigned long size);
  void free(void* p);

  // MemInfo::ChangePoolBytes(+n, kAlloc) then allocated bytes += n (and the
  // mirror for subtract). Takes no pool lock; ChangePoolBytes briefly takes
  // the lock under which the HeapManager counts are added up.
  void addAllocation(unsigned long n);
  void subtractAllocation(unsigned long n);
  // The bytes of addAllocation/subtractAllocation plus the bytes that the
  // HeapManagers of this pool hand out. Thread-safe; exact whenever no
  // other thread is allocating or freeing through the pool meanwhile (see
  // HeapManager::getAllocatedSize).
  unsigned long getAllocatedMemory() const;

  const QString& getName() const { return mName; }
  int getRefCount() const { return static_cast<int>(mRefCount); }
  // mspace statistics of this pool, taken under the pool lock after the
  // calling thread's cached blocks of the pool went back to it. Free blocks
  // still cached by other threads (see HeapManager) count as in use.
  mspace_mallinfo_record getStats();
  // The ranges recorded for this pool, in list order.
  QList<MMapRange> getRanges() const;

  // True exactly when p lies inside a range recorded by some pool (start
  // itself in, start + size out). Lock-free and constant time; safe from any
  // thread at any time, before any pool exists too.
  static bool isPointerFromPool(const void* p);
  // Every range of the process-wide list, in list order.
  static QList<MMapRange> getAllRanges();

  // mspace callbacks; `pool` is the MemoryPool. They map `size` bytes on a
  // 4 MiB boundary and record the range (a failed mapping returns all bits
  // set and is not recorded).
  static void* directMmapCB(unsigned long size, void* pool);
  static void* mmapCB(unsigned long size, void* pool);
  // Unmaps, then removes from both lists the first range starting at
  // `start` (size not compared; last entry moved into its place). Returns
  // the system result. Not installed into the mspace.
  static int munmapCB(char* start, unsigned long size, void* pool);
  // Always fails: returns all bits set.
  static void* sbreakCB(int increment, void* pool);

 private:
  friend class HeapManager;
  friend struct memory_detail::HeapPath;
  static void* recordMapping(void* (*map)(unsigned long, void*), unsigned long size, void* pool);

  QString mName;
  long mRefCount = 1;
  unsigned long mAllocated = 0;        // addAllocation/subtractAllocation
  unsigned long mLockedAllocated = 0;  // the HeapManager path, folded under mLock
  unsigned long mLockedAllocs = 0;     // blocks of that path, folded under mLock
  mspace mSpace = nullptr;
  SpinLock mLock;
  QList<MMapRange> mRanges;
};

// The MemoryManager over a MemoryPool. Each block has the manager header;
// a request of n counts n in the manager, the pool and MemInfo.
//
// Thread-safe. Blocks of up to 496 bytes go through a small cache per
// thread and manager (at most 128 blocks or 16 KiB per size class, under
// 0.5 MiB per thread and manager), so that most calls take
// no lock: the pool's lock is taken once per batch of blocks. A thread's
// cached blocks go back to the pool when the thread ends, when the thread
// turns to a fifth manager, and when the manager is destroyed. Cached
// blocks count as released for the counters, which stay exact whatever is
// cached.
class KESTREL_EXPORT HeapManager : public MemoryManager {
 public:
  // A null pool means the default pool ("default", 4 MiB, created on first
  // need and never destroyed). Takes one reference on the pool.
  explicit HeapManager(MemoryPool* pool);
  // Returns every thread's cached free blocks of this manager to the pool,
  // then drops the reference; the last one deletes the pool. Outstanding
  // blocks are ignored. No thread may use the manager any more.
  ~HeapManager() override;

  // Header + `size` bytes from the pool; null (nothing counted) when the
  // size would wrap, or when the pool cannot serve it even after the
  // calling thread's cached blocks of the pool went back to it (blocks
  // cached by other threads are not reclaimed). 16-byte aligned.
  void* alloc(unsigned long size) override;
  // Releases a block of this manager (the user pointer); null does nothing.
  void free(void* p) override;
  // alloc(size); the alignment is ignored.
  void* allocAligned(unsigned long size, unsigned long alignment);
  // Does nothing.
  void clear();
  // Bytes currently handed out by this manager (headers not counted),
  // from every thread. Thread-safe. Exact whenever no other thread is
  // allocating or freeing through the manager meanwhile; a read racing a
  // block allocated on one thread and freed on another may see only one
  // of the two (each thread counts on its own, and the counts are added
  // one thread at a time).
  unsigned long getAllocatedSize() const;
  MemoryPool* getPool() const { return mPool; }

  // The default pool; null until the first HeapManager without a pool.
  static MemoryPool* sDefaultPool;

 private:
  friend struct memory_detail::HeapPath;
  unsigned long mAllocated = 0;  // folded under the pool's lock
  MemoryPool* mPool;
};

// A fixed-capacity byte buffer, allocated whole at construction through a
// manager (or the system heap when the manager is null). Never grows.
class KESTREL_EXPORT HeapBuffer {
 public:
  // `extra` is stored and not used by this library.
  HeapBuffer(HeapManager* mgr, unsigned long capacity, unsigned long extra);
  HeapBuffer(const HeapBuffer&) = delete;
  HeapBuffer& operator=(const HeapBuffer&) = delete;
  virtual ~HeapBuffer();

  // Null data or length 0: true, nothing changes. More than the remaining
  // capacity (or no storage): false, nothing written. Else appends.
  bool appendData(const void* data, unsigned long length);

  const char* data() const { return mData; }
  unsigned long used() const { return mUsed; }
  unsigned long capacity() const { return mCapacity; }
  unsigned long extra() const { return mExtra; }
  int count() const { return mCount; }

 private:
  int mCount = 1;
  char* mData = nullptr;
  unsigned long mUsed = 0;
  unsigned long mCapacity;
  unsigned long mExtra;
  HeapManager* mManager;
};

}  // namespace kestrel

// The manager forms of the global operators: size 0 becomes 1, then
// doNew(size, mgr); the deletes are doDelete. The plain, array, sized and
// nothrow forms are replaced process-wide by libbase with the same routing
// (a failing `new` returns null instead of throwing).
KESTREL_EXPORT void* operator new(unsigned long size, kestrel::MemoryManager* mgr);
KESTREL_EXPORT void* operator new[](unsigned long size, kestrel::MemoryManager* mgr);
KESTREL_EXPORT void operator delete(void* p, kestrel::MemoryManager* mgr) noexcept;
KESTREL_EXPORT void operator delete[](void* p, kestrel::MemoryManager* mgr) noexcept;
