// System memory facts that the allocator needs from the platform layer. The
// default mapping functions themselves are declared in kestrel/memory.h.
#pragma once

#include <cstddef>

namespace kestrel::mspace_detail {

// The page size of the system (0 if it cannot be determined).
std::size_t systemPageSize();

}  // namespace kestrel::mspace_detail
