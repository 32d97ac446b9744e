// How an mspace uses its system-memory functions: which function is asked
// for how much, with which context, what is given back by trimming and by
// destroy_mspace, and how exhaustion is reported.
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <set>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;
using Placement = RecordingSystem::Placement;

// Caller memory for the mspaces of these tests.
alignas(16) unsigned char base_[64 * 1024];

class MspaceSystem : public MspaceTest {};

// True if no page of [p, p + n) is mapped.
bool unmapped(const void* p, std::size_t n) {
  const std::size_t page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  const auto a = reinterpret_cast<std::uintptr_t>(p);
  for (std::uintptr_t q = a & ~(page - 1); q < a + n; q += page) {
    unsigned char v;
    if (mincore(reinterpret_cast<void*>(q), page, &v) == 0 || errno != ENOMEM) return false;
  }
  return true;
}

TEST_F(MspaceSystem, SegmentRequestsFollowTheGranularityRule) {
  // A request of normalised size nb that the mspace cannot serve asks the
  // segment function for nb + kSegmentMapExtra, granularity-aligned, and the
  // break function is never called.
  for (int gran : {0, 0x400000}) {
    if (gran != 0) {
      ASSERT_EQ(mspace_mallopt(kMspaceGranularity, gran), 1);
    }
    for (std::size_t bytes : {std::size_t{1}, std::size_t{1000}, std::size_t{65000}, std::size_t{65455},
                              std::size_t{200000}, std::size_t{3} << 20}) {
      RecordingSystem sys(Placement::Gapped);
      mspace m = sys.create(base_, kMspaceBaseOverhead + 1);  // holds no free byte
      ASSERT_NE(m, nullptr);
      void* p = mspace_malloc(m, bytes);
      ASSERT_NE(p, nullptr) << bytes;
      ASSERT_EQ(sys.segmentMaps.size(), 1u) << bytes;
      EXPECT_EQ(sys.segmentMaps[0].size, granularityAlign(internal::requestToSize(bytes) + internal::kSegmentMapExtra))
          << bytes;
      EXPECT_EQ(sys.segmentMaps[0].size % granularity(), 0u);
      EXPECT_TRUE(sys.contains(p));
      EXPECT_TRUE(sys.directMaps.empty());
      EXPECT_EQ(sys.sbrkCalls, 0);
      EXPECT_MSPACE_CONSISTENT(m);
      destroy_mspace(m);
    }
  }
}

TEST_F(MspaceSystem, GrowsOnlyThroughItsOwnFunctionsAndContext) {
  RecordingSystem a(Placement::Gapped);
  RecordingSystem b(Placement::Gapped);
  mspace ma = a.create(base_, 8192);
  mspace mb = b.create(base_ + 16384, 8192);
  ASSERT_TRUE(ma && mb);
  std::vector<void*> blocksA, blocksB;
  for (int i = 0; i < 300; ++i) {
    blocksA.push_back(mspace_malloc(ma, 1000 + i * 97));
    blocksB.push_back(mspace_malloc(mb, 5000 + i * 31));
    ASSERT_TRUE(blocksA.back() && blocksB.back());
  }
  EXPECT_GT(a.segmentMaps.size(), 1u);
  EXPECT_GT(b.segmentMaps.size(), 1u);
  auto inside = [](const RecordingSystem& s, void* p) {
    for (const auto& c : s.segmentMaps)
      if (p >= static_cast<void*>(c.start) && p < static_cast<void*>(c.start + c.size)) return true;
    return false;
  };
  for (void* p : blocksA) EXPECT_TRUE(inside(a, p) || (p >= base_ && p < base_ + 8192));
  for (void* p : blocksB) EXPECT_TRUE(inside(b, p) || (p >= base_ + 16384 && p < base_ + 24576));
  EXPECT_EQ(a.sbrkCalls + b.sbrkCalls, 0);
  EXPECT_EQ(mspace_mallinfo(ma).arena, 8192 + a.mappedBytes(a.segmentMaps));
  EXPECT_MSPACE_CONSISTENT(ma);
  EXPECT_MSPACE_CONSISTENT(mb);
  destroy_mspace(ma);
  destroy_mspace(mb);
}

// Every placement exercises a different growth path: a new head segment
// (gapped), extending the top's segment (ascending), merging in front of an
// existing segment (descending).
class MspaceGrowth : public MspaceTest, public ::testing::WithParamInterface<Placement> {};

