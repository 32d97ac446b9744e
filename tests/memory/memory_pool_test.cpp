// Memory pools: 4 MiB mappings seen through the callbacks, the exact bounds
// of isPointerFromPool, reference counting and the default pool, and heap
// buffers.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstdint>
#include <fstream>
#include <string>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "kestrel/memory.h"
#include "memory/memory_front_support.h"

namespace {

using kestrel::HeapBuffer;
using kestrel::HeapManager;
using kestrel::MemoryPool;
using kestrel::MMapRange;
using memtest::kFourMiB;
using memtest::OwnPool;

int gStaticDatum = 1;

bool recordedGlobally(const MMapRange& range) {
  for (const MMapRange& r : MemoryPool::getAllRanges())
    if (r.start == range.start && r.size == range.size) return true;
  return false;
}

TEST(MemoryPool, MapsItsMemoryIn4MiBAlignedRecordedRanges) {
  OwnPool own;
  QList<MMapRange> ranges = own.pool->getRanges();
  ASSERT_EQ(ranges.size(), 1);  // the initial region
  EXPECT_EQ(ranges[0].size, kFourMiB);
  EXPECT_EQ(reinterpret_cast<std::uintptr_t>(ranges[0].start) % kFourMiB, 0u);
  EXPECT_TRUE(recordedGlobally(ranges[0]));

  // More than the initial region: the mspace grows by granularity-aligned
  // mappings of 4 MiB steps, each recorded.
  std::vector<void*> blocks;
  for (int i = 0; i < 40; ++i) blocks.push_back(own.manager->alloc(256 * 1024));
  ranges = own.pool->getRanges();
  ASSERT_GE(ranges.size(), 3);
  for (const MMapRange& r : ranges) {
    EXPECT_EQ(r.size % kFourMiB, 0u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(r.start) % kFourMiB, 0u);
    EXPECT_TRUE(recordedGlobally(r));
  }
  for (void* b : blocks) {
    ASSERT_NE(b, nullptr);
    EXPECT_TRUE(MemoryPool::isPointerFromPool(b));
    kestrel::Free(b);
  }
  EXPECT_EQ(own.pool->getRanges().size(), ranges.size());  // never trimmed while alive
}

TEST(MemoryPool, OwnershipBoundsAreExact) {
  std::vector<MMapRange> gone;
  {
    OwnPool own;
    const MMapRange r = own.pool->getRanges().at(0);
    EXPECT_TRUE(MemoryPool::isPointerFromPool(r.start));
    EXPECT_TRUE(MemoryPool::isPointerFromPool(r.start + r.size - 1));
    EXPECT_FALSE(MemoryPool::isPointerFromPool(r.start + r.size));
    EXPECT_FALSE(MemoryPool::isPointerFromPool(r.start - 1));
    gone.push_back(r);
  }
  int onStack = 0;
  void* onHeap = std::malloc(64);
  EXPECT_FALSE(MemoryPool::isPointerFromPool(&onStack));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(&gStaticDatum));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(onHeap));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(nullptr));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(reinterpret_cast<void*>(~std::uintptr_t{0})));
  std::free(onHeap);
  // A destroyed pool's ranges are forgotten.
  EXPECT_FALSE(MemoryPool::isPointerFromPool(gone[0].start));
  EXPECT_FALSE(recordedGlobally(gone[0]));
}

TEST(MemoryPool, PartialRegionCoversOnlyItsOwnBytes) {
  // A pool size that is not a multiple of 4 MiB: the range ends inside its
  // 4 MiB slot and the rest of the slot is not pool memory.
  MemoryPool* pool = new MemoryPool("odd", 100000);
  const MMapRange r = pool->getRanges().at(0);
  EXPECT_EQ(r.size, 100000u);
  EXPECT_TRUE(MemoryPool::isPointerFromPool(r.start + 99999));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(r.start + 100000));
  {
    HeapManager mgr(pool);
    void* block = mgr.alloc(1000);
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(MemoryPool::isPointerFromPool(block));
    kestrel::Free(block);
    EXPECT_EQ(mgr.getAllocatedSize(), 0u);
  }
  delete pool;
}

