// Rules of the mspace at their exact boundaries: when a request is mapped on
// its own, how large every mapping is on a 64-bit target, how much trimming
// keeps, when realloc keeps a directly mapped chunk, and what memalign and
// the independent allocations give back or clear. Expectations are computed
// here from the 64-bit layout, not read from the allocator's constants.
#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;
using Placement = RecordingSystem::Placement;

constexpr bool k64Bit = sizeof(void*) == 8;

// The chunk that serves a request on a 64-bit target: the request plus the
// 8-byte head, rounded up to 16, at least 32.
std::size_t chunkFor(std::size_t request) {
  const std::size_t size = (request + 8 + 15) & ~std::size_t{15};
  return size < 32 ? 32 : size;
}

alignas(16) unsigned char callerBase[64 * 1024];

class MspaceBoundary : public MspaceTest {
 protected:
  void SetUp() override {
    MspaceTest::SetUp();
    if (!k64Bit) GTEST_SKIP() << "the expectations are those of a 64-bit target";
  }
  // A chunk size whose rounding by the granule rule lands at the given
  // distance below a granule boundary.
  std::size_t belowGranule(std::size_t distance) const { return 4 * granularity() - distance; }
};

TEST_F(MspaceBoundary, MappingSizesAddSixtyThreeForADirectMapAndEightyOneForASegment) {
  // A direct map asks for the chunk + 63 bytes (six words and the alignment
  // mask), a segment for the chunk + 81 bytes (the top foot of 80 and one),
  // each then granularity-aligned: a multiple gains a whole granule. The
  // chunk sizes sit where one byte more or less changes the mapping size.
  const std::size_t granule = granularity();
  struct Row {
    std::size_t chunk;
    bool direct;
    std::size_t mapped;
  };
  const Row rows[] = {{belowGranule(64), true, 4 * granule},    // + 63: one byte below the boundary
                      {belowGranule(48), true, 5 * granule},    // + 63: past it
                      {belowGranule(96), false, 4 * granule},   // + 81: below
                      {belowGranule(80), false, 5 * granule},   // + 81: one byte past
                      {belowGranule(64), false, 5 * granule}};  // + 81: past
  for (const Row& row : rows) {
    ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, row.direct ? 4096 : -1), 1);
    RecordingSystem system;
    mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);  // no free byte of its own
    ASSERT_NE(space, nullptr);
    void* block = mspace_malloc(space, row.chunk - 8);
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(chunkFor(row.chunk - 8), row.chunk);
    const auto& maps = row.direct ? system.directMaps : system.segmentMaps;
    ASSERT_EQ(maps.size(), 1u) << row.chunk;
    EXPECT_EQ(maps[0].size, row.mapped) << "chunk " << row.chunk << (row.direct ? " direct" : "");
    Pattern::fill(block, row.chunk - 8, 1);
    mspace_free(space, block);
    EXPECT_MSPACE_CONSISTENT(space);
    destroy_mspace(space);
  }
}

TEST_F(MspaceBoundary, AChunkOfExactlyTheMappingThresholdIsMappedOnItsOwn) {
  // The rule is "at or above the threshold": a chunk of exactly the
  // threshold is a direct map, one 16 bytes smaller is not.
  const std::size_t threshold = std::size_t{1} << 20;
  ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, static_cast<int>(threshold)), 1);
  for (const std::size_t chunk : {threshold, threshold - 16, threshold + 16}) {
    RecordingSystem system;
    mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);
    ASSERT_NE(space, nullptr);
    void* block = mspace_malloc(space, chunk - 8);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(system.directMaps.size(), chunk >= threshold ? 1u : 0u) << chunk;
    EXPECT_EQ(system.segmentMaps.size(), chunk >= threshold ? 0u : 1u) << chunk;
    mspace_free(space, block);
    destroy_mspace(space);
  }
}

