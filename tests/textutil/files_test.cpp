// kestrel::file: reads, copies and moves, above all the failures that must
// leave source and target as they were.
#include <kestrel/textutil.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace {

using namespace kestrel;

void writeFile(const QString& path, const QByteArray& bytes) {
  QFile f(path);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
  ASSERT_EQ(f.write(bytes), bytes.size());
}

QByteArray contents(const QString& path) {
  QFile f(path);
  if (!f.open(QIODevice::ReadOnly)) return QByteArray("<missing>");
  return f.readAll();
}

// The entries of a folder, so that a stray temporary file shows.
QStringList entries(const QString& dir) {
  return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

class Files : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mDir.isValid());
    mSource = mDir.filePath(QString::fromUtf8("s\xC3\xB6urce file.bin"));
    mTarget = mDir.filePath(QStringLiteral("target.bin"));
    writeFile(mSource, QByteArray("source\0bytes", 12));
    writeFile(mTarget, "old target");
  }
  QTemporaryDir mDir;
  QString mSource;
  QString mTarget;
};

TEST_F(Files, ExistsAndSize) {
  EXPECT_TRUE(file::exists(mSource));
  EXPECT_TRUE(file::exists(mDir.path()));
  EXPECT_FALSE(file::exists(mDir.filePath(QStringLiteral("none"))));
  EXPECT_EQ(file::getSize(mSource), 12);
  EXPECT_EQ(file::getSize(mDir.filePath(QStringLiteral("none"))), 0);
}

TEST_F(Files, ReadFileGivesEveryByteOrNothing) {
  EXPECT_EQ(file::readFile(mSource), QByteArray("source\0bytes", 12));
  EXPECT_TRUE(file::readFile(mDir.filePath(QStringLiteral("none"))).isEmpty());
  // A folder opens but cannot be read.
  EXPECT_TRUE(file::readFile(mDir.path()).isEmpty());
  QByteArray big(300000, 'x');
  big[299999] = 'y';
  writeFile(mTarget, big);
  EXPECT_EQ(file::readFile(mTarget), big);
}

TEST_F(Files, CopyReplacesTargetAndKeepsSource) {
  ASSERT_TRUE(file::copy(mSource, mTarget));
  EXPECT_EQ(contents(mTarget), contents(mSource));
  EXPECT_EQ(contents(mSource), QByteArray("source\0bytes", 12));
  EXPECT_EQ(entries(mDir.path()).size(), 2) << entries(mDir.path()).join(u' ').toStdString();
}

TEST_F(Files, CopyToNewFileKeepsPermissions) {
  ASSERT_TRUE(QFile::setPermissions(
      mSource, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner));
  const QString fresh = mDir.filePath(QStringLiteral("fresh"));
  ASSERT_TRUE(file::copy(mSource, fresh));
  EXPECT_EQ(contents(fresh), contents(mSource));
  EXPECT_TRUE(QFileInfo(fresh).permissions() & QFileDevice::ExeOwner);
}

TEST_F(Files, CopyOntoItselfKeepsTheFile) {
  EXPECT_TRUE(file::copy(mSource, mSource));
  EXPECT_EQ(contents(mSource), QByteArray("source\0bytes", 12));
  EXPECT_EQ(entries(mDir.path()).size(), 2);
}

TEST_F(Files, FailedCopyLeavesTargetAndSource) {
  // Missing source.
  EXPECT_FALSE(file::copy(mDir.filePath(QStringLiteral("none")), mTarget));
  EXPECT_EQ(contents(mTarget), "old target");
  // A source that fails in the middle of reading.
  EXPECT_FALSE(file::copy(QStringLiteral("/proc/self/mem"), mTarget));
  EXPECT_EQ(contents(mTarget), "old target");
  // A folder as source.
  EXPECT_FALSE(file::copy(mDir.path(), mTarget));
  EXPECT_EQ(contents(mTarget), "old target");
  // A target folder that does not exist.
  EXPECT_FALSE(file::copy(mSource, mDir.filePath(QStringLiteral("no/such/file"))));
  // A non-empty folder where the target should be.
  const QString folder = mDir.filePath(QStringLiteral("folder"));
  ASSERT_TRUE(QDir().mkpath(folder + QStringLiteral("/inner")));
  EXPECT_FALSE(file::copy(mSource, folder));
  EXPECT_TRUE(QFileInfo(folder + QStringLiteral("/inner")).isDir());
  EXPECT_EQ(contents(mSource), QByteArray("source\0bytes", 12));
  EXPECT_EQ(entries(mDir.path()).size(), 3) << entries(mDir.path()).join(u' ').toStdString();
}

