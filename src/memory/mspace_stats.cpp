// Statistics and the process-wide parameters of the mspaces.
#include <cstdio>
#include <cstdlib>

#include "memory/mspace_layout.h"

namespace kestrel {
namespace mspace_detail {
namespace {

struct Walk {
  size_t freeBytes = 0;   // free chunks in all segments, the top excluded
  size_t freeChunks = 0;  // the same, counted
};

// Visits every chunk of every segment up to the top or the fenceposts.
Walk walkFreeChunks(State* m) {
  Walk w;
  for (Segment* s = &m->seg; s != nullptr; s = s->next) {
    Chunk* q = alignAsChunk(s->base);
    while (segmentHolds(s, q) && q != m->top && q->head != kFencepostHead) {
      if (!cinuse(q)) {
        w.freeBytes += chunkSize(q);
        ++w.freeChunks;
      }
      q = nextChunk(q);
    }
  }
  return w;
}

}  // namespace
}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

mspace_mallinfo_record mspace_mallinfo(mspace msp) {
  if (!okMagic(msp)) usageError();
  mspace_mallinfo_record r{};
  if (msp->top != nullptr) {
    const Walk w = walkFreeChunks(msp);
    const size_t mfree = msp->topsize + kTopFootSize + w.freeBytes;
    r.arena = msp->footprint - msp->direct_bytes;
    r.ordblks = w.freeChunks + 1;  // the top counts as one
    r.hblkhd = msp->direct_bytes;
    r.usmblks = msp->max_footprint;
    r.uordblks = msp->footprint - mfree;
    r.fordblks = mfree;
    r.keepcost = msp->topsize;
  }
  return r;
}

void mspace_malloc_stats(mspace msp) {
  if (!okMagic(msp)) usageError();
  size_t maxfp = 0;
  size_t fp = 0;
  size_t used = 0;
  if (msp->top != nullptr) {
    maxfp = msp->max_footprint;
    fp = msp->footprint;
    used = fp - (msp->topsize + kTopFootSize) - walkFreeChunks(msp).freeBytes;
  }
  std::fprintf(stderr, "max system bytes = %10lu\n", static_cast<unsigned long>(maxfp));
  std::fprintf(stderr, "system bytes     = %10lu\n", static_cast<unsigned long>(fp));
  std::fprintf(stderr, "in use bytes     = %10lu\n", static_cast<unsigned long>(used));
}

// The usage-error action of these two runs unconditionally, so they never
// return; callers get the numbers from mspace_mallinfo.
unsigned long mspace_footprint(mspace /*msp*/) { usageError(); }
unsigned long mspace_max_footprint(mspace /*msp*/) { usageError(); }

int mspace_mallopt(int param, int value) {
  ensureParams();
  const size_t val = static_cast<size_t>(static_cast<long>(value));  // -1 becomes all bits set
  switch (param) {
    case kMspaceTrimThreshold:
      gParams.trim_threshold.store(val, std::memory_order_relaxed);
      return 1;
    case kMspaceGranularity:
      if (val >= gParams.page_size.load(std::memory_order_relaxed) && (val & (val - 1)) == 0) {
        gParams.granularity.store(val, std::memory_order_relaxed);
        return 1;
      }
      return 0;
    case kMspaceMmapThreshold:
      gParams.mmap_threshold.store(val, std::memory_order_relaxed);
      return 1;
    default:
      return 0;
  }
}

}  // extern "C"
}  // namespace kestrel
