// Zip archives through the UTF-8 file-function table: one written by
// Python's zipfile is read, one written here is read back.
#include <kestrel/textutil.h>

#include <minizip/unzip.h>
#include <minizip/zip.h>

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <string>

namespace {

using namespace kestrel;

// Every member of the archive at path: name -> contents.
std::map<std::string, std::string> readArchive(const QString& path) {
  std::map<std::string, std::string> members;
  unzFile zip = unzOpen_UTF8(path.toUtf8().constData());
  EXPECT_NE(zip, nullptr) << path.toStdString();
  if (zip == nullptr) return members;
  for (int rc = unzGoToFirstFile(zip); rc == UNZ_OK; rc = unzGoToNextFile(zip)) {
    char name[512];
    unz_file_info info;
    EXPECT_EQ(unzGetCurrentFileInfo(zip, &info, name, sizeof name, nullptr, 0, nullptr, 0), UNZ_OK);
    EXPECT_EQ(unzOpenCurrentFile(zip), UNZ_OK);
    std::string data(info.uncompressed_size, '\0');
    EXPECT_EQ(unzReadCurrentFile(zip, data.data(), static_cast<unsigned>(data.size())),
              static_cast<int>(data.size()));
    EXPECT_EQ(unzCloseCurrentFile(zip), UNZ_OK);  // checks the CRC
    members[name] = data;
  }
  EXPECT_EQ(unzClose(zip), UNZ_OK);
  return members;
}

// A folder whose name is not ASCII, so the archive path must travel as UTF-8.
class Zip : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(mDir.isValid());
    mFolder = mDir.filePath(QString::fromUtf8("\xC3\xBC\x62\x65r \xE6\x97\xA5"));
    ASSERT_TRUE(QDir().mkpath(mFolder));
  }
  QTemporaryDir mDir;
  QString mFolder;
};

TEST_F(Zip, ReadsArchiveWrittenByPython) {
  const QString path = mFolder + QStringLiteral("/python.zip");
  ASSERT_TRUE(QFile::copy(QStringLiteral(KESTREL_TEXTUTIL_DATA "/python_utf8.zip"), path));
  const auto members = readArchive(path);
  const std::map<std::string, std::string> expected{{"Stra\xC3\x9F"
                                                     "e/\xE6\x97\xA5\xE6\x9C\xAC.txt",
                                                     "gr\xC3\xBC\xC3\x9F"
                                                     "e aus python\n"},
                                                    {"plain.txt", "stored\n"}};
  EXPECT_EQ(members, expected);
}

TEST_F(Zip, ArchiveWrittenThroughTableReadsBack) {
  const QString path = mFolder + QString::fromUtf8("/\xC3\xA4rchiv.zip");
  const std::string text(10000, 'k');
  const char* name = "d\xC3\xA4ta/\xE6\x97\xA5.txt";
  {
    zipFile zip = zipOpen_UTF8(path.toUtf8().constData(), APPEND_STATUS_CREATE);
    ASSERT_NE(zip, nullptr);
    ASSERT_EQ(zipOpenNewFileInZip(zip, name, nullptr, nullptr, 0, nullptr, 0, nullptr, Z_DEFLATED,
                                  Z_DEFAULT_COMPRESSION),
              ZIP_OK);
    ASSERT_EQ(zipWriteInFileInZip(zip, text.data(), static_cast<unsigned>(text.size())), ZIP_OK);
    ASSERT_EQ(zipCloseFileInZip(zip), ZIP_OK);
    ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
  }
  EXPECT_EQ(readArchive(path), (std::map<std::string, std::string>{{name, text}}));
  // Appending opens the existing file through the same table.
  zipFile zip = zipOpen_UTF8(path.toUtf8().constData(), APPEND_STATUS_ADDINZIP);
  ASSERT_NE(zip, nullptr);
  ASSERT_EQ(zipOpenNewFileInZip(zip, "second", nullptr, nullptr, 0, nullptr, 0, nullptr, 0, 0),
            ZIP_OK);
  ASSERT_EQ(zipWriteInFileInZip(zip, "2", 1), ZIP_OK);
  ASSERT_EQ(zipCloseFileInZip(zip), ZIP_OK);
  ASSERT_EQ(zipClose(zip, nullptr), ZIP_OK);
  EXPECT_EQ(readArchive(path), (std::map<std::string, std::string>{{name, text}, {"second", "2"}}));
}

