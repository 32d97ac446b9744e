// Shared helpers of the concurrency tests.
#pragma once

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

class QApplication;

namespace kestrel_test {

// Iteration scale of the stress tests: ThreadSanitizer runs them 5-15 times
// slower, so they do less there.
#if defined(KESTREL_TSAN)
constexpr int kStress = 1;
#elif defined(KESTREL_SANITIZED)
constexpr int kStress = 3;
#else
constexpr int kStress = 10;
#endif

// The widget application of the test program, created on first use on the
// main thread (tests that must run without one never call this).
QApplication* application();

// Processes main-thread events until done() holds or timeoutMs passes;
// returns done(). The bound only catches hangs.
bool processEventsUntil(const std::function<bool()>& done, int timeoutMs = 5000);

// Polls done() (sleeping 1 ms) until it holds or timeoutMs passes.
bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000);

// Milliseconds elapsed while running fn.
inline double elapsedMs(const std::function<void()>& fn) {
  const auto start = std::chrono::steady_clock::now();
  fn();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

// Joins the threads it was given when it goes out of scope, so that a test
// left early by a failed assertion destroys no joinable std::thread. Before
// joining it runs `unblock` (if set), which must let every thread finish.
struct JoinOnExit {
  std::vector<std::thread*> threads;
  std::function<void()> unblock = {};
  ~JoinOnExit() {
    if (unblock) unblock();
    for (std::thread* t : threads)
      if (t->joinable()) t->join();
  }
};

// Longest a single test of this program may take before the watchdog of
// test_main.cpp ends the program as hung: every wait in these tests is
// bounded, by its own limit or at the latest by this one.
#if defined(KESTREL_SANITIZED)
constexpr int kTestLimitSeconds = 90;
#else
constexpr int kTestLimitSeconds = 30;
#endif

// Runs body(index) on `count` threads and joins them.
inline void runThreads(int count, const std::function<void(int)>& body) {
  std::vector<std::thread> threads;
  threads.reserve(static_cast<size_t>(count));
  for (int i = 0; i < count; ++i) threads.emplace_back(body, i);
  for (std::thread& t : threads) t.join();
}

// Runs fn on a new thread, joins it and returns fn's result.
template <class Fn>
auto onOtherThread(Fn fn) -> decltype(fn()) {
  decltype(fn()) result{};
  std::thread([&] { result = fn(); }).join();
  return result;
}

}  // namespace kestrel_test
