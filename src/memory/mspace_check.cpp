// The mspace consistency checker and the other test hooks of mspace_debug.h
// (in the test-only library kestrel_mspace_testing).
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
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buf, sizeof buf, fmt, args);
  va_end(args);
  return buf;
}

bool aligned(const Chunk* chunk) {
  return (reinterpret_cast<uintptr_t>(chunkToMem(const_cast<Chunk*>(chunk))) & kAlignMask) == 0;
}

class Checker {
 public:
  explicit Checker(State* ms) : ms_(ms) {}

  std::string run() {
    std::string error;
    if (!(error = checkSmallBins()).empty()) return error;
    if (!(error = checkTreeBins()).empty()) return error;
    if (!(error = checkDvAndTop()).empty()) return error;
    if (!(error = checkSegments()).empty()) return error;
    return checkTotals();
  }

 private:
  std::string checkSmallBins() {
    for (bindex_t i = 0; i < kSmallBins; ++i) {
      Chunk* binHead = smallBinAt(ms_, i);
      const bool empty = binHead->fd == binHead;
      if (empty != (binHead->bk == binHead))
        return format("small bin %u: fd and bk disagree on emptiness", i);
      if (empty == smallmapIsMarked(ms_, i))
        return format("small bin %u is %s but its bitmap bit is %s", i,
                      empty ? "empty" : "non-empty", empty ? "set" : "clear");
      Chunk* prev = binHead;
      size_t steps = 0;
      for (Chunk* chunk = binHead->fd; chunk != binHead; prev = chunk, chunk = chunk->fd) {
        if (++steps > kStepLimit) return format("small bin %u: list does not close", i);
        if (chunk->bk != prev)
          return format("small bin %u: chunk %p has a bad back link", i, static_cast<void*>(chunk));
        if (!aligned(chunk))
          return format("small bin %u: chunk %p is misaligned", i, static_cast<void*>(chunk));
        if (chunkSize(chunk) != smallIndexToSize(i))
          return format("small bin %u: chunk %p has size %zu, bin holds %zu", i,
                        static_cast<void*>(chunk), chunkSize(chunk), smallIndexToSize(i));
        if (cinuse(chunk))
          return format("small bin %u: chunk %p is marked in use", i, static_cast<void*>(chunk));
        if (++binned_[chunk] != 1)
          return format("chunk %p is in a bin twice", static_cast<void*>(chunk));
      }
      if (binHead->bk != prev)
        return format("small bin %u: sentinel back link is not the last chunk", i);
    }
    return {};
  }

  std::string checkTreeBins() {
    for (bindex_t i = 0; i < kTreeBins; ++i) {
      Chunk* root = *treeBinAt(ms_, i);
      if ((root == nullptr) == treemapIsMarked(ms_, i))
        return format("tree bin %u is %s but its bitmap bit is %s", i, root ? "non-empty" : "empty",
                      root ? "clear" : "set");
      if (root == nullptr) continue;
      if (root->parent != reinterpret_cast<Chunk*>(treeBinAt(ms_, i)))
        return format("tree bin %u: root's parent is not the bin", i);
      std::unordered_set<size_t> sizes;
      if (std::string error = checkTreeNode(root, i, 0, 0, sizes); !error.empty()) return error;
    }
    return {};
  }

