// The file wrappers of System: direct POSIX calls with UTF-8 paths and
// 64-bit offsets.
#include <kestrel/system.h>

#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrel {

static_assert(sizeof(off_t) == 8, "the file wrappers need 64-bit offsets");

int System::open(const char* path, int flags, int mode) {
  return ::open(path, flags, static_cast<mode_t>(mode));
}

int System::open(const QString& path, int flags, int mode) {
  return ::open(path.toUtf8().constData(), flags, static_cast<mode_t>(mode));
}

int System::close(int fd) {
  return ::close(fd);
}

long System::read(int fd, void* buffer, unsigned long count) {
  return ::read(fd, buffer, count);
}

long System::write(int fd, const void* buffer, unsigned long count) {
  return ::write(fd, buffer, count);
}

long long System::lseek(int fd, long long offset, int whence) {
  return ::lseek(fd, static_cast<off_t>(offset), whence);
}

int System::ftruncate(int fd, long long length) {
  return ::ftruncate(fd, static_cast<off_t>(length));
}

int System::access(const QString& path, int mode) {
  return ::access(path.toUtf8().constData(), mode);
}

int System::rename(const QString& from, const QString& to) {
  return std::rename(from.toUtf8().constData(), to.toUtf8().constData());
}

int System::unlink(const QString& path) {
  return ::unlink(path.toUtf8().constData());
}

int System::getSize(int fd) {
  struct stat info;
  if (::fstat(fd, &info) != 0) return -1;
  return static_cast<int>(static_cast<unsigned int>(static_cast<unsigned long long>(info.st_size)));
}

}  // namespace kestrel