TEST_F(Files, MoveReplacesTarget) {
  ASSERT_TRUE(file::move(mSource, mTarget));
  EXPECT_FALSE(file::exists(mSource));
  EXPECT_EQ(contents(mTarget), QByteArray("source\0bytes", 12));
}

TEST_F(Files, MoveOntoItselfKeepsTheFile) {
  EXPECT_TRUE(file::move(mSource, mSource));
  EXPECT_EQ(contents(mSource), QByteArray("source\0bytes", 12));
}

TEST_F(Files, FailedMoveLosesNothing) {
  EXPECT_FALSE(file::move(mDir.filePath(QStringLiteral("none")), mTarget));
  EXPECT_EQ(contents(mTarget), "old target");
  EXPECT_FALSE(file::move(mSource, mDir.filePath(QStringLiteral("no/such/file"))));
  const QString folder = mDir.filePath(QStringLiteral("folder"));
  ASSERT_TRUE(QDir().mkpath(folder + QStringLiteral("/inner")));
  EXPECT_FALSE(file::move(mSource, folder));
  EXPECT_TRUE(QFileInfo(folder + QStringLiteral("/inner")).isDir());
  EXPECT_EQ(contents(mSource), QByteArray("source\0bytes", 12));
  EXPECT_EQ(contents(mTarget), "old target");
}

TEST_F(Files, MoveAcrossFileSystemsCopiesThenRemovesSource) {
  struct ::stat here {
  }, there{};
  if (!file::stat("/dev/shm", &there) || !file::wstat(mDir.path(), &here) ||
      here.st_dev == there.st_dev)
    GTEST_SKIP() << "no second file system at /dev/shm";
  QTemporaryDir other(QStringLiteral("/dev/shm/kestrel-move-XXXXXX"));
  ASSERT_TRUE(other.isValid());
  const QString target = other.filePath(QStringLiteral("moved"));
  writeFile(target, "old");
  ASSERT_TRUE(file::move(mSource, target));
  EXPECT_FALSE(file::exists(mSource));
  EXPECT_EQ(contents(target), QByteArray("source\0bytes", 12));
  EXPECT_EQ(entries(other.path()), QStringList{QStringLiteral("moved")});
}

TEST_F(Files, GetCompatNameCreatesWithoutTruncating) {
  const QString fresh = mDir.filePath(QStringLiteral("fresh"));
  EXPECT_EQ(file::getCompatName(fresh, false), fresh);
  EXPECT_FALSE(file::exists(fresh));
  EXPECT_EQ(file::getCompatName(fresh, true), fresh);
  EXPECT_TRUE(file::exists(fresh));
  EXPECT_EQ(file::getCompatName(mTarget, true), mTarget);
  EXPECT_EQ(contents(mTarget), "old target");
}

TEST_F(Files, StatTakesUtf8Paths) {
  struct ::stat info {};
  ASSERT_TRUE(file::wstat(mSource, &info));
  EXPECT_EQ(info.st_size, 12);
  EXPECT_TRUE(file::stat(mSource.toUtf8().constData(), &info));
  EXPECT_FALSE(file::wstat(mDir.filePath(QStringLiteral("none")), &info));
  EXPECT_FALSE(file::stat(nullptr, &info));
  EXPECT_FALSE(file::stat("/", nullptr));
}

}  // namespace
