// DateTime: fields, second counts, calendar shifts, comparison,
// interpolation and durations.
#include <kestrel/datetime.h>
#include <kestrel/system.h>

#include "text/calendar.h"

#include <QDateTime>

#include <algorithm>
#include <cmath>
#include <limits>

namespace kestrel {

using namespace calendar;

namespace {

// A double rounded towards zero into a long long, saturating at the limits
// (NaN gives 0): the interpolation terms of absurd fractions stay defined.
long long saturatingTrunc(double v) {
  constexpr double kLimit = 9223372036854775808.0;  // 2^63
  if (std::isnan(v)) return 0;
  if (v >= kLimit) return std::numeric_limits<long long>::max();
  if (v < -kLimit) return std::numeric_limits<long long>::min();
  return static_cast<long long>(v);
}

long long saturatingAdd(long long a, long long b) {
  long long sum = 0;
  if (!__builtin_add_overflow(a, b, &sum)) return sum;
  return a < 0 ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
}

// Length in seconds of the years from+1 .. from+n (n >= 0), saturating at the
// largest count: the bisection below only asks whether it exceeds a count.
long long yearsSeconds(long long from, long long n) {
  const long long first = wrapAdd(from, 1);
  const long long leapDays = leapDaysBefore(wrapAdd(first, n)) - leapDaysBefore(first);
  long long seconds = 0;
  if (__builtin_mul_overflow(365 * n + leapDays, kSecondsPerDay, &seconds))
    return std::numeric_limits<long long>::max();
  return seconds;
}

}  // namespace

DateTime& DateTime::operator=(const QDateTime& other) {
  const QDate date = other.date();
  const QTime time = other.time();
  set(date.year(), date.month(), date.day(), time.hour(), time.minute(), time.second(), 0, 0);
  return *this;
}

void DateTime::set(long long year_, int month_, int day_, int hour_, int minute_, int second_,
                   signed char tzHours_, signed char tzMinutes_) {
  year = year_;
  month = static_cast<unsigned char>(month_);
  day = static_cast<unsigned char>(day_);
  hour = static_cast<unsigned char>(hour_);
  minute = static_cast<unsigned char>(minute_);
  second = static_cast<unsigned char>(second_);
  tzHours = tzHours_;
  tzMinutes = tzMinutes_;
}

long long DateTime::toSeconds() const {
  // A month outside 1..12 is carried into the year before the table lookup.
  const long long carry = floorDiv(month - 1, 12);
  const long long y = wrapAdd(year, carry);
  const int m = month - 12 * static_cast<int>(carry);
  long long days = wrapAdd(daysBeforeYear(y), kDaysBeforeMonth[m - 1]);
  if (m > 2 && isLeap(y)) days = wrapAdd(days, 1);
  days = wrapAdd(days, day - 1);
  const long long hours = wrapAdd(wrapMul(days, 24), hour - tzHours);
  const long long minutes = wrapAdd(wrapMul(hours, 60), minute - tzMinutes);
  return wrapAdd(wrapMul(minutes, 60), second);
}

void DateTime::fromSeconds(long long seconds, signed char tzHours_, signed char tzMinutes_) {
  set(0, 1, 1, 0, 0, 0, tzHours_, tzMinutes_);
  const long long local = wrapAdd(seconds, (tzHours_ * 60 + tzMinutes_) * 60);

  long long days = local / kSecondsPerDay;
  const long long rem = local - days * kSecondsPerDay;
  second = static_cast<unsigned char>(floorMod(rem, 60));
  minute = static_cast<unsigned char>(floorMod(floorDiv(rem, 60), 60));
  const long long hours = floorDiv(rem, 3600);
  hour = static_cast<unsigned char>(floorMod(hours, 24));
  days += floorDiv(hours, 24);

  // Walk to the year by estimates of one 365th of the remaining days; each
  // step leaves a remainder several hundred times smaller, possibly negative.
  long long r = days;
  for (;;) {
    const long long estimate =
        static_cast<long long>(static_cast<double>(r) * 0.0027397260273972603);
    if (estimate == 0) break;
    year += estimate;
    r = days - daysBeforeYear(year);
  }

  r += 1;  // day of the year, 1-based; may still be 0 or negative
  long long m = 1;
  while (r <= 0) {
    if (--m == 0) {
      m = 12;
      --year;
    }
    r += daysInMonth(year, m);
  }
  while (r > daysInMonth(year, m)) {
    r -= daysInMonth(year, m);
    if (++m == 13) {
      m = 1;
      ++year;
    }
  }
  month = static_cast<unsigned char>(m);
  day = static_cast<unsigned char>(r);
}

void DateTime::adjustTimeZone(int hours, int minutes) {
  if (tzHours == hours && tzMinutes == minutes) return;
  fromSeconds(toSeconds(), static_cast<signed char>(hours), static_cast<signed char>(minutes));
}

void DateTime::add(long long years, int months, int days, int hours, int minutes, int seconds) {
  const long long m = static_cast<long long>(month) + months;
  year = wrapAdd(wrapAdd(year, years), floorDiv(m - 1, 12));
  month = static_cast<unsigned char>(floorMod(m - 1, 12) + 1);
  const long long shift =
      ((static_cast<long long>(days) * 24 + hours) * 60 + minutes) * 60 + seconds;
  fromSeconds(wrapAdd(toSeconds(), shift), tzHours, tzMinutes);
}

DateTime DateTime::Interpolate(const DateTime& a, const DateTime& b, float t) {
  const long long sa = a.toSeconds();
  const long long sb = b.toSeconds();
  const double td = t;
  const long long s = saturatingAdd(saturatingTrunc((1.0 - td) * static_cast<double>(sa) + 0.5),
                                    saturatingTrunc(td * static_cast<double>(sb) + 0.5));
  DateTime result;
  result.fromSeconds(std::clamp(s, std::min(sa, sb), std::max(sa, sb)), a.tzHours, a.tzMinutes);
  return result;
}

void DateTime::toDuration(const DateTime& from, long long seconds) {
  DateTime f = from;
  f.adjustTimeZone(0, 0);

  // The most whole years n with yearsSeconds(f.year, n) <= seconds, found by
  // bisection between the counts for all-leap and all-common years.
  long long n = 0;
  if (seconds >= 0) {
    long long lo = seconds / kLeapYearSeconds;        // fits
    long long hi = seconds / kCommonYearSeconds + 1;  // does not fit
    while (hi - lo > 1) {
      const long long mid = lo + (hi - lo) / 2;
      (yearsSeconds(f.year, mid) <= seconds ? lo : hi) = mid;
    }
    n = lo;
  }
  year = n;

  const long long rem = wrapSub(seconds, yearsSeconds(f.year, n));
  second = static_cast<unsigned char>(floorMod(rem, 60));
  minute = static_cast<unsigned char>(floorMod(floorDiv(rem, 60), 60));
  hour = static_cast<unsigned char>(floorMod(floorDiv(rem, 3600), 24));
  long long d = floorDiv(rem, kSecondsPerDay);
  long long months = 0;
  long long o = f.day;
  while (d > 0) {
    const long long length = daysInMonth(wrapAdd(f.year, year), f.month + months);
    if (d + o <= length) break;
    d -= length - o;
    o = 1;
    if (++months == 13) {  // wraps at 13 to 1, not at 12 to 0
      months = 1;
      year = wrapAdd(year, 1);
    }
  }
  month = static_cast<unsigned char>(months);
  day = static_cast<unsigned char>(d);
}

DateTime& DateTime::operator-=(const DateTime& other) {
  toDuration(other, wrapSub(toSeconds(), other.toSeconds()));
  return *this;
}

bool DateTime::operator==(const DateTime& other) const {
  DateTime a = *this;
  DateTime b = other;
  a.adjustTimeZone(0, 0);
  b.adjustTimeZone(0, 0);
  return a.year == b.year && a.month == b.month && a.day == b.day && a.hour == b.hour &&
         a.minute == b.minute && a.second == b.second;
}

bool DateTime::operator>(const DateTime& other) const {
  DateTime a = *this;
  DateTime b = other;
  a.adjustTimeZone(0, 0);
  b.adjustTimeZone(0, 0);
  if (a.year != b.year) return a.year > b.year;
  if (a.month != b.month) return a.month > b.month;
  if (a.day != b.day) return a.day > b.day;
  if (a.hour != b.hour) return a.hour > b.hour;
  if (a.minute != b.minute) return a.minute > b.minute;
  return a.second > b.second;
}

double DateTime::toCurrentTime() const {
  return static_cast<double>(toSeconds()) - System::getStartTime();
}

}  // namespace kestrel