  std::string checkTreeNode(Chunk* node, bindex_t bin, unsigned depth, size_t path,
                            std::unordered_set<size_t>& sizes) {
    if (depth > kTopBit + 1) return format("tree bin %u deeper than the key has bits", bin);
    const size_t size = chunkSize(node);
    if (!aligned(node) || (size & kAlignMask) != 0)
      return format("tree chunk %p is misaligned", static_cast<void*>(node));
    if (cinuse(node)) return format("tree chunk %p is marked in use", static_cast<void*>(node));
    if (node->index != bin || treeIndex(size) != bin)
      return format("tree chunk %p of size %zu is in bin %u (index field %u, belongs in %u)",
                    static_cast<void*>(node), size, bin, node->index, treeIndex(size));
    const size_t key = size << leftShiftForTreeIndex(bin);
    if (depth != 0 && ((key ^ path) >> (kTopBit + 1 - depth)) != 0)
      return format(
          "tree chunk %p of size %zu is not on the path its size bits route to (depth %u)",
          static_cast<void*>(node), size, depth);
    if (!sizes.insert(size).second)
      return format("tree bin %u holds two nodes of size %zu", bin, size);
    // The ring of equal-size chunks behind this node.
    Chunk* prev = node;
    size_t steps = 0;
    for (Chunk* member = node->fd;; prev = member, member = member->fd) {
      if (++steps > kStepLimit)
        return format("tree chunk %p: ring does not close", static_cast<void*>(node));
      if (member->bk != prev)
        return format("tree ring at %p: bad back link at %p", static_cast<void*>(node),
                      static_cast<void*>(member));
      if (member == node) break;
      if (chunkSize(member) != size || cinuse(member) || member->parent != nullptr)
        return format("tree ring at %p: member %p has size %zu, in-use %d or a parent",
                      static_cast<void*>(node), static_cast<void*>(member), chunkSize(member),
                      cinuse(member) ? 1 : 0);
      if (++binned_[member] != 1)
        return format("chunk %p is in a bin twice", static_cast<void*>(member));
    }
    if (++binned_[node] != 1) return format("chunk %p is in a bin twice", static_cast<void*>(node));
    for (unsigned side = 0; side < 2; ++side) {
      Chunk* child = node->child[side];
      if (child == nullptr) continue;
      if (child->parent != node)
        return format("tree chunk %p: child %u does not point back", static_cast<void*>(node),
                      side);
      const size_t childPath = path | (size_t{side} << (kTopBit - depth));
      if (std::string error = checkTreeNode(child, bin, depth + 1, childPath, sizes);
          !error.empty())
        return error;
    }
    return {};
  }

  std::string checkDvAndTop() {
    if (ms_->dvsize == 0) {
      if (ms_->dv != nullptr) return "dv is set with size 0";
    } else {
      Chunk* dv = ms_->dv;
      if (dv == nullptr) return "dv size is set without a dv chunk";
      if (chunkSize(dv) != ms_->dvsize)
        return format("dv chunk size %zu differs from dvsize %zu", chunkSize(dv), ms_->dvsize);
      if (cinuse(dv) || ms_->dvsize < kMinChunkSize) return "dv is marked in use or too small";
      if (binned_.count(dv) != 0) return "dv is also in a bin";
    }
    Chunk* top = ms_->top;
    if (top->head != (ms_->topsize | kPinuse))
      return format("top head %#zx does not say size %zu with the previous chunk in use", top->head,
                    ms_->topsize);
    if (!aligned(top)) return "top is misaligned";
    if (!segmentHolds(&ms_->seg, top)) return "top is not in the head segment";
    if (reinterpret_cast<char*>(top) + ms_->topsize + kTopFootSize !=
        alignDown(ms_->seg.base + ms_->seg.size))
      return "top is not the last chunk of its segment";
    if (binned_.count(top) != 0) return "top is in a bin";
    return {};
  }

  std::string checkSegments() {
    size_t count = 0;
    for (Segment* segment = &ms_->seg; segment != nullptr; segment = segment->next) {
      if (++count > kStepLimit) return "segment list does not end";
      if (segment->size == 0 || segment->base < ms_->least_addr)
        return format("segment %p: empty or below least_addr", static_cast<void*>(segment->base));
      if (isMappedSegment(segment) == isExternSegment(segment))
        return format("segment %p: flags %#x", static_cast<void*>(segment->base), segment->flags);
      for (Segment* other = segment->next; other != nullptr; other = other->next)
        if (other->base < segment->base + segment->size &&
            segment->base < other->base + other->size)
          return format("segments %p and %p overlap", static_cast<void*>(segment->base),
                        static_cast<void*>(other->base));
      if (segment != &ms_->seg && !segmentHolds(segment, segment))
        return format("segment %p: its record lies outside it", static_cast<void*>(segment->base));
      segmentBytes_ += segment->size;
      if (std::string error = walkSegment(segment); !error.empty()) return error;
    }
    return {};
  }

