// Loading the peer allocators (jemalloc, mimalloc) of the allocator
// benchmarks. They are dlopen'ed privately, never linked: linking either
// would replace malloc for the whole process, and the glibc row would stop
// being glibc. Their entry points are then called by name.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace kestrel::bench {

// jemalloc needs more static TLS than the loader reserves for dlopen'ed
// libraries: re-executes the program once with
// GLIBC_TUNABLES=glibc.rtld.optional_static_tls=8192 (kept if already set).
inline void ensureStaticTlsRoom(char** argv) {
  const char* tunables = std::getenv("GLIBC_TUNABLES");
  if (tunables != nullptr && std::strstr(tunables, "optional_static_tls") != nullptr) return;
  if (std::getenv("KESTREL_BENCH_REEXECUTED") != nullptr) return;
  std::string value = "glibc.rtld.optional_static_tls=8192";
  if (tunables != nullptr && *tunables != '\0') value = std::string(tunables) + ":" + value;
  setenv("GLIBC_TUNABLES", value.c_str(), 1);
  setenv("KESTREL_BENCH_REEXECUTED", "1", 1);
  execv("/proc/self/exe", argv);
  std::printf("# could not re-execute with more static TLS; jemalloc may not load\n");
}

// The library, loaded with its own symbol scope; null (and a line saying
// why) when it cannot be loaded.
inline void* openPeerLibrary(const char* soname) {
  void* library = dlopen(soname, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
  if (library == nullptr)
    std::printf("# %s: NOT LOADED (%s); no figures for it in this run\n", soname, dlerror());
  return library;
}

}  // namespace kestrel::bench
