// Real-number text forms checked against printf("%g") over many values.
#include "settings/settings_test_support.h"

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <random>

namespace kestrel::test {
namespace {

using NumberText = SettingsTest;

// Values where a formatter that rounds its own way goes wrong: exact binary
// ties at the sixth significant digit, carries into a new power of ten, the
// boundaries where %g switches notation, signed zeros, infinities and NaN.
std::vector<double> awkwardValues() {
  std::vector<double> values = {
      0.0,      -0.0,    1e-5,       1e-4,      0.0001, 99999.95,
      999999.5, 1e6,     9.999995e5, 1e-300,    5e-324, 1.7976931348623157e308,
      1e100,    -1e-100, INFINITY,   -INFINITY, NAN,    -NAN};
  for (int n = 100000; n < 102000; ++n) values.push_back(n + 0.5);
  for (int n = 1000000; n < 1002000; ++n) values.push_back(n);
  for (int n = 40000; n < 48000; ++n) values.push_back(n / 4.0);
  for (int n = -2000; n < 2000; ++n) values.push_back(n / 1024.0);
  for (int e = -320; e <= 308; ++e) {
    values.push_back(std::pow(10.0, e));
    values.push_back(-9.999995 * std::pow(10.0, e));
  }
  return values;
}

// Counts the values whose text differs from printf("%g"), reporting the first ten.
template <typename S, typename T>
int mismatchesWithPrintfG(S& setting, const std::vector<T>& values) {
  int wrong = 0;
  for (T value : values) {
    // set() ignores a value equal to the current one (-0.0 after 0.0).
    if (value == setting.get()) setting.set(value == T(1) ? T(2) : T(1));
    setting.set(value);
    char expected[64];
    std::snprintf(expected, sizeof expected, "%g", static_cast<double>(value));
    if (setting.toString() != QLatin1String(expected) && ++wrong <= 10) {
      ADD_FAILURE() << QString::number(static_cast<double>(value), 'g', 17).toStdString()
                    << " gives " << setting.toString().toStdString() << ", printf " << expected;
    }
  }
  return wrong;
}

TEST_F(NumberText, DoubleTextIsPrintfG) {
  SettingGroup group(QStringLiteral("number.double"));
  DoubleSetting setting(group, QStringLiteral("d"), 1.0, false, false);
  std::vector<double> values = awkwardValues();
  std::mt19937_64 random(20261122);
  for (int i = 0; i < 50000; ++i) values.push_back(std::bit_cast<double>(random()));
  std::uniform_real_distribution<double> mantissa(-10.0, 10.0);
  std::uniform_int_distribution<int> exponent(-12, 12);
  for (int i = 0; i < 50000; ++i)
    values.push_back(mantissa(random) * std::pow(10, exponent(random)));
  EXPECT_EQ(mismatchesWithPrintfG(setting, values), 0) << "of " << values.size() << " values";
}

TEST_F(NumberText, FloatTextIsPrintfGOfTheFloat) {
  SettingGroup group(QStringLiteral("number.float"));
  FloatSetting setting(group, QStringLiteral("f"), 1.0f, false, false);
  std::vector<float> values;
  for (double value : awkwardValues()) values.push_back(static_cast<float>(value));
  std::mt19937 random(1122);
  for (int i = 0; i < 100000; ++i)
    values.push_back(std::bit_cast<float>(static_cast<std::uint32_t>(random())));
  EXPECT_EQ(mismatchesWithPrintfG(setting, values), 0) << "of " << values.size() << " values";
}

}  // namespace
}  // namespace kestrel::test
