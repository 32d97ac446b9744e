// The consistency checker must notice broken invariants, not just pass on
// healthy mspaces: each case damages one invariant of an mspace that lives
// entirely in a caller buffer, expects the matching report, and restores the
// buffer.
#include <functional>

#include "memory/mspace_support.h"

namespace {

using namespace kestrel;
using namespace kestrel::mspace_detail;
using namespace mspace_test;

alignas(16) unsigned char gArena[256 * 1024];

class MspaceChecker : public MspaceTest {
 public:  // the damage functions of the cases reach in
  void SetUp() override {
    MspaceTest::SetUp();
    space_ = create_mspace_with_base(gArena, sizeof gArena, 0);
    ASSERT_NE(space_, nullptr);
    // Free chunks in small bins and tree bins, separated by blocks in use,
    // and a designated victim.
    for (std::size_t size : {200, 200, 100, 100, 600, 600, 5000, 5000, 70000, 16})
      blocks_.push_back(mspace_malloc(space_, size));
    for (void* block : blocks_) ASSERT_NE(block, nullptr);
    for (std::size_t index = 0; index < 10; index += 2) mspace_free(space_, blocks_[index]);
    blocks_.push_back(
        mspace_malloc(space_, 24));  // splits the 112-byte chunk: the remainder becomes dv
    ASSERT_MSPACE_CONSISTENT(space_);
    ASSERT_NE(space_->smallmap, 0u);
    ASSERT_NE(space_->treemap, 0u);
    ASSERT_NE(space_->dvsize, 0u);
  }

  Chunk* firstSmallBinChunk() { return smallBinAt(space_, bitToIndex(space_->smallmap))->fd; }
  Chunk* someTreeChunk() { return *treeBinAt(space_, bitToIndex(space_->treemap)); }

  mspace space_ = nullptr;
  std::vector<void*> blocks_;
};

TEST_F(MspaceChecker, ReportsEachBrokenInvariant) {
  const struct {
    const char* what;
    const char* expected;  // part of the report
    std::function<void(MspaceChecker&)> damage;
  } cases[] = {
      {"small bitmap bit cleared", "bitmap",
       [](MspaceChecker& test) { test.space_->smallmap &= test.space_->smallmap - 1; }},
      {"tree bitmap bit set for an empty bin", "bitmap",
       [](MspaceChecker& test) { test.space_->treemap |= idxToBit(kTreeBins - 1); }},
      {"free chunk footer", "footer",
       [](MspaceChecker& test) {
         Chunk* chunk = test.firstSmallBinChunk();
         nextChunk(chunk)->prev_foot += 16;
       }},
      {"PINUSE after a free chunk", "PINUSE",
       [](MspaceChecker& test) { nextChunk(test.firstSmallBinChunk())->head |= kPinuse; }},
      {"free chunk missing from its bin", "in no bin",
       [](MspaceChecker& test) {
         Chunk* chunk = test.firstSmallBinChunk();
         unlinkSmallChunk(test.space_, chunk, chunkSize(chunk));
       }},
      {"chunk in the wrong small bin", "small bin",
       [](MspaceChecker& test) {
         Chunk* chunk = test.firstSmallBinChunk();
         const size_t size = chunkSize(chunk);
         unlinkSmallChunk(test.space_, chunk, size);
         insertSmallChunk(test.space_, chunk, size + 16);
       }},
      {"tree chunk resized out of its bin's range", "bin",
       [](MspaceChecker& test) {
         Chunk* chunk = test.someTreeChunk();
         chunk->head += 64 * 1024;
       }},
      {"tree child not pointing back", "point back",
       [](MspaceChecker& test) {
         Chunk* stray = test.someTreeChunk();
         stray->child[1] = test.firstSmallBinChunk();
       }},
      {"dv also binned", "dv",
       [](MspaceChecker& test) {
         insertSmallChunk(test.space_, test.space_->dv, test.space_->dvsize);
       }},
      {"top size", "top", [](MspaceChecker& test) { test.space_->topsize -= 16; }},
      {"footprint", "footprint", [](MspaceChecker& test) { test.space_->footprint += 4096; }},
      {"adjacent free chunks", "adjacent",
       [](MspaceChecker& test) {
         // Mark an in-use block free without merging it with its free neighbour.
         Chunk* chunk = memToChunk(test.blocks_[1]);
         const size_t size = chunkSize(chunk);
         setFreeWithPinuse(chunk, size, nextChunk(chunk));
         chunk->head &= ~kPinuse;  // its predecessor is free
         insertSmallChunk(test.space_, chunk, size);
       }},
  };
  static unsigned char healthy[sizeof gArena];
  std::memcpy(healthy, gArena, sizeof gArena);
  for (const auto& breakage : cases) {
    breakage.damage(*this);
    const std::string report = internal::mspaceCheckConsistency(space_);
    EXPECT_NE(report, "") << breakage.what;
    EXPECT_NE(report.find(breakage.expected), std::string::npos) << breakage.what << ": " << report;
    std::memcpy(gArena, healthy, sizeof gArena);
    ASSERT_MSPACE_CONSISTENT(space_) << "after restoring " << breakage.what;
  }
  EXPECT_EQ(internal::mspaceCheckConsistency(nullptr), "null mspace");
  EXPECT_EQ(destroy_mspace(space_), 0u);
}

}  // namespace
