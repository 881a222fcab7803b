#include <chronotick/Countrate.h>

#include "support/MeasurementHelpers.h"

using namespace chronotick;
using namespace chronotick::testing;
using D = std::vector<double>;
using I = std::vector<std::int64_t>;

static const auto ratesOf = [](Countrate &c) { return fetch(c, &Countrate::getData); };
static const auto totalsOf = [](Countrate &c) { return fetch(c, &Countrate::getCountsTotal); };

TEST(Countrate, AnchoringMissedEventsAndErrors) {
  TestTagger tagger;
  Countrate c(&tagger, {1, 2, 1});
  // Nothing seen: 0.0, no division by zero.
  EXPECT_EQ(ratesOf(c), D(3, 0.0));

  // A block beginning at 0 leaves the anchor open; the first matching tag
  // sets it. Overflow marks are ignored, MissedEvents count their events.
  tagger.pushAndWait({tt(3, 100), tt(1, 1000000), makeTag(0, 1500000, Tag::Type::OverflowBegin),
                      makeTag(2, 1600000, Tag::Type::MissedEvents, 500), makeTag(0, 1700000, Tag::Type::OverflowEnd),
                      tt(2, 1800000)},
                     0, 3000000);
  // Span 1 us to 3 us.
  EXPECT_EQ(ratesOf(c), (D{1 * 1e12 / 2e6, 501 * 1e12 / 2e6, 1 * 1e12 / 2e6}));
  EXPECT_EQ(totalsOf(c), (I{1, 501, 1}));

  // An Error restarts the rate at the next matching tag; the totals go on.
  tagger.pushAndWait(
      {tt(1, 3500000), makeTag(0, 4000000, Tag::Type::Error), tt(3, 4500000), tt(2, 5000000), tt(1, 6000000)}, 3000000,
      9000000);
  EXPECT_EQ(ratesOf(c), (D{1 * 1e12 / 4e6, 1 * 1e12 / 4e6, 1 * 1e12 / 4e6}));
  EXPECT_EQ(totalsOf(c), (I{3, 502, 3}));

  // An Error without a later tag: the anchor falls on the block's end, and
  // the next block's span counts from there.
  tagger.pushAndWait({makeTag(0, 9500000, Tag::Type::Error)}, 9000000, 10000000);
  EXPECT_EQ(ratesOf(c), D(3, 0.0));
  tagger.pushAndWait({tt(2, 10500000)}, 10000000, 12000000);
  EXPECT_EQ(ratesOf(c), (D{0.0, 1e12 / 2e6, 0.0}));

  // start begins afresh, the totals included.
  c.stop();
  c.start();
  EXPECT_EQ(totalsOf(c), I(3, 0));
  tagger.pushAndWait({tt(1, 12500000), tt(1, 13000000)}, 12000000, 14000000);
  EXPECT_EQ(ratesOf(c), (D{2e12 / 2e6, 0.0, 2e12 / 2e6}));
}

TEST(Countrate, TotalsMatchAPlainCountOverRandomBlocks) {
  const std::vector<Tag> tags = randomTagStream(20000, 3);
  // A list with a repeat is scanned, one without is looked up in a table.
  for (const std::vector<std::int32_t> &channels :
       {std::vector<std::int32_t>{2, 5, 7, 5}, std::vector<std::int32_t>{8, 3, 1}}) {
    I expected(channels.size(), 0);
    for (const Tag &t : tags)
      for (std::size_t i = 0; i < channels.size(); ++i)
        if (t.channel == channels[i] && (t.type == Tag::Type::TimeTag || t.type == Tag::Type::MissedEvents))
          expected[i] += t.type == Tag::Type::MissedEvents ? t.missed_events : 1;
    EXPECT_EQ(runCut<Countrate>(tags, randomCuts(tags.size(), 50, 9), totalsOf, channels), expected);
  }
}
