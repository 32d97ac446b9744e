// DateTime: ISO 8601 and HTTP-date text, second counts against Hinnant's date
// library, calendar shifts, comparison, interpolation, durations, streams,
// and parsing on several threads at once.
#include <kestrel/datetime.h>
#include <kestrel/system.h>

#include <date/date.h>
#include <gtest/gtest.h>

#include <QDateTime>
#include <QRegularExpression>
#include <QTextStream>
#include <QTimeZone>

#include <atomic>
#include <cmath>
#include <ctime>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using kestrel::DateTime;
using kestrel::DateTimeParseError;

namespace {

constexpr long long kInvalid = DateTime::kInvalidYear;
// Days from 0000-01-01 to 1970-01-01 in the proleptic Gregorian calendar.
constexpr long long kUnixEpochDays = 719528;

DateTime make(long long y, int mo, int d, int h = 0, int mi = 0, int s = 0, int tzh = 0,
              int tzm = 0) {
  DateTime t;
  t.set(y, mo, d, h, mi, s, static_cast<signed char>(tzh), static_cast<signed char>(tzm));
  return t;
}

// All eight fields, for messages and comparisons.
std::string fields(const DateTime& t) {
  std::ostringstream s;
  s << t.year << ' ' << int(t.month) << ' ' << int(t.day) << ' ' << int(t.hour) << ' '
    << int(t.minute) << ' ' << int(t.second) << ' ' << int(t.tzHours) << ' ' << int(t.tzMinutes);
  return s.str();
}

DateTime parsed(const char* text, DateTime start = DateTime()) {
  QString::fromUtf8(text) >> start;
  return start;
}

// The message a parse of `text` throws, or "(no exception)".
QString parseError(const QString& text) {
  DateTime t;
  try {
    text >> t;
  } catch (const DateTimeParseError& e) {
    return e.message();
  }
  return QStringLiteral("(no exception)");
}

// Hinnant's day count, shifted to 0000-01-01, for any year: the Gregorian
// calendar repeats every 400 years (146097 days), and date::year only holds
// +-32767, so the year is moved into 2000..2399 and the cycles added back.
long long hinnantDays(long long y, int m, int d) {
  const long long shifted = 2000 + ((y % 400) + 400) % 400;
  const long long cycles = (y - shifted) / 400;
  const date::sys_days days{date::year(int(shifted)) / date::month(unsigned(m)) /
                            date::day(unsigned(d))};
  return days.time_since_epoch().count() + kUnixEpochDays + cycles * 146097;
}

date::year_month_day hinnantDate(long long days, long long& cycles) {
  // Into the 400-year cycle that starts at 2000-01-01 (day 730485).
  constexpr long long kCycleStart = 730485;
  cycles = (days - kCycleStart) / 146097 - ((days - kCycleStart) % 146097 < 0 ? 1 : 0);
  const long long inCycle = days - cycles * 146097 - kUnixEpochDays;
  return date::year_month_day{date::sys_days{date::days{inCycle}}};
}

}  // namespace

// ---------------------------------------------------------------------------
// ISO 8601 text
// ---------------------------------------------------------------------------

TEST(DateTimeIso, ReadsEveryForm) {
  // Each row parses into a default value (invalid year, January 1, 00:00:00,
  // UTC), so fields the text does not reach keep those defaults.
  // clang-format off
  const struct { const char* input; const char* fields; } rows[] = {
      {"2007",                          "2007 1 1 0 0 0 0 0"},
      {"+2007",                         "2007 1 1 0 0 0 0 0"},
      {"-0044",                         "-44 1 1 0 0 0 0 0"},
      {"0",                             "0 1 1 0 0 0 0 0"},
      {"9223372036854775807",           "9223372036854775807 1 1 0 0 0 0 0"},
      {"-9223372036854775808",          "-9223372036854775808 1 1 0 0 0 0 0"},
      {"2007-05",                       "2007 5 1 0 0 0 0 0"},
      {"2007-05-17",                    "2007 5 17 0 0 0 0 0"},
      {"2007-123-17",                   "2007 123 17 0 0 0 0 0"},  // '-' ends a month of >= 2
      {"2007-05-17T10:20:30Z",          "2007 5 17 10 20 30 0 0"},
      {"2007-05-17T10:20:30",           "2007 5 17 10 20 30 0 0"},  // no zone: UTC
      {"2007-05-17T10:20:30.999Z",      "2007 5 17 10 20 30 0 0"},  // truncated
      {"2007-05-17T10:20:3e1Z",         "2007 5 17 10 20 30 0 0"},  // a floating-point number
      {"2007-05-17T10:20:300Z",         "2007 5 17 10 20 44 0 0"},  // 300 kept modulo 256
      {"2007-05-17T10:20:30+02:00",     "2007 5 17 10 20 30 2 0"},
      {"2007-05-17T10:20:30-05:30",     "2007 5 17 10 20 30 -5 -30"},
      {"2007-05-17T10:20:30+2:00",      "2007 5 17 10 20 30 2 0"},  // zone hours of any length
      {"2007-05-17T10:20:30-00:30",     "2007 5 17 10 20 30 0 30"},  // -00 reads 0: minutes stay +
      {"2007-05-17T10:20:30Z+99:99xx",  "2007 5 17 10 20 30 0 0"},  // after 'Z' nothing is read
      {" 2007 -\t05-1 7T10 :20:30 Z",   "2007 5 17 10 20 30 0 0"},  // white space anywhere
      {"2007-05-17T+1:-1:30Z",          "2007 5 17 1 255 30 0 0"},  // signs count as characters
      {"\xe3\x80\x80" "2007",           "2007 1 1 0 0 0 0 0"},      // U+3000 is white space
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input);
    EXPECT_EQ(fields(parsed(row.input)), row.fields);
  }
}

