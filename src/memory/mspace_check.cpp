// The mspace consistency checker (debug and test builds only).
//
// It first collects every chunk reachable from the bins, checking the lists,
// the tries and the bitmaps, then walks every segment chunk by chunk and
// checks the boundary tags against the bins, the designated victim and the
// top chunk, and finally the footprint against the segments and direct maps.
#include <cstdarg>
#include <cstdio>
#include <unordered_map>
#include <unordered_set>

#include "memory/mspace_debug.h"

namespace kestrel {
namespace mspace_detail {
namespace {

constexpr size_t kStepLimit = size_t{1} << 30;  // guards loops over corrupted links

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char buf[512];
  va_list ap;
  va_start(ap, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, ap);
  va_end(ap);
  return buf;
}

bool aligned(const Chunk* p) {
  return (reinterpret_cast<uintptr_t>(chunkToMem(const_cast<Chunk*>(p))) & kAlignMask) == 0;
}

class Checker {
 public:
  explicit Checker(State* m) : m_(m) {}

  std::string run() {
    std::string e;
    if (!(e = checkSmallBins()).empty()) return e;
    if (!(e = checkTreeBins()).empty()) return e;
    if (!(e = checkDvAndTop()).empty()) return e;
    if (!(e = checkSegments()).empty()) return e;
    return checkTotals();
  }

 private:
  std::string checkSmallBins() {
    for (bindex_t i = 0; i < kSmallBins; ++i) {
      Chunk* b = smallBinAt(m_, i);
      const bool empty = b->fd == b;
      if (empty != (b->bk == b)) return format("small bin %u: fd and bk disagree on emptiness", i);
      if (empty == smallmapIsMarked(m_, i))
        return format("small bin %u is %s but its bitmap bit is %s", i, empty ? "empty" : "non-empty",
                      empty ? "set" : "clear");
      Chunk* prev = b;
      size_t steps = 0;
      for (Chunk* p = b->fd; p != b; prev = p, p = p->fd) {
        if (++steps > kStepLimit) return format("small bin %u: list does not close", i);
        if (p->bk != prev) return format("small bin %u: chunk %p has a bad back link", i, static_cast<void*>(p));
        if (!aligned(p)) return format("small bin %u: chunk %p is misaligned", i, static_cast<void*>(p));
        if (chunkSize(p) != smallIndexToSize(i))
          return format("small bin %u: chunk %p has size %zu, bin holds %zu", i, static_cast<void*>(p), chunkSize(p),
                        smallIndexToSize(i));
        if (cinuse(p)) return format("small bin %u: chunk %p is marked in use", i, static_cast<void*>(p));
        if (++binned_[p] != 1) return format("chunk %p is in a bin twice", static_cast<void*>(p));
      }
      if (b->bk != prev) return format("small bin %u: sentinel back link is not the last chunk", i);
    }
    return {};
  }

  std::string checkTreeBins() {
    for (bindex_t i = 0; i < kTreeBins; ++i) {
      Chunk* root = *treeBinAt(m_, i);
      if ((root == nullptr) == treemapIsMarked(m_, i))
        return format("tree bin %u is %s but its bitmap bit is %s", i, root ? "non-empty" : "empty",
                      root ? "clear" : "set");
      if (root == nullptr) continue;
      if (root->parent != reinterpret_cast<Chunk*>(treeBinAt(m_, i)))
        return format("tree bin %u: root's parent is not the bin", i);
      std::unordered_set<size_t> sizes;
      if (std::string e = checkTreeNode(root, i, 0, 0, sizes); !e.empty()) return e;
    }
    return {};
  }

