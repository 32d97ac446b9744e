// Where an mspace meets system memory: the process-wide parameters, creation
// and destruction, growth by new segments or direct maps, and trimming.
//
// Growth never uses a break-style heap (every mspace is non-contiguous): a
// request that no bin and not the top chunk can meet either gets a mapping
// of its own (at or above the mapping threshold) or a new segment. A new
// segment that directly follows the top's segment extends it, one that
// directly precedes a mapped segment is merged in front of it, any other
// becomes the new head segment and receives the top chunk. The old top is
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
    size_t gran = 0x10000;
    if (gran < page) gran = page;  // a granule is never smaller than a page
    gParams.page_size.store(page, std::memory_order_relaxed);
    gParams.granularity.store(gran, std::memory_order_relaxed);
    gParams.trim_threshold.store(0x200000, std::memory_order_relaxed);
    gParams.mmap_threshold.store(~size_t{0}, std::memory_order_relaxed);
    gParams.default_flags.store(kUseMmap | kNonContiguous, std::memory_order_relaxed);
    return true;
  }();
  (void)initialised;
}

void usageError() { std::abort(); }
void corruptionError() { std::abort(); }
void setNoMemory() { errno = ENOMEM; }

bool directMapWasDefault(const State* m) { return m->direct_mmap == &default_direct_mmap_func; }

void initTop(State* m, Chunk* p, size_t psize) {
  m->top = p;
  m->topsize = psize;
  p->head = psize | kPinuse;
  m->trim_check = gParams.trim_threshold.load(std::memory_order_relaxed);
}

State* initUserState(char* tbase, size_t tsize) {
  Chunk* msp = alignAsChunk(tbase);
  char* end = alignDown(tbase + tsize);
  Chunk* first = plusOffset(msp, kStateChunkSize);
  if (reinterpret_cast<char*>(first) + kTopFootSize > end) return nullptr;  // misaligned base ate the room
  auto* m = static_cast<State*>(chunkToMem(msp));
  std::memset(static_cast<void*>(m), 0, sizeof(State));
  msp->head = kStateChunkSize | kPinuse | kCinuse;
  m->seg.base = m->least_addr = tbase;
  m->seg.size = m->footprint = m->max_footprint = tsize;
  m->magic = kMagic;
  m->mflags = gParams.default_flags.load(std::memory_order_relaxed) | kNonContiguous;
  for (bindex_t i = 0; i < kSmallBins; ++i) {
    Chunk* b = smallBinAt(m, i);
    b->fd = b->bk = b;
  }
  m->context = nullptr;
  m->direct_mmap = &default_direct_mmap_func;
  m->segment_mmap = &default_mmap_func;
  m->munmap = &default_munmap_func;
  m->sbrk = &default_sbrk_func;
  // The top chunk ends where the foot of the (alignment-trimmed) segment starts.
  initTop(m, first, static_cast<size_t>(end - kTopFootSize - reinterpret_cast<char*>(first)));
  return m;
}

