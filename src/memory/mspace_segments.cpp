// Where an mspace meets system memory: the process-wide parameters, creation
// and destruction, growth by new segments or direct maps, and trimming.
//
// Growth never uses a break-style heap (every mspace is non-contiguous): a
// request that no bin and not the top chunk can meet either gets a mapping
// of its own (at or above the mapping threshold) or a new segment. A new
// segment that directly follows the top's segment extends it, one that
// directly precedes a mapped segment is merged in front of it, any other
// becomes the new head segment and receives the top chunk. The segment that
// holds the state record is never merged with (see mayMerge). The old top is
// then split into a free chunk, the old head's segment record and
// fenceposts, so that every segment but the head carries its own record at
// its tail.
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "memory/mspace_layout.h"
#include "memory/system_memory.h"

namespace kestrel {
namespace mspace_detail {

Params gParams;

void ensureParams() {
  static const bool initialised = [] {
    const size_t page = systemPageSize();
    if (page == 0 || (page & (page - 1)) != 0) std::abort();
    size_t granule = 0x10000;            // 64 KiB
    if (granule < page) granule = page;  // a granule is never smaller than a page
    gParams.page_size.store(page, std::memory_order_relaxed);
    gParams.granularity.store(granule, std::memory_order_relaxed);
    gParams.trim_threshold.store(0x200000, std::memory_order_relaxed);
    gParams.mmap_threshold.store(~size_t{0}, std::memory_order_relaxed);
    gParams.default_flags.store(kUseMmap | kNonContiguous, std::memory_order_relaxed);
    return true;
  }();
  (void)initialised;
}

void usageError() {
  std::abort();
}
void corruptionError() {
  std::abort();
}
void setNoMemory() {
  errno = ENOMEM;
}

bool directMapWasDefault(const State* ms) {
  return ms->direct_mmap == &default_direct_mmap_func;
}

// Also re-arms automatic trimming: the top changed, so a later free may
// find something to give back again.
void initTop(State* ms, Chunk* top, size_t topSize) {
  ms->top = top;
  ms->topsize = topSize;
  top->head = topSize | kPinuse;
  ms->trim_check = gParams.trim_threshold.load(std::memory_order_relaxed);
}

State* initUserState(char* base, size_t size) {
  Chunk* stateChunk = alignAsChunk(base);
  char* end = alignDown(base + size);
  Chunk* first = plusOffset(stateChunk, kStateChunkSize);
  if (reinterpret_cast<char*>(first) + kTopFootSize > end)
    return nullptr;  // misaligned base ate the room
  auto* ms = static_cast<State*>(chunkToMem(stateChunk));
  std::memset(static_cast<void*>(ms), 0, sizeof(State));
  stateChunk->head = kStateChunkSize | kPinuse | kCinuse;
  ms->seg.base = ms->least_addr = base;
  ms->seg.size = ms->footprint = ms->max_footprint = size;
  ms->magic = kMagic;
  ms->mflags = gParams.default_flags.load(std::memory_order_relaxed) | kNonContiguous;
  for (bindex_t i = 0; i < kSmallBins; ++i) {
    Chunk* binHead = smallBinAt(ms, i);
    binHead->fd = binHead->bk = binHead;
  }
  ms->context = nullptr;
  ms->direct_mmap = &default_direct_mmap_func;
  ms->segment_mmap = &default_mmap_func;
  ms->munmap = &default_munmap_func;
  ms->sbrk = &default_sbrk_func;
  // The top chunk ends where the foot of the (alignment-trimmed) segment starts.
  initTop(ms, first, static_cast<size_t>(end - kTopFootSize - reinterpret_cast<char*>(first)));
  return ms;
}

namespace {

void noteFootprint(State* ms, size_t grown) {
  ms->footprint += grown;
  if (ms->footprint > ms->max_footprint) ms->max_footprint = ms->footprint;
}

// One chunk in a mapping of its own, followed by two fencepost words.
void* directAlloc(State* ms, size_t chunkBytes) {
  const size_t mappingSize = granularityAlign(chunkBytes + kDirectMapExtra);
  if (mappingSize <= chunkBytes) return nullptr;  // overflow
  char* mapping = static_cast<char*>(ms->direct_mmap(mappingSize, ms->context));
  if (mapFailed(mapping)) return nullptr;
  const size_t offset = alignOffset(mapping + kMemOffset);
  const size_t size = mappingSize - offset - kMappedFootPad;
  Chunk* chunk = chunkAt(mapping + offset);
  chunk->prev_foot = offset;  // lets free find the start of the mapping
  chunk->head = size | kCinuse | kMappedBit;
  plusOffset(chunk, size)->head = kFencepostHead;
  plusOffset(chunk, size + kWord)->head = 0;
  if (mapping < ms->least_addr) ms->least_addr = mapping;
  ms->direct_bytes += mappingSize;
  noteFootprint(ms, mappingSize);
  return chunkToMem(chunk);
}

// Serves chunkBytes from the new region [newBase, oldBase) merged in front
// of the segment that started at oldBase; the rest joins the old first chunk.
void* prependAlloc(State* ms, char* newBase, char* oldBase, size_t chunkBytes) {
  Chunk* chunk = alignAsChunk(newBase);
  Chunk* oldFirst = alignAsChunk(oldBase);
  const size_t regionSize =
      static_cast<size_t>(reinterpret_cast<char*>(oldFirst) - reinterpret_cast<char*>(chunk));
  Chunk* rest = plusOffset(chunk, chunkBytes);
  size_t restSize = regionSize - chunkBytes;
  setSizeAndPinuseOfInuseChunk(chunk, chunkBytes);
  if (oldFirst == ms->top) {
    const size_t topSize = ms->topsize += restSize;
    ms->top = rest;
    rest->head = topSize | kPinuse;
  } else if (oldFirst == ms->dv) {
    const size_t dvSize = ms->dvsize += restSize;
    ms->dv = rest;
    setSizeAndPinuseOfFreeChunk(rest, dvSize);
  } else {
    if (!cinuse(oldFirst)) {
      const size_t oldFirstSize = chunkSize(oldFirst);
      unlinkChunk(ms, oldFirst, oldFirstSize);
      oldFirst = plusOffset(oldFirst, oldFirstSize);
      restSize += oldFirstSize;
    }
    setFreeWithPinuse(rest, restSize, oldFirst);
    insertChunk(ms, rest, restSize);
  }
  return chunkToMem(chunk);
}

// Makes [base, base + size) the head segment holding the top chunk.
void addSegment(State* ms, char* base, size_t size, unsigned flags) {
  Chunk* oldTop = ms->top;
  const size_t oldTopSize = ms->topsize;
  char* oldEnd = reinterpret_cast<char*>(oldTop) + oldTopSize + kTopFootSize;
  // The record goes behind the old top if what stays in front of it can be a
  // free chunk, else at the old top itself.
  Chunk* recordChunk = oldTopSize >= kMinChunkSize ? plusOffset(oldTop, oldTopSize) : oldTop;
  auto* record = static_cast<Segment*>(chunkToMem(recordChunk));

  Chunk* newTop = alignAsChunk(base);
  initTop(
      ms, newTop,
      static_cast<size_t>(alignDown(base + size) - kTopFootSize - reinterpret_cast<char*>(newTop)));

  if (recordChunk != oldTop) {
    oldTop->head = oldTopSize | kPinuse;
    recordChunk->prev_foot = oldTopSize;
    recordChunk->head = kSegmentRecordChunk | kCinuse;
  } else {
    recordChunk->head = kSegmentRecordChunk | kPinuse | kCinuse;
  }
  *record = ms->seg;
  ms->seg.base = base;
  ms->seg.size = size;
  ms->seg.next = record;
  ms->seg.flags = flags;
  for (Chunk* fencepost = plusOffset(recordChunk, kSegmentRecordChunk);
       reinterpret_cast<char*>(&fencepost->head) + kWord <= oldEnd;
       fencepost = plusOffset(fencepost, kWord))
    fencepost->head = kFencepostHead;
  if (recordChunk != oldTop) insertChunk(ms, oldTop, oldTopSize);
}

// True if a segment record lies in [low, high).
bool recordIn(State* ms, const char* low, const char* high) {
  for (Segment* segment = ms->seg.next; segment != nullptr; segment = segment->next) {
    const char* record = reinterpret_cast<const char*>(segment);
    if (record >= low && record < high) return true;
  }
  return false;
}

// Unmaps every mapped segment (other than the head) that holds nothing but
// one free chunk and its own record.
size_t releaseUnmappedSegments(State* ms) {
  size_t released = 0;
  Segment* pred = &ms->seg;
  Segment* segment = pred->next;
  while (segment != nullptr) {
    char* base = segment->base;
    const size_t size = segment->size;
    Segment* next = segment->next;  // read before the record is unmapped with its segment
    bool removed = false;
    if (isMappedSegment(segment) && !isExternSegment(segment)) {
      Chunk* chunk = alignAsChunk(base);
      if (!cinuse(chunk) && nextChunk(chunk) == memToChunk(segment)) {
        const size_t chunkBytes = chunkSize(chunk);
        const bool wasDv = detachFreeChunk(ms, chunk, chunkBytes);
        if (ms->munmap(base, size, ms->context) == 0) {
          released += size;
          ms->footprint -= size;
          pred->next = next;
          removed = true;
        } else if (wasDv) {  // still mapped: put the chunk back where it was
          ms->dv = chunk;
          ms->dvsize = chunkBytes;
        } else {
          insertChunk(ms, chunk, chunkBytes);
        }
      }
    }
    if (!removed) pred = segment;
    segment = next;
  }
  return released;
}

// Whether a new mapping may join `segment`: only one that the mspace mapped
// itself, and never the one that starts with the state record. That segment
// keeps the size it was created with: memory joined to it would, once free,
// either end at the record (merged in front) or end at the segment's own
// record after the top has moved on (extended behind), and trimming can give
// back neither, since a segment goes back only when all of it is free.
bool mayMerge(const State* ms, const Segment* segment) {
  return isMappedSegment(segment) && !isExternSegment(segment) && !segmentHolds(segment, ms);
}

}  // namespace

void* sysAlloc(State* ms, size_t chunkBytes) {
  if ((ms->mflags & kUseMmap) != 0 &&
      chunkBytes >= gParams.mmap_threshold.load(std::memory_order_relaxed)) {
    if (void* mem = directAlloc(ms, chunkBytes)) return mem;
  }

  const size_t mappingSize = granularityAlign(chunkBytes + kSegmentMapExtra);
  if (mappingSize <= chunkBytes) {  // overflow
    setNoMemory();
    return nullptr;
  }
  char* mapping = static_cast<char*>(ms->segment_mmap(mappingSize, ms->context));
  if (mapFailed(mapping)) {
    setNoMemory();
    return nullptr;
  }
  noteFootprint(ms, mappingSize);

  // Directly behind the top's segment: extend it (see mayMerge).
  Segment* segment = &ms->seg;
  if (segment->base + segment->size == mapping && mayMerge(ms, segment)) {
    segment->size += mappingSize;
    initTop(ms, ms->top, ms->topsize + mappingSize);
  } else {
    if (mapping < ms->least_addr) ms->least_addr = mapping;
    // Directly in front of a segment: merge and serve from the front.
    for (segment = &ms->seg; segment != nullptr && segment->base != mapping + mappingSize;
         segment = segment->next) {
    }
    if (segment != nullptr && mayMerge(ms, segment)) {
      char* oldBase = segment->base;
      segment->base = mapping;
      segment->size += mappingSize;
      return prependAlloc(ms, mapping, oldBase, chunkBytes);
    }
    addSegment(ms, mapping, mappingSize, kMappedSegment);
  }

  if (chunkBytes < ms->topsize) return splitTop(ms, chunkBytes);
  setNoMemory();
  return nullptr;
}

State* createMappedState(size_t capacity, mspace_mmap_func map, void* context) {
  ensureParams();
  const size_t page = gParams.page_size.load(std::memory_order_relaxed);
  if (capacity >= ~size_t{0} - kMspaceBaseOverhead - page) return nullptr;
  const size_t wanted = capacity == 0 ? granularity() : capacity + kMspaceBaseOverhead;
  const size_t mappingSize = granularityAlign(wanted);
  if (mappingSize <= wanted) return nullptr;
  char* mapping = static_cast<char*>(map(mappingSize, context));
  if (mapFailed(mapping)) return nullptr;
  State* ms = initUserState(mapping, mappingSize);
  ms->seg.flags = kMappedSegment;
  return ms;
}

bool sysTrim(State* ms, size_t pad) {
  size_t released = 0;
  if (pad >= kMaxRequest || ms->top == nullptr) return false;
  pad += kTopFootSize;
  if (ms->topsize > pad) {
    // Whole granules of the top beyond pad, from the tail of the head segment.
    const size_t unit = granularity();
    const size_t extra = ((ms->topsize - pad + (unit - 1)) / unit - 1) * unit;
    Segment* head = &ms->seg;
    if (extra != 0 && isMappedSegment(head) && !isExternSegment(head) && head->size >= extra) {
      const size_t keptSize = head->size - extra;
      char* cut = head->base + keptSize;
      if (!recordIn(ms, cut, head->base + head->size) && ms->munmap(cut, extra, ms->context) == 0)
        released = extra;
    }
    if (released != 0) {
      head->size -= released;
      ms->footprint -= released;
      initTop(ms, ms->top, ms->topsize - released);
    }
  }
  released += releaseUnmappedSegments(ms);
  if (released == 0) ms->trim_check = ~size_t{0};  // do not try again on every free
  return released != 0;
}

}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

mspace create_mspace(unsigned long capacity, int /*locked*/) {
  return createMappedState(capacity, &default_mmap_func, nullptr);
}

mspace create_mspace_with_base(void* base, unsigned long capacity, int /*locked*/) {
  ensureParams();
  const size_t page = gParams.page_size.load(std::memory_order_relaxed);
  if (base == nullptr || capacity <= kMspaceBaseOverhead ||
      capacity >= ~size_t{0} - kMspaceBaseOverhead - page)
    return nullptr;
  State* ms = initUserState(static_cast<char*>(base), capacity);
  if (ms != nullptr) ms->seg.flags = kExternSegment;
  return ms;
}

mspace create_mspace_with_base_ca(void* base, unsigned long capacity, int locked,
                                  mspace_mmap_func segment_mmap, mspace_mmap_func direct_mmap,
                                  mspace_sbrk_func sbrk, void* context) {
  State* ms = create_mspace_with_base(base, capacity, locked);
  if (ms == nullptr) return nullptr;
  ms->context = context;
  if (segment_mmap != nullptr) ms->segment_mmap = segment_mmap;
  if (direct_mmap != nullptr) ms->direct_mmap = direct_mmap;
  if (sbrk != nullptr) ms->sbrk = sbrk;
  return ms;
}

unsigned long destroy_mspace(mspace msp) {
  if (!okMagic(msp)) usageError();
  // The state lives in the oldest segment, which is the last in the list;
  // copy what is needed before anything is unmapped.
  const mspace_munmap_func unmap = msp->munmap;
  void* const context = msp->context;
  msp->magic = 0;
  size_t freed = 0;
  Segment* segment = &msp->seg;
  while (segment != nullptr) {
    // The record of every segment but the head lies in the segment itself.
    char* base = segment->base;
    const size_t size = segment->size;
    const unsigned flags = segment->flags;
    segment = segment->next;
    if ((flags & kMappedSegment) != 0 && (flags & kExternSegment) == 0 &&
        unmap(base, size, context) == 0)
      freed += size;
  }
  return freed;
}

int mspace_trim(mspace msp, unsigned long pad) {
  if (!okMagic(msp)) usageError();
  return sysTrim(msp, pad) ? 1 : 0;
}

}  // extern "C"
}  // namespace kestrel
