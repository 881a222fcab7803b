#include <chronotick/DelayedChannel.h>

#include "channels/ChannelHashMap.h"
#include "channels/TagQueue.h"
#include "channels/TagWriter.h"

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
  bool overflow = in_overflow;
  const bool mixed = holds_stream_tags;

  // The queue's ring in locals, so that the loop keeps them in registers;
  // written back before anything else touches the queue.
  Tag *ring = queue.ring.data();
  std::size_t mask = queue.ring.size() - 1;
  std::size_t head = queue.head;
  std::size_t count = queue.count;
  auto store = [&] {
    queue.head = head;
    queue.count = count;
  };
  auto reload = [&] {
    ring = queue.ring.data();
    mask = queue.ring.size() - 1;
    head = queue.head;
    count = queue.count;
  };
  // Appends to the queue. A tag that would break its order can only follow a
  // change of delay; it is inserted in place.
  auto enqueue = [&](const Tag &tag, bool take) {
    if (count > mask) {
      store();
      queue.grow();
      reload();
    }
    if (count != 0 && timeBefore(tag.time, ring[(head + count - 1) & mask].time)) {
      if (take) {
        store();
        queue.push(tag);
        reload();
      }
      return;
    }
    ring[(head + count) & mask] = tag;
    count += take;
  };

  // Output channel of an input; `hit` says whether the channel is one.
  auto lookup = [&](std::int32_t channel, std::int32_t &output_channel) {
    if constexpr (linear_lookup) {
      bool hit = false;
      for (std::size_t i = 0; i < n; ++i) {
        const bool match = in[i] == channel;
        output_channel = match ? out[i] : output_channel;
        hit |= match;
      }
      return hit;
    } else {
      return map.lookup(channel, output_channel);
    }
  };
  auto isCopy = [&](const Tag &tag) { return std::find(out, out + n, tag.channel) != out + n; };

  TagWriter writer(output);

  auto release = [&](std::int64_t time) {
    while (count != 0 && timeBefore(ring[head].time, time)) {
      const Tag &tag = ring[head];
      if constexpr (positive_delay) {
        // A copy that falls due during an overflow is lost with the data
        // around it; stream tags held back by an earlier negative delay are
        // the stream itself.
        if (!overflow || (mixed && !isCopy(tag)))
          writer.push(tag);
      } else {
        if (tag.type == Tag::Type::OverflowBegin)
          overflow = true;
        else if (tag.type == Tag::Type::OverflowEnd)
          overflow = false;
        writer.push(tag);
      }
      head = (head + 1) & mask;
      --count;
    }
  };

  for (const Tag &tag : tags) {
    release(tag.time);
    if constexpr (positive_delay) {
      writer.push(tag);
      if (tag.type == Tag::Type::TimeTag) {
        std::int32_t output_channel = 0;
        const bool hit = lookup(tag.channel, output_channel);
        Tag copy = tag;
        copy.channel = output_channel;
        copy.time = timePlus(tag.time, d);
        enqueue(copy, hit);
        continue;
      }
      switch (tag.type) {
      case Tag::Type::Error:
        if (mixed) {
          store();
          queue.filter([&](const Tag &queued) { return !isCopy(queued); });
          reload();
        } else {
          count = 0;
        }
        break;
      case Tag::Type::OverflowBegin:
        overflow = true;
        break;
      case Tag::Type::OverflowEnd:
        overflow = false;
        break;
      default:
        break;
      }
    } else {
      Tag held = tag;
      held.time = timePlus(tag.time, -d);
      enqueue(held, true);
      std::int32_t output_channel = 0;
      const bool hit = lookup(tag.channel, output_channel) & (tag.type == Tag::Type::TimeTag);
      Tag copy = tag;
      copy.channel = output_channel;
      if (overflow) {
        copy.type = Tag::Type::MissedEvents;
        copy.missed_events = 1;
      }
      writer.pushIf(copy, hit);
    }
  }
  release(end_time);
  store();
  writer.finish();
  in_overflow = overflow;
  if (holds_stream_tags && count == 0)
    holds_stream_tags = false;
  output.swap(tags);
}

} // namespace chronotick
