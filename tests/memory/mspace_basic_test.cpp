// Behaviour of the mspace entry points seen by a caller: creation limits,
// alignment, bad input, calloc/realloc/memalign/independent allocation,
// statistics and the process-wide parameters.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <map>
#include <random>
#include <set>
#include <utility>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;

constexpr std::size_t kMax = ~std::size_t{0};

class MspaceApi : public MspaceTest {
 protected:
  void SetUp() override {
    MspaceTest::SetUp();
    m_ = create_mspace(0, 0);
    ASSERT_NE(m_, nullptr);
  }
  void TearDown() override {
    if (m_ != nullptr) {
      EXPECT_MSPACE_CONSISTENT(m_);
      destroy_mspace(m_);
    }
    MspaceTest::TearDown();
  }
  mspace m_ = nullptr;
};

// ---- creation --------------------------------------------------------------

TEST_F(MspaceApi, CreateMapsCapacityPlusOverheadGranularityAligned) {
  // Capacity 0 asks for one granule, which the alignment rule turns into two.
  EXPECT_EQ(mspace_mallinfo(m_).arena, 2 * granularity());
  const std::size_t g = granularity();
  const struct {
    std::size_t capacity;
    std::size_t mapped;
  } cases[] = {
      {1, g},
      {g - kMspaceBaseOverhead - 1, g},
      {g - kMspaceBaseOverhead, 2 * g},  // exactly one granule gains another
      {3 * g, 4 * g},
  };
  for (const auto& c : cases) {
    mspace m = create_mspace(c.capacity, 1);
    ASSERT_NE(m, nullptr) << c.capacity;
    EXPECT_EQ(mspace_mallinfo(m).arena, c.mapped) << c.capacity;
    EXPECT_MSPACE_CONSISTENT(m);
    EXPECT_EQ(destroy_mspace(m), c.mapped) << c.capacity;
  }
  EXPECT_EQ(create_mspace(kMax - kMspaceBaseOverhead - pageSize(), 0), nullptr);
  EXPECT_EQ(create_mspace(kMax, 0), nullptr);
}

TEST_F(MspaceApi, CreateWithBaseCapacityBoundaryIsTheNamedOverhead) {
  alignas(16) static unsigned char buffer[8192];
  EXPECT_EQ(create_mspace_with_base(buffer, kMspaceBaseOverhead, 0), nullptr);
  EXPECT_EQ(create_mspace_with_base(buffer, 0, 0), nullptr);
  EXPECT_EQ(create_mspace_with_base(buffer, kMax - kMspaceBaseOverhead - pageSize(), 0), nullptr);

  mspace m = create_mspace_with_base(buffer, kMspaceBaseOverhead + 1, 0);
  ASSERT_NE(m, nullptr);
  EXPECT_MSPACE_CONSISTENT(m);
  // The region holds nothing beyond the bookkeeping, so the first block
  // comes from a new mapped segment; the buffer itself is never unmapped.
  void* p = mspace_malloc(m, 100);
  ASSERT_NE(p, nullptr);
  EXPECT_TRUE(p < static_cast<void*>(buffer) || p >= static_cast<void*>(buffer + sizeof buffer));
  Pattern::fill(p, 100, 3);
  EXPECT_MSPACE_CONSISTENT(m);
  mspace_free(m, p);
  EXPECT_MSPACE_CONSISTENT(m);
  EXPECT_GT(destroy_mspace(m), 0u);
  buffer[0] = buffer[kMspaceBaseOverhead] = 1;  // still ours

  // A base off the chunk alignment costs its padding.
  EXPECT_EQ(create_mspace_with_base(buffer + 8, kMspaceBaseOverhead + 1, 0), nullptr);
  mspace odd = create_mspace_with_base(buffer + 3, 4000, 0);
  ASSERT_NE(odd, nullptr);
  void* q = mspace_malloc(odd, 200);
  ASSERT_NE(q, nullptr);
  EXPECT_TRUE(isAligned(q, kMspaceAlignment));
  EXPECT_MSPACE_CONSISTENT(odd);
  EXPECT_EQ(destroy_mspace(odd), 0u);  // nothing was mapped
}

