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
#include <cstdlib>
#include <memory>
#include <random>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace mspace_test;
using Placement = RecordingSystem::Placement;

std::size_t envNumber(const char* name, std::size_t fallback) {
  const char* v = std::getenv(name);
  return v != nullptr && *v != '\0' ? std::strtoull(v, nullptr, 10) : fallback;
}

struct Config {
  const char* name;
  bool recorded;  // through a RecordingSystem (else create_mspace with the system defaults)
  Placement placement;
  int granularity;    // 0: default, 1: the page size
  int trimThreshold;  // 0: default
  int mmapThreshold;  // 0: default (off)
};

void PrintTo(const Config& c, std::ostream* os) { *os << c.name; }

class MspaceStress : public MspaceTest, public ::testing::WithParamInterface<Config> {
 protected:
  struct Block {
    char* p;
    std::size_t size;
    unsigned seed;
  };

  // Sizes from 1 byte to 6 MiB, most of them small.
  std::size_t randomSize() {
    const unsigned r = static_cast<unsigned>(rng_() % 10000);
    auto in = [&](std::size_t lo, std::size_t hi) { return lo + rng_() % (hi - lo + 1); };
    if (r < 6000) return in(1, 128);
    if (r < 8200) return in(129, 1024);
    if (r < 9500) return in(1025, 16384);
    if (r < 9940) return in(16385, 262144);
    if (r < 9995) return in(262145, 1 << 20);
    return in((1 << 20) + 1, 6 << 20);
  }

  void add(void* p, std::size_t size, std::size_t alignment) {
    ASSERT_NE(p, nullptr) << "size " << size << " errno " << errno;
    ASSERT_TRUE(isAligned(p, alignment)) << p << " size " << size;
    const unsigned seed = static_cast<unsigned>(rng_());
    Pattern::fill(p, size, seed);
    live_.push_back({static_cast<char*>(p), size, seed});
    liveBytes_ += size;
  }

  void releaseAt(std::size_t i) {
    Block b = live_[i];
    ASSERT_TRUE(Pattern::intact(b.p, b.size, b.seed)) << "block of " << b.size << " bytes was overwritten";
    mspace_free(m_, b.p);
    live_[i] = live_.back();
    live_.pop_back();
    liveBytes_ -= b.size;
  }

  void step() {
    const unsigned op = static_cast<unsigned>(rng_() % 100);
    const bool grow = live_.empty() || (growing_ ? op < 62 : op < 38);
    if (!grow) {
      const std::size_t i = rng_() % live_.size();
      if (op % 4 == 0) return resize(i);
      return releaseAt(i);
    }
    const std::size_t size = randomSize();
    switch (op % 10) {
      case 0: {  // calloc
        const std::size_t n = size / 8 + 1;
        auto* p = static_cast<unsigned char*>(mspace_calloc(m_, n, 8));
        ASSERT_NE(p, nullptr);
        static const std::vector<unsigned char> zeros(1 << 16);
        for (std::size_t off = 0; off < n * 8; off += zeros.size())
          ASSERT_EQ(std::memcmp(p + off, zeros.data(), std::min(zeros.size(), n * 8 - off)), 0);
        return add(p, n * 8, kMspaceAlignment);
      }
      case 1: {  // memalign
        const std::size_t alignment = std::size_t{32} << (rng_() % 12);
        return add(mspace_memalign(m_, alignment, size), size, alignment);
      }
      case 2:
        if (op < 8) {  // a few independent blocks
          unsigned long sizes[4];
          void* out[4];
          for (auto& s : sizes) s = 1 + rng_() % 600;
          ASSERT_EQ(mspace_independent_comalloc(m_, 4, sizes, out), out);
          for (int k = 0; k < 4; ++k) add(out[k], sizes[k], kMspaceAlignment);
          return;
        }
        [[fallthrough]];
      default:
        return add(mspace_malloc(m_, size), size, kMspaceAlignment);
    }
  }

  void resize(std::size_t i) {
    Block& b = live_[i];
    // Half of the resizes stay near the old size (the in-place paths).
    const std::size_t size = rng_() % 2 == 0
                                 ? randomSize()
                                 : std::max<std::size_t>(1, b.size + rng_() % 512) - std::min<std::size_t>(b.size, 200);
    char* p = static_cast<char*>(mspace_realloc(m_, b.p, size));
    ASSERT_NE(p, nullptr) << "realloc to " << size;
    ASSERT_TRUE(isAligned(p, kMspaceAlignment));
    ASSERT_TRUE(Pattern::intact(p, std::min(size, b.size), b.seed)) << b.size << " -> " << size;
    liveBytes_ += size;
    liveBytes_ -= b.size;
    b.p = p;
    b.size = size;
    b.seed = static_cast<unsigned>(rng_());
    Pattern::fill(p, size, b.seed);
  }

