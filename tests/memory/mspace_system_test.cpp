// How an mspace uses its system-memory functions: which function is asked
// for how much, with which context, what is given back by trimming and by
// destroy_mspace, and how exhaustion is reported.

#include <cerrno>
#include <set>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;
using Placement = RecordingSystem::Placement;

// Caller memory for the mspaces of these tests.
alignas(16) unsigned char callerBase[64 * 1024];

class MspaceSystem : public MspaceTest {};

TEST_F(MspaceSystem, SegmentRequestsFollowTheGranularityRule) {
  // A request the mspace cannot serve asks the segment function for the chunk
  // size plus kSegmentMapExtra, granularity-aligned (a multiple gains a whole
  // granule); the break function is never called.
  for (int granule : {0, 0x400000}) {
    if (granule != 0) {
      ASSERT_EQ(mspace_mallopt(kMspaceGranularity, granule), 1);
    }
    for (std::size_t bytes : {1, 65000, 65455, 200000, 3 << 20}) {
      RecordingSystem system;
      mspace space = system.create(callerBase, kMspaceBaseOverhead + 1);  // holds no free byte
      ASSERT_NE(space, nullptr);
      void* block = mspace_malloc(space, bytes);
      ASSERT_NE(block, nullptr) << bytes;
      ASSERT_EQ(system.segmentMaps.size(), 1u) << bytes;
      EXPECT_EQ(system.segmentMaps[0].size,
                granularityAlign(internal::requestToSize(bytes) + internal::kSegmentMapExtra))
          << bytes;
      EXPECT_TRUE(system.contains(block));
      EXPECT_TRUE(system.directMaps.empty());
      EXPECT_EQ(system.sbrkCalls, 0);
      EXPECT_MSPACE_CONSISTENT(space);
      destroy_mspace(space);
    }
  }
}

TEST_F(MspaceSystem, TwoMspacesGrowOnlyThroughTheirOwnFunctionsAndContext) {
  RecordingSystem first, second;
  mspace firstSpace = first.create(callerBase, 8192);
  mspace secondSpace = second.create(callerBase + 16384, 8192);
  ASSERT_TRUE(firstSpace && secondSpace);
  // Each provider reserves an address range of its own.
  auto inside = [](const RecordingSystem& system, const unsigned char* region, void* block) {
    return system.contains(block) || (block >= region && block < region + 8192);
  };
  for (int index = 0; index < 300; ++index) {
    void* firstBlock = mspace_malloc(firstSpace, 1000 + index * 97);
    void* secondBlock = mspace_malloc(secondSpace, 5000 + index * 31);
    EXPECT_TRUE(inside(first, callerBase, firstBlock));
    EXPECT_TRUE(inside(second, callerBase + 16384, secondBlock));
  }
  EXPECT_GT(first.segmentMaps.size(), 1u);
  EXPECT_GT(second.segmentMaps.size(), 1u);
  EXPECT_EQ(mspace_mallinfo(firstSpace).arena,
            8192 + RecordingSystem::totalBytes(first.segmentMaps));
  EXPECT_MSPACE_CONSISTENT(firstSpace);
  EXPECT_MSPACE_CONSISTENT(secondSpace);
  destroy_mspace(firstSpace);
  destroy_mspace(secondSpace);
}

// Every placement exercises a different growth path: a new head segment
// (gapped), extending the top's segment (ascending), merging in front of an
// existing segment (descending).
class MspaceGrowth : public MspaceTest, public ::testing::WithParamInterface<Placement> {};

TEST_P(MspaceGrowth, DestroyUnmapsExactlyWhatItMapped) {
  RecordingSystem system(GetParam());
  mspace space = system.create(callerBase, sizeof callerBase);
  ASSERT_NE(space, nullptr);
  std::vector<std::pair<char*, std::size_t>> blocks;
  for (int index = 0; index < 400; ++index) {
    const std::size_t size = 100 + static_cast<std::size_t>(index) * 613 % 90000;
    char* block = static_cast<char*>(mspace_malloc(space, size));
    ASSERT_NE(block, nullptr);
    Pattern::fill(block, size, static_cast<unsigned>(index));
    blocks.emplace_back(block, size);
    if (index % 3 == 0) {
      mspace_free(space, blocks[index / 2].first);
      blocks[index / 2].second = 0;
    }
  }
  ASSERT_MSPACE_CONSISTENT(space);
  for (std::size_t index = 0; index < blocks.size(); ++index)
    ASSERT_TRUE(
        Pattern::intact(blocks[index].first, blocks[index].second, static_cast<unsigned>(index)));
  ASSERT_GT(system.segmentMaps.size(), 2u);
  const std::size_t mapped = RecordingSystem::totalBytes(system.segmentMaps);
  EXPECT_EQ(mspace_mallinfo(space).arena, sizeof callerBase + mapped);
  ASSERT_TRUE(system.unmaps.empty());  // trim threshold not reached

  EXPECT_EQ(destroy_mspace(space), mapped);
  EXPECT_EQ(system.foreignUnmaps, 0);
  EXPECT_EQ(system.sbrkCalls, 0);
  // Every page mapped is unmapped exactly once, and the caller's base never.
  std::set<char*> unmappedPages;
  for (const auto& unmap : system.unmaps)
    for (std::size_t offset = 0; offset < unmap.size; offset += 4096)
      EXPECT_TRUE(unmappedPages.insert(unmap.start + offset).second);
  EXPECT_EQ(unmappedPages.size() * 4096, mapped);
  for (const auto& mapping : system.segmentMaps)
    for (std::size_t offset = 0; offset < mapping.size; offset += 4096)
      EXPECT_EQ(unmappedPages.count(mapping.start + offset), 1u);
}

