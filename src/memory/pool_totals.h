// The pool counters of the HeapManager path. Each pool keeps its own under
// its own lock, so that path shares no counter between pools or threads;
// MemInfo's pool counters add their sum over the live pools and what the
// destroyed pools left behind.
#pragma once

namespace kestrel::memory_detail {

struct PoolTotals {
  unsigned long bytes = 0;
  unsigned long allocs = 0;
};

// The counters of one pool (its fields), kept in the process-wide registry.
struct PoolCounters {
  const unsigned long* bytes;
  const unsigned long* allocs;
};

// Adds a pool's counters to the registry. Throws std::bad_alloc when the
// registry cannot grow (nothing added).
void registerPoolCounters(const PoolCounters& counters);
// Removes them, keeping their values in the totals.
void retirePoolCounters(const PoolCounters& counters);
// The sum over the registry and the retired values (wrap-around).
PoolTotals heapPathTotals();

}  // namespace kestrel::memory_detail
