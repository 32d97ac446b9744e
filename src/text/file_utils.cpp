// kestrel::file: file tests, whole-file reads, and copy and move that never
// lose the source or a target that was there.
#include <kestrel/system.h>
#include <kestrel/textutil.h>

#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel::file {

bool exists(const QString& path) {
  return QFileInfo::exists(path);
}

int getSize(const QString& path) {
  const QFileInfo info(path);
  if (!info.exists()) return 0;
  return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long long>(info.size())));
}

QByteArray readFile(const QString& path) {
  const int fd = System::open(path, O_RDONLY, 0);
  if (fd < 0) return QByteArray();
  QByteArray bytes;
  const int size = System::getSize(fd);
  if (size > 0) {
    bytes.resize(size);
    qsizetype done = 0;
    while (done < size) {
      const long got =
          System::read(fd, bytes.data() + done, static_cast<unsigned long>(size - done));
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      done += got;
    }
    bytes.truncate(done);  // a file that ended sooner gives what it had
  }
  System::close(fd);
  return bytes;
}

namespace {

// Copies from into a new temporary file in the folder of to and renames it
// onto to. On any failure the temporary file is removed and to is untouched.
bool copyThroughTemporary(const QString& from, const QString& to) {
  QFile source(from);
  if (!source.open(QIODevice::ReadOnly)) return false;
  QTemporaryFile target(QFileInfo(to).absolutePath() + QStringLiteral("/.kestrel-copy-XXXXXX"));
  if (!target.open()) return false;
  char buffer[65536];
  for (;;) {
    const qint64 got = source.read(buffer, sizeof buffer);
    if (got < 0) return false;
    if (got == 0) break;
    if (target.write(buffer, got) != got) return false;
  }
  if (!target.flush()) return false;
  target.setPermissions(source.permissions());
  if (System::rename(target.fileName(), to) != 0) return false;
  target.setAutoRemove(false);
  return true;
}

}  // namespace

bool copy(const QString& from, const QString& to) {
  if (!exists(from)) return false;
  return copyThroughTemporary(from, to);
}

bool move(const QString& from, const QString& to) {
  if (!exists(from)) return false;
  if (System::rename(from, to) == 0) return true;
  if (errno != EXDEV) return false;
  if (!QFileInfo(from).isFile() || !copyThroughTemporary(from, to)) return false;
  return System::unlink(from) == 0;
}

QString getCompatName(const QString& path, bool create) {
  if (create) {
    const int fd = System::open(path, O_WRONLY | O_CREAT, 0666);
    if (fd >= 0) System::close(fd);
  }
  return path;
}

bool stat(const char* path, struct ::stat* out) {
  if (path == nullptr || out == nullptr) return false;
  return ::stat(path, out) == 0;
}

bool wstat(const QString& path, struct ::stat* out) {
  return file::stat(path.toUtf8().constData(), out);
}

}  // namespace kestrel::file
