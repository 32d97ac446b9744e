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

inline int asMalloptValue(std::size_t v) { return v == ~std::size_t{0} ? -1 : static_cast<int>(v); }

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
  static std::size_t granularityAlign(std::size_t s) {
    const std::size_t g = granularity();
    return (s + g) & ~(g - 1);
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
    void* r = mmap(nullptr, reserve, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (r == MAP_FAILED) throw std::runtime_error("cannot reserve address space");
    reserve_ = static_cast<char*>(r);
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
    mspace m = kestrel::create_mspace_with_base_ca(base, capacity, 0, &segmentMap, &directMap, &sbrk, this);
    if (m != nullptr) kestrel::internal::mspaceSetUnmapFunction(m, &unmap);
    return m;
  }

  static void* segmentMap(unsigned long size, void* ctx) { return self(ctx)->map(size, &RecordingSystem::segmentMaps); }
  static void* directMap(unsigned long size, void* ctx) { return self(ctx)->map(size, &RecordingSystem::directMaps); }
  static int unmap(char* start, unsigned long size, void* ctx) {
    RecordingSystem* s = self(ctx);
    s->unmaps.push_back({start, size});
    if (start < s->reserve_ || start + size > s->reserve_ + s->reserveSize_) {
      ++s->foreignUnmaps;
      return -1;
    }
    void* r = mmap(start, size, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_FIXED, -1, 0);
    return r == MAP_FAILED ? -1 : 0;
  }
  static void* sbrk(int, void* ctx) {
    ++self(ctx)->sbrkCalls;
    return reinterpret_cast<void*>(~static_cast<unsigned long>(0));
  }

  std::size_t mappedBytes(const std::vector<Call>& calls) const {
    std::size_t n = 0;
    for (const Call& c : calls) n += c.size;
    return n;
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
    static std::vector<RecordingSystem*> v;
    return v;
  }
  static RecordingSystem* self(void* ctx) {
    auto* s = static_cast<RecordingSystem*>(ctx);
    if (std::find(live().begin(), live().end(), s) == live().end()) {
      std::fprintf(stderr, "mspace callback arrived with a context that is no live provider\n");
      std::abort();
    }
    return s;
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
    void* r = mmap(at, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
    if (r == MAP_FAILED) return reinterpret_cast<void*>(~std::uintptr_t{0});
    std::memset(r, 0xCD, size);
    handedOut += size;
    (this->*log).push_back({at, size});
    return r;
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
      std::vector<unsigned char> b(kMax + 256);
      for (std::size_t k = 0; k < b.size(); ++k) b[k] = static_cast<unsigned char>(k * 7 + (k >> 8) + (k >> 16));
      return b;
    }();
    return bytes.data();
  }
  static void fill(void* p, std::size_t size, unsigned seed) { std::memcpy(p, ref() + (seed & 0xFF), size); }
  static bool intact(const void* p, std::size_t size, unsigned seed) {
    return std::memcmp(p, ref() + (seed & 0xFF), size) == 0;
  }
};

inline bool isAligned(const void* p, std::size_t a) { return reinterpret_cast<std::uintptr_t>(p) % a == 0; }

}  // namespace mspace_test
