// Shared helpers of the mspace tests: restoring the process-wide parameters,
// a recording system-memory provider with chosen placement and failures, and
// a position-dependent fill pattern.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kestrel/memory.h"
#include "memory/mspace_debug.h"

namespace mspace_test {

using kestrel::mspace;

#define EXPECT_MSPACE_CONSISTENT(space) \
  EXPECT_EQ(kestrel::internal::mspaceCheckConsistency(space), "")
#define ASSERT_MSPACE_CONSISTENT(space) \
  ASSERT_EQ(kestrel::internal::mspaceCheckConsistency(space), "")

// Base fixture: the process-wide parameters are put back after every test.
class MspaceTest : public ::testing::Test {
 protected:
  void SetUp() override { savedParams_ = kestrel::internal::mspaceParams(); }
  void TearDown() override {
    const std::pair<int, std::size_t> saved[] = {
        {kestrel::kMspaceTrimThreshold, savedParams_.trim_threshold},
        {kestrel::kMspaceGranularity, savedParams_.granularity},
        {kestrel::kMspaceMmapThreshold, savedParams_.mmap_threshold}};
    for (const auto& [param, setting] : saved)
      EXPECT_EQ(kestrel::mspace_mallopt(
                    param, setting == ~std::size_t{0} ? -1 : static_cast<int>(setting)),
                1);
  }
  static std::size_t granularity() { return kestrel::internal::mspaceParams().granularity; }
  static std::size_t pageSize() { return kestrel::internal::mspaceParams().page_size; }
  // The mapping size rule: add a granule, clear the bits below it.
  static std::size_t granularityAlign(std::size_t size) {
    return (size + granularity()) & ~(granularity() - 1);
  }

  kestrel::internal::MspaceParams savedParams_{};
};

// A system-memory provider that records every call. Mappings are carved from
// one reserved range so that the test chooses their placement: with gaps
// (every mapping a separate segment), ascending without gaps (each follows
// the previous one) or descending without gaps (each precedes it). New
// mappings are filled with 0xCD so that code assuming zeroed memory shows up.
// A callback whose context is no live provider aborts the process.
class RecordingSystem {
 public:
  enum class Placement { Gapped, Ascending, Descending };
  struct Call {
    char* start;
    std::size_t size;
  };

