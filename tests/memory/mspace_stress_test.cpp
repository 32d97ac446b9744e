// Long randomized runs of malloc/free/realloc/calloc/memalign/comalloc and
// trim over differently configured mspaces. Every block carries a
// position-dependent pattern that is verified before it is freed and after
// it is resized; the consistency checker runs periodically.
//
// The run is bounded for CI (a fixed seed and an operation count sized for a
// sanitizer build). Run longer locally with
//   KESTREL_MSPACE_STRESS_OPS=<operations per configuration>
//   KESTREL_MSPACE_STRESS_SEED=<seed>
#include <cerrno>
#include <memory>
#include <random>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;
using Placement = RecordingSystem::Placement;

std::size_t environmentNumber(const char* name, std::size_t fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : fallback;
}

struct Config {
  const char* name;
  bool recorded;  // through a RecordingSystem (else create_mspace with the system defaults)
  Placement placement;
  int granularity;    // 0: default, 1: the page size
  int trimThreshold;  // 0: default
  int mmapThreshold;  // 0: default (off)
};

void PrintTo(const Config& config, std::ostream* out) {
  *out << config.name;
}

class MspaceStress : public MspaceTest, public ::testing::WithParamInterface<Config> {
 protected:
  struct Block {
    char* start;
    std::size_t size;
    unsigned seed;
  };

  // Sizes from 1 byte to 6 MiB, most of them small.
  std::size_t randomSize() {
    const std::size_t bands[][3] = {{6000, 1, 128},          {8200, 129, 1024},
                                    {9500, 1025, 16384},     {9940, 16385, 262144},
                                    {9995, 262145, 1 << 20}, {10000, (1 << 20) + 1, 6 << 20}};
    const std::size_t percentile = random_() % 10000;
    for (const auto& [below, low, high] : bands)
      if (percentile < below) return low + random_() % (high - low + 1);
    return 1;
  }

  void add(void* start, std::size_t size, std::size_t alignment) {
    ASSERT_NE(start, nullptr) << "size " << size << " errno " << errno;
    ASSERT_TRUE(isAligned(start, alignment)) << start << " size " << size;
    const unsigned seed = static_cast<unsigned>(random_());
    Pattern::fill(start, size, seed);
    live_.push_back({static_cast<char*>(start), size, seed});
    liveBytes_ += size;
  }

  void releaseAt(std::size_t index) {
    const Block block = live_[index];
    ASSERT_TRUE(Pattern::intact(block.start, block.size, block.seed))
        << "block of " << block.size << " overwritten";
    mspace_free(space_, block.start);
    live_[index] = live_.back();
    live_.pop_back();
    liveBytes_ -= block.size;
  }

  void resize(Block& block) {
    // Half of the resizes stay near the old size (the in-place paths).
    const std::size_t size = random_() % 2 == 0
                                 ? randomSize()
                                 : std::max<std::size_t>(1, block.size + random_() % 512) -
                                       std::min<std::size_t>(block.size, 200);
    char* moved = static_cast<char*>(mspace_realloc(space_, block.start, size));
    ASSERT_NE(moved, nullptr) << "realloc to " << size;
    ASSERT_TRUE(isAligned(moved, kMspaceAlignment));
    ASSERT_TRUE(Pattern::intact(moved, std::min(size, block.size), block.seed))
        << block.size << " -> " << size;
    liveBytes_ = liveBytes_ + size - block.size;
    block = {moved, size, static_cast<unsigned>(random_())};
    Pattern::fill(moved, size, block.seed);
  }

  void step() {
    const unsigned operation = static_cast<unsigned>(random_() % 100);
    if (!live_.empty() && operation >= (growing_ ? 62u : 38u)) {
      const std::size_t index = random_() % live_.size();
      return operation % 4 == 0 ? resize(live_[index]) : releaseAt(index);
    }
    const std::size_t size = randomSize();
    if (operation % 10 == 0) {
      const std::size_t elements = size / 8 + 1;
      auto* zeroed = static_cast<unsigned char*>(mspace_calloc(space_, elements, 8));
      ASSERT_NE(zeroed, nullptr);
      ASSERT_EQ(std::count(zeroed, zeroed + elements * 8, 0), static_cast<long>(elements * 8));
      return add(zeroed, elements * 8, kMspaceAlignment);
    }
    if (operation % 10 == 1) {
      const std::size_t alignment = std::size_t{32} << (random_() % 12);
      return add(mspace_memalign(space_, alignment, size), size, alignment);
    }
    if (operation == 2) {
      unsigned long sizes[4];
      void* blocks[4];
      for (auto& blockSize : sizes) blockSize = 1 + random_() % 600;
      ASSERT_EQ(mspace_independent_comalloc(space_, 4, sizes, blocks), blocks);
      for (int index = 0; index < 4; ++index) add(blocks[index], sizes[index], kMspaceAlignment);
      return;
    }
    add(mspace_malloc(space_, size), size, kMspaceAlignment);
  }