TEST_P(MspaceGrowth, DestroyUnmapsExactlyWhatItMapped) {
  RecordingSystem sys(GetParam());
  mspace m = sys.create(base_, sizeof base_);
  ASSERT_NE(m, nullptr);
  std::vector<std::pair<char*, std::size_t>> blocks;
  for (int i = 0; i < 400; ++i) {
    const std::size_t s = 100 + static_cast<std::size_t>(i) * 613 % 90000;
    char* p = static_cast<char*>(mspace_malloc(m, s));
    ASSERT_NE(p, nullptr);
    Pattern::fill(p, s, static_cast<unsigned>(i));
    blocks.emplace_back(p, s);
    if (i % 3 == 0) {
      mspace_free(m, blocks[static_cast<std::size_t>(i) / 2].first);
      blocks[static_cast<std::size_t>(i) / 2].second = 0;
    }
  }
  ASSERT_MSPACE_CONSISTENT(m);
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    if (blocks[i].second != 0) {
      ASSERT_TRUE(Pattern::intact(blocks[i].first, blocks[i].second, static_cast<unsigned>(i)));
    }
  }
  ASSERT_GT(sys.segmentMaps.size(), 2u);
  const std::size_t mapped = sys.mappedBytes(sys.segmentMaps);
  EXPECT_EQ(mspace_mallinfo(m).arena, sizeof base_ + mapped);
  ASSERT_TRUE(sys.unmaps.empty());  // trim threshold not reached

  const unsigned long freed = destroy_mspace(m);
  EXPECT_EQ(freed, mapped);
  EXPECT_EQ(sys.mappedBytes(sys.unmaps), mapped);
  EXPECT_EQ(sys.foreignUnmaps, 0);
  // Every byte mapped is unmapped exactly once, and the caller's base never.
  std::set<char*> covered;
  for (const auto& u : sys.unmaps) {
    EXPECT_FALSE(u.start < reinterpret_cast<char*>(base_ + sizeof base_) &&
                 u.start + u.size > reinterpret_cast<char*>(base_));
    for (std::size_t off = 0; off < u.size; off += 4096) EXPECT_TRUE(covered.insert(u.start + off).second);
  }
  for (const auto& s : sys.segmentMaps)
    for (std::size_t off = 0; off < s.size; off += 4096) EXPECT_EQ(covered.count(s.start + off), 1u);
  base_[0] = base_[sizeof base_ - 1] = 7;
}

TEST_P(MspaceGrowth, TrimGivesBackFreeSegmentsAndTopThroughTheUnmapFunction) {
  RecordingSystem sys(GetParam());
  mspace m = sys.create(base_, sizeof base_);
  ASSERT_NE(m, nullptr);
  ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, -1), 1);  // no automatic trimming
  std::vector<void*> blocks;
  for (int i = 0; i < 64; ++i) blocks.push_back(mspace_malloc(m, 50000));
  void* keep = mspace_malloc(m, 100);
  for (void* p : blocks) ASSERT_NE(p, nullptr);
  for (void* p : blocks) mspace_free(m, p);
  EXPECT_TRUE(sys.unmaps.empty());
  ASSERT_MSPACE_CONSISTENT(m);
  const auto before = mspace_mallinfo(m);

  EXPECT_EQ(mspace_trim(m, 0), 1);
  ASSERT_MSPACE_CONSISTENT(m);
  const auto after = mspace_mallinfo(m);
  ASSERT_FALSE(sys.unmaps.empty());
  EXPECT_EQ(before.arena - after.arena, sys.mappedBytes(sys.unmaps));
  EXPECT_GT(before.arena - after.arena, 2'000'000u);
  for (const auto& u : sys.unmaps) {
    EXPECT_EQ(u.size % granularity(), 0u);
    EXPECT_TRUE(sys.contains(u.start));
  }
  // Nothing left to give back; the mspace keeps working.
  EXPECT_EQ(mspace_trim(m, 0), 0);
  void* again = mspace_malloc(m, 300000);
  EXPECT_NE(again, nullptr);
  mspace_free(m, again);
  mspace_free(m, keep);
  EXPECT_MSPACE_CONSISTENT(m);
  destroy_mspace(m);
}

INSTANTIATE_TEST_SUITE_P(Placements, MspaceGrowth,
                         ::testing::Values(Placement::Gapped, Placement::Ascending, Placement::Descending));

