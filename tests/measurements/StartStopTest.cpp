#include <chronotick/StartStop.h>

#include "support/MeasurementHelpers.h"

#include <limits>
#include <map>

using namespace chronotick;
using namespace chronotick::testing;

namespace {

using Rows = std::vector<std::int64_t>; // (lower edge, count) pairs, flattened

const auto rowsOf = [](StartStop &ss) { return fetch(ss, &StartStop::getData); };

// Each click is paired with the start it finds looking back: the nearest tag
// of the start channel (of any type), unless a click or a break stands in
// between. A start at time 0 is no start.
Rows reference(const std::vector<Tag> &tags, std::int32_t click, std::int32_t start, std::int64_t binwidth) {
  std::map<std::int64_t, std::int64_t> bins;
  for (std::size_t j = 0; j < tags.size(); ++j) {
    if (tags[j].type != Tag::Type::TimeTag || tags[j].channel != click)
      continue;
    for (std::size_t k = j; k-- > 0;) {
      if (tags[k].channel == start) {
        if (tags[k].time != 0) {
          const std::uint64_t diff = static_cast<std::uint64_t>(tags[j].time - tags[k].time);
          ++bins[binwidth > 0 ? static_cast<std::int64_t>(diff / static_cast<std::uint64_t>(binwidth)) : 0];
        }
        break;
      }
      if (tags[k].type != Tag::Type::TimeTag || tags[k].channel == click)
        break;
    }
  }
  Rows rows;
  for (const auto &[bin, count] : bins) {
    rows.push_back(bin * binwidth);
    rows.push_back(count);
  }
  return rows;
}

} // namespace

TEST(StartStop, MatchesLookBackPairingInEveryModeAndAnyBlockCuts) {
  using Mode = FastBinning::Mode;
  const std::uint64_t top = static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());
  // Identity, PowerOfTwo, MulHigh64 (274177 divides 2^64 + 1), Div64, and a
  // negative width that acts as a huge divisor: everything in bin 0.
  const std::vector<std::pair<std::int64_t, Mode>> widths = {
      {1, Mode::Identity}, {64, Mode::PowerOfTwo}, {274177, Mode::MulHigh64}, {7, Mode::Div64}, {-5, Mode::AlwaysZero}};
  RandomStreamShape shape;
  shape.n_channels = 3;
  std::uint64_t seed = 300;
  for (const auto &[binwidth, mode] : widths) {
    EXPECT_EQ(FastBinning(static_cast<std::uint64_t>(binwidth), top).getMode(), mode);
    shape.max_gap = binwidth == 274177 ? 4 * binwidth : 400;
    for (std::int32_t start : {2, 1}) { // start on its own channel, then on the click channel
      const std::vector<Tag> tags = randomTagStream(4000, ++seed, shape);
      const Rows expected = reference(tags, 1, start, binwidth);
      EXPECT_GT(expected.size(), binwidth > 0 ? 10u : 1u);
      for (const auto &cuts : cutSets(tags.size(), 40, seed))
        EXPECT_EQ(runCut<StartStop>(tags, cuts, rowsOf, 1, start, binwidth), expected)
            << "binwidth " << binwidth << " start " << start << " cuts " << cuts.size();
    }
  }
}

TEST(StartStop, PairingEdges) {
  TestTagger tagger;
  StartStop ss(&tagger, 1, 2, 10);
  StartStop unused_start(&tagger, 1, CHANNEL_UNUSED, 10); // successive intervals on channel 1
  std::vector<std::size_t> shape;
  EXPECT_TRUE(fetch(ss, &StartStop::getData, &shape).empty());
  EXPECT_EQ(shape, (std::vector<std::size_t>{0, 2}));

  tagger.pushAndWait({tt(2, 100), tt(2, 150), tt(1, 250), tt(1, 260), // the later start wins; second click ignored
                      tt(2, 300), makeTag(0, 310, Tag::Type::OverflowBegin), tt(1, 320), // break drops the start
                      makeTag(2, 400, Tag::Type::MissedEvents, 1), tt(1, 437),           // a MissedEvents start
                      tt(2, 500), tt(1, 500),                                            // difference 0
                      tt(2, 100000), tt(1, 1000000)},                                    // far bins come out sorted
                     0, 2000000);
  EXPECT_EQ(rowsOf(ss), (Rows{0, 1, 30, 1, 100, 1, 900000, 1}));
  // Successive intervals of channel 1, where no break stands between:
  // 250 to 260, 437 to 500, 500 to 1000000.
  EXPECT_EQ(rowsOf(unused_start), (Rows{10, 1, 60, 1, 999500, 1}));

  // A stop and start drops the open start; clear empties the bins.
  tagger.pushAndWait({tt(2, 2000100)}, 2000000, 2000200);
  ss.stop();
  ss.start();
  tagger.pushAndWait({tt(1, 2000300)}, 2000200, 2000400);
  EXPECT_EQ(rowsOf(ss), (Rows{0, 1, 30, 1, 100, 1, 900000, 1}));
  ss.clear();
  EXPECT_TRUE(rowsOf(ss).empty());
  // Bins hit before the clear start again from nothing.
  tagger.pushAndWait({tt(2, 2000500), tt(1, 2000800), tt(2, 2000900), tt(1, 2000900)}, 2000400, 2001000);
  EXPECT_EQ(rowsOf(ss), (Rows{0, 1, 300, 1}));
}
