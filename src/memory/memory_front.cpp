// The allocation front: doNew/doDelete and their aliases, MemoryObject and
// the MemoryManager interface.
#include <cstring>

#include "kestrel/memory.h"
#include "memory/memory_front.h"

namespace kestrel {

using memory_detail::allocate;
using memory_detail::release;

MemoryManager::~MemoryManager() = default;

void* doNew(unsigned long size, MemoryManager* mgr) {
  return allocate(size, mgr);
}

void* Malloc(unsigned long size, MemoryManager* mgr) {
  return allocate(size, mgr);
}

void doDelete(void* p, MemoryManager* /*mgr: the header names the owner*/) {
  release(p);
}

void Free(void* p) {
  release(p);
}

void* Realloc(void* p, unsigned long size) {
  if (p == nullptr) return allocate(size, nullptr);
  return std::realloc(p, size);
}

void* Calloc(unsigned long size, MemoryManager* mgr) {
  void* p = allocate(size, mgr);
  if (p != nullptr) std::memset(p, 0, size);
  return p;
}

// The class-level operators call the same front as the global ones, so the
// routing holds even where a sanitizer runtime has replaced the global
// operators.
void* MemoryObject::operator new(unsigned long size) {
  return allocate(size == 0 ? 1 : size, nullptr);
}

void* MemoryObject::operator new[](unsigned long size) {
  return allocate(size == 0 ? 1 : size, nullptr);
}

void* MemoryObject::operator new(unsigned long size, MemoryManager* mgr) {
  return allocate(size == 0 ? 1 : size, mgr);
}

void* MemoryObject::operator new[](unsigned long size, MemoryManager* mgr) {
  return allocate(size == 0 ? 1 : size, mgr);
}

void MemoryObject::operator delete(void* p) {
  release(p);
}

void MemoryObject::operator delete[](void* p) {
  release(p);
}

void MemoryObject::operator delete(void* p, MemoryManager* /*mgr*/) {
  release(p);
}

void MemoryObject::operator delete[](void* p, MemoryManager* /*mgr*/) {
  release(p);
}

}  // namespace kestrel