TEST_F(MspaceSystem, TrimThresholdTriggersTrimmingOnFree) {
  ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, 256 * 1024), 1);
  RecordingSystem sys(Placement::Gapped);
  mspace m = sys.create(base_, 4096);
  ASSERT_NE(m, nullptr);
  void* big = mspace_malloc(m, 2 << 20);
  ASSERT_NE(big, nullptr);
  mspace_free(m, big);  // the top grows beyond the threshold
  EXPECT_FALSE(sys.unmaps.empty());
  EXPECT_MSPACE_CONSISTENT(m);
  destroy_mspace(m);

  // With the threshold at its maximum (as the pools set it) nothing is
  // given back until an explicit trim.
  ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, -1), 1);
  RecordingSystem keep(Placement::Gapped);
  m = keep.create(base_, 4096);
  big = mspace_malloc(m, 2 << 20);
  mspace_free(m, big);
  EXPECT_TRUE(keep.unmaps.empty());
  EXPECT_EQ(mspace_trim(m, 0), 1);
  EXPECT_FALSE(keep.unmaps.empty());
  destroy_mspace(m);
}

TEST_F(MspaceSystem, ExternalRegionIsNeverTrimmedOrUnmapped) {
  RecordingSystem sys(Placement::Gapped);
  mspace m = sys.create(base_, sizeof base_);
  void* p = mspace_malloc(m, 30000);
  mspace_free(m, p);
  EXPECT_EQ(mspace_trim(m, 0), 0);
  EXPECT_EQ(destroy_mspace(m), 0u);
  EXPECT_TRUE(sys.unmaps.empty());
  EXPECT_TRUE(sys.segmentMaps.empty());
}

TEST_F(MspaceSystem, DefaultUnmapFunctionReleasesTheMappings) {
  // Black box: with the default unmapping function the segments are really
  // gone after destroy_mspace, while the caller's region stays usable.
  mspace m =
      create_mspace_with_base_ca(base_, 4096, 0, &default_mmap_func, &default_direct_mmap_func, nullptr, nullptr);
  ASSERT_NE(m, nullptr);
  std::vector<char*> blocks;
  for (int i = 0; i < 20; ++i) blocks.push_back(static_cast<char*>(mspace_malloc(m, 200000)));
  for (char* b : blocks) ASSERT_NE(b, nullptr);
  const std::size_t mapped = mspace_mallinfo(m).arena - 4096;
  EXPECT_EQ(destroy_mspace(m), mapped);
  for (char* b : blocks) EXPECT_TRUE(unmapped(b, 200000));
  base_[0] = 1;
  base_[4095] = 2;
  EXPECT_EQ(base_[0] + base_[4095], 3);
}