TEST_F(MspaceApi, CreateWithBaseCaNullFunctionsKeepDefaults) {
  alignas(16) static unsigned char buffer[4096];
  mspace m = create_mspace_with_base_ca(buffer, sizeof buffer, 0, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(m, nullptr);
  void* p = mspace_malloc(m, 100000);  // needs a segment from the default mapping function
  ASSERT_NE(p, nullptr);
  Pattern::fill(p, 100000, 9);
  EXPECT_MSPACE_CONSISTENT(m);
  EXPECT_GT(destroy_mspace(m), 100000u);
}

// ---- alignment and sizes ---------------------------------------------------

TEST_F(MspaceApi, EveryBlockIsAlignedAndUsable) {
  const std::size_t sizes[] = {0,   1,   7,   8,    15,   16,   17,    23,    24,     25,      31,
                               32,  33,  47,  48,   100,  231,  232,   233,   248,    255,     256,
                               257, 511, 512, 1000, 4095, 4096, 65536, 70000, 300000, 1 << 21, 5 << 20};
  std::vector<std::pair<void*, std::size_t>> blocks;
  unsigned seed = 0;
  for (int round = 0; round < 3; ++round) {
    for (std::size_t s : sizes) {
      void* p = mspace_malloc(m_, s);
      ASSERT_NE(p, nullptr) << s;
      EXPECT_TRUE(isAligned(p, kMspaceAlignment)) << s;
      Pattern::fill(p, s, ++seed);
      blocks.emplace_back(p, s);
    }
  }
  ASSERT_MSPACE_CONSISTENT(m_);
  std::set<void*> distinct;
  seed = 0;
  for (auto& [p, s] : blocks) {
    EXPECT_TRUE(Pattern::intact(p, s, ++seed)) << s;
    distinct.insert(p);
  }
  EXPECT_EQ(distinct.size(), blocks.size());
  for (std::size_t i = 0; i < blocks.size(); i += 2) mspace_free(m_, blocks[i].first);
  ASSERT_MSPACE_CONSISTENT(m_);
  for (std::size_t i = 1; i < blocks.size(); i += 2) mspace_free(m_, blocks[i].first);
  EXPECT_MSPACE_CONSISTENT(m_);
}

TEST_F(MspaceApi, MemalignRoundsAlignmentUpToAPowerOfTwo) {
  const struct {
    std::size_t requested;
    std::size_t guaranteed;
  } cases[] = {{0, 16},      {1, 16},      {8, 16},      {16, 16},           {17, 32},
               {24, 32},     {32, 32},     {48, 64},     {64, 64},           {100, 128},
               {1000, 1024}, {4096, 4096}, {5000, 8192}, {1 << 16, 1 << 16}, {(1 << 20) + 1, 1 << 21}};
  for (const auto& c : cases) {
    for (std::size_t bytes : {std::size_t{1}, std::size_t{40}, std::size_t{3000}}) {
      void* p = mspace_memalign(m_, c.requested, bytes);
      ASSERT_NE(p, nullptr) << c.requested;
      EXPECT_TRUE(isAligned(p, c.guaranteed)) << c.requested << " " << p;
      Pattern::fill(p, bytes, static_cast<unsigned>(bytes));
      ASSERT_MSPACE_CONSISTENT(m_) << c.requested << "/" << bytes;
      EXPECT_TRUE(Pattern::intact(p, bytes, static_cast<unsigned>(bytes)));
      mspace_free(m_, p);
    }
  }
}

TEST_F(MspaceApi, BadSizesFailCleanly) {
  void* keep = mspace_malloc(m_, 300);
  ASSERT_NE(keep, nullptr);
  Pattern::fill(keep, 300, 77);
  const auto before = mspace_mallinfo(m_);

  const std::size_t huge[] = {kMax, kMax - 100, kMax - 200, std::size_t{1} << 62};
  for (std::size_t s : huge) {
    errno = 0;
    EXPECT_EQ(mspace_malloc(m_, s), nullptr) << s;
    EXPECT_EQ(errno, ENOMEM) << s;
    errno = 0;
    EXPECT_EQ(mspace_memalign(m_, 64, s), nullptr) << s;
    EXPECT_EQ(errno, ENOMEM) << s;
    errno = 0;
    EXPECT_EQ(mspace_realloc(m_, keep, s), nullptr) << s;
    EXPECT_EQ(errno, ENOMEM) << s;
  }
  errno = 0;
  EXPECT_EQ(mspace_calloc(m_, std::size_t{1} << 33, std::size_t{1} << 33), nullptr);  // product overflows
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_EQ(mspace_memalign(m_, (std::size_t{1} << 63) + 1, 16), nullptr);  // cannot round up
  EXPECT_EQ(errno, ENOMEM);
  const unsigned long sizes[] = {kMax - 64, 64};
  errno = 0;
  EXPECT_EQ(mspace_independent_comalloc(m_, 2, sizes, nullptr), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_EQ(mspace_independent_calloc(m_, kMax / 4, 64, nullptr), nullptr);
  EXPECT_EQ(errno, ENOMEM);

  mspace_free(m_, nullptr);
  EXPECT_TRUE(Pattern::intact(keep, 300, 77));
  ASSERT_MSPACE_CONSISTENT(m_);
  const auto after = mspace_mallinfo(m_);
  EXPECT_EQ(after.uordblks, before.uordblks);
  EXPECT_EQ(after.arena, before.arena);
  void* more = mspace_malloc(m_, 1000);  // still serves
  EXPECT_NE(more, nullptr);
  mspace_free(m_, more);
  mspace_free(m_, keep);
}

TEST_F(MspaceApi, ZeroSizedRequestsGetDistinctMinimalBlocks) {
  void* a = mspace_malloc(m_, 0);
  void* b = mspace_malloc(m_, 0);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_NE(a, b);
  std::memset(a, 1, 16);  // a minimal block has room for at least this
  void* c = mspace_realloc(m_, a, 0);
  EXPECT_NE(c, nullptr);
  mspace_free(m_, b);
  mspace_free(m_, c);
}

TEST_F(MspaceApi, LargeRequestsTakeTheBestFittingFreeChunk) {
  // Free chunks of many sizes, each fenced by blocks in use so nothing
  // merges; a model of the free chunks says which one is the best fit for
  // every request, and the allocator must hand out exactly that one.
  alignas(16) static unsigned char arena[8 << 20];
  mspace m = create_mspace_with_base(arena, sizeof arena, 0);
  ASSERT_NE(m, nullptr);
  std::mt19937_64 rng(7);
  std::map<char*, std::size_t> freeChunks;  // chunk address -> chunk size
  std::vector<char*> fences;
  for (int i = 0; i < 200; ++i) {
    const std::size_t request = 520 + rng() % 40000;
    char* p = static_cast<char*>(mspace_malloc(m, request));
    fences.push_back(static_cast<char*>(mspace_malloc(m, 8)));
    ASSERT_TRUE(p && fences.back());
    freeChunks[p - 16] = internal::requestToSize(request);
  }
  for (auto& [chunk, size] : freeChunks) mspace_free(m, chunk + 16);
  ASSERT_MSPACE_CONSISTENT(m);

  int served = 0;
  for (int i = 0; i < 200; ++i) {
    const std::size_t request = 500 + rng() % 30000;
    const std::size_t nb = internal::requestToSize(request);
    std::size_t best = ~std::size_t{0};
    for (auto& [chunk, size] : freeChunks)
      if (size >= nb && size < best) best = size;
    if (best == ~std::size_t{0}) continue;  // would come from the top
    ++served;
    char* p = static_cast<char*>(mspace_malloc(m, request));
    ASSERT_NE(p, nullptr);
    const auto it = freeChunks.find(p - 16);
    ASSERT_NE(it, freeChunks.end()) << "request " << request << " was not served from a free chunk";
    EXPECT_EQ(it->second, best) << "request " << request << " (nb " << nb << ")";
    const std::size_t rest = it->second - nb;
    freeChunks.erase(it);
    if (rest >= 32) freeChunks[p - 16 + nb] = rest;  // the remainder stays free (next to a fence)
    ASSERT_MSPACE_CONSISTENT(m) << "after request " << i;
  }
  EXPECT_GT(served, 150);
  EXPECT_EQ(destroy_mspace(m), 0u);
}

// ---- calloc, realloc, independent allocation --------------------------------

TEST_F(MspaceApi, CallocClearsRecycledMemory) {
  for (std::size_t size : {std::size_t{24}, std::size_t{200}, std::size_t{5000}, std::size_t{300000}}) {
    void* dirty = mspace_malloc(m_, size);
    ASSERT_NE(dirty, nullptr);
    std::memset(dirty, 0xAB, size);
    mspace_free(m_, dirty);
    auto* p = static_cast<unsigned char*>(mspace_calloc(m_, size / 8, 8));
    ASSERT_NE(p, nullptr);
    for (std::size_t i = 0; i < size / 8 * 8; ++i) ASSERT_EQ(p[i], 0) << size << " at " << i;
    mspace_free(m_, p);
  }
}

TEST_F(MspaceApi, ReallocKeepsContentsWhetherInPlaceOrMoved) {
  // Grow into the top chunk, into a freed neighbour, and by moving; shrink.
  char* a = static_cast<char*>(mspace_malloc(m_, 100));
  ASSERT_NE(a, nullptr);
  Pattern::fill(a, 100, 1);
  char* grown = static_cast<char*>(mspace_realloc(m_, a, 5000));  // a is just below top
  ASSERT_NE(grown, nullptr);
  EXPECT_EQ(grown, a);
  EXPECT_TRUE(Pattern::intact(grown, 100, 1));
  Pattern::fill(grown, 5000, 2);

  char* b = static_cast<char*>(mspace_malloc(m_, 200));
  char* c = static_cast<char*>(mspace_malloc(m_, 2000));
  char* guard = static_cast<char*>(mspace_malloc(m_, 16));
  ASSERT_TRUE(b && c && guard);
  Pattern::fill(b, 200, 3);
  mspace_free(m_, c);  // b's neighbour is now free
  char* b2 = static_cast<char*>(mspace_realloc(m_, b, 1500));
  EXPECT_EQ(b2, b);
  EXPECT_TRUE(Pattern::intact(b2, 200, 3));
  ASSERT_MSPACE_CONSISTENT(m_);

  Pattern::fill(b2, 1500, 4);
  char* moved = static_cast<char*>(mspace_realloc(m_, b2, 100000));  // guard blocks in-place growth
  ASSERT_NE(moved, nullptr);
  EXPECT_NE(moved, b2);
  EXPECT_TRUE(Pattern::intact(moved, 1500, 4));
  ASSERT_MSPACE_CONSISTENT(m_);

  char* shrunk = static_cast<char*>(mspace_realloc(m_, moved, 40));
  EXPECT_EQ(shrunk, moved);
  EXPECT_TRUE(Pattern::intact(shrunk, 40, 4));
  ASSERT_MSPACE_CONSISTENT(m_);

  char* fresh = static_cast<char*>(mspace_realloc(m_, nullptr, 64));  // null behaves as malloc
  ASSERT_NE(fresh, nullptr);
  for (void* p :
       {static_cast<void*>(grown), static_cast<void*>(guard), static_cast<void*>(shrunk), static_cast<void*>(fresh)})
    mspace_free(m_, p);
}

TEST_F(MspaceApi, ReallocGrowsIntoTheVictimNextToIt) {
  char* a = static_cast<char*>(mspace_malloc(m_, 100));
  char* b = static_cast<char*>(mspace_malloc(m_, 2000));
  char* guard = static_cast<char*>(mspace_malloc(m_, 16));
  ASSERT_TRUE(a && b && guard);
  mspace_free(m_, b);
  // The only free chunk is b's; a small request splits it and its rest
  // becomes the designated victim, right behind the new block.
  char* x = static_cast<char*>(mspace_malloc(m_, 24));
  ASSERT_EQ(x, b);
  Pattern::fill(x, 24, 8);
  char* grown = static_cast<char*>(mspace_realloc(m_, x, 1500));
  EXPECT_EQ(grown, x);
  EXPECT_TRUE(Pattern::intact(grown, 24, 8));
  ASSERT_MSPACE_CONSISTENT(m_);
  for (char* p : {a, grown, guard}) mspace_free(m_, p);
}

TEST_F(MspaceApi, IndependentAllocationsAreSeparateFreeableBlocks) {
  void** zeroed = mspace_independent_calloc(m_, 50, 24, nullptr);
  ASSERT_NE(zeroed, nullptr);
  const unsigned long sizes[] = {1, 300, 17, 4000, 64};
  void* given[5];
  void** shaped = mspace_independent_comalloc(m_, 5, sizes, given);
  ASSERT_EQ(shaped, given);
  ASSERT_MSPACE_CONSISTENT(m_);

  std::vector<std::pair<char*, std::size_t>> all;
  for (int i = 0; i < 50; ++i) {
    auto* p = static_cast<unsigned char*>(zeroed[i]);
    for (int k = 0; k < 24; ++k) ASSERT_EQ(p[k], 0);
    all.emplace_back(static_cast<char*>(zeroed[i]), 24);
  }
  for (int i = 0; i < 5; ++i) all.emplace_back(static_cast<char*>(given[i]), sizes[i]);
  std::sort(all.begin(), all.end());
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_TRUE(isAligned(all[i].first, kMspaceAlignment));
    if (i + 1 < all.size()) {
      EXPECT_LE(all[i].first + all[i].second, all[i + 1].first);
    }
    Pattern::fill(all[i].first, all[i].second, static_cast<unsigned>(i));
  }
  for (std::size_t i = 0; i < all.size(); ++i)
    EXPECT_TRUE(Pattern::intact(all[i].first, all[i].second, static_cast<unsigned>(i)));
  for (std::size_t i = 0; i < all.size(); i += 2) mspace_free(m_, all[i].first);
  ASSERT_MSPACE_CONSISTENT(m_);
  for (std::size_t i = 1; i < all.size(); i += 2) mspace_free(m_, all[i].first);
  mspace_free(m_, zeroed);  // the array is a block of its own
  ASSERT_MSPACE_CONSISTENT(m_);

  void* none[1];
  EXPECT_EQ(mspace_independent_comalloc(m_, 0, sizes, none), none);
  void** minimal = mspace_independent_calloc(m_, 0, 8, nullptr);
  EXPECT_NE(minimal, nullptr);
  mspace_free(m_, minimal);
}

// ---- statistics ----------------------------------------------------------

TEST_F(MspaceApi, MallinfoTracksWhatIsAllocated) {
  const auto empty = mspace_mallinfo(m_);
  EXPECT_EQ(empty.arena + empty.hblkhd, empty.uordblks + empty.fordblks);
  EXPECT_EQ(empty.ordblks, 1u);  // only the top
  EXPECT_EQ(empty.smblks + empty.hblks + empty.fsmblks, 0u);

  std::vector<void*> blocks;
  std::size_t requested = 0;
  for (std::size_t s = 8; s < 200000; s = s * 3 + 5) {
    blocks.push_back(mspace_malloc(m_, s));
    ASSERT_NE(blocks.back(), nullptr);
    requested += s;
  }
  const auto full = mspace_mallinfo(m_);
  EXPECT_GE(full.uordblks - empty.uordblks, requested);
  EXPECT_LE(full.uordblks - empty.uordblks, requested + blocks.size() * 2 * kMspaceAlignment);
  EXPECT_EQ(full.arena + full.hblkhd, full.uordblks + full.fordblks);
  EXPECT_EQ(full.usmblks, full.arena + full.hblkhd);  // only grew so far
  EXPECT_EQ(full.hblkhd, 0u);                         // direct mapping is off by default

  for (std::size_t i = 0; i < blocks.size(); i += 2) mspace_free(m_, blocks[i]);
  const auto holes = mspace_mallinfo(m_);
  EXPECT_GT(holes.ordblks, 1u);
  EXPECT_LT(holes.uordblks, full.uordblks);
  for (std::size_t i = 1; i < blocks.size(); i += 2) mspace_free(m_, blocks[i]);
  const auto back = mspace_mallinfo(m_);
  EXPECT_EQ(back.uordblks, empty.uordblks);
  EXPECT_EQ(back.ordblks, 1u);
  EXPECT_GE(back.usmblks, full.usmblks);
}

// Runs fn with standard error redirected to a file and returns what it wrote.
template <typename Fn>
std::string captureStderr(Fn fn) {
  std::fflush(stderr);
  char path[] = "/tmp/mspace_stats_XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "<mkstemp failed>";
  const int saved = dup(2);
  dup2(fd, 2);
  fn();
  std::fflush(stderr);
  dup2(saved, 2);
  close(saved);
  std::string out;
  lseek(fd, 0, SEEK_SET);
  char buf[512];
  for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;) out.append(buf, static_cast<std::size_t>(n));
  close(fd);
  unlink(path);
  return out;
}

