// The process-wide replacement operator new/delete. Every form routes
// through the memory front: `new` is doNew(size or 1, manager) and returns
// null instead of throwing; every `delete` is doDelete, which sends a pool
// block to its manager and anything else to the system free.
#include <new>

#include "kestrel/memory.h"
#include "memory/memory_front.h"

using kestrel::memory_detail::allocate;
using kestrel::memory_detail::release;

namespace {

inline void* allocateNonZero(std::size_t size, kestrel::MemoryManager* mgr) {
  return allocate(size == 0 ? 1 : size, mgr);
}

}  // namespace

KESTREL_EXPORT void* operator new(std::size_t size) {
  return allocateNonZero(size, nullptr);
}

KESTREL_EXPORT void* operator new[](std::size_t size) {
  return allocateNonZero(size, nullptr);
}

KESTREL_EXPORT void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return allocateNonZero(size, nullptr);
}

KESTREL_EXPORT void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return allocateNonZero(size, nullptr);
}

KESTREL_EXPORT void* operator new(std::size_t size, kestrel::MemoryManager* mgr) {
  return allocateNonZero(size, mgr);
}

KESTREL_EXPORT void* operator new[](std::size_t size, kestrel::MemoryManager* mgr) {
  return allocateNonZero(size, mgr);
}

KESTREL_EXPORT void operator delete(void* p) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete[](void* p) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete(void* p, std::size_t) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete[](void* p, std::size_t) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete(void* p, const std::nothrow_t&) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete[](void* p, const std::nothrow_t&) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete(void* p, kestrel::MemoryManager*) noexcept {
  release(p);
}

KESTREL_EXPORT void operator delete[](void* p, kestrel::MemoryManager*) noexcept {
  release(p);
}
