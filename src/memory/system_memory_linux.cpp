// Default system-memory functions of an mspace on Linux: anonymous private
// mappings and the page size.
#include <sys/mman.h>
#include <unistd.h>

#include "kestrel/memory.h"
#include "memory/system_memory.h"

namespace kestrel {

namespace mspace_detail {

std::size_t systemPageSize() {
  const long page = sysconf(_SC_PAGESIZE);
  return page > 0 ? static_cast<std::size_t>(page) : 0;
}

}  // namespace mspace_detail

extern "C" {

void* default_direct_mmap_func(unsigned long size, void* /*context*/) {
  return mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
}

void* default_mmap_func(unsigned long size, void* context) {
  return default_direct_mmap_func(size, context);
}

int default_munmap_func(char* start, unsigned long size, void* /*context*/) {
  return munmap(start, size);
}

void* default_sbrk_func(int /*increment*/, void* /*context*/) {
  return reinterpret_cast<void*>(~static_cast<unsigned long>(0));
}

}  // extern "C"
}  // namespace kestrel
