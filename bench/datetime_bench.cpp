// kestrel::DateTime ISO 8601 text against QDateTime (Qt::ISODate): parse,
// format, and the round trip parse + format, on the same texts in one run.
// The summary gives the ratio of QDateTime's CPU time to ours (above 1 means
// DateTime is faster); the target is the round trip at 2x or more.
#include "ratio_reporter.h"

#include <kestrel/datetime.h>

#include <QDateTime>
#include <QString>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

// Texts both readers accept: UTC, east and west offsets, half hours.
const std::vector<QString>& texts() {
  static const std::vector<QString> all = {
      QStringLiteral("2007-05-17T10:20:30Z"),      QStringLiteral("1994-11-06T08:49:37Z"),
      QStringLiteral("2024-02-29T23:59:59+02:00"), QStringLiteral("1969-07-20T20:17:40-05:00"),
      QStringLiteral("2000-01-01T00:00:01+05:30"), QStringLiteral("1601-12-31T12:00:00-09:30"),
      QStringLiteral("2038-01-19T03:14:07+14:00"), QStringLiteral("1970-01-01T00:00:00-12:00")};
  return all;
}

void BM_RoundTrip_DateTime(benchmark::State& state) {
  const auto& in = texts();
  std::size_t i = 0;
  kestrel::DateTime value;
  for (auto _ : state) {
    in[i++ % in.size()] >> value;
    QString out = value.toString();
    benchmark::DoNotOptimize(out);
  }
}

void BM_RoundTrip_QDateTime(benchmark::State& state) {
  const auto& in = texts();
  std::size_t i = 0;
  for (auto _ : state) {
    QString out = QDateTime::fromString(in[i++ % in.size()], Qt::ISODate).toString(Qt::ISODate);
    benchmark::DoNotOptimize(out);
  }
}

void BM_Parse_DateTime(benchmark::State& state) {
  const auto& in = texts();
  std::size_t i = 0;
  kestrel::DateTime value;
  for (auto _ : state) {
    in[i++ % in.size()] >> value;
    benchmark::DoNotOptimize(value);
  }
}

void BM_Parse_QDateTime(benchmark::State& state) {
  const auto& in = texts();
  std::size_t i = 0;
  for (auto _ : state) {
    QDateTime value = QDateTime::fromString(in[i++ % in.size()], Qt::ISODate);
    benchmark::DoNotOptimize(value);
  }
}

void BM_Format_DateTime(benchmark::State& state) {
  std::vector<kestrel::DateTime> values(texts().size());
  for (std::size_t k = 0; k < values.size(); ++k) texts()[k] >> values[k];
  std::size_t i = 0;
  for (auto _ : state) {
    QString out = values[i++ % values.size()].toString();
    benchmark::DoNotOptimize(out);
  }
}

void BM_Format_QDateTime(benchmark::State& state) {
  std::vector<QDateTime> values;
  for (const QString& text : texts()) values.push_back(QDateTime::fromString(text, Qt::ISODate));
  std::size_t i = 0;
  for (auto _ : state) {
    QString out = values[i++ % values.size()].toString(Qt::ISODate);
    benchmark::DoNotOptimize(out);
  }
}

BENCHMARK(BM_RoundTrip_DateTime);
BENCHMARK(BM_RoundTrip_QDateTime);
BENCHMARK(BM_Parse_DateTime);
BENCHMARK(BM_Parse_QDateTime);
BENCHMARK(BM_Format_DateTime);
BENCHMARK(BM_Format_QDateTime);

void printRatio(const kestrel::bench::RatioReporter& r, const char* what, double limit) {
  r.printRatio(std::string("BM_") + what + "_DateTime", std::string("BM_") + what + "_QDateTime",
               limit);
}

}  // namespace

int main(int argc, char** argv) {
  return kestrel::bench::runWithRatios(
      argc, argv, [](const kestrel::bench::RatioReporter& reporter) {
        // At least twice as fast as QDateTime is a time ratio of at most 0.5.
        std::printf("\nCPU time per text, kestrel::DateTime / QDateTime (Qt::ISODate)\n");
        printRatio(reporter, "RoundTrip", 0.5);
        printRatio(reporter, "Parse", 0);
        printRatio(reporter, "Format", 0);
      });
}