TEST_P(MspaceGrowth, FreeingEverythingAndTrimmingReturnsTheFootprintToItsStart) {
  // An mspace of create_mspace, whose first region holds the state record.
  // Whatever the placement of later mappings, freeing all and trimming leaves
  // no more than the start and one granule. Mappings merged in front of the
  // first region (descending), or extending it before a later mapping takes
  // the top elsewhere (ascending, then a gap), would leave free space that
  // ends at a record which is never free, so trimming could not give it back.
  RecordingSystem system(GetParam());
  mspace space = system.createMapped(0);
  ASSERT_NE(space, nullptr);
  ASSERT_EQ(system.segmentMaps.size(), 1u);
  const std::size_t start = mspace_mallinfo(space).arena;
  std::vector<void*> blocks;
  for (int index = 0; index < 200; ++index) {
    if (index == 100) system.leaveGap(16 * granularity());
    blocks.push_back(mspace_malloc(space, 100000 + static_cast<std::size_t>(index) * 16));
    blocks.push_back(mspace_malloc(space, 40));
    ASSERT_TRUE(blocks.end()[-1] != nullptr && blocks.end()[-2] != nullptr);
  }
  ASSERT_GT(mspace_mallinfo(space).arena, std::size_t{16} << 20);
  ASSERT_MSPACE_CONSISTENT(space);
  for (void* block : blocks) mspace_free(space, block);
  mspace_trim(space, 0);
  ASSERT_MSPACE_CONSISTENT(space);
  EXPECT_EQ(mspace_trim(space, 0), 0);  // nothing left to give back
  for (const auto& unmap : system.unmaps) {
    EXPECT_EQ(unmap.size % granularity(), 0u);
    EXPECT_TRUE(system.contains(unmap.start));
  }
  EXPECT_LE(mspace_mallinfo(space).arena, start + granularity());
  EXPECT_EQ(mspace_mallinfo(space).arena + RecordingSystem::totalBytes(system.unmaps),
            RecordingSystem::totalBytes(system.segmentMaps));
  void* again = mspace_malloc(space, 300000);  // and it keeps working
  ASSERT_NE(again, nullptr);
  mspace_free(space, again);
  EXPECT_MSPACE_CONSISTENT(space);
  destroy_mspace(space);
  EXPECT_EQ(system.foreignUnmaps, 0);
  EXPECT_EQ(RecordingSystem::totalBytes(system.unmaps),
            RecordingSystem::totalBytes(system.segmentMaps));
}

INSTANTIATE_TEST_SUITE_P(Placements, MspaceGrowth,
                         ::testing::Values(Placement::Gapped, Placement::Ascending,
                                           Placement::Descending),
                         [](const ::testing::TestParamInfo<Placement>& param) {
                           return std::string(placementName(param.param));
                         });

TEST_F(MspaceSystem, TrimThresholdDecidesAutomaticTrimmingAndTheCallerRegionIsKept) {
  for (int threshold : {256 * 1024, -1}) {  // -1: never automatically, as the pools set it
    ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, threshold), 1);
    RecordingSystem system;
    mspace space = system.create(callerBase, 4096);
    ASSERT_NE(space, nullptr);
    mspace_free(space, mspace_malloc(space, 2 << 20));  // the top grows beyond the threshold
    EXPECT_EQ(system.unmaps.empty(), threshold == -1);
    EXPECT_EQ(mspace_trim(space, 0), threshold == -1 ? 1 : 0);
    EXPECT_FALSE(system.unmaps.empty());
    EXPECT_MSPACE_CONSISTENT(space);
    destroy_mspace(space);
  }
  // A caller region alone is never trimmed or unmapped.
  RecordingSystem system;
  mspace space = system.create(callerBase, sizeof callerBase);
  mspace_free(space, mspace_malloc(space, 30000));
  EXPECT_EQ(mspace_trim(space, 0), 0);
  EXPECT_EQ(destroy_mspace(space), 0u);
  EXPECT_TRUE(system.unmaps.empty());
  EXPECT_TRUE(system.segmentMaps.empty());
}

