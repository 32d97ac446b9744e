// The chained hash table with prime bucket counts.
#include <kestrel/hashtable.h>

#include <cstdlib>
#include <iterator>
#include <new>

namespace kestrel {

namespace {

// Bucket counts, each roughly double the last.
constexpr unsigned int kPrimes[] = {
    53u,        97u,        193u,       389u,       769u,        1543u,       3079u,
    6151u,      12289u,     24593u,     49157u,     98317u,      196613u,     393241u,
    786433u,    1572869u,   3145739u,   6291469u,   12582917u,   25165843u,   50331653u,
    100663319u, 201326611u, 402653189u, 805306457u, 1610612741u, 3221225473u, 4294967291u};
static_assert(std::size(kPrimes) == 28);

}  // namespace

unsigned int HashCalcNextPrime(unsigned int n) {
  for (unsigned int prime : kPrimes) {
    if (prime >= n) return prime;
  }
  return n;
}

HashTableBase::HashTableBase(unsigned int requested)
    : m_buckets(nullptr), m_bucketCount(HashCalcNextPrime(requested)) {
  // calloc: an empty chain is a null head, and a huge array costs nothing
  // until its pages are touched.
  m_buckets = static_cast<Node**>(std::calloc(m_bucketCount, sizeof(Node*)));
  if (!m_buckets) m_bucketCount = 0;
}

HashTableBase::~HashTableBase() {
  clear();
  std::free(m_buckets);
}

HashTableBase::Node* HashTableBase::allocNode() const {
  try {
    return new Node;
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

void HashTableBase::clear() {
  // Stops at the last node, so clearing a large, sparse table is cheap.
  for (unsigned int b = 0; m_elementCount != 0 && b < m_bucketCount; ++b) {
    Node* node = m_buckets[b];
    m_buckets[b] = nullptr;
    while (node) {
      Node* next = node->next;
      delete node;
      --m_elementCount;
      node = next;
    }
  }
  m_elementCount = 0;
}

HashTableBase::Node** HashTableBase::findNode(unsigned int bucket, void* elem) const {
  if (bucket >= m_bucketCount) return nullptr;
  for (Node** link = &m_buckets[bucket]; *link; link = &(*link)->next) {
    if ((*link)->elem == elem) return link;
  }
  return nullptr;
}

bool HashTableBase::insertElem(unsigned int hash, void* elem) {
  if (m_bucketCount == 0) return false;
  const unsigned int bucket = hash % m_bucketCount;
  if (findNode(bucket, elem)) return false;
  Node* node = allocNode();
  if (!node) return false;
  node->elem = elem;
  node->next = m_buckets[bucket];
  m_buckets[bucket] = node;
  ++m_elementCount;
  return true;
}

bool HashTableBase::removeElem(unsigned int hash, void* elem) {
  if (m_bucketCount == 0) return false;
  Node** link = findNode(hash % m_bucketCount, elem);
  if (!link) return false;
  Node* node = *link;
  *link = node->next;
  delete node;
  --m_elementCount;
  return true;
}

HashTableBase::Node* HashTableBase::chainOf(unsigned int hash) const {
  return m_bucketCount ? m_buckets[hash % m_bucketCount] : nullptr;
}

void HashTableBase::countLookup(bool hit, unsigned int passed) {
  ++m_lookups;
  if (hit) ++m_hits;
  m_probeSteps += passed;
}

}  // namespace kestrel
