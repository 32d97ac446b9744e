// The memory front and pools against their peers, in one run.
//
//   delete/*       malloc + ::operator delete of a 64 B system-heap block
//                  against malloc + free of the same block (target <= 1.10x)
//   pool/<peer>/N  steady churn over N live blocks (N = 10k, 100k) of 16, 32,
//                  64, 128 and 256 B: each step frees a random slot and fills
//                  it again. Peers: HeapManager (alloc, then kestrel::Free:
//                  ownership test, header, the thread's block cache, the
//                  pool lock once per batch), the bare mspace, the mspace
//                  with a SpinLock around each call (what the path costs
//                  when every call takes the pool's lock), glibc, jemalloc
//                  and mimalloc (targets vs glibc: <= 1.0x at 10k, <= 0.7x
//                  at 100k)
//   newdelete      new/delete of 64 B from 1 and 2 threads (target: 2 threads
//                  >= 1.6x the throughput of 1)
//   owner/P        isPointerFromPool over a mix of pool, heap and stack
//                  addresses with P = 1 and 1000 pools alive (target: equal)
//
// jemalloc and mimalloc are dlopen'ed privately (not linked, which would
// replace malloc for the whole process) and called through their own entry
// points; jemalloc needs more static TLS than glibc reserves for dlopen'ed
// libraries, so the program re-executes itself once with
// GLIBC_TUNABLES=glibc.rtld.optional_static_tls=8192.
#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kestrel/memory.h"
#include "peer_allocators.h"

