// The standard folders, the install path and temporary names of System on
// Linux (XDG base directories through QStandardPaths).
#include <kestrel/system.h>

#include <QDir>
#include <QRandomGenerator>
#include <QStandardPaths>

#include <cerrno>
#include <climits>

#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {
namespace {

constexpr unsigned int kStatusEmptyPath = 0xC0000001;
constexpr unsigned int kStatusCannotCreate = 0xC0000008;
const char kProductFolder[] = "/Orvane Kestrel";

QString& installPath() {
  static QString path;
  return path;
}

// The folder of location plus the product folder, created if missing.
QString productFolder(QStandardPaths::StandardLocation location) {
  const QString path =
      QStandardPaths::writableLocation(location) + QString::fromLatin1(kProductFolder);
  System::makeAbsDirPath(path);
  return path;
}

// True when path names anything, even a dangling link or a place we may not
// look into: such a name is not free.
bool nameTaken(const QByteArray& path) {
  struct stat info;
  return ::lstat(path.constData(), &info) == 0 || errno != ENOENT;
}

// True when the folder prefix (ending in "/") exists as a folder; a file in
// its place does not count, so creating it fails.
bool folderExists(const QByteArray& prefix) {
  struct stat info;
  return ::stat(prefix.constData(), &info) == 0;
}

}  // namespace

QString System::getAppDirectory() {
  return productFolder(QStandardPaths::GenericDataLocation);
}

QString System::getCacheDirectory() {
  return productFolder(QStandardPaths::GenericCacheLocation);
}

QString System::getMyDocumentsDirectory() {
  return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation);
}

QString System::getTempDirectory() {
  return QDir::tempPath();
}

QString System::getResourceDirectory() {
  QString base = installPath();
  if (base.isEmpty()) {
    char exe[PATH_MAX];
    const ssize_t length = ::readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (length > 0) {
      const QString program = QString::fromUtf8(exe, static_cast<qsizetype>(length));
      base = program.left(program.lastIndexOf(QLatin1Char('/')) + 1);
    }
  }
  return base + QStringLiteral("../Resources");
}

void System::setInstallPath(const QString& path) {
  installPath() = path.endsWith(QLatin1Char('/')) ? path : path + QLatin1Char('/');
}

QString System::getInstallPath() {
  return installPath();
}

unsigned int System::makeAbsDirPath(const QString& path) {
  if (path.isEmpty()) return kStatusEmptyPath;
  const QStringList parts = QDir::cleanPath(path).split(QLatin1Char('/'), Qt::SkipEmptyParts);
  QString prefix = QStringLiteral("/");
  for (const QString& part : parts) {
    prefix += part + QLatin1Char('/');
    const QByteArray native = prefix.toUtf8();
    if (folderExists(native)) continue;
    if (::mkdir(native.constData(), 0777) != 0) return kStatusCannotCreate;
  }
  return 0;
}

QString System::makeTempFilePath(const QString& extension, const QString& prefix) {
  static const char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
  // As the system's temporary names: at most five characters of the prefix,
  // and "file" when there is none.
  const QByteArray stem = prefix.isEmpty() ? QByteArray("file") : prefix.left(5).toLatin1();
  const QByteArray folder = QDir::tempPath().toUtf8() + '/' + stem;
  for (int attempt = 0; attempt < 100; ++attempt) {
    QByteArray candidate = folder;
    for (int i = 0; i < 6; ++i)
      candidate += kLetters[QRandomGenerator::global()->bounded(int(sizeof kLetters) - 1)];
    if (nameTaken(candidate)) continue;
    QString result = QString::fromUtf8(candidate);
    if (!extension.isEmpty()) result += QLatin1Char('.') + extension;
    return result;
  }
  return {};
}

}  // namespace kestrel
