// The error log and the assertion hooks.
#include <kestrel/status.h>
#include <kestrel/system.h>

#include <gtest/gtest.h>

#include <QRegularExpression>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cwchar>
#include <string>

#include <unistd.h>

namespace kestrel {
namespace {

// A temporary file that reads back what was written to it.
struct LogFile {
  FILE* const file = std::tmpfile();
  ~LogFile() { std::fclose(file); }
  FILE* get() const { return file; }
  std::string contents() const {
    std::string text(static_cast<std::size_t>(std::ftell(file)), '\0');
    std::rewind(file);
    text.resize(std::fread(text.data(), 1, text.size(), file));
    return text;
  }
};

struct Line {
  int frame;
  double seconds, deltaMs;
  QString message;
};

// Splits lines of the form "<frame>(<s.sss>, <ms.m>): <message>".
std::vector<Line> parse(const std::string& text) {
  static const QRegularExpression pattern(
      QStringLiteral(R"(^(-?\d+)\((\d+\.\d{3}), (-?\d+\.\d)\): (.*)$)"));
  std::vector<Line> lines;
  for (const QString& row : QString::fromUtf8(text).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
    const QRegularExpressionMatch m = pattern.match(row);
    if (!m.hasMatch()) ADD_FAILURE() << "unexpected text: " << row.toStdString();
    lines.push_back(
        {m.captured(1).toInt(), m.captured(2).toDouble(), m.captured(3).toDouble(), m.captured(4)});
  }
  return lines;
}

TEST(ErrorLog, NullFileWritesNothingAndReturnsTrue) {
  // Standard error is pointed at a file for the call: nothing may reach it.
  LogFile capture;
  std::fflush(stderr);
  const int savedStderr = dup(STDERR_FILENO);
  dup2(fileno(capture.get()), STDERR_FILENO);
  const bool result = ErrorLog(nullptr, QStringLiteral("dropped\n"));
  std::fflush(stderr);
  dup2(savedStderr, STDERR_FILENO);
  close(savedStderr);
  EXPECT_TRUE(result);
  EXPECT_EQ(capture.contents(), "");
}

TEST(ErrorLog, LineHasFrameClockAndDeltaThenTheMessageAsGiven) {
  LogFile log;
  System::sCurFrame = 42;
  const double before = System::getTime();
  EXPECT_TRUE(ErrorLog(log.get(), QStringLiteral("disk full\n")));
  System::sCurFrame = -3;
  EXPECT_TRUE(ErrorLog(log.get(), QStringLiteral("no line end")));
  const double after = System::getTime();
  System::sCurFrame = 0;

  const std::string text = log.contents();
  EXPECT_EQ(text.back(), 'd') << "no line end is added";
  const std::vector<Line> lines = parse(text);
  ASSERT_EQ(lines.size(), 2u) << text;
  EXPECT_EQ(lines[0].frame, 42);
  EXPECT_EQ(lines[0].message, QStringLiteral("disk full"));
  EXPECT_EQ(lines[1].frame, -3);
  EXPECT_EQ(lines[1].message, QStringLiteral("no line end"));
  for (const Line& line : lines) {
    EXPECT_GE(line.seconds, before - 0.0005);
    EXPECT_LE(line.seconds, after + 0.0005);
  }
  // The delta is the time between the two calls, in milliseconds; both
  // times are rounded to the millisecond in the text.
  EXPECT_NEAR(lines[1].deltaMs, (lines[1].seconds - lines[0].seconds) * 1000.0, 1.05);
}

TEST(ErrorLog, FirstCallCountsItsDeltaFromTheClocksZero) {
  const std::string style = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process: no earlier call
  EXPECT_EXIT(
      {
        LogFile log;
        ErrorLog(log.get(), QStringLiteral("first\n"));
        const std::vector<Line> lines = parse(log.contents());
        const bool ok =
            lines.size() == 1 && std::abs(lines[0].deltaMs - lines[0].seconds * 1000.0) <= 0.55;
        std::exit(ok ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
  GTEST_FLAG_SET(death_test_style, style);
}

// The message ends at its first NUL character.
TEST(ErrorLog, WritesUtf8NarrowSoLaterNarrowOutputStillAppears) {
  LogFile log;
  ErrorLog(log.get(), QString::fromUtf8("Grüße ✓ 東京\n"));
  EXPECT_LT(std::fwide(log.get(), 0), 0) << "the stream is byte-oriented";
  std::fputs("narrow after\n", log.get());
  ErrorLog(log.get(), QString::fromUtf16(u"kept\0dropped", 12));
  const std::string text = log.contents();
  EXPECT_NE(text.find("): Gr\xC3\xBC\xC3\x9F"
                      "e \xE2\x9C\x93 \xE6\x9D\xB1\xE4\xBA\xAC\nnarrow after\n"),
            std::string::npos)
      << text;
  EXPECT_EQ(text.substr(text.size() - 7), "): kept") << text;
}

TEST(CheckFailed, IsTheNegationOfTheCondition) {
  bool once = false;
  EXPECT_FALSE(checkFailed(true, "x", 1, "f.cpp", &once));
  EXPECT_TRUE(checkFailed(false, nullptr, 0, nullptr, &once));
  EXPECT_FALSE(once) << "the flag is not touched";
}

TEST(OnCheckFailDeathTest, PrintsTheAssertionLineAndAborts) {
  for (bool condition : {false, true}) {  // the boolean is not looked at
    EXPECT_EXIT(onCheckFail(condition, "count > 0", 42, "loader.cpp"),
                ::testing::KilledBySignal(SIGABRT),
                "^assertion failure count > 0 at loader\\.cpp:42\n$");
  }
}

}  // namespace
}  // namespace kestrel
