// `kestrel-info date`: a date-time text read as ISO 8601 or as an HTTP date,
// shown in every form the library writes.
#include "command.h"

#include <kestrel/datetime.h>

#include <sstream>

namespace kestrel::info {
namespace {

QString zoneText(const DateTime& t) {
  return QStringLiteral("%1 h %2 min").arg(int(t.tzHours)).arg(int(t.tzMinutes));
}

void show(const DateTime& t, QTextStream& out) {
  out << "  fields       year " << t.year << ", month " << t.month << ", day " << t.day << ", hour "
      << t.hour << ", minute " << t.minute << ", second " << t.second << ", zone " << zoneText(t)
      << '\n';
  out << "  ISO 8601     " << t << '\n';
  DateTime utc = t;
  utc.adjustTimeZone(0, 0);
  out << "  in UTC       " << utc << '\n';
  std::ostringstream bytes;
  bytes << t;
  out << "  byte stream  " << QString::fromLatin1(bytes.str().c_str()) << '\n';
  out << "  seconds      " << t.toSeconds() << " since 0000-01-01T00:00:00Z\n";
  out << "  this run     " << Qt::fixed << qSetRealNumberPrecision(0) << t.toCurrentTime()
      << " s from the start of this run\n";
}

// Prints the value of `text` and returns 0, or prints why it does not read
// (to `err`) and returns 1.
int describe(const QString& text, QTextStream& out, QTextStream& err) {
  DateTime iso;
  try {
    text >> iso;
    out << "\"" << text << "\" read as ISO 8601\n";
    show(iso, out);
    return 0;
  } catch (const DateTimeParseError& e) {
    DateTime http;
    http.parseHttpDate(text);
    if (http.year != DateTime::kInvalidYear) {
      out << "\"" << text << "\" read as an HTTP date\n";
      show(http, out);
      return 0;
    }
    err << "kestrel-info date: " << e.message() << "\n  (nor is it an HTTP date)\n";
    return 1;
  }
}

int runDate(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (args.isEmpty()) {
    err << "kestrel-info date: give a date-time text (see kestrel-info help date)\n";
    return 2;
  }
  return describe(args.join(QLatin1Char(' ')), out, err);
}

void tourDate(QTextStream& out) {
  QTextStream quiet(stderr);
  for (const char* text : {"2007-05-17T10:20:30+02:00", "Thu, 17 May 2007 10:20:30 GMT"}) {
    describe(QString::fromLatin1(text), out, quiet);
    out << '\n';
  }
  DateTime t;
  QStringLiteral("2008-01-31T12:00:00Z") >> t;
  t.add(0, 1, 0, 0, 0, 0);
  out << "2008-01-31T12:00:00Z plus one month: " << t << " (the day overflow counts on)\n";
  DateTime span = t;
  DateTime start;
  QStringLiteral("2007-01-01") >> start;
  span -= start;
  out << "from 2007-01-01 to it: " << span.year << " year, " << span.month << " months, "
      << span.day << " days, " << span.hour << " hours\n";
  try {
    DateTime bad;
    QStringLiteral("2007-05-17T10:20") >> bad;
  } catch (const DateTimeParseError& e) {
    out << "a text that stops in the minutes: " << e.message() << '\n';
  }
}

const Command kDate{"date",
                    "reads a date-time text and shows it in every written form",
                    "date <text>\n"
                    "  Reads the text (the words after `date`, joined by blanks) as ISO 8601\n"
                    "  (2007, 2007-05-17, 2007-05-17T10:20:30Z, ...T10:20:30-05:30) or, if\n"
                    "  that fails, as an HTTP date (Thu, 17 May 2007 10:20:30 GMT), and prints\n"
                    "  its fields, its ISO 8601 text, the same instant in UTC, the byte-stream\n"
                    "  form, seconds since 0000-01-01 and seconds from the start of this run.\n"
                    "  A text that reads neither way prints the parse error and exits with 1.\n",
                    runDate,
                    tourDate,
                    50};

}  // namespace

KESTREL_INFO_COMMAND(kDate);

}  // namespace kestrel::info