TEST_F(Zip, MissingOrBrokenArchiveGivesNull) {
  EXPECT_EQ(unzOpen_UTF8(mFolder.toUtf8().constData()), nullptr);
  EXPECT_EQ(unzOpen_UTF8((mFolder + QStringLiteral("/none.zip")).toUtf8().constData()), nullptr);
  QFile junk(mFolder + QStringLiteral("/junk.zip"));
  ASSERT_TRUE(junk.open(QIODevice::WriteOnly));
  junk.write("not a zip archive at all");
  junk.close();
  EXPECT_EQ(unzOpen_UTF8(junk.fileName().toUtf8().constData()), nullptr);
  EXPECT_EQ(zipOpen_UTF8((mFolder + QStringLiteral("/no/such/dir.zip")).toUtf8().constData(),
                         APPEND_STATUS_CREATE),
            nullptr);
}

TEST(ZipTable, OpenModesAndSeekOrigins) {
  populateFilefuncDef_UTF8(nullptr);  // ignored
  zlib_filefunc_def table;
  std::memset(&table, 0xAB, sizeof table);
  populateFilefuncDef_UTF8(&table);
  EXPECT_EQ(table.opaque, nullptr);
  QTemporaryDir dir;
  const QByteArray path = (dir.path() + QStringLiteral("/t.bin")).toUtf8();

  // Neither read-only, existing nor create: no file.
  EXPECT_EQ(table.zopen_file(nullptr, path.constData(), ZLIB_FILEFUNC_MODE_WRITE), nullptr);
  EXPECT_EQ(table.zopen_file(nullptr, nullptr, ZLIB_FILEFUNC_MODE_READ), nullptr);
  // Read-only of a missing file fails; create makes it.
  EXPECT_EQ(table.zopen_file(nullptr, path.constData(), ZLIB_FILEFUNC_MODE_READ), nullptr);
  voidpf out = table.zopen_file(nullptr, path.constData(),
                                ZLIB_FILEFUNC_MODE_WRITE | ZLIB_FILEFUNC_MODE_CREATE);
  ASSERT_NE(out, nullptr);
  EXPECT_EQ(table.zwrite_file(nullptr, out, "abcdef", 6), 6u);
  EXPECT_EQ(table.ztell_file(nullptr, out), 6);
  EXPECT_EQ(table.zerror_file(nullptr, out), 0);
  EXPECT_EQ(table.zclose_file(nullptr, out), 0);

  voidpf in = table.zopen_file(nullptr, path.constData(), ZLIB_FILEFUNC_MODE_READ);
  ASSERT_NE(in, nullptr);
  char buf[8] = {};
  EXPECT_EQ(table.zseek_file(nullptr, in, 2, ZLIB_FILEFUNC_SEEK_SET), 0);
  EXPECT_EQ(table.zread_file(nullptr, in, buf, 2), 2u);
  EXPECT_STREQ(buf, "cd");
  EXPECT_EQ(table.zseek_file(nullptr, in, 1, ZLIB_FILEFUNC_SEEK_CUR), 0);
  EXPECT_EQ(table.ztell_file(nullptr, in), 5);
  EXPECT_EQ(table.zseek_file(nullptr, in, 0, ZLIB_FILEFUNC_SEEK_END), 0);
  EXPECT_EQ(table.ztell_file(nullptr, in), 6);
  // An unknown origin: -1 and no seek.
  EXPECT_EQ(table.zseek_file(nullptr, in, 0, 7), -1);
  EXPECT_EQ(table.ztell_file(nullptr, in), 6);
  // A write to a read-only stream transfers nothing.
  EXPECT_EQ(table.zwrite_file(nullptr, in, "x", 1), 0u);
  EXPECT_EQ(table.zclose_file(nullptr, in), 0);

  // The existing-file mode opens for update without truncating.
  voidpf upd = table.zopen_file(
      nullptr, path.constData(),
      ZLIB_FILEFUNC_MODE_READ | ZLIB_FILEFUNC_MODE_WRITE | ZLIB_FILEFUNC_MODE_EXISTING);
  ASSERT_NE(upd, nullptr);
  EXPECT_EQ(table.zread_file(nullptr, upd, buf, 6), 6u);
  EXPECT_EQ(table.zclose_file(nullptr, upd), 0);
  EXPECT_EQ(std::string(buf, 6), "abcdef");
}

}  // namespace