TEST(MemoryPool, CallbacksRecordAndForgetByStart) {
  OwnPool own;
  void* mapped = MemoryPool::mmapCB(kFourMiB, own.pool);
  ASSERT_NE(mapped, reinterpret_cast<void*>(~0UL));
  EXPECT_EQ(own.pool->getRanges().size(), 2);
  EXPECT_TRUE(MemoryPool::isPointerFromPool(mapped));
  // An unknown start leaves the lists as they are.
  void* elsewhere = MemoryPool::directMmapCB(kFourMiB, own.pool);
  ASSERT_NE(elsewhere, reinterpret_cast<void*>(~0UL));
  EXPECT_EQ(MemoryPool::munmapCB(static_cast<char*>(elsewhere), kFourMiB, own.pool), 0);
  // The size is not compared: the entry starting there goes.
  EXPECT_EQ(MemoryPool::munmapCB(static_cast<char*>(mapped), 1, own.pool), 0);
  EXPECT_EQ(own.pool->getRanges().size(), 1);
  EXPECT_FALSE(MemoryPool::isPointerFromPool(mapped));
  EXPECT_FALSE(MemoryPool::isPointerFromPool(elsewhere));
  EXPECT_EQ(MemoryPool::sbreakCB(4096, own.pool), reinterpret_cast<void*>(~0UL));
}

TEST(MemoryPool, AbsurdMappingIsNotRecorded) {
  OwnPool own;
  EXPECT_EQ(MemoryPool::mmapCB(ULONG_MAX - 4096, own.pool), reinterpret_cast<void*>(~0UL));
  EXPECT_EQ(own.pool->getRanges().size(), 1);
}

TEST(MemoryPool, APoolWhoseFirstMappingFailedServesNothingAndCountsNothing) {
  auto* pool = new MemoryPool("unmapped", ULONG_MAX - 4096);
  EXPECT_TRUE(pool->getRanges().isEmpty());
  {
    HeapManager mgr(pool);
    for (unsigned long size : {0UL, 16UL, 400UL, 5000UL}) {
      EXPECT_EQ(mgr.alloc(size), nullptr) << size;
      EXPECT_EQ(kestrel::doNew(size, &mgr), nullptr) << size;
    }
    EXPECT_EQ(pool->malloc(16), nullptr);
    mgr.free(nullptr);  // does nothing
    EXPECT_EQ(mgr.getAllocatedSize(), 0u);
    EXPECT_EQ(pool->getAllocatedMemory(), 0u);
    EXPECT_EQ(pool->getStats().uordblks, 0u);
  }
  delete pool;
}

#if !defined(KESTREL_SANITIZED)
// With the address space limited to 32 MiB more than the process has, a
// pool runs out of mappings. Exits 0 when small and large requests then get
// null, the blocks served are counted exactly, and they can all be freed.
[[noreturn]] void exhaustPool() {
  std::ifstream status("/proc/self/status");
  unsigned long vmKiB = 0;
  for (std::string line; std::getline(status, line);)
    if (line.rfind("VmSize:", 0) == 0) vmKiB = std::stoul(line.substr(7));
  rlimit limit{};
  limit.rlim_cur = limit.rlim_max = (vmKiB << 10) + (32UL << 20);
  setrlimit(RLIMIT_AS, &limit);
  auto* pool = new MemoryPool("exhausted", kFourMiB);
  bool ok = true;
  {
    HeapManager mgr(pool);
    std::vector<void*> blocks;
    blocks.reserve(2000000);
    while (blocks.size() < 2000000) {
      void* p = mgr.alloc(32);
      if (p == nullptr) break;
      blocks.push_back(p);
    }
    ok = blocks.size() < 2000000 && mgr.alloc(32) == nullptr && mgr.alloc(5000) == nullptr &&
         mgr.getAllocatedSize() == 32 * blocks.size();
    // The last blocks freed wait in this thread's cache; a request of
    // another size gets their room back.
    for (int i = 0; i < 100; ++i) {
      kestrel::Free(blocks.back());
      blocks.pop_back();
    }
    void* larger = mgr.alloc(1000);
    ok = ok && larger != nullptr;
    kestrel::Free(larger);
    for (void* p : blocks) kestrel::Free(p);
    ok = ok && mgr.getAllocatedSize() == 0 && mgr.alloc(32) != nullptr;
  }
  std::exit(ok ? 0 : 1);
}
#endif