TEST_F(MspaceApi, MallocStatsPrintsThreeExactLines) {
  void* p = mspace_malloc(m_, 12345);
  void* q = mspace_malloc(m_, 100);
  mspace_free(m_, p);  // leaves a free chunk that "in use" must not count
  ASSERT_NE(q, nullptr);
  const auto info = mspace_mallinfo(m_);
  char expected[256];
  std::snprintf(expected, sizeof expected,
                "max system bytes = %10lu\nsystem bytes     = %10lu\nin use bytes     = %10lu\n",
                static_cast<unsigned long>(info.usmblks), static_cast<unsigned long>(info.arena + info.hblkhd),
                static_cast<unsigned long>(info.uordblks));
  EXPECT_EQ(captureStderr([&] { mspace_malloc_stats(m_); }), expected);
  // In use: the state chunk, the two blocks' chunks... at least q, at most q plus bookkeeping.
  EXPECT_GE(info.uordblks, 100u + kMspaceBaseOverhead - 80);
  EXPECT_LT(info.uordblks, 12345u);
  mspace_free(m_, q);

  alignas(16) static unsigned char buffer[4096];
  mspace small = create_mspace_with_base(buffer, sizeof buffer, 0);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(captureStderr([&] { mspace_malloc_stats(small); }),
            "max system bytes =       4096\nsystem bytes     =       4096\nin use bytes     =        960\n");
  destroy_mspace(small);
}