TEST(DateTimeIso, RejectsWithTheInputInTheMessage) {
  // clang-format off
  const char* rows[] = {
      "", "   ", ":", "T", "Z", "-", "+", "2007T", "2007Z", "2007:", "2007-", "2007-5", "2007-05-",
      "2007-05-1", "2007-05-177", "2007-05-177T10:20:30Z", "2007-05-7T10:20:30Z", "2007-05-17T", "2007-05-17T10", "2007-05-17T10:20",
      "2007-05-17T10:20:", "2007-05-17T1:20:30Z", "2007-05-17T100:20:30Z", "2007-05-17T10:2:30Z",
      "2007-05-17T10:20:3Z", "2007-05-17T10:20:3", "2007-05-17T10:20:30+02", "2007-05-17T10:20:30-",
      "2007-05-17T10:20:30+02:", "2007-05-17T10:20:30+02:0", "2007-05-17T10:20:30+02:000",
      "2007-05-17T10:20:30+02:00Z", "2007-05-17T10:20:30+02:00+", "2007-05-17T10:20:30--05:00",
      "2007-05-17T10:20:30+0x:00", "2007-05-17T10:20:aaZ",
      "2007-05-17T10:20:infZ", "2007-05-17T10:20:30:00", "2007-05T17",
      "2007-05-17-10", "20x7", "99999999999999999999", "2007-99999999999-17",
      "2007-05-17T10:20:30+99999999999:00", "2007-05-17TT10:20:30Z",
  };
  // clang-format on
  for (const char* row : rows) {
    SCOPED_TRACE(row);
    const QString input = QString::fromUtf8(row);
    EXPECT_EQ(parseError(input), QStringLiteral("Could not parse time value ") + input);
  }
}

TEST(DateTimeIso, FailureKeepsTheFieldsWrittenBeforeIt) {
  DateTime t = make(1999, 1, 2, 3, 4, 5, 6, 7);
  EXPECT_THROW(QStringLiteral("2007-05-17T10:20") >> t, DateTimeParseError);
  EXPECT_EQ(fields(t), "2007 5 17 10 4 5 6 7");  // minute state reached, never written
}

TEST(DateTimeIso, NullTextLeavesTheValueAndEmptyTextThrows) {
  DateTime t = make(1999, 1, 2, 3, 4, 5, 6, 7);
  QString() >> t;
  EXPECT_EQ(fields(t), "1999 1 2 3 4 5 6 7");
  EXPECT_THROW(QString(QLatin1String("")) >> t, DateTimeParseError);
}

TEST(DateTimeIso, PartialTextsWriteOnlyTheFieldsTheyReach) {
  const DateTime start = make(1999, 11, 22, 3, 4, 5, 6, 7);
  EXPECT_EQ(fields(parsed("2007", start)), "2007 11 22 3 4 5 6 7");
  EXPECT_EQ(fields(parsed("2007-05", start)), "2007 5 22 3 4 5 6 7");
  EXPECT_EQ(fields(parsed("2007-05-17", start)), "2007 5 17 3 4 5 6 7");
  EXPECT_EQ(fields(parsed("2007-05-17T10:20:30", start)), "2007 5 17 10 20 30 0 0");
}

TEST(DateTimeIso, WritesEveryForm) {
  // clang-format off
  const struct { DateTime value; const char* text; } rows[] = {
      {make(2007, 1, 1),                       "2007"},
      {make(0, 1, 1),                          "0000"},
      {make(-1, 1, 1),                         "-001"},
      {make(12345, 1, 1),                      "12345"},
      {make(kInvalid, 1, 1),                   "9223372036854775807"},
      {make(2007, 5, 17),                      "2007-05-17"},
      {make(-44, 3, 15),                       "-044-03-15"},
      // The 1st of a month other than January: upper 32 bits of the year, a
      // dash, lower 32 bits.
      {make(2007, 5, 1),                       "0000-2007"},
      {make(-1, 5, 1),                         "-001--1"},
      {make((5LL << 32) + 7, 2, 1),            "0005-07"},
      {make(2007, 5, 17, 10, 20, 30),          "2007-05-17T10:20:30Z"},
      {make(-44, 3, 15, 12, 0, 0),             "-044-03-15T12:00:00Z"},
      {make(2007, 5, 17, 10, 20, 30, 2, 0),    "2007-05-17T10:20:30+02:00"},
      {make(2007, 5, 17, 10, 20, 30, -5, -30), "2007-05-17T10:20:30-05:30"},
      {make(2007, 5, 1, 0, 0, 0, 2, 0),        "2007-05-01T00:00:00+02:00"},  // a zone: not a date only
      // The sign is '+' only for positive hours: 0 h 30 min prints -00:30.
      {make(2007, 5, 17, 10, 20, 30, 0, 30),   "2007-05-17T10:20:30-00:30"},
      {make(2007, 5, 17, 10, 20, 30, -128, -128), "2007-05-17T10:20:30-128:128"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.text);
    EXPECT_EQ(row.value.toString(), QString::fromLatin1(row.text));
  }
}