  explicit RecordingSystem(Placement placement = Placement::Gapped,
                           std::size_t reserveBytes = std::size_t{1} << 32)
      : placement_(placement), reserveBytes_(reserveBytes) {
    void* range =
        mmap(nullptr, reserveBytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (range == MAP_FAILED) throw std::runtime_error("cannot reserve address space");
    reserveStart_ = nextUp_ = static_cast<char*>(range);
    nextDown_ = reserveStart_ + reserveBytes;
    liveProviders().push_back(this);
  }
  ~RecordingSystem() {
    liveProviders().erase(std::find(liveProviders().begin(), liveProviders().end(), this));
    munmap(reserveStart_, reserveBytes_);
  }
  RecordingSystem(const RecordingSystem&) = delete;
  RecordingSystem& operator=(const RecordingSystem&) = delete;

  mspace create(void* base, std::size_t capacity) {
    mspace space = kestrel::create_mspace_with_base_ca(base, capacity, 0, &segmentMap, &directMap,
                                                       &sbrk, this);
    if (space != nullptr) kestrel::internal::mspaceSetUnmapFunction(space, &unmap);
    return space;
  }

  // As create_mspace(capacity, 0), with the first region from this provider too.
  mspace createMapped(std::size_t capacity) {
    return kestrel::internal::mspaceCreateMapped(capacity, &segmentMap, &directMap, &unmap, this);
  }

  // The next mapping does not adjoin the previous one.
  void leaveGap(std::size_t bytes) {
    nextUp_ += bytes;
    nextDown_ -= bytes;
  }

  static void* segmentMap(unsigned long size, void* context) {
    return provider(context)->map(size, false);
  }
  static void* directMap(unsigned long size, void* context) {
    return provider(context)->map(size, true);
  }
  static int unmap(char* start, unsigned long size, void* context) {
    RecordingSystem* system = provider(context);
    system->unmaps.push_back({start, size});
    if (!system->contains(start) || !system->contains(start + size - 1)) {
      ++system->foreignUnmaps;
      return -1;
    }
    // Back to the reservation rather than unmapped, so that the range stays ours.
    void* range = mmap(start, size, PROT_NONE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    return range == MAP_FAILED ? -1 : 0;
  }
  static void* sbrk(int, void* context) {
    ++provider(context)->sbrkCalls;
    return reinterpret_cast<void*>(~std::uintptr_t{0});
  }

  static std::size_t totalBytes(const std::vector<Call>& calls) {
    std::size_t total = 0;
    for (const Call& call : calls) total += call.size;
    return total;
  }
  bool contains(const void* address) const {
    const char* byte = static_cast<const char*>(address);
    return byte >= reserveStart_ && byte < reserveStart_ + reserveBytes_;
  }

  std::vector<Call> segmentMaps, directMaps, unmaps;
  int sbrkCalls = 0;
  int foreignUnmaps = 0;  // unmaps of memory this provider never handed out
  std::size_t failAfterBytes =
      ~std::size_t{0};  // mapping fails once this many bytes were handed out

 private:
  static std::vector<RecordingSystem*>& liveProviders() {
    static std::vector<RecordingSystem*> providers;
    return providers;
  }
  static RecordingSystem* provider(void* context) {
    auto* system = static_cast<RecordingSystem*>(context);
    if (std::find(liveProviders().begin(), liveProviders().end(), system) ==
        liveProviders().end()) {
      std::fprintf(stderr, "mspace callback arrived with a context that is no live provider\n");
      std::abort();
    }
    return system;
  }

  void* map(std::size_t size, bool direct) {
    void* const failure = reinterpret_cast<void*>(~std::uintptr_t{0});
    if (handedOut_ + size > failAfterBytes || size > reserveBytes_ / 4) return failure;
    char* start = placement_ == Placement::Descending ? (nextDown_ -= size) : nextUp_;
    if (placement_ != Placement::Descending)
      nextUp_ += size + (placement_ == Placement::Gapped ? 16 * 4096 : 0);
    if (nextUp_ > nextDown_) return failure;
    if (mmap(start, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) ==
        MAP_FAILED)
      return failure;
    std::memset(start, 0xCD, size);
    handedOut_ += size;
    (direct ? directMaps : segmentMaps).push_back({start, size});
    return start;
  }

  Placement placement_;
  std::size_t reserveBytes_;
  std::size_t handedOut_ = 0;
  char* reserveStart_;
  char* nextUp_;
  char* nextDown_;
};

// Readable names of the placements, in test names and in failure messages.
inline const char* placementName(RecordingSystem::Placement placement) {
  switch (placement) {
    case RecordingSystem::Placement::Gapped:
      return "Gapped";
    case RecordingSystem::Placement::Ascending:
      return "Ascending";
    case RecordingSystem::Placement::Descending:
      return "Descending";
  }
  return "UnknownPlacement";
}
inline void PrintTo(RecordingSystem::Placement placement, std::ostream* out) {
  *out << placementName(placement);
}

// Position-dependent bytes: the contents of a block are reference()[seed % 256 ..][0 .. size).
struct Pattern {
  static const unsigned char* reference() {
    static const std::vector<unsigned char> bytes = [] {
      std::vector<unsigned char> pattern((std::size_t{9} << 20) + 256);
      for (std::size_t offset = 0; offset < pattern.size(); ++offset)
        pattern[offset] = static_cast<unsigned char>(offset * 7 + (offset >> 8) + (offset >> 16));
      return pattern;
    }();
    return bytes.data();
  }
  static void fill(void* block, std::size_t size, unsigned seed) {
    std::memcpy(block, reference() + (seed & 0xFF), size);
  }
  static bool intact(const void* block, std::size_t size, unsigned seed) {
    return std::memcmp(block, reference() + (seed & 0xFF), size) == 0;
  }
};

inline bool isAligned(const void* address, std::size_t alignment) {
  return reinterpret_cast<std::uintptr_t>(address) % alignment == 0;
}

}  // namespace mspace_test