TEST_F(MspaceBoundary, TrimKeepsMoreThanThePadAndAtMostOneGranuleMore) {
  // The published meaning of the pad: that much stays in the top for later
  // requests, which then need no new mapping.
  ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, -1), 1);
  const std::size_t granule = granularity();
  for (const std::size_t pad :
       {std::size_t{0}, std::size_t{1000}, 5 * granule, 5 * granule + 123, 9 * granule - 1}) {
    RecordingSystem system(Placement::Ascending);
    mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);
    ASSERT_NE(space, nullptr);
    mspace_free(space, mspace_malloc(space, 12 * granule));
    ASSERT_EQ(mspace_trim(space, pad), 1) << pad;
    const std::size_t top = mspace_mallinfo(space).keepcost;
    EXPECT_GT(top, pad);
    EXPECT_LE(top, pad + granule + 80) << pad;  // the top foot is 80 bytes
    const std::size_t mapsBefore = system.segmentMaps.size();
    void* block = mspace_malloc(space, pad);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(system.segmentMaps.size(), mapsBefore) << "pad " << pad << " was not kept";
    mspace_free(space, block);
    EXPECT_EQ(mspace_trim(space, top + 80), 0) << "nothing beyond a pad above the top";
    EXPECT_MSPACE_CONSISTENT(space);
    destroy_mspace(space);
  }
}

TEST_F(MspaceBoundary, ReallocKeepsADirectMapUnlessItWouldWasteMoreThanTwoGranules) {
  // A directly mapped chunk stays where it is when the new chunk is not a
  // small one, leaves room for the head word, and wastes at most two granules.
  const std::size_t granule = granularity();
  ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, 4096), 1);
  RecordingSystem system;
  mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);  // every block is mapped
  ASSERT_NE(space, nullptr);
  // The chunk of a direct map fills its mapping but for the fencepost words
  // and pad behind it: 32 bytes on a 64-bit target.
  auto chunkOfMapping = [&](std::size_t bytes) {
    mspace_free(space, mspace_malloc(space, bytes));
    return system.directMaps.back().size - 32;
  };
  const std::size_t bigBytes = 20 * granule, smallBytes = 60000;
  const std::size_t big = chunkOfMapping(bigBytes), small = chunkOfMapping(smallBytes);
  ASSERT_EQ(small, granule - 32);
  struct Row {
    std::size_t bytes, newChunk;
    bool kept;
  };
  const Row rows[] = {{bigBytes, big - 16, true},                 // shrinks a little
                      {bigBytes, big - 2 * granule, true},        // wastes exactly two granules
                      {bigBytes, big - 2 * granule - 16, false},  // one step more: moved
                      {bigBytes, big, false},       // no room for the head word: moved
                      {bigBytes, big + 16, false},  // grows: moved
                      {smallBytes, 1008, true},     // the smallest large chunk stays
                      {smallBytes, 496, false}};    // a small chunk never stays mapped
  for (const Row& row : rows) {
    char* block = static_cast<char*>(mspace_malloc(space, row.bytes));
    ASSERT_NE(block, nullptr);
    Pattern::fill(block, 400, 7);
    char* resized = static_cast<char*>(mspace_realloc(space, block, row.newChunk - 8));
    ASSERT_NE(resized, nullptr);
    EXPECT_EQ(resized == block, row.kept) << row.bytes << " bytes to a chunk of " << row.newChunk;
    EXPECT_TRUE(Pattern::intact(resized, 400, 7));
    mspace_free(space, resized);
  }
  EXPECT_EQ(mspace_mallinfo(space).hblkhd, 0u);
  EXPECT_MSPACE_CONSISTENT(space);
  destroy_mspace(space);
}

TEST_F(MspaceBoundary, MemalignGivesBackWhatItOverAllocated) {
  // Over-allocation by the alignment is undone on both sides: the space in
  // use grows by the aligned chunk and at most one minimal chunk. (The
  // capacity leaves room for all, so no new segment adds its record.)
  mspace space = create_mspace(1 << 20, 0);
  ASSERT_NE(space, nullptr);
  std::vector<void*> blocks;
  for (const std::size_t alignment : {64, 4096, 65536}) {
    for (const std::size_t bytes : {100, 5000, 70000}) {
      blocks.push_back(mspace_malloc(space, 24));  // moves where the next block starts
      const std::size_t before = mspace_mallinfo(space).uordblks;
      void* block = mspace_memalign(space, alignment, bytes);
      ASSERT_NE(block, nullptr);
      EXPECT_TRUE(isAligned(block, alignment));
      EXPECT_LE(mspace_mallinfo(space).uordblks - before, chunkFor(bytes) + 32)
          << alignment << "/" << bytes;
      blocks.push_back(block);
    }
  }
  ASSERT_MSPACE_CONSISTENT(space);
  for (void* block : blocks) mspace_free(space, block);
  destroy_mspace(space);
}

