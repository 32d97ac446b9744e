// Finding resource files for the current locale, the id table, and reading
// the files as bytes and pixmaps.
#include "env/locale_store.h"

#include <kestrel/locale.h>
#include <kestrel/resources.h>
#include <kestrel/system.h>

#include <QColor>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include "scoped_env.h"

#include <optional>
#include <string>
#include <vector>

namespace kestrel {
namespace {

using test::ScopedEnv;

// An install folder <tmp>/app/bin/ whose resource directory is
// <tmp>/app/bin/../Resources, with the current locale reset around each test.
class ResourceFolder : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mTemp.isValid());
    ASSERT_TRUE(QDir().mkpath(mTemp.path() + "/app/bin"));
    ASSERT_TRUE(QDir().mkpath(mTemp.path() + "/app/Resources"));
    System::setInstallPath(mTemp.path() + "/app/bin");
    env_detail::resetCurrentLocale();
  }
  void TearDown() override { env_detail::resetCurrentLocale(); }

  // The resource directory as the library spells it.
  QString res() const { return mTemp.path() + "/app/bin/../Resources"; }

  // Writes bytes to <res>/<relative>, creating the folders; returns the path.
  QString put(const QString& relative, const QByteArray& bytes = "data") const {
    const QString path = res() + "/" + relative;
    EXPECT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    EXPECT_EQ(file.write(bytes), bytes.size());
    return path;
  }

  QTemporaryDir mTemp;
};

struct OrderRow {
  const char* name;
  const char* locale;
  std::vector<const char*> folders;  // tried in this order; "" is the base
};

class SearchOrder : public ResourceFolder, public ::testing::WithParamInterface<OrderRow> {};

// The hyphenated tag, then the underscored one, for the code and each
// parent; the unlocalised copy last. With a copy in every folder, the first
// in that order wins; removing it uncovers the next.
TEST_P(SearchOrder, FirstExistingFolderInFallbackOrderWins) {
  const OrderRow& row = GetParam();
  System::setCurrentLocale(LanguageCode(QString::fromLatin1(row.locale)));
  std::vector<QString> paths;
  for (const char* folder : row.folders) {
    const QString dir = *folder ? QString::fromLatin1(folder) + ".lproj/" : QString();
    paths.push_back(put(dir + "dglogo.png"));
  }
  for (const QString& expected : paths) {
    EXPECT_EQ(BinRes::GetResourcePath("png", "dglogo"), expected);
    ASSERT_TRUE(QFile::remove(expected));
  }
  EXPECT_TRUE(BinRes::GetResourcePath("png", "dglogo").isEmpty());
}

const OrderRow kOrderRows[] = {
    {"LanguageAndRegion", "en_US", {"en-US", "en_US", "en", ""}},
    {"ScriptAndRegion", "zh-Hant-TW", {"zh-Hant-TW", "zh_Hant_TW", "zh-Hant", "zh_Hant", "zh", ""}},
    {"LanguageOnly", "de", {"de", ""}},
    {"EncodingIgnored", "pt_BR.UTF-8", {"pt-BR", "pt_BR", "pt", ""}},
};

INSTANTIATE_TEST_SUITE_P(Locales, SearchOrder, ::testing::ValuesIn(kOrderRows),
                         [](const auto& row) { return std::string(row.param.name); });

// Name and type are lower-cased before the search; the folder tag is not.
TEST_F(ResourceFolder, UpperCaseNameAndTypeAreLowerCased) {
  System::setCurrentLocale(LanguageCode("en_US"));
  const QString path = put("en-US.lproj/cursor_hand_grab.png");
  EXPECT_EQ(BinRes::GetResourcePath("PNG", "Cursor_Hand_GRAB"), path);
  put("en-us.lproj/cancel.png");
  EXPECT_TRUE(BinRes::GetResourcePath("png", "cancel").isEmpty());
}

TEST_F(ResourceFolder, SearchTakesBaseSuffixAndStartingCode) {
  const QString base = mTemp.path() + "/elsewhere";
  ASSERT_TRUE(QDir().mkpath(base + "/it_IT.strings"));
  QFile file(base + "/it_IT.strings/menu.txt");
  ASSERT_TRUE(file.open(QIODevice::WriteOnly));
  file.close();
  EXPECT_EQ(
      BinRes::SearchLocaleDirsForResource("TXT", "Menu", base, "strings", LanguageCode("it_IT")),
      base + "/it_IT.strings/menu.txt");
  EXPECT_TRUE(
      BinRes::SearchLocaleDirsForResource("txt", "menu", base, "lproj", LanguageCode("it_IT"))
          .isEmpty());
}

