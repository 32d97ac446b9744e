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
//   * memory pools, heap managers and heap buffers, built on one mspace each
//     (to be added here);
//   * the allocator interface behind `new`/`delete` and the allocation
//     accounting counters (to be added here).
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

#include "kestrel/export.h"

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

}  // namespace kestrel