TEST_F(MspaceBoundary, AMappingMergedInFrontOfADesignatedVictimExtendsIt) {
  // Descending placement: the second mapping lies directly in front of the
  // first one, whose first chunk is then the designated victim.
  RecordingSystem system(Placement::Descending);
  mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);
  ASSERT_NE(space, nullptr);
  char* first = static_cast<char*>(mspace_malloc(space, 2000));  // the first chunk of a new segment
  char* guard = static_cast<char*>(mspace_malloc(space, 2000));
  ASSERT_TRUE(first && guard);
  ASSERT_EQ(system.segmentMaps.size(), 1u);
  ASSERT_EQ(first - 16, system.segmentMaps[0].start);
  mspace_free(space, first);
  char* small = static_cast<char*>(mspace_malloc(space, 100));  // splits it: the rest is the dv
  ASSERT_EQ(small, first);
  mspace_free(space, small);  // coalesces with the dv: the first chunk is the dv
  ASSERT_MSPACE_CONSISTENT(space);

  const std::size_t big = 3 * granularity();
  char* merged = static_cast<char*>(mspace_malloc(space, big));
  ASSERT_NE(merged, nullptr);
  ASSERT_EQ(system.segmentMaps.size(), 2u);
  ASSERT_EQ(system.segmentMaps[1].start + system.segmentMaps[1].size, system.segmentMaps[0].start);
  EXPECT_EQ(merged - 16, system.segmentMaps[1].start);  // served from the front of the new region
  ASSERT_MSPACE_CONSISTENT(space);
  Pattern::fill(merged, big, 3);

  // The rest of the new region and the old first chunk form one free chunk:
  // blocks that fill it come without another mapping and overlap nothing.
  const std::size_t freeBetween =
      static_cast<std::size_t>(guard - 16 - (merged - 16 + chunkFor(big)));
  std::vector<std::pair<char*, std::size_t>> fillers;
  for (std::size_t used = 0; used + 4096 <= freeBetween; used += 4096) {
    char* block = static_cast<char*>(mspace_malloc(space, 4096 - 8));
    ASSERT_NE(block, nullptr);
    EXPECT_TRUE(block > merged && block < guard) << used;
    Pattern::fill(block, 4096 - 8, static_cast<unsigned>(used));
    fillers.emplace_back(block, used);
  }
  EXPECT_EQ(system.segmentMaps.size(), 2u);
  ASSERT_MSPACE_CONSISTENT(space);
  EXPECT_TRUE(Pattern::intact(merged, big, 3));
  for (const auto& [block, seed] : fillers) {
    EXPECT_TRUE(Pattern::intact(block, 4096 - 8, static_cast<unsigned>(seed)));
    mspace_free(space, block);
  }
  mspace_free(space, merged);
  mspace_free(space, guard);
  EXPECT_MSPACE_CONSISTENT(space);
  EXPECT_EQ(destroy_mspace(space), RecordingSystem::totalBytes(system.segmentMaps));
}

TEST_F(MspaceBoundary, IndependentCallocClearsReusedMemory) {
  // Fresh mappings of the system are zero; memory that was used and freed is
  // not, and every byte of every element must still read zero.
  mspace space = create_mspace(0, 0);
  ASSERT_NE(space, nullptr);
  for (const std::size_t elementSize : {1, 24, 100, 4000}) {
    void* dirty = mspace_malloc(space, 200000);
    ASSERT_NE(dirty, nullptr);
    std::memset(dirty, 0xAB, 200000);
    mspace_free(space, dirty);
    void* given[40];
    void** blocks = mspace_independent_calloc(space, 40, elementSize, given);
    ASSERT_EQ(blocks, given);
    std::size_t dirtyBytes = 0;
    for (void* block : given)
      dirtyBytes +=
          elementSize - static_cast<std::size_t>(std::count(
                            static_cast<char*>(block), static_cast<char*>(block) + elementSize, 0));
    EXPECT_EQ(dirtyBytes, 0u) << elementSize;
    void** array = mspace_independent_calloc(space, 40, elementSize, nullptr);  // array inside
    ASSERT_NE(array, nullptr);
    for (int index = 0; index < 40; ++index)
      EXPECT_EQ(std::count(static_cast<char*>(array[index]),
                           static_cast<char*>(array[index]) + elementSize, 0),
                static_cast<long>(elementSize));
    for (void* block : given) mspace_free(space, block);
    for (int index = 0; index < 40; ++index) mspace_free(space, array[index]);
    mspace_free(space, array);
  }
  EXPECT_MSPACE_CONSISTENT(space);
  destroy_mspace(space);
}

}  // namespace