TEST(DateTimeIso, FullFormsReadBackToTheSameFields) {
  std::mt19937_64 rng(7);
  for (int i = 0; i < 2000; ++i) {
    const int tzh = int(rng() % 29) - 14;
    const int tzm = tzh == 0 ? 0 : (tzh < 0 ? -1 : 1) * int(rng() % 60);
    const DateTime value =
        make(static_cast<long long>(rng() % 2000001) - 1000000, 1 + int(rng() % 12),
             1 + int(rng() % 28), int(rng() % 24), int(rng() % 60), 1 + int(rng() % 59), tzh, tzm);
    DateTime back;
    value.toString() >> back;
    ASSERT_EQ(fields(back), fields(value)) << value.toString().toStdString();
  }
}

TEST(DateTimeIso, AgreesWithQDateTimeOnTheSameInstant) {
  std::mt19937 rng(11);
  const int offsets[] = {0, 3600, 7200, -18000, -19800, 19800, 20700, 50400, -43200, 5400};
  for (int i = 0; i < 2000; ++i) {
    const QDate date(1000 + int(rng() % 9000), 1 + int(rng() % 12), 1 + int(rng() % 28));
    const QTime time(int(rng() % 24), int(rng() % 60), 1 + int(rng() % 59));
    const int offset = offsets[rng() % std::size(offsets)];
    const QDateTime q = offset == 0 ? QDateTime(date, time, Qt::UTC)
                                    : QDateTime(date, time, Qt::OffsetFromUTC, offset);
    const QString qText = q.toString(Qt::ISODate);
    SCOPED_TRACE(qText.toStdString());
    DateTime t;
    qText >> t;
    EXPECT_EQ(t.toSeconds() - kUnixEpochDays * 86400, q.toSecsSinceEpoch());
    EXPECT_EQ(t.toString(), qText);
    // And back: what we write, Qt reads as the same instant.
    EXPECT_EQ(QDateTime::fromString(t.toString(), Qt::ISODate).toSecsSinceEpoch(),
              q.toSecsSinceEpoch());
  }
}

TEST(DateTimeIso, AssignsFromQDateTimeAsUtcFields) {
  DateTime t = make(1, 2, 3, 4, 5, 6, 7, 8);
  t = QDateTime(QDate(-44, 3, 15), QTime(12, 30, 45), Qt::OffsetFromUTC, 7200);
  EXPECT_EQ(fields(t), "-44 3 15 12 30 45 0 0");  // the fields as they read, zone dropped
}

// ---------------------------------------------------------------------------
// HTTP dates
// ---------------------------------------------------------------------------

TEST(DateTimeHttp, ReadsHeaderDatesAndMarksTheRestInvalid) {
  // Each row starts from 1999-11-22T03:04:05+06:07.
  // clang-format off
  const struct { const char* input; const char* fields; } rows[] = {
      {"Thu, 17 May 2007 10:20:30 GMT",        "2007 5 17 10 20 30 0 0"},
      {"Thu,17 May 2007 10:20:30",             "2007 5 17 10 20 30 0 0"},
      {"Date: Thu, 17 May 2007 10:20:30 +0200", "2007 5 17 10 20 30 0 0"},  // zone ignored
      {"  Thu, 1 Dec 0 0:0:0",                 "0 12 1 0 0 0 0 0"},
      {"Do, 17 Jan 2007 1:2:3 MEZ",            "2007 1 17 1 2 3 0 0"},
      {"x, 300 Jan 2007 10:20:30",             "2007 1 44 10 20 30 0 0"},  // 8-bit day field
      {"Thu, 17 may 2007 10:20:30 GMT",        "9223372036854775807 11 17 3 4 5 6 7"},
      {"Thu, 17 Mai 2007 10:20:30 GMT",        "9223372036854775807 11 17 3 4 5 6 7"},
      {"Thu 17 May 2007 10:20:30 GMT",         "9223372036854775807 11 22 3 4 5 6 7"},
      {"Thu, 17 May 2007 10:20 GMT",           "9223372036854775807 11 22 3 4 5 6 7"},
      {"Thu, 99999999999 May 2007 10:20:30",   "9223372036854775807 11 22 3 4 5 6 7"},
      {"Thu, 17 May 99999999999 10:20:30",     "9223372036854775807 5 17 3 4 5 6 7"},
      {"Thu, 17 May 2007 10:20:99999999999",   "9223372036854775807 5 17 10 20 5 6 7"},
      {"Thu, 17 May -2007 10:20:30",           "9223372036854775807 11 22 3 4 5 6 7"},
      {"2007-05-17T10:20:30Z",                 "9223372036854775807 11 22 3 4 5 6 7"},
      {"",                                     "9223372036854775807 11 22 3 4 5 6 7"},
  };
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(row.input);
    DateTime t = make(1999, 11, 22, 3, 4, 5, 6, 7);
    t.parseHttpDate(QString::fromUtf8(row.input));
    EXPECT_EQ(fields(t), row.fields);
  }
}

