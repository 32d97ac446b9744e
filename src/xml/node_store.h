// Storage of XmlNode objects. A reader carves its nodes from blocks of many
// slots instead of allocating each on its own: building a tree then costs a
// pointer bump per node, and freeing it leaves a few large chunks to the
// allocator rather than tens of thousands of small ones.
//
// Every node is preceded by a slot header naming the block it lives in, or
// null for a node allocated on its own (XmlNode's operator new). A block
// counts the slots still in use and is freed with its last node, so nodes
// keep the ownership rules of separately allocated objects: any node may be
// deleted at any time, in any order, and the reader need not outlive them.
#pragma once

#include <atomic>
#include <cstddef>

namespace kestrel::xml {

struct NodeBlock;

// Hands out node slots from blocks; one per parse.
class NodeArena {
 public:
  NodeArena() = default;
  // Gives back the slots never handed out; the block goes with them once
  // its nodes are gone too.
  ~NodeArena();

  NodeArena(const NodeArena&) = delete;
  NodeArena& operator=(const NodeArena&) = delete;

  // Memory for one XmlNode, to be constructed with placement new and freed
  // by XmlNode's operator delete. Throws std::bad_alloc like operator new.
  void* allocate();

 private:
  NodeBlock* block_ = nullptr;
  std::byte* next_ = nullptr;
  std::byte* end_ = nullptr;
};

// Memory for one object of `size` bytes with a null slot header.
void* allocateSingleNode(std::size_t size);

// Frees a node's memory from either source.
void releaseNode(void* node) noexcept;

}  // namespace kestrel::xml
