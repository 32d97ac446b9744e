// Behaviour of the mspace entry points seen by a caller: creation limits,
// bad input, best fit, realloc, memalign, statistics and the process-wide
// parameters. Alignment and independent allocation under random load are
// covered by the stress and boundary tests.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <map>
#include <random>
#include <utility>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;

constexpr std::size_t kMaxSize = ~std::size_t{0};

class MspaceApi : public MspaceTest {
 protected:
  void SetUp() override {
    MspaceTest::SetUp();
    space_ = create_mspace(0, 0);
    ASSERT_NE(space_, nullptr);
  }
  void TearDown() override {
    if (space_ != nullptr) {
      EXPECT_MSPACE_CONSISTENT(space_);
      destroy_mspace(space_);
    }
    MspaceTest::TearDown();
  }
  char* allocate(std::size_t bytes) { return static_cast<char*>(mspace_malloc(space_, bytes)); }
  mspace space_ = nullptr;
};

TEST_F(MspaceApi, CreationMapsCapacityPlusOverheadAndRespectsTheBaseBoundary) {
  // Capacity 0 asks for one granule, which the alignment rule turns into two.
  const std::size_t granule = granularity();
  EXPECT_EQ(mspace_mallinfo(space_).arena, 2 * granule);
  const std::pair<std::size_t, std::size_t> capacityToMapped[] = {
      {1, granule},
      {granule - kMspaceBaseOverhead - 1, granule},
      {granule - kMspaceBaseOverhead, 2 * granule}};
  for (const auto& [capacity, mapped] : capacityToMapped) {
    mspace space = create_mspace(capacity, 1);
    ASSERT_NE(space, nullptr) << capacity;
    EXPECT_EQ(mspace_mallinfo(space).arena, mapped) << capacity;
    EXPECT_EQ(destroy_mspace(space), mapped) << capacity;
  }
  EXPECT_EQ(create_mspace(kMaxSize - kMspaceBaseOverhead - pageSize(), 0), nullptr);

  alignas(16) static unsigned char buffer[8192];
  EXPECT_EQ(create_mspace_with_base(buffer, kMspaceBaseOverhead, 0), nullptr);
  EXPECT_EQ(create_mspace_with_base(buffer + 8, kMspaceBaseOverhead + 1, 0),
            nullptr);  // misaligned base pads
  mspace tight = create_mspace_with_base(buffer, kMspaceBaseOverhead + 1, 0);
  ASSERT_NE(tight, nullptr);
  // Nothing beyond the bookkeeping fits, so the block comes from a new segment.
  char* block = static_cast<char*>(mspace_malloc(tight, 100));
  ASSERT_NE(block, nullptr);
  EXPECT_TRUE(block < reinterpret_cast<char*>(buffer) ||
              block >= reinterpret_cast<char*>(buffer + sizeof buffer));
  Pattern::fill(block, 100, 3);
  mspace_free(tight, block);
  EXPECT_MSPACE_CONSISTENT(tight);
  EXPECT_GT(destroy_mspace(tight), 0u);
  buffer[0] = buffer[kMspaceBaseOverhead] = 1;  // still ours

  // Null system functions keep the defaults.
  mspace defaults =
      create_mspace_with_base_ca(buffer, sizeof buffer, 0, nullptr, nullptr, nullptr, nullptr);
  ASSERT_NE(defaults, nullptr);
  block = static_cast<char*>(mspace_malloc(defaults, 100000));
  ASSERT_NE(block, nullptr);
  Pattern::fill(block, 100000, 9);
  EXPECT_MSPACE_CONSISTENT(defaults);
  EXPECT_GT(destroy_mspace(defaults), 100000u);
}