TEST(DateTimeHttp, FindsWhatTheWholePatternSearchFinds) {
  // The reader looks for the date after each comma instead of searching for
  // the whole pattern; texts built from header pieces must read the same.
  const QRegularExpression whole(
      QStringLiteral(R"(\s*([^,]+),\s*([0-9]+)\s+(\w+)\s+([0-9]+)\s+([0-9]+):([0-9]+):([0-9]+))"),
      QRegularExpression::UseUnicodePropertiesOption);
  const char* pieces[] = {"Thu", ",",   ", ",   " ",   "  ",       "17",         "1",
                          "May", "Jun", "2007", "10",  ":",        "20",         ":30",
                          "\t",  "x",   ",,",   "GMT", "\xc3\xa9", "99999999999"};
  std::mt19937 rng(17);
  int dates = 0;
  for (int i = 0; i < 20000; ++i) {
    std::string text;
    for (int n = int(rng() % 16); n > 0; --n) text += pieces[rng() % std::size(pieces)];
    if (i % 3 == 0) text += ", 17 May 2007 10:20:30";
    const QString input = QString::fromStdString(text);
    // The reference: the groups of the whole-pattern match, stored in turn.
    DateTime expected = make(1999, 11, 22, 3, 4, 5, 6, 7);
    const QRegularExpressionMatch m = whole.match(input);
    const auto read = [&m](int group, auto& field) {
      bool ok = false;
      const int v = m.captured(group).toInt(&ok);
      if (ok) field = static_cast<std::remove_reference_t<decltype(field)>>(v);
      return ok;
    };
    const QString months = QStringLiteral("JanFebMarAprMayJunJulAugSepOctNovDec");
    const qsizetype monthAt = m.captured(3).size() == 3 ? months.indexOf(m.captured(3)) : -1;
    bool valid = false;
    if (m.hasMatch() && read(2, expected.day) && monthAt >= 0 && monthAt % 3 == 0) {
      expected.month = static_cast<unsigned char>(monthAt / 3 + 1);
      valid = read(4, expected.year) && read(5, expected.hour) && read(6, expected.minute) &&
              read(7, expected.second);
    }
    if (valid) {
      expected.tzHours = expected.tzMinutes = 0;
      ++dates;
    } else {
      expected.year = kInvalid;
    }
    DateTime t = make(1999, 11, 22, 3, 4, 5, 6, 7);
    t.parseHttpDate(input);
    ASSERT_EQ(fields(t), fields(expected)) << text;
  }
  EXPECT_GT(dates, 5000);
}

TEST(DateTimeHttp, LoneSurrogatesAnywhereDoNotHideTheDate) {
  // Broken UTF-16 is just more characters that are not part of the date,
  // before it or after it.
  const QString date = QStringLiteral("Thu, 17 May 2007 10:20:30 GMT");
  const QString lone[] = {QString(QChar(0xD800)), QString(QChar(0xDC00))};
  for (const QString& bad : lone) {
    for (const QString& text : {bad + date, date + bad, date + QLatin1Char(' ') + bad + bad}) {
      DateTime t;
      t.parseHttpDate(text);
      EXPECT_EQ(fields(t), "2007 5 17 10 20 30 0 0") << int(bad[0].unicode());
    }
  }
}

// ---------------------------------------------------------------------------
// Second counts and calendar arithmetic
// ---------------------------------------------------------------------------

TEST(DateTimeSeconds, KnownInstants) {
  const DateTime unset;
  EXPECT_EQ(fields(unset), "9223372036854775807 1 1 0 0 0 0 0");
  EXPECT_EQ(make(0, 1, 1).toSeconds(), 0);
  EXPECT_EQ(make(1, 1, 1).toSeconds(), 31622400);  // year 0 is leap
  EXPECT_EQ(make(-1, 1, 1).toSeconds(), -31536000);
  EXPECT_EQ(make(-4, 1, 1).toSeconds(), -4 * 31536000LL - 86400);  // year -4 is leap
  EXPECT_EQ(make(1970, 1, 1).toSeconds(), kUnixEpochDays * 86400);
  EXPECT_EQ(make(2007, 5, 17, 10, 20, 30, 2, 0).toSeconds(),
            make(2007, 5, 17, 8, 20, 30).toSeconds());
  EXPECT_EQ(make(2007, 5, 17, 10, 20, 30, -5, -30).toSeconds(),
            make(2007, 5, 17, 15, 50, 30).toSeconds());
  // Unvalidated fields count on: February 31 is March 3, month 13 is
  // January of the next year, month 0 December of the year before.
  EXPECT_EQ(make(2007, 2, 31).toSeconds(), make(2007, 3, 3).toSeconds());
  EXPECT_EQ(make(2006, 13, 5).toSeconds(), make(2007, 1, 5).toSeconds());
  EXPECT_EQ(make(2007, 0, 5).toSeconds(), make(2006, 12, 5).toSeconds());
  EXPECT_EQ(make(2007, 5, 17, 25, 61, 61).toSeconds(), make(2007, 5, 18, 2, 2, 1).toSeconds());

  DateTime t;
  t.fromSeconds(-1, 0, 0);
  EXPECT_EQ(fields(t), "-1 12 31 23 59 59 0 0");
  t.fromSeconds(0, -5, -30);
  EXPECT_EQ(fields(t), "-1 12 31 18 30 0 -5 -30");
  t.fromSeconds(31622400 - 1, 0, 0);
  EXPECT_EQ(fields(t), "0 12 31 23 59 59 0 0");
  t.fromSeconds(make(2008, 2, 29, 23, 59, 59).toSeconds(), 1, 0);
  EXPECT_EQ(fields(t), "2008 3 1 0 59 59 1 0");
}

