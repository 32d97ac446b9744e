// Date-time values: a calendar time with a 64-bit year and a zone offset.
//
// `DateTime` is the library's calendar time value: year, month, day, hour,
// minute and second (whole seconds) plus an optional offset of the local zone
// from UTC. The calendar is the proleptic Gregorian calendar with astronomical
// year numbering: year 0 exists (and is a leap year), years may be negative,
// and the year is a signed 64-bit number. A value converts to and from a count
// of seconds since 0000-01-01T00:00:00 UTC, shifts by calendar amounts,
// compares as an instant, interpolates, and turns into a duration.
//
// Text: ISO 8601 is the only form a value prints (`toString`) and the form
// `text >> value` reads; `parseHttpDate` reads the date of HTTP headers.
//
// Which call to use:
//   set / fromSeconds        build a value from fields or from a second count;
//   toSeconds / toCurrentTime  the instant as seconds (absolute, or relative
//                            to the start of the run);
//   add                      calendar shifts ("one month later");
//   operator-=               the time between two values as years, months, ...
//   toString, text >> value  ISO 8601 out and in; parseHttpDate for headers.
//
// Example:
//
//   kestrel::DateTime t;
//   QStringLiteral("2007-05-17T10:20:30+02:00") >> t;  // bad text: DateTimeParseError
//   t.adjustTimeZone(0, 0);
//   t.toString();                                      // "2007-05-17T08:20:30Z"
//   t.add(0, 1, 0, 0, 0, 0);                           // 2007-06-17T08:20:30Z
//
// Nothing here validates fields: out-of-range values are carried through the
// day count (February 31 counts on into March), and the 64-bit arithmetic
// wraps instead of trapping for absurd years.
//
// Thread-safety: values are plain data; distinct values may be used from any
// threads at once. ISO parsing keeps its token buffer per thread, so any
// number of threads may parse at the same time.
#pragma once

#include <kestrel/export.h>

#include <QString>

#include <iosfwd>
#include <stdexcept>

class QDateTime;
class QTextStream;

namespace kestrel {

// Thrown when ISO 8601 text does not parse. message() (and what(), as UTF-8)
// is "Could not parse time value " followed by the whole input text.
class KESTREL_EXPORT DateTimeParseError : public std::runtime_error {
 public:
  explicit DateTimeParseError(const QString& input);
  // "Could not parse time value " + the input, exactly (what() cannot carry
  // unpaired surrogates of a broken input).
  QString message() const { return mMessage; }

 private:
  QString mMessage;
};

class KESTREL_EXPORT DateTime {
 public:
  // The year that marks an invalid or unset value (the largest 64-bit number).
  static constexpr long long kInvalidYear = 9223372036854775807LL;

  long long year = kInvalidYear;
  unsigned char month = 1;   // 1 to 12
  unsigned char day = 1;     // 1 to 31
  unsigned char hour = 0;    // 0 to 23
  unsigned char minute = 0;  // 0 to 59
  unsigned char second = 0;  // 0 to 59
  // Zone offset, local minus UTC. For a negative offset both parts are
  // negative (-05:30 is -5 and -30); 0 and 0 is UTC.
  signed char tzHours = 0;
  signed char tzMinutes = 0;

  // The invalid year, January 1, 00:00:00, UTC.
  DateTime() = default;
  DateTime(const DateTime&) = default;
  DateTime& operator=(const DateTime&) = default;

  // Copies the calendar fields of a QDateTime as they read (its date year,
  // sign-extended, and its time) and sets the zone to UTC (0, 0).
  DateTime& operator=(const QDateTime& other);

  // Stores the eight values as given, truncated to the field widths; no
  // validation, no normalisation.
  void set(long long year, int month, int day, int hour, int minute, int second,
           signed char tzHours, signed char tzMinutes);

  // Seconds from 0000-01-01T00:00:00 UTC to this instant; negative before it.
  // Out-of-range fields count on (day 31 of February is March 2 or 3); a month
  // outside 1 to 12 is carried into the year (month 13 is January of the next
  // year). Years beyond about +-2.9e11 overflow the count, which wraps.
  long long toSeconds() const;

  // Sets this value to the instant `seconds` (the scale of toSeconds)
  // expressed in the zone (tzHours, tzMinutes). Every second count gives
  // normalised fields.
  void fromSeconds(long long seconds, signed char tzHours, signed char tzMinutes);