// A bare language is first completed with the user's region (LANG); the
// plain lookup keeps the bare language.
TEST_F(ResourceFolder, RegionEmphasisCompletesBareLanguageFromUserLocale) {
  System::setCurrentLocale(LanguageCode("en"));
  const QString regional = put("en-GB.lproj/back.png");
  const QString language = put("en.lproj/back.png");
  {
    const ScopedEnv all("LC_ALL", std::nullopt), messages("LC_MESSAGES", std::nullopt);
    const ScopedEnv lang("LANG", "en_GB.UTF-8");
    EXPECT_EQ(BinRes::GetResourcePathWithRegionEmphasis("png", "back"), regional);
    EXPECT_EQ(BinRes::GetResourcePath("png", "back"), language);
  }
  const ScopedEnv all("LC_ALL", "fr_FR.UTF-8");
  EXPECT_EQ(BinRes::GetResourcePathWithRegionEmphasis("png", "back"), language);
}

TEST(ResourceIds, TableMapsIdsToNames) {
  EXPECT_EQ(FindResName(211), "dglogo");
  EXPECT_EQ(FindResName(887), "orvanelogo");
  EXPECT_EQ(FindResName(786), "play-forward");
  EXPECT_EQ(FindResName(744), "ad_ur");
  EXPECT_EQ(FindResName(550), "clear");
  // Two interface ids share one cursor file.
  EXPECT_EQ(FindResName(252), "cursor_hand_open");
  EXPECT_EQ(FindResName(521), "cursor_hand_open");
  for (int unknown : {0, -1, 212, 999, 0x7fffffff}) {
    EXPECT_TRUE(FindResName(unknown).isNull()) << unknown;
  }
}

TEST_F(ResourceFolder, IdPathsGoThroughTheLocaleSearch) {
  System::setCurrentLocale(LanguageCode("en_US"));
  const QString logo = put("en.lproj/orvanelogo.png");
  EXPECT_EQ(MakeBinResourcePath(887, "png"), logo);
  EXPECT_EQ(MakeBinResourcePath(887, "PNG"), logo);
  EXPECT_TRUE(MakeBinResourcePath(887, "gif").isEmpty());

  const QString cursor = put("cursor_hand_open.png");
  EXPECT_EQ(MakeBinResourcePath(252, "png"), cursor);
  EXPECT_EQ(MakeBinResourcePath(521, "png"), cursor);

  // ExtractToDisk only answers the path: the folder gains no file.
  const QStringList before = QDir(res()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
  EXPECT_EQ(BinRes::ExtractToDisk("png", 887, mTemp.path() + "/out.png"), logo);
  EXPECT_EQ(QDir(res()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
  EXPECT_FALSE(QFile::exists(mTemp.path() + "/out.png"));
}

// An unknown id has a null name, so the search looks for "." + type: empty
// normally, but a file of exactly that name is found.
TEST_F(ResourceFolder, UnknownIdSearchesForDotType) {
  EXPECT_TRUE(MakeBinResourcePath(4242, "png").isEmpty());
  EXPECT_TRUE(ExtractBinResource("png", 4242).isEmpty());
  const QString dotFile = put(".png", "odd");
  EXPECT_EQ(MakeBinResourcePath(4242, "png"), dotFile);
}

TEST_F(ResourceFolder, BytesComeFromTheFoundFile) {
  System::setCurrentLocale(LanguageCode("de_DE"));
  put("overview_console.dat", "base");
  put("de.lproj/overview_console.dat", QByteArray("de\0bytes", 8));
  const QByteArray expected("de\0bytes", 8);
  EXPECT_EQ(BinRes::ExtractFileResource("dat", "overview_console"), expected);
  EXPECT_EQ(ExtractBinResource("dat", "overview_console"), expected);
  EXPECT_EQ(ExtractBinResource("dat", 403), expected);
  EXPECT_TRUE(BinRes::ExtractFileResource("dat", "missing").isEmpty());
  EXPECT_TRUE(ExtractBinResource("dat", "missing").isEmpty());
}

TEST_F(ResourceFolder, PixmapsDecodeFoundImagesAndAreNullOtherwise) {
  System::setCurrentLocale(LanguageCode("en_US"));
  QImage image(3, 2, QImage::Format_RGB32);
  image.fill(QColor(10, 200, 30));
  image.setPixelColor(2, 1, QColor(250, 0, 5));
  ASSERT_TRUE(QDir().mkpath(res() + "/en_US.lproj"));
  // Written as .img: the format comes from the data, not the extension.
  ASSERT_TRUE(image.save(res() + "/en_US.lproj/dglogo.img", "PNG"));

  for (const QPixmap& pixmap :
       {BinRes::ExtractPixmap("img", "DGLOGO"), BinRes::ExtractPixmap("img", 211)}) {
    ASSERT_FALSE(pixmap.isNull());
    EXPECT_EQ(pixmap.size(), QSize(3, 2));
    const QImage back = pixmap.toImage();
    EXPECT_EQ(back.pixelColor(0, 0), QColor(10, 200, 30));
    EXPECT_EQ(back.pixelColor(2, 1), QColor(250, 0, 5));
  }
  EXPECT_TRUE(BinRes::ExtractPixmap("img", "banner").isNull());
  EXPECT_TRUE(BinRes::ExtractPixmap("img", 4242).isNull());
  put("en.lproj/banner.img", "not an image");
  EXPECT_TRUE(BinRes::ExtractPixmap("img", "banner").isNull());
}

}  // namespace
}  // namespace kestrel
