// mspace allocator against glibc malloc, jemalloc and mimalloc, in one run.
//
// Traces (single thread, sizes and orders generated once with a fixed seed
// and replayed identically for every allocator):
//   small_lifo     sizes 8-256 B, 1000 blocks allocated then freed in reverse
//   small_random   the same blocks freed in a random order
//   mixed          steady churn over 4000 live slots, sizes 8 B-64 KiB skewed
//                  small: each step frees one slot and allocates a new size
//   realloc_growth 32 buffers grown round-robin by x1.5 from 16 B to 64 KiB
// Time is reported as ns per malloc+free pair (ns per realloc for the last).
//
// jemalloc and mimalloc are not linked: linking either would replace malloc
// for the whole process and the glibc row would no longer be glibc. They are
// loaded with dlopen(RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND) and called through
// their own entry points (malloc/free/realloc of the jemalloc handle,
// mi_malloc/mi_free/mi_realloc). Where each entry point lives is printed and
// checked, and the glibc row is checked to move glibc's own statistics.
// jemalloc needs more static TLS than glibc reserves for dlopen'ed libraries,
// so the program re-executes itself once with
// GLIBC_TUNABLES=glibc.rtld.optional_static_tls=8192 (a loader setting; no
// malloc tunable of glibc is touched).
//
// Peak footprint of the mixed trace: for the mspace, every mapping and
// unmapping goes through counting functions (live mapped bytes, maximum
// kept), cross-checked against the mspace's own maximum footprint; for glibc,
// arena + hblkhd of mallinfo2() sampled every 16 operations and after every
// allocation of 16 KiB or more (a sampled peak can only under-report glibc).
// Both are reported above the footprint measured just before the trace.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kestrel/memory.h"
#include "memory/mspace_debug.h"  // the inline unmap hook only: nothing of the test library
#include "peer_allocators.h"

namespace {

using kestrel::mspace;

// ---- allocators -------------------------------------------------------------

struct Peer {
  std::string name;
  void* (*alloc)(std::size_t);
  void (*release)(void*);
  void* (*resize)(void*, std::size_t);
};

mspace gMspace = nullptr;
void* msAlloc(std::size_t n) {
  return kestrel::mspace_malloc(gMspace, n);
}
void msRelease(void* p) {
  kestrel::mspace_free(gMspace, p);
}
void* msResize(void* p, std::size_t n) {
  return kestrel::mspace_realloc(gMspace, p, n);
}

void* glibcAlloc(std::size_t n) {
  return std::malloc(n);
}
void glibcRelease(void* p) {
  std::free(p);
}
void* glibcResize(void* p, std::size_t n) {
  return std::realloc(p, n);
}

std::string libraryOf(void* fn) {
  Dl_info info{};
  if (dladdr(fn, &info) == 0 || info.dli_fname == nullptr) return "?";
  return info.dli_fname;
}

// A dlopen'ed peer is reached like the others: one call into a thunk here,
// one call into the library.
struct Entry {
  void* (*alloc)(std::size_t);
  void (*release)(void*);
  void* (*resize)(void*, std::size_t);
};
Entry gJemalloc, gMimalloc;
template <Entry* E>
void* thunkAlloc(std::size_t n) {
  return E->alloc(n);
}
template <Entry* E>
void thunkRelease(void* p) {
  E->release(p);
}
template <Entry* E>
void* thunkResize(void* p, std::size_t n) {
  return E->resize(p, n);
}

// Loads a peer library privately; returns false (and says why) if it cannot.
template <Entry* E>
bool loadPeer(const char* soname, const char* allocName, const char* releaseName,
              const char* resizeName, const char* label, std::vector<Peer>& peers) {
  void* h = kestrel::bench::openPeerLibrary(soname);
  if (h == nullptr) return false;
  E->alloc = reinterpret_cast<void* (*)(std::size_t)>(dlsym(h, allocName));
  E->release = reinterpret_cast<void (*)(void*)>(dlsym(h, releaseName));
  E->resize = reinterpret_cast<void* (*)(void*, std::size_t)>(dlsym(h, resizeName));
  if (E->alloc == nullptr || E->release == nullptr || E->resize == nullptr) {
    std::printf("# %s: NOT LOADED (missing %s/%s/%s)\n", label, allocName, releaseName, resizeName);
    return false;
  }
  const std::string where = libraryOf(reinterpret_cast<void*>(E->alloc));
  std::printf("# %-8s %s from %s\n", label, allocName, where.c_str());
  if (where.find(soname) == std::string::npos) {
    std::printf("# %s: entry point is not in %s; skipped\n", label, soname);
    return false;
  }
  peers.push_back({label, &thunkAlloc<E>, &thunkRelease<E>, &thunkResize<E>});
  return true;
}

// The glibc row must really be glibc: the symbol lives in libc and an
// allocation moves glibc's own statistics.
bool glibcIsGlibc() {
  const std::string where = libraryOf(reinterpret_cast<void*>(&std::malloc));
  std::printf("# glibc    malloc from %s\n", where.c_str());
  const std::size_t before = mallinfo2().uordblks;
  std::vector<void*> blocks;
  for (int i = 0; i < 256; ++i) blocks.push_back(glibcAlloc(1000));
  const std::size_t after = mallinfo2().uordblks;
  for (void* b : blocks) glibcRelease(b);
  const bool ok = where.find("libc.so") != std::string::npos && after >= before + 256 * 1000;
  std::printf("# glibc    mallinfo2 in-use grew by %zu bytes for 256 x 1000 B: %s\n",
              after - before, ok ? "it is glibc" : "NOT glibc");
  return ok;
}

// ---- traces -----------------------------------------------------------------

constexpr int kSmallBlocks = 1000;
constexpr int kMixedSlots = 4000;
constexpr int kMixedSteps = 200000;
constexpr int kGrowBuffers = 32;

struct Traces {
  std::vector<std::size_t> smallSizes;
  std::vector<int> smallOrder;
  std::vector<std::size_t> mixedInit;
  std::vector<std::pair<int, std::size_t>> mixedSteps;  // slot, new size
  std::size_t mixedPeakLive = 0;

