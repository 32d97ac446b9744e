// IntHistogram binning and summaries, and IntHistogramSetting.
#include "settings/settings_test_support.h"

#include <limits>

namespace kestrel::test {
namespace {

constexpr int kMin = std::numeric_limits<int>::min();
constexpr int kMax = std::numeric_limits<int>::max();

// Every slot of the count list: bins, then overflow, then underflow.
std::vector<int> slotCounts(const IntHistogram& h) {
  std::vector<int> counts;
  for (int i = 0; i < h.getBinCount() + 2; ++i) counts.push_back(h.getSampleCount(i));
  return counts;
}

TEST(IntHistogram, SamplesLandInTheirBinOrOverflowOrUnderflow) {
  // clang-format off
  const struct {
    int minValue, maxValue, binCount, sample;
    int slot;  // binCount: overflow, binCount + 1: underflow
  } rows[] = {
      {0, 100, 10, 0, 0},   {0, 100, 10, 9, 0},  {0, 100, 10, 10, 1},  {0, 100, 10, 99, 9},
      {0, 100, 10, 100, 10}, {0, 100, 10, -1, 11}, {-50, 50, 4, -25, 1}, {-50, 50, 4, -51, 5},
      // Truncated width: 0..10 in 3 bins of width 3, so 9 has no bin.
      {0, 10, 3, 8, 2},      {0, 10, 3, 9, 3},      {0, 19, 10, 9, 9},     {0, 19, 10, 18, 10},
      // The full int range: widths and offsets do not fit an int.
      {kMin, kMax, 4, 0, 2}, {kMin, kMax, 4, kMin, 0}, {kMin, kMax, 4, kMax, 4},
      // One bin over a range wider than an int: the width itself needs 64 bits.
      {-2000000000, 2000000000, 1, 0, 0},     {-2000000000, 2000000000, 1, -2000000000, 0},
      {-2000000000, 2000000000, 1, 1999999999, 0}, {-2000000000, 2000000000, 1, 2000000000, 1},
      {kMin, kMax, 1, kMin, 0},  {kMin, kMax, 1, kMax - 1, 0},  {kMin, kMax, 1, kMax, 1},
      // Width 2147483647: the truncated width leaves kMax - 1 without a bin.
      {kMin, kMax, 2, -2, 0},    {kMin, kMax, 2, -1, 1},  {kMin, kMax, 2, kMax - 2, 1},
      {kMin, kMax, 2, kMax - 1, 2}};
  // clang-format on
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.minValue << ".." << row.maxValue << " x" << row.binCount
                                    << " sample " << row.sample);
    IntHistogram h(row.minValue, row.maxValue, row.binCount);
    h.addIntSample(row.sample);
    std::vector<int> expected(static_cast<std::size_t>(row.binCount) + 2, 0);
    expected[static_cast<std::size_t>(row.slot)] = 1;
    EXPECT_EQ(slotCounts(h), expected);
  }
}

TEST(IntHistogram, SummaryUpdatesAndOutOfRangeCounts) {
  IntHistogram h(0, 100, 10);
  h.updateMinSample(50);  // no samples yet: taken as is, bins and average untouched
  h.updateMaxSample(5);
  EXPECT_EQ(h.getMinSample(), 50);
  EXPECT_EQ(h.getMaxSample(), 5);
  EXPECT_EQ(h.getAvgSample(), -1.0f);
  EXPECT_EQ(slotCounts(h), std::vector<int>(12, 0));

  for (int sample : {20, 200, 100, -20}) h.addIntSample(sample);
  h.updateMinSample(30);  // not lower: kept
  h.updateMaxSample(10);  // not higher: kept
  EXPECT_EQ(h.getMinSample(), -20);
  EXPECT_EQ(h.getMaxSample(), 200);
  h.updateMinSample(-30);
  h.updateMaxSample(500);
  EXPECT_EQ(h.getMinSample(), -30);
  EXPECT_EQ(h.getMaxSample(), 500);
  EXPECT_EQ(h.getNumSamples(), 4u);
  EXPECT_FLOAT_EQ(h.getAvgSample(), 75.0f) << "out-of-range samples count in the summary";
  EXPECT_EQ(h.getOverflowSampleCount(), 2);
  EXPECT_EQ(h.getUnderflowSampleCount(), 1);
  EXPECT_EQ(h.getSampleCount(12), 0) << "past the count list";
  EXPECT_EQ(h.getSampleCount(-1), 0);
}

