// The allocation and release paths of an mspace: exact-size small bins with
// a bitmap lookup first, then the designated victim, the tree bins, the top
// chunk, and only then new system memory.
#include <cstring>

#include "memory/mspace_layout.h"

namespace kestrel {
namespace mspace_detail {

void insertLargeChunk(State* m, Chunk* x, size_t s) {
  const bindex_t i = treeIndex(s);
  Chunk** h = treeBinAt(m, i);
  x->index = i;
  x->child[0] = x->child[1] = nullptr;
  if (!treemapIsMarked(m, i)) {
    markTreemap(m, i);
    *h = x;
    x->parent = reinterpret_cast<Chunk*>(h);  // a root points at its bin slot
    x->fd = x->bk = x;
    return;
  }
  Chunk* t = *h;
  size_t k = s << leftShiftForTreeIndex(i);
  for (;;) {
    if (chunkSize(t) != s) {
      Chunk** c = &t->child[(k >> kTopBit) & 1];
      k <<= 1;
      if (*c != nullptr) {
        t = *c;
      } else {
        *c = x;
        x->parent = t;
        x->fd = x->bk = x;
        return;
      }
    } else {
      // Same size as a tree node: chain behind it, outside the trie.
      Chunk* f = t->fd;
      t->fd = f->bk = x;
      x->fd = f;
      x->bk = t;
      x->parent = nullptr;
      return;
    }
  }
}

void unlinkLargeChunk(State* m, Chunk* x) {
  Chunk* xp = x->parent;
  Chunk* r;
  if (x->bk != x) {
    // Another chunk of the same size takes x's place.
    Chunk* f = x->fd;
    r = x->bk;
    f->bk = r;
    r->fd = f;
  } else {
    // Replace x by a leaf of its subtree (any descendant may take its place
    // because it shares x's prefix).
    Chunk** rp = &x->child[1];
    r = *rp;
    if (r == nullptr) {
      rp = &x->child[0];
      r = *rp;
    }
    if (r != nullptr) {
      for (;;) {
        Chunk** cp = &r->child[1];
        if (*cp == nullptr) cp = &r->child[0];
        if (*cp == nullptr) break;
        rp = cp;
        r = *rp;
      }
      *rp = nullptr;
    }
  }
  if (xp == nullptr) return;  // x was chained behind a node; the ring splice was enough
  Chunk** h = treeBinAt(m, x->index);
  if (x == *h) {
    *h = r;
    if (r == nullptr) clearTreemap(m, x->index);
  } else if (xp->child[0] == x) {
    xp->child[0] = r;
  } else {
    xp->child[1] = r;
  }
  if (r != nullptr) {
    r->parent = xp;
    if (Chunk* c0 = x->child[0]; c0 != nullptr) {
      r->child[0] = c0;
      c0->parent = r;
    }
    if (Chunk* c1 = x->child[1]; c1 != nullptr) {
      r->child[1] = c1;
      c1->parent = r;
    }
  }
}

namespace {

// Serves nb from the front of the dv; a remainder too small to be a chunk
// goes with it.
inline void* splitDv(State* m, size_t nb) {
  const size_t rsize = m->dvsize - nb;
  Chunk* p = m->dv;
  if (rsize >= kMinChunkSize) {
    Chunk* r = m->dv = plusOffset(p, nb);
    m->dvsize = rsize;
    setSizeAndPinuseOfFreeChunk(r, rsize);
    setSizeAndPinuseOfInuseChunk(p, nb);
  } else {
    const size_t dvs = m->dvsize;
    m->dvsize = 0;
    m->dv = nullptr;
    setInuseAndPinuse(p, dvs);
  }
  return chunkToMem(p);
}

// Serves nb (< topsize) from the front of the top chunk.
inline void* splitTop(State* m, size_t nb) {
  const size_t rsize = m->topsize -= nb;
  Chunk* p = m->top;
  Chunk* r = m->top = plusOffset(p, nb);
  r->head = rsize | kPinuse;
  setSizeAndPinuseOfInuseChunk(p, nb);
  return chunkToMem(p);
}

// Splits chunk p (size psize, already unlinked) for a request of nb bytes;
// the remainder, if it can stand as a chunk, goes to the bins.
inline void* splitAndBin(State* m, Chunk* p, size_t psize, size_t nb) {
  const size_t rsize = psize - nb;
  if (rsize < kMinChunkSize) {
    setInuseAndPinuse(p, psize);
  } else {
    setSizeAndPinuseOfInuseChunk(p, nb);
    Chunk* r = plusOffset(p, nb);
    setSizeAndPinuseOfFreeChunk(r, rsize);
    insertChunk(m, r, rsize);
  }
  return chunkToMem(p);
}

// Smallest chunk of the smallest non-empty tree bin, for a small request
// (all tree chunks are larger than any small request). The remainder
// becomes the designated victim.
void* tmallocSmall(State* m, size_t nb) {
  const bindex_t i = bitToIndex(m->treemap);
  Chunk* v = *treeBinAt(m, i);
  Chunk* t = v;
  size_t rsize = chunkSize(t) - nb;
  while ((t = t->child[0] != nullptr ? t->child[0] : t->child[1]) != nullptr) {
    const size_t trem = chunkSize(t) - nb;
    if (trem < rsize) {
      rsize = trem;
      v = t;
    }
  }
  unlinkLargeChunk(m, v);
  if (rsize < kMinChunkSize) {
    setInuseAndPinuse(v, rsize + nb);
  } else {
    setSizeAndPinuseOfInuseChunk(v, nb);
    Chunk* r = plusOffset(v, nb);
    setSizeAndPinuseOfFreeChunk(r, rsize);
    replaceDv(m, r, rsize);
  }
  return chunkToMem(v);
}

// Best fit among the tree bins for a large request, or null when the
// designated victim fits at least as well.
void* tmallocLarge(State* m, size_t nb) {
  Chunk* v = nullptr;
  size_t rsize = ~nb + 1;  // larger than any remainder
  const bindex_t idx = treeIndex(nb);
  Chunk* t = *treeBinAt(m, idx);
  if (t != nullptr) {
    // Walk down the path of nb, remembering the best fit on the way and the
    // deepest right subtree not taken (its chunks are all larger than nb).
    size_t sizebits = nb << leftShiftForTreeIndex(idx);
    Chunk* rst = nullptr;
    for (;;) {
      const size_t trem = chunkSize(t) - nb;
      if (trem < rsize) {
        v = t;
        rsize = trem;
        if (rsize == 0) break;
      }
      Chunk* rt = t->child[1];
      t = t->child[(sizebits >> kTopBit) & 1];
      if (rt != nullptr && rt != t) rst = rt;
      if (t == nullptr) {
        t = rst;
        break;
      }
      sizebits <<= 1;
    }
  }
  if (t == nullptr && v == nullptr) {
    // Nothing in nb's own bin: the smallest chunk of the next non-empty one.
    const binmap_t leftbits = leftBits(idxToBit(idx)) & m->treemap;
    if (leftbits != 0) t = *treeBinAt(m, bitToIndex(leastBit(leftbits)));
  }
  while (t != nullptr) {  // smallest in the subtree: follow the leftmost path
    const size_t trem = chunkSize(t) - nb;
    if (trem < rsize) {
      rsize = trem;
      v = t;
    }
    t = t->child[0] != nullptr ? t->child[0] : t->child[1];
  }
  if (v == nullptr || rsize >= m->dvsize - nb) return nullptr;
  unlinkLargeChunk(m, v);
  return splitAndBin(m, v, rsize + nb, nb);
}

// Everything but the fast cases of mallocFast (which always runs first): the
// remaining small-request strategies in order (next non-empty small bin,
// smallest tree chunk, dv, top), large requests (best fit in the tree bins,
// dv, top) and growth.
[[gnu::noinline]] void* mallocSlow(State* m, size_t bytes) {
  size_t nb;
  if (bytes <= kMaxSmallRequest) {
    // The exact and next-size bins are empty: mallocFast served those.
    nb = requestToSize(bytes);
    const bindex_t idx = smallIndex(nb);
    const binmap_t smallbits = m->smallmap >> idx;
    if (nb > m->dvsize) {
      if (smallbits != 0) {
        // The next non-empty small bin; its remainder becomes the dv.
        const binmap_t leftbits = (smallbits << idx) & leftBits(idxToBit(idx));
        const bindex_t i = bitToIndex(leastBit(leftbits));
        Chunk* b = smallBinAt(m, i);
        Chunk* p = b->fd;
        unlinkFirstSmallChunk(m, b, p, i);
        const size_t rsize = smallIndexToSize(i) - nb;
        if (rsize < kMinChunkSize) {
          setInuseAndPinuse(p, smallIndexToSize(i));
        } else {
          setSizeAndPinuseOfInuseChunk(p, nb);
          Chunk* r = plusOffset(p, nb);
          setSizeAndPinuseOfFreeChunk(r, rsize);
          replaceDv(m, r, rsize);
        }
        return chunkToMem(p);
      }
      if (m->treemap != 0) return tmallocSmall(m, nb);
    }
  } else if (bytes >= kMaxRequest) {
    setNoMemory();
    return nullptr;
  } else {
    nb = padRequest(bytes);
    if (m->treemap != 0) {
      if (void* mem = tmallocLarge(m, nb)) return mem;
    }
  }

  if (nb <= m->dvsize) return splitDv(m, nb);
  if (nb < m->topsize) return splitTop(m, nb);
  return sysAlloc(m, nb);
}

// Release with coalescing: merges with a free predecessor and successor
// (the dv and the top included) and bins the result.
[[gnu::noinline]] void freeSlow(State* m, Chunk* p) {
  size_t psize = chunkSize(p);
  if (isMapped(p)) {
    const size_t offset = p->prev_foot;
    const size_t total = psize + offset + kMappedFootPad;
    if (m->munmap(reinterpret_cast<char*>(p) - offset, total, m->context) == 0) {
      m->footprint -= total;
      m->direct_bytes -= total;
    }
    return;
  }
  Chunk* next = plusOffset(p, psize);
  if (!pinuse(next)) corruptionError();

  const bool merged = !pinuse(p) || !cinuse(next);
  if (!pinuse(p)) {
    const size_t prevsize = p->prev_foot;
    Chunk* prev = minusOffset(p, prevsize);
    psize += prevsize;
    p = prev;
    if (p != m->dv) {
      unlinkChunk(m, p, prevsize);
    } else if ((next->head & kInuseBits) == kInuseBits) {
      m->dvsize = psize;
      setFreeWithPinuse(p, psize, next);
      return;
    }
  }

  if (!cinuse(next)) {
    if (next == m->top) {
      const size_t tsize = m->topsize += psize;
      m->top = p;
      p->head = tsize | kPinuse;
      if (p == m->dv) {
        m->dv = nullptr;
        m->dvsize = 0;
      }
      if (tsize > m->trim_check) sysTrim(m, 0);
      return;
    }
    if (next == m->dv) {
      const size_t dsize = m->dvsize += psize;
      m->dv = p;
      setSizeAndPinuseOfFreeChunk(p, dsize);
      return;
    }
    const size_t nsize = chunkSize(next);
    psize += nsize;
    unlinkChunk(m, next, nsize);
    setSizeAndPinuseOfFreeChunk(p, psize);
    if (p == m->dv) {
      m->dvsize = psize;
      return;
    }
  } else {
    setFreeWithPinuse(p, psize, next);
  }
  if (merged && m->dvsize == 0) {
    // A chunk that grew by coalescing becomes the victim while there is none:
    // neighbours freed next merge into it without bin traffic (frees tend to
    // come in runs), and every request still reaches it.
    m->dv = p;
    m->dvsize = psize;
    return;
  }
  insertChunk(m, p, psize);
}

// The common cases, inlined into the entry points: an exact small-bin hit,
// a split of the dv or of the top chunk.
[[gnu::always_inline]] inline void* mallocFast(State* m, size_t bytes) {
  if (bytes <= kMaxSmallRequest) [[likely]] {
    const size_t nb = requestToSize(bytes);
    const bindex_t idx = smallIndex(nb);
    const binmap_t smallbits = m->smallmap >> idx;
    if ((smallbits & 3U) != 0) [[likely]] {
      // Exact fit, or the next size up (its 16-byte excess cannot stand alone).
      const bindex_t i = idx + (~smallbits & 1U);
      Chunk* b = smallBinAt(m, i);
      Chunk* p = b->fd;
      unlinkFirstSmallChunk(m, b, p, i);
      setInuseAndPinuse(p, smallIndexToSize(i));
      return chunkToMem(p);
    }
    if (nb <= m->dvsize) return splitDv(m, nb);
    if ((smallbits | m->treemap) == 0 && nb < m->topsize) return splitTop(m, nb);
  }
  return mallocSlow(m, bytes);
}

// A chunk between two chunks in use goes straight to its small bin; one
// that borders the top merges into it; everything else takes freeSlow.
[[gnu::always_inline]] inline void freeFast(State* m, void* mem) {
  Chunk* p = memToChunk(mem);
  if (!okAddress(m, p) || !cinuse(p)) [[unlikely]]
    corruptionError();
  const size_t head = p->head;
  const size_t psize = head & ~kFlagBits;
  Chunk* next = plusOffset(p, psize);
  if ((head & (kPinuse | kMappedBit)) == kPinuse && isSmall(psize)) [[likely]] {
    const size_t nhead = next->head;
    if ((nhead & kInuseBits) == kInuseBits) {
      next->head = nhead & ~kPinuse;
      setSizeAndPinuseOfFreeChunk(p, psize);
      insertSmallChunk(m, p, psize);
      return;
    }
    if (next == m->top && (nhead & kPinuse) != 0) {
      const size_t tsize = m->topsize += psize;
      m->top = p;
      p->head = tsize | kPinuse;
      if (tsize > m->trim_check) [[unlikely]]
        sysTrim(m, 0);
      return;
    }
  }
  freeSlow(m, p);
}

}  // namespace

void* internalMalloc(State* m, size_t bytes) { return mallocFast(m, bytes); }
void internalFree(State* m, void* mem) { freeFast(m, mem); }

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
  size_t req = 0;
  if (n_elements != 0 && __builtin_mul_overflow(n_elements, elem_size, &req)) req = ~size_t{0};
  void* mem = internalMalloc(msp, req);
  if (mem == nullptr) return nullptr;
  // A fresh direct map from the system function is already zero; memory
  // from any other source is cleared.
  if (!isMapped(memToChunk(mem)) || !directMapWasDefault(msp)) std::memset(mem, 0, req);
  return mem;
}

}  // extern "C"
}  // namespace kestrel
