// Coordinates: angles, latitudes, longitudes and latitude/longitude pairs
// typed or pasted as text, turned into degrees.
//
// Which type to use:
//   LatLngValue   one unsigned angle (0 to 180 degrees);
//   LatValue      a latitude: an angle with N/S before or after it, or a sign;
//   LngValue      a longitude: the same with E/W;
//   LatLngPair    a latitude and a longitude in one text, in either order
//                 when hemisphere letters say which is which, latitude first
//                 when signs are used; the latitude must lie in -90 .. 90.
//
// Accepted angle notations (the whole text must be one of them; surrounding
// text makes it fail):
//   decimal degrees          37.4219   37.4219°   37,5 (comma decimal)
//   degrees, minutes         37°25.5'  37 25.5`   37°25,5'
//   degrees, minutes, secs   37°25'19.5"  37 25 19.5''  37°25'19,5"
// The degree mark is U+00B0; minutes take ` or '; seconds take " or ''.
// Whole degrees lie in 0 .. 180, minutes and seconds in 0 .. 60 (60 itself
// is accepted: "12 60" is 13 degrees).
//
// LatLngPair::kREPattern finds a pair inside longer text (a regular
// expression with one capture around the pair; point decimals only).
//
// Example:
//
//   double lat = 0, lng = 0;
//   if (kestrel::LatLngPair::Parse(QStringLiteral("37.42N, 122.08W"), &lat, &lng)) {
//     // lat == 37.42, lng == -122.08
//   }
//   double south = 0;
//   kestrel::LatValue::Parse(QStringLiteral("s 33.9"), &south);  // -33.9
//
// Failure: every parser answers false and leaves its output untouched; nothing
// is logged or thrown. Output pointers may be null (the text is then only
// checked).
//
// Thread-safety: the compiled patterns are built once, on first use, and
// shared read-only; the static Parse functions may be called from any number
// of threads at once. A parser object belongs to one thread at a time.
#pragma once

#include <kestrel/export.h>

#include <QRegularExpression>
#include <QString>

namespace kestrel {

// The six whole-text patterns of a single angle, in the order
// point DF, point DMF, point DMSF, comma DF, comma DMF, comma DMSF
// (D degrees, M minutes, S seconds, F fraction). Captures:
//   pointDF   1 degrees
//   pointDMF  1 whole degrees, 2 minutes
//   pointDMSF 1 whole degrees, 2 whole minutes, 3 seconds
//   commaDF   1 whole degrees, 2 decimal digits
//   commaDMF  1 whole degrees, 2 whole minutes, 3 decimal digits
//   commaDMSF 1 whole degrees, 2 whole minutes, 3 whole seconds, 4 decimal digits
class KESTREL_EXPORT LatLngValuePatterns {
 public:
  // The one instance, built on first use and kept until the process ends.
  // Never null; safe to call from any thread.
  static const LatLngValuePatterns* GetSingleton();

  const QRegularExpression pointDF;
  const QRegularExpression pointDMF;
  const QRegularExpression pointDMSF;
  const QRegularExpression commaDF;
  const QRegularExpression commaDMF;
  const QRegularExpression commaDMSF;

 private:
  LatLngValuePatterns();
};

// The three whole-text patterns of a latitude or a longitude (point decimals):
//   directionAfter   1 angle, 2 letter      e.g. "45N", "122.08 w"
//   directionBefore  1 letter, 2 angle      e.g. "S 33.9"
//   signBefore       1 sign (may be empty), 2 angle   e.g. "-122.08", "45"
class KESTREL_EXPORT SignedAnglePatterns {
 public:
  const QRegularExpression directionAfter;
  const QRegularExpression directionBefore;
  const QRegularExpression signBefore;

 protected:
  // `letters` is the character class of the hemisphere letters, e.g. "NSns".
  explicit SignedAnglePatterns(const char* letters);
};

// Latitude patterns: letters N, S, n, s.
class KESTREL_EXPORT LatValuePatterns : public SignedAnglePatterns {
 public:
  // The one instance, built on first use; never null; thread-safe.
  static const LatValuePatterns* GetSingleton();

 private:
  LatValuePatterns();
};

// Longitude patterns: letters E, W, e, w.
class KESTREL_EXPORT LngValuePatterns : public SignedAnglePatterns {
 public:
  // The one instance, built on first use; never null; thread-safe.
  static const LngValuePatterns* GetSingleton();

 private:
  LngValuePatterns();
};

// The six whole-text patterns of a pair, in the order point DA, point DB,
// point SB, comma DA, comma DB, comma SB (DA letter after each value, DB
// letter before, SB optional sign before). Captures: DA 1 value, 2 letter,
// 3 value, 4 letter; DB 1 letter, 2 value, 3 letter, 4 value; SB 1 sign,
// 2 value, 3 sign, 4 value. The two values may be separated by blanks and
// one ',' or '/', except in commaSB, which takes blanks only (so that
// "+12,5 -3,25" reads as 12.5 and -3.25).
class KESTREL_EXPORT LatLngPairPatterns {
 public:
  // The one instance, built on first use; never null; thread-safe.
  static const LatLngPairPatterns* GetSingleton();

  const QRegularExpression pointDA;
  const QRegularExpression pointDB;
  const QRegularExpression pointSB;
  const QRegularExpression commaDA;
  const QRegularExpression commaDB;
  const QRegularExpression commaSB;

