// Number text forms shared by the settings: reals written exactly as printf's
// %g writes them, and decimal integers read the way a text stream reads them
// but saturating instead of wrapping. Internal to the library.
#pragma once

#include <QString>
#include <QStringView>

#include <optional>

namespace kestrel::settings_detail {

// What printf("%g", value) writes in the C locale, whatever the process
// locale is: six significant digits, fixed or exponent notation as %g picks,
// ties rounded as printf rounds them (on the exact binary value), "-0" kept,
// "inf", "-inf", "nan".
QString realText(double value);

// Reads one decimal integer of `text` starting at `pos`, as a text stream
// reads an int: white space (QChar::isSpace) is skipped, then an optional
// '+' or '-', then decimal digits of any script (QChar::isDigit). A value
// beyond the int range saturates at its limit. Returns the value and leaves
// `pos` after the last digit; without a digit returns nothing, and `pos`
// stays after the white space and the sign, which are consumed.
std::optional<int> readInt(QStringView text, qsizetype& pos);

}  // namespace kestrel::settings_detail
