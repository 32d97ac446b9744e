// The application clock, wall-clock times, time zone, frame timing, the
// pseudo-random generators, identifiers and wide-string comparison.
#include "system/system_test_support.h"

#include <kestrel/system.h>

#include <QUuid>

#include <sys/time.h>

#include <cmath>
#include <ctime>
#include <set>
#include <thread>

namespace kestrel {
namespace {

using test::ScopedEnv;

TEST(ApplicationClock, StartsAtLoadAndAdvancesMonotonically) {
  const double t0 = System::getTime();
  EXPECT_GE(t0, 0.0);
  EXPECT_LT(t0, 60.0) << "zero is fixed when the library is loaded";
  double last = t0;
  for (int i = 0; i < 10000; ++i) {
    const double t = System::getTime();
    ASSERT_GE(t, last);
    last = t;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_GE(System::getTime() - t0, 0.019);
  const double steps = (System::getTime() * 1e6);
  EXPECT_NEAR(steps, std::round(steps), 1e-3) << "whole microseconds";
}

TEST(WallClock, MillisecondsAndSecondsSinceTheEpochAndStartTimeFromYearZero) {
  timeval before{};
  ::gettimeofday(&before, nullptr);
  const long long ms = System::getSystemTime();
  timeval after{};
  ::gettimeofday(&after, nullptr);
  EXPECT_GE(ms, before.tv_sec * 1000LL + before.tv_usec / 1000);
  EXPECT_LE(ms, after.tv_sec * 1000LL + after.tv_usec / 1000);
  const long now = static_cast<long>(std::time(nullptr));
  EXPECT_NEAR(static_cast<double>(System::getCurrTime()), static_cast<double>(now), 1.0);
  // 719528 days from 0000-01-01 to 1970-01-01; the library was loaded moments ago.
  const double startUnix = System::getStartTime() - 719528.0 * 86400.0;
  EXPECT_EQ(System::getStartTime(), sStartTime);
  EXPECT_EQ(startUnix, std::floor(startUnix)) << "whole seconds";
  EXPECT_LE(startUnix, static_cast<double>(now));
  EXPECT_GE(startUnix, static_cast<double>(now) - 60.0);
}

TEST(TimeZone, ReportsTheOffsetOfTz) {
  const struct {
    const char* tz;
    int hours, minutes;
  } rows[] = {
      {"UTC0", 0, 0},        {"IST-5:30", 5, 30},
      {"NST+3:30", -3, -30}, {"XYZ-9", 9, 0},
      {"ABC+8", -8, 0},      {"AAA-1BBB,J1/0,J365/24", 2, 0},  // daylight saving all year: included
  };
  for (const auto& row : rows) {
    ScopedEnv tz("TZ", std::string(row.tz));
    int hours = 99, minutes = 99;
    System::getLocalTimeZone(hours, minutes);
    EXPECT_EQ(hours, row.hours) << row.tz;
    EXPECT_EQ(minutes, row.minutes) << row.tz;
  }
  ::tzset();
}

TEST(WallClock, CtimeTextsKeepTheirNewline) {
  ScopedEnv tz("TZ", std::string("UTC0"));
  ::tzset();
  const long t = 1151999100;  // 2006-07-04 07:45:00 UTC
  EXPECT_EQ(System::wctime(&t), QStringLiteral("Tue Jul  4 07:45:00 2006\n"));
  std::tm fields{};
  std::time_t tt = t;
  ::gmtime_r(&tt, &fields);
  EXPECT_EQ(System::wasctime(&fields), QStringLiteral("Tue Jul  4 07:45:00 2006\n"));
  EXPECT_TRUE(System::wctime(nullptr).isEmpty());
  EXPECT_TRUE(System::wasctime(nullptr).isEmpty());
}

// --- frame timing on a clock the test moves --------------------------------

double gFakeNow = 0.0;
double fakeClock() {
  return gFakeNow;
}

class FrameTiming : public ::testing::Test {
 protected:
  void SetUp() override {
    env_detail::resetFrameState();
    env_detail::setFrameClock(fakeClock);
    gFakeNow = 10.0;
  }
  void TearDown() override {
    env_detail::setFrameClock(nullptr);
    env_detail::resetFrameState();
  }
};

TEST_F(FrameTiming, MeasuredStepsArePausedAndLimited) {
  System::updateGlobalDT(true);  // first call: activates, no step yet
  EXPECT_EQ(System::getGlobalDT(), 0.0);
  gFakeNow = 10.05;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.05, 1e-9);
  gFakeNow = 11.55;  // a frame of 1.5 seconds
  System::updateGlobalDT(true);
  EXPECT_DOUBLE_EQ(System::getGlobalDT(), 0.2);
  gFakeNow = 11.5;  // the clock never runs back, but a negative step counts as 0
  System::updateGlobalDT(true);
  EXPECT_EQ(System::getGlobalDT(), 0.0);
  gFakeNow = 11.6;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.1, 1e-9);

  System::updateGlobalDT(false);  // pause
  gFakeNow = 20.0;
  System::updateGlobalDT(true);  // first frame after the pause keeps the old step
  EXPECT_NEAR(System::getGlobalDT(), 0.1, 1e-9);
  gFakeNow = 20.03;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.03, 1e-9);
}