TEST_F(MspaceApi, FootprintQueriesAbortTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(mspace_footprint(m_), "");
  EXPECT_DEATH(mspace_max_footprint(m_), "");
}

TEST_F(MspaceApi, FreeingABlockTwiceAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  void* a = mspace_malloc(m_, 64);
  void* b = mspace_malloc(m_, 64);
  void* c = mspace_malloc(m_, 64);
  mspace_free(m_, b);  // b sits in a bin between two blocks in use
  EXPECT_DEATH(mspace_free(m_, b), "");
  mspace_free(m_, a);
  mspace_free(m_, c);
}

// ---- process-wide parameters ------------------------------------------------

TEST_F(MspaceApi, MalloptAcceptsAndRejectsByTheRules) {
  const std::size_t page = pageSize();
  const struct {
    int param;
    int value;
    int result;
  } cases[] = {
      {kMspaceGranularity, 3000, 0},
      {kMspaceGranularity, 0, 0},
      {kMspaceGranularity, -1, 0},
      {kMspaceGranularity, static_cast<int>(page / 2), 0},
      {kMspaceGranularity, static_cast<int>(page * 3), 0},
      {kMspaceGranularity, static_cast<int>(page), 1},
      {kMspaceGranularity, 0x400000, 1},
      {kMspaceTrimThreshold, 0, 1},
      {kMspaceTrimThreshold, -1, 1},
      {kMspaceMmapThreshold, 12345, 1},
      {kMspaceMmapThreshold, -1, 1},
      {0, 1, 0},
      {-4, 0x10000, 0},
      {1, 1, 0},
  };
  for (const auto& c : cases) {
    const auto before = internal::mspaceParams();
    EXPECT_EQ(mspace_mallopt(c.param, c.value), c.result) << c.param << " " << c.value;
    const auto after = internal::mspaceParams();
    const std::size_t expected = static_cast<std::size_t>(static_cast<long>(c.value));
    EXPECT_EQ(after.granularity, c.param == kMspaceGranularity && c.result ? expected : before.granularity);
    EXPECT_EQ(after.trim_threshold, c.param == kMspaceTrimThreshold ? expected : before.trim_threshold);
    EXPECT_EQ(after.mmap_threshold, c.param == kMspaceMmapThreshold ? expected : before.mmap_threshold);
    EXPECT_EQ(after.page_size, page);
  }
}

TEST(MspaceDefaults, ProcessWideParametersStartAtTheirDefaults) {
  // Every test that changes them restores them, so the defaults are visible.
  const auto p = internal::mspaceParams();
  EXPECT_EQ(p.page_size & (p.page_size - 1), 0u);
  EXPECT_EQ(p.granularity, std::max<std::size_t>(0x10000, p.page_size));
  EXPECT_EQ(p.trim_threshold, 0x200000u);
  EXPECT_EQ(p.mmap_threshold, kMax);
}

}  // namespace
