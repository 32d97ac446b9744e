// Finding, reading and decoding resource files in the per-language folders,
// and the numeric resource ids of the interface code.
#include <kestrel/locale.h>
#include <kestrel/resources.h>
#include <kestrel/system.h>
#include <kestrel/textutil.h>

#include <atomic>

namespace kestrel {
namespace {

const QString kLocaleFolderSuffix = QStringLiteral("lproj");

std::atomic<bool> sUseKestrelStyle{false};

}  // namespace

// Left column of the interface code's table first, then the right column.
const ResIDName resIDNameMap[43] = {
    {211, "dglogo"},
    {221, "crosshair"},
    {235, "banner"},
    {240, "cursor_hand_grab"},
    {249, "cursor_crosshair_inverse"},
    {252, "cursor_hand_open"},
    {255, "cursor_crosshair_thick"},
    {331, "cursor_crosshair_open"},
    {403, "overview_console"},
    {887, "orvanelogo"},
    {521, "cursor_hand_open"},
    {638, "streamed_layers"},
    {658, "16x16"},
    {747, "ad_ll"},
    {749, "ad_lr"},
    {740, "descrip_r"},
    {733, "descrip_up"},
    {750, "flatarrow"},
    {735, "descrip_center"},
    {686, "opennetworkfolder"},
    {786, "play-forward"},
    {779, "play-forward-dis"},
    {744, "ad_ur"},
    {742, "ad_ul"},
    {746, "ad_l"},
    {748, "ad_lo"},
    {741, "ad_r"},
    {743, "ad_up"},
    {745, "ad_center"},
    {737, "descrip_ll"},
    {752, "descrip_ll_noad"},
    {739, "descrip_lr"},
    {753, "descrip_lr_noad"},
    {734, "descrip_ur"},
    {732, "descrip_ul"},
    {736, "descrip_l"},
    {738, "descrip_lo"},
    {757, "back"},
    {756, "back-dis"},
    {763, "cancel"},
    {787, "pause"},
    {788, "stop"},
    {550, "clear"},
};

QString FindResName(int id) {
  for (const ResIDName& row : resIDNameMap) {
    if (row.id == id) return QString::fromLatin1(row.name);
  }
  return QString();
}

QString MakeBinResourcePath(int id, const QString& type) {
  return BinRes::GetResourcePath(type, FindResName(id));
}

QByteArray ExtractBinResource(const QString& type, const QString& name) {
  return BinRes::ExtractFileResource(type, name);
}

QByteArray ExtractBinResource(const QString& type, int id) {
  return file::readFile(MakeBinResourcePath(id, type));
}

QString BinRes::GetResourcePath(const QString& type, const QString& name) {
  return SearchLocaleDirsForResource(type, name, System::getResourceDirectory(),
                                     kLocaleFolderSuffix, System::getCurrentLocale());
}

QString BinRes::GetResourcePathWithRegionEmphasis(const QString& type, const QString& name) {
  return SearchLocaleDirsForResource(
      type, name, System::getInstallPath() + QStringLiteral("../Resources"), kLocaleFolderSuffix,
      System::adjustLocaleForRegion(System::getCurrentLocale()));
}

QString BinRes::SearchLocaleDirsForResource(const QString& type, const QString& name,
                                            const QString& base, const QString& suffix,
                                            const LanguageCode& code) {
  const QString file = name.toLower() + QLatin1Char('.') + type.toLower();
  const QString prefix = base + QLatin1Char('/');
  const QString tail = QLatin1Char('.') + suffix + QLatin1Char('/') + file;
  // The chain of parents is owned link by link from this copy, so every
  // code walked stays alive until the search ends.
  const LanguageCode start(code);
  for (const LanguageCode* at = &start;; at = at->parent()) {
    const QString tag = at->string();
    if (tag.isEmpty()) {
      const QString unlocalised = prefix + file;
      return file::exists(unlocalised) ? unlocalised : QString();
    }
    const QString hyphenated = prefix + tag + tail;
    if (file::exists(hyphenated)) return hyphenated;
    if (tag.contains(QLatin1Char('-'))) {
      const QString underscored =
          prefix + QString(tag).replace(QLatin1Char('-'), QLatin1Char('_')) + tail;
      if (file::exists(underscored)) return underscored;
    }
  }
}

QByteArray BinRes::ExtractFileResource(const QString& type, const QString& name) {
  return file::readFile(GetResourcePath(type, name));
}

namespace {

QPixmap decodePixmap(const QByteArray& bytes) {
  QPixmap pixmap;
  if (!bytes.isEmpty()) pixmap.loadFromData(bytes);
  return pixmap;
}

}  // namespace

QPixmap BinRes::ExtractPixmap(const QString& type, const QString& name) {
  return decodePixmap(ExtractFileResource(type, name));
}

QPixmap BinRes::ExtractPixmap(const QString& type, int id) {
  return decodePixmap(ExtractBinResource(type, id));
}

QString BinRes::ExtractToDisk(const QString& type, int id, QString) {
  return MakeBinResourcePath(id, type);
}

void BinRes::cleanup() {}

bool BinRes::useKestrelStyle() {
  return sUseKestrelStyle.load(std::memory_order_relaxed);
}

void BinRes::setUseKestrelStyle(bool use) {
  sUseKestrelStyle.store(use, std::memory_order_relaxed);
}

}  // namespace kestrel
