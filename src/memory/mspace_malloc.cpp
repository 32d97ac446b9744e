// The allocation and release paths of an mspace: exact-size small bins with
// a bitmap lookup first, then the designated victim, the tree bins, the top
// chunk, and only then new system memory.
#include <cstring>

#include "memory/mspace_layout.h"

namespace kestrel {
namespace mspace_detail {

// A tree bin is a bitwise trie: from the root down, each level routes by the
// next size bit below the ones the whole bin shares. Each size appears as at
// most one node; more chunks of that size are chained behind it in a ring.
void insertLargeChunk(State* ms, Chunk* chunk, size_t size) {
  const bindex_t index = treeIndex(size);
  Chunk** binRoot = treeBinAt(ms, index);
  chunk->index = index;
  chunk->child[0] = chunk->child[1] = nullptr;
  if (!treemapIsMarked(ms, index)) {
    markTreemap(ms, index);
    *binRoot = chunk;
    chunk->parent = reinterpret_cast<Chunk*>(binRoot);  // a root points at its bin slot
    chunk->fd = chunk->bk = chunk;
    return;
  }
  Chunk* node = *binRoot;
  size_t sizeBits = size << leftShiftForTreeIndex(index);
  for (;;) {
    if (chunkSize(node) != size) {
      Chunk** childSlot = &node->child[(sizeBits >> kTopBit) & 1];
      sizeBits <<= 1;
      if (*childSlot != nullptr) {
        node = *childSlot;
      } else {
        *childSlot = chunk;
        chunk->parent = node;
        chunk->fd = chunk->bk = chunk;
        return;
      }
    } else {
      // Same size as a tree node: chain behind it, outside the trie.
      Chunk* forward = node->fd;
      node->fd = forward->bk = chunk;
      chunk->fd = forward;
      chunk->bk = node;
      chunk->parent = nullptr;
      return;
    }
  }
}

void unlinkLargeChunk(State* ms, Chunk* chunk) {
  Chunk* parent = chunk->parent;
  Chunk* replacement;
  if (chunk->bk != chunk) {
    // Another chunk of the same size takes chunk's place.
    Chunk* forward = chunk->fd;
    replacement = chunk->bk;
    forward->bk = replacement;
    replacement->fd = forward;
  } else {
    // Replace chunk by a leaf of its subtree (any descendant may take its
    // place because it shares chunk's prefix).
    Chunk** replacementSlot = &chunk->child[1];
    replacement = *replacementSlot;
    if (replacement == nullptr) {
      replacementSlot = &chunk->child[0];
      replacement = *replacementSlot;
    }
    if (replacement != nullptr) {
      for (;;) {
        Chunk** childSlot = &replacement->child[1];
        if (*childSlot == nullptr) childSlot = &replacement->child[0];
        if (*childSlot == nullptr) break;
        replacementSlot = childSlot;
        replacement = *replacementSlot;
      }
      *replacementSlot = nullptr;  // detach the leaf from its old parent
    }
  }
  if (parent == nullptr) return;  // chunk was chained behind a node; the ring splice was enough
  Chunk** binRoot = treeBinAt(ms, chunk->index);
  if (chunk == *binRoot) {
    *binRoot = replacement;
    if (replacement == nullptr) clearTreemap(ms, chunk->index);
  } else if (parent->child[0] == chunk) {
    parent->child[0] = replacement;
  } else {
    parent->child[1] = replacement;
  }
  if (replacement != nullptr) {
    replacement->parent = parent;
    if (Chunk* left = chunk->child[0]; left != nullptr) {
      replacement->child[0] = left;
      left->parent = replacement;
    }
    if (Chunk* right = chunk->child[1]; right != nullptr) {
      replacement->child[1] = right;
      right->parent = replacement;
    }
  }
}

namespace {

// Serves chunkBytes from the front of the dv; a remainder too small to be a
// chunk goes with it.
inline void* splitDv(State* ms, size_t chunkBytes) {
  const size_t remainderSize = ms->dvsize - chunkBytes;
  Chunk* chunk = ms->dv;
  if (remainderSize >= kMinChunkSize) {
    Chunk* remainder = ms->dv = plusOffset(chunk, chunkBytes);
    ms->dvsize = remainderSize;
    setSizeAndPinuseOfFreeChunk(remainder, remainderSize);
    setSizeAndPinuseOfInuseChunk(chunk, chunkBytes);
  } else {
    const size_t dvSize = ms->dvsize;
    ms->dvsize = 0;
    ms->dv = nullptr;
    setInuseAndPinuse(chunk, dvSize);
  }
  return chunkToMem(chunk);
}

// Where the remainder of a split goes: to its bin, or in place of the
// designated victim so that the next small requests are served from it
// without a bin search.
enum class RemainderTo { kBin, kDv };

// Splits chunk (of fullSize bytes, already unlinked) for a request of
// chunkBytes; a remainder too small to stand as a chunk stays with it.
template <RemainderTo kDestination>
inline void* splitChunk(State* ms, Chunk* chunk, size_t fullSize, size_t chunkBytes) {
  const size_t remainderSize = fullSize - chunkBytes;
  if (remainderSize < kMinChunkSize) {
    setInuseAndPinuse(chunk, fullSize);
  } else {
    setSizeAndPinuseOfInuseChunk(chunk, chunkBytes);
    Chunk* remainder = plusOffset(chunk, chunkBytes);
    setSizeAndPinuseOfFreeChunk(remainder, remainderSize);
    if constexpr (kDestination == RemainderTo::kDv)
      replaceDv(ms, remainder, remainderSize);
    else
      insertChunk(ms, remainder, remainderSize);
  }
  return chunkToMem(chunk);
}

// Smallest chunk of the smallest non-empty tree bin, for a small request
// (all tree chunks are larger than any small request). The remainder
// becomes the designated victim.
void* tmallocSmall(State* ms, size_t chunkBytes) {
  const bindex_t index = bitToIndex(ms->treemap);
  Chunk* best = *treeBinAt(ms, index);
  Chunk* node = best;
  size_t remainderSize = chunkSize(node) - chunkBytes;
  while ((node = node->child[0] != nullptr ? node->child[0] : node->child[1]) != nullptr) {
    const size_t nodeRemainder = chunkSize(node) - chunkBytes;
    if (nodeRemainder < remainderSize) {
      remainderSize = nodeRemainder;
      best = node;
    }
  }
  unlinkLargeChunk(ms, best);
  return splitChunk<RemainderTo::kDv>(ms, best, remainderSize + chunkBytes, chunkBytes);
}

// Best fit among the tree bins for a large request, or null when the
// designated victim fits at least as well.
void* tmallocLarge(State* ms, size_t chunkBytes) {
  Chunk* best = nullptr;
  size_t remainderSize = ~chunkBytes + 1;  // larger than any remainder
  const bindex_t index = treeIndex(chunkBytes);
  Chunk* node = *treeBinAt(ms, index);
  if (node != nullptr) {
    // Walk down the path of chunkBytes, remembering the best fit on the way
    // and the deepest right subtree not taken (its chunks are all larger).
    size_t sizeBits = chunkBytes << leftShiftForTreeIndex(index);
    Chunk* deepestRightSubtree = nullptr;
    for (;;) {
      const size_t nodeRemainder = chunkSize(node) - chunkBytes;
      if (nodeRemainder < remainderSize) {
        best = node;
        remainderSize = nodeRemainder;
        if (remainderSize == 0) break;
      }
      Chunk* right = node->child[1];
      node = node->child[(sizeBits >> kTopBit) & 1];
      if (right != nullptr && right != node) deepestRightSubtree = right;
      if (node == nullptr) {
        node = deepestRightSubtree;
        break;
      }
      sizeBits <<= 1;
    }
  }
  if (node == nullptr && best == nullptr) {
    // Nothing in the request's own bin: the smallest chunk of the next non-empty one.
    const binmap_t largerBins = leftBits(idxToBit(index)) & ms->treemap;
    if (largerBins != 0) node = *treeBinAt(ms, bitToIndex(leastBit(largerBins)));
  }
  while (node != nullptr) {  // smallest in the subtree: follow the leftmost path
    const size_t nodeRemainder = chunkSize(node) - chunkBytes;
    if (nodeRemainder < remainderSize) {
      remainderSize = nodeRemainder;
      best = node;
    }
    node = node->child[0] != nullptr ? node->child[0] : node->child[1];
  }
  if (best == nullptr || remainderSize >= ms->dvsize - chunkBytes) return nullptr;
  unlinkLargeChunk(ms, best);
  return splitChunk<RemainderTo::kBin>(ms, best, remainderSize + chunkBytes, chunkBytes);
}

// Everything but the fast cases of mallocFast (which always runs first): the
// remaining small-request strategies in order (next non-empty small bin,
// smallest tree chunk, dv, top), large requests (best fit in the tree bins,
// dv, top) and growth.
[[gnu::noinline]] void* mallocSlow(State* ms, size_t bytes) {
  size_t chunkBytes;
  if (bytes <= kMaxSmallRequest) {
    // The exact and next-size bins are empty: mallocFast served those.
    chunkBytes = requestToSize(bytes);
    const bindex_t index = smallIndex(chunkBytes);
    const binmap_t binsFromIndex = ms->smallmap >> index;
    if (chunkBytes > ms->dvsize) {
      if (binsFromIndex != 0) {
        // The next non-empty small bin; its remainder becomes the dv.
        const binmap_t largerBins = (binsFromIndex << index) & leftBits(idxToBit(index));
        const bindex_t binIndex = bitToIndex(leastBit(largerBins));
        Chunk* binHead = smallBinAt(ms, binIndex);
        Chunk* chunk = binHead->fd;
        unlinkFirstSmallChunk(ms, binHead, chunk, binIndex);
        return splitChunk<RemainderTo::kDv>(ms, chunk, smallIndexToSize(binIndex), chunkBytes);
      }
      if (ms->treemap != 0) return tmallocSmall(ms, chunkBytes);
    }
  } else if (bytes >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  } else {
    chunkBytes = padRequest(bytes);
    if (ms->treemap != 0) {
      if (void* mem = tmallocLarge(ms, chunkBytes)) return mem;
    }
  }

  if (chunkBytes <= ms->dvsize) return splitDv(ms, chunkBytes);
  if (chunkBytes < ms->topsize) return splitTop(ms, chunkBytes);
  return sysAlloc(ms, chunkBytes);
}

// Release with coalescing: merges with a free predecessor and successor
// (the dv and the top included) and bins the result.
[[gnu::noinline]] void freeSlow(State* ms, Chunk* chunk) {
  size_t size = chunkSize(chunk);
  if (isMapped(chunk)) {
    // prev_foot of a mapped chunk is its offset into the mapping.
    const size_t offset = chunk->prev_foot;
    const size_t mappingSize = size + offset + kMappedFootPad;
    if (ms->munmap(reinterpret_cast<char*>(chunk) - offset, mappingSize, ms->context) == 0) {
      ms->footprint -= mappingSize;
      ms->direct_bytes -= mappingSize;
    }
    return;
  }
  Chunk* next = plusOffset(chunk, size);
  if (!pinuse(next)) corruptionError();  // the two boundary tags disagree

  const bool merged = !pinuse(chunk) || !cinuse(next);
  if (!pinuse(chunk)) {
    const size_t prevSize = chunk->prev_foot;
    Chunk* prev = minusOffset(chunk, prevSize);
    size += prevSize;
    chunk = prev;
    if (chunk != ms->dv) {
      unlinkChunk(ms, chunk, prevSize);
    } else if ((next->head & kInuseBits) == kInuseBits) {
      ms->dvsize = size;
      setFreeWithPinuse(chunk, size, next);
      return;
    }
  }

  if (!cinuse(next)) {
    if (next == ms->top) {
      const size_t topSize = ms->topsize += size;
      ms->top = chunk;
      chunk->head = topSize | kPinuse;
      if (chunk == ms->dv) {
        ms->dv = nullptr;
        ms->dvsize = 0;
      }
      if (topSize > ms->trim_check) sysTrim(ms, 0);
      return;
    }
    if (next == ms->dv) {
      const size_t dvSize = ms->dvsize += size;
      ms->dv = chunk;
      setSizeAndPinuseOfFreeChunk(chunk, dvSize);
      return;
    }
    const size_t nextSize = chunkSize(next);
    size += nextSize;
    unlinkChunk(ms, next, nextSize);
    setSizeAndPinuseOfFreeChunk(chunk, size);
    if (chunk == ms->dv) {
      ms->dvsize = size;
      return;
    }
  } else {
    setFreeWithPinuse(chunk, size, next);
  }
  if (merged && ms->dvsize == 0) {
    // A chunk that grew by coalescing becomes the victim while there is none:
    // neighbours freed next merge into it without bin traffic (frees tend to
    // come in runs), and every request still reaches it.
    ms->dv = chunk;
    ms->dvsize = size;
    return;
  }
  insertChunk(ms, chunk, size);
}

// The common cases, inlined into the entry points: an exact small-bin hit,
// a split of the dv or of the top chunk.
[[gnu::always_inline]] inline void* mallocFast(State* ms, size_t bytes) {
  if (bytes <= kMaxSmallRequest) [[likely]] {
    const size_t chunkBytes = requestToSize(bytes);
    const bindex_t index = smallIndex(chunkBytes);
    const binmap_t binsFromIndex = ms->smallmap >> index;
    if ((binsFromIndex & 3U) != 0) [[likely]] {
      // Exact fit, or the next size up (its 16-byte excess cannot stand alone).
      const bindex_t binIndex = index + (~binsFromIndex & 1U);
      Chunk* binHead = smallBinAt(ms, binIndex);
      Chunk* chunk = binHead->fd;
      unlinkFirstSmallChunk(ms, binHead, chunk, binIndex);
      setInuseAndPinuse(chunk, smallIndexToSize(binIndex));
      return chunkToMem(chunk);
    }
    if (chunkBytes <= ms->dvsize) return splitDv(ms, chunkBytes);
    // The top only when no bin could serve: a binned chunk is reused first.
    if ((binsFromIndex | ms->treemap) == 0 && chunkBytes < ms->topsize)
      return splitTop(ms, chunkBytes);
  }
  return mallocSlow(ms, bytes);
}

// A chunk between two chunks in use goes straight to its small bin; one
// that borders the top merges into it; everything else takes freeSlow.
[[gnu::always_inline]] inline void freeFast(State* ms, void* mem) {
  Chunk* chunk = memToChunk(mem);
  if (!okAddress(ms, chunk) || !cinuse(chunk)) [[unlikely]]
    corruptionError();
  const size_t head = chunk->head;
  const size_t size = head & ~kFlagBits;
  Chunk* next = plusOffset(chunk, size);
  if ((head & (kPinuse | kMappedBit)) == kPinuse && isSmall(size)) [[likely]] {
    const size_t nextHead = next->head;
    if ((nextHead & kInuseBits) == kInuseBits) {
      next->head = nextHead & ~kPinuse;
      setSizeAndPinuseOfFreeChunk(chunk, size);
      insertSmallChunk(ms, chunk, size);
      return;
    }
    if (next == ms->top && (nextHead & kPinuse) != 0) {
      const size_t topSize = ms->topsize += size;
      ms->top = chunk;
      chunk->head = topSize | kPinuse;
      if (topSize > ms->trim_check) [[unlikely]]
        sysTrim(ms, 0);
      return;
    }
  }
  freeSlow(ms, chunk);
}

}  // namespace

void* internalMalloc(State* ms, size_t bytes) {
  return mallocFast(ms, bytes);
}
void internalFree(State* ms, void* mem) {
  freeFast(ms, mem);
}

}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

void* mspace_malloc(mspace msp, unsigned long bytes) {
  if (!okMagic(msp)) [[unlikely]]
    usageError();
  return mallocFast(msp, bytes);
}

void mspace_free(mspace msp, void* mem) {
  if (mem == nullptr) return;
  if (!okMagic(msp)) [[unlikely]]
    usageError();
  freeFast(msp, mem);
}

void* mspace_calloc(mspace msp, unsigned long n_elements, unsigned long elem_size) {
  if (!okMagic(msp)) usageError();
  // An overflowing product becomes a request that always fails.
  size_t totalBytes = 0;
  if (n_elements != 0 && __builtin_mul_overflow(n_elements, elem_size, &totalBytes))
    totalBytes = ~size_t{0};
  void* mem = internalMalloc(msp, totalBytes);
  if (mem == nullptr) return nullptr;
  // A fresh direct map from the system function is already zero; memory
  // from any other source is cleared.
  if (!isMapped(memToChunk(mem)) || !directMapWasDefault(msp)) std::memset(mem, 0, totalBytes);
  return mem;
}

}  // extern "C"
}  // namespace kestrel
