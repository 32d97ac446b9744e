// Coordinate pair parsing: kestrel::LatLngPair::Parse against GeographicLib's
// DMS::DecodeLatLon on the same pairs. GeographicLib takes the two halves as
// separate strings; they are split once before timing, so the peer's time
// holds no splitting. After the runs a summary prints the peer's CPU time over
// ours (target: at least 1, i.e. we are not slower).
//
// Run from a Release build, for instance
//   coordinates_bench --benchmark_repetitions=5
#include "ratio_reporter.h"

#include <kestrel/coordinates.h>

#include <benchmark/benchmark.h>
#include <GeographicLib/DMS.hpp>

#include <QString>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace {

// Notations both readers accept: decimal degrees, degrees-minutes and
// degrees-minutes-seconds, letters after or before, signs.
struct Sample {
  const char* whole;
  const char* first;
  const char* second;
};
const Sample kSamples[] = {
    {"37.42N, 122.08W", "37.42N", "122.08W"},
    {"122.08W 37.42N", "122.08W", "37.42N"},
    {"N37.42 W122.08", "N37.42", "W122.08"},
    {"37\xC2\xB0"
     "25'19.5\"N 122\xC2\xB0"
     "5'3\"W",
     "37\xC2\xB0"
     "25'19.5\"N",
     "122\xC2\xB0"
     "5'3\"W"},
    {"33\xC2\xB0"
     "52.2'S 151\xC2\xB0"
     "12.6'E",
     "33\xC2\xB0"
     "52.2'S",
     "151\xC2\xB0"
     "12.6'E"},
    {"-33.8688, 151.2093", "-33.8688", "151.2093"},
    {"48.8584 2.2945", "48.8584", "2.2945"},
    {"51.5007N/0.1246W", "51.5007N", "0.1246W"},
};

void BM_KestrelPair(benchmark::State& state) {
  std::vector<QString> texts;
  for (const Sample& s : kSamples) texts.push_back(QString::fromUtf8(s.whole));
  double lat = 0, lng = 0, sum = 0;
  for (auto _ : state) {
    for (const QString& text : texts) {
      if (!kestrel::LatLngPair::Parse(text, &lat, &lng)) state.SkipWithError("parse failed");
      sum += lat + lng;
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * static_cast<long>(texts.size()));
}
BENCHMARK(BM_KestrelPair);

void BM_GeographicLibDecodeLatLon(benchmark::State& state) {
  std::vector<std::pair<std::string, std::string>> halves;
  for (const Sample& s : kSamples) halves.emplace_back(s.first, s.second);
  double lat = 0, lng = 0, sum = 0;
  for (auto _ : state) {
    for (const auto& [first, second] : halves) {
      GeographicLib::DMS::DecodeLatLon(first, second, lat, lng);
      sum += lat + lng;
    }
  }
  benchmark::DoNotOptimize(sum);
  state.SetItemsProcessed(state.iterations() * static_cast<long>(halves.size()));
}
BENCHMARK(BM_GeographicLibDecodeLatLon);

}  // namespace

int main(int argc, char** argv) {
  // Build the patterns and check that both sides read every sample alike.
  for (const Sample& s : kSamples) {
    double lat = 0, lng = 0, peerLat = 0, peerLng = 0;
    const bool ok = kestrel::LatLngPair::Parse(QString::fromUtf8(s.whole), &lat, &lng);
    GeographicLib::DMS::DecodeLatLon(s.first, s.second, peerLat, peerLng);
    if (!ok || std::abs(lat - peerLat) > 1e-9 || std::abs(lng - peerLng) > 1e-9) {
      std::fprintf(stderr, "samples disagree on \"%s\"\n", s.whole);
      return 1;
    }
  }
  return kestrel::bench::runWithRatios(
      argc, argv, [](const kestrel::bench::RatioReporter& reporter) {
        // Parsing at least as fast as the peer is a time ratio of at most 1.
        std::printf("\nLatLngPair::Parse / GeographicLib DMS::DecodeLatLon, CPU time\n");
        reporter.printRatio("BM_KestrelPair", "BM_GeographicLibDecodeLatLon", 1.0);
      });
}