  std::string checkTreeNode(Chunk* t, bindex_t bin, unsigned depth, size_t path, std::unordered_set<size_t>& sizes) {
    if (depth > kTopBit + 1) return format("tree bin %u deeper than the key has bits", bin);
    const size_t size = chunkSize(t);
    if (!aligned(t) || (size & kAlignMask) != 0) return format("tree chunk %p is misaligned", static_cast<void*>(t));
    if (cinuse(t)) return format("tree chunk %p is marked in use", static_cast<void*>(t));
    if (t->index != bin || treeIndex(size) != bin)
      return format("tree chunk %p of size %zu is in bin %u (index field %u, belongs in %u)", static_cast<void*>(t),
                    size, bin, t->index, treeIndex(size));
    const size_t key = size << leftShiftForTreeIndex(bin);
    if (depth != 0 && ((key ^ path) >> (kTopBit + 1 - depth)) != 0)
      return format("tree chunk %p of size %zu is not on the path its size bits route to (depth %u)",
                    static_cast<void*>(t), size, depth);
    if (!sizes.insert(size).second) return format("tree bin %u holds two nodes of size %zu", bin, size);
    // The ring of equal-size chunks behind this node.
    Chunk* prev = t;
    size_t steps = 0;
    for (Chunk* r = t->fd;; prev = r, r = r->fd) {
      if (++steps > kStepLimit) return format("tree chunk %p: ring does not close", static_cast<void*>(t));
      if (r->bk != prev)
        return format("tree ring at %p: bad back link at %p", static_cast<void*>(t), static_cast<void*>(r));
      if (r == t) break;
      if (chunkSize(r) != size || cinuse(r) || r->parent != nullptr)
        return format("tree ring at %p: member %p has size %zu, in-use %d or a parent", static_cast<void*>(t),
                      static_cast<void*>(r), chunkSize(r), cinuse(r) ? 1 : 0);
      if (++binned_[r] != 1) return format("chunk %p is in a bin twice", static_cast<void*>(r));
    }
    if (++binned_[t] != 1) return format("chunk %p is in a bin twice", static_cast<void*>(t));
    for (unsigned c = 0; c < 2; ++c) {
      Chunk* child = t->child[c];
      if (child == nullptr) continue;
      if (child->parent != t) return format("tree chunk %p: child %u does not point back", static_cast<void*>(t), c);
      const size_t childPath = path | (size_t{c} << (kTopBit - depth));
      if (std::string e = checkTreeNode(child, bin, depth + 1, childPath, sizes); !e.empty()) return e;
    }
    return {};
  }

  std::string checkDvAndTop() {
    if (m_->dvsize == 0) {
      if (m_->dv != nullptr) return "dv is set with size 0";
    } else {
      Chunk* dv = m_->dv;
      if (dv == nullptr) return "dv size is set without a dv chunk";
      if (chunkSize(dv) != m_->dvsize)
        return format("dv chunk size %zu differs from dvsize %zu", chunkSize(dv), m_->dvsize);
      if (cinuse(dv) || m_->dvsize < kMinChunkSize) return "dv is marked in use or too small";
      if (binned_.count(dv) != 0) return "dv is also in a bin";
    }
    Chunk* top = m_->top;
    if (top->head != (m_->topsize | kPinuse))
      return format("top head %#zx does not say size %zu with the previous chunk in use", top->head, m_->topsize);
    if (!aligned(top)) return "top is misaligned";
    if (!segmentHolds(&m_->seg, top)) return "top is not in the head segment";
    if (reinterpret_cast<char*>(top) + m_->topsize + kTopFootSize != alignDown(m_->seg.base + m_->seg.size))
      return "top is not the last chunk of its segment";
    if (binned_.count(top) != 0) return "top is in a bin";
    return {};
  }

  std::string checkSegments() {
    size_t n = 0;
    for (Segment* s = &m_->seg; s != nullptr; s = s->next) {
      if (++n > kStepLimit) return "segment list does not end";
      if (s->size == 0 || s->base < m_->least_addr)
        return format("segment %p: empty or below least_addr", static_cast<void*>(s->base));
      if (isMappedSegment(s) == isExternSegment(s))
        return format("segment %p: flags %#x", static_cast<void*>(s->base), s->flags);
      for (Segment* o = s->next; o != nullptr; o = o->next)
        if (o->base < s->base + s->size && s->base < o->base + o->size)
          return format("segments %p and %p overlap", static_cast<void*>(s->base), static_cast<void*>(o->base));
      if (s != &m_->seg && !segmentHolds(s, s))
        return format("segment %p: its record lies outside it", static_cast<void*>(s->base));
      segmentBytes_ += s->size;
      if (std::string e = walkSegment(s); !e.empty()) return e;
    }
    return {};
  }

