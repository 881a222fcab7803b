// The argument checks of the virtual channels: the exception type (the Python
// layer maps it) and the message. A refused construction can't leave a channel
// registered: IteratorBase's destructor gives back what was registered.

#include <chronotick/Coincidence.h>
#include <chronotick/Coincidences.h>
#include <chronotick/ConstantFractionDiscriminator.h>
#include <chronotick/DelayedChannel.h>
#include <chronotick/EventGenerator.h>
#include <chronotick/GatedChannel.h>

#include "support/VirtualChannelChecks.h"

#include <gtest/gtest.h>

using namespace chronotick;
using namespace chronotick::testing;

TEST(VirtualChannelArguments, RefusedWithTheirMessage) {
  TestTagger tagger;
  using Cfd = ConstantFractionDiscriminator;
  const auto runtime = [](auto make) { return messageOf<std::runtime_error>(make); };
  const auto invalid = [](auto make) { return messageOf<std::invalid_argument>(make); };
  const auto generator = [&](std::uint64_t divider, std::uint64_t offset) {
    return runtime([&] { EventGenerator bad(&tagger, 1, {0}, divider, offset, CHANNEL_UNUSED); });
  };
  const std::string zero_divider = "negative or zero trigger dividers are not supported";
  const std::pair<std::string, std::string> cases[] = {
      {runtime([&] {
         Coincidences c(&tagger, {{1, 2}}, 100, static_cast<CoincidenceTimestamp>(4));
       }),
       "invalid coincidence timestamp type"},
      {runtime([&] { Coincidences c(&tagger, {}, 100); }), "coincidences groups are empty"},
      {runtime([&] {
         Coincidences c(&tagger, {{1, 2}, {}}, 100);
       }),
       "one of the groups is empty"},
      {runtime([&] { Coincidence c(&tagger, {}, 100); }), "one of the groups is empty"},
      {invalid([&] { Cfd c(&tagger, {1}, 0); }), "search_window must be at least 1 ps"},
      {invalid([&] { Cfd c(&tagger, {1}, -7); }), "search_window must be at least 1 ps"},
      {invalid([&] {
         Cfd c(&tagger, {1, 9}, 100);
       }),
       "Channel number 9 has no inverted edge required for the CFD"},
      {runtime([&] {
         DelayedChannel c(&tagger, std::vector<std::int32_t>{1, 2, 1}, 10);
       }),
       "redundant channels are not permitted"},
      {generator(0, 0), zero_divider},
      {generator((std::uint64_t(1) << 63) + 1, 0), zero_divider}, // negative as a signed number
      {generator(3, 3), "divider_offset must be smaller than trigger_divider"},
      {runtime([&] { GatedChannel c(&tagger, 1, 2, 2); }), "Gate start and stop channel must not be the same."},
  };
  for (const auto &[got, expected] : cases)
    EXPECT_EQ(got, expected);
}
