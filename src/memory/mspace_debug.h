// Internal interface of the mspace allocator for its tests and benchmark: the
// consistency checker, a snapshot of the process-wide parameters and a hook to
// replace the unmapping function. Not part of the public API: the checker and
// the parameters are in the test-only library kestrel_mspace_testing (never in
// libbase.so); the unmap hook is inline, so that a program linked against
// libbase.so can use it on the mspaces it creates.
#pragma once

#include <cstddef>
#include <string>

#include "kestrel/memory.h"
#include "memory/mspace_layout.h"

namespace kestrel::internal {

// Layout numbers for outside observers.
using mspace_detail::kDirectMapExtra;  // direct map request: chunk size + this, granularity-aligned
using mspace_detail::kSegmentMapExtra;  // segment request: chunk size + this, granularity-aligned
using mspace_detail::kTopFootSize;
using mspace_detail::requestToSize;  // the normalised chunk size of a request

struct MspaceParams {
  std::size_t page_size;
  std::size_t granularity;
  std::size_t trim_threshold;
  std::size_t mmap_threshold;
};

// The current process-wide parameters (initialising them if needed).
MspaceParams mspaceParams();

// Walks every segment and every bin of msp and verifies the allocator's
// invariants. Returns an empty string when all hold, else a description of
// the first one found broken.
std::string mspaceCheckConsistency(mspace msp);

// As create_mspace, with every system-memory call (the first region's mapping
// included) going to the given functions and context, as create_mspace's
// defaults would if the system placed the mappings that way.
mspace mspaceCreateMapped(unsigned long capacity, mspace_mmap_func segment_mmap,
                          mspace_mmap_func direct_mmap, mspace_munmap_func munmap, void* context);

// Replaces the unmapping function of msp (the public API keeps the default).
inline void mspaceSetUnmapFunction(mspace msp, mspace_munmap_func fn) {
  msp->munmap = fn;
}

}  // namespace kestrel::internal
