// The argument checks of every measurement, by message.

#include <chronotick/Counter.h>
#include <chronotick/Flim.h>
#include <chronotick/Histogram.h>
#include <chronotick/Histogram2D.h>
#include <chronotick/StartStop.h>
#include <chronotick/TimeDifferences.h>
#include <chronotick/TimeDifferencesND.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;

TEST(MeasurementArguments, RefusedWithTheirMessage) {
  TestTagger tagger;
  using C = std::vector<std::int32_t>;
  const std::string mismatch = "dimension mismatch of input arguments";
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { Counter(&tagger, {3}, 0, 0); }, "binwidth must be at least 1 ps"}, // binwidth first
      {[&] { Counter(&tagger, {3}, 1, 0); }, "n_values must be at least 1"},
      {[&] { Histogram(&tagger, 1, 2, 10, 0); }, "n_bins must be at least 1"},
      {[&] { StartStop(&tagger, 1, 2, 0); }, "binwidth must not be 0"},
      {[&] { Flim(&tagger, 1, 2, 3, 10, 10, 0); }, "n_histograms must be at least 1"},
      {[&] { TimeDifferences(&tagger, 1, 2, 3, 4, 0, 0, 0); }, "binwidth must be at least 1 ps"},
      {[&] { TimeDifferences(&tagger, 1, 2, 3, 4, 1, 0, 0); }, "n_bins must be at least 1"},
      {[&] { TimeDifferences(&tagger, 1, 2, 3, 4, 1, 1, 0); }, "n_histograms must be at least 1"},
      // Rows of 2^16 bins: the 2^16 + 1st row would start beyond a 32-bit count.
      {[&] { TimeDifferences(&tagger, 1, 2, 3, 4, 1, 65536, 32768); },
       "n_bins times n_histograms must not exceed 2147483647"},
      {[&] { Histogram2D(&tagger, 1, 2, 3, 0, 100, 5, 4); }, "binwidth_1 and binwidth_2 must be at least 1 ps"},
      {[&] { Histogram2D(&tagger, 1, 2, 3, 10, 100, 5, 0); }, "n_bins_1 and n_bins_2 must be at least 1"},
      {[&] { Histogram2D(&tagger, 1, 2, 3, 10, 100, 65536, 32768); },
       "n_bins_1 times n_bins_2 must not exceed 2147483647"},
      {[&] {
         TimeDifferencesND(&tagger, 1, 2, C{3, 4}, C{5}, C{2, 2}, 10, 10);
       },
       mismatch},
      {[&] {
         TimeDifferencesND(&tagger, 1, 2, C{3, 4}, C{}, C{2}, 10, 10);
       },
       mismatch},
      {[&] { TimeDifferencesND(&tagger, 1, 2, C{3}, C{}, C{2}, 0, 10); }, "binwidth must be at least 1 ps"},
      {[&] { TimeDifferencesND(&tagger, 1, 2, C{3}, C{}, C{2}, 10, 0); }, "n_bins must be at least 1"},
      {[&] {
         TimeDifferencesND(&tagger, 1, 2, C{3, 4}, C{}, C{2, 0}, 10, 10);
       },
       "all elements of n_histograms must be at least 1"},
  };
  for (const auto &[make, message] : cases)
    EXPECT_EQ(messageOf(make), message);
}
