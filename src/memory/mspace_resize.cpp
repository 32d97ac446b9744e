// Resizing and shaped allocation: realloc (in place when the chunk, the top
// chunk or a free neighbour allows), memalign (over-allocate, then give back
// the leader and trailer), and the independent calloc/comalloc that carve
// many blocks out of one region.
#include <cstring>

#include "memory/mspace_layout.h"

namespace kestrel {
namespace mspace_detail {
namespace {

// Gives the tail of in-use chunk p beyond nb back to the mspace.
void shrinkInPlace(State* m, Chunk* p, size_t nb) {
  const size_t rsize = chunkSize(p) - nb;
  if (rsize < kMinChunkSize) return;
  setInuse(p, nb);
  Chunk* r = plusOffset(p, nb);
  r->head = rsize | kPinuse | kCinuse;
  internalFree(m, chunkToMem(r));
}

// Tries to make in-use chunk p hold nb bytes without moving it.
bool resizeInPlace(State* m, Chunk* p, size_t nb) {
  const size_t oldsize = chunkSize(p);
  if (isMapped(p)) {
    // A mapping is kept when it is large enough and not too wasteful; it is
    // never moved to a smaller mapping in place.
    return !isSmall(nb) && oldsize >= nb + kWord && oldsize - nb <= (granularity() << 1);
  }
  Chunk* next = plusOffset(p, oldsize);
  if (!pinuse(next)) corruptionError();
  if (oldsize >= nb) {
    shrinkInPlace(m, p, nb);
    return true;
  }
  if (next == m->top) {
    if (oldsize + m->topsize <= nb) return false;
    const size_t newtopsize = oldsize + m->topsize - nb;
    setInuse(p, nb);
    Chunk* newtop = plusOffset(p, nb);
    newtop->head = newtopsize | kPinuse;
    m->top = newtop;
    m->topsize = newtopsize;
    return true;
  }
  if (cinuse(next)) return false;
  // A free neighbour (binned or the designated victim).
  const size_t nsize = chunkSize(next);
  const size_t total = oldsize + nsize;
  if (total < nb) return false;
  const bool wasDv = next == m->dv;
  if (wasDv) {
    m->dv = nullptr;
    m->dvsize = 0;
  } else {
    unlinkChunk(m, next, nsize);
  }
  const size_t rsize = total - nb;
  if (rsize < kMinChunkSize) {
    setInuse(p, total);
    return true;
  }
  setInuse(p, nb);
  Chunk* r = plusOffset(p, nb);
  setSizeAndPinuseOfFreeChunk(r, rsize);  // the chunk after r already has PINUSE clear
  if (wasDv) {
    m->dv = r;
    m->dvsize = rsize;
  } else {
    insertChunk(m, r, rsize);
  }
  return true;
}

void* internalRealloc(State* m, void* oldmem, size_t bytes) {
  if (bytes >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  }
  Chunk* oldp = memToChunk(oldmem);
  if (!okAddress(m, oldp) || !cinuse(oldp)) corruptionError();
  if (resizeInPlace(m, oldp, requestToSize(bytes))) return oldmem;
  void* newmem = internalMalloc(m, bytes);
  if (newmem != nullptr) {
    const size_t oc = usableSize(oldp);
    std::memcpy(newmem, oldmem, oc < bytes ? oc : bytes);
    internalFree(m, oldmem);
  }
  return newmem;
}

void* internalMemalign(State* m, size_t alignment, size_t bytes) {
  if (alignment <= kAlignment) return internalMalloc(m, bytes);
  if (alignment < kMinChunkSize) alignment = kMinChunkSize;
  if ((alignment & (alignment - 1)) != 0) {
    constexpr size_t kLargestPower = ~(~size_t{0} >> 1);
    if (alignment > kLargestPower) {
      setNoMemory();
      return nullptr;
    }
    size_t a = kAlignment << 1;
    while (a < alignment) a <<= 1;
    alignment = a;
  }
  if (bytes >= kMaxRequest - alignment) {
    setNoMemory();
    return nullptr;
  }
  const size_t nb = requestToSize(bytes);
  const size_t req = nb + alignment + kMinChunkSize - kChunkOverhead;
  char* mem = static_cast<char*>(internalMalloc(m, req));
  if (mem == nullptr) return nullptr;
  Chunk* p = memToChunk(mem);
  void* leader = nullptr;
  void* trailer = nullptr;

  if (reinterpret_cast<uintptr_t>(mem) % alignment != 0) {
    // The first aligned spot whose leader is big enough to be a chunk.
    const uintptr_t aligned = (reinterpret_cast<uintptr_t>(mem) + alignment - 1) & ~(alignment - 1);
    char* br = reinterpret_cast<char*>(memToChunk(reinterpret_cast<void*>(aligned)));
    char* pos = static_cast<size_t>(br - reinterpret_cast<char*>(p)) >= kMinChunkSize ? br : br + alignment;
    Chunk* newp = chunkAt(pos);
    const size_t leadsize = static_cast<size_t>(pos - reinterpret_cast<char*>(p));
    const size_t newsize = chunkSize(p) - leadsize;
    if (isMapped(p)) {
      newp->prev_foot = p->prev_foot + leadsize;
      newp->head = newsize | kCinuse | kMappedBit;
    } else {
      setInuse(newp, newsize);
      setInuse(p, leadsize);
      leader = chunkToMem(p);
    }
    p = newp;
  }
  if (!isMapped(p)) {
    const size_t size = chunkSize(p);
    if (size > nb + kMinChunkSize) {
      const size_t rsize = size - nb;
      Chunk* r = plusOffset(p, nb);
      setInuse(p, nb);
      setInuse(r, rsize);
      trailer = chunkToMem(r);
    }
  }
  if (leader != nullptr) internalFree(m, leader);
  if (trailer != nullptr) internalFree(m, trailer);
  return chunkToMem(p);
}

// Carves n blocks out of one allocation. opts bit 0: all blocks have
// sizes[0] bytes; bit 1: clear the blocks.
void** independentAlloc(State* m, size_t n, const size_t* sizes, int opts, void** chunks) {
  void** marray;
  size_t arraySize;
  if (chunks != nullptr) {
    if (n == 0) return chunks;
    marray = chunks;
    arraySize = 0;
  } else {
    if (n == 0) return static_cast<void**>(internalMalloc(m, 0));
    marray = nullptr;
    size_t bytes;
    if (__builtin_mul_overflow(n, sizeof(void*), &bytes) || bytes >= kMaxRequest) {
      setNoMemory();
      return nullptr;
    }
    arraySize = requestToSize(bytes);
  }

  size_t elementSize = 0;
  size_t contentsSize = 0;
  if ((opts & 1) != 0) {
    if (sizes[0] >= kMaxRequest || __builtin_mul_overflow(n, requestToSize(sizes[0]), &contentsSize)) {
      setNoMemory();
      return nullptr;
    }
    elementSize = requestToSize(sizes[0]);
  } else {
    for (size_t i = 0; i != n; ++i) {
      if (sizes[i] >= kMaxRequest || __builtin_add_overflow(contentsSize, requestToSize(sizes[i]), &contentsSize)) {
        setNoMemory();
        return nullptr;
      }
    }
  }
  size_t size;
  if (__builtin_add_overflow(contentsSize, arraySize, &size) || size - kChunkOverhead >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  }

  // The pieces are freed one by one, so the region must not be a direct map.
  const unsigned mmapWasOn = m->mflags & kUseMmap;
  m->mflags &= ~kUseMmap;
  void* mem = internalMalloc(m, size - kChunkOverhead);
  m->mflags |= mmapWasOn;
  if (mem == nullptr) return nullptr;

  Chunk* p = memToChunk(mem);
  size_t remainderSize = chunkSize(p);
  if ((opts & 2) != 0) std::memset(mem, 0, remainderSize - kWord - arraySize);
  if (marray == nullptr) {
    Chunk* arrayChunk = plusOffset(p, contentsSize);
    setSizeAndPinuseOfInuseChunk(arrayChunk, remainderSize - contentsSize);
    marray = static_cast<void**>(chunkToMem(arrayChunk));
    remainderSize = contentsSize;
  }
  for (size_t i = 0;; ++i) {
    marray[i] = chunkToMem(p);
    if (i == n - 1) {
      setSizeAndPinuseOfInuseChunk(p, remainderSize);
      break;
    }
    const size_t s = elementSize != 0 ? elementSize : requestToSize(sizes[i]);
    remainderSize -= s;
    setSizeAndPinuseOfInuseChunk(p, s);
    p = plusOffset(p, s);
  }
  return marray;
}

}  // namespace
}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

void* mspace_realloc(mspace msp, void* mem, unsigned long newsize) {
  if (!okMagic(msp)) usageError();
  if (mem == nullptr) return internalMalloc(msp, newsize);
  return internalRealloc(msp, mem, newsize);
}

void* mspace_memalign(mspace msp, unsigned long alignment, unsigned long bytes) {
  if (!okMagic(msp)) usageError();
  return internalMemalign(msp, alignment, bytes);
}

void** mspace_independent_calloc(mspace msp, unsigned long n_elements, unsigned long elem_size, void* chunks[]) {
  if (!okMagic(msp)) usageError();
  const size_t sz = elem_size;
  return independentAlloc(msp, n_elements, &sz, 3, chunks);
}

void** mspace_independent_comalloc(mspace msp, unsigned long n_elements, const unsigned long sizes[], void* chunks[]) {
  if (!okMagic(msp)) usageError();
  return independentAlloc(msp, n_elements, sizes, 0, chunks);
}

}  // extern "C"
}  // namespace kestrel
