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
Walk walkFreeChunks(State* ms) {
  Walk walk;
  for (Segment* segment = &ms->seg; segment != nullptr; segment = segment->next) {
    Chunk* chunk = alignAsChunk(segment->base);
    while (segmentHolds(segment, chunk) && chunk != ms->top && chunk->head != kFencepostHead) {
      if (!cinuse(chunk)) {
        walk.freeBytes += chunkSize(chunk);
        ++walk.freeChunks;
      }
      chunk = nextChunk(chunk);
    }
  }
  return walk;
}

}  // namespace
}  // namespace mspace_detail

using namespace mspace_detail;

extern "C" {

mspace_mallinfo_record mspace_mallinfo(mspace msp) {
  if (!okMagic(msp)) usageError();
  mspace_mallinfo_record info{};
  if (msp->top != nullptr) {
    const Walk walk = walkFreeChunks(msp);
    const size_t freeBytes = msp->topsize + kTopFootSize + walk.freeBytes;
    info.arena = msp->footprint - msp->direct_bytes;
    info.ordblks = walk.freeChunks + 1;  // the top counts as one
    info.hblkhd = msp->direct_bytes;
    info.usmblks = msp->max_footprint;
    info.uordblks = msp->footprint - freeBytes;
    info.fordblks = freeBytes;
    info.keepcost = msp->topsize;
  }
  return info;
}

void mspace_malloc_stats(mspace msp) {
  if (!okMagic(msp)) usageError();
  size_t maxFootprint = 0;
  size_t footprint = 0;
  size_t used = 0;
  if (msp->top != nullptr) {
    maxFootprint = msp->max_footprint;
    footprint = msp->footprint;
    used = footprint - (msp->topsize + kTopFootSize) - walkFreeChunks(msp).freeBytes;
  }
  std::fprintf(stderr, "max system bytes = %10lu\n", static_cast<unsigned long>(maxFootprint));
  std::fprintf(stderr, "system bytes     = %10lu\n", static_cast<unsigned long>(footprint));
  std::fprintf(stderr, "in use bytes     = %10lu\n", static_cast<unsigned long>(used));
}

// The usage-error action of these two runs unconditionally, so they never
// return; callers get the numbers from mspace_mallinfo.
unsigned long mspace_footprint(mspace /*msp*/) {
  usageError();
}
unsigned long mspace_max_footprint(mspace /*msp*/) {
  usageError();
}

int mspace_mallopt(int param, int value) {
  ensureParams();
  const size_t setting = static_cast<size_t>(static_cast<long>(value));  // -1 becomes all bits set
  switch (param) {
    case kMspaceTrimThreshold:
      gParams.trim_threshold.store(setting, std::memory_order_relaxed);
      return 1;
    case kMspaceGranularity:
      if (setting >= gParams.page_size.load(std::memory_order_relaxed) &&
          (setting & (setting - 1)) == 0) {
        gParams.granularity.store(setting, std::memory_order_relaxed);
        return 1;
      }
      return 0;
    case kMspaceMmapThreshold:
      gParams.mmap_threshold.store(setting, std::memory_order_relaxed);
      return 1;
    default:
      return 0;
  }
}

}  // extern "C"
}  // namespace kestrel