 private:
  LatLngPairPatterns();
};

// One unsigned angle in degrees, 0 .. 180 (a little more with a comma
// fraction: "180,5" is 180.5).
class KESTREL_EXPORT LatLngValue {
 public:
  // A parser that only keeps its result (getValue()).
  LatLngValue();
  // A parser that also writes its result through `degrees` (may be null).
  explicit LatLngValue(double* degrees);

  // True when `text` is an angle in one of the accepted notations; the value
  // is then written through `degrees` if it is not null. On failure nothing
  // is written.
  static bool Parse(const QString& text, double* degrees);

  // Tries point DMSF, DMF, DF, then comma DMSF, DMF, DF; on success keeps
  // the value and writes it through the output pointer (if any).
  bool ParseFrom(const QString& text);

  // The single forms: true when `text` matches the form (comma: the comma
  // decimal variant) and its numbers are in range; the value is then kept
  // in the object (not written through the output pointer).
  bool TryDF(const QString& text, bool comma);
  bool TryDMF(const QString& text, bool comma);
  bool TryDMSF(const QString& text, bool comma);

  // The number "0.<digits>"; -1.0 when that is not a number (for instance
  // when `digits` is empty or holds anything but ASCII digits).
  static double ConvertToFraction(const QString& digits);

  // The value of the last successful form (0 before any).
  double getValue() const { return mValue; }

 private:
  double* mOutput;
  double mValue;
  const LatLngValuePatterns* mPatterns;
};

// Common part of LatValue and LngValue: an angle with a hemisphere letter
// after it (DA), before it (DB), or a sign before it (SB). S, s, W and w and
// "-" make the value negative. No range test is made beyond the angle's own
// (a latitude of 95N is accepted here; LatLngPair checks its latitude).
class KESTREL_EXPORT SignedAngleValue {
 public:
  // Tries DA, DB, then SB; on success keeps the value and writes it through
  // the output pointer (if any). False, with nothing written, otherwise.
  bool ParseFrom(const QString& text);

  // The single forms; on success the value is kept in the object only.
  bool TryDA(const QString& text);
  bool TryDB(const QString& text);
  bool TrySB(const QString& text);

  // The value of the last successful form (0 before any).
  double getValue() const { return mValue; }

 protected:
  SignedAngleValue(double* output, const SignedAnglePatterns* patterns);

 private:
  double* mOutput;
  double mValue;
  const SignedAnglePatterns* mPatterns;
};

// A latitude: "45N", "n 45", "-33.9", "37°25'19.5\"S".
class KESTREL_EXPORT LatValue : public SignedAngleValue {
 public:
  LatValue();
  explicit LatValue(double* latitude);
  // True when `text` is a latitude; writes it through `latitude` (if not
  // null) on success only.
  static bool Parse(const QString& text, double* latitude);
};

// A longitude: "122.08W", "E 10", "+8.5".
class KESTREL_EXPORT LngValue : public SignedAngleValue {
 public:
  LngValue();
  explicit LngValue(double* longitude);
  // True when `text` is a longitude; writes it through `longitude` (if not
  // null) on success only.
  static bool Parse(const QString& text, double* longitude);
};

// A latitude and a longitude in one text: "37.42N, 122.08W",
// "122.08W 37.42N", "N37.42 / W122.08", "37.42 -122.08", "37,42N 122,08W".
class KESTREL_EXPORT LatLngPair {
 public:
  // A regular expression (point decimals) with one capture around a pair,
  // for finding a pair inside longer text; not anchored. 993 characters.
  static const QString kREPattern;

  LatLngPair();
  LatLngPair(double* latitude, double* longitude);

  // True when `text` is a pair whose latitude lies in -90 .. 90; then the
  // latitude and the longitude are written through the non-null pointers.
  // Nothing is written on failure.
  static bool Parse(const QString& text, double* latitude, double* longitude);

  // Tries point DA, DB, SB, then comma DA, DB, SB; the first form that
  // succeeds decides, and its latitude must lie in -90 .. 90.
  bool ParseFrom(const QString& text);

  // The single forms; on success latitude and longitude are kept in the
  // object only (no latitude range test here).
  //   DA/DB: one N/S and one E/W letter, in either order ("10E 20N" works);
  //          two latitude or two longitude letters fail.
  //   SB:    the latitude comes first.
  bool TryDA(const QString& text, bool comma);
  bool TryDB(const QString& text, bool comma);
  bool TrySB(const QString& text, bool comma);

  // The result of the last successful form (0 before any).
  double getLatitude() const { return mLatitude; }
  double getLongitude() const { return mLongitude; }

 private:
  double* mLatitudeOutput;
  double* mLongitudeOutput;
  double mLatitude;
  double mLongitude;
  const LatLngPairPatterns* mPatterns;
};

// The map zoom level (0 .. 19) for a viewing distance: 19 at 187.5 and
// below, one level less for each doubling. Not-a-number gives 0.
KESTREL_EXPORT int DistanceToMapsZoom(double distance);

// The viewing distance of a map zoom level: 2^(19 - zoom) * 187.5, with zoom
// clamped to 0 .. 19 (zoom 19 gives 187.5, zoom 0 gives 98304000).
KESTREL_EXPORT double MapsZoomToDistance(int zoom);

}  // namespace kestrel