TEST_F(MspaceApi, MemalignRoundsAlignmentUpToAPowerOfTwo) {
  const std::pair<std::size_t, std::size_t> requestedToGuaranteed[] = {
      {0, 16}, {17, 32}, {1000, 1024}, {4096, 4096}, {5000, 8192}, {(1 << 20) + 1, 1 << 21}};
  for (const auto& [requested, guaranteed] : requestedToGuaranteed) {
    // A spacer of varying size moves where the over-allocation starts, so a
    // smaller alignment cannot pass by luck.
    for (std::size_t spacerBytes = 16; spacerBytes <= 256; spacerBytes += 16) {
      char* spacer = allocate(spacerBytes);
      const std::size_t bytes = spacerBytes * 12;
      char* block = static_cast<char*>(mspace_memalign(space_, requested, bytes));
      ASSERT_NE(block, nullptr) << requested;
      EXPECT_TRUE(isAligned(block, guaranteed)) << requested << " " << static_cast<void*>(block);
      Pattern::fill(block, bytes, static_cast<unsigned>(bytes));
      ASSERT_MSPACE_CONSISTENT(space_) << requested << "/" << bytes;
      EXPECT_TRUE(Pattern::intact(block, bytes, static_cast<unsigned>(bytes)));
      mspace_free(space_, block);
      mspace_free(space_, spacer);
    }
  }
}

TEST_F(MspaceApi, BadSizesFailWithEnomemAndLeaveTheMspaceUsable) {
  char* keep = allocate(300);
  ASSERT_NE(keep, nullptr);
  Pattern::fill(keep, 300, 77);
  const auto before = mspace_mallinfo(space_);
  const unsigned long comallocSizes[] = {kMaxSize - 64, 64};
  const std::pair<const char*, std::function<void*()>> failingCalls[] = {
      {"malloc max-100", [&] { return mspace_malloc(space_, kMaxSize - 100); }},
      {"malloc 2^62", [&] { return mspace_malloc(space_, std::size_t{1} << 62); }},
      {"memalign max-100", [&] { return mspace_memalign(space_, 64, kMaxSize - 100); }},
      {"realloc max-100", [&] { return mspace_realloc(space_, keep, kMaxSize - 100); }},
      {"calloc overflow",
       [&] { return mspace_calloc(space_, std::size_t{1} << 33, std::size_t{1} << 33); }},
      {"memalign unroundable",
       [&] { return mspace_memalign(space_, (std::size_t{1} << 63) + 1, 16); }},
      {"comalloc", [&] { return mspace_independent_comalloc(space_, 2, comallocSizes, nullptr); }},
      {"independent_calloc",
       [&] { return mspace_independent_calloc(space_, kMaxSize / 4, 64, nullptr); }},
  };
  for (const auto& [what, call] : failingCalls) {
    errno = 0;
    EXPECT_EQ(call(), nullptr) << what;
    EXPECT_EQ(errno, ENOMEM) << what;
  }
  mspace_free(space_, nullptr);
  EXPECT_TRUE(Pattern::intact(keep, 300, 77));
  ASSERT_MSPACE_CONSISTENT(space_);
  EXPECT_EQ(mspace_mallinfo(space_).uordblks, before.uordblks);
  EXPECT_EQ(mspace_mallinfo(space_).arena, before.arena);
  char* more = allocate(1000);
  EXPECT_NE(more, nullptr);
  mspace_free(space_, more);
  mspace_free(space_, keep);
}

TEST_F(MspaceApi, LargeRequestsTakeTheBestFittingFreeChunk) {
  // Free chunks of many sizes, each fenced by a block in use so nothing
  // merges; a model of the free chunks names the best fit for every request.
  alignas(16) static unsigned char arena[8 << 20];
  mspace space = create_mspace_with_base(arena, sizeof arena, 0);
  ASSERT_NE(space, nullptr);
  std::mt19937_64 random(7);
  std::map<char*, std::size_t> freeChunkSizes;
  for (int index = 0; index < 200; ++index) {
    const std::size_t request = 520 + random() % 40000;
    char* block = static_cast<char*>(mspace_malloc(space, request));
    ASSERT_TRUE(block != nullptr && mspace_malloc(space, 8) != nullptr);
    freeChunkSizes[block - 16] = internal::requestToSize(request);
  }
  for (const auto& [chunk, size] : freeChunkSizes) mspace_free(space, chunk + 16);
  ASSERT_MSPACE_CONSISTENT(space);

  int servedFromBins = 0;
  for (int index = 0; index < 200; ++index) {
    const std::size_t request = 500 + random() % 30000;
    const std::size_t chunkBytes = internal::requestToSize(request);
    std::size_t bestSize = kMaxSize;
    for (const auto& [chunk, size] : freeChunkSizes)
      if (size >= chunkBytes && size < bestSize) bestSize = size;
    if (bestSize == kMaxSize) continue;  // would come from the top
    ++servedFromBins;
    char* block = static_cast<char*>(mspace_malloc(space, request));
    ASSERT_NE(block, nullptr);
    const auto served = freeChunkSizes.find(block - 16);
    ASSERT_NE(served, freeChunkSizes.end())
        << "request " << request << " was not served from a free chunk";
    EXPECT_EQ(served->second, bestSize) << "request " << request;
    const std::size_t remainder = served->second - chunkBytes;
    freeChunkSizes.erase(served);
    if (remainder >= 32) freeChunkSizes[block - 16 + chunkBytes] = remainder;
    ASSERT_MSPACE_CONSISTENT(space) << "after request " << index;
  }
  EXPECT_GT(servedFromBins, 150);
  EXPECT_EQ(destroy_mspace(space), 0u);
}