  Traces() {
    std::mt19937_64 rng(42);
    for (int i = 0; i < kSmallBlocks; ++i) smallSizes.push_back(8 + rng() % 249);
    for (int i = 0; i < kSmallBlocks; ++i) smallOrder.push_back(i);
    std::shuffle(smallOrder.begin(), smallOrder.end(), rng);
    auto mixedSize = [&] {
      const unsigned r = static_cast<unsigned>(rng() % 100);
      if (r < 70) return std::size_t{8} + rng() % 249;
      if (r < 95) return std::size_t{257} + rng() % 3840;
      return std::size_t{4097} + rng() % 61440;
    };
    std::size_t live = 0;
    for (int i = 0; i < kMixedSlots; ++i) {
      mixedInit.push_back(mixedSize());
      live += mixedInit.back();
    }
    std::vector<std::size_t> cur = mixedInit;
    mixedPeakLive = live;
    for (int i = 0; i < kMixedSteps; ++i) {
      const int slot = static_cast<int>(rng() % kMixedSlots);
      const std::size_t s = mixedSize();
      live = live - cur[static_cast<std::size_t>(slot)] + s;
      cur[static_cast<std::size_t>(slot)] = s;
      mixedPeakLive = std::max(mixedPeakLive, live);
      mixedSteps.emplace_back(slot, s);
    }
  }
};

const Traces& traces() {
  static const Traces t;
  return t;
}

void touch(void* p) {
  *static_cast<volatile char*>(p) = 1;
}

// Allocates (and touches) one block of each size of the small trace.
void allocateSmallBlocks(const Peer& a, const Traces& t, std::vector<void*>& p) {
  for (std::size_t i = 0; i < p.size(); ++i) {
    p[i] = a.alloc(t.smallSizes[i]);
    touch(p[i]);
  }
}

void smallLifo(benchmark::State& state, const Peer& a) {
  const auto& t = traces();
  std::vector<void*> p(kSmallBlocks);
  for (auto _ : state) {
    allocateSmallBlocks(a, t, p);
    for (int i = kSmallBlocks - 1; i >= 0; --i) a.release(p[static_cast<std::size_t>(i)]);
  }
  state.counters["ns_per_op"] = benchmark::Counter(
      kSmallBlocks, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void smallRandom(benchmark::State& state, const Peer& a) {
  const auto& t = traces();
  std::vector<void*> p(kSmallBlocks);
  for (auto _ : state) {
    allocateSmallBlocks(a, t, p);
    for (int i : t.smallOrder) a.release(p[static_cast<std::size_t>(i)]);
  }
  state.counters["ns_per_op"] = benchmark::Counter(
      kSmallBlocks, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

// Runs the mixed trace once; `sample` is called after every step.
template <typename Sample>
void runMixed(const Peer& a, std::vector<void*>& slots, Sample&& sample) {
  const auto& t = traces();
  for (int i = 0; i < kMixedSlots; ++i) {
    slots[static_cast<std::size_t>(i)] = a.alloc(t.mixedInit[static_cast<std::size_t>(i)]);
    touch(slots[static_cast<std::size_t>(i)]);
  }
  int step = 0;
  for (const auto& [slot, size] : t.mixedSteps) {
    void*& s = slots[static_cast<std::size_t>(slot)];
    a.release(s);
    s = a.alloc(size);
    touch(s);
    sample(step++, size);
  }
  for (void* s : slots) a.release(s);
}

void mixed(benchmark::State& state, const Peer& a) {
  std::vector<void*> slots(kMixedSlots);
  for (auto _ : state) runMixed(a, slots, [](int, std::size_t) {});
  state.counters["ns_per_op"] =
      benchmark::Counter(kMixedSlots + kMixedSteps, benchmark::Counter::kIsIterationInvariantRate |
                                                        benchmark::Counter::kInvert);
}

void reallocGrowth(benchmark::State& state, const Peer& a) {
  std::vector<void*> b(kGrowBuffers);
  std::vector<std::size_t> sz(kGrowBuffers);
  std::size_t ops = 0;
  for (auto _ : state) {
    ops = 0;
    for (int i = 0; i < kGrowBuffers; ++i) {
      sz[static_cast<std::size_t>(i)] = 16;
      b[static_cast<std::size_t>(i)] = a.alloc(16);
    }
    for (bool more = true; more;) {
      more = false;
      for (int i = 0; i < kGrowBuffers; ++i) {
        std::size_t& s = sz[static_cast<std::size_t>(i)];
        if (s >= 65536) continue;
        s = std::min<std::size_t>(65536, s + s / 2);
        b[static_cast<std::size_t>(i)] = a.resize(b[static_cast<std::size_t>(i)], s);
        static_cast<char*>(b[static_cast<std::size_t>(i)])[s - 1] = 1;
        ++ops;
        more = true;
      }
    }
    for (void* p : b) a.release(p);
  }
  state.counters["ns_per_op"] =
      benchmark::Counter(static_cast<double>(ops), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

// ---- peak footprint ------------------------------------------------------------

struct Counting {
  std::size_t live = 0;
  std::size_t peak = 0;
  std::size_t mapped = 0;
};
Counting gCount;

void* countingMap(unsigned long size, void* ctx) {
  auto* c = static_cast<Counting*>(ctx);
  void* p = kestrel::default_mmap_func(size, nullptr);
  if (p != reinterpret_cast<void*>(~0UL)) {
    c->mapped += size;
    c->live += size;
    c->peak = std::max(c->peak, c->live);
  }
  return p;
}
int countingUnmap(char* start, unsigned long size, void* ctx) {
  auto* c = static_cast<Counting*>(ctx);
  const int r = kestrel::default_munmap_func(start, size, nullptr);
  if (r == 0) c->live -= size;
  return r;
}

void measureFootprint() {
  std::printf(
      "\n# Peak footprint of the mixed trace (%d slots, %d steps; peak live request bytes %zu)\n",
      kMixedSlots, kMixedSteps, traces().mixedPeakLive);
  std::vector<void*> slots(kMixedSlots);

  // mspace: a 64 KiB caller region, then everything through counting functions.
  static unsigned char base[64 * 1024];
  gCount.live = gCount.peak = sizeof base;
  mspace m = kestrel::create_mspace_with_base_ca(base, sizeof base, 0, &countingMap, &countingMap,
                                                 nullptr, &gCount);
  kestrel::internal::mspaceSetUnmapFunction(m, &countingUnmap);
  mspace saved = gMspace;
  gMspace = m;
  const Peer ms{"mspace", msAlloc, msRelease, msResize};
  const std::size_t msBefore = gCount.live;
  runMixed(ms, slots, [](int, std::size_t) {});
  const auto info = kestrel::mspace_mallinfo(m);
  gMspace = saved;
  kestrel::destroy_mspace(m);
  const std::size_t msPeak = gCount.peak;
  std::printf(
      "# mspace  peak %10zu bytes above start (counting callbacks; its own max footprint %zu)\n",
      msPeak - msBefore, static_cast<std::size_t>(info.usmblks) - msBefore);

  // glibc: sampled arena + mmapped bytes.
  malloc_trim(0);
  auto glibcFootprint = [] {
    const struct mallinfo2 mi = mallinfo2();
    return mi.arena + mi.hblkhd;
  };
  const std::size_t gBefore = glibcFootprint();
  std::size_t gPeak = gBefore;
  const Peer gl{"glibc", glibcAlloc, glibcRelease, glibcResize};
  runMixed(gl, slots, [&](int step, std::size_t size) {
    if (step % 16 == 0 || size >= 16384) gPeak = std::max(gPeak, glibcFootprint());
  });
  std::printf("# glibc   peak %10zu bytes above start (mallinfo2 arena + hblkhd, sampled)\n",
              gPeak - gBefore);
  std::printf("# footprint ratio mspace/glibc = %.3f (target <= 1.0)\n\n",
              static_cast<double>(msPeak - msBefore) / static_cast<double>(gPeak - gBefore));
}

// ---- summary ------------------------------------------------------------------

class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      const auto it = r.counters.find("ns_per_op");
      if (it == r.counters.end()) continue;
      const double ns = it->second.value * 1e9;
      if (r.run_type == Run::RT_Iteration) {
        double& best = fastest_[r.run_name.str()];
        if (best == 0 || ns < best) best = ns;  // fastest repetition: least disturbed by other load
      } else if (r.aggregate_name == "median") {
        median_[r.run_name.str()] = ns;
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  // The fastest repetition, or the median when only aggregates were reported.
  double result(const std::string& name) const {
    if (const auto it = fastest_.find(name); it != fastest_.end()) return it->second;
    if (const auto it = median_.find(name); it != median_.end()) return it->second;
    return 0;
  }
  const char* statistic() const {
    return fastest_.empty() ? "median of the repetitions" : "fastest repetition";
  }

 private:
  std::map<std::string, double> fastest_;
  std::map<std::string, double> median_;
};

}  // namespace

int main(int argc, char** argv) {
  kestrel::bench::ensureStaticTlsRoom(argv);
  std::vector<Peer> peers;
  gMspace = kestrel::create_mspace(0, 0);
  peers.push_back({"mspace", msAlloc, msRelease, msResize});
  std::vector<Peer> loaded;
  loadPeer<&gJemalloc>("libjemalloc.so.2", "malloc", "free", "realloc", "jemalloc", loaded);
  loadPeer<&gMimalloc>("libmimalloc.so.2", "mi_malloc", "mi_free", "mi_realloc", "mimalloc",
                       loaded);
  // Checked after the others are loaded: loading them must not have replaced it.
  if (glibcIsGlibc()) peers.push_back({"glibc", glibcAlloc, glibcRelease, glibcResize});
  peers.insert(peers.end(), loaded.begin(), loaded.end());

  measureFootprint();

  const std::pair<const char*, void (*)(benchmark::State&, const Peer&)> benches[] = {
      {"small_lifo", smallLifo},
      {"small_random", smallRandom},
      {"mixed", mixed},
      {"realloc_growth", reallocGrowth}};
  for (const auto& [trace, fn] : benches)
    for (const Peer& p : peers)
      benchmark::RegisterBenchmark((std::string(trace) + "/" + p.name).c_str(), fn, p);

  benchmark::Initialize(&argc, argv);
  SummaryReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);

  std::printf(
      "\n# ns per malloc+free pair (per realloc for realloc_growth), %s;\n"
      "# vs X = throughput ratio mspace/X = X ns / mspace ns (>= 1.0: mspace at least as fast)\n",
      reporter.statistic());
  std::printf("%-16s", "trace");
  for (const Peer& p : peers) std::printf("%12s", p.name.c_str());
  for (std::size_t i = 1; i < peers.size(); ++i)
    std::printf("%16s", ("vs " + peers[i].name).c_str());
  std::printf("\n");
  for (const auto& [trace, fn] : benches) {
    (void)fn;
    std::printf("%-16s", trace);
    std::vector<double> ns;
    for (const Peer& p : peers) {
      ns.push_back(reporter.result(std::string(trace) + "/" + p.name));
      std::printf("%12.2f", ns.back());
    }
    for (std::size_t i = 1; i < peers.size(); ++i)
      std::printf("%16.2f", ns[0] > 0 && ns[i] > 0 ? ns[i] / ns[0] : 0.0);
    std::printf("\n");
  }
  kestrel::destroy_mspace(gMspace);
  return 0;
}