namespace {

void noteFootprint(State* m, size_t grown) {
  m->footprint += grown;
  if (m->footprint > m->max_footprint) m->max_footprint = m->footprint;
}

// One chunk in a mapping of its own.
void* directAlloc(State* m, size_t nb) {
  const size_t mmsize = granularityAlign(nb + kDirectMapExtra);
  if (mmsize <= nb) return nullptr;  // overflow
  char* mm = static_cast<char*>(m->direct_mmap(mmsize, m->context));
  if (mapFailed(mm)) return nullptr;
  const size_t offset = alignOffset(mm + kMemOffset);
  const size_t psize = mmsize - offset - kMappedFootPad;
  Chunk* p = chunkAt(mm + offset);
  p->prev_foot = offset;
  p->head = psize | kCinuse | kMappedBit;
  plusOffset(p, psize)->head = kFencepostHead;
  plusOffset(p, psize + kWord)->head = 0;
  if (mm < m->least_addr) m->least_addr = mm;
  m->direct_bytes += mmsize;
  noteFootprint(m, mmsize);
  return chunkToMem(p);
}

// Serves nb from the new region [newbase, oldbase) merged in front of the
// segment that started at oldbase; the rest joins the old first chunk.
void* prependAlloc(State* m, char* newbase, char* oldbase, size_t nb) {
  Chunk* p = alignAsChunk(newbase);
  Chunk* oldfirst = alignAsChunk(oldbase);
  const size_t psize = static_cast<size_t>(reinterpret_cast<char*>(oldfirst) - reinterpret_cast<char*>(p));
  Chunk* q = plusOffset(p, nb);
  size_t qsize = psize - nb;
  setSizeAndPinuseOfInuseChunk(p, nb);
  if (oldfirst == m->top) {
    const size_t tsize = m->topsize += qsize;
    m->top = q;
    q->head = tsize | kPinuse;
  } else if (oldfirst == m->dv) {
    const size_t dsize = m->dvsize += qsize;
    m->dv = q;
    setSizeAndPinuseOfFreeChunk(q, dsize);
  } else {
    if (!cinuse(oldfirst)) {
      const size_t nsize = chunkSize(oldfirst);
      unlinkChunk(m, oldfirst, nsize);
      oldfirst = plusOffset(oldfirst, nsize);
      qsize += nsize;
    }
    setFreeWithPinuse(q, qsize, oldfirst);
    insertChunk(m, q, qsize);
  }
  return chunkToMem(p);
}

// Makes [tbase, tbase + tsize) the head segment holding the top chunk.
void addSegment(State* m, char* tbase, size_t tsize, unsigned flags) {
  Chunk* oldTop = m->top;
  const size_t oldTopSize = m->topsize;
  char* oldEnd = reinterpret_cast<char*>(oldTop) + oldTopSize + kTopFootSize;
  // The record goes behind the old top if what stays in front of it can be a
  // free chunk, else at the old top itself.
  Chunk* rec = oldTopSize >= kMinChunkSize ? plusOffset(oldTop, oldTopSize) : oldTop;
  auto* ss = static_cast<Segment*>(chunkToMem(rec));

  Chunk* newTop = alignAsChunk(tbase);
  initTop(m, newTop, static_cast<size_t>(alignDown(tbase + tsize) - kTopFootSize - reinterpret_cast<char*>(newTop)));

  if (rec != oldTop) {
    oldTop->head = oldTopSize | kPinuse;
    rec->prev_foot = oldTopSize;
    rec->head = kSegmentRecordChunk | kCinuse;
  } else {
    rec->head = kSegmentRecordChunk | kPinuse | kCinuse;
  }
  *ss = m->seg;
  m->seg.base = tbase;
  m->seg.size = tsize;
  m->seg.next = ss;
  m->seg.flags = flags;
  for (Chunk* f = plusOffset(rec, kSegmentRecordChunk); reinterpret_cast<char*>(&f->head) + kWord <= oldEnd;
       f = plusOffset(f, kWord))
    f->head = kFencepostHead;
  if (rec != oldTop) insertChunk(m, oldTop, oldTopSize);
}

// True if a segment record lies in [lo, hi).
bool recordIn(State* m, const char* lo, const char* hi) {
  for (Segment* s = m->seg.next; s != nullptr; s = s->next) {
    const char* a = reinterpret_cast<const char*>(s);
    if (a >= lo && a < hi) return true;
  }
  return false;
}

// Unmaps every mapped segment (other than the head) that holds nothing but
// one free chunk and its own record.
size_t releaseUnmappedSegments(State* m) {
  size_t released = 0;
  Segment* pred = &m->seg;
  Segment* sp = pred->next;
  while (sp != nullptr) {
    char* base = sp->base;
    const size_t size = sp->size;
    Segment* next = sp->next;
    bool removed = false;
    if (isMappedSegment(sp) && !isExternSegment(sp)) {
      Chunk* p = alignAsChunk(base);
      if (!cinuse(p) && nextChunk(p) == memToChunk(sp)) {
        const size_t psize = chunkSize(p);
        const bool wasDv = p == m->dv;
        if (wasDv) {
          m->dv = nullptr;
          m->dvsize = 0;
        } else {
          unlinkChunk(m, p, psize);
        }
        if (m->munmap(base, size, m->context) == 0) {
          released += size;
          m->footprint -= size;
          pred->next = next;
          removed = true;
        } else if (wasDv) {
          m->dv = p;
          m->dvsize = psize;
        } else {
          insertChunk(m, p, psize);
        }
      }
    }
    if (!removed) pred = sp;
    sp = next;
  }
  return released;
}

}  // namespace

