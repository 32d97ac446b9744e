// kestrel::Process: arguments arrive verbatim, exit status, termination, and
// programs that cannot start.
#include <kestrel/process.h>

#include "process/process_support.h"

#include <QDir>
#include <QTemporaryDir>

#include <chrono>
#include <csignal>
#include <thread>

namespace {

using kestrel::Process;
using kestrel::test::Recording;
using kestrel::test::ScopedEnv;

const QString kRecorder = QStringLiteral(KESTREL_RECORDER);

// Polls isRunning() until it turns false; false if that takes over five seconds.
bool endsWithin5s(Process& p) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (p.isRunning()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// Each argument would mean something to a shell; none may be interpreted.
const QStringList kTrickyArguments{QStringLiteral("with space"),
                                   QStringLiteral("'single' \"double\""),
                                   QStringLiteral("$(touch pwned)"),
                                   QStringLiteral("`id`"),
                                   QStringLiteral("a;b && c || d"),
                                   QStringLiteral("line1\nline2"),
                                   QStringLiteral("*"),
                                   QStringLiteral("|<>&"),
                                   QString(),
                                   QStringLiteral("-x"),
                                   QStringLiteral("\\$HOME"),
                                   QString::fromUtf8("gr\xC3\xBC\xC3\x9F"
                                                     "e \xE6\x97\xA5\xE6\x9C\xAC")};

TEST(Process, EveryArgumentReachesTheChildVerbatim) {
  Recording record;
  QTemporaryDir cwd;
  const QString oldCwd = QDir::currentPath();
  ASSERT_TRUE(QDir::setCurrent(cwd.path()));
  Process child(kRecorder, kTrickyArguments);
  ASSERT_TRUE(child.started());
  child.block();
  QDir::setCurrent(oldCwd);
  EXPECT_EQ(child.status(), 0);
  const auto argv = record.argv();
  ASSERT_TRUE(argv);
  QList<QByteArray> expected{kRecorder.toUtf8()};
  for (const QString& a : kTrickyArguments) expected.append(a.toUtf8());
  EXPECT_EQ(*argv, expected);
  // Nothing ran the $(...): no file appeared where the child ran.
  EXPECT_FALSE(QFile::exists(cwd.filePath(QStringLiteral("pwned"))));
}

TEST(Process, StatusIsTheExitStatus) {
  const ScopedEnv exitCode("KESTREL_RECORD_EXIT", "3");
  Process child(kRecorder, {});
  ASSERT_TRUE(child.started());
  child.block();
  EXPECT_FALSE(child.isRunning());
  EXPECT_EQ(child.status(), 3);
  child.block();  // a second wait returns at once
  EXPECT_EQ(child.status(), 3);
}

TEST(Process, KillTerminatesARunningChild) {
  const ScopedEnv sleep("KESTREL_RECORD_SLEEP_MS", "20000");
  Process child(kRecorder, {});
  ASSERT_TRUE(child.started());
  EXPECT_TRUE(child.isRunning());
  EXPECT_EQ(child.status(), -1);  // still running
  child.kill();
  ASSERT_TRUE(endsWithin5s(child));
  EXPECT_EQ(child.status(), SIGTERM);
  child.kill();  // nothing left to signal
}

// Starts the recorder, which sleeps for sleepMs (ignoring SIGTERM when asked),
// destroys its Process at once, and returns the child's pid (0 if unknown).
// The destructor must return within its grace time, well under 5 seconds.
pid_t destroyRunningChild(const char* sleepMs, bool ignoreTerm) {
  Recording record;  // the child writes its argv once its pid file is there
  QTemporaryDir dir;
  const QString pidFile = dir.filePath(QStringLiteral("pid"));
  const ScopedEnv pid("KESTREL_RECORD_PID", pidFile.toStdString());
  const ScopedEnv sleep("KESTREL_RECORD_SLEEP_MS", sleepMs);
  const ScopedEnv ignore("KESTREL_RECORD_IGNORE_TERM",
                         ignoreTerm ? std::optional<std::string>("1") : std::nullopt);
  const auto start = std::chrono::steady_clock::now();
  {
    Process child(kRecorder, {});
    EXPECT_TRUE(record.argv());
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
  QFile file(pidFile);
  if (!file.open(QIODevice::ReadOnly)) return 0;
  return static_cast<pid_t>(file.readAll().trimmed().toInt());
}

// True once the pid is gone within 5 seconds: a zombie still answers
// kill(pid, 0), a reaped child does not.
bool reapedWithinFiveSeconds(pid_t pid) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
  while (::kill(pid, 0) == 0 && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  return ::kill(pid, 0) != 0;
}

TEST(Process, DestructorStopsARunningChild) {
  // The child got SIGTERM and has been reaped well before the 20 seconds it
  // wanted to sleep.
  const pid_t child = destroyRunningChild("20000", false);
  ASSERT_GT(child, 0);
  EXPECT_TRUE(reapedWithinFiveSeconds(child)) << "child " << child << " still there";
}

// A child that ignores SIGTERM outlives the destructor's grace time; it is
// reaped when it ends, so no zombie stays behind.
TEST(Process, ChildOutlivingDestructorIsReapedLater) {
  const pid_t child = destroyRunningChild("1000", true);
  ASSERT_GT(child, 0);
  EXPECT_TRUE(reapedWithinFiveSeconds(child)) << "child " << child << " still there";
}

TEST(Process, ProgramThatCannotStartFailsCleanly) {
  QTemporaryDir dir;
  const QString notExecutable = dir.filePath(QStringLiteral("data.txt"));
  QFile file(notExecutable);
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.write("#!/bin/sh\nexit 0\n");
  file.close();
  ASSERT_TRUE(
      QFile::setPermissions(notExecutable, QFileDevice::ReadOwner | QFileDevice::WriteOwner));
  for (const QString& path :
       {dir.filePath(QStringLiteral("missing")), notExecutable, dir.path(), QString(),
        // Not searched on PATH: a bare name is not a path.
        QStringLiteral("true")}) {
    Process child(path, {QStringLiteral("x")});
    EXPECT_FALSE(child.started()) << path.toStdString();
    EXPECT_FALSE(child.isRunning());
    child.block();
    child.kill();
    EXPECT_EQ(child.status(), -1);
  }
}

TEST(Process, ArgumentWithNulByteIsNotStarted) {
  Recording record;
  Process child(kRecorder, {QString(QStringLiteral("a")) + QChar(0) + QStringLiteral("b")});
  EXPECT_FALSE(child.started());
  EXPECT_EQ(child.status(), -1);
}

}  // namespace
