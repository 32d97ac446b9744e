// HeapManager (a MemoryManager over a MemoryPool) and HeapBuffer.
#include <cstring>

#include "kestrel/memory.h"
#include "memory/heap_path.h"

namespace kestrel {

using memory_detail::HeapPath;

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
  if (mPool == nullptr) return;
  HeapPath::retireManager(*this);
  if (TestThenAdd(&mPool->mRefCount, -1) == 1) delete mPool;
}

void* HeapManager::allocAligned(unsigned long size, unsigned long /*alignment*/) {
  return alloc(size);
}

void HeapManager::clear() {}

unsigned long HeapManager::getAllocatedSize() const {
  return HeapPath::allocatedSize(*this);
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