TEST(DateTimeSeconds, DayCountsAgreeWithHinnantOverAMillionYears) {
  std::mt19937_64 rng(3);
  for (int i = 0; i < 200000; ++i) {
    const long long y = static_cast<long long>(rng() % 2000001) - 1000000;
    const int m = 1 + int(rng() % 12);
    const int d = 1 + int(rng() % 28) + (i % 4 == 0 ? 3 : 0);  // some invalid days too
    const long long secs = static_cast<long long>(rng() % 86400);
    const DateTime t = make(y, m, d, int(secs / 3600), int(secs / 60 % 60), int(secs % 60));
    const long long days = hinnantDays(y, m, d);
    ASSERT_EQ(t.toSeconds(), days * 86400 + secs) << fields(t);

    // And back from the count, in a zone.
    DateTime back;
    back.fromSeconds(days * 86400 + secs - 3600, 1, 0);
    long long cycles = 0;
    const date::year_month_day ymd = hinnantDate(days, cycles);
    ASSERT_EQ(back.year, int(ymd.year()) + cycles * 400) << fields(t);
    ASSERT_EQ(back.month, unsigned(ymd.month())) << fields(t);
    ASSERT_EQ(back.day, unsigned(ymd.day())) << fields(t);
    ASSERT_EQ(back.hour * 3600 + back.minute * 60 + back.second, secs) << fields(t);
  }
}

TEST(DateTimeSeconds, ExtremeCountsGiveNormalisedFields) {
  // Every second count is reached by the year search, to the ends of the
  // 64-bit range; the fields it gives count back to the same second.
  const long long counts[] = {std::numeric_limits<long long>::max() / 2,
                              std::numeric_limits<long long>::min() / 2,
                              123456789012345678LL,
                              -987654321098765432LL,
                              1,
                              -86400,
                              -86401};
  for (long long s : counts) {
    DateTime t;
    t.fromSeconds(s, 0, 0);
    SCOPED_TRACE(fields(t));
    EXPECT_GE(t.month, 1);
    EXPECT_LE(t.month, 12);
    EXPECT_GE(t.day, 1);
    EXPECT_LE(t.day, 31);
    EXPECT_EQ(t.toSeconds(), s);
  }
  // Absurd years wrap instead of trapping: a day is still 86400 seconds apart.
  for (long long y : {kInvalid, std::numeric_limits<long long>::min(), -(1LL << 62)}) {
    const auto day1 = static_cast<unsigned long long>(make(y, 12, 1).toSeconds());
    const auto day2 = static_cast<unsigned long long>(make(y, 12, 2).toSeconds());
    EXPECT_EQ(day2 - day1, 86400u) << y;
    DateTime shifted = make(y, 12, 1, 0, 0, 0, 5, 30);
    shifted.add(1, 1, 1, 1, 1, 1);
    shifted.adjustTimeZone(0, 0);
    shifted.toDuration(make(y, 1, 1), 1LL << 40);
  }
  DateTime wrapped;
  wrapped.fromSeconds(std::numeric_limits<long long>::max(), 14, 0);
  EXPECT_GE(wrapped.month, 1);
  wrapped.fromSeconds(std::numeric_limits<long long>::min(), -14, 0);
  EXPECT_GE(wrapped.month, 1);
}

