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

// The chunk size that serves a request of `request` user bytes: the request
// plus the head word, rounded up to the alignment, and never below the
// smallest chunk (which must be able to hold the free-list links).
inline constexpr size_t padRequest(size_t request) {
  return (request + kChunkOverhead + kAlignMask) & ~kAlignMask;
}
inline constexpr size_t requestToSize(size_t request) {
  return request < kMinRequest ? kMinChunkSize : padRequest(request);
}

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

// Extra bytes asked of the system on top of a normalised chunk size: a
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

inline size_t granularity() {
  return gParams.granularity.load(std::memory_order_relaxed);
}

// Granularity alignment of every mapping size: add a granule, then clear the
// bits below the granularity (a size that is already a multiple gains one).
inline size_t granularityAlign(size_t size) {
  const size_t unit = granularity();
  return (size + unit) & ~(unit - 1);
}

[[noreturn]] void usageError();
[[noreturn]] void corruptionError();
void setNoMemory();  // errno = ENOMEM

// Mapping functions report failure either way: null or all bits set.
inline bool mapFailed(void* address) {
  return address == nullptr || address == reinterpret_cast<void*>(~uintptr_t{0});
}

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

inline Chunk* chunkAt(void* address) {
  return static_cast<Chunk*>(address);
}
inline Chunk* plusOffset(void* address, size_t offset) {
  return reinterpret_cast<Chunk*>(static_cast<char*>(address) + offset);
}
inline Chunk* minusOffset(void* address, size_t offset) {
  return reinterpret_cast<Chunk*>(static_cast<char*>(address) - offset);
}
inline void* chunkToMem(Chunk* chunk) {
  return reinterpret_cast<char*>(chunk) + kMemOffset;
}
inline Chunk* memToChunk(void* mem) {
  return minusOffset(mem, kMemOffset);
}

// Bytes to add to `address` to reach the next multiple of kAlignment.
inline size_t alignOffset(const void* address) {
  const size_t misalignment = reinterpret_cast<uintptr_t>(address) & kAlignMask;
  return misalignment == 0 ? 0 : (kAlignment - misalignment) & kAlignMask;
}
// The first chunk at or after `base` whose user memory is aligned.
inline Chunk* alignAsChunk(char* base) {
  return plusOffset(base, alignOffset(base + kMemOffset));
}
inline char* alignDown(char* address) {
  return reinterpret_cast<char*>(reinterpret_cast<uintptr_t>(address) & ~uintptr_t{kAlignMask});
}

inline size_t chunkSize(const Chunk* chunk) {
  return chunk->head & ~kFlagBits;
}
inline bool cinuse(const Chunk* chunk) {
  return (chunk->head & kCinuse) != 0;
}
inline bool pinuse(const Chunk* chunk) {
  return (chunk->head & kPinuse) != 0;
}
inline bool isMapped(const Chunk* chunk) {
  return (chunk->head & kMappedBit) != 0;
}
inline Chunk* nextChunk(Chunk* chunk) {
  return plusOffset(chunk, chunkSize(chunk));
}

// The boundary tag of a free chunk: its size repeated in the next chunk's
// prev_foot, which is how a later free finds this chunk's start.
inline void setFoot(Chunk* chunk, size_t size) {
  plusOffset(chunk, size)->prev_foot = size;
}
inline void setSizeAndPinuseOfFreeChunk(Chunk* chunk, size_t size) {
  chunk->head = size | kPinuse;
  setFoot(chunk, size);
}
// Makes chunk a free chunk of `size` and tells `next`, the chunk behind it.
inline void setFreeWithPinuse(Chunk* chunk, size_t size, Chunk* next) {
  next->head &= ~kPinuse;
  setSizeAndPinuseOfFreeChunk(chunk, size);
}
// Marks chunk (of `size`) in use, keeping its PINUSE, and tells the next chunk.
inline void setInuse(Chunk* chunk, size_t size) {
  chunk->head = (chunk->head & kPinuse) | size | kCinuse;
  plusOffset(chunk, size)->head |= kPinuse;
}
inline void setInuseAndPinuse(Chunk* chunk, size_t size) {
  chunk->head = size | kPinuse | kCinuse;
  plusOffset(chunk, size)->head |= kPinuse;
}
// Sets only this chunk's head; the caller looks after the next chunk's PINUSE.
inline void setSizeAndPinuseOfInuseChunk(Chunk* chunk, size_t size) {
  chunk->head = size | kPinuse | kCinuse;
}

