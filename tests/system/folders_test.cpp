// Standard folders, the install path, temporary names and makeAbsDirPath.
#include "system/system_test_support.h"

#include <kestrel/system.h>

#include <QFileInfo>
#include <QSet>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace kestrel {
namespace {

using test::ScopedEnv;

constexpr unsigned int kEmptyPath = 0xC0000001;
constexpr unsigned int kCannotCreate = 0xC0000008;

std::string utf8(const QString& s) {
  return s.toStdString();
}

TEST(Folders, UserFoldersFollowXdgVariables) {
  QTemporaryDir home;
  ScopedEnv data("XDG_DATA_HOME", utf8(home.path() + "/data"));
  ScopedEnv cache("XDG_CACHE_HOME", utf8(home.path() + "/cache"));
  ScopedEnv config("XDG_CONFIG_HOME", utf8(home.path() + "/config"));
  ScopedEnv homeVar("HOME", utf8(home.path()));
  ASSERT_TRUE(QDir().mkpath(home.path() + "/config"));
  {
    QFile dirs(home.path() + "/config/user-dirs.dirs");
    ASSERT_TRUE(dirs.open(QIODevice::WriteOnly));
    dirs.write("XDG_DOCUMENTS_DIR=\"$HOME/Papers\"\n");
  }

  const QString app = System::getAppDirectory();
  EXPECT_EQ(app, home.path() + "/data/Orvane Kestrel");
  EXPECT_TRUE(QFileInfo(app).isDir()) << "the application folder is created";
  const QString cacheDir = System::getCacheDirectory();
  EXPECT_EQ(cacheDir, home.path() + "/cache/Orvane Kestrel");
  EXPECT_TRUE(QFileInfo(cacheDir).isDir());
  EXPECT_EQ(System::getMyDocumentsDirectory(), home.path() + "/Papers");
  EXPECT_FALSE(QFileInfo::exists(home.path() + "/Papers")) << "documents are not created";
}

TEST(Folders, ResourceDirectoryDefaultsToTheProgramFolder) {
  if (!System::getInstallPath().isEmpty()) GTEST_SKIP() << "an install path was set earlier";
  char exe[4096];
  const ssize_t n = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
  ASSERT_GT(n, 0);
  const QString program = QString::fromUtf8(exe, n);
  EXPECT_EQ(System::getResourceDirectory(), QFileInfo(program).path() + "/../Resources");
}

TEST(Folders, InstallPathGetsOneTrailingSlash) {
  const QString before = System::getInstallPath();
  System::setInstallPath(QStringLiteral("/opt/kestrel"));
  EXPECT_EQ(System::getInstallPath(), QStringLiteral("/opt/kestrel/"));
  EXPECT_EQ(System::getResourceDirectory(), QStringLiteral("/opt/kestrel/../Resources"));
  System::setInstallPath(QStringLiteral("/opt/kestrel/"));
  EXPECT_EQ(System::getInstallPath(), QStringLiteral("/opt/kestrel/"));
  System::setInstallPath(before.isEmpty() ? QStringLiteral("/") : before);
}

TEST(TempFilePath, NamesAreFreshInTmpdirAndCarryPrefixAndExtension) {
  QTemporaryDir tmp;
  ScopedEnv tmpdir("TMPDIR", utf8(tmp.path()));
  EXPECT_EQ(System::getTempDirectory(), tmp.path());
  QSet<QString> seen;
  for (int i = 0; i < 50; ++i) {
    const QString path = System::makeTempFilePath(QStringLiteral("kml"), QStringLiteral("tiles"));
    EXPECT_TRUE(path.startsWith(tmp.path() + "/tiles")) << utf8(path);
    EXPECT_TRUE(path.endsWith(QStringLiteral(".kml")));
    EXPECT_FALSE(QFileInfo::exists(path));
    seen.insert(path);
  }
  EXPECT_EQ(seen.size(), 50);
  const QString bare = System::makeTempFilePath(QString(), QStringLiteral("abcdefgh"));
  EXPECT_EQ(QFileInfo(bare).fileName().size(), 5 + 6) << "prefix of five, six random characters";
  EXPECT_TRUE(QFileInfo(bare).fileName().startsWith(QStringLiteral("abcde")));
  EXPECT_FALSE(bare.contains(QLatin1Char('.')));
  // The system's temporary-name rule: an empty prefix stands for "file".
  for (const QString& prefix : {QString(), QStringLiteral("")}) {  // null and empty alike
    const QString name = QFileInfo(System::makeTempFilePath(QString(), prefix)).fileName();
    EXPECT_EQ(name.size(), 4 + 6) << utf8(name);
    EXPECT_TRUE(name.startsWith(QStringLiteral("file"))) << utf8(name);
  }
}

TEST(MakeAbsDirPath, CreatesEveryMissingLevelInUtf8FromTheRoot) {
  QTemporaryDir tmp;
  const QString deep = tmp.path() + "/a/b//c/./d/../e/";
  EXPECT_EQ(System::makeAbsDirPath(deep), 0u);
  EXPECT_TRUE(QFileInfo(tmp.path() + "/a/b/c/e").isDir());
  EXPECT_FALSE(QFileInfo::exists(tmp.path() + "/a/b/c/d")) << "the path is cleaned first";
  EXPECT_EQ(System::makeAbsDirPath(deep), 0u) << "existing folders are fine";
  const QString path = tmp.path() + QStringLiteral("/Zürich/東京/Ελλάδα");
  EXPECT_EQ(System::makeAbsDirPath(path), 0u);
  struct stat info;
  ASSERT_EQ(::stat(path.toUtf8().constData(), &info), 0);
  EXPECT_TRUE(S_ISDIR(info.st_mode));
  // tmp.path() is absolute; without its leading "/" the walk still starts at "/".
  EXPECT_EQ(System::makeAbsDirPath(tmp.path().mid(1) + "/rel"), 0u);
  EXPECT_TRUE(QFileInfo(tmp.path() + "/rel").isDir());
}

TEST(MakeAbsDirPath, EmptyPathsAndPathsBlockedByAFileFail) {
  EXPECT_EQ(System::makeAbsDirPath(QString()), kEmptyPath);
  EXPECT_EQ(System::makeAbsDirPath(QStringLiteral("")), kEmptyPath);
  QTemporaryDir tmp;
  QFile blocker(tmp.path() + "/blocker");
  ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
  blocker.close();
  EXPECT_EQ(System::makeAbsDirPath(tmp.path() + "/blocker/sub/leaf"), kCannotCreate);
  EXPECT_EQ(System::makeAbsDirPath(tmp.path() + "/blocker"), kCannotCreate)
      << "a file is no folder, even as the last part";
}

// Runs makeAbsDirPath(path) in a child that has given up root's right to
// ignore permissions, and returns its status; -1 if that was impossible.
long long statusWithoutRoot(const QString& path) {
  const pid_t child = ::fork();
  if (child < 0) return -1;
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(2);
    const unsigned int status = System::makeAbsDirPath(path);
    ::_exit(status == 0 ? 0 : status == kCannotCreate ? 1 : 3);
  }
  int status = 0;
  if (::waitpid(child, &status, 0) != child || !WIFEXITED(status)) return -1;
  const int code = WEXITSTATUS(status);
  return code == 0 ? 0 : code == 1 ? kCannotCreate : code == 2 ? -1 : -2;
}

TEST(MakeAbsDirPath, ReadOnlyFolderFails) {
  QTemporaryDir tmp;
  const QString locked = tmp.path() + "/locked";
  ASSERT_TRUE(QDir().mkpath(locked));
  // The unprivileged child must be able to walk into the temporary folder.
  ASSERT_EQ(::chmod(tmp.path().toUtf8().constData(), 0755), 0);
  ASSERT_EQ(::chmod(locked.toUtf8().constData(), 0555), 0);
  const long long status = statusWithoutRoot(locked + "/inner/leaf");
  if (status == -1) GTEST_SKIP() << "cannot drop root privileges here";
  EXPECT_EQ(status, static_cast<long long>(kCannotCreate));
  EXPECT_FALSE(QFileInfo::exists(locked + "/inner"));
  ASSERT_EQ(::chmod(locked.toUtf8().constData(), 0755), 0);
}

}  // namespace
}  // namespace kestrel
