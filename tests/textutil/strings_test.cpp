// hexEncode, the HTML entities, file-name characters and the conversions.
#include <kestrel/textutil.h>

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(HexEncode, EveryByteHasItsLowerCaseEntry) {
  for (int b = 0; b < 256; ++b) {
    char expected[4];
    std::snprintf(expected, sizeof expected, "%%%02x", b);
    EXPECT_STREQ(kestrel::hexEncode(static_cast<char>(b)), expected) << b;
  }
  EXPECT_STREQ(kestrel::hexEncode(' '), "%20");
  EXPECT_STREQ(kestrel::hexEncode(static_cast<char>(0xFF)), "%ff");
  // A static table: the same pointer each time.
  EXPECT_EQ(kestrel::hexEncode('a'), kestrel::hexEncode('a'));
}

struct TextRow {
  const char* name;
  const char* input;
  const char* expected;
};

// Rows print as their input text.
void PrintTo(const TextRow& row, std::ostream* out) { *out << '"' << row.input << '"'; }

std::string rowName(const testing::TestParamInfo<TextRow>& row) {
  return row.param.name;
}

class UnescapeHtml : public testing::TestWithParam<TextRow> {};

TEST_P(UnescapeHtml, ReplacesAmpersandFirstThenLtThenGt) {
  EXPECT_EQ(kestrel::unescapeHtmlString(QString::fromUtf8(GetParam().input)),
            QString::fromUtf8(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, UnescapeHtml,
    testing::Values(TextRow{"Empty", "", ""}, TextRow{"Ampersand", "a &amp; b", "a & b"},
                    TextRow{"LtGt", "&lt;b&gt;", "<b>"},
                    // "&amp;" first, so the entity it makes is unescaped too.
                    TextRow{"AmpersandThenLt", "&amp;lt;", "<"},
                    TextRow{"AmpersandOnce", "&amp;amp;", "&amp;"},
                    TextRow{"OtherEntitiesKept", "&quot;&nbsp;", "&quot;&nbsp;"},
                    TextRow{"UpperCaseKept", "&LT;", "&LT;"},
                    TextRow{"NoSemicolonKept", "&amp", "&amp"}),
    rowName);

class ReformatFileName : public testing::TestWithParam<TextRow> {};

TEST_P(ReformatFileName, DropsForbiddenCharacters) {
  EXPECT_EQ(kestrel::reformatFileNameString(QString::fromUtf8(GetParam().input)),
            QString::fromUtf8(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, ReformatFileName,
    testing::Values(TextRow{"SlashColonQuestion", "a/b:c?.kml", "abc.kml"},
                    TextRow{"EveryForbidden", "\\/:*?\"<>|", ""},
                    TextRow{"SpacesKept", "name with spaces.kml", "name with spaces.kml"},
                    TextRow{"NonAsciiKept", "Ünïcode|名前.kmz", "Ünïcode名前.kmz"}),
    rowName);

TEST(Conversions, RoundTripOutsideTheBasicPlane) {
  const QString text = QString::fromUtf8("a\xC3\xA9\xF0\x9F\x8C\x8D z");  // é and U+1F30D
  const std::wstring wide = kestrel::toWString(text);
  ASSERT_EQ(wide.size(), 5u);  // one wchar_t per code point
  EXPECT_EQ(wide[2], static_cast<wchar_t>(0x1F30D));
  EXPECT_EQ(kestrel::toQString(wide), text);
  EXPECT_EQ(kestrel::toQString(wide.c_str()), text);
  EXPECT_EQ(kestrel::toQString(text.toUtf8().constData()), text);
  const std::u16string utf16 = text.toStdU16String();
  EXPECT_EQ(kestrel::toQString(reinterpret_cast<const unsigned short*>(utf16.c_str())), text);
}

TEST(Conversions, NullPointersGiveEmptyStrings) {
  EXPECT_TRUE(kestrel::toQString(static_cast<const wchar_t*>(nullptr)).isEmpty());
  EXPECT_TRUE(kestrel::toQString(static_cast<const unsigned short*>(nullptr)).isEmpty());
  EXPECT_TRUE(kestrel::toQString(static_cast<const char*>(nullptr)).isEmpty());
  EXPECT_TRUE(kestrel::toWString(QString()).empty());
}

TEST(StringOperators, CharacterAndWideStringJoinOnEitherSide) {
  using kestrel::operator+;
  const QString s = QStringLiteral("ab");
  EXPECT_EQ(s + 'c', QStringLiteral("abc"));
  EXPECT_EQ('c' + s, QStringLiteral("cab"));
  EXPECT_EQ(s + static_cast<char>(0xE9), QString::fromUtf8("ab\xC3\xA9"));  // Latin-1
  EXPECT_EQ(s + L"\u00fc\U0001F30D", QString::fromUtf8("ab\xC3\xBC\xF0\x9F\x8C\x8D"));
  EXPECT_EQ(L"x" + s, QStringLiteral("xab"));
  EXPECT_EQ(s + static_cast<const wchar_t*>(nullptr), s);
}

}  // namespace