TEST_F(MspaceSystem, ExhaustionReturnsNullWithEnomemAndKeepsWhatItHas) {
  RecordingSystem sys(Placement::Gapped);
  sys.failAfterBytes = 3 * granularity();
  mspace m = sys.create(base_, sizeof base_);
  ASSERT_NE(m, nullptr);
  std::vector<std::pair<void*, std::size_t>> live;
  for (unsigned i = 0;; ++i) {
    const std::size_t s = 500 + i * 37 % 3000;
    errno = 0;
    void* p = mspace_malloc(m, s);
    if (p == nullptr) {
      EXPECT_EQ(errno, ENOMEM);
      break;
    }
    Pattern::fill(p, s, i);
    live.emplace_back(p, s);
    ASSERT_LT(i, 100000u);
  }
  ASSERT_MSPACE_CONSISTENT(m);
  EXPECT_FALSE(sys.segmentMaps.empty());
  errno = 0;
  EXPECT_EQ(mspace_malloc(m, 1 << 20), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  errno = 0;
  EXPECT_EQ(mspace_realloc(m, live.back().first, 1 << 20), nullptr);
  EXPECT_EQ(errno, ENOMEM);
  for (std::size_t i = 0; i < live.size(); ++i)
    ASSERT_TRUE(Pattern::intact(live[i].first, live[i].second, static_cast<unsigned>(i)));

  // What was freed can be allocated again without new memory.
  const std::size_t mappings = sys.segmentMaps.size();
  for (std::size_t i = 0; i < live.size(); i += 2) mspace_free(m, live[i].first);
  for (std::size_t i = 0; i < live.size(); i += 2) {
    live[i].first = mspace_malloc(m, live[i].second);
    ASSERT_NE(live[i].first, nullptr) << i;
  }
  EXPECT_EQ(sys.segmentMaps.size(), mappings);
  EXPECT_MSPACE_CONSISTENT(m);
  destroy_mspace(m);
}

TEST_F(MspaceSystem, DirectMappingOnlyBelowALoweredThreshold) {
  RecordingSystem sys(Placement::Gapped);
  mspace m = sys.create(base_, 4096);
  ASSERT_NE(m, nullptr);
  // Default threshold: even a huge block comes from a segment.
  void* huge = mspace_malloc(m, 16 << 20);
  ASSERT_NE(huge, nullptr);
  EXPECT_TRUE(sys.directMaps.empty());
  EXPECT_EQ(mspace_mallinfo(m).hblkhd, 0u);
  mspace_free(m, huge);

  ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, 1 << 20), 1);
  mspace_trim(m, 0);  // the freed 16 MiB may still be top; later requests must need system memory
  const std::size_t segmentsBefore = sys.segmentMaps.size();
  const std::size_t unmapsBefore = sys.unmaps.size();
  std::vector<void*> big;
  for (std::size_t bytes : {std::size_t{1} << 20, std::size_t{3} << 20, (std::size_t{5} << 20) + 3}) {
    const std::size_t nDirect = sys.directMaps.size();
    void* p = mspace_malloc(m, bytes);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(sys.directMaps.size(), nDirect + 1) << bytes;
    EXPECT_EQ(sys.directMaps.back().size, granularityAlign(internal::requestToSize(bytes) + internal::kDirectMapExtra));
    EXPECT_TRUE(isAligned(p, kMspaceAlignment));
    Pattern::fill(p, bytes, 5);
    big.push_back(p);
  }
  EXPECT_EQ(sys.segmentMaps.size(), segmentsBefore);
  EXPECT_EQ(mspace_mallinfo(m).hblkhd, sys.mappedBytes(sys.directMaps));
  ASSERT_MSPACE_CONSISTENT(m);

  // A direct map from a function other than the system default is not
  // assumed to be zero (RecordingSystem fills new mappings with 0xCD).
  auto* z = static_cast<unsigned char*>(mspace_calloc(m, 1, 2 << 20));
  ASSERT_NE(z, nullptr);
  EXPECT_EQ(z[0] | z[1 << 20] | z[(2 << 20) - 1], 0);
  big.push_back(z);

  // Below the threshold a request that needs system memory gets a segment.
  void* below = mspace_malloc(m, 900000);
  ASSERT_NE(below, nullptr);
  EXPECT_EQ(sys.directMaps.size(), big.size());
  EXPECT_EQ(sys.segmentMaps.size(), segmentsBefore + 1);

  for (void* p : big) mspace_free(m, p);
  EXPECT_EQ(mspace_mallinfo(m).hblkhd, 0u);
  ASSERT_EQ(sys.unmaps.size(), unmapsBefore + sys.directMaps.size());
  for (std::size_t i = 0; i < sys.directMaps.size(); ++i) {
    EXPECT_EQ(sys.unmaps[unmapsBefore + i].start, sys.directMaps[i].start);
    EXPECT_EQ(sys.unmaps[unmapsBefore + i].size, sys.directMaps[i].size);
  }
  mspace_free(m, below);
  EXPECT_MSPACE_CONSISTENT(m);
  destroy_mspace(m);
}

TEST_F(MspaceSystem, PoolConfigurationGrowsInWholeLargeGranules) {
  // As a memory pool sets them: 4 MiB granules, never trim automatically.
  ASSERT_EQ(mspace_mallopt(kMspaceGranularity, 0x400000), 1);
  ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, -1), 1);
  RecordingSystem sys(Placement::Gapped);
  const std::size_t region = 0x400000;
  void* base = RecordingSystem::directMap(region, &sys);
  mspace m = create_mspace_with_base_ca(base, region, 0, &RecordingSystem::directMap, &RecordingSystem::segmentMap,
                                        &RecordingSystem::sbrk, &sys);
  ASSERT_NE(m, nullptr);
  std::vector<void*> blocks;
  for (int i = 0; i < 2000; ++i) blocks.push_back(mspace_malloc(m, 10000));
  for (void* p : blocks) ASSERT_NE(p, nullptr);
  // fn4 is the segment function: here RecordingSystem::directMap, logged as a direct map.
  ASSERT_GT(sys.directMaps.size(), 1u);
  for (std::size_t i = 1; i < sys.directMaps.size(); ++i) EXPECT_EQ(sys.directMaps[i].size, 0x400000u);
  EXPECT_TRUE(sys.segmentMaps.empty());
  EXPECT_EQ(sys.sbrkCalls, 0);
  for (void* p : blocks) mspace_free(m, p);
  EXPECT_TRUE(sys.unmaps.empty());
  EXPECT_MSPACE_CONSISTENT(m);
  destroy_mspace(m);
}

}  // namespace
