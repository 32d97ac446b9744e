// Pools from several threads: concurrent allocation through one manager,
// frees on another thread than the allocating one, and ownership tests
// while other threads create and destroy pools.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "kestrel/memory.h"

namespace {

using kestrel::HeapManager;
using kestrel::MemoryPool;

constexpr int kThreads = 4;
constexpr int kBlocksPerThread = 2000;

struct Block {
  unsigned char* data;
  unsigned long size;
  unsigned char fill;
};

std::vector<Block> allocateFilled(HeapManager& mgr, int thread) {
  std::vector<Block> blocks;
  blocks.reserve(kBlocksPerThread);
  for (int i = 0; i < kBlocksPerThread; ++i) {
    const unsigned long size = 16 + static_cast<unsigned long>((i * 37 + thread * 11) % 500);
    auto* data = static_cast<unsigned char*>(kestrel::doNew(size, &mgr));
    if (data == nullptr) break;
    const auto fill = static_cast<unsigned char>(thread * 31 + i);
    std::memset(data, fill, size);
    blocks.push_back({data, size, fill});
  }
  return blocks;
}

bool intact(const Block& b) {
  for (unsigned long i = 0; i < b.size; ++i)
    if (b.data[i] != b.fill) return false;
  return true;
}

TEST(MemoryPoolThreads, ConcurrentAllocationAndCrossThreadFrees) {
  MemoryPool* pool = new MemoryPool("threads", 0x400000);
  const unsigned poolBytesBefore = kestrel::MemInfo::getPoolBytes();
  const unsigned poolAllocsBefore = kestrel::MemInfo::getPoolAllocs();
  {
    HeapManager mgr(pool);
    std::vector<std::vector<Block>> owned(kThreads);
    std::vector<std::thread> crew;
    for (int t = 0; t < kThreads; ++t)
      crew.emplace_back([&, t] { owned[t] = allocateFilled(mgr, t); });
    for (std::thread& th : crew) th.join();
    crew.clear();

    unsigned long total = 0;
    for (const auto& list : owned) {
      ASSERT_EQ(list.size(), static_cast<std::size_t>(kBlocksPerThread));
      for (const Block& b : list) total += b.size;
    }
    EXPECT_EQ(mgr.getAllocatedSize(), total);
    EXPECT_EQ(pool->getAllocatedMemory(), total);
    EXPECT_EQ(kestrel::MemInfo::getPoolBytes() - poolBytesBefore, total);
    EXPECT_EQ(kestrel::MemInfo::getPoolAllocs() - poolAllocsBefore,
              static_cast<unsigned>(kThreads * kBlocksPerThread));

    // Each thread verifies and frees the blocks another thread allocated,
    // while allocating and freeing blocks of its own.
    std::atomic<int> damaged{0};
    for (int t = 0; t < kThreads; ++t) {
      crew.emplace_back([&, t] {
        std::vector<Block> mine = allocateFilled(mgr, t + kThreads);
        for (const Block& b : owned[(t + 1) % kThreads]) {
          if (!MemoryPool::isPointerFromPool(b.data) || !intact(b)) ++damaged;
          kestrel::Free(b.data);
        }
        for (const Block& b : mine) {
          if (!intact(b)) ++damaged;
          kestrel::doDelete(b.data, nullptr);
        }
      });
    }
    for (std::thread& th : crew) th.join();
    EXPECT_EQ(damaged.load(), 0);
    EXPECT_EQ(mgr.getAllocatedSize(), 0u);
    EXPECT_EQ(pool->getAllocatedMemory(), 0u);
    EXPECT_EQ(kestrel::MemInfo::getPoolBytes(), poolBytesBefore);
    EXPECT_EQ(kestrel::MemInfo::getPoolAllocs(), poolAllocsBefore);
  }
  delete pool;
}

TEST(MemoryPoolThreads, OwnershipStaysExactWhilePoolsComeAndGo) {
  MemoryPool* pool = new MemoryPool("steady", 0x400000);
  const kestrel::MMapRange r = pool->getRanges().at(0);
  const unsigned poolBytesBefore = kestrel::MemInfo::getPoolBytes();
  std::atomic<bool> done{false};
  std::atomic<int> churned{0};
  std::thread churn([&] {
    for (int i = 0; i < 200; ++i) {
      MemoryPool* transient = new MemoryPool("transient", 0x400000);
      HeapManager* mgr = new HeapManager(transient);
      void* block = mgr->alloc(64);
      if (block == nullptr || !MemoryPool::isPointerFromPool(block)) break;
      kestrel::Free(block);
      delete mgr;
      delete transient;
      ++churned;
    }
    done = true;
  });
  int local = 0;
  void* heap = std::malloc(128);
  int wrong = 0;
  // Reads until the bounded churn has finished (and at least 20000 times).
  for (int i = 0; i < 20000 || !done.load(); ++i) {
    wrong += !MemoryPool::isPointerFromPool(r.start);
    wrong += !MemoryPool::isPointerFromPool(r.start + r.size - 1);
    wrong += MemoryPool::isPointerFromPool(r.start + r.size);
    wrong += MemoryPool::isPointerFromPool(r.start - 1);
    wrong += MemoryPool::isPointerFromPool(&local);
    wrong += MemoryPool::isPointerFromPool(heap);
    // The pool counters sum over the pools being created and destroyed.
    if (i % 256 == 0) wrong += kestrel::MemInfo::getPoolBytes() - poolBytesBefore > 64;
  }
  churn.join();
  std::free(heap);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(churned.load(), 200);
  EXPECT_EQ(kestrel::MemInfo::getPoolBytes(), poolBytesBefore);
  delete pool;
}

}  // namespace
