// `kestrel-info coord "<text>"`: what a text reads as - angle, latitude,
// longitude, pair - or why it does not.
#include "command.h"

#include <kestrel/coordinates.h>

#include <initializer_list>

namespace kestrel::info {
namespace {

QString number(double value) {
  return QString::number(value, 'g', 12);
}

// Which single form read the text, or an explanation of the failure.
QString angleForm(const QString& text) {
  LatLngValue value;
  const char* names[] = {"degrees", "degrees and minutes", "degrees, minutes and seconds"};
  for (bool comma : {false, true}) {
    const bool found[] = {value.TryDF(text, comma), value.TryDMF(text, comma),
                          value.TryDMSF(text, comma)};
    for (int i = 0; i < 3; ++i) {
      if (found[i]) {
        return QStringLiteral("%1 (%2, %3 decimals)")
            .arg(number(value.getValue()), QLatin1String(names[i]),
                 comma ? QStringLiteral("comma") : QStringLiteral("point"));
      }
    }
  }
  return {};
}

QString signedForm(SignedAngleValue& parser, const QString& text) {
  if (parser.TryDA(text)) return number(parser.getValue()) + " (hemisphere letter after)";
  if (parser.TryDB(text)) return number(parser.getValue()) + " (hemisphere letter before)";
  if (parser.TrySB(text)) return number(parser.getValue()) + " (sign or none before)";
  return {};
}

QString pairForm(const QString& text) {
  LatLngPair pair;
  const char* names[] = {"letters after", "letters before", "signs"};
  for (bool comma : {false, true}) {
    const bool found[] = {pair.TryDA(text, comma), pair.TryDB(text, comma),
                          pair.TrySB(text, comma)};
    for (int i = 0; i < 3; ++i) {
      if (!found[i]) continue;
      const QString form = QStringLiteral("%1, %2 decimals")
                               .arg(QLatin1String(names[i]),
                                    comma ? QStringLiteral("comma") : QStringLiteral("point"));
      if (!LatLngPair::Parse(text, nullptr, nullptr)) {
        return QStringLiteral("no: read as %1 / %2 (%3), but the latitude is outside -90 .. 90")
            .arg(number(pair.getLatitude()), number(pair.getLongitude()), form);
      }
      return QStringLiteral("latitude %1, longitude %2 (%3)")
          .arg(number(pair.getLatitude()), number(pair.getLongitude()), form);
    }
  }
  return {};
}

// Whether some pattern matches the text as it stands (long texts are not
// tried: a long run of blanks is slow to reject for the raw patterns).
bool anyMatches(std::initializer_list<const QRegularExpression*> patterns, const QString& text) {
  if (text.size() > 256) return false;
  for (const QRegularExpression* pattern : patterns) {
    if (pattern->match(text).hasMatch()) return true;
  }
  return false;
}

// A short reason why no form of a `kind` reads the text; `shaped` tells
// whether some pattern of that kind matches it (so a number is out of range).
QString why(const QString& text, const char* kind, bool shaped) {
  if (text.isEmpty()) return QStringLiteral("no: the text is empty");
  for (QChar c : text) {
    if (!c.isDigit() && !c.isSpace() && !QStringLiteral(".,\u00B0`'\"+-/NSEWnsew").contains(c))
      return QStringLiteral("no: '%1' belongs to no coordinate notation").arg(c);
  }
  if (shaped) {
    return QStringLiteral(
        "no: a number is out of range (degrees 0 .. 180, minutes and seconds 0 .. 60)");
  }
  if (text.front().isSpace() || text.back().isSpace())
    return QStringLiteral("no: blanks at the start or the end");
  return QStringLiteral("no: not %1 in any accepted notation").arg(QLatin1String(kind));
}

void describe(const QString& text, QTextStream& out) {
  out << "text:      \"" << text << "\"\n";
  const LatLngValuePatterns& a = *LatLngValuePatterns::GetSingleton();
  const QString angle = angleForm(text);
  out << "angle:     "
      << (!angle.isEmpty() ? angle
                           : why(text, "an angle",
                                 anyMatches({&a.pointDF, &a.pointDMF, &a.pointDMSF, &a.commaDF,
                                             &a.commaDMF, &a.commaDMSF},
                                            text)))
      << '\n';
  const auto signedLine = [&](SignedAngleValue& parser, const SignedAnglePatterns& p,
                              const char* kind) {
    const QString found = signedForm(parser, text);
    if (!found.isEmpty()) return found;
    return why(text, kind,
               anyMatches({&p.directionAfter, &p.directionBefore, &p.signBefore}, text));
  };
  LatValue lat;
  out << "latitude:  " << signedLine(lat, *LatValuePatterns::GetSingleton(), "a latitude") << '\n';
  LngValue lng;
  out << "longitude: " << signedLine(lng, *LngValuePatterns::GetSingleton(), "a longitude") << '\n';
  const LatLngPairPatterns& p = *LatLngPairPatterns::GetSingleton();
  const QString pair = pairForm(text);
  out << "pair:      "
      << (!pair.isEmpty() ? pair
                          : why(text, "a pair",
                                anyMatches({&p.pointDA, &p.pointDB, &p.pointSB, &p.commaDA,
                                            &p.commaDB, &p.commaSB},
                                           text)))
      << '\n';
}

int runCoord(const QStringList& args, QTextStream& out, QTextStream& err) {
  if (args.isEmpty()) {
    err << "kestrel-info coord: give the text to read, e.g. kestrel-info coord \"37.42N, "
           "122.08W\"\n";
    return 2;
  }
  for (qsizetype i = 0; i < args.size(); ++i) {
    if (i > 0) out << '\n';
    describe(args[i], out);
  }
  return 0;
}

void tourCoord(QTextStream& out) {
  for (const char* text : {"37\xC2\xB0"
                           "25'19.5\"",
                           "s 33.9", "37.42N, 122.08W", "+12,5 -3,25", "95N 10E"}) {
    describe(QString::fromUtf8(text), out);
    out << '\n';
  }
  out << "map zoom: distance 375 -> zoom " << DistanceToMapsZoom(375.0) << ", zoom 0 -> distance "
      << QString::number(MapsZoomToDistance(0), 'f', 0) << '\n';
}

const Command kCoord{"coord",
                     "reads a text as an angle, a latitude, a longitude and a pair",
                     "coord <text> [<text> ...]\n"
                     "  Shows what each text reads as: an angle (decimal degrees, degrees and\n"
                     "  minutes, or degrees, minutes and seconds, with point or comma decimals),\n"
                     "  a latitude (N/S before or after, or a sign), a longitude (E/W or a sign)\n"
                     "  and a latitude/longitude pair, with the form that read it - or why not.\n"
                     "  Quote a text that holds blanks or quote marks.\n",
                     runCoord,
                     tourCoord,
                     50};

}  // namespace

KESTREL_INFO_COMMAND(kCoord);

}  // namespace kestrel::info
