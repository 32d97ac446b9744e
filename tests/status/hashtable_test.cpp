// The prime bucket counts and the chained hash table.
#include <kestrel/hashtable.h>

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace kestrel {
namespace {

constexpr unsigned int kPrimes[] = {
    53u,        97u,        193u,       389u,       769u,        1543u,       3079u,
    6151u,      12289u,     24593u,     49157u,     98317u,      196613u,     393241u,
    786433u,    1572869u,   3145739u,   6291469u,   12582917u,   25165843u,   50331653u,
    100663319u, 201326611u, 402653189u, 805306457u, 1610612741u, 3221225473u, 4294967291u};

TEST(HashCalcNextPrime, GivesTheFirstListedPrimeNotBelowTheRequestOrTheRequestAboveThem) {
  for (std::size_t i = 0; i + 1 < std::size(kPrimes); ++i) {
    EXPECT_EQ(HashCalcNextPrime(kPrimes[i]), kPrimes[i]);
    EXPECT_EQ(HashCalcNextPrime(kPrimes[i] + 1), kPrimes[i + 1]);
  }
  const struct {
    unsigned int n, expected;
  } rows[] = {{0, 53}, {15, 53}, {20000, 24593}, {4294967292u, 4294967292u}, {~0u, ~0u}};
  for (const auto& row : rows) EXPECT_EQ(HashCalcNextPrime(row.n), row.expected) << row.n;
}

struct Item {
  unsigned int key;
};

// Hash of a key is the key itself, so keys that differ by a multiple of the
// bucket count share a chain.
class ItemTable : public HashTable<Item, unsigned int> {
 public:
  explicit ItemTable(unsigned int requested) : HashTable(requested) {}

 protected:
  unsigned int hashKey(unsigned int key) const override { return key; }
  unsigned int getKey(const Item* item) const override { return item->key; }
  bool keysEqual(unsigned int a, unsigned int b) const override { return a == b; }

 public:
  // Counts the nodes it hands out, as a derived table with a pool of its own would.
  Node* allocNode() const override {
    ++allocations;
    return HashTableBase::allocNode();
  }
  mutable int allocations = 0;
};

TEST(HashTable, BucketCountIsThePrimeForTheRequestedSize) {
  EXPECT_EQ(ItemTable(0).getBucketCount(), 53u);
  const ItemTable table(20000);
  EXPECT_EQ(table.getBucketCount(), 24593u);
  EXPECT_EQ(table.getElementCount() + table.getLookups() + table.getHits() + table.getProbeSteps(),
            0u);
}

TEST(HashTable, IdentityIsByElementPointer) {
  ItemTable table(15);
  Item a{7}, twin{7};
  EXPECT_TRUE(table.insert(&a));
  EXPECT_FALSE(table.insert(&a)) << "the same element twice";
  EXPECT_EQ(table.getElementCount(), 1u);
  EXPECT_TRUE(table.insert(&twin)) << "another element with an equal key";
  EXPECT_EQ(table.getElementCount(), 2u);
  EXPECT_EQ(table.find(7), &twin) << "the element inserted last stands nearer the head";
  EXPECT_TRUE(table.remove(&twin));
  EXPECT_EQ(table.find(7), &a);
  EXPECT_FALSE(table.remove(&twin)) << "no longer present";
  EXPECT_EQ(table.getElementCount(), 1u);
  EXPECT_EQ(table.allocations, 2) << "nodes come from the virtual allocator, none for a refusal";
}

TEST(HashTable, CollidingKeysShareAChainAndRemovalTakesTheRightOne) {
  ItemTable table(15);  // 53 buckets: 1, 54, 107 and 160 share bucket 1
  Item a{1}, b{54}, c{107};
  for (Item* item : {&a, &b, &c}) ASSERT_TRUE(table.insert(item));

  for (Item* item : {&a, &b, &c}) {
    HashTableBase::Node** link = table.findNode(1, item);
    ASSERT_NE(link, nullptr);
    EXPECT_EQ((*link)->elem, item);
  }
  // The chain is c -> b -> a: a's link is b's node's `next`.
  EXPECT_EQ(table.findNode(1, &a), &(*table.findNode(1, &b))->next);
  EXPECT_EQ(table.findNode(1, &b), &(*table.findNode(1, &c))->next);
  EXPECT_EQ(table.findNode(2, &a), nullptr) << "no modulo is applied to the bucket index";
  EXPECT_EQ(table.findNode(54, &a), nullptr);

  EXPECT_FALSE(table.removeElem(2, &b));
  EXPECT_TRUE(table.removeElem(160, &b)) << "the hash is reduced modulo the bucket count";
  EXPECT_EQ(table.find(54), nullptr);
  EXPECT_EQ(table.find(1), &a);
  EXPECT_EQ(table.find(107), &c);
  EXPECT_EQ(table.findNode(1, &a), &(*table.findNode(1, &c))->next) << "the chain is relinked";
  EXPECT_EQ(table.getElementCount(), 2u);
}

TEST(HashTable, FindCountsLookupsHitsAndNodesPassedOver) {
  ItemTable table(15);
  Item a{1}, b{54}, c{107};
  for (Item* item : {&a, &b, &c}) ASSERT_TRUE(table.insert(item));  // chain c, b, a

  EXPECT_EQ(table.find(107), &c);  // passes 0
  EXPECT_EQ(table.getProbeSteps(), 0u);
  EXPECT_EQ(table.find(1), &a);  // passes c, b
  EXPECT_EQ(table.getProbeSteps(), 2u);
  EXPECT_EQ(table.find(160), nullptr);  // same chain, missing: passes all 3
  EXPECT_EQ(table.getProbeSteps(), 5u);
  EXPECT_EQ(table.find(2), nullptr);  // empty chain
  EXPECT_EQ(table.getProbeSteps(), 5u);
  EXPECT_EQ(table.getLookups(), 4u);
  EXPECT_EQ(table.getHits(), 2u);

  table.insert(&a);  // insertion and removal are not lookups
  table.remove(&b);
  EXPECT_EQ(table.getLookups(), 4u);
}

TEST(HashTable, TwentyThousandKeysInLongChains) {
  ItemTable table(1000);  // 1543 buckets, about 13 elements per chain
  constexpr unsigned int kCount = 20000;
  std::vector<Item> items(kCount);
  for (unsigned int i = 0; i < kCount; ++i) {
    items[i].key = i * 7919u;
    ASSERT_TRUE(table.insert(&items[i]));
  }
  EXPECT_EQ(table.getElementCount(), kCount);
  for (unsigned int i = 0; i < kCount; ++i) ASSERT_EQ(table.find(items[i].key), &items[i]) << i;

  for (unsigned int i = 1; i < kCount; i += 2) ASSERT_TRUE(table.remove(&items[i])) << i;
  EXPECT_EQ(table.getElementCount(), kCount / 2);
  for (unsigned int i = 0; i < kCount; ++i) {
    ASSERT_EQ(table.find(items[i].key), i % 2 ? nullptr : &items[i]) << i;
  }
  EXPECT_EQ(table.getLookups(), 2 * kCount);
  EXPECT_EQ(table.getHits(), kCount + kCount / 2);
}

TEST(HashTable, ClearEmptiesTheTableButKeepsBucketsAndStatistics) {
  ItemTable table(100);
  std::vector<Item> items(500);
  for (unsigned int i = 0; i < items.size(); ++i) {
    items[i].key = i * 3;
    ASSERT_TRUE(table.insert(&items[i]));
  }
  EXPECT_EQ(table.find(3), &items[1]);
  const unsigned int probes = table.getProbeSteps();
  table.clear();
  EXPECT_EQ(table.getElementCount(), 0u);
  EXPECT_EQ(table.getBucketCount(), 193u);
  EXPECT_EQ(table.getHits(), 1u);
  for (unsigned int i = 0; i < items.size(); i += 50) EXPECT_EQ(table.find(i * 3), nullptr) << i;
  EXPECT_EQ(table.getProbeSteps(), probes) << "every chain is empty";
  EXPECT_TRUE(table.insert(&items[0])) << "usable after clear";
  EXPECT_EQ(table.find(0), &items[0]);
}

#if !defined(KESTREL_SANITIZED)
// With the address space limited to 1 GiB, a table of 4294967292 buckets
// (above the last prime: 32 GiB of heads) cannot have its array. Exits 0
// when the table then behaves as an empty one that refuses insertion.
[[noreturn]] void buildTableWithoutMemory() {
  rlimit limit{};
  limit.rlim_cur = limit.rlim_max = 1ul << 30;
  setrlimit(RLIMIT_AS, &limit);
  ItemTable table(4294967292u);
  Item a{1};
  const bool ok = table.getBucketCount() == 0 && !table.insert(&a) && table.find(1) == nullptr &&
                  !table.remove(&a) && table.findNode(0, &a) == nullptr &&
                  table.getElementCount() == 0;
  std::exit(ok ? 0 : 1);
}
#endif

TEST(HashTable, BucketArrayThatCannotBeAllocatedLeavesAnEmptyTableThatRefusesInsertion) {
#if defined(KESTREL_SANITIZED)
  GTEST_SKIP() << "an address-space limit breaks the sanitizer's shadow memory";
#else
  EXPECT_EXIT(buildTableWithoutMemory(), ::testing::ExitedWithCode(0), "");
#endif
}

}  // namespace
}  // namespace kestrel
