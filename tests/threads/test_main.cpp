// Test program of the concurrency family. The main thread is marked as the
// library's main thread, as the application does; the widget application is
// created only when a test needs it, so that the tests of behaviour without
// an application can run in a process that has none.
#include "threads_test_support.h"

#include <kestrel/system.h>

#include <QApplication>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

namespace {

int sArgc = 1;
char sArg0[] = "threads_test";
char* sArgv[] = {sArg0, nullptr};
std::unique_ptr<QApplication> sApplication;

// Ends the program when one test runs longer than kTestLimitSeconds, so that
// a hang fails within seconds instead of at the runner's timeout.
class Watchdog : public ::testing::EmptyTestEventListener {
 public:
  Watchdog() : m_thread([this] { watch(); }) { m_thread.detach(); }

  void OnTestStart(const ::testing::TestInfo& info) override {
    m_name = std::string(info.test_suite_name()) + "." + info.name();
    m_started.store(std::chrono::steady_clock::now().time_since_epoch().count());
  }
  void OnTestEnd(const ::testing::TestInfo&) override { m_started.store(0); }

 private:
  void watch() {
    const auto limit = std::chrono::seconds(kestrel_test::kTestLimitSeconds);
    for (;;) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
      const auto started = m_started.load();
      if (started == 0) continue;
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      if (now - std::chrono::steady_clock::duration(started) > limit) {
        std::fprintf(stderr, "\n%s hung: still running after %d s\n", m_name.c_str(),
                     kestrel_test::kTestLimitSeconds);
        std::fflush(stderr);
        std::_Exit(3);
      }
    }
  }

  std::atomic<std::chrono::steady_clock::rep> m_started{0};
  std::string m_name;  // written before m_started is set, read after
  std::thread m_thread;
};

}  // namespace

namespace kestrel_test {

QApplication* application() {
  if (!sApplication) sApplication = std::make_unique<QApplication>(sArgc, sArgv);
  return sApplication.get();
}

bool processEventsUntil(const std::function<bool()>& done, int timeoutMs) {
  return waitUntil(
      [&] {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        return done();
      },
      timeoutMs);
}

bool waitUntil(const std::function<bool()>& done, int timeoutMs) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (!done()) {
    if (std::chrono::steady_clock::now() > deadline) return done();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return true;
}

}  // namespace kestrel_test

int main(int argc, char** argv) {
  if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM")) qputenv("QT_QPA_PLATFORM", "offscreen");
  kestrel::System::setMainThreadId(kestrel::System::kMainThreadMark);
  ::testing::InitGoogleTest(&argc, argv);
  // The watchdog's thread runs until the process ends, so the watchdog is
  // never deleted: it is taken back from gtest, which would delete its
  // listeners at exit.
  static Watchdog* const watchdog = new Watchdog;
  ::testing::TestEventListeners& listeners = ::testing::UnitTest::GetInstance()->listeners();
  listeners.Append(watchdog);
  const int result = RUN_ALL_TESTS();
  listeners.Release(watchdog);
  sApplication.reset();
  return result;
}
