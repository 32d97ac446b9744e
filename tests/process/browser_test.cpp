// The browser launch: the URL check, and the opener started without a shell
// with the URL as its one argument.
#include <kestrel/process.h>
#include <kestrel/system.h>

#include "process/process_support.h"

namespace {

using kestrel::System;
using kestrel::test::Recording;
using kestrel::test::ScopedEnv;

struct UrlRow {
  const char* name;
  const char* url;
  const char* argument;  // "" when refused
};

// Rows print as their URL.
void PrintTo(const UrlRow& row, std::ostream* out) { *out << '"' << row.url << '"'; }

class BrowserArgument : public testing::TestWithParam<UrlRow> {};

TEST_P(BrowserArgument, RefusesOrEncodes) {
  EXPECT_EQ(kestrel::externalBrowserArgument(QString::fromUtf8(GetParam().url)),
            QByteArray(GetParam().argument));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BrowserArgument,
    testing::Values(
        UrlRow{"Plain", "https://example.com/a?b=c#d", "https://example.com/a?b=c#d"},
        UrlRow{"SpacesBecomePercent20", "http://example.com/a b c", "http://example.com/a%20b%20c"},
        UrlRow{"ShellCharactersKept", "http://example.com/$(id);x", "http://example.com/$(id);x"},
        UrlRow{"NonAsciiEncoded", "http://example.com/\xC3\xBC", "http://example.com/%C3%BC"},
        UrlRow{"Empty", "", ""}, UrlRow{"LeadingDash", "-new-window", ""},
        UrlRow{"LeadingDashUrl", "--help=http://example.com", ""},
        UrlRow{"BadPercent", "http://example.com/%zz", ""},
        UrlRow{"BadHost", "http://exa mple.com/", ""}, UrlRow{"OpenBracket", "http://[::1/", ""},
        UrlRow{"Newline", "http://example.com/a\nb", ""}),
    [](const testing::TestParamInfo<UrlRow>& row) { return std::string(row.param.name); });

TEST(LaunchExternalBrowser, OpenerGetsTheEncodedUrlAsOneArgument) {
  Recording record;
  const ScopedEnv opener("KESTREL_URL_OPENER", KESTREL_RECORDER);
  ASSERT_TRUE(System::LaunchExternalBrowser(
      QString::fromUtf8("http://example.com/a b?q='x';$(touch z)&r=\xC3\xBC"), false, false));
  const auto argv = record.argv();
  ASSERT_TRUE(argv);
  EXPECT_EQ(*argv, (QList<QByteArray>{KESTREL_RECORDER,
                                      "http://example.com/a%20b?q='x';$(touch%20z)&r=%C3%BC"}));
}

TEST(LaunchExternalBrowser, RefusedUrlStartsNothing) {
  Recording record;
  const ScopedEnv opener("KESTREL_URL_OPENER", KESTREL_RECORDER);
  EXPECT_FALSE(System::LaunchExternalBrowser(QString()));
  EXPECT_FALSE(System::LaunchExternalBrowser(QStringLiteral("-h")));
  EXPECT_FALSE(System::LaunchExternalBrowser(QStringLiteral("http://example.com/%zz")));
  const ScopedEnv quick("KESTREL_RECORD_EXIT", "0");
  // The recorder would have written its argv by now had it been started.
  ASSERT_TRUE(System::LaunchExternalBrowser(QStringLiteral("http://example.com/")));
  const auto argv = record.argv();
  ASSERT_TRUE(argv);
  EXPECT_EQ(argv->value(1), QByteArray("http://example.com/"));
}

TEST(LaunchExternalBrowser, OpenerThatCannotStartGivesFalse) {
  const ScopedEnv opener("KESTREL_URL_OPENER", "/nonexistent/kestrel-opener");
  EXPECT_FALSE(System::LaunchExternalBrowser(QStringLiteral("http://example.com/")));
  const ScopedEnv byName("KESTREL_URL_OPENER", "kestrel-no-such-opener-on-path");
  EXPECT_FALSE(System::LaunchExternalBrowser(QStringLiteral("http://example.com/")));
}

TEST(LaunchExternalBrowser, OpenerIsFoundOnPath) {
  Recording record;
  const QString dir = QFileInfo(QStringLiteral(KESTREL_RECORDER)).path();
  const ScopedEnv path("PATH", dir.toStdString() + ":/usr/bin:/bin");
  const ScopedEnv opener("KESTREL_URL_OPENER", "kestrel_argv_recorder");
  ASSERT_TRUE(System::LaunchExternalBrowser(QStringLiteral("mailto:someone@example.com")));
  const auto argv = record.argv();
  ASSERT_TRUE(argv);
  EXPECT_EQ(*argv, (QList<QByteArray>{"kestrel_argv_recorder", "mailto:someone@example.com"}));
}

}  // namespace
