// Proleptic Gregorian calendar arithmetic for DateTime, on 64-bit day and
// second counts from 0000-01-01. Sums and products go through wrapping
// helpers: absurd years (the invalid marker among them) overflow the counts,
// and such values must wrap as two's complement rather than be undefined.
#pragma once

namespace kestrel::calendar {

constexpr long long wrapAdd(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) +
                                static_cast<unsigned long long>(b));
}
constexpr long long wrapSub(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) -
                                static_cast<unsigned long long>(b));
}
constexpr long long wrapMul(long long a, long long b) {
  return static_cast<long long>(static_cast<unsigned long long>(a) *
                                static_cast<unsigned long long>(b));
}

// Division and remainder rounding towards negative infinity (b > 0).
constexpr long long floorDiv(long long a, long long b) {
  const long long q = a / b;
  return (a % b != 0 && a < 0) ? q - 1 : q;
}
constexpr long long floorMod(long long a, long long b) {
  const long long r = a % b;
  return r < 0 ? r + b : r;
}

constexpr long long kSecondsPerDay = 86400;
constexpr long long kCommonYearSeconds = 31536000;
constexpr long long kLeapYearSeconds = 31622400;

// Days before the first of each month in a common year, by month - 1.
constexpr int kDaysBeforeMonth[13] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334, 365};
constexpr int kMonthLength[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

constexpr bool isLeap(long long year) {
  return floorMod(year, 4) == 0 && (floorMod(year, 400) == 0 || floorMod(year, 100) != 0);
}

// Leap days from 0000-01-01 to January 1 of `year` (negative for years
// before 0). Never overflows.
constexpr long long leapDaysBefore(long long year) {
  if (year > 0) {
    const long long y = year - 1;
    return y / 4 - y / 100 + y / 400 + 1;  // +1: year 0
  }
  if (year == 0) return 0;
  // -year overflows for the smallest year; its wrapped value counts as
  // the year's own magnitude in unsigned arithmetic.
  const unsigned long long n = 0ULL - static_cast<unsigned long long>(year);
  return -static_cast<long long>(n / 4 - n / 100 + n / 400);
}

// Days from 0000-01-01 to January 1 of `year`.
constexpr long long daysBeforeYear(long long year) {
  return wrapAdd(wrapMul(365, year), leapDaysBefore(year));
}

// Length in days of (year, month) after carrying month into the year
// (month 0 is December of the year before, 13 January of the next).
constexpr int daysInMonth(long long year, long long month) {
  const long long q = floorDiv(month - 1, 12);
  year = wrapAdd(year, q);
  month -= 12 * q;
  if (month == 2 && isLeap(year)) return 29;
  return kMonthLength[month - 1];
}

}  // namespace kestrel::calendar
