// The memory front: routing of every release path to the block's true owner,
// exact accounting, absurd sizes, MemInfo, the "Memory" settings and
// CacheObserver.
#include <gtest/gtest.h>
#include <memory>
#include <vector>

#include <cstring>
#include <new>
#include <stdexcept>

#include "kestrel/memory.h"
#include "kestrel/settings.h"
#include "kestrel/system.h"
#include "memory/memory_front_support.h"

namespace {

using kestrel::HeapManager;
using kestrel::MemInfo;
using kestrel::MemoryManager;
using kestrel::MemoryObject;
using memtest::OwnPool;
using memtest::PoolCounters;

struct Node : MemoryObject {
  int value = 7;
};

struct Throws : MemoryObject {
  Throws() { throw std::runtime_error("constructor"); }
};

struct PlainThrows {
  PlainThrows() { throw std::runtime_error("constructor"); }
  char bytes[40];
};

// Called through a volatile pointer so that the compiler cannot assume that
// operator new never returns null.
void* (*volatile gPlainNew)(std::size_t) = &::operator new;
void* (*volatile gArrayNew)(std::size_t) = &::operator new[];
void* (*volatile gManagerNew)(std::size_t, MemoryManager*) = &::operator new;

TEST(MemoryFront, EveryManagerReleasePathReturnsTheBlockToItsManager) {
  OwnPool own;
  HeapManager& mgr = *own.manager;
  // Each path releases one block of 24 bytes; the manager must end at zero.
  kestrel::doDelete(kestrel::doNew(24, &mgr), nullptr);
  kestrel::Free(kestrel::Malloc(24, &mgr));
  kestrel::doDelete(kestrel::Calloc(24, &mgr), &mgr);
  ::operator delete(gManagerNew(24, &mgr), &mgr);
  ::operator delete[](::operator new[](24, &mgr), &mgr);
  Node* node = new (&mgr) Node;
  Node* nodes = new (&mgr) Node[3];
  EXPECT_TRUE(kestrel::MemoryPool::isPointerFromPool(node));
  EXPECT_GE(mgr.getAllocatedSize(), 4 * sizeof(Node));  // the array may add a count
  delete node;
  delete[] nodes;
  EXPECT_EQ(mgr.getAllocatedSize(), 0u);
  EXPECT_EQ(own.pool->getAllocatedMemory(), 0u);
}

TEST(MemoryFront, PlainDeleteOfAManagerBlockGoesToTheManager) {
  SKIP_IF_GLOBAL_NEW_REPLACED();
  OwnPool own;
  void* block = kestrel::doNew(100, own.manager);
  ASSERT_EQ(own.manager->getAllocatedSize(), 100u);
  ::operator delete(block);
  char* array = static_cast<char*>(::operator new[](50, own.manager));
  delete[] array;
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
}

TEST(MemoryFront, ThrowingConstructorReleasesToTheManager) {
  OwnPool own;
  EXPECT_THROW(new (own.manager) Throws, std::runtime_error);
  EXPECT_THROW(new (own.manager) PlainThrows, std::runtime_error);
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
}

TEST(MemoryFront, SystemAndNullBlocksIgnoreTheManagerArgument) {
  OwnPool own;
  void* block = kestrel::doNew(64, nullptr);
  ASSERT_NE(block, nullptr);
  EXPECT_FALSE(kestrel::MemoryPool::isPointerFromPool(block));
  kestrel::doDelete(block, own.manager);  // goes to the system free
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
  Node* node = new Node;  // MemoryObject without a manager: system heap
  EXPECT_FALSE(kestrel::MemoryPool::isPointerFromPool(node));
  delete node;
  // Releasing null does nothing, on every path.
  kestrel::Free(nullptr);
  kestrel::doDelete(nullptr, own.manager);
  ::operator delete(nullptr);
  ::operator delete[](nullptr);
  delete static_cast<Node*>(nullptr);
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
}

// A manager block is preceded by a header naming its manager and the size
// asked for, and stays aligned for any type.
TEST(MemoryFront, ManagerBlockCarriesItsHeaderAndARequestOfNCountsN) {
  OwnPool own;
  const PoolCounters before;
  void* a = kestrel::doNew(100, own.manager);
  void* b = own.manager->allocAligned(10, 64);
  EXPECT_EQ(own.manager->getAllocatedSize(), 110u);
  EXPECT_EQ(own.pool->getAllocatedMemory(), 110u);
  EXPECT_EQ(MemInfo::getPoolBytes() - before.bytes, 110u);
  EXPECT_EQ(MemInfo::getPoolAllocs() - before.allocs, 2u);
  for (void* block : {a, b}) {
    const auto* header = static_cast<unsigned long*>(block) - 2;
    EXPECT_EQ(reinterpret_cast<MemoryManager*>(header[0]), own.manager);
    EXPECT_EQ(header[1], block == a ? 100u : 10u);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignof(std::max_align_t), 0u);
  }
  kestrel::Free(a);
  kestrel::Free(b);
  EXPECT_EQ(MemInfo::getPoolBytes(), before.bytes);
  EXPECT_EQ(MemInfo::getPoolAllocs(), before.allocs);
}