TEST_F(MspaceSystem, ExhaustionReturnsNullWithEnomemAndKeepsWhatItHas) {
  RecordingSystem system;
  system.failAfterBytes = 3 * granularity();
  mspace space = system.create(callerBase, sizeof callerBase);
  ASSERT_NE(space, nullptr);
  std::vector<std::pair<void*, std::size_t>> live;
  for (unsigned index = 0;; ++index) {
    const std::size_t size = 500 + index * 37 % 3000;
    errno = 0;
    void* block = mspace_malloc(space, size);
    if (block == nullptr) break;
    Pattern::fill(block, size, index);
    live.emplace_back(block, size);
    ASSERT_LT(index, 100000u);
  }
  EXPECT_EQ(errno, ENOMEM);
  ASSERT_MSPACE_CONSISTENT(space);
  EXPECT_FALSE(system.segmentMaps.empty());
  errno = 0;
  EXPECT_EQ(mspace_realloc(space, live.back().first, 1 << 20), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  for (std::size_t index = 0; index < live.size(); ++index)
    ASSERT_TRUE(
        Pattern::intact(live[index].first, live[index].second, static_cast<unsigned>(index)));

  // What was freed can be allocated again without new memory.
  const std::size_t mappings = system.segmentMaps.size();
  mspace_free(space, live.front().first);
  EXPECT_NE(mspace_malloc(space, live.front().second), nullptr);
  EXPECT_EQ(system.segmentMaps.size(), mappings);
  EXPECT_MSPACE_CONSISTENT(space);
  destroy_mspace(space);
}

TEST_F(MspaceSystem, DirectMappingOnlyAboveALoweredThreshold) {
  RecordingSystem system;
  mspace space = system.create(callerBase, 4096);
  ASSERT_NE(space, nullptr);
  mspace_free(space,
              mspace_malloc(space, 16 << 20));  // default threshold: even a huge block is a segment
  EXPECT_TRUE(system.directMaps.empty());

  ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, 1 << 20), 1);
  mspace_trim(space, 0);  // later requests must need system memory
  const std::size_t segmentsBefore = system.segmentMaps.size();
  const std::size_t unmapsBefore = system.unmaps.size();
  std::vector<void*> direct;
  for (std::size_t bytes : {std::size_t{1} << 20, (std::size_t{5} << 20) + 3}) {
    void* block = mspace_malloc(space, bytes);
    ASSERT_NE(block, nullptr);
    ASSERT_EQ(system.directMaps.size(), direct.size() + 1) << bytes;
    EXPECT_EQ(system.directMaps.back().size,
              granularityAlign(internal::requestToSize(bytes) + internal::kDirectMapExtra));
    EXPECT_TRUE(isAligned(block, kMspaceAlignment));
    Pattern::fill(block, bytes, 5);
    direct.push_back(block);
  }
  // A direct map from a function other than the default is not assumed zeroed.
  auto* zeroed = static_cast<unsigned char*>(mspace_calloc(space, 1, 2 << 20));
  ASSERT_NE(zeroed, nullptr);
  EXPECT_EQ(zeroed[0] | zeroed[1 << 20] | zeroed[(2 << 20) - 1], 0);
  direct.push_back(zeroed);
  EXPECT_EQ(system.segmentMaps.size(), segmentsBefore);
  EXPECT_EQ(mspace_mallinfo(space).hblkhd, RecordingSystem::totalBytes(system.directMaps));
  ASSERT_MSPACE_CONSISTENT(space);

  void* below = mspace_malloc(space, 900000);  // below the threshold: a segment
  ASSERT_NE(below, nullptr);
  EXPECT_EQ(system.directMaps.size(), direct.size());
  EXPECT_EQ(system.segmentMaps.size(), segmentsBefore + 1);

  for (void* block : direct) mspace_free(space, block);
  EXPECT_EQ(mspace_mallinfo(space).hblkhd, 0u);
  ASSERT_EQ(system.unmaps.size(), unmapsBefore + system.directMaps.size());
  EXPECT_EQ(
      RecordingSystem::totalBytes({system.unmaps.begin() + unmapsBefore, system.unmaps.end()}),
      RecordingSystem::totalBytes(system.directMaps));
  mspace_free(space, below);
  EXPECT_MSPACE_CONSISTENT(space);
  destroy_mspace(space);
}

}  // namespace