  // Re-expresses the same instant in the zone (hours, minutes). Does nothing
  // when the value is already in that zone (so its fields stay as they are,
  // normalised or not).
  void adjustTimeZone(int hours, int minutes);

  // Calendar shift in this value's zone: the months are added first (carrying
  // into the year), then the days, hours, minutes and seconds as a second
  // count; the result is normalised. January 31 plus one month is March 3
  // (March 2 in a leap year). Any argument may be negative.
  void add(long long years, int months, int days, int hours, int minutes, int seconds);

  // The instant a fraction t of the way from a to b, in the zone of a: each
  // end's share is rounded separately (so halfway between second 0 and
  // second 1 of a day is second 1). The result never leaves the range
  // between a and b, also for t outside 0 to 1.
  static DateTime Interpolate(const DateTime& a, const DateTime& b, float t);

  // Turns this value into a duration: the whole years, months (month), days
  // (day), hours, minutes and seconds that `seconds` covers when counted
  // from `from` (taken in UTC). The first whole year counted has the length
  // of the year after from's year; the month count wraps from 13 to 1 with a
  // carry into the year. The zone fields keep what they held. A negative
  // count gives 0 years and floor-divided remainders.
  void toDuration(const DateTime& from, long long seconds);

  // toDuration(other, toSeconds() - other.toSeconds()).
  DateTime& operator-=(const DateTime& other);

  // Instant comparison: both sides are first converted to UTC (a side already
  // in UTC keeps its fields as they are), then compared field by field, year
  // first.
  bool operator>(const DateTime& other) const;
  bool operator==(const DateTime& other) const;

  // toSeconds() minus the start of the run (System::getStartTime()), in
  // seconds.
  double toCurrentTime() const;

  // ISO 8601 text, in the first form that applies:
  //   time and zone all 0:  "2007" (January 1), "YYYY-MM-DD" (other days);
  //     on the 1st of another month the text is the year's upper 32 bits, a
  //     dash and its lower 32 bits: 2007-05-01 prints "0000-2007" (kept so
  //     for stored texts);
  //   zone 0:               "2007-05-17T10:20:30Z";
  //   otherwise:            "2007-05-17T10:20:30+02:00" / "...-05:30"; the sign
  //     is '+' only when tzHours > 0, so 0 hours 30 minutes prints "-00:30".
  // Years are zero-padded to four characters, a minus sign included ("-001"
  // for -1, "0000" for 0, "12345" as it is).
  QString toString() const;

  // Reads an HTTP date such as "Thu, 17 May 2007 10:20:30 GMT" found anywhere
  // in the text (weekday ignored, English month abbreviation matched
  // case-sensitively, zone name ignored: the value is UTC). When the text
  // does not match, a number does not fit, or the month name is unknown,
  // year becomes kInvalidYear; fields stored before the failing step keep
  // their new values. Never throws.
  void parseHttpDate(const QString& text);
};

// Parses ISO 8601 text into `value`: "2007", "2007-05", "2007-05-17",
// "2007-05-17T10:20:30Z", "2007-05-17T10:20:30" (UTC), "...T10:20:30.5+02:00",
// "-0044-03-15T12:00:00-05:30". The month before a '-' has at least two
// characters, a month or day at the end and the day, hour, minute and zone
// minutes exactly two; seconds are a decimal number of at least two
// characters, truncated. White space anywhere is skipped; anything after 'Z'
// is ignored; a text ending in the hour, the minute or the zone hours fails.
// Only the fields the text reaches are written; a null string leaves the
// value unchanged. Throws DateTimeParseError (fields written before the
// failure keep their new values). Thread-safe for distinct values.
KESTREL_EXPORT const QString& operator>>(const QString& text, DateTime& value);

// Reads one whitespace-delimited word and parses it as above (throws
// DateTimeParseError). A stream with no word left reads an empty word, which
// throws.
KESTREL_EXPORT QTextStream& operator>>(QTextStream& in, DateTime& value);

// Write toString(). The std::ostream form (std::stringstream and the
// library's UTF-8 byte streams) writes it as Latin-1 bytes, which for this
// ASCII text are also its UTF-8 bytes.
KESTREL_EXPORT QTextStream& operator<<(QTextStream& out, const DateTime& value);
KESTREL_EXPORT std::ostream& operator<<(std::ostream& out, const DateTime& value);

}  // namespace kestrel
