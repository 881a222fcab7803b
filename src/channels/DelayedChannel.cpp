#include <chronotick/DelayedChannel.h>

#include "channels/ChannelHashMap.h"
#include "channels/TagQueue.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace chronotick {

struct DelayedChannel::Pending {
  TagQueue queue;
  // Input to output, for lookups with more than three inputs.
  ChannelHashMap output_of_input;
};

DelayedChannel::DelayedChannel(ChronotickBase *tagger, std::int32_t input_channel, std::int64_t delay_)
    : IteratorBase(tagger), pending(std::make_unique<Pending>()), delay(delay_), positive(delay_ >= 0) {
  const std::int32_t output_channel = getNewVirtualChannel();
  inputs.push_back(input_channel);
  outputs.push_back(output_channel);
  pending->output_of_input.insert(input_channel, output_channel);
  channel_count = 1;
  registerChannel(input_channel);
  built = true;
  finishInitialization();
}

DelayedChannel::DelayedChannel(ChronotickBase *tagger, std::vector<std::int32_t> input_channels, std::int64_t delay_)
    : IteratorBase(tagger), pending(std::make_unique<Pending>()), delay(delay_), positive(delay_ >= 0) {
  for (std::int32_t channel : input_channels) {
    if (std::find(inputs.begin(), inputs.end(), channel) != inputs.end())
      throw std::runtime_error("redundant channels are not permitted");
    const std::int32_t output_channel = getNewVirtualChannel();
    inputs.push_back(channel);
    outputs.push_back(output_channel);
    pending->output_of_input.insert(channel, output_channel);
    registerChannel(channel);
  }
  channel_count = inputs.size();
  built = true;
  finishInitialization();
}

DelayedChannel::~DelayedChannel() {
  stop();
}

std::int32_t DelayedChannel::getChannel() {
  return outputs.empty() ? CHANNEL_UNUSED : outputs.front();
}

std::vector<std::int32_t> DelayedChannel::getChannels() {
  return outputs;
}

void DelayedChannel::setDelay(std::int64_t new_delay) {
  auto lk = getLock();
  if (new_delay == delay)
    return;
  if (built && new_delay < 0 && positive)
    throw std::invalid_argument("changing from a positive delay to a negative delay while running is not supported");
  const bool was_positive = positive;
  positive = new_delay >= 0;
  if (new_delay < 0 || new_delay >= delay) {
    // Queued tags keep their times. Those held back by a negative delay are
    // stream tags, which must not be treated as copies from here on.
    if (!was_positive && positive && !pending->queue.empty())
      holds_stream_tags = true;
  } else {
    pending->queue.clear();
    holds_stream_tags = false;
  }
  delay = new_delay;
}

void DelayedChannel::on_start() {
  pending->queue.clear();
  holds_stream_tags = false;
}

bool DelayedChannel::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  const bool linear = channel_count <= 3;
  if (positive) {
    if (linear)
      process<true, true>(tags, end_time);
    else
      process<true, false>(tags, end_time);
  } else {
    if (linear)
      process<false, true>(tags, end_time);
    else
      process<false, false>(tags, end_time);
  }
  return true;
}

template <bool positive_delay, bool linear_lookup>
void DelayedChannel::process(std::vector<Tag> &tags, std::int64_t end_time) {
  TagQueue &queue = pending->queue;
  const ChannelHashMap &map = pending->output_of_input;
  const std::int32_t *in = inputs.data();
  const std::int32_t *out = outputs.data();
  const std::size_t n = inputs.size();
  const std::int64_t d = delay;
  output.clear();

  // Output channel of an input, or false for any other channel.
  auto lookup = [&](std::int32_t channel, std::int32_t &output_channel) {
    if constexpr (linear_lookup) {
      for (std::size_t i = 0; i < n; ++i) {
        if (in[i] == channel) {
          output_channel = out[i];
          return true;
        }
      }
      return false;
    } else {
      const std::int32_t *found = map.find(channel);
      if (!found)
        return false;
      output_channel = *found;
      return true;
    }
  };
  auto isCopy = [&](const Tag &tag) { return std::find(out, out + n, tag.channel) != out + n; };

  auto release = [&](std::int64_t time) {
    while (!queue.empty() && timeBefore(queue.front().time, time)) {
      const Tag tag = queue.front();
      queue.pop_front();
      if constexpr (positive_delay) {
        // A copy that falls due during an overflow is lost with the data
        // around it; held-back stream tags are the stream itself.
        if (!in_overflow || (holds_stream_tags && !isCopy(tag)))
          output.push_back(tag);
      } else {
        if (tag.type == Tag::Type::OverflowBegin)
          in_overflow = true;
        else if (tag.type == Tag::Type::OverflowEnd)
          in_overflow = false;
        output.push_back(tag);
      }
    }
  };

  for (const Tag &tag : tags) {
    release(tag.time);
    if constexpr (positive_delay) {
      output.push_back(tag);
      switch (tag.type) {
      case Tag::Type::TimeTag: {
        std::int32_t output_channel;
        if (lookup(tag.channel, output_channel)) {
          Tag copy = tag;
          copy.channel = output_channel;
          copy.time = timePlus(tag.time, d);
          queue.push(copy);
        }
        break;
      }
      case Tag::Type::Error:
        if (holds_stream_tags) {
          queue.filter([&](const Tag &queued) { return !isCopy(queued); });
          holds_stream_tags = !queue.empty();
        } else {
          queue.clear();
        }
        break;
      case Tag::Type::OverflowBegin:
        in_overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        in_overflow = false;
        break;
      default:
        break;
      }
    } else {
      Tag held = tag;
      held.time = timePlus(tag.time, -d);
      queue.push(held);
      std::int32_t output_channel;
      if (tag.type == Tag::Type::TimeTag && lookup(tag.channel, output_channel)) {
        Tag copy = tag;
        copy.channel = output_channel;
        if (in_overflow) {
          copy.type = Tag::Type::MissedEvents;
          copy.missed_events = 1;
        }
        output.push_back(copy);
      }
    }
  }
  release(end_time);
  if constexpr (positive_delay) {
    if (holds_stream_tags && queue.empty())
      holds_stream_tags = false;
  }
  output.swap(tags);
}

} // namespace chronotick
