// kestrel::Library: path composition, loading, symbols and the failure line.
#include <kestrel/process.h>
#include <kestrel/system.h>

#include <gtest/gtest.h>

namespace {

using kestrel::Library;
using kestrel::System;

// Points the install path at dir for its lifetime.
class ScopedInstallPath {
 public:
  explicit ScopedInstallPath(const QString& dir) : mOld(System::getInstallPath()) {
    System::setInstallPath(dir);
  }
  ~ScopedInstallPath() { System::setInstallPath(mOld); }
  ScopedInstallPath(const ScopedInstallPath&) = delete;
  ScopedInstallPath& operator=(const ScopedInstallPath&) = delete;

 private:
  QString mOld;
};

const QString kProbeDir = QStringLiteral(KESTREL_PROBE_DIR);

TEST(Library, FilePathIsLibNameSoUnderInstallPath) {
  const ScopedInstallPath install(QStringLiteral("/opt/app"));
  EXPECT_EQ(Library(QStringLiteral("foo")).getFilePath(), QStringLiteral("/opt/app/libfoo.so"));
  // The separator stays at the front of the base name (kept for compatibility).
  Library nested(QStringLiteral("plugins/foo"));
  QString path, base;
  nested.calculatePathAndBaseName(path, base);
  EXPECT_EQ(path, QStringLiteral("/opt/app/plugins"));
  EXPECT_EQ(base, QStringLiteral("/foo"));
  EXPECT_EQ(nested.getFilePath(), QStringLiteral("/opt/app/pluginslib/foo.so"));
  EXPECT_EQ(Library(QStringLiteral("a/b/c")).getFilePath(), QStringLiteral("/opt/app/a/blib/c.so"));
  EXPECT_EQ(Library(QString()).getFilePath(), QString());
  EXPECT_EQ(nested.getLibraryName(), QStringLiteral("plugins/foo"));
}

TEST(Library, EmptyNameCountsAsLoadedWithoutHandle) {
  Library none{QString()};
  EXPECT_TRUE(none.load(false));
  EXPECT_TRUE(none.isLoaded());
  EXPECT_EQ(none.resolve(QStringLiteral("malloc")), nullptr);
  EXPECT_TRUE(none.unload());
  EXPECT_FALSE(none.isLoaded());
  EXPECT_FALSE(none.unload());
}

TEST(Library, LoadsResolvesAndUnloads) {
  const ScopedInstallPath install(kProbeDir);
  Library probe(QStringLiteral("kestrel_probe"));
  EXPECT_FALSE(probe.isLoaded());
  EXPECT_EQ(probe.resolve(QStringLiteral("kestrel_probe_answer")), nullptr);  // not loaded yet
  ASSERT_TRUE(probe.load(false)) << probe.getFilePath().toStdString();
  EXPECT_TRUE(probe.isLoaded());
  auto* answer = reinterpret_cast<int (*)()>(probe.resolve(QStringLiteral("kestrel_probe_answer")));
  ASSERT_NE(answer, nullptr);
  EXPECT_EQ(answer(), 42);
  // A symbol that does not exist.
  EXPECT_EQ(probe.resolve(QStringLiteral("kestrel_probe_missing")), nullptr);
  // A second load changes nothing.
  EXPECT_FALSE(probe.load(false));
  EXPECT_TRUE(probe.isLoaded());
  EXPECT_TRUE(probe.unload());
  EXPECT_FALSE(probe.isLoaded());
  EXPECT_EQ(probe.resolve(QStringLiteral("kestrel_probe_answer")), nullptr);
  EXPECT_FALSE(probe.unload());
}

TEST(Library, MissingLibraryPrintsOneLineUnlessQuiet) {
  const ScopedInstallPath install(kProbeDir);
  Library missing(QStringLiteral("kestrel_no_such"));
  testing::internal::CaptureStderr();
  EXPECT_FALSE(missing.load(true));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  testing::internal::CaptureStderr();
  EXPECT_FALSE(missing.load(false));
  const std::string line = testing::internal::GetCapturedStderr();
  const std::string path = (kProbeDir + QStringLiteral("/libkestrel_no_such.so")).toStdString();
  EXPECT_EQ(line.rfind("Failed to load \"" + path + "\" because \"", 0), 0u) << line;
  EXPECT_NE(line.find("No such file"), std::string::npos) << line;
  EXPECT_EQ(line.substr(line.size() - 2), "\"\n");
  EXPECT_FALSE(missing.isLoaded());
  EXPECT_EQ(missing.resolve(QStringLiteral("x")), nullptr);
}

TEST(Library, OsVersionPacksTheKernelRelease) {
  System::OSVersion os;
  int major = 0, minor = 0, patch = 0, extra = 0;
  System::getOSVersion(os, major, minor, patch, extra);
  EXPECT_EQ(Library(QStringLiteral("x")).getOSVersion(),
            std::min(major, 255) * 65536 + std::min(minor, 255) * 256 + std::min(patch, 255));
  EXPECT_GT(Library(QStringLiteral("x")).getOSVersion(), 0);
}

}  // namespace