// Usable bytes of an in-use chunk.
inline size_t usableSize(const Chunk* chunk) {
  return chunkSize(chunk) - (isMapped(chunk) ? kMappedChunkOverhead : kChunkOverhead);
}

// ---- segments ------------------------------------------------------------

inline bool segmentHolds(const Segment* segment, const void* address) {
  const char* byte = static_cast<const char*>(address);
  return byte >= segment->base && byte < segment->base + segment->size;
}
inline bool isExternSegment(const Segment* segment) {
  return (segment->flags & kExternSegment) != 0;
}
inline bool isMappedSegment(const Segment* segment) {
  return (segment->flags & kMappedSegment) != 0;
}

// ---- bins ----------------------------------------------------------------

inline bool isSmall(size_t size) {
  return (size >> kSmallBinShift) < kSmallBins;
}
inline bindex_t smallIndex(size_t size) {
  return static_cast<bindex_t>(size >> kSmallBinShift);
}
inline size_t smallIndexToSize(bindex_t index) {
  return size_t{index} << kSmallBinShift;
}

// The sentinel chunk of small bin `index` (see State::smallbins).
inline Chunk* smallBinAt(State* ms, bindex_t index) {
  return reinterpret_cast<Chunk*>(&ms->smallbins[index << 1]);
}
inline Chunk** treeBinAt(State* ms, bindex_t index) {
  return &ms->treebins[index];
}

inline binmap_t idxToBit(bindex_t index) {
  return binmap_t{1} << index;
}
inline binmap_t leastBit(binmap_t bits) {
  return bits & (~bits + 1);
}
// Every bit above the lowest set bit of `bits` (the bins of larger sizes).
inline binmap_t leftBits(binmap_t bits) {
  return (bits << 1) | (~(bits << 1) + 1);
}
inline bindex_t bitToIndex(binmap_t bit) {
  return static_cast<bindex_t>(__builtin_ctz(bit));
}

inline void markSmallmap(State* ms, bindex_t index) {
  ms->smallmap |= idxToBit(index);
}
inline void clearSmallmap(State* ms, bindex_t index) {
  ms->smallmap &= ~idxToBit(index);
}
inline bool smallmapIsMarked(const State* ms, bindex_t index) {
  return (ms->smallmap & idxToBit(index)) != 0;
}
inline void markTreemap(State* ms, bindex_t index) {
  ms->treemap |= idxToBit(index);
}
inline void clearTreemap(State* ms, bindex_t index) {
  ms->treemap &= ~idxToBit(index);
}
inline bool treemapIsMarked(const State* ms, bindex_t index) {
  return (ms->treemap & idxToBit(index)) != 0;
}

// Tree bin of a size >= kMinLargeSize. Each pair of bins splits one power of
// two in halves; the last bin takes everything from 1.5 * 2^(15 + kTreeBinShift) up.
inline bindex_t treeIndex(size_t size) {
  const size_t units = size >> kTreeBinShift;  // in multiples of kMinLargeSize
  if (units == 0) return 0;
  if (units > 0xFFFF) return kTreeBins - 1;
  const unsigned log2Units =
      31u - static_cast<unsigned>(__builtin_clz(static_cast<unsigned>(units)));
  const size_t upperHalf = (size >> (log2Units + (kTreeBinShift - 1))) & 1;
  return static_cast<bindex_t>((log2Units << 1) + upperHalf);
}
// Shift that brings the first size bit a trie of bin `index` routes by to
// the top (every chunk of a bin shares the bits above it).
inline unsigned leftShiftForTreeIndex(bindex_t index) {
  return index == kTreeBins - 1
             ? 0
             : static_cast<unsigned>((sizeof(size_t) * 8 - 1) - ((index >> 1) + kTreeBinShift - 2));
}
inline constexpr unsigned kTopBit = sizeof(size_t) * 8 - 1;

