// Test program of the concurrency family. The main thread is marked as the
// library's main thread, as the application does; the widget application is
// created only when a test needs it, so that the tests of behaviour without
// an application can run in a process that has none.
#include "threads_test_support.h"

#include <kestrel/system.h>

#include <QApplication>

#include <gtest/gtest.h>

#include <memory>

namespace {

int sArgc = 1;
char sArg0[] = "threads_test";
char* sArgv[] = {sArg0, nullptr};
std::unique_ptr<QApplication> sApplication;

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
  const int result = RUN_ALL_TESTS();
  sApplication.reset();
  return result;
}
