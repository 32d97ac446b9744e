// Node slots: blocks with a count of the slots in use, and single nodes.
#include "node_store.h"

#include <kestrel/xml.h>

#include <new>

namespace kestrel::xml {

namespace {

// Precedes every node: its block, or null for a node allocated on its own.
struct SlotHeader {
  NodeBlock* block;
};

constexpr std::size_t kSlotSize = sizeof(SlotHeader) + sizeof(XmlNode);
constexpr std::size_t kSlotsPerBlock = 340;  // a block of about 32 KiB

static_assert(alignof(XmlNode) <= alignof(SlotHeader) && sizeof(SlotHeader) % alignof(XmlNode) == 0,
              "a node placed right after its header is aligned");
static_assert(kSlotSize % alignof(SlotHeader) == 0, "headers of consecutive slots are aligned");

}  // namespace

struct NodeBlock {
  // Slots not yet given back: nodes alive plus the slots the arena has not
  // handed out. Atomic because parts of one tree may be freed by different
  // threads once handed over.
  std::atomic<std::size_t> inUse{kSlotsPerBlock};
  alignas(SlotHeader) std::byte storage[kSlotsPerBlock * kSlotSize];
};

namespace {

void releaseSlots(NodeBlock* block, std::size_t count) noexcept {
  if (block->inUse.fetch_sub(count, std::memory_order_acq_rel) == count) delete block;
}

}  // namespace

NodeArena::~NodeArena() {
  if (block_ && next_ != end_)
    releaseSlots(block_, static_cast<std::size_t>(end_ - next_) / kSlotSize);
}

void* NodeArena::allocate() {
  if (next_ == end_) {
    // The previous block's slots are all handed out; its nodes free it.
    block_ = new NodeBlock;
    next_ = block_->storage;
    end_ = next_ + sizeof(block_->storage);
  }
  auto* header = new (next_) SlotHeader{block_};
  next_ += kSlotSize;
  return header + 1;
}

void* allocateSingleNode(std::size_t size) {
  auto* header = new (::operator new(sizeof(SlotHeader) + size)) SlotHeader{nullptr};
  return header + 1;
}

void releaseNode(void* node) noexcept {
  SlotHeader* header = static_cast<SlotHeader*>(node) - 1;
  if (header->block)
    releaseSlots(header->block, 1);
  else
    ::operator delete(header);
}

}  // namespace kestrel::xml
