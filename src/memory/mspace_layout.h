// Chunk layout, bins and the state record of an mspace.
//
// Memory is carved into chunks that carry boundary tags:
//
//     chunk -> +-------------------------------------------+
//              | prev_foot: size of the previous chunk,     |  only meaningful
//              |            when that chunk is free         |  if PINUSE is clear
//              +-------------------------------------------+
//              | head: size | MAPPED | CINUSE | PINUSE      |
//     mem   -> +-------------------------------------------+
//              | user bytes (in use) or fd, bk and, for     |
//              | tree-bin sizes, child[2], parent, index    |
//              +-------------------------------------------+
//              | (next chunk's prev_foot: the size of this  |
//              |  chunk when it is free, user bytes if not) |
//
// Sizes are multiples of kAlignment, so the low three bits of `head` carry
// flags: PINUSE (the previous chunk is in use), CINUSE (this chunk is in use)
// and MAPPED (a chunk mapped on its own; its prev_foot holds the offset from
// the start of its mapping). An in-use chunk costs one word of overhead
// because the next chunk's prev_foot is only needed while this one is free.
//
// Free chunks live in bins: 32 small bins of one exact size each, spaced by
// the chunk alignment (a circular doubly-linked list per bin, sizes below
// 32 * kAlignment: 512 on 64-bit) and 32 tree bins,
// each a bitwise trie keyed by size over a range of sizes. Two bitmaps say
// which bins are non-empty. Besides the bins, the designated victim (dv) is
// the remainder of the last split for a small request, used first for the
// next small request; the top chunk is the free space at the end of the
// newest segment. Two free chunks are never adjacent and a free chunk is
// never followed by the top chunk.
//
// A segment is one contiguous region obtained from the system (or given by
// the caller). The head segment record lives in the state; the record of an
// older segment lives in an in-use chunk at that segment's own tail,
// followed by fencepost words that end the chunk walk.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "kestrel/memory.h"

