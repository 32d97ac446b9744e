// Resizing and shaped allocation: realloc (in place when the chunk, the top
// chunk or a free neighbour allows), memalign (over-allocate, then give back
// the leader and trailer), and the independent calloc/comalloc that carve
// many blocks out of one region.
#include <cstring>

#include "memory/mspace_layout.h"

namespace kestrel {
namespace mspace_detail {
namespace {

// Gives the tail of in-use chunk beyond chunkBytes back to the mspace.
void shrinkInPlace(State* ms, Chunk* chunk, size_t chunkBytes) {
  const size_t remainderSize = chunkSize(chunk) - chunkBytes;
  if (remainderSize < kMinChunkSize) return;
  setInuse(chunk, chunkBytes);
  Chunk* remainder = plusOffset(chunk, chunkBytes);
  // Freed as an in-use chunk so that it coalesces like any other.
  remainder->head = remainderSize | kPinuse | kCinuse;
  internalFree(ms, chunkToMem(remainder));
}

// Tries to make in-use chunk hold chunkBytes without moving it.
bool resizeInPlace(State* ms, Chunk* chunk, size_t chunkBytes) {
  const size_t oldSize = chunkSize(chunk);
  if (isMapped(chunk)) {
    // A mapping is kept when it is large enough and not too wasteful; it is
    // never moved to a smaller mapping in place.
    return !isSmall(chunkBytes) && oldSize >= chunkBytes + kWord &&
           oldSize - chunkBytes <= (granularity() << 1);
  }
  Chunk* next = plusOffset(chunk, oldSize);
  if (!pinuse(next)) corruptionError();
  if (oldSize >= chunkBytes) {
    shrinkInPlace(ms, chunk, chunkBytes);
    return true;
  }
  if (next == ms->top) {
    if (oldSize + ms->topsize <= chunkBytes) return false;  // the top must stay non-empty
    const size_t newTopSize = oldSize + ms->topsize - chunkBytes;
    setInuse(chunk, chunkBytes);
    Chunk* newTop = plusOffset(chunk, chunkBytes);
    newTop->head = newTopSize | kPinuse;
    ms->top = newTop;
    ms->topsize = newTopSize;
    return true;
  }
  if (cinuse(next)) return false;
  // A free neighbour (binned or the designated victim).
  const size_t nextSize = chunkSize(next);
  const size_t combinedSize = oldSize + nextSize;
  if (combinedSize < chunkBytes) return false;
  const bool wasDv = detachFreeChunk(ms, next, nextSize);
  const size_t remainderSize = combinedSize - chunkBytes;
  if (remainderSize < kMinChunkSize) {
    setInuse(chunk, combinedSize);
    return true;
  }
  setInuse(chunk, chunkBytes);
  Chunk* remainder = plusOffset(chunk, chunkBytes);
  setSizeAndPinuseOfFreeChunk(remainder,
                              remainderSize);  // the chunk after it already has PINUSE clear
  // The remainder keeps the role of the neighbour it came from.
  if (wasDv) {
    ms->dv = remainder;
    ms->dvsize = remainderSize;
  } else {
    insertChunk(ms, remainder, remainderSize);
  }
  return true;
}

void* internalRealloc(State* ms, void* oldMem, size_t bytes) {
  if (bytes >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  }
  Chunk* oldChunk = memToChunk(oldMem);
  if (!okAddress(ms, oldChunk) || !cinuse(oldChunk)) corruptionError();
  if (resizeInPlace(ms, oldChunk, requestToSize(bytes))) return oldMem;
  void* newMem = internalMalloc(ms, bytes);
  if (newMem != nullptr) {
    const size_t oldUsable = usableSize(oldChunk);
    std::memcpy(newMem, oldMem, oldUsable < bytes ? oldUsable : bytes);
    internalFree(ms, oldMem);
  }
  return newMem;
}

// Over-allocates by the alignment, then frees the leader in front of the
// first suitably aligned chunk and any trailer that can stand as a chunk.
void* internalMemalign(State* ms, size_t alignment, size_t bytes) {
  if (alignment <= kAlignment) return internalMalloc(ms, bytes);
  if (alignment < kMinChunkSize) alignment = kMinChunkSize;
  if ((alignment & (alignment - 1)) != 0) {
    // Not a power of two: round up to one.
    constexpr size_t kLargestPower = ~(~size_t{0} >> 1);
    if (alignment > kLargestPower) {
      setNoMemory();
      return nullptr;
    }
    size_t powerOfTwo = kAlignment << 1;
    while (powerOfTwo < alignment) powerOfTwo <<= 1;
    alignment = powerOfTwo;
  }
  if (bytes >= kMaxRequest - alignment) {
    setNoMemory();
    return nullptr;
  }
  const size_t chunkBytes = requestToSize(bytes);
  // Enough for an aligned chunk of chunkBytes after a leader of at least
  // kMinChunkSize, wherever the allocation lands.
  const size_t paddedRequest = chunkBytes + alignment + kMinChunkSize - kChunkOverhead;
  char* mem = static_cast<char*>(internalMalloc(ms, paddedRequest));
  if (mem == nullptr) return nullptr;
  Chunk* chunk = memToChunk(mem);
  void* leader = nullptr;
  void* trailer = nullptr;

  if (reinterpret_cast<uintptr_t>(mem) % alignment != 0) {
    // The first aligned spot whose leader is big enough to be a chunk.
    const uintptr_t alignedMem =
        (reinterpret_cast<uintptr_t>(mem) + alignment - 1) & ~(alignment - 1);
    char* candidate = reinterpret_cast<char*>(memToChunk(reinterpret_cast<void*>(alignedMem)));
    char* alignedStart =
        static_cast<size_t>(candidate - reinterpret_cast<char*>(chunk)) >= kMinChunkSize
            ? candidate
            : candidate + alignment;
    Chunk* alignedChunk = chunkAt(alignedStart);
    const size_t leaderSize = static_cast<size_t>(alignedStart - reinterpret_cast<char*>(chunk));
    const size_t alignedSize = chunkSize(chunk) - leaderSize;
    if (isMapped(chunk)) {
      // A mapped chunk just moves its start; the leader stays in the mapping.
      alignedChunk->prev_foot = chunk->prev_foot + leaderSize;
      alignedChunk->head = alignedSize | kCinuse | kMappedBit;
    } else {
      setInuse(alignedChunk, alignedSize);
      setInuse(chunk, leaderSize);
      leader = chunkToMem(chunk);
    }
    chunk = alignedChunk;
  }
  if (!isMapped(chunk)) {
    const size_t size = chunkSize(chunk);
    if (size > chunkBytes + kMinChunkSize) {
      const size_t trailerSize = size - chunkBytes;
      Chunk* trailerChunk = plusOffset(chunk, chunkBytes);
      setInuse(chunk, chunkBytes);
      setInuse(trailerChunk, trailerSize);
      trailer = chunkToMem(trailerChunk);
    }
  }
  // Both pieces are ordinary in-use chunks now: freeing them coalesces them
  // with their free neighbours.
  if (leader != nullptr) internalFree(ms, leader);
  if (trailer != nullptr) internalFree(ms, trailer);
  return chunkToMem(chunk);
}

// Carves count blocks out of one allocation. opts bit 0: all blocks have
// sizes[0] bytes; bit 1: clear the blocks. Unless the caller passes the
// array for the pointers (chunks), it is carved from the same allocation.
void** independentAlloc(State* ms, size_t count, const size_t* sizes, int opts, void** chunks) {
  void** pointers;
  size_t arraySize;
  if (chunks != nullptr) {
    if (count == 0) return chunks;
    pointers = chunks;
    arraySize = 0;
  } else {
    if (count == 0) return static_cast<void**>(internalMalloc(ms, 0));
    pointers = nullptr;
    size_t arrayBytes;
    if (__builtin_mul_overflow(count, sizeof(void*), &arrayBytes) || arrayBytes >= kMaxRequest) {
      setNoMemory();
      return nullptr;
    }
    arraySize = requestToSize(arrayBytes);
  }

  size_t elementSize = 0;
  size_t contentsSize = 0;
  if ((opts & 1) != 0) {
    if (sizes[0] >= kMaxRequest ||
        __builtin_mul_overflow(count, requestToSize(sizes[0]), &contentsSize)) {
      setNoMemory();
      return nullptr;
    }
    elementSize = requestToSize(sizes[0]);
  } else {
    for (size_t i = 0; i != count; ++i) {
      if (sizes[i] >= kMaxRequest ||
          __builtin_add_overflow(contentsSize, requestToSize(sizes[i]), &contentsSize)) {
        setNoMemory();
        return nullptr;
      }
    }
  }
  size_t totalSize;
  if (__builtin_add_overflow(contentsSize, arraySize, &totalSize) ||
      totalSize - kChunkOverhead >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  }

  // The pieces are freed one by one, so the region must not be a direct map.
  const unsigned mmapWasOn = ms->mflags & kUseMmap;
  ms->mflags &= ~kUseMmap;
  void* mem = internalMalloc(ms, totalSize - kChunkOverhead);
  ms->mflags |= mmapWasOn;
  if (mem == nullptr) return nullptr;

  Chunk* chunk = memToChunk(mem);
  size_t remainderSize = chunkSize(chunk);
  if ((opts & 2) != 0) std::memset(mem, 0, remainderSize - kWord - arraySize);
  if (pointers == nullptr) {
    Chunk* arrayChunk = plusOffset(chunk, contentsSize);
    setSizeAndPinuseOfInuseChunk(arrayChunk, remainderSize - contentsSize);
    pointers = static_cast<void**>(chunkToMem(arrayChunk));
    remainderSize = contentsSize;
  }
  for (size_t i = 0;; ++i) {
    pointers[i] = chunkToMem(chunk);
    if (i == count - 1) {
      // The last block takes the rest, including any split slack.
      setSizeAndPinuseOfInuseChunk(chunk, remainderSize);
      break;
    }
    const size_t blockSize = elementSize != 0 ? elementSize : requestToSize(sizes[i]);
    remainderSize -= blockSize;
    setSizeAndPinuseOfInuseChunk(chunk, blockSize);
    chunk = plusOffset(chunk, blockSize);
  }
  return pointers;
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

void** mspace_independent_calloc(mspace msp, unsigned long n_elements, unsigned long elem_size,
                                 void* chunks[]) {
  if (!okMagic(msp)) usageError();
  const size_t elementSize = elem_size;
  return independentAlloc(msp, n_elements, &elementSize, 3, chunks);
}

void** mspace_independent_comalloc(mspace msp, unsigned long n_elements,
                                   const unsigned long sizes[], void* chunks[]) {
  if (!okMagic(msp)) usageError();
  return independentAlloc(msp, n_elements, sizes, 0, chunks);
}

}  // extern "C"
}  // namespace kestrel