  std::string walkSegment(Segment* s) {
    char* end = s->base + s->size;
    Chunk* q = alignAsChunk(s->base);
    bool prevFree = false;
    Chunk* last = nullptr;
    for (;;) {
      if (reinterpret_cast<char*>(q) + kMemOffset > end)
        return format("segment %p: chunk walk runs past the end", static_cast<void*>(s->base));
      if (q == m_->top) {
        if (s != &m_->seg) return "top found in a segment other than the head";
        if (prevFree) return format("free chunk %p is followed by top", static_cast<void*>(last));
        return {};
      }
      if (q->head == kFencepostHead) break;
      const size_t size = chunkSize(q);
      if (!aligned(q) || (size & kAlignMask) != 0 || size < kMinChunkSize)
        return format("chunk %p: misaligned or bad size %zu", static_cast<void*>(q), size);
      if (isMapped(q)) return format("chunk %p inside a segment is marked mapped", static_cast<void*>(q));
      if (pinuse(q) == prevFree)
        return format("chunk %p: PINUSE is %s but the previous chunk is %s", static_cast<void*>(q),
                      pinuse(q) ? "set" : "clear", prevFree ? "free" : "in use");
      Chunk* next = plusOffset(q, size);
      if (reinterpret_cast<char*>(next) + kMemOffset > end)
        return format("chunk %p of size %zu crosses the segment end", static_cast<void*>(q), size);
      if (!cinuse(q)) {
        if (prevFree)
          return format("free chunks %p and %p are adjacent", static_cast<void*>(last), static_cast<void*>(q));
        if (next->prev_foot != size)
          return format("free chunk %p: footer %zu, size %zu", static_cast<void*>(q), next->prev_foot, size);
        if (q == m_->dv) {
          // the designated victim is accounted for by checkDvAndTop
        } else if (binned_.count(q) == 0) {
          return format("free chunk %p of size %zu is in no bin", static_cast<void*>(q), size);
        }
        ++walkedFree_;
        freeBytes_ += size;
      }
      prevFree = !cinuse(q);
      last = q;
      q = next;
    }
    if (s == &m_->seg) return "head segment ends in fenceposts before reaching top";
    if (prevFree) return format("free chunk %p is followed by fenceposts", static_cast<void*>(last));
    if (last != memToChunk(s))
      return format("segment %p: the chunk before the fenceposts is not its record", static_cast<void*>(s->base));
    return {};
  }

  std::string checkTotals() {
    const size_t binnedFree = walkedFree_ - (m_->dvsize != 0 ? 1 : 0);
    if (binned_.size() != binnedFree)
      return format("%zu chunks in bins but %zu free chunks (dv excluded) in the segments", binned_.size(), binnedFree);
    if (m_->footprint != segmentBytes_ + m_->direct_bytes)
      return format("footprint %zu differs from segments %zu + direct maps %zu", m_->footprint, segmentBytes_,
                    m_->direct_bytes);
    if (m_->max_footprint < m_->footprint) return "max footprint below footprint";
    return {};
  }

  State* m_;
  std::unordered_map<Chunk*, int> binned_;
  size_t walkedFree_ = 0;
  size_t freeBytes_ = 0;
  size_t segmentBytes_ = 0;
};

}  // namespace
}  // namespace mspace_detail

namespace internal {

MspaceParams mspaceParams() {
  using mspace_detail::gParams;
  mspace_detail::ensureParams();
  return {gParams.page_size.load(), gParams.granularity.load(), gParams.trim_threshold.load(),
          gParams.mmap_threshold.load()};
}

std::string mspaceCheckConsistency(mspace msp) {
  if (msp == nullptr) return "null mspace";
  if (msp->magic != mspace_detail::kMagic) return "bad magic";
  if (msp->top == nullptr) return "mspace never initialised";
  return mspace_detail::Checker(msp).run();
}

void mspaceSetUnmapFunction(mspace msp, mspace_munmap_func fn) { msp->munmap = fn; }

}  // namespace internal
}  // namespace kestrel
