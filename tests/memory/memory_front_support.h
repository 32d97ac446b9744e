// Helpers shared by the tests of the memory front and the pools.
#pragma once

#include <gtest/gtest.h>

#include <climits>

#include "kestrel/memory.h"

// A sanitizer runtime that replaces the global operator new/delete takes the
// plain forms away from libbase; tests of their routing skip themselves.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define KESTREL_GLOBAL_NEW_REPLACED 1
#else
#define KESTREL_GLOBAL_NEW_REPLACED 0
#endif

#define SKIP_IF_GLOBAL_NEW_REPLACED()                                                 \
  do {                                                                                \
    if (KESTREL_GLOBAL_NEW_REPLACED) GTEST_SKIP() << "a sanitizer owns operator new"; \
  } while (0)

namespace memtest {

inline constexpr unsigned long kFourMiB = 0x400000;

// A pool of its own and one manager on it. The manager holds the second
// reference; the creator's is dropped by deleting the pool after it.
struct OwnPool {
  kestrel::MemoryPool* pool = new kestrel::MemoryPool("test", kFourMiB);
  kestrel::HeapManager* manager = new kestrel::HeapManager(pool);
  OwnPool() = default;
  OwnPool(const OwnPool&) = delete;
  OwnPool& operator=(const OwnPool&) = delete;
  ~OwnPool() {
    delete manager;
    delete pool;
  }
};

// Pool counters of MemInfo, to compare before and after.
struct PoolCounters {
  unsigned bytes = kestrel::MemInfo::getPoolBytes();
  unsigned allocs = kestrel::MemInfo::getPoolAllocs();
};

}  // namespace memtest