namespace kestrel {
namespace mspace_detail {

using std::size_t;
using binmap_t = unsigned int;
using bindex_t = unsigned int;

struct Chunk {
  size_t prev_foot;
  size_t head;
  Chunk* fd;  // free chunks only
  Chunk* bk;
  // Free chunks of tree-bin size only:
  Chunk* child[2];
  Chunk* parent;  // null for a chunk chained behind an equal-size tree node
  bindex_t index;
};

struct Segment {
  char* base;
  size_t size;
  Segment* next;
  unsigned flags;
};

inline constexpr size_t kWord = sizeof(size_t);
inline constexpr size_t kAlignment = 2 * sizeof(void*);
inline constexpr size_t kAlignMask = kAlignment - 1;
static_assert(sizeof(size_t) == sizeof(void*), "size_t must hold a pointer");
static_assert(kAlignment == kMspaceAlignment);

inline constexpr size_t kPinuse = 1;
inline constexpr size_t kCinuse = 2;
inline constexpr size_t kMappedBit = 4;
inline constexpr size_t kInuseBits = kPinuse | kCinuse;
inline constexpr size_t kFlagBits = 7;
inline constexpr size_t kFencepostHead = kInuseBits | kWord;

inline constexpr size_t kChunkOverhead = kWord;
inline constexpr size_t kMappedChunkOverhead = 2 * kWord;
inline constexpr size_t kMappedFootPad = 4 * kWord;  // room for the fenceposts after a mapped chunk
inline constexpr size_t kMemOffset = 2 * kWord;      // chunk start to user memory

inline constexpr size_t kMinChunkSize = (offsetof(Chunk, child) + kAlignMask) & ~kAlignMask;
inline constexpr size_t kMinRequest = kMinChunkSize - kChunkOverhead - 1;
inline constexpr size_t kMaxRequest = (~kMinChunkSize + 1) << 2;  // larger requests always fail

inline constexpr size_t padRequest(size_t req) { return (req + kChunkOverhead + kAlignMask) & ~kAlignMask; }
inline constexpr size_t requestToSize(size_t req) { return req < kMinRequest ? kMinChunkSize : padRequest(req); }

inline constexpr bindex_t kSmallBins = 32;
inline constexpr bindex_t kTreeBins = 32;
// Small bins are one alignment unit apart: every bin can hold chunks.
inline constexpr unsigned kSmallBinShift = __builtin_ctzll(kAlignment);
inline constexpr unsigned kTreeBinShift = kSmallBinShift + 5;  // first size after the small bins
inline constexpr size_t kMinLargeSize = size_t{1} << kTreeBinShift;
inline constexpr size_t kMaxSmallSize = kMinLargeSize - 1;
inline constexpr size_t kMaxSmallRequest = kMaxSmallSize - kAlignMask - kChunkOverhead;

// The tail reserved behind the top chunk of every segment: when the top
// moves to a new segment it becomes the old segment's record chunk and its
// fenceposts.
inline constexpr size_t kSegmentRecordChunk = padRequest(sizeof(Segment));
inline constexpr size_t kTopFootSize = kSegmentRecordChunk + kMinChunkSize;

// Extra bytes asked of the system on top of a normalised request nb: a
// direct map needs the chunk header, the alignment slack and the trailing
// fenceposts (six words plus the alignment mask); a new segment needs room
// for the top foot and one byte so that the top chunk stays non-empty.
inline constexpr size_t kDirectMapExtra = 6 * kWord + kAlignMask;
inline constexpr size_t kSegmentMapExtra = kTopFootSize + 1;

// Segment flags.
inline constexpr unsigned kMappedSegment = 1;
inline constexpr unsigned kExternSegment = 8;

// mspace flags.
inline constexpr unsigned kUseMmap = 1;
inline constexpr unsigned kNonContiguous = 4;

inline constexpr size_t kMagic = 0x58585858;  // the four bytes "XXXX"

// Process-wide parameters; relaxed atomics so that mspace_mallopt from one
// thread and an allocation in another never form a data race.
struct Params {
  std::atomic<size_t> page_size{0};
  std::atomic<size_t> granularity{0};
  std::atomic<size_t> trim_threshold{0};
  std::atomic<size_t> mmap_threshold{0};
  std::atomic<unsigned> default_flags{0};
};
extern Params gParams;
void ensureParams();  // idempotent, thread-safe first-use initialisation

inline size_t granularity() { return gParams.granularity.load(std::memory_order_relaxed); }

// Granularity alignment of every mapping size: add a granule, then clear the
// bits below the granularity (a size that is already a multiple gains one).
inline size_t granularityAlign(size_t s) {
  const size_t g = granularity();
  return (s + g) & ~(g - 1);
}

[[noreturn]] void usageError();
[[noreturn]] void corruptionError();
void setNoMemory();  // errno = ENOMEM

inline bool mapFailed(void* p) { return p == nullptr || p == reinterpret_cast<void*>(~uintptr_t{0}); }

}  // namespace mspace_detail

// The state record of an mspace. It lives in the first chunk of the first
// segment. Its size enters kMspaceBaseOverhead.
struct mspace_state {
  mspace_detail::binmap_t smallmap;
  mspace_detail::binmap_t treemap;
  std::size_t dvsize;
  std::size_t topsize;
  char* least_addr;
  mspace_detail::Chunk* dv;
  mspace_detail::Chunk* top;
  std::size_t trim_check;
  std::size_t magic;
  // Small bin i uses smallbins[2i + 2] and [2i + 3] as the fd/bk of a
  // sentinel chunk placed at &smallbins[2i] (its prev_foot and head are never
  // touched), so each bin costs two words.
  mspace_detail::Chunk* smallbins[(mspace_detail::kSmallBins + 1) * 2];
  mspace_detail::Chunk* treebins[mspace_detail::kTreeBins];
  std::size_t footprint;
  std::size_t max_footprint;
  unsigned mflags;
  mspace_detail::Segment seg;
  // System memory of this mspace.
  void* context;
  mspace_mmap_func direct_mmap;
  mspace_mmap_func segment_mmap;
  mspace_munmap_func munmap;
  mspace_sbrk_func sbrk;
  std::size_t direct_bytes;  // bytes held in directly mapped chunks
};

namespace mspace_detail {

using State = mspace_state;

inline constexpr size_t kStateChunkSize = padRequest(sizeof(State));
static_assert(kMspaceBaseOverhead == kStateChunkSize + kTopFootSize,
              "kMspaceBaseOverhead must match the state record and the top foot");

// ---- chunk arithmetic ----------------------------------------------------

inline Chunk* chunkAt(void* p) { return static_cast<Chunk*>(p); }
inline Chunk* plusOffset(void* p, size_t s) { return reinterpret_cast<Chunk*>(static_cast<char*>(p) + s); }
inline Chunk* minusOffset(void* p, size_t s) { return reinterpret_cast<Chunk*>(static_cast<char*>(p) - s); }
inline void* chunkToMem(Chunk* p) { return reinterpret_cast<char*>(p) + kMemOffset; }
inline Chunk* memToChunk(void* mem) { return minusOffset(mem, kMemOffset); }

inline size_t alignOffset(const void* a) {
  const size_t low = reinterpret_cast<uintptr_t>(a) & kAlignMask;
  return low == 0 ? 0 : (kAlignment - low) & kAlignMask;
}
inline Chunk* alignAsChunk(char* base) { return plusOffset(base, alignOffset(base + kMemOffset)); }
inline char* alignDown(char* p) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(p) & ~uintptr_t{kAlignMask});
}