// New chunks go to the front of their bin: reused first while still warm.
inline void insertSmallChunk(State* ms, Chunk* chunk, size_t size) {
  const bindex_t index = smallIndex(size);
  Chunk* binHead = smallBinAt(ms, index);
  Chunk* oldFirst = binHead;
  if (!smallmapIsMarked(ms, index))
    markSmallmap(ms, index);
  else
    oldFirst = binHead->fd;
  binHead->fd = chunk;
  oldFirst->bk = chunk;
  chunk->fd = oldFirst;
  chunk->bk = binHead;
}

inline void unlinkSmallChunk(State* ms, Chunk* chunk, size_t size) {
  Chunk* forward = chunk->fd;
  Chunk* back = chunk->bk;
  if (forward == back)
    clearSmallmap(ms, smallIndex(size));  // both are the sentinel: the bin empties
  forward->bk = back;
  back->fd = forward;
}

// Unlinks chunk, the first chunk of the bin with sentinel binHead at `index`.
inline void unlinkFirstSmallChunk(State* ms, Chunk* binHead, Chunk* chunk, bindex_t index) {
  Chunk* forward = chunk->fd;
  if (binHead == forward) clearSmallmap(ms, index);
  binHead->fd = forward;
  forward->bk = binHead;
}

// Tree-bin insertion and removal (out of line: off the small-size hot path).
void insertLargeChunk(State* ms, Chunk* chunk, size_t size);
void unlinkLargeChunk(State* ms, Chunk* chunk);

inline void insertChunk(State* ms, Chunk* chunk, size_t size) {
  if (isSmall(size))
    insertSmallChunk(ms, chunk, size);
  else
    insertLargeChunk(ms, chunk, size);
}

inline void unlinkChunk(State* ms, Chunk* chunk, size_t size) {
  if (isSmall(size))
    unlinkSmallChunk(ms, chunk, size);
  else
    unlinkLargeChunk(ms, chunk);
}

// Makes chunk (of `size`) the designated victim; the previous one goes to its bin.
inline void replaceDv(State* ms, Chunk* chunk, size_t size) {
  if (ms->dvsize != 0) insertChunk(ms, ms->dv, ms->dvsize);
  ms->dvsize = size;
  ms->dv = chunk;
}

// Takes free chunk (of `size`) out of wherever it is kept: the designated
// victim or its bin. Returns true if it was the designated victim.
inline bool detachFreeChunk(State* ms, Chunk* chunk, size_t size) {
  if (chunk == ms->dv) {
    ms->dv = nullptr;
    ms->dvsize = 0;
    return true;
  }
  unlinkChunk(ms, chunk, size);
  return false;
}

// Serves chunkBytes (< topsize) from the front of the top chunk.
inline void* splitTop(State* ms, size_t chunkBytes) {
  const size_t remainderSize = ms->topsize -= chunkBytes;
  Chunk* chunk = ms->top;
  Chunk* remainder = ms->top = plusOffset(chunk, chunkBytes);
  remainder->head = remainderSize | kPinuse;
  setSizeAndPinuseOfInuseChunk(chunk, chunkBytes);
  return chunkToMem(chunk);
}

inline bool okMagic(const State* ms) {
  return ms != nullptr && ms->magic == kMagic;
}
// A cheap sanity check on a pointer handed to free or realloc: no chunk of
// this mspace lies below its lowest segment or mapping.
inline bool okAddress(const State* ms, const void* address) {
  return static_cast<const char*>(address) >= ms->least_addr;
}

// ---- shared internals (defined in the mspace_*.cpp files) ------------------

void* internalMalloc(State* ms, size_t bytes);
void internalFree(State* ms, void* mem);
// Grows the mspace by a direct map or a segment and serves `chunkBytes`
// (a normalised chunk size) from it.
void* sysAlloc(State* ms, size_t chunkBytes);
// Returns memory beyond `pad` bytes of the top and every wholly free mapped
// segment to the system; true if anything was released.
bool sysTrim(State* ms, size_t pad);
void initTop(State* ms, Chunk* top, size_t topSize);
// Lays out a fresh mspace in [base, base + size): state chunk, then the top.
State* initUserState(char* base, size_t size);
// create_mspace with the first region mapped by map(size, context); the
// mspace keeps the default system-memory functions.
State* createMappedState(size_t capacity, mspace_mmap_func map, void* context);
bool directMapWasDefault(const State* ms);

}  // namespace mspace_detail
}  // namespace kestrel
