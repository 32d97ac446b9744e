// Private: the seam through which System::spawn creates threads.
//
// Tests replace the creation function to make chosen spawns fail; nothing in
// the public headers exposes it.
#pragma once

#include <kestrel/export.h>
#include <kestrel/system.h>

namespace kestrel::detail {

// Creates a thread running start(arg); stores its handle and returns 0, or
// returns an error number and stores nothing.
using ThreadCreateFunction = int (*)(ThreadHandle* thread, void* (*start)(void*), void* arg);

// The platform's creation function (joinable, default attributes).
KESTREL_EXPORT int platformThreadCreate(ThreadHandle* thread, void* (*start)(void*), void* arg);

// Installs fn as the creation function used by System::spawn (null restores
// platformThreadCreate) and returns the previous one. Thread-safe.
KESTREL_EXPORT ThreadCreateFunction setThreadCreateFunction(ThreadCreateFunction fn);

}  // namespace kestrel::detail
