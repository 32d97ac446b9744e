// HeapManager (a MemoryManager over a MemoryPool) and HeapBuffer.
#include <atomic>
#include <cstring>

#include "kestrel/memory.h"
#include "memory/memory_front.h"

namespace kestrel {

using memory_detail::BlockHeader;
using memory_detail::headerOf;

MemoryPool* HeapManager::sDefaultPool = nullptr;

namespace {

MemoryPool* defaultPool() {
  static auto* const lock = new SpinLock(0);
  CSMutex hold(*lock);
  if (HeapManager::sDefaultPool == nullptr)
    HeapManager::sDefaultPool = new MemoryPool("default", 0x400000);
  return HeapManager::sDefaultPool;
}

}  // namespace

HeapManager::HeapManager(MemoryPool* pool) : mPool(pool != nullptr ? pool : defaultPool()) {
  TestThenAdd(&mPool->mRefCount, 1);
}

HeapManager::~HeapManager() {
  if (mPool != nullptr && TestThenAdd(&mPool->mRefCount, -1) == 1) delete mPool;
}

void* HeapManager::alloc(unsigned long size) {
  if (size > ~0UL - kManagerHeaderSize) return nullptr;
  void* block = mPool->lockedAlloc(size + kManagerHeaderSize, size, mAllocated);
  if (block == nullptr) return nullptr;
  auto* header = static_cast<BlockHeader*>(block);
  header->owner = this;
  header->size = size;
  return header + 1;
}

void HeapManager::free(void* p) {
  BlockHeader* header = headerOf(p);
  mPool->lockedFree(header, header->size, mAllocated);
}

void* HeapManager::allocAligned(unsigned long size, unsigned long /*alignment*/) {
  return alloc(size);
}

void HeapManager::clear() {}

unsigned long HeapManager::getAllocatedSize() const {
  return std::atomic_ref<unsigned long>(const_cast<unsigned long&>(mAllocated))
      .load(std::memory_order_relaxed);
}

HeapBuffer::HeapBuffer(HeapManager* mgr, unsigned long capacity, unsigned long extra)
    : mCapacity(capacity), mExtra(extra), mManager(mgr) {
  mData = static_cast<char*>(mgr != nullptr ? mgr->alloc(capacity) : Malloc(capacity, nullptr));
}

HeapBuffer::~HeapBuffer() {
  if (mManager != nullptr) {
    if (mData != nullptr) mManager->free(mData);
  } else {
    Free(mData);
  }
}

bool HeapBuffer::appendData(const void* data, unsigned long length) {
  if (data == nullptr || length == 0) return true;
  if (mData == nullptr || length > mCapacity - mUsed) return false;
  std::memcpy(mData + mUsed, data, length);
  mUsed += length;
  return true;
}

}  // namespace kestrel
