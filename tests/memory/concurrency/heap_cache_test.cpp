// The per-thread caches of the HeapManager path: counts stay exact while
// other threads hold cached blocks, and cached blocks go back to their pool
// when the thread ends, when the manager dies, when the thread turns to a
// fifth manager, and when the caller asks for the pool's statistics.
#include <gtest/gtest.h>

#include <cstring>
#include <future>
#include <new>
#include <thread>
#include <vector>

#include "kestrel/memory.h"

namespace {

using kestrel::HeapManager;
using kestrel::MemInfo;
using kestrel::MemoryPool;

// A thread that runs `work`, stays alive until release(), then runs `then`.
class ParkedThread {
 public:
  template <class Work, class Then = void (*)()>
  explicit ParkedThread(Work work, Then then = [] {})
      : mThread([this, work, then] {
          work();
          mParked.set_value();
          mRelease.get_future().wait();
          then();
        }) {
    mParked.get_future().wait();
  }
  ~ParkedThread() { release(); }
  void release() {
    if (!mThread.joinable()) return;
    mRelease.set_value();
    mThread.join();
  }

 private:
  std::promise<void> mParked;
  std::promise<void> mRelease;
  std::thread mThread;
};

// Small blocks of assorted sizes, all served by the cache.
std::vector<void*> allocateSmall(HeapManager& mgr, int count, unsigned long* bytes) {
  std::vector<void*> blocks;
  for (int i = 0; i < count; ++i) {
    const unsigned long size = 1 + static_cast<unsigned long>(i * 29 % 400);
    blocks.push_back(mgr.alloc(size));
    *bytes += size;
  }
  return blocks;
}

// In-use bytes of the pool as seen from a thread that has no cached block
// of it (getStats hands back only the caller's own).
unsigned long inUseSeenFromElsewhere(MemoryPool* pool) {
  unsigned long inUse = 0;
  std::thread([&] { inUse = pool->getStats().uordblks; }).join();
  return inUse;
}

// Built before its thread's first HeapManager call, so destroyed after the
// thread's cache has gone: its requests take the locked path.
struct LateUser {
  HeapManager* mgr = nullptr;
  void* kept = nullptr;
  void* neighbour = nullptr;
  unsigned long counted = 0;
  ~LateUser();
};
thread_local LateUser tLateUser;
LateUser* gLateResult = nullptr;

LateUser::~LateUser() {
  if (mgr == nullptr) return;
  kestrel::Free(mgr->alloc(100));
  gLateResult->kept = mgr->alloc(24);
  gLateResult->neighbour = mgr->alloc(24);
  gLateResult->counted = mgr->getAllocatedSize();
}

TEST(HeapManagerCache, AThreadIsServedAndCountedAfterItsCacheIsGone) {
  MemoryPool* pool = new MemoryPool("late", 0x400000);
  const unsigned long empty = pool->getStats().uordblks;
  {
    HeapManager mgr(pool);
    LateUser result;
    gLateResult = &result;
    std::thread([&] {
      tLateUser.mgr = &mgr;
      unsigned long bytes = 0;
      for (void* p : allocateSmall(mgr, 100, &bytes)) kestrel::Free(p);
    }).join();
    ASSERT_NE(result.kept, nullptr);
    ASSERT_NE(result.neighbour, nullptr);
    EXPECT_EQ(result.counted, 48u);
    EXPECT_EQ(mgr.getAllocatedSize(), 48u);
    // The first block now joins this thread's cache, and must hold any
    // request of its size class (24 and 32 bytes share one): the locked path
    // sizes small blocks by class too, or filling it would overwrite the
    // pool's record of the block after it.
    kestrel::Free(result.kept);
    void* reused = mgr.alloc(32);
    ASSERT_EQ(reused, result.kept);
    std::memset(reused, 0xab, 32);
    kestrel::Free(reused);
    kestrel::Free(result.neighbour);
    EXPECT_EQ(mgr.getAllocatedSize(), 0u);
    EXPECT_EQ(pool->getStats().uordblks, empty);
  }
  delete pool;
}

TEST(HeapManagerCache, CountsStayExactWhileOtherThreadsHoldCachedBlocks) {
  MemoryPool* pool = new MemoryPool("counts", 0x400000);
  const unsigned poolBytesBefore = MemInfo::getPoolBytes();
  const unsigned poolAllocsBefore = MemInfo::getPoolAllocs();
  {
    HeapManager mgr(pool);
    unsigned long bytes = 0;
    std::vector<void*> kept;
    ParkedThread worker([&] {
      unsigned long freed = 0;
      std::vector<void*> blocks = allocateSmall(mgr, 300, &bytes);
      for (std::size_t i = 0; i < blocks.size(); ++i) {
        if (i % 2 == 0) {
          freed += static_cast<unsigned long*>(blocks[i])[-1];  // the header's size word
          kestrel::Free(blocks[i]);
        } else {
          kept.push_back(blocks[i]);
        }
      }
      bytes -= freed;
    });
    // The worker's counts sit in its cache slot, and the readers add them.
    EXPECT_EQ(mgr.getAllocatedSize(), bytes);
    EXPECT_EQ(pool->getAllocatedMemory(), bytes);
    EXPECT_EQ(MemInfo::getPoolBytes() - poolBytesBefore, bytes);
    EXPECT_EQ(MemInfo::getPoolAllocs() - poolAllocsBefore, kept.size());

    // Freed here, counted here, while the worker still holds its counts.
    for (std::size_t i = 0; i < kept.size() / 2; ++i) {
      bytes -= static_cast<unsigned long*>(kept[i])[-1];
      kestrel::Free(kept[i]);
    }
    kept.erase(kept.begin(), kept.begin() + static_cast<long>(kept.size() / 2));
    EXPECT_EQ(mgr.getAllocatedSize(), bytes);
    EXPECT_EQ(MemInfo::getPoolAllocs() - poolAllocsBefore, kept.size());

    // The worker ends: its counts are folded into the manager and the pool.
    worker.release();
    EXPECT_EQ(mgr.getAllocatedSize(), bytes);
    EXPECT_EQ(pool->getAllocatedMemory(), bytes);
    EXPECT_EQ(MemInfo::getPoolBytes() - poolBytesBefore, bytes);
    EXPECT_EQ(MemInfo::getPoolAllocs() - poolAllocsBefore, kept.size());
    for (void* p : kept) kestrel::Free(p);
    EXPECT_EQ(mgr.getAllocatedSize(), 0u);
  }
  EXPECT_EQ(MemInfo::getPoolBytes(), poolBytesBefore);
  EXPECT_EQ(MemInfo::getPoolAllocs(), poolAllocsBefore);
  delete pool;
}

TEST(HeapManagerCache, CachedBlocksGoBackWhenTheirThreadEndsOrTheCallerAsksForStats) {
  MemoryPool* pool = new MemoryPool("ending", 0x400000);
  const unsigned long empty = pool->getStats().uordblks;
  {
    HeapManager mgr(pool);
    std::thread([&] {
      unsigned long bytes = 0;
      for (void* p : allocateSmall(mgr, 500, &bytes)) kestrel::Free(p);
    }).join();
    EXPECT_EQ(inUseSeenFromElsewhere(pool), empty);

    // The caller's own cached blocks are handed back before the figures.
    unsigned long bytes = 0;
    for (void* p : allocateSmall(mgr, 500, &bytes)) kestrel::Free(p);
    EXPECT_EQ(pool->getStats().uordblks, empty);
  }
  delete pool;
}

TEST(HeapManagerCache, DestroyingAManagerTakesBackTheBlocksOfLiveThreads) {
  MemoryPool* pool = new MemoryPool("managers", 0x400000);
  const unsigned long empty = pool->getStats().uordblks;
  auto* mgr = new HeapManager(pool);
  ParkedThread worker([&] {
    unsigned long bytes = 0;
    for (void* p : allocateSmall(*mgr, 500, &bytes)) kestrel::Free(p);
  });
  delete mgr;  // the pool keeps its creator's reference
  EXPECT_EQ(inUseSeenFromElsewhere(pool), empty);

  // A new manager, maybe at the same address, starts with nothing of the
  // old one's: the worker's slot was emptied, not inherited.
  HeapManager* next = new HeapManager(pool);
  EXPECT_EQ(next->getAllocatedSize(), 0u);
  worker.release();  // ends without touching the dead manager's slot
  EXPECT_EQ(next->getAllocatedSize(), 0u);
  EXPECT_EQ(pool->getStats().uordblks, empty);
  delete next;
  delete pool;
}

TEST(HeapManagerCache, AFifthManagerMakesTheThreadHandBackTheOldestSlot) {
  constexpr int kManagers = 5;
  std::vector<MemoryPool*> pools;
  std::vector<HeapManager*> managers;
  std::vector<unsigned long> empty;
  for (int i = 0; i < kManagers; ++i) {
    pools.push_back(new MemoryPool("slots", 0x400000));
    managers.push_back(new HeapManager(pools.back()));
    empty.push_back(pools.back()->getStats().uordblks);
  }
  unsigned long total = 0;
  std::vector<void*> live;
  ParkedThread worker([&] {
    for (HeapManager* mgr : managers) {
      unsigned long bytes = 0;
      std::vector<void*> blocks = allocateSmall(*mgr, 40, &bytes);
      live.push_back(blocks.back());
      total += static_cast<unsigned long*>(blocks.back())[-1];
      blocks.pop_back();
      for (void* p : blocks) kestrel::Free(p);
    }
  });
  // The first manager's slot went back when the fifth one needed it: its
  // pool holds no more than once the worker has ended.
  const unsigned long firstWhileParked = inUseSeenFromElsewhere(pools[0]);
  unsigned long counted = 0;
  for (HeapManager* mgr : managers) counted += mgr->getAllocatedSize();
  EXPECT_EQ(counted, total);
  worker.release();
  EXPECT_EQ(firstWhileParked, pools[0]->getStats().uordblks);
  for (void* p : live) kestrel::Free(p);
  for (int i = 0; i < kManagers; ++i) {
    EXPECT_EQ(managers[i]->getAllocatedSize(), 0u);
    delete managers[i];
    EXPECT_EQ(pools[i]->getStats().uordblks, empty[i]);
    delete pools[i];
  }
}

TEST(HeapManagerCache, AThreadKeepsOnlyABoundedNumberOfFreedBlocks) {
  MemoryPool* pool = new MemoryPool("bounded", 0x400000);
  const unsigned long empty = pool->getStats().uordblks;
  {
    HeapManager mgr(pool);
    std::vector<void*> blocks;
    for (int i = 0; i < 2000; ++i) blocks.push_back(mgr.alloc(32));
    ParkedThread worker([&] {
      for (void* p : blocks) kestrel::Free(p);
    });
    // 2000 blocks (128,000 bytes of chunks) were freed there. Still in use
    // for the pool: at most a full list of the worker (128 blocks) and what
    // is left of this thread's last batch (under 64 blocks).
    EXPECT_LE(inUseSeenFromElsewhere(pool) - empty, 192u * 64u);
  }
  delete pool;
}

TEST(HeapManagerCache, APoolDestroyedUnderANeverDestroyedManagerLeavesNoSlotBehind) {
  auto* pool = new MemoryPool("orphan", 0x400000);
  const unsigned poolBytesBefore = MemInfo::getPoolBytes();
  // A manager that is never destroyed (so never touches the dead pool).
  alignas(HeapManager) static unsigned char storage[sizeof(HeapManager)];
  auto* mgr = new (storage) HeapManager(pool);
  void* kept = nullptr;
  MemoryPool* next = new MemoryPool("next", 0x400000);
  auto* nextManager = new HeapManager(next);
  ParkedThread worker(
      [&] {
        unsigned long bytes = 0;
        std::vector<void*> blocks = allocateSmall(*mgr, 50, &bytes);
        kept = blocks.back();
        blocks.pop_back();
        for (void* p : blocks) kestrel::Free(p);
      },
      [&] {
        // The same sizes again, from a slot that must not still hold the
        // dead pool's blocks.
        unsigned long bytes = 0;
        for (void* p : allocateSmall(*nextManager, 50, &bytes)) {
          EXPECT_TRUE(next->getRanges().at(0).start <= static_cast<char*>(p));
          kestrel::Free(p);
        }
      });
  const unsigned long keptSize = static_cast<unsigned long*>(kept)[-1];
  EXPECT_EQ(MemInfo::getPoolBytes() - poolBytesBefore, keptSize);
  delete pool;
  // The worker's slot went with the pool: the worker neither reuses nor
  // hands back the dead pool's blocks, and the count of the outstanding
  // block stays in the totals.
  worker.release();
  EXPECT_EQ(MemInfo::getPoolBytes() - poolBytesBefore, keptSize);
  EXPECT_EQ(nextManager->getAllocatedSize(), 0u);
  delete nextManager;
  delete next;
}

}  // namespace