TEST(DateTimeArithmetic, AddShiftsByCalendarAmounts) {
  // clang-format off
  const struct {
    DateTime start; long long years; int months, days, hours, minutes, seconds; const char* result;
  } rows[] = {
      {make(2007, 1, 31), 0, 1, 0, 0, 0, 0,              "2007 3 3 0 0 0 0 0"},  // day overflow counts on
      {make(2008, 1, 31), 0, 1, 0, 0, 0, 0,              "2008 3 2 0 0 0 0 0"},
      {make(2007, 12, 15), 0, 1, 0, 0, 0, 0,             "2008 1 15 0 0 0 0 0"},
      {make(2007, 5, 15), 0, -29, 0, 0, 0, 0,            "2004 12 15 0 0 0 0 0"},
      {make(2008, 2, 29), 1, 0, 0, 0, 0, 0,              "2009 3 1 0 0 0 0 0"},
      {make(2007, 5, 17), -2007, 0, 0, 0, 0, 0,          "0 5 17 0 0 0 0 0"},
      {make(2007, 12, 31, 23, 59, 59), 0, 0, 0, 0, 0, 1, "2008 1 1 0 0 0 0 0"},
      {make(2007, 1, 1), 0, 0, -1, 0, 0, 0,              "2006 12 31 0 0 0 0 0"},
      {make(2007, 3, 1, 0, 0, 0, -5, -30), 0, 0, 0, -1, 0, 0, "2007 2 28 23 0 0 -5 -30"},
      {make(2007, 5, 17, 10), 0, 0, 0, 0, -601, 0,       "2007 5 16 23 59 0 0 0"},
      {make(2007, 2, 31), 0, 0, 0, 0, 0, 0,              "2007 3 3 0 0 0 0 0"},  // normalises
      {make(2007, 5, 17), 0, 12 * 1000000, 0, 0, 0, 0,   "1002007 5 17 0 0 0 0 0"},
      {make(2007, 5, 17), 0, 0, 365 * 1000, 0, 0, 0,     "3006 9 17 0 0 0 0 0"},
  };
  // clang-format on
  for (const auto& row : rows) {
    DateTime t = row.start;
    t.add(row.years, row.months, row.days, row.hours, row.minutes, row.seconds);
    EXPECT_EQ(fields(t), row.result) << fields(row.start);
  }
}

TEST(DateTimeArithmetic, AddAgreesWithHinnant) {
  std::mt19937_64 rng(5);
  for (int i = 0; i < 20000; ++i) {
    const long long y = static_cast<long long>(rng() % 2000001) - 1000000;
    const int m = 1 + int(rng() % 12);
    const int d = 1 + int(rng() % 31);
    const int months = int(rng() % 2001) - 1000;
    const int days = int(rng() % 200001) - 100000;
    DateTime t = make(y, m, d);
    t.add(0, months, days, 0, 0, 0);
    // Hinnant: the months first, the day overflow counted on into the
    // next month, then the days.
    const long long mIndex = (m - 1) + months;
    const long long carry = mIndex >= 0 ? mIndex / 12 : -((11 - mIndex) / 12);
    const long long expectedDays =
        hinnantDays(y + carry, int(mIndex - carry * 12) + 1, 1) + d - 1 + days;
    ASSERT_EQ(t.toSeconds(), expectedDays * 86400) << y << '-' << m << '-' << d;
    ASSERT_GE(t.day, 1);
    ASSERT_LE(t.day, 31);
  }
}

TEST(DateTimeArithmetic, AdjustTimeZoneKeepsTheInstant) {
  DateTime t = make(2007, 5, 17, 10, 20, 30, 2, 0);
  t.adjustTimeZone(-5, -30);
  EXPECT_EQ(fields(t), "2007 5 17 2 50 30 -5 -30");
  t.adjustTimeZone(0, 0);
  EXPECT_EQ(fields(t), "2007 5 17 8 20 30 0 0");
  // Already in the requested zone: nothing happens, not even normalisation.
  DateTime feb31 = make(2007, 2, 31, 0, 0, 0, 1, 0);
  feb31.adjustTimeZone(1, 0);
  EXPECT_EQ(fields(feb31), "2007 2 31 0 0 0 1 0");
  feb31.adjustTimeZone(0, 0);
  EXPECT_EQ(fields(feb31), "2007 3 2 23 0 0 0 0");
}

TEST(DateTimeArithmetic, CompareInstantsAcrossZones) {
  const DateTime berlin = make(2007, 5, 17, 10, 20, 30, 2, 0);
  const DateTime utc = make(2007, 5, 17, 8, 20, 30);
  const DateTime india = make(2007, 5, 17, 13, 50, 30, 5, 30);
  EXPECT_TRUE(berlin == utc);
  EXPECT_TRUE(india == berlin);
  EXPECT_FALSE(berlin > utc);
  const DateTime later = make(2007, 5, 17, 8, 20, 31);
  EXPECT_TRUE(later > berlin);
  EXPECT_FALSE(berlin > later);
  // Each field decides in turn, year first and signed.
  EXPECT_TRUE(make(1, 1, 1) > make(-1, 12, 31, 23, 59, 59));
  EXPECT_TRUE(make(2007, 6, 1) > make(2007, 5, 31, 23, 59, 59));
  EXPECT_TRUE(make(2007, 5, 2) > make(2007, 5, 1, 23, 59, 59));
  EXPECT_TRUE(make(2007, 5, 1, 1) > make(2007, 5, 1, 0, 59, 59));
  EXPECT_TRUE(make(2007, 5, 1, 0, 1) > make(2007, 5, 1, 0, 0, 59));
  // Values already in UTC are compared as they stand, not normalised: the
  // same instant written as February 30 and March 2 is neither equal nor
  // ordered as an instant.
  EXPECT_FALSE(make(2007, 2, 30) == make(2007, 3, 2));
  EXPECT_TRUE(make(2007, 3, 2) > make(2007, 2, 30));
  EXPECT_TRUE(make(2007, 2, 30, 1, 0, 0, 1, 0) == make(2007, 3, 2));  // converted: normalised
}