TEST(IntHistogram, CopiesShareBinsAndHistogramsWithoutBinsIgnoreSamples) {
  IntHistogram original(0, 10, 2);
  IntHistogram copy(original);
  copy.addIntSample(1);
  IntHistogram assigned;
  assigned = original;
  assigned.addIntSample(7);
  EXPECT_EQ(slotCounts(original), (std::vector<int>{1, 1, 0, 0}));
  EXPECT_EQ(original.getNumSamples(), 0u) << "the summary is each copy's own";
  EXPECT_EQ(copy.getNumSamples(), 1u);

  IntHistogram none;
  IntHistogram zeroBins(0, 10, 0);
  IntHistogram negativeBins(0, 10, -5);
  for (IntHistogram* h : {&none, &zeroBins, &negativeBins}) {
    h->addIntSample(3);
    EXPECT_EQ(h->getNumSamples(), 0u);
    EXPECT_EQ(h->getMinSample(), -1);
    EXPECT_EQ(h->getBinCount(), 0);
    EXPECT_EQ(h->getOverflowSampleCount() + h->getUnderflowSampleCount(), 0);
  }
  EXPECT_EQ(none.getMaxValue(), 0);
}

using HistogramSetting = SettingsTest;

TEST_F(HistogramSetting, TextAndLogForms) {
  SettingGroup group(QStringLiteral("hist.forms"));
  const char* const head = "&fps-minv:i=0&fps-maxv:i=100&fps-bins:i=10";
  // clang-format off
  const struct {
    std::vector<int> samples;
    const char *text, *log;
  } rows[] = {
      {{}, "-1 -1 -1", "&fps-mins:i=-1&fps-maxs:i=-1&fps-avgs:i=-1"},
      {{24, 30, 30, 60, 120, -3}, "-3 120 43.5",
       "&fps-mins:i=-3&fps-maxs:i=120&fps-avgs:i=43&fps-2:i=1&fps-3:i=2&fps-6:i=1"},
      // The average as printf %g writes it: 1000005 is a tie, rounded to even.
      {{1000005}, "1000005 1000005 1e+06", "&fps-mins:i=1000005&fps-maxs:i=1000005&fps-avgs:i=1000005"},
      {{12345, 12346}, "12345 12346 12345.5", "&fps-mins:i=12345&fps-maxs:i=12346&fps-avgs:i=12345"}};
  // clang-format on
  for (const auto& row : rows) {
    IntHistogram histogram(0, 100, 10);
    IntHistogramSetting setting(group, QStringLiteral("fps"), histogram, true, false);
    for (int sample : row.samples) setting.addIntSample(sample);
    EXPECT_EQ(setting.toString(), QLatin1String(row.text));
    EXPECT_EQ(setting.toLogString(), QLatin1String(head) + QLatin1String(row.log));
  }
}

TEST_F(HistogramSetting, SamplesAlwaysNotifyButThereIsNoValueToSetOrRestore) {
  SettingGroup group(QStringLiteral("hist.notify"));
  IntHistogram empty;  // default-constructed: samples change nothing
  IntHistogramSetting setting(group, QStringLiteral("h"), empty, false, false);
  RecordingSettingObserver watcher(&setting);
  RecordingGroupObserver groupWatcher(&group);
  int caller = 0;
  Setting::sCurrentModifier = &caller;

  Setting::pushAllSettings();
  setting.addIntSample(5);
  EXPECT_EQ(setting.getModifier(), &caller);
  Setting::sCurrentModifier = nullptr;
  setting.updateMinSample(1);
  setting.updateMaxSample(9);
  EXPECT_EQ(setting.getModifier(), nullptr);
  setting.fromString(QStringLiteral("1 2 3"));
  setting.setVal(7.0);
  setting.pushSetting();
  EXPECT_FALSE(setting.popSetting());
  EXPECT_TRUE(Setting::sRestoreList.first().isEmpty());
  EXPECT_TRUE(Setting::popAllSettings());

  EXPECT_EQ(watcher.changed, 3);
  EXPECT_EQ(groupWatcher.changed, 3);
  EXPECT_EQ(groupWatcher.lastSetting, &setting);
  EXPECT_EQ(setting.getVal(), 0.0);
  EXPECT_EQ(empty.getNumSamples(), 0u);
  EXPECT_EQ(empty.getMinSample(), 1) << "updateMinSample works without bins";
  EXPECT_EQ(setting.toLogString(),
            QStringLiteral("&h-minv:i=0&h-maxv:i=0&h-bins:i=0&h-mins:i=1&h-maxs:i=9&h-avgs:i=-1"));
}

}  // namespace
}  // namespace kestrel::test
