// The process-wide list of ranges mapped by memory pools, its lock, and the
// 4 MiB-aligned mapping that every pool range uses. Internal to the pools.
#pragma once

#include <vector>

#include "kestrel/memory.h"

namespace kestrel::memory_detail {

// The lock over the process-wide list and every pool's own list (taken after
// a pool's lock, never before). Created on first use, never destroyed.
SpinLock& rangeLock();

// Maps `size` bytes with `map` (a default mapping function of the mspace) so
// that the result starts on a 4 MiB boundary. Null on failure or when the
// size cannot be mapped.
char* mapAligned(mspace_mmap_func map, unsigned long size, void* context);

// With rangeLock() held: appends the range to the process-wide list, then to
// `own`, and marks it in the address table. Throws std::bad_alloc (nothing
// recorded) when a list cannot grow.
void recordRange(const MMapRange& range, QList<MMapRange>& own);

// With rangeLock() held: removes the first entry starting at `start` from
// the process-wide list and unmarks it (ranges still recorded keep their
// marks). False when there is none.
bool forgetRange(char* start);

// With rangeLock() held: removes the first entry starting at `start` from
// `own` (last entry moved into its place).
void forgetOwnRange(QList<MMapRange>& own, char* start);

// With rangeLock() held: a copy of the process-wide list.
std::vector<MMapRange> allRanges();

}  // namespace kestrel::memory_detail
