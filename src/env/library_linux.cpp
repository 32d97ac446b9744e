// kestrel::Library: "lib" + name + ".so" under the install path, through
// dlopen and dlsym.
#include <kestrel/process.h>
#include <kestrel/system.h>

#include <QDir>

#include <algorithm>
#include <cstdio>

#include <dlfcn.h>

namespace kestrel {

struct Library::Record {
  void* handle = nullptr;
  int loaded = 0;
  QString name;
  int osVersion = 0;
};

namespace {
// The kernel version packed as major * 65536 + minor * 256 + patch.
int kernelVersion() {
  System::OSVersion os;
  int major = 0, minor = 0, patch = 0, extra = 0;
  System::getOSVersion(os, major, minor, patch, extra);
  const auto part = [](int v) { return std::clamp(v, 0, 255); };
  return part(major) * 65536 + part(minor) * 256 + part(patch);
}
}  // namespace

Library::Library(const QString& name) : d(new Record) {
  d->name = name;
  d->osVersion = kernelVersion();
}

Library::~Library() {
  delete d;
}

QString Library::getLibraryName() const {
  return d->name;
}

int Library::getOSVersion() const {
  return d->osVersion;
}

void Library::calculatePathAndBaseName(QString& path, QString& baseName) const {
  path = System::getInstallPath();
  baseName = d->name;
  const qsizetype p = d->name.lastIndexOf(QDir::separator());
  if (p >= 0) {
    path += d->name.left(p);
    baseName = d->name.right(d->name.size() - p);
  }
}

QString Library::getFilePath() const {
  if (d->name.isEmpty()) return QString();
  QString path, baseName;
  calculatePathAndBaseName(path, baseName);
  return path + QStringLiteral("lib") + baseName + QStringLiteral(".so");
}

bool Library::load(bool quiet) {
  if (d->name.isEmpty()) {
    d->loaded = 1;
    return true;
  }
  if (d->loaded) return false;
  const QString path = getFilePath();
  d->handle = ::dlopen(path.toUtf8().constData(), RTLD_LAZY | RTLD_GLOBAL);
  if (d->handle == nullptr) {
    if (!quiet) {
      const char* why = ::dlerror();
      std::fprintf(stderr, "Failed to load \"%s\" because \"%s\"\n", path.toUtf8().constData(),
                   why != nullptr ? why : "");
    }
    return false;
  }
  d->loaded = 1;
  return true;
}

bool Library::isLoaded() const {
  return d->loaded != 0;
}

void* Library::resolve(const QString& symbol) const {
  if (d->handle == nullptr) return nullptr;  // not loaded, or an empty name
  return ::dlsym(d->handle, symbol.toUtf8().constData());
}

bool Library::unload() {
  if (!d->loaded) return false;
  const int rc = d->handle != nullptr ? ::dlclose(d->handle) : 0;
  d->handle = nullptr;
  d->loaded = 0;
  return rc == 0;
}

}  // namespace kestrel
