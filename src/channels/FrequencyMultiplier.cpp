#include <chronotick/ChronotickBase.h>
#include <chronotick/FrequencyMultiplier.h>

#include "channels/TagTime.h"

namespace chronotick {

FrequencyMultiplier::FrequencyMultiplier(ChronotickBase *tagger_, std::int32_t input_channel_, std::int32_t multiplier_)
    : IteratorBase(tagger_), input_channel(input_channel_), multiplier(multiplier_ < 2 ? 1 : multiplier_) {
  output_channel = getNewVirtualChannel();
  registerChannel(input_channel);
  last_time = 0;
  previous_time = 0;
  next_time = 0;
  counter = 0;
  finishInitialization();
}

FrequencyMultiplier::~FrequencyMultiplier() {
  stop();
}

std::int32_t FrequencyMultiplier::getChannel() {
  return output_channel;
}

std::int32_t FrequencyMultiplier::getMultiplier() {
  return multiplier;
}

std::int64_t FrequencyMultiplier::getNextExtrapolatedTag() {
  if (previous_time == 0 || counter + 1 >= multiplier)
    return 0;
  counter += 1;
  // Product first, so that the rounding error doesn't build up along the period.
  return last_time + ((last_time - previous_time) * counter) / multiplier;
}

void FrequencyMultiplier::insertExtrapolatedTag() {
  output.push_back(Tag{Tag::Type::TimeTag, 0, 0, output_channel, next_time});
  next_time = getNextExtrapolatedTag();
}

bool FrequencyMultiplier::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  output.clear();
  for (const Tag &tag : tags) {
    while (next_time > 0 && tagTimeBefore(next_time, tag.time))
      insertExtrapolatedTag();
    output.push_back(tag);
    if (tag.type != Tag::Type::TimeTag) {
      // The period across a break means nothing: wait for two fresh inputs.
      last_time = previous_time = next_time = 0;
      counter = 0;
      continue;
    }
    if (tag.channel != input_channel)
      continue;
    previous_time = last_time;
    last_time = tag.time;
    if (previous_time > 0)
      output.push_back(Tag{Tag::Type::TimeTag, 0, 0, output_channel, tag.time});
    if (multiplier < 2 || previous_time <= 0) {
      // No period yet after the first input: nothing to extrapolate.
      counter = 0;
      next_time = 0;
    } else {
      counter = 1;
      next_time = last_time + (last_time - previous_time) / multiplier;
    }
  }
  while (next_time > 0 && tagTimeBefore(next_time, end_time))
    insertExtrapolatedTag();
  tags.swap(output);
  return true;
}

} // namespace chronotick