inline size_t chunkSize(const Chunk* p) { return p->head & ~kFlagBits; }
inline bool cinuse(const Chunk* p) { return (p->head & kCinuse) != 0; }
inline bool pinuse(const Chunk* p) { return (p->head & kPinuse) != 0; }
inline bool isMapped(const Chunk* p) { return (p->head & kMappedBit) != 0; }
inline Chunk* nextChunk(Chunk* p) { return plusOffset(p, chunkSize(p)); }
inline Chunk* prevChunk(Chunk* p) { return minusOffset(p, p->prev_foot); }

inline void setFoot(Chunk* p, size_t s) { plusOffset(p, s)->prev_foot = s; }
inline void setSizeAndPinuseOfFreeChunk(Chunk* p, size_t s) {
  p->head = s | kPinuse;
  setFoot(p, s);
}
inline void setFreeWithPinuse(Chunk* p, size_t s, Chunk* next) {
  next->head &= ~kPinuse;
  setSizeAndPinuseOfFreeChunk(p, s);
}
// Marks p (size s) in use, keeping its PINUSE, and tells the next chunk.
inline void setInuse(Chunk* p, size_t s) {
  p->head = (p->head & kPinuse) | s | kCinuse;
  plusOffset(p, s)->head |= kPinuse;
}
inline void setInuseAndPinuse(Chunk* p, size_t s) {
  p->head = s | kPinuse | kCinuse;
  plusOffset(p, s)->head |= kPinuse;
}
inline void setSizeAndPinuseOfInuseChunk(Chunk* p, size_t s) { p->head = s | kPinuse | kCinuse; }

// Usable bytes of an in-use chunk.
inline size_t usableSize(const Chunk* p) {
  return chunkSize(p) - (isMapped(p) ? kMappedChunkOverhead : kChunkOverhead);
}

// ---- segments ------------------------------------------------------------

inline bool segmentHolds(const Segment* s, const void* a) {
  const char* c = static_cast<const char*>(a);
  return c >= s->base && c < s->base + s->size;
}
inline Segment* segmentHolding(State* m, const void* a) {
  for (Segment* s = &m->seg; s != nullptr; s = s->next)
    if (segmentHolds(s, a)) return s;
  return nullptr;
}
inline bool isExternSegment(const Segment* s) { return (s->flags & kExternSegment) != 0; }
inline bool isMappedSegment(const Segment* s) { return (s->flags & kMappedSegment) != 0; }

// ---- bins ----------------------------------------------------------------

inline bool isSmall(size_t s) { return (s >> kSmallBinShift) < kSmallBins; }
inline bindex_t smallIndex(size_t s) { return static_cast<bindex_t>(s >> kSmallBinShift); }
inline size_t smallIndexToSize(bindex_t i) { return size_t{i} << kSmallBinShift; }

inline Chunk* smallBinAt(State* m, bindex_t i) { return reinterpret_cast<Chunk*>(&m->smallbins[i << 1]); }
inline Chunk** treeBinAt(State* m, bindex_t i) { return &m->treebins[i]; }

inline binmap_t idxToBit(bindex_t i) { return binmap_t{1} << i; }
inline binmap_t leastBit(binmap_t x) { return x & (~x + 1); }
inline binmap_t leftBits(binmap_t x) { return (x << 1) | (~(x << 1) + 1); }
inline bindex_t bitToIndex(binmap_t x) { return static_cast<bindex_t>(__builtin_ctz(x)); }