TEST(HeapManager, AnExhaustedPoolAnswersNullAndCountsOnlyWhatItServed) {
#if defined(KESTREL_SANITIZED)
  GTEST_SKIP() << "an address-space limit breaks the sanitizer's shadow memory";
#else
  EXPECT_EXIT(exhaustPool(), ::testing::ExitedWithCode(0), "");
#endif
}

TEST(HeapManager, NullPoolSharesTheDefaultPoolThatOutlivesItsManagers) {
  MemoryPool* shared = nullptr;
  {
    HeapManager a(nullptr);
    HeapManager b(nullptr);
    EXPECT_EQ(a.getPool(), b.getPool());
    shared = a.getPool();
    EXPECT_EQ(shared, HeapManager::sDefaultPool);
    EXPECT_EQ(shared->getName(), QStringLiteral("default"));
    EXPECT_GE(shared->getRefCount(), 3);
  }
  EXPECT_EQ(HeapManager::sDefaultPool, shared);
  EXPECT_GE(shared->getRefCount(), 1);
  HeapManager again(nullptr);
  void* block = again.alloc(32);  // the pool still serves
  ASSERT_NE(block, nullptr);
  kestrel::Free(block);
}

TEST(HeapManager, ManagersCountReferencesAndLeaveTheCreatorsReference) {
  MemoryPool* pool = new MemoryPool("counted", kFourMiB);
  const MMapRange r = pool->getRanges().at(0);
  EXPECT_EQ(pool->getRefCount(), 1);
  {
    HeapManager first(pool);
    HeapManager second(pool);
    EXPECT_EQ(pool->getRefCount(), 3);
  }
  EXPECT_EQ(pool->getRefCount(), 1);  // count 2 -> 1 did not delete it
  EXPECT_TRUE(MemoryPool::isPointerFromPool(r.start));
  delete pool;
  EXPECT_FALSE(MemoryPool::isPointerFromPool(r.start));
}

TEST(HeapBuffer, AppendsUpToItsCapacityAndNeverGrows) {
  OwnPool own;
  const char bytes[] = "0123456789A";
  for (HeapManager* mgr : {own.manager, static_cast<HeapManager*>(nullptr)}) {
    HeapBuffer buffer(mgr, 10, 77);
    EXPECT_EQ(buffer.extra(), 77u);
    EXPECT_EQ(buffer.count(), 1);
    EXPECT_EQ(MemoryPool::isPointerFromPool(buffer.data()), mgr != nullptr);
    EXPECT_TRUE(buffer.appendData(nullptr, 5));
    EXPECT_TRUE(buffer.appendData(bytes, 0));
    EXPECT_EQ(buffer.used(), 0u);
    EXPECT_TRUE(buffer.appendData(bytes, 4));
    EXPECT_TRUE(buffer.appendData(bytes + 4, 6));
    EXPECT_FALSE(buffer.appendData(bytes + 10, 1));
    EXPECT_FALSE(buffer.appendData(bytes, ULONG_MAX));  // would wrap used + length
    EXPECT_EQ(buffer.used(), 10u);
    EXPECT_EQ(std::memcmp(buffer.data(), bytes, 10), 0);
  }
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);  // the destructor gave it back
}

TEST(HeapBuffer, UnservableCapacityRefusesEveryAppend) {
  OwnPool own;
  HeapBuffer buffer(own.manager, ULONG_MAX - 4, 0);
  EXPECT_EQ(buffer.data(), nullptr);
  EXPECT_FALSE(buffer.appendData("x", 1));
  EXPECT_EQ(buffer.used(), 0u);
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
}

}  // namespace