TEST_F(FrameTiming, FixedRateSetsTheStepAtOnceAndReleasingItMeasuresAgain) {
  System::setFixedFrameRate(true, 25.0);
  EXPECT_EQ(System::getFrameRate(), 25.0);
  EXPECT_NEAR(System::getGlobalDT(), 0.04, 1e-9);
  gFakeNow = 50.0;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.04, 1e-9);
  System::setFixedFrameRate(false, 25.0);
  EXPECT_EQ(System::getFrameRate(), 0.0);
  System::updateGlobalDT(true);  // first measured frame: keeps the last fixed step
  EXPECT_NEAR(System::getGlobalDT(), 0.04, 1e-9);
  gFakeNow = 50.01;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.01, 1e-12);
}

TEST_F(FrameTiming, AZeroLastTimeTakesNoStep) {
  gFakeNow = 0.0;  // the clock's very first instant
  System::updateGlobalDT(true);
  gFakeNow = 0.5;
  System::updateGlobalDT(true);
  EXPECT_EQ(System::getGlobalDT(), 0.0) << "a step is taken only from a non-zero last time";
  gFakeNow = 0.6;
  System::updateGlobalDT(true);
  EXPECT_NEAR(System::getGlobalDT(), 0.1, 1e-12);
}

// --- random numbers ----------------------------------------------------------

TEST(Random, RangeRulesIncludingTheDegenerateOnes) {
  System::seed(42);
  std::set<int> seen;
  for (int i = 0; i < 2000; ++i) {
    const int r = System::random(2, 10);
    ASSERT_GE(r, 2);
    ASSERT_LE(r, 9) << "hi itself is never returned";
    seen.insert(r);
  }
  EXPECT_EQ(seen.size(), 8u);
  EXPECT_EQ(System::random(6, 5), 0);
  EXPECT_EQ(System::random(5, 5), 5);
  EXPECT_EQ(System::random(-7, -7), -7);
  const int wide = System::random(INT_MIN, INT_MAX);
  EXPECT_LT(wide, INT_MAX);
}

TEST(Random, SeedingAlikeRepeatsTheSequenceAndZeroMeansPi) {
  auto sequence = [](unsigned int s) {
    System::seed(s);
    std::vector<double> values{System::fseed};
    for (int i = 0; i < 20; ++i) values.push_back(System::randf());
    for (int i = 0; i < 5; ++i) values.push_back(System::random(0, 1000));
    return values;
  };
  EXPECT_EQ(sequence(7), sequence(7));
  EXPECT_NE(sequence(7), sequence(8));
  EXPECT_EQ(sequence(0), sequence(3141592));
}

TEST(Random, SeedMakesFseedFromTwoDrawsAndRandfIsTheFractionOfItsFifthPower) {
  System::seed(99);
  const double fseed = System::fseed;
  std::srand(99);
  const int a = 2 + std::rand() % 8;
  const int b = 2 + std::rand() % 8;
  EXPECT_EQ(fseed, 1.0 / a + 1.0 / b);
  System::fseed = 0.25;
  const double x = 0.25 + M_PI;
  const double y = std::pow(x, 5.0);
  EXPECT_EQ(System::randf(), y - std::trunc(y));
  for (int i = 0; i < 1000; ++i) {
    const double r = System::randf();
    ASSERT_GE(r, 0.0);
    ASSERT_LT(r, 1.0);
    ASSERT_EQ(r, System::fseed);
  }
}

// --- identifiers and fixed answers ----------------------------------------

TEST(Identifiers, GuidsAreFreshVersion4UuidsInRfcByteOrder) {
  const System::GUID a = System::getGUID();
  const System::GUID b = System::getGUID();
  EXPECT_NE(std::memcmp(a.words, b.words, 16), 0);
  unsigned char bytes[16];
  std::memcpy(bytes, a.words, 16);
  EXPECT_EQ(bytes[6] >> 4, 4) << "version nibble in byte 6";
  EXPECT_EQ(bytes[8] & 0xC0, 0x80) << "RFC 4122 variant in byte 8";
  const QUuid parsed = QUuid::fromRfc4122(QByteArrayView(reinterpret_cast<const char*>(bytes), 16));
  EXPECT_EQ(parsed.version(), QUuid::Random);
}

TEST(WideCompare, IgnoresCaseAndOrdersByLengthAtTheEnd) {
  const struct {
    const wchar_t* a;
    const wchar_t* b;
    int result;
  } rows[] = {
      {L"", L"", 0},
      {L"abc", L"ABC", 0},
      {L"Straße", L"STRASSE", 1},  // 'ß' lowered stays
                                   // above 's'
      {L"abc", L"abd", -1},
      {L"abd", L"ABC", 1},
      {L"ab", L"abc", -1},
      {L"abc", L"ab", 1},
      {L"", L"a", -1},
      {L"a", L"", 1},
      {L"Zeta", L"alpha", 1},
  };
  for (const auto& row : rows)
    EXPECT_EQ(wcsicmp(row.a, row.b), row.result) << QString::fromWCharArray(row.a).toStdString();
}

}  // namespace
}  // namespace kestrel