inline void markSmallmap(State* m, bindex_t i) { m->smallmap |= idxToBit(i); }
inline void clearSmallmap(State* m, bindex_t i) { m->smallmap &= ~idxToBit(i); }
inline bool smallmapIsMarked(const State* m, bindex_t i) { return (m->smallmap & idxToBit(i)) != 0; }
inline void markTreemap(State* m, bindex_t i) { m->treemap |= idxToBit(i); }
inline void clearTreemap(State* m, bindex_t i) { m->treemap &= ~idxToBit(i); }
inline bool treemapIsMarked(const State* m, bindex_t i) { return (m->treemap & idxToBit(i)) != 0; }

// Tree bin of a size >= kMinLargeSize. Each pair of bins splits one power of
// two in halves; the last bin takes everything from 1.5 * 2^(15 + kTreeBinShift) up.
inline bindex_t treeIndex(size_t s) {
  const size_t x = s >> kTreeBinShift;
  if (x == 0) return 0;
  if (x > 0xFFFF) return kTreeBins - 1;
  const unsigned k = 31u - static_cast<unsigned>(__builtin_clz(static_cast<unsigned>(x)));
  return static_cast<bindex_t>((k << 1) + ((s >> (k + (kTreeBinShift - 1))) & 1));
}
// Shift that brings the first size bit a trie of bin i routes by to the top.
inline unsigned leftShiftForTreeIndex(bindex_t i) {
  return i == kTreeBins - 1 ? 0 : static_cast<unsigned>((sizeof(size_t) * 8 - 1) - ((i >> 1) + kTreeBinShift - 2));
}
inline size_t minSizeForTreeIndex(bindex_t i) {
  return (size_t{1} << ((i >> 1) + kTreeBinShift)) | (size_t{i & 1} << ((i >> 1) + kTreeBinShift - 1));
}
inline constexpr unsigned kTopBit = sizeof(size_t) * 8 - 1;

inline void insertSmallChunk(State* m, Chunk* p, size_t s) {
  const bindex_t i = smallIndex(s);
  Chunk* b = smallBinAt(m, i);
  Chunk* f = b;
  if (!smallmapIsMarked(m, i))
    markSmallmap(m, i);
  else
    f = b->fd;
  b->fd = p;
  f->bk = p;
  p->fd = f;
  p->bk = b;
}

inline void unlinkSmallChunk(State* m, Chunk* p, size_t s) {
  Chunk* f = p->fd;
  Chunk* b = p->bk;
  if (f == b) clearSmallmap(m, smallIndex(s));
  f->bk = b;
  b->fd = f;
}

// Unlinks p, the first chunk of bin b (index i).
inline void unlinkFirstSmallChunk(State* m, Chunk* b, Chunk* p, bindex_t i) {
  Chunk* f = p->fd;
  if (b == f) clearSmallmap(m, i);
  b->fd = f;
  f->bk = b;
}

// Tree-bin insertion and removal (out of line: off the small-size hot path).
void insertLargeChunk(State* m, Chunk* x, size_t s);
void unlinkLargeChunk(State* m, Chunk* x);

inline void insertChunk(State* m, Chunk* p, size_t s) {
  if (isSmall(s))
    insertSmallChunk(m, p, s);
  else
    insertLargeChunk(m, p, s);
}

inline void unlinkChunk(State* m, Chunk* p, size_t s) {
  if (isSmall(s))
    unlinkSmallChunk(m, p, s);
  else
    unlinkLargeChunk(m, p);
}

// Makes (p, s) the designated victim; the previous one goes to its bin.
inline void replaceDv(State* m, Chunk* p, size_t s) {
  if (m->dvsize != 0) insertChunk(m, m->dv, m->dvsize);
  m->dvsize = s;
  m->dv = p;
}

inline bool okMagic(const State* m) { return m != nullptr && m->magic == kMagic; }
inline bool okAddress(const State* m, const void* p) { return static_cast<const char*>(p) >= m->least_addr; }

// ---- shared internals (defined in the mspace_*.cpp files) ------------------

void* internalMalloc(State* m, size_t bytes);
void internalFree(State* m, void* mem);
void* sysAlloc(State* m, size_t nb);
bool sysTrim(State* m, size_t pad);
void initTop(State* m, Chunk* p, size_t psize);
State* initUserState(char* tbase, size_t tsize);
bool directMapWasDefault(const State* m);

}  // namespace mspace_detail
}  // namespace kestrel