void* sysAlloc(State* m, size_t nb) {
  if ((m->mflags & kUseMmap) != 0 && nb >= gParams.mmap_threshold.load(std::memory_order_relaxed)) {
    if (void* mem = directAlloc(m, nb)) return mem;
  }

  const size_t asize = granularityAlign(nb + kSegmentMapExtra);
  if (asize <= nb) {  // overflow
    setNoMemory();
    return nullptr;
  }
  char* tbase = static_cast<char*>(m->segment_mmap(asize, m->context));
  if (mapFailed(tbase)) {
    setNoMemory();
    return nullptr;
  }
  const size_t tsize = asize;
  noteFootprint(m, tsize);

  // Directly behind the top's segment: extend it.
  Segment* sp = &m->seg;
  if (sp->base + sp->size == tbase && isMappedSegment(sp) && !isExternSegment(sp)) {
    sp->size += tsize;
    initTop(m, m->top, m->topsize + tsize);
  } else {
    if (tbase < m->least_addr) m->least_addr = tbase;
    // Directly in front of a mapped segment: merge and serve from the front.
    for (sp = &m->seg; sp != nullptr && sp->base != tbase + tsize; sp = sp->next) {
    }
    if (sp != nullptr && isMappedSegment(sp) && !isExternSegment(sp)) {
      char* oldbase = sp->base;
      sp->base = tbase;
      sp->size += tsize;
      return prependAlloc(m, tbase, oldbase, nb);
    }
    addSegment(m, tbase, tsize, kMappedSegment);
  }

  if (nb < m->topsize) {
    const size_t rsize = m->topsize -= nb;
    Chunk* p = m->top;
    Chunk* r = m->top = plusOffset(p, nb);
    r->head = rsize | kPinuse;
    setSizeAndPinuseOfInuseChunk(p, nb);
    return chunkToMem(p);
  }
  setNoMemory();
  return nullptr;
}

bool sysTrim(State* m, size_t pad) {
  size_t released = 0;
  if (pad >= kMaxRequest || m->top == nullptr) return false;
  pad += kTopFootSize;
  if (m->topsize > pad) {
    // Whole granules of the top beyond pad, from the tail of the head segment.
    const size_t unit = granularity();
    const size_t extra = ((m->topsize - pad + (unit - 1)) / unit - 1) * unit;
    Segment* sp = &m->seg;
    if (extra != 0 && isMappedSegment(sp) && !isExternSegment(sp) && sp->size >= extra) {
      const size_t newsize = sp->size - extra;
      char* cut = sp->base + newsize;
      if (!recordIn(m, cut, sp->base + sp->size) && m->munmap(cut, extra, m->context) == 0) released = extra;
    }
    if (released != 0) {
      sp->size -= released;
      m->footprint -= released;
      initTop(m, m->top, m->topsize - released);
    }
  }
  released += releaseUnmappedSegments(m);
  if (released == 0) m->trim_check = ~size_t{0};  // do not try again on every free
  return released != 0;
}

}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

mspace create_mspace(unsigned long capacity, int /*locked*/) {
  ensureParams();
  const size_t page = gParams.page_size.load(std::memory_order_relaxed);
  if (capacity >= ~size_t{0} - kMspaceBaseOverhead - page) return nullptr;
  const size_t rs = capacity == 0 ? granularity() : capacity + kMspaceBaseOverhead;
  const size_t tsize = granularityAlign(rs);
  if (tsize <= rs) return nullptr;
  char* tbase = static_cast<char*>(default_mmap_func(tsize, nullptr));
  if (mapFailed(tbase)) return nullptr;
  State* m = initUserState(tbase, tsize);
  m->seg.flags = kMappedSegment;
  return m;
}

mspace create_mspace_with_base(void* base, unsigned long capacity, int /*locked*/) {
  ensureParams();
  const size_t page = gParams.page_size.load(std::memory_order_relaxed);
  if (base == nullptr || capacity <= kMspaceBaseOverhead || capacity >= ~size_t{0} - kMspaceBaseOverhead - page)
    return nullptr;
  State* m = initUserState(static_cast<char*>(base), capacity);
  if (m != nullptr) m->seg.flags = kExternSegment;
  return m;
}

mspace create_mspace_with_base_ca(void* base, unsigned long capacity, int locked, mspace_mmap_func segment_mmap,
                                  mspace_mmap_func direct_mmap, mspace_sbrk_func sbrk, void* context) {
  State* m = create_mspace_with_base(base, capacity, locked);
  if (m == nullptr) return nullptr;
  m->context = context;
  if (segment_mmap != nullptr) m->segment_mmap = segment_mmap;
  if (direct_mmap != nullptr) m->direct_mmap = direct_mmap;
  if (sbrk != nullptr) m->sbrk = sbrk;
  return m;
}

unsigned long destroy_mspace(mspace msp) {
  if (!okMagic(msp)) usageError();
  // The state lives in the oldest segment, which is the last in the list;
  // copy what is needed before anything is unmapped.
  const mspace_munmap_func unmap = msp->munmap;
  void* const context = msp->context;
  msp->magic = 0;
  size_t freed = 0;
  Segment* sp = &msp->seg;
  while (sp != nullptr) {
    char* base = sp->base;
    const size_t size = sp->size;
    const unsigned flags = sp->flags;
    sp = sp->next;
    if ((flags & kMappedSegment) != 0 && (flags & kExternSegment) == 0 && unmap(base, size, context) == 0)
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