TEST(DateTimeArithmetic, InterpolateRoundsEachShareAndStaysInRange) {
  const DateTime a = make(2007, 5, 17, 0, 0, 0, 2, 0);
  const DateTime b = make(2007, 5, 16, 22, 0, 1);  // one second after a
  EXPECT_EQ(fields(DateTime::Interpolate(a, b, 0.5f)), "2007 5 17 0 0 1 2 0");
  EXPECT_EQ(fields(DateTime::Interpolate(a, b, 0.0f)), "2007 5 17 0 0 0 2 0");
  EXPECT_EQ(fields(DateTime::Interpolate(a, b, 1.0f)), "2007 5 17 0 0 1 2 0");
  EXPECT_EQ(fields(DateTime::Interpolate(a, b, -3.0f)), "2007 5 17 0 0 0 2 0");
  EXPECT_EQ(fields(DateTime::Interpolate(a, b, 7.0f)), "2007 5 17 0 0 1 2 0");

  const DateTime from = make(2000, 1, 1);
  const DateTime to = make(2000, 1, 11);
  EXPECT_EQ(fields(DateTime::Interpolate(from, to, 0.25f)), "2000 1 3 12 0 0 0 0");
  EXPECT_EQ(fields(DateTime::Interpolate(to, from, 0.25f)), "2000 1 8 12 0 0 0 0");
  for (float t : {-1e30f, -2.0f, 1.5f, 1e30f, std::numeric_limits<float>::infinity(),
                  std::numeric_limits<float>::quiet_NaN()}) {
    const long long s = DateTime::Interpolate(from, to, t).toSeconds();
    EXPECT_GE(s, from.toSeconds()) << t;
    EXPECT_LE(s, to.toSeconds()) << t;
  }
}

TEST(DateTimeArithmetic, DurationsCountYearsMonthsAndDays) {
  // clang-format off
  const struct { DateTime from; long long seconds; const char* duration; } rows[] = {
      {make(2007, 5, 17), 0,                       "0 0 0 0 0 0 9 9"},
      {make(2007, 5, 17), 14 * 86400 + 3661,       "0 0 14 1 1 1 9 9"},
      {make(2007, 5, 17), 15 * 86400,              "0 1 1 0 0 0 9 9"},
      // The first whole year counted is the year after from's: 2008 has
      // 366 days, so 365 days from mid-2007 are not a year ...
      {make(2007, 6, 1), 365 * 86400,              "0 12 11 0 0 0 9 9"},
      // ... while 365 days from mid-2008 (2009 counted) are.
      {make(2008, 6, 1), 365 * 86400,              "1 0 0 0 0 0 9 9"},
      // The month count wraps at 13 to 1 and carries a year.
      {make(2007, 1, 31), 365 * 86400,             "1 1 12 0 0 0 9 9"},
      {make(2007, 5, 17, 10, 0, 0, 2, 0), 86399,   "0 0 0 23 59 59 9 9"},
      {make(2007, 5, 17), -1,                      "0 0 255 23 59 59 9 9"},
      {make(0, 1, 1), 1000000LL * 31556952,        "1000000 0 0 0 0 0 9 9"},
  };
  // clang-format on
  for (const auto& row : rows) {
    DateTime d = make(1, 1, 1, 1, 1, 1, 9, 9);
    d.toDuration(row.from, row.seconds);
    EXPECT_EQ(fields(d), row.duration) << fields(row.from) << " + " << row.seconds;
  }

  DateTime later = make(2008, 3, 1, 1, 0, 0, 1, 0);
  later -= make(2006, 12, 31, 23, 0, 0, -1, 0);  // 425 days earlier, from 2007-01-01T00:00Z
  EXPECT_EQ(fields(later), "1 2 1 0 0 0 1 0");
}

TEST(DateTimeArithmetic, DurationYearsMatchAYearByYearCount) {
  // Whole years are found by bisection; a plain walk adding one year length
  // at a time gives the reference.
  std::mt19937_64 rng(9);
  for (int i = 0; i < 300; ++i) {
    const long long fromYear = static_cast<long long>(rng() % 4001) - 2000;
    const long long seconds = static_cast<long long>(rng() % (3000LL * 31622400));
    long long years = 0;
    long long total = 0;
    for (long long y = fromYear + 1;; ++y) {
      const bool leap = (y % 4 == 0) && (y % 400 == 0 || y % 100 != 0);
      total += leap ? 31622400 : 31536000;
      if (total > seconds) break;
      ++years;
    }
    DateTime d;
    d.toDuration(make(fromYear, 3, 1), seconds);  // from day 1 the month count never wraps
    ASSERT_EQ(d.year, years) << fromYear << " + " << seconds << ": " << fields(d);
  }
}

TEST(DateTimeArithmetic, CurrentTimeCountsFromTheStartOfTheRun) {
  DateTime now;
  now.fromSeconds(kUnixEpochDays * 86400 + std::time(nullptr), 3, 0);
  EXPECT_NEAR(now.toCurrentTime(), kestrel::System::getTime(), 2.0);
  EXPECT_DOUBLE_EQ(make(0, 1, 1).toCurrentTime(), -kestrel::System::getStartTime());
}

// ---------------------------------------------------------------------------
// Streams
// ---------------------------------------------------------------------------