namespace {

// ---- peers -------------------------------------------------------------------

struct Peer {
  void* (*alloc)(std::size_t) = nullptr;
  void (*release)(void*) = nullptr;
};

Peer gJemalloc, gMimalloc;

bool loadPeer(Peer& peer, const char* soname, const char* allocName, const char* releaseName) {
  void* h = kestrel::bench::openPeerLibrary(soname);
  if (h == nullptr) return false;
  peer.alloc = reinterpret_cast<void* (*)(std::size_t)>(dlsym(h, allocName));
  peer.release = reinterpret_cast<void (*)(void*)>(dlsym(h, releaseName));
  return peer.alloc != nullptr && peer.release != nullptr;
}

// ---- operator delete vs free ---------------------------------------------------

void deleteFree(benchmark::State& state) {
  for (auto _ : state) {
    void* p = std::malloc(64);
    benchmark::DoNotOptimize(p);
    std::free(p);
  }
}
BENCHMARK(deleteFree)->Name("delete/free");

void deleteOperator(benchmark::State& state) {
  for (auto _ : state) {
    void* p = std::malloc(64);
    benchmark::DoNotOptimize(p);
    ::operator delete(p);
  }
}
BENCHMARK(deleteOperator)->Name("delete/operator_delete");

// ---- pool path -------------------------------------------------------------------

constexpr unsigned kSizes[] = {16, 32, 64, 128, 256};
constexpr int kSteps = 1 << 16;

struct Trace {
  std::vector<unsigned> initial;
  std::vector<std::pair<unsigned, unsigned>> steps;  // slot, size
  explicit Trace(unsigned live) {
    std::mt19937 rng(7);
    for (unsigned i = 0; i < live; ++i) initial.push_back(kSizes[rng() % 5]);
    for (int i = 0; i < kSteps; ++i) steps.emplace_back(rng() % live, kSizes[rng() % 5]);
  }
};

const Trace& traceFor(unsigned live) {
  static std::map<unsigned, std::unique_ptr<Trace>> traces;
  auto& t = traces[live];
  if (!t) t = std::make_unique<Trace>(live);
  return *t;
}

template <class Alloc, class Release>
void churn(benchmark::State& state, Alloc alloc, Release release) {
  const Trace& trace = traceFor(static_cast<unsigned>(state.range(0)));
  std::vector<void*> live;
  for (unsigned size : trace.initial) live.push_back(alloc(size));
  for (auto _ : state) {
    for (const auto& [slot, size] : trace.steps) {
      release(live[slot]);
      live[slot] = alloc(size);
      *static_cast<volatile char*>(live[slot]) = 1;
    }
  }
  for (void* p : live) release(p);
  state.SetItemsProcessed(state.iterations() * kSteps);
}

void poolHeapManager(benchmark::State& state) {
  kestrel::MemoryPool* pool = new kestrel::MemoryPool("bench", 0x400000);
  {
    kestrel::HeapManager mgr(pool);
    churn(
        state, [&](unsigned n) { return mgr.alloc(n); }, [](void* p) { kestrel::Free(p); });
  }
  delete pool;
}

void poolMspace(benchmark::State& state) {
  kestrel::mspace m = kestrel::create_mspace(0, 0);
  churn(
      state, [m](unsigned n) { return kestrel::mspace_malloc(m, n); },
      [m](void* p) { kestrel::mspace_free(m, p); });
  kestrel::destroy_mspace(m);
}

// The bare mspace with the pool's kind of lock (a SpinLock) taken around
// each call: the pool path without its per-thread caches.
void poolLockedMspace(benchmark::State& state) {
  kestrel::mspace m = kestrel::create_mspace(0, 0);
  kestrel::SpinLock lock(0);
  churn(
      state,
      [m, &lock](unsigned n) {
        kestrel::CSMutex hold(lock);
        return kestrel::mspace_malloc(m, n);
      },
      [m, &lock](void* p) {
        kestrel::CSMutex hold(lock);
        kestrel::mspace_free(m, p);
      });
  kestrel::destroy_mspace(m);
}

void poolGlibc(benchmark::State& state) {
  churn(
      state, [](unsigned n) { return std::malloc(n); }, [](void* p) { std::free(p); });
}

void poolPeer(benchmark::State& state, Peer* peer) {
  if (peer->alloc == nullptr) {
    state.SkipWithError("not loaded");
    return;
  }
  churn(
      state, [peer](unsigned n) { return peer->alloc(n); }, [peer](void* p) { peer->release(p); });
}

BENCHMARK(poolHeapManager)->Name("pool/HeapManager")->Arg(10000)->Arg(100000);
BENCHMARK(poolMspace)->Name("pool/mspace")->Arg(10000)->Arg(100000);
BENCHMARK(poolLockedMspace)->Name("pool/mspace+lock")->Arg(10000)->Arg(100000);
BENCHMARK(poolGlibc)->Name("pool/glibc")->Arg(10000)->Arg(100000);
BENCHMARK_CAPTURE(poolPeer, jemalloc, &gJemalloc)->Name("pool/jemalloc")->Arg(10000)->Arg(100000);
BENCHMARK_CAPTURE(poolPeer, mimalloc, &gMimalloc)->Name("pool/mimalloc")->Arg(10000)->Arg(100000);

// ---- new/delete from 1 and 2 threads -----------------------------------------------

struct Small {
  char bytes[64];
};

void newDelete(benchmark::State& state) {
  for (auto _ : state) {
    Small* s = new Small;
    benchmark::DoNotOptimize(s);
    delete s;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(newDelete)->Name("newdelete")->Threads(1)->Threads(2)->UseRealTime();

// ---- isPointerFromPool with 1 and 1000 pools ------------------------------------------

void owner(benchmark::State& state) {
  std::vector<kestrel::MemoryPool*> pools;
  for (long i = 0; i < state.range(0); ++i)
    pools.push_back(new kestrel::MemoryPool("owner", 0x400000));
  std::vector<const void*> probes;
  int onStack = 0;
  std::mt19937 rng(3);
  for (int i = 0; i < 1024; ++i) {
    kestrel::MemoryPool* p = pools[rng() % pools.size()];
    const kestrel::MMapRange r = p->getRanges().at(0);
    probes.push_back(r.start + rng() % r.size);
    probes.push_back(&onStack);
    probes.push_back(&probes);
  }
  std::vector<void*> heap;
  for (int i = 0; i < 1024; ++i) probes.push_back(heap.emplace_back(std::malloc(32)));
  std::shuffle(probes.begin(), probes.end(), rng);
  for (auto _ : state) {
    int hits = 0;
    for (const void* p : probes) hits += kestrel::MemoryPool::isPointerFromPool(p);
    benchmark::DoNotOptimize(hits);
  }
  state.SetItemsProcessed(state.iterations() * static_cast<long>(probes.size()));
  for (void* p : heap) std::free(p);
  for (kestrel::MemoryPool* p : pools) delete p;
}
BENCHMARK(owner)->Name("owner")->Arg(1)->Arg(1000);

// ---- ratios -----------------------------------------------------------------------------

class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
      double& best = cpu_[r.benchmark_name()];
      const double cpu = r.GetAdjustedCPUTime();
      if (best == 0 || cpu < best) best = cpu;  // fastest repetition
      const auto it = r.counters.find("items_per_second");
      if (it != r.counters.end()) {
        double& rate = rate_[r.benchmark_name()];
        rate = std::max(rate, it->second.value);
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  void printRatios() const {
    std::printf("\n# Ratios (CPU time of the fastest repetition; lower is better)\n");
    ratio("operator delete / free", "delete/operator_delete", "delete/free", 1.10);
    for (const char* live : {"10000", "100000"}) {
      const std::string glibc = std::string("pool/glibc/") + live;
      const double target = std::string(live) == "10000" ? 1.0 : 0.7;
      ratio(std::string("HeapManager / glibc, ") + live + " live",
            std::string("pool/HeapManager/") + live, glibc, target);
      for (const char* peer : {"mspace", "mspace+lock", "jemalloc", "mimalloc"})
        ratio(std::string(peer) + " / glibc, " + live + " live",
              std::string("pool/") + peer + "/" + live, glibc, 0);
    }
    ratio("isPointerFromPool 1000 pools / 1 pool", "owner/1000", "owner/1", 1.10);
    const double one = rateOf("newdelete/real_time/threads:1");
    const double two = rateOf("newdelete/real_time/threads:2");
    if (one > 0 && two > 0)
      std::printf("%-44s %6.2fx  (target >= 1.60: %s)\n", "new/delete throughput 2 threads / 1",
                  two / one, two / one >= 1.6 ? "met" : "NOT MET");
  }

 private:
  double rateOf(const std::string& name) const {
    const auto it = rate_.find(name);
    return it == rate_.end() ? 0 : it->second;
  }
  void ratio(const std::string& label, const std::string& a, const std::string& b,
             double target) const {
    const auto x = cpu_.find(a), y = cpu_.find(b);
    if (x == cpu_.end() || y == cpu_.end() || y->second == 0) return;
    const double r = x->second / y->second;
    if (target > 0)
      std::printf("%-44s %6.2fx  (target <= %.2f: %s)\n", label.c_str(), r, target,
                  r <= target ? "met" : "NOT MET");
    else
      std::printf("%-44s %6.2fx\n", label.c_str(), r);
  }
  std::map<std::string, double> cpu_;
  std::map<std::string, double> rate_;
};

}  // namespace

int main(int argc, char** argv) {
  kestrel::bench::ensureStaticTlsRoom(argv);
  loadPeer(gJemalloc, "libjemalloc.so.2", "malloc", "free");
  loadPeer(gMimalloc, "libmimalloc.so.2", "mi_malloc", "mi_free");
  benchmark::Initialize(&argc, argv);
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios();
  benchmark::Shutdown();
  return 0;
}