  void checkStatistics() {
    const auto info = mspace_mallinfo(m_);
    ASSERT_EQ(info.arena + info.hblkhd, info.uordblks + info.fordblks);
    ASSERT_GE(info.uordblks, liveBytes_);
    ASSERT_GE(info.usmblks, info.arena + info.hblkhd);
  }

  mspace m_ = nullptr;
  std::mt19937_64 rng_;
  std::vector<Block> live_;
  std::size_t liveBytes_ = 0;
  bool growing_ = true;
};

TEST_P(MspaceStress, RandomOperationsKeepEveryInvariant) {
  const Config& c = GetParam();
  if (c.granularity != 0) {
    const int g = c.granularity == 1 ? static_cast<int>(pageSize()) : c.granularity;
    ASSERT_EQ(mspace_mallopt(kMspaceGranularity, g), 1);
  }
  if (c.trimThreshold != 0) {
    ASSERT_EQ(mspace_mallopt(kMspaceTrimThreshold, c.trimThreshold), 1);
  }
  if (c.mmapThreshold != 0) {
    ASSERT_EQ(mspace_mallopt(kMspaceMmapThreshold, c.mmapThreshold), 1);
  }

  alignas(16) static unsigned char base[256 * 1024];
  std::unique_ptr<RecordingSystem> sys;
  if (c.recorded) {
    sys = std::make_unique<RecordingSystem>(c.placement, std::size_t{1} << 38);
    m_ = sys->create(base, sizeof base);
  } else {
    m_ = create_mspace(0, 0);
  }
  ASSERT_NE(m_, nullptr);
  const std::size_t baseline = mspace_mallinfo(m_).uordblks;

  const std::size_t ops = envNumber("KESTREL_MSPACE_STRESS_OPS", 400000);
  rng_.seed(envNumber("KESTREL_MSPACE_STRESS_SEED", 20240611) ^ std::hash<std::string>{}(c.name));
  for (std::size_t i = 0; i < ops; ++i) {
    if (i % 15000 == 0) growing_ = !growing_;
    if (live_.size() > 4000) growing_ = false;
    ASSERT_NO_FATAL_FAILURE(step()) << "operation " << i;
    if (i % 4000 == 0) {
      ASSERT_MSPACE_CONSISTENT(m_) << "after operation " << i;
      ASSERT_NO_FATAL_FAILURE(checkStatistics()) << "after operation " << i;
    }
    if (i % 50000 == 49999) {
      mspace_trim(m_, rng_() % 200000);
      ASSERT_MSPACE_CONSISTENT(m_) << "after trim at operation " << i;
    }
  }

  while (!live_.empty()) ASSERT_NO_FATAL_FAILURE(releaseAt(live_.size() - 1));
  ASSERT_MSPACE_CONSISTENT(m_);
  // Every free segment but the head goes back; what stays in use is the
  // state and the record of the first segment (plus alignment slack).
  mspace_trim(m_, 0);
  ASSERT_MSPACE_CONSISTENT(m_);
  const std::size_t inUse = mspace_mallinfo(m_).uordblks;
  EXPECT_GE(inUse, baseline);
  EXPECT_LE(inUse, baseline + internal::kTopFootSize + kMspaceAlignment);
  if (sys != nullptr) {
    EXPECT_EQ(sys->sbrkCalls, 0);
    destroy_mspace(m_);
    // Everything mapped was given back, through the mspace's own functions.
    EXPECT_EQ(sys->mappedBytes(sys->unmaps), sys->mappedBytes(sys->segmentMaps) + sys->mappedBytes(sys->directMaps));
    EXPECT_EQ(sys->foreignUnmaps, 0);
    if (c.mmapThreshold == 0) {
      EXPECT_TRUE(sys->directMaps.empty());
    }
  } else {
    destroy_mspace(m_);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, MspaceStress,
    ::testing::Values(Config{"system_defaults", false, Placement::Gapped, 0, 0, 0},
                      Config{"gapped_direct_maps", true, Placement::Gapped, 0, 512 * 1024, 256 * 1024},
                      Config{"descending_merges", true, Placement::Descending, 0, 1 << 20, 0},
                      Config{"ascending_pool_like", true, Placement::Ascending, 0x400000, -1, 0},
                      Config{"page_granules_eager_trim", true, Placement::Gapped, 1, 64 * 1024, 0}),
    [](const ::testing::TestParamInfo<Config>& param) { return std::string(param.param.name); });

}  // namespace
