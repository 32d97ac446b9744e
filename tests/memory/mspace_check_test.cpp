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
    m_ = create_mspace_with_base(gArena, sizeof gArena, 0);
    ASSERT_NE(m_, nullptr);
    // Free chunks in small bins and tree bins, separated by blocks in use,
    // and a designated victim.
    for (std::size_t s : {200, 200, 100, 100, 600, 600, 5000, 5000, 70000, 16}) blocks_.push_back(mspace_malloc(m_, s));
    for (void* p : blocks_) ASSERT_NE(p, nullptr);
    mspace_free(m_, blocks_[0]);
    mspace_free(m_, blocks_[2]);
    mspace_free(m_, blocks_[4]);
    mspace_free(m_, blocks_[6]);
    mspace_free(m_, blocks_[8]);
    blocks_.push_back(mspace_malloc(m_, 24));  // splits the 112-byte chunk: the remainder becomes dv
    ASSERT_MSPACE_CONSISTENT(m_);
    ASSERT_NE(m_->smallmap, 0u);
    ASSERT_NE(m_->treemap, 0u);
    ASSERT_NE(m_->dvsize, 0u);
  }

  Chunk* firstSmallBinChunk() {
    const bindex_t i = bitToIndex(m_->smallmap);
    return smallBinAt(m_, i)->fd;
  }
  Chunk* someTreeChunk() { return *treeBinAt(m_, bitToIndex(m_->treemap)); }

  mspace m_ = nullptr;
  std::vector<void*> blocks_;
};

TEST_F(MspaceChecker, ReportsEachBrokenInvariant) {
  const struct {
    const char* what;
    const char* expected;  // part of the report
    std::function<void(MspaceChecker&)> damage;
  } cases[] = {
      {"small bitmap bit cleared", "bitmap", [](MspaceChecker& t) { t.m_->smallmap &= t.m_->smallmap - 1; }},
      {"tree bitmap bit set for an empty bin", "bitmap",
       [](MspaceChecker& t) { t.m_->treemap |= idxToBit(kTreeBins - 1); }},
      {"free chunk footer", "footer",
       [](MspaceChecker& t) {
         Chunk* p = t.firstSmallBinChunk();
         nextChunk(p)->prev_foot += 16;
       }},
      {"PINUSE after a free chunk", "PINUSE",
       [](MspaceChecker& t) { nextChunk(t.firstSmallBinChunk())->head |= kPinuse; }},
      {"free chunk missing from its bin", "in no bin",
       [](MspaceChecker& t) {
         Chunk* p = t.firstSmallBinChunk();
         unlinkSmallChunk(t.m_, p, chunkSize(p));
       }},
      {"chunk in the wrong small bin", "small bin",
       [](MspaceChecker& t) {
         Chunk* p = t.firstSmallBinChunk();
         const size_t s = chunkSize(p);
         unlinkSmallChunk(t.m_, p, s);
         insertSmallChunk(t.m_, p, s + 16);
       }},
      {"tree chunk resized out of its bin's range", "bin",
       [](MspaceChecker& t) {
         Chunk* p = t.someTreeChunk();
         p->head += 64 * 1024;
       }},
      {"tree child not pointing back", "point back",
       [](MspaceChecker& t) {
         Chunk* stray = t.someTreeChunk();
         stray->child[1] = t.firstSmallBinChunk();
       }},
      {"dv also binned", "dv", [](MspaceChecker& t) { insertSmallChunk(t.m_, t.m_->dv, t.m_->dvsize); }},
      {"top size", "top", [](MspaceChecker& t) { t.m_->topsize -= 16; }},
      {"footprint", "footprint", [](MspaceChecker& t) { t.m_->footprint += 4096; }},
      {"adjacent free chunks", "adjacent",
       [](MspaceChecker& t) {
         // Mark an in-use block free without merging it with its free neighbour.
         Chunk* p = memToChunk(t.blocks_[1]);
         const size_t s = chunkSize(p);
         setFreeWithPinuse(p, s, nextChunk(p));
         p->head &= ~kPinuse;  // its predecessor is free
         insertSmallChunk(t.m_, p, s);
       }},
  };
  static unsigned char saved[sizeof gArena];
  std::memcpy(saved, gArena, sizeof gArena);
  for (const auto& c : cases) {
    c.damage(*this);
    const std::string report = internal::mspaceCheckConsistency(m_);
    EXPECT_NE(report, "") << c.what;
    EXPECT_NE(report.find(c.expected), std::string::npos) << c.what << ": " << report;
    std::memcpy(gArena, saved, sizeof gArena);
    ASSERT_MSPACE_CONSISTENT(m_) << "after restoring " << c.what;
  }
  EXPECT_EQ(internal::mspaceCheckConsistency(nullptr), "null mspace");
  EXPECT_EQ(destroy_mspace(m_), 0u);
}

}  // namespace