TEST(DateTimeStreams, WriteTheIsoTextAndReadOneWordAtATime) {
  const DateTime t = make(2007, 5, 17, 10, 20, 30, -5, -30);
  QString text;
  QTextStream out(&text);
  out << t << ' ' << make(2007, 1, 1);
  out.flush();
  EXPECT_EQ(text, QStringLiteral("2007-05-17T10:20:30-05:30 2007"));

  std::stringstream bytes;
  bytes << t;
  EXPECT_EQ(bytes.str(), "2007-05-17T10:20:30-05:30");

  QString input = QStringLiteral("  2008-02-29T12:00:00Z\n1999-12-31 junk");
  QTextStream in(&input);
  DateTime first;
  DateTime second;
  in >> first >> second;
  EXPECT_EQ(fields(first), "2008 2 29 12 0 0 0 0");
  EXPECT_EQ(fields(second), "1999 12 31 0 0 0 0 0");
  EXPECT_THROW(in >> first, DateTimeParseError);
  // An exhausted stream reads an empty word, not a null one: it is handed
  // on like any word and fails, instead of leaving the value as it was.
  DateTime kept = make(1999, 1, 2);
  try {
    in >> kept;
    ADD_FAILURE() << "no exception at the end of the stream: " << fields(kept);
  } catch (const DateTimeParseError& e) {
    EXPECT_EQ(e.message(), QStringLiteral("Could not parse time value "));
  }
}

// ---------------------------------------------------------------------------
// Bad input and threads
// ---------------------------------------------------------------------------

TEST(DateTimeBadInput, TruncatedBinaryAndLongTextsThrowOnlyTheParseError) {
  std::vector<QString> inputs;
  const QString full = QStringLiteral("-2007-05-17T10:20:30.25-05:30");
  for (qsizetype n = 0; n <= full.size(); ++n) inputs.push_back(full.left(n));
  std::mt19937 rng(13);
  for (int i = 0; i < 2000; ++i) {
    QString binary;
    const int length = int(rng() % 40);
    for (int j = 0; j < length; ++j) binary.append(QChar(char16_t(rng() % 0x10000)));
    inputs.push_back(binary);
    QString mutated = full;
    mutated[qsizetype(rng() % full.size())] = QChar(char16_t("-+:TZ0. \x01"[rng() % 9]));
    inputs.push_back(mutated);
  }
  const qsizetype k = 10000;
  inputs.push_back(QString(k, QLatin1Char('2')));
  inputs.push_back(QString(k, QLatin1Char(' ')));
  inputs.push_back(QString(k, QLatin1Char('-')));
  inputs.push_back(QStringLiteral("2007-05-17T10:20:") + QString(k, QLatin1Char('9')) + 'Z');
  inputs.push_back(QStringLiteral("2007-05-17T10:20:30+") + QString(k, QLatin1Char('1')) + ":00");
  inputs.push_back(QStringLiteral("2007-05-17T10:20:0.") + QString(k, QLatin1Char('1')) + 'Z');

  int parsedCount = 0;
  for (const QString& input : inputs) {
    DateTime t;
    try {
      input >> t;
      ++parsedCount;
    } catch (const DateTimeParseError& e) {
      ASSERT_EQ(e.message(), QStringLiteral("Could not parse time value ") + input);
    }
    t.toString();
    t.toSeconds();
  }
  EXPECT_GT(parsedCount, 5);  // the valid prefixes and the long decimal second
  EXPECT_EQ(fields(parsed(("2007-05-17T10:20:0." + std::string(10000, '1') + "Z").c_str())),
            "2007 5 17 10 20 0 0 0");
}

TEST(DateTimeBadInput, LongHttpTextsFailQuickly) {
  const auto started = std::chrono::steady_clock::now();
  const QString texts[] = {QString(10000, QLatin1Char('a')) + ',', QString(10000, QLatin1Char(',')),
                           QStringLiteral("Thu, 17 May ").repeated(800),
                           QString(10000, QLatin1Char(' ')) + QStringLiteral("x, 1 Jan 1 1:1"),
                           // Many commas: each is a place to look, so the
                           // text must not be re-scanned at every one.
                           QStringLiteral("x,1 ").repeated(100000)};
  for (const QString& text : texts) {
    DateTime t;
    t.parseHttpDate(text);
    EXPECT_EQ(t.year, kInvalid);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(5));
}

TEST(DateTimeThreads, FourThreadsParseAtOnce) {
  // Each thread parses its own texts, with failures in between, and checks
  // every value: a shared token buffer would mix characters across threads.
  constexpr int kThreads = 4;
  constexpr int kRounds = 5000;
  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int n = 0; n < kThreads; ++n) {
    threads.emplace_back([n, &mismatches] {
      const DateTime expected = make(1000 * (n + 1) + n, n + 1, 10 + n, n, 10 * n, 59 - n, n, 0);
      const QString text = expected.toString();
      const QString bad = text.left(13 + n);
      for (int i = 0; i < kRounds; ++i) {
        DateTime t;
        text >> t;
        if (fields(t) != fields(expected)) ++mismatches;
        try {
          bad >> t;
          ++mismatches;
        } catch (const DateTimeParseError&) {
        }
      }
    });
  }
  for (std::thread& t : threads) t.join();
  EXPECT_EQ(mismatches.load(), 0);
}
