// file::cleanupPathname from a table of (input, expected) rows.
#include <kestrel/textutil.h>

#include <gtest/gtest.h>

namespace {

struct PathRow {
  const char* name;
  const char* input;
  const char* expected;
};

// Rows print as their input text.
void PrintTo(const PathRow& row, std::ostream* out) { *out << '"' << row.input << '"'; }

class CleanupPathname : public testing::TestWithParam<PathRow> {};

TEST_P(CleanupPathname, GivesExpectedText) {
  QString path = QString::fromUtf8(GetParam().input);
  kestrel::file::cleanupPathname(path);
  EXPECT_EQ(path, QString::fromUtf8(GetParam().expected)) << GetParam().input;
}

INSTANTIATE_TEST_SUITE_P(
    Rows, CleanupPathname,
    testing::Values(
        // File paths: backslashes to slashes, then "." and ".." and repeated slashes go.
        PathRow{"BackslashesAndDotDot", "C:\\maps\\..\\tiles\\a.kml", "C:/tiles/a.kml"},
        PathRow{"DotSegments", "/a/./b/../c//d/", "/a/c/d"},
        PathRow{"RelativeAboveStart", "../x/../../y", "../../y"},
        PathRow{"EmptyStaysEmpty", "", ""}, PathRow{"SchemeAtStartIsAFilePath", "://a/../b", ":/b"},
        PathRow{"NonAscii",
                "/Stra\xC3\x9F"
                "e/./\xE6\x97\xA5",
                "/Stra\xC3\x9F"
                "e/\xE6\x97\xA5"},
        // Other schemes stay as they are.
        PathRow{"FtpUnchanged", "ftp://host/a/../b", "ftp://host/a/../b"},
        PathRow{"FileUrlUnchanged", "file:///a/./b", "file:///a/./b"},
        // http: cleaning starts 7 characters after "://", stops at the query.
        PathRow{"HttpDotDot", "http://www.example.com/a/../b", "http://www.example.com/b"},
        PathRow{"HttpsCaseInsensitive", "HTTPS://www.example.com/a/./b//c",
                "HTTPS://www.example.com/a/b/c"},
        PathRow{"HttpTrailingSlashKept", "http://www.example.com/a/../b/",
                "http://www.example.com/b/"},
        PathRow{"HttpQueryUntouched", "http://www.example.com/a/../b?x=../y//z",
                "http://www.example.com/b?x=../y//z"},
        PathRow{"HttpCleanUrlUnchanged", "http://www.example.com/a/b?q",
                "http://www.example.com/a/b?q"},
        // The deliberate offset: the first seven characters after "://" are
        // never cleaned, even when they hold a "..".
        PathRow{"OffsetSevenFromSchemeMark", "http://a/../b/../c", "http://a/../c"},
        PathRow{"OffsetSevenHostDoubleSlash", "http://ab//cd/e", "http://ab//cd/e"},
        // A query before the offset is not the end of the piece.
        PathRow{"QueryInsideOffsetIgnored", "http://a?bcd/x/../y", "http://a?bcd/y"},
        // A text shorter than the offset: the piece is empty; a trailing "/"
        // is appended again, as the literal rule says.
        PathRow{"ShortUrlUnchanged", "http://ab", "http://ab"},
        PathRow{"ShortUrlWithSlash", "http://a/", "http://a//"}),
    [](const testing::TestParamInfo<PathRow>& row) { return std::string(row.param.name); });

}  // namespace