  void checkStatistics() {
    const auto info = mspace_mallinfo(space_);
    ASSERT_EQ(info.arena + info.hblkhd, info.uordblks + info.fordblks);
    ASSERT_GE(info.uordblks, liveBytes_);
    ASSERT_GE(info.usmblks, info.arena + info.hblkhd);
  }

  mspace space_ = nullptr;
  std::mt19937_64 random_;
  std::vector<Block> live_;
  std::size_t liveBytes_ = 0;
  bool growing_ = true;
};

TEST_P(MspaceStress, RandomOperationsKeepEveryInvariant) {
  const Config& config = GetParam();
  if (config.granularity != 0) {
    const int granule = config.granularity == 1 ? static_cast<int>(pageSize()) : config.granularity;
    ASSERT_EQ(mspace_mallopt(kMspaceGranularity, granule), 1);
  }
  if (config.trimThreshold != 0) {
    ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, config.trimThreshold), 1);
  }
  if (config.mmapThreshold != 0) {
    ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, config.mmapThreshold), 1);
  }

  alignas(16) static unsigned char base[256 * 1024];
  std::unique_ptr<RecordingSystem> system;
  if (config.recorded) {
    system = std::make_unique<RecordingSystem>(config.placement, std::size_t{1} << 38);
    space_ = system->create(base, sizeof base);
  } else {
    space_ = create_mspace(0, 0);
  }
  ASSERT_NE(space_, nullptr);
  const std::size_t baseline = mspace_mallinfo(space_).uordblks;

  const std::size_t operations = environmentNumber("KESTREL_MSPACE_STRESS_OPS", 400000);
  random_.seed(environmentNumber("KESTREL_MSPACE_STRESS_SEED", 20240611) ^
               std::hash<std::string>{}(config.name));
  for (std::size_t operation = 0; operation < operations; ++operation) {
    if (operation % 15000 == 0) growing_ = !growing_;
    if (live_.size() > 4000) growing_ = false;
    ASSERT_NO_FATAL_FAILURE(step()) << "operation " << operation;
    if (operation % 4000 == 0) {
      ASSERT_MSPACE_CONSISTENT(space_) << "after operation " << operation;
      ASSERT_NO_FATAL_FAILURE(checkStatistics()) << "after operation " << operation;
    }
    if (operation % 50000 == 49999) {
      mspace_trim(space_, random_() % 200000);
      ASSERT_MSPACE_CONSISTENT(space_) << "after trim at operation " << operation;
    }
  }

  while (!live_.empty()) ASSERT_NO_FATAL_FAILURE(releaseAt(live_.size() - 1));
  // Every free segment but the head goes back; what stays in use is the
  // state and the record of the first segment (plus alignment slack).
  mspace_trim(space_, 0);
  ASSERT_MSPACE_CONSISTENT(space_);
  const std::size_t inUse = mspace_mallinfo(space_).uordblks;
  EXPECT_GE(inUse, baseline);
  EXPECT_LE(inUse, baseline + internal::kTopFootSize + kMspaceAlignment);
  destroy_mspace(space_);
  if (system != nullptr) {  // everything mapped went back through the mspace's own functions
    EXPECT_EQ(system->sbrkCalls, 0);
    EXPECT_EQ(RecordingSystem::totalBytes(system->unmaps),
              RecordingSystem::totalBytes(system->segmentMaps) +
                  RecordingSystem::totalBytes(system->directMaps));
    EXPECT_EQ(system->foreignUnmaps, 0);
    EXPECT_EQ(system->directMaps.empty(), config.mmapThreshold == 0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, MspaceStress,
    ::testing::Values(Config{"system_defaults", false, Placement::Gapped, 0, 0, 0},
                      Config{"gapped_direct_maps", true, Placement::Gapped, 0, 512 * 1024,
                             256 * 1024},
                      Config{"descending_merges", true, Placement::Descending, 0, 1 << 20, 0},
                      Config{"ascending_pool_like", true, Placement::Ascending, 0x400000, -1, 0},
                      Config{"page_granules_eager_trim", true, Placement::Gapped, 1, 64 * 1024, 0}),
    [](const ::testing::TestParamInfo<Config>& param) { return std::string(param.param.name); });

TEST(MspaceTestNames, ConfigurationsPrintByName) {
  EXPECT_EQ(::testing::PrintToString(
                Config{"descending_merges", true, Placement::Descending, 0, 1 << 20, 0}),
            "descending_merges");
}

}  // namespace
