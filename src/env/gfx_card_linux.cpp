// GfxCardInfo on Linux: DRM sysfs, else the NVIDIA management library.
#include "env/gfx_card.h"

#include "env/machine.h"

#include <QDir>
#include <QFile>
#include <QRegularExpression>

#include <algorithm>
#include <climits>
#include <mutex>

#include <dlfcn.h>

namespace kestrel {
namespace env_detail {
namespace {

// Memory of the first DRM card (card0, card1, ... in number order) with a
// positive mem_info_vram_total; 0 if none.
long long drmVideoMemory(const QString& root) {
  const QDir drm(root + QStringLiteral("/sys/class/drm"));
  static const QRegularExpression cardName(QStringLiteral("^card(\\d+)$"));
  QList<int> cards;
  for (const QString& entry : drm.entryList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::System)) {
    const QRegularExpressionMatch match = cardName.match(entry);
    if (match.hasMatch()) cards.append(match.captured(1).toInt());
  }
  std::sort(cards.begin(), cards.end());
  for (int card : cards) {
    QFile file(drm.filePath(QStringLiteral("card%1/device/mem_info_vram_total").arg(card)));
    if (!file.open(QIODevice::ReadOnly)) continue;
    bool ok = false;
    const long long bytes = file.readAll().trimmed().toLongLong(&ok);
    if (ok && bytes > 0) return bytes;
  }
  return 0;
}

// The NVML entry points used, with their C signatures.
struct NvmlMemory {
  unsigned long long total;
  unsigned long long free;
  unsigned long long used;
};
using NvmlInit = int (*)();
using NvmlCount = int (*)(unsigned int*);
using NvmlHandle = int (*)(unsigned int, void**);
using NvmlMemoryInfo = int (*)(void*, NvmlMemory*);
using NvmlShutdown = int (*)();

// Memory of the first NVML device that reports some; 0 if none.
long long nvmlVideoMemory(const char* library) {
  if (library == nullptr) return 0;
  void* handle = ::dlopen(library, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return 0;
  const auto init = reinterpret_cast<NvmlInit>(::dlsym(handle, "nvmlInit_v2"));
  const auto count = reinterpret_cast<NvmlCount>(::dlsym(handle, "nvmlDeviceGetCount_v2"));
  const auto device =
      reinterpret_cast<NvmlHandle>(::dlsym(handle, "nvmlDeviceGetHandleByIndex_v2"));
  const auto memory = reinterpret_cast<NvmlMemoryInfo>(::dlsym(handle, "nvmlDeviceGetMemoryInfo"));
  const auto shutdown = reinterpret_cast<NvmlShutdown>(::dlsym(handle, "nvmlShutdown"));
  long long bytes = 0;
  if (init && count && device && memory && shutdown && init() == 0) {
    unsigned int devices = 0;
    if (count(&devices) == 0) {
      for (unsigned int i = 0; i < devices && bytes == 0; ++i) {
        void* dev = nullptr;
        NvmlMemory info{};
        if (device(i, &dev) == 0 && memory(dev, &info) == 0 && info.total > 0)
          bytes = static_cast<long long>(std::min<unsigned long long>(info.total, LLONG_MAX));
      }
    }
    shutdown();
  }
  ::dlclose(handle);
  return bytes;
}

bool unimplemented(QString& text) {
  text = QStringLiteral("unimplemented");
  return false;
}

}  // namespace

GfxCardInfoLinux* GfxCardInfoLinux::sSingleton = nullptr;

GfxCardInfoLinux::GfxCardInfoLinux(const QString& root, const char* nvmlLibrary) {
  long long bytes = drmVideoMemory(root);
  if (bytes == 0) bytes = nvmlVideoMemory(nvmlLibrary);
  mFound = bytes > 0;
  mMegabytes = static_cast<int>(std::min<long long>(bytes >> 20, INT_MAX));
}

GfxCardInfoLinux::~GfxCardInfoLinux() {
  if (sSingleton == this) sSingleton = nullptr;
}

bool GfxCardInfoLinux::getGraphicsCardMemoryInMB(int& megabytes) {
  if (!mFound) return false;
  megabytes = mMegabytes;
  return true;
}

bool GfxCardInfoLinux::getDisplayDeviceID(QString& id) {
  return unimplemented(id);
}
bool GfxCardInfoLinux::getGraphicsCardVendor(QString& vendor) {
  return unimplemented(vendor);
}
bool GfxCardInfoLinux::getGraphicsCardChipset(QString& chipset) {
  return unimplemented(chipset);
}
bool GfxCardInfoLinux::getGraphicsCardDriver(QString& driver) {
  return unimplemented(driver);
}

}  // namespace env_detail

GfxCardInfo::~GfxCardInfo() = default;

GfxCardInfo* GfxCardInfo::GetSingleton() {
  static std::once_flag once;
  std::call_once(once, [] {
    env_detail::GfxCardInfoLinux::sSingleton =
        new env_detail::GfxCardInfoLinux(env_detail::machineRoot(), "libnvidia-ml.so.1");
  });
  return env_detail::GfxCardInfoLinux::sSingleton;
}

}  // namespace kestrel