  std::string walkSegment(Segment* segment) {
    char* end = segment->base + segment->size;
    Chunk* chunk = alignAsChunk(segment->base);
    bool prevFree = false;
    Chunk* last = nullptr;
    for (;;) {
      if (reinterpret_cast<char*>(chunk) + kMemOffset > end)
        return format("segment %p: chunk walk runs past the end",
                      static_cast<void*>(segment->base));
      if (chunk == ms_->top) {
        if (segment != &ms_->seg) return "top found in a segment other than the head";
        if (prevFree) return format("free chunk %p is followed by top", static_cast<void*>(last));
        return {};
      }
      if (chunk->head == kFencepostHead) break;
      const size_t size = chunkSize(chunk);
      if (!aligned(chunk) || (size & kAlignMask) != 0 || size < kMinChunkSize)
        return format("chunk %p: misaligned or bad size %zu", static_cast<void*>(chunk), size);
      if (isMapped(chunk))
        return format("chunk %p inside a segment is marked mapped", static_cast<void*>(chunk));
      if (pinuse(chunk) == prevFree)
        return format("chunk %p: PINUSE is %s but the previous chunk is %s",
                      static_cast<void*>(chunk), pinuse(chunk) ? "set" : "clear",
                      prevFree ? "free" : "in use");
      Chunk* next = plusOffset(chunk, size);
      if (reinterpret_cast<char*>(next) + kMemOffset > end)
        return format("chunk %p of size %zu crosses the segment end", static_cast<void*>(chunk),
                      size);
      if (!cinuse(chunk)) {
        if (prevFree)
          return format("free chunks %p and %p are adjacent", static_cast<void*>(last),
                        static_cast<void*>(chunk));
        if (next->prev_foot != size)
          return format("free chunk %p: footer %zu, size %zu", static_cast<void*>(chunk),
                        next->prev_foot, size);
        if (chunk == ms_->dv) {
          // the designated victim is accounted for by checkDvAndTop
        } else if (binned_.count(chunk) == 0) {
          return format("free chunk %p of size %zu is in no bin", static_cast<void*>(chunk), size);
        }
        ++walkedFree_;
      }
      prevFree = !cinuse(chunk);
      last = chunk;
      chunk = next;
    }
    if (segment == &ms_->seg) return "head segment ends in fenceposts before reaching top";
    if (prevFree)
      return format("free chunk %p is followed by fenceposts", static_cast<void*>(last));
    if (last != memToChunk(segment))
      return format("segment %p: the chunk before the fenceposts is not its record",
                    static_cast<void*>(segment->base));
    return {};
  }

  std::string checkTotals() {
    const size_t binnedFree = walkedFree_ - (ms_->dvsize != 0 ? 1 : 0);
    if (binned_.size() != binnedFree)
      return format("%zu chunks in bins but %zu free chunks (dv excluded) in the segments",
                    binned_.size(), binnedFree);
    if (ms_->footprint != segmentBytes_ + ms_->direct_bytes)
      return format("footprint %zu differs from segments %zu + direct maps %zu", ms_->footprint,
                    segmentBytes_, ms_->direct_bytes);
    if (ms_->max_footprint < ms_->footprint) return "max footprint below footprint";
    return {};
  }

  State* ms_;
  std::unordered_map<Chunk*, int> binned_;
  size_t walkedFree_ = 0;
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

mspace mspaceCreateMapped(unsigned long capacity, mspace_mmap_func segment_mmap,
                          mspace_mmap_func direct_mmap, mspace_munmap_func munmap, void* context) {
  mspace msp = mspace_detail::createMappedState(capacity, segment_mmap, context);
  if (msp == nullptr) return nullptr;
  msp->context = context;
  msp->segment_mmap = segment_mmap;
  msp->direct_mmap = direct_mmap;
  msp->munmap = munmap;
  return msp;
}

std::string mspaceCheckConsistency(mspace msp) {
  if (msp == nullptr) return "null mspace";
  if (msp->magic != mspace_detail::kMagic) return "bad magic";
  if (msp->top == nullptr) return "mspace never initialised";
  return mspace_detail::Checker(msp).run();
}

}  // namespace internal
}  // namespace kestrel