TEST_F(MspaceApi, ReallocKeepsContentsInPlaceOrMoved) {
  char* block = allocate(100);  // just below the top: grows into it
  ASSERT_NE(block, nullptr);
  Pattern::fill(block, 100, 1);
  EXPECT_EQ(mspace_realloc(space_, block, 5000), block);
  EXPECT_TRUE(Pattern::intact(block, 100, 1));

  char* small = allocate(200);
  char* neighbour = allocate(2000);
  char* guard = allocate(16);
  ASSERT_TRUE(small && neighbour && guard);
  Pattern::fill(small, 200, 3);
  mspace_free(space_, neighbour);  // grows into the freed neighbour
  EXPECT_EQ(mspace_realloc(space_, small, 1500), small);
  EXPECT_TRUE(Pattern::intact(small, 200, 3));
  ASSERT_MSPACE_CONSISTENT(space_);

  Pattern::fill(small, 1500, 4);
  char* moved =
      static_cast<char*>(mspace_realloc(space_, small, 100000));  // the guard blocks growth
  ASSERT_NE(moved, nullptr);
  EXPECT_NE(moved, small);
  EXPECT_TRUE(Pattern::intact(moved, 1500, 4));
  EXPECT_EQ(mspace_realloc(space_, moved, 40), moved);
  EXPECT_TRUE(Pattern::intact(moved, 40, 4));
  ASSERT_MSPACE_CONSISTENT(space_);

  // The only free chunk is small's old one; a small request splits it and its
  // rest becomes the designated victim, right behind the new block.
  char* split = allocate(24);
  ASSERT_EQ(split, small);
  Pattern::fill(split, 24, 8);
  EXPECT_EQ(mspace_realloc(space_, split, 1000), split);
  EXPECT_TRUE(Pattern::intact(split, 24, 8));

  char* fresh = static_cast<char*>(mspace_realloc(space_, nullptr, 64));  // null behaves as malloc
  ASSERT_NE(fresh, nullptr);
  char* empty = allocate(0);  // a block of its own, like any other
  ASSERT_NE(empty, nullptr);
  EXPECT_TRUE(isAligned(empty, kMspaceAlignment));
  for (char* live : {block, guard, moved, split, fresh, empty}) mspace_free(space_, live);
}

// Runs print with standard error redirected to a file and returns what it wrote.
template <typename Print>
std::string captureStderr(Print print) {
  std::fflush(stderr);
  char path[] = "/tmp/mspace_stats_XXXXXX";
  const int capture = mkstemp(path);
  if (capture < 0) return "<mkstemp failed>";
  const int savedStderr = dup(2);
  dup2(capture, 2);
  print();
  std::fflush(stderr);
  dup2(savedStderr, 2);
  close(savedStderr);
  std::string written;
  lseek(capture, 0, SEEK_SET);
  char chunk[512];
  for (ssize_t got; (got = read(capture, chunk, sizeof chunk)) > 0;)
    written.append(chunk, static_cast<std::size_t>(got));
  close(capture);
  unlink(path);
  return written;
}