// Destroying a pool does not release what its managers still hold, so those
// blocks stay in the pool counters.
TEST(MemoryFront, BlocksOutstandingWhenTheirPoolDiesStayCounted) {
  const PoolCounters before;
  {
    OwnPool own;
    ASSERT_NE(kestrel::doNew(40, own.manager), nullptr);
  }
  EXPECT_EQ(MemInfo::getPoolBytes() - before.bytes, 40u);
  EXPECT_EQ(MemInfo::getPoolAllocs() - before.allocs, 1u);
  MemInfo::ChangePoolBytes(-40, MemInfo::kFree);
}

TEST(MemoryFront, SizeZeroIsServedAsADistinctBlock) {
  OwnPool own;
  void* a = gPlainNew(0);
  void* b = gPlainNew(0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  ::operator delete(a);
  ::operator delete(b);
  void* fromManager = gManagerNew(0, own.manager);
  ASSERT_NE(fromManager, nullptr);
  EXPECT_EQ(own.manager->getAllocatedSize(), 1u);  // operator new asks for one byte
  kestrel::Free(fromManager);
  void* zero = kestrel::doNew(0, own.manager);
  ASSERT_NE(zero, nullptr);
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
  kestrel::Free(zero);
}

// Sizes whose header arithmetic would wrap, or that no allocator can serve.
const unsigned long kAbsurdSizes[] = {ULONG_MAX, ULONG_MAX - 15, ULONG_MAX - 16, ULONG_MAX / 2 + 1};

TEST(MemoryFront, AbsurdSizesReturnNullAndCountNothing) {
  OwnPool own;
  const PoolCounters before;
  for (unsigned long size : kAbsurdSizes) {
    SCOPED_TRACE(size);
    EXPECT_EQ(kestrel::doNew(size, own.manager), nullptr);
    EXPECT_EQ(kestrel::doNew(size, nullptr), nullptr);
    EXPECT_EQ(kestrel::Malloc(size, own.manager), nullptr);
    EXPECT_EQ(kestrel::Calloc(size, own.manager), nullptr);
    EXPECT_EQ(kestrel::Calloc(size, nullptr), nullptr);
    EXPECT_EQ(gManagerNew(size, own.manager), nullptr);
    EXPECT_EQ(MemoryObject::operator new(size, own.manager), nullptr);
    EXPECT_EQ(MemoryObject::operator new[](size, nullptr), nullptr);
    EXPECT_EQ(own.manager->allocAligned(size, 16), nullptr);
    if (!KESTREL_GLOBAL_NEW_REPLACED) {
      EXPECT_EQ(gPlainNew(size), nullptr);
      EXPECT_EQ(gArrayNew(size), nullptr);
    }
    EXPECT_EQ(::operator new(size, std::nothrow), nullptr);
  }
  EXPECT_EQ(own.manager->getAllocatedSize(), 0u);
  EXPECT_EQ(own.pool->getAllocatedMemory(), 0u);
  EXPECT_EQ(MemInfo::getPoolBytes(), before.bytes);
  EXPECT_EQ(MemInfo::getPoolAllocs(), before.allocs);
}

TEST(MemoryFront, ReallocAndCalloc) {
  char* grown = static_cast<char*>(kestrel::Realloc(nullptr, 8));
  ASSERT_NE(grown, nullptr);
  std::memcpy(grown, "abcdefg", 8);
  grown = static_cast<char*>(kestrel::Realloc(grown, 4096));
  ASSERT_NE(grown, nullptr);
  EXPECT_STREQ(grown, "abcdefg");
  kestrel::Free(grown);

  OwnPool own;
  // Dirty a block, release it, and take it back zeroed.
  auto* dirty = static_cast<unsigned char*>(kestrel::doNew(200, own.manager));
  std::memset(dirty, 0xAB, 200);
  kestrel::Free(dirty);
  auto* zeroed = static_cast<unsigned char*>(kestrel::Calloc(200, own.manager));
  ASSERT_NE(zeroed, nullptr);
  for (int i = 0; i < 200; ++i) ASSERT_EQ(zeroed[i], 0) << i;
  kestrel::Free(zeroed);
}

TEST(MemInfo, ChangeCountsAllocationsOnlyForAllocAndFree) {
  const unsigned bytes = MemInfo::getHeapBytes();
  const unsigned allocs = MemInfo::getHeapAllocs();
  EXPECT_EQ(MemInfo::ChangeHeapBytes(100, MemInfo::kAlloc), bytes + 100);
  EXPECT_EQ(MemInfo::getHeapAllocs(), allocs + 1);
  EXPECT_EQ(MemInfo::ChangeHeapBytes(100, static_cast<MemInfo::Operation>(2)), bytes + 200);
  EXPECT_EQ(MemInfo::getHeapAllocs(), allocs + 1);
  EXPECT_EQ(MemInfo::ChangeHeapBytes(-200, MemInfo::kFree), bytes);
  EXPECT_EQ(MemInfo::getHeapAllocs(), allocs);
  // Wrap-around arithmetic on the unsigned counters.
  const unsigned pool = MemInfo::getPoolBytes();
  EXPECT_EQ(
      MemInfo::ChangePoolBytes(-static_cast<int>(pool) - 1, static_cast<MemInfo::Operation>(5)),
      0xFFFFFFFFu);
  EXPECT_EQ(
      MemInfo::ChangePoolBytes(static_cast<int>(pool) + 1, static_cast<MemInfo::Operation>(5)),
      pool);
}

// Observers reading the counters' settings may rely on the order in which
// UpdateMemSettings writes them: the two arguments first, then the pool and
// the heap counters.
struct OrderObserver : kestrel::SettingObserver {
  OrderObserver(kestrel::Setting* setting, QStringList* seen)
      : SettingObserver(setting), name(setting->getName()), seen(seen) {}
  QString name;
  QStringList* seen;
  void onChanged(const kestrel::SettingEvent&) override { seen->append(name); }
  void onPreDelete(const kestrel::SettingEvent&) override {}
};

TEST(MemInfo, MemoryGroupMirrorsTheCountersArgumentsFirstThenPoolThenHeap) {
  kestrel::SettingGroup* group = kestrel::SettingGroup::getGroup(QStringLiteral("Memory"));
  ASSERT_NE(group, nullptr);
  const char* names[] = {"heapBytes",    "poolBytes",     "heapAllocs", "poolAllocs",
                         "alchemyBytes", "unpooledBytes", "qtBytes",    "qtAllocs"};
  ASSERT_EQ(group->getSettingCount(), 8);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(group->getSetting(i)->getName(), QLatin1String(names[i]));

  MemInfo::UpdateMemSettings(1, 2);
  OwnPool own;
  void* block = kestrel::doNew(1000, own.manager);  // changes the pool counters
  MemInfo::ChangeHeapBytes(5, MemInfo::kAlloc);     // and the heap counters
  QStringList seen;
  std::vector<std::unique_ptr<OrderObserver>> observers;
  for (int i = 0; i < 6; ++i)
    observers.push_back(std::make_unique<OrderObserver>(group->getSetting(i), &seen));
  MemInfo::UpdateMemSettings(1234, 5678);
  EXPECT_EQ(seen, QStringList({"alchemyBytes", "unpooledBytes", "poolBytes", "poolAllocs",
                               "heapBytes", "heapAllocs"}));
  auto value = [group](const char* name) {
    return static_cast<unsigned>(group->getSetting(QLatin1String(name))->getVal());
  };
  EXPECT_EQ(value("alchemyBytes"), 1234u);
  EXPECT_EQ(value("unpooledBytes"), 5678u);
  EXPECT_EQ(value("poolBytes"), MemInfo::getPoolBytes());
  EXPECT_EQ(value("poolAllocs"), MemInfo::getPoolAllocs());
  EXPECT_EQ(value("heapBytes"), MemInfo::getHeapBytes());
  EXPECT_EQ(value("heapAllocs"), MemInfo::getHeapAllocs());
  EXPECT_EQ(value("qtBytes"), 0u);
  MemInfo::UpdateMemSettings(1234, 5678);  // unchanged: no second notification
  EXPECT_EQ(seen.size(), 6);
  kestrel::Free(block);
  MemInfo::ChangeHeapBytes(-5, MemInfo::kFree);
}

// A global cache that records what it is told.
struct FakeCache : kestrel::GlobalCache {
  kestrel::CacheObserver* head = nullptr;
  bool offerList = true;
  int reclaimable = 0;
  int reports = 0;
  void changeReclaimableBytes(int delta) override {
    reclaimable += delta;
    ++reports;
  }
  kestrel::CacheObserver** getObserverList() override { return offerList ? &head : nullptr; }
};

struct FrameCache : kestrel::CacheObserver {
  explicit FrameCache(int frame) : frame(frame) {}
  int frame;
  void reclaim() override {}
  int lastUseFrame() override { return frame; }
  void purge() override {}
};

struct CacheFixture : ::testing::Test {
  FakeCache cache;
  void SetUp() override { kestrel::CacheObserver::sGlobalCache = &cache; }
  void TearDown() override { kestrel::CacheObserver::sGlobalCache = nullptr; }
};

TEST_F(CacheFixture, ObserversLinkAtTheFrontAndReportOnlyWhileReclaimable) {
  FrameCache a(1), b(2);
  EXPECT_EQ(cache.head, &b);
  EXPECT_EQ(b.nextInCache(), &a);
  EXPECT_EQ(cache.reports, 0);  // construction reports nothing
  a.changeUnpooledBytes(300);
  EXPECT_EQ(cache.reclaimable, 300);
  a.setIsReclaimable(false);
  EXPECT_EQ(cache.reclaimable, 0);
  EXPECT_EQ(b.nextInCache(), nullptr);
  EXPECT_EQ(a.cacheList(), nullptr);
  a.changeUnpooledBytes(50);  // not reclaimable: not reported
  EXPECT_EQ(cache.reclaimable, 0);
  EXPECT_EQ(a.getUnpooledBytes(), 350);
  a.setIsReclaimable(true);
  a.setIsReclaimable(true);  // the second call changes nothing
  EXPECT_EQ(cache.reclaimable, 350);
  EXPECT_EQ(cache.head, &a);
  EXPECT_EQ(a.nextInCache(), &b);
  b.setIsReclaimable(false);  // unlinks from the middle of the list
  EXPECT_EQ(a.nextInCache(), nullptr);
  // Unlinking from the middle must leave the neighbours linked both ways:
  // the last observer is then unlinked through its new predecessor.
  FrameCache c(3);            // c -> a
  b.setIsReclaimable(true);   // b -> c -> a
  c.setIsReclaimable(false);  // b -> a
  EXPECT_EQ(b.nextInCache(), &a);
  a.setIsReclaimable(false);  // b
  EXPECT_EQ(b.nextInCache(), nullptr);
  EXPECT_EQ(cache.head, &b);
}

TEST_F(CacheFixture, WithoutAGlobalCacheOnlyTheFlagChanges) {
  FrameCache a(1);
  kestrel::CacheObserver::sGlobalCache = nullptr;
  a.setIsReclaimable(false);
  a.setIsReclaimable(true);
  EXPECT_TRUE(a.isReclaimable());
  EXPECT_EQ(a.cacheList(), nullptr);
  EXPECT_EQ(cache.head, nullptr);
  EXPECT_EQ(cache.reports, 0);
}

TEST_F(CacheFixture, LruRejectsTheLastFourFramesAndKeepsTheOldest) {
  const int saved = kestrel::System::sCurFrame;
  kestrel::System::sCurFrame = 100;
  FrameCache recent(96), old(95), older(90), tie(90), none(-1);
  kestrel::CacheObserver::Event event;
  recent.getLru(event);
  EXPECT_EQ(event.candidate, nullptr);  // current frame - 4 is too recent
  old.getLru(event);
  EXPECT_EQ(event.candidate, &old);  // - 5 is accepted
  older.getLru(event);
  tie.getLru(event);  // a tie keeps the earlier candidate
  none.getLru(event);
  EXPECT_EQ(event.candidate, &older);
  EXPECT_EQ(event.oldestFrame, 90);

  kestrel::CacheObserver::Event any;
  any.ignoreAge = 1;
  older.getLru(any);
  recent.getLru(any);  // with ignoreAge the last one visited wins
  none.getLru(any);
  EXPECT_EQ(any.candidate, &recent);
  kestrel::System::sCurFrame = saved;
}

}  // namespace

#if defined(__SANITIZE_ADDRESS__)
// Absurd sizes reach the system malloc, which must answer null rather than
// stop the process.
extern "C" __attribute__((visibility("default"), used)) const char* __asan_default_options() {
  return "allocator_may_return_null=1";
}
#endif

#if defined(__SANITIZE_THREAD__)
// The same under the race detector, whose malloc replaces the system's.
extern "C" __attribute__((visibility("default"), used)) const char* __tsan_default_options() {
  return "allocator_may_return_null=1";
}
#endif
