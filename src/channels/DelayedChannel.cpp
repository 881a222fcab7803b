#include <chronotick/DelayedChannel.h>

#include "channels/ChannelHashMap.h"
#include "channels/TagQueue.h"
#include "channels/TagWriter.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace chronotick {

struct DelayedChannel::Pending {
  TagQueue queue;
  // Input to output, for lookups with more than three inputs.
  ChannelHashMap output_of_input;
  // The copies of a block's tags, gathered ahead of the merge with the
  // held-back stream, plus a spare slot.
  std::vector<Tag> copies;
};

namespace {

// Output channel of an input; the result says whether `channel` is one. A
// short linear scan for up to three inputs, one probe of the map above.
template <bool linear_lookup>
inline bool outputOf(const std::int32_t *in, const std::int32_t *out, std::size_t n, const ChannelHashMap &map,
                     std::int32_t channel, std::int32_t &output_channel) {
  if constexpr (linear_lookup) {
    bool hit = false;
    for (std::size_t i = 0; i < n; ++i) {
      const bool match = in[i] == channel;
      output_channel = match ? out[i] : output_channel;
      hit |= match;
    }
    return hit;
  } else {
    output_channel = map.valueOr(channel, CHANNEL_UNUSED);
    return output_channel != CHANNEL_UNUSED;
  }
}

} // namespace

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
  } else if (holds_stream_tags) {
    // The waiting copies go; stream tags held back earlier stay.
    pending->queue.filter(
        [&](const Tag &tag) { return std::find(outputs.begin(), outputs.end(), tag.channel) == outputs.end(); });
    holds_stream_tags = !pending->queue.empty();
  } else {
    pending->queue.clear();
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
    if (linear) {
      if (!holdBack<true>(tags, end_time))
        process<false, true>(tags, end_time);
    } else {
      if (!holdBack<false>(tags, end_time))
        process<false, false>(tags, end_time);
    }
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

  auto lookup = [&](std::int32_t channel, std::int32_t &output_channel) {
    return outputOf<linear_lookup>(in, out, n, map, channel, output_channel);
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

template <bool linear_lookup> bool DelayedChannel::holdBack(std::vector<Tag> &tags, std::int64_t end_time) {
  TagQueue &queue = pending->queue;
  const std::int64_t shift = -delay;
  // The held-back stream is the queue followed by this block shifted by the
  // delay, provided the queue ends no later than the block's first tag does.
  if (tags.empty() || (queue.count != 0 && timeBefore(timePlus(tags.front().time, shift), queue.back().time)))
    return false;

  const ChannelHashMap &map = pending->output_of_input;
  const std::int32_t *in = inputs.data();
  const std::int32_t *out = outputs.data();
  const std::size_t n = inputs.size();
  bool overflow = in_overflow;
  TagWriter writer(output);

  auto emit = [&](Tag tag) {
    overflow = (tag.type == Tag::Type::OverflowBegin) | (overflow & (tag.type != Tag::Type::OverflowEnd));
    writer.push(tag);
  };
  const Tag *block = tags.data();
  const std::size_t size = tags.size();
  std::size_t held = 0; // block tags before this one are held back
  auto release = [&](std::int64_t time, std::size_t limit) {
    while (!queue.empty() && timeBefore(queue.front().time, time)) {
      emit(queue.front());
      queue.pop_front();
    }
    if (!queue.empty())
      return;
    while (held < limit && timeBefore(timePlus(block[held].time, shift), time)) {
      Tag tag = block[held++];
      tag.time = timePlus(tag.time, shift);
      emit(tag);
    }
  };

  auto copyOf = [&](const Tag &tag, bool &hit) {
    std::int32_t output_channel = 0;
    hit = outputOf<linear_lookup>(in, out, n, map, tag.channel, output_channel) & (tag.type == Tag::Type::TimeTag);
    Tag copy = tag;
    copy.channel = output_channel;
    return copy;
  };
  auto marked = [&](Tag copy) {
    copy.type = overflow ? Tag::Type::MissedEvents : copy.type;
    copy.missed_events = overflow ? std::uint16_t{1} : copy.missed_events;
    return copy;
  };

  // While tags of earlier blocks are queued, tag by tag.
  std::size_t i = 0;
  for (; i < size && !queue.empty(); ++i) {
    release(block[i].time, i);
    bool hit;
    const Tag copy = copyOf(block[i], hit);
    writer.pushIf(marked(copy), hit);
  }

  // Then the copies of the rest, gathered without branches, ...
  std::vector<Tag> &copies = pending->copies;
  if (copies.size() < size - i + 1)
    copies.resize(size - i + 1);
  Tag *gathered = copies.data();
  std::size_t n_copies = 0;
  for (std::size_t k = i; k < size; ++k) {
    bool hit;
    gathered[n_copies] = copyOf(block[k], hit);
    n_copies += hit;
  }
  // ... merged with the held-back block (block[held..], shifted), one output
  // per step and no branch on the data, which is random. The held-back side
  // can't overtake a copy: block[j] shifted is later than block[k] for j >= k.
  for (std::size_t p = 0; p < n_copies;) {
    const Tag &back = block[held];
    const Tag copy = marked(gathered[p]);
    const std::int64_t back_time = timePlus(back.time, shift);
    const bool take_back = timeBefore(back_time, copy.time);
    // Select by mask on the record's two words; the compiler would branch on
    // a conditional, and that branch would mispredict half of the time.
    std::uint64_t back_head, copy_head;
    std::memcpy(&back_head, &back, 8);
    std::memcpy(&copy_head, &copy, 8);
    const std::uint64_t pick = 0 - static_cast<std::uint64_t>(take_back);
    const std::uint64_t head = (back_head & pick) | (copy_head & ~pick);
    const std::uint64_t time =
        (static_cast<std::uint64_t>(back_time) & pick) | (static_cast<std::uint64_t>(copy.time) & ~pick);
    Tag chosen;
    std::memcpy(&chosen, &head, 8);
    chosen.time = static_cast<std::int64_t>(time);
    writer.push(chosen);
    const unsigned begins = back.type == Tag::Type::OverflowBegin;
    const unsigned ends = back.type == Tag::Type::OverflowEnd;
    const unsigned taken = take_back;
    overflow =
        ((taken & (begins | (static_cast<unsigned>(overflow) & ~ends))) | (~taken & static_cast<unsigned>(overflow))) &
        1U;
    held += taken;
    p += 1 - taken;
  }
  release(end_time, size);
  for (; held < size; ++held) {
    Tag tag = block[held];
    tag.time = timePlus(tag.time, shift);
    queue.push(tag);
  }
  writer.finish();
  in_overflow = overflow;
  output.swap(tags);
  return true;
}

} // namespace chronotick