TEST_F(MspaceApi, MallinfoAndMallocStatsAgreeWithWhatIsAllocated) {
  const auto empty = mspace_mallinfo(space_);
  EXPECT_EQ(empty.ordblks, 1u);  // only the top
  EXPECT_EQ(empty.smblks + empty.hblks + empty.fsmblks + empty.hblkhd, 0u);
  std::vector<char*> blocks;
  std::size_t requested = 0;
  for (std::size_t size = 8; size < 200000; size = size * 3 + 5) {
    blocks.push_back(allocate(size));
    requested += size;
  }
  const auto full = mspace_mallinfo(space_);
  EXPECT_GE(full.uordblks - empty.uordblks, requested);
  EXPECT_LE(full.uordblks - empty.uordblks, requested + blocks.size() * 2 * kMspaceAlignment);
  EXPECT_EQ(full.arena + full.hblkhd, full.uordblks + full.fordblks);
  EXPECT_EQ(full.usmblks, full.arena);  // only grew so far
  for (std::size_t index = 0; index < blocks.size(); index += 2) mspace_free(space_, blocks[index]);
  const auto info = mspace_mallinfo(space_);  // free chunks that "in use" must not count
  EXPECT_GT(info.ordblks, 1u);
  char expected[256];
  std::snprintf(expected, sizeof expected,
                "max system bytes = %10lu\nsystem bytes     = %10lu\nin use bytes     = %10lu\n",
                static_cast<unsigned long>(info.usmblks),
                static_cast<unsigned long>(info.arena + info.hblkhd),
                static_cast<unsigned long>(info.uordblks));
  EXPECT_EQ(captureStderr([&] { mspace_malloc_stats(space_); }), expected);
  for (std::size_t index = 1; index < blocks.size(); index += 2) mspace_free(space_, blocks[index]);
  EXPECT_EQ(mspace_mallinfo(space_).uordblks, empty.uordblks);
  EXPECT_EQ(mspace_mallinfo(space_).ordblks, 1u);
  EXPECT_GE(mspace_mallinfo(space_).usmblks, full.usmblks);

  alignas(16) static unsigned char buffer[4096];
  mspace small = create_mspace_with_base(buffer, sizeof buffer, 0);
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(captureStderr([&] { mspace_malloc_stats(small); }),
            "max system bytes =       4096\nsystem bytes     =       4096\nin use bytes     =      "
            "  960\n");
  destroy_mspace(small);
}

TEST_F(MspaceApi, FootprintQueriesAndDoubleFreeAbort) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(mspace_footprint(space_), "");
  EXPECT_DEATH(mspace_max_footprint(space_), "");
  char* before = allocate(64);
  char* freed = allocate(64);
  char* after = allocate(64);
  mspace_free(space_, freed);  // sits in a bin between two blocks in use
  EXPECT_DEATH(mspace_free(space_, freed), "");
  mspace_free(space_, before);
  mspace_free(space_, after);
}

TEST_F(MspaceApi, MalloptAcceptsAndRejectsByTheRulesFromTheDefaults) {
  const auto defaults = internal::mspaceParams();  // every test that changes them restores them
  const int page = static_cast<int>(pageSize());
  EXPECT_EQ(defaults.granularity, std::max<std::size_t>(0x10000, pageSize()));
  EXPECT_EQ(defaults.trim_threshold, 0x200000u);
  EXPECT_EQ(defaults.mmap_threshold, kMaxSize);
  const int granularity = kMspaceGranularity, trim = kMspaceTrimThreshold,
            mmap = kMspaceMmapThreshold;
  const struct {
    int param, value, accepted;
  } options[] = {{granularity, 0, 0},        {granularity, -1, 0},
                 {granularity, page * 3, 0}, {granularity, page, 1},
                 {granularity, 0x400000, 1}, {trim, -1, 1},
                 {mmap, 12345, 1},           {mmap, -1, 1},
                 {-4, 0x10000, 0},           {1, 1, 0}};
  for (const auto& option : options) {
    const auto before = internal::mspaceParams();
    EXPECT_EQ(mspace_mallopt(option.param, option.value), option.accepted)
        << option.param << " " << option.value;
    const auto after = internal::mspaceParams();
    const auto setting = static_cast<std::size_t>(static_cast<long>(option.value));
    const bool granularityChanged = option.param == granularity && option.accepted;
    EXPECT_EQ(after.granularity, granularityChanged ? setting : before.granularity);
    EXPECT_EQ(after.trim_threshold, option.param == trim ? setting : before.trim_threshold);
    EXPECT_EQ(after.mmap_threshold, option.param == mmap ? setting : before.mmap_threshold);
    EXPECT_EQ(after.page_size, pageSize());
  }
}

}  // namespace
