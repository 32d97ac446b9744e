// Shared helpers of the mspace tests: restoring the process-wide parameters,
// a recording system-memory provider with controllable placement and
// failures, and a position-dependent fill pattern.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "kestrel/memory.h"
#include "memory/mspace_debug.h"

namespace mspace_test {

using kestrel::mspace;

#define EXPECT_MSPACE_CONSISTENT(m) EXPECT_EQ(kestrel::internal::mspaceCheckConsistency(m), "")
#define ASSERT_MSPACE_CONSISTENT(m) ASSERT_EQ(kestrel::internal::mspaceCheckConsistency(m), "")

inline int asMalloptValue(std::size_t setting) { return setting == ~std::size_t{0} ? -1 : static_cast<int>(setting); }

// Base fixture: the process-wide parameters are put back after every test.
class MspaceTest : public ::testing::Test {
 protected:
  void SetUp() override { saved_ = kestrel::internal::mspaceParams(); }
  void TearDown() override {
    EXPECT_EQ(kestrel::mspace_mallopt(kestrel::kMspaceTrimThreshold, asMalloptValue(saved_.trim_threshold)), 1);
    EXPECT_EQ(kestrel::mspace_mallopt(kestrel::kMspaceGranularity, asMalloptValue(saved_.granularity)), 1);
    EXPECT_EQ(kestrel::mspace_mallopt(kestrel::kMspaceMmapThreshold, asMalloptValue(saved_.mmap_threshold)), 1);
  }
  static std::size_t granularity() { return kestrel::internal::mspaceParams().granularity; }
  static std::size_t pageSize() { return kestrel::internal::mspaceParams().page_size; }
  // The mapping size rule: add a granule, clear the bits below it.
  static std::size_t granularityAlign(std::size_t size) {
    const std::size_t unit = granularity();
    return (size + unit) & ~(unit - 1);
  }

  kestrel::internal::MspaceParams saved_{};
};

// A system-memory provider that records every call. Mappings are carved
// from one reserved address range so that their placement is chosen by the
// test: with gaps (every mapping a separate segment), ascending without gaps
// (each new segment directly follows the previous one) or descending without
// gaps (each directly precedes the previous one). Unmapped ranges are given
// back to the reservation. New mappings are filled with 0xCD so that code
// that assumes fresh memory is zero shows up.
class RecordingSystem {
 public:
  enum class Placement { Gapped, Ascending, Descending };
  struct Call {
    char* start;
    std::size_t size;
  };

  explicit RecordingSystem(Placement placement = Placement::Gapped, std::size_t reserve = std::size_t{1} << 32)
      : placement_(placement), reserveSize_(reserve) {
    void* range = mmap(nullptr, reserve, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range == MAP_FAILED) throw std::runtime_error("cannot reserve address space");
    reserve_ = static_cast<char*>(range);
    up_ = reserve_;
    down_ = reserve_ + reserve;
    live().push_back(this);
  }
  ~RecordingSystem() {
    live().erase(std::find(live().begin(), live().end(), this));
    munmap(reserve_, reserveSize_);
  }
  RecordingSystem(const RecordingSystem&) = delete;
  RecordingSystem& operator=(const RecordingSystem&) = delete;

  mspace create(void* base, std::size_t capacity) {
    mspace msp = kestrel::create_mspace_with_base_ca(base, capacity, 0, &segmentMap, &directMap, &sbrk, this);
    if (msp != nullptr) kestrel::internal::mspaceSetUnmapFunction(msp, &unmap);
    return msp;
  }

  static void* segmentMap(unsigned long size, void* ctx) { return self(ctx)->map(size, &RecordingSystem::segmentMaps); }
  static void* directMap(unsigned long size, void* ctx) { return self(ctx)->map(size, &RecordingSystem::directMaps); }
  static int unmap(char* start, unsigned long size, void* ctx) {
    RecordingSystem* system = self(ctx);
    system->unmaps.push_back({start, size});
    if (start < system->reserve_ || start + size > system->reserve_ + system->reserveSize_) {
      ++system->foreignUnmaps;
      return -1;
    }
    // Back to the reservation rather than unmapped, so that the range stays ours.
    void* range = mmap(start, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    return range == MAP_FAILED ? -1 : 0;
  }
  static void* sbrk(int, void* ctx) {
    ++self(ctx)->sbrkCalls;
    return reinterpret_cast<void*>(~static_cast<unsigned long>(0));
  }

  std::size_t mappedBytes(const std::vector<Call>& calls) const {
    std::size_t total = 0;
    for (const Call& call : calls) total += call.size;
    return total;
  }
  bool contains(const void* p) const {
    return static_cast<const char*>(p) >= reserve_ && static_cast<const char*>(p) < reserve_ + reserveSize_;
  }

  std::vector<Call> segmentMaps, directMaps, unmaps;
  int sbrkCalls = 0;
  int foreignUnmaps = 0;                         // unmaps of memory this provider never handed out
  std::size_t failAfterBytes = ~std::size_t{0};  // mapping fails once this many bytes were handed out
  std::size_t handedOut = 0;

 private:
  static std::vector<RecordingSystem*>& live() {
    static std::vector<RecordingSystem*> providers;
    return providers;
  }
  static RecordingSystem* self(void* ctx) {
    auto* system = static_cast<RecordingSystem*>(ctx);
    if (std::find(live().begin(), live().end(), system) == live().end()) {
      std::fprintf(stderr, "mspace callback arrived with a context that is no live provider\n");
      std::abort();
    }
    return system;
  }

  void* map(std::size_t size, std::vector<Call> RecordingSystem::*log) {
    const std::size_t page = 4096;
    if (handedOut + size > failAfterBytes || size > reserveSize_ / 4)
      return reinterpret_cast<void*>(~std::uintptr_t{0});
    char* at;
    switch (placement_) {
      case Placement::Gapped:
        at = up_;
        up_ += size + 16 * page;
        break;
      case Placement::Ascending:
        at = up_;
        up_ += size;
        break;
      case Placement::Descending:
      default:
        down_ -= size;
        at = down_;
        break;
    }
    if (up_ > down_) return reinterpret_cast<void*>(~std::uintptr_t{0});
    void* mapping = mmap(at, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (mapping == MAP_FAILED) return reinterpret_cast<void*>(~std::uintptr_t{0});
    std::memset(mapping, 0xCD, size);
    handedOut += size;
    (this->*log).push_back({at, size});
    return mapping;
  }

  Placement placement_;
  std::size_t reserveSize_;
  char* reserve_;
  char* up_;
  char* down_;
};

// Position-dependent bytes: block contents are ref()[seed .. seed + size).
class Pattern {
 public:
  static constexpr std::size_t kMax = std::size_t{9} << 20;
  static const unsigned char* ref() {
    static const std::vector<unsigned char> bytes = [] {
      std::vector<unsigned char> pattern(kMax + 256);
      for (std::size_t i = 0; i < pattern.size(); ++i)
        pattern[i] = static_cast<unsigned char>(i * 7 + (i >> 8) + (i >> 16));
      return pattern;
    }();
    return bytes.data();
  }
  static void fill(void* block, std::size_t size, unsigned seed) { std::memcpy(block, ref() + (seed & 0xFF), size); }
  static bool intact(const void* block, std::size_t size, unsigned seed) {
    return std::memcmp(block, ref() + (seed & 0xFF), size) == 0;
  }
};

inline bool isAligned(const void* address, std::size_t alignment) {
  return reinterpret_cast<std::uintptr_t>(address) % alignment == 0;
}

}  // namespace mspace_test
