// kestrel::SpinLock against std::mutex, std::recursive_mutex and
// pthread_mutex_t, in three groups:
//   free/       lock+unlock of a lock no other thread uses (uncontended)
//   reentry/    lock+unlock by the owner of a lock it already holds
//   contended/  a counter shared by two threads
// After the runs a summary prints the ratio of SpinLock's CPU time to each
// peer's (below 1 means SpinLock is faster) next to the targets:
//   free lock+unlock     within 1.25x of std::recursive_mutex
//   recursive re-entry   faster than std::recursive_mutex
// The groups' names do not contain one another, so a filter such as
// --benchmark_filter=contended selects one group only.
//
// Run from a Release build, for instance
//   locks_bench --benchmark_repetitions=10 --benchmark_report_aggregates_only=true
// With repetitions the summary uses the median of each benchmark.
#include "ratio_reporter.h"

#include <kestrel/threads.h>

#include <benchmark/benchmark.h>

#include <pthread.h>

#include <cstdio>
#include <mutex>
#include <string>

namespace {

struct KestrelSpinLock {
  kestrel::SpinLock l{0};
  void lock() { l.lock(kestrel::SpinLock::kForever); }
  void unlock() { l.unlock(); }
};

struct PthreadMutex {
  pthread_mutex_t m;
  PthreadMutex() { pthread_mutex_init(&m, nullptr); }
  ~PthreadMutex() { pthread_mutex_destroy(&m); }
  void lock() { pthread_mutex_lock(&m); }
  void unlock() { pthread_mutex_unlock(&m); }
};

struct PthreadRecursiveMutex {
  pthread_mutex_t m;
  PthreadRecursiveMutex() {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&m, &attr);
    pthread_mutexattr_destroy(&attr);
  }
  ~PthreadRecursiveMutex() { pthread_mutex_destroy(&m); }
  void lock() { pthread_mutex_lock(&m); }
  void unlock() { pthread_mutex_unlock(&m); }
};

template <class Lock>
void freeLock(benchmark::State& state) {
  Lock lock;
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
}

// The owner takes the lock again while holding it.
template <class Lock>
void reentry(benchmark::State& state) {
  Lock lock;
  lock.lock();
  for (auto _ : state) {
    lock.lock();
    lock.unlock();
  }
  lock.unlock();
}

// Two threads increment one counter under the lock.
template <class Lock>
void contended(benchmark::State& state) {
  static Lock lock;
  alignas(64) static long counter = 0;
  for (auto _ : state) {
    lock.lock();
    ++counter;
    lock.unlock();
  }
  benchmark::DoNotOptimize(counter);
}

const char* const kSpinLock = "kestrel::SpinLock";
const char* const kMutex = "std::mutex";
const char* const kRecursive = "std::recursive_mutex";
const char* const kPthread = "pthread_mutex_t";
const char* const kPthreadRecursive = "pthread_mutex_t (recursive)";

void registerAll() {
  using benchmark::RegisterBenchmark;
  const auto name = [](const char* group, const char* lock) {
    return std::string(group) + "/" + lock;
  };

  RegisterBenchmark(name("free", kSpinLock).c_str(), freeLock<KestrelSpinLock>);
  RegisterBenchmark(name("free", kMutex).c_str(), freeLock<std::mutex>);
  RegisterBenchmark(name("free", kRecursive).c_str(), freeLock<std::recursive_mutex>);
  RegisterBenchmark(name("free", kPthread).c_str(), freeLock<PthreadMutex>);

  RegisterBenchmark(name("reentry", kSpinLock).c_str(), reentry<KestrelSpinLock>);
  RegisterBenchmark(name("reentry", kRecursive).c_str(), reentry<std::recursive_mutex>);
  RegisterBenchmark(name("reentry", kPthreadRecursive).c_str(), reentry<PthreadRecursiveMutex>);

  RegisterBenchmark(name("contended", kSpinLock).c_str(), contended<KestrelSpinLock>)
      ->Threads(2)
      ->UseRealTime();
  RegisterBenchmark(name("contended", kMutex).c_str(), contended<std::mutex>)
      ->Threads(2)
      ->UseRealTime();
  RegisterBenchmark(name("contended", kRecursive).c_str(), contended<std::recursive_mutex>)
      ->Threads(2)
      ->UseRealTime();
  RegisterBenchmark(name("contended", kPthread).c_str(), contended<PthreadMutex>)
      ->Threads(2)
      ->UseRealTime();
}

void printRatio(const kestrel::bench::RatioReporter& r, const char* group, const char* peer,
                const char* target, double limit) {
  const double mine = r.cpuTime(std::string(group) + "/" + kSpinLock);
  const double theirs = r.cpuTime(std::string(group) + "/" + peer);
  if (mine <= 0 || theirs <= 0) return;
  const double ratio = mine / theirs;
  std::printf("  %-12s %-28s %8.2f ns vs %8.2f ns CPU  ratio %5.2fx", group, peer, mine, theirs,
              ratio);
  if (target) std::printf("  (target %s: %s)", target, ratio <= limit ? "met" : "NOT met");
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  registerAll();
  return kestrel::bench::runWithRatios(
      argc, argv, [](const kestrel::bench::RatioReporter& reporter) {
        std::printf("\nkestrel::SpinLock CPU time / peer CPU time (below 1: SpinLock is faster)\n");
        printRatio(reporter, "free", kRecursive, "<= 1.25x", 1.25);
        printRatio(reporter, "free", kMutex, nullptr, 0);
        printRatio(reporter, "free", kPthread, nullptr, 0);
        printRatio(reporter, "reentry", kRecursive, "< 1.00x", 0.9999);
        printRatio(reporter, "reentry", kPthreadRecursive, nullptr, 0);
        printRatio(reporter, "contended", kRecursive, nullptr, 0);
        printRatio(reporter, "contended", kMutex, nullptr, 0);
        printRatio(reporter, "contended", kPthread, nullptr, 0);
      });
}
