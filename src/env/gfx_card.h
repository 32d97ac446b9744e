// Private: the Linux graphics-card query behind GfxCardInfo, exposed so that
// tests can build one over a fake sysfs tree and a chosen NVML library.
#pragma once

#include <kestrel/export.h>
#include <kestrel/system.h>

namespace kestrel::env_detail {

class KESTREL_EXPORT GfxCardInfoLinux : public GfxCardInfo {
 public:
  // Looks for the first card that reports dedicated memory: each
  // <root>/sys/class/drm/card<N>/device/mem_info_vram_total in card order,
  // then the devices of the NVML library `nvmlLibrary` (loaded with dlopen;
  // a missing library counts as no card).
  GfxCardInfoLinux(const QString& root, const char* nvmlLibrary);
  ~GfxCardInfoLinux() override;

  bool getGraphicsCardMemoryInMB(int& megabytes) override;
  bool getDisplayDeviceID(QString& id) override;
  bool getGraphicsCardVendor(QString& vendor) override;
  bool getGraphicsCardChipset(QString& chipset) override;
  bool getGraphicsCardDriver(QString& driver) override;

  // The library's instance; set by GetSingleton.
  static GfxCardInfoLinux* sSingleton;

 private:
  bool mFound = false;  // a card reported a positive memory size
  int mMegabytes = 0;   // its size shifted right by 20 (0 under 1 MiB)
};

}  // namespace kestrel::env_detail
