// Hash table: a chained hash set of element pointers with a fixed, prime
// number of buckets.
//
// The table indexes objects that the caller owns by a small key. It never
// grows or shrinks: the bucket count is the first prime of a fixed list of 28
// (53, 97, 193, ..., 4294967291) that is not below the size requested at
// construction, so callers size it for the number of elements they expect.
//
// Which type to use:
//   HashTable<T, K>   the typed table: derive from it and supply the hash of a
//                     key, the key of an element and key equality.
//   HashTableBase     the untyped bucket work behind it (insertion and removal
//                     of element pointers by a precomputed hash).
//
// Identity is by element pointer: inserting the same pointer twice is refused,
// but two different elements with equal keys may both be present; find()
// then returns the one inserted last.
//
// Example:
//
//   struct Station { unsigned int id; QString name; };
//
//   class StationTable : public kestrel::HashTable<Station, unsigned int> {
//    public:
//     StationTable() : HashTable(100) {}  // 193 buckets
//    protected:
//     unsigned int hashKey(unsigned int id) const override { return id; }
//     unsigned int getKey(const Station* s) const override { return s->id; }
//     bool keysEqual(unsigned int a, unsigned int b) const override { return a == b; }
//   };
//
//   StationTable table;
//   Station oslo{7, QStringLiteral("Oslo")};
//   table.insert(&oslo);
//   table.find(7);  // &oslo
//
// Thread-safety: none. The table has no lock; callers guard it (even find()
// writes, it counts the lookup).
#pragma once

#include <kestrel/export.h>
#include <kestrel/memory.h>

namespace kestrel {

// The first prime of the bucket-count list that is not below n: 53 for any n
// up to 53, 97 for 54 to 97, and so on. n itself when n is above the last
// prime (4294967291).
KESTREL_EXPORT unsigned int HashCalcNextPrime(unsigned int n);

// The untyped table: buckets of singly linked chains of nodes, each node
// holding one element pointer. Does not own the elements.
class KESTREL_EXPORT HashTableBase {
 public:
  // One link of a chain. allocNode() creates it with a plain new-expression
  // and the table releases it with a plain delete-expression; both go
  // through the memory front, as MemoryObject's operators do.
  struct Node : public MemoryObject {
    Node* next = nullptr;
    void* elem = nullptr;
  };

  // A table with HashCalcNextPrime(requested) buckets, all empty; element
  // count and statistics 0. If the bucket array cannot be allocated (an
  // absurd size) the table has no buckets: getBucketCount() is 0 and every
  // insertion fails.
  explicit HashTableBase(unsigned int requested);

  // Releases every node (not the elements) and the bucket array.
  virtual ~HashTableBase();

  HashTableBase(const HashTableBase&) = delete;
  HashTableBase& operator=(const HashTableBase&) = delete;

  // A new, unlinked node with null members; null if memory is exhausted.
  // Override to place nodes elsewhere; they are released with delete.
  virtual Node* allocNode() const;

  // Releases every node and sets the element count to 0. The bucket count
  // and the statistics stay.
  void clear();

  // Links elem at the head of the chain of bucket hash % bucket count.
  // Returns false and changes nothing when that chain already holds elem (or
  // when no node could be allocated); true otherwise.
  bool insertElem(unsigned int hash, void* elem);

  // Unlinks and releases the node holding elem in the chain of bucket
  // hash % bucket count. Returns false when the chain does not hold elem.
  bool removeElem(unsigned int hash, void* elem);

  // The address of the link (a bucket head or a node's `next`) that points
  // at the node holding elem in the chain of bucket index `bucket`, which
  // must already be reduced below the bucket count (no modulo is applied);
  // null when that chain does not hold elem or the index is out of range.
  Node** findNode(unsigned int bucket, void* elem) const;

  // Number of buckets, fixed at construction.
  unsigned int getBucketCount() const { return m_bucketCount; }
  // Number of elements in all chains.
  unsigned int getElementCount() const { return m_elementCount; }
  // Statistics of the typed find(), never reset by the table (not by clear()
  // either): calls, calls that found their key, and the total number of
  // non-matching nodes passed over. They wrap around at 2^32.
  unsigned int getLookups() const { return m_lookups; }
  unsigned int getHits() const { return m_hits; }
  unsigned int getProbeSteps() const { return m_probeSteps; }

 protected:
  // The first node of the chain of bucket hash % bucket count; null for an
  // empty chain or a table without buckets.
  Node* chainOf(unsigned int hash) const;
  // Records one lookup that passed `passed` non-matching nodes.
  void countLookup(bool hit, unsigned int passed);

 private:
  Node** m_buckets;
  unsigned int m_bucketCount;
  unsigned int m_elementCount = 0;
  unsigned int m_lookups = 0;
  unsigned int m_hits = 0;
  unsigned int m_probeSteps = 0;
};

// The typed table. A concrete table supplies the three key operations.
template <class T, class K>
class HashTable : public HashTableBase {
 public:
  explicit HashTable(unsigned int requested) : HashTableBase(requested) {}

  // The element whose key equals key (by keysEqual) nearest the head of its
  // chain, i.e. the one inserted last among equal keys; null if none.
  // Counts a lookup, a hit when found, and adds the number of non-matching
  // nodes passed to the probe steps.
  T* find(K key) {
    unsigned int passed = 0;
    for (Node* node = chainOf(hashKey(key)); node; node = node->next) {
      T* elem = static_cast<T*>(node->elem);
      if (keysEqual(getKey(elem), key)) {
        countLookup(true, passed);
        return elem;
      }
      ++passed;
    }
    countLookup(false, passed);
    return nullptr;
  }

  // insertElem / removeElem with the hash of the element's key.
  bool insert(T* elem) { return insertElem(hashKey(getKey(elem)), elem); }
  bool remove(T* elem) { return removeElem(hashKey(getKey(elem)), elem); }

 protected:
  // The hash of a key; reduced modulo the bucket count by the table.
  virtual unsigned int hashKey(K key) const = 0;
  // The key of an element.
  virtual K getKey(const T* elem) const = 0;
  // Whether two keys are equal.
  virtual bool keysEqual(K a, K b) const = 0;
};

}  // namespace kestrel
