#include <chronotick/Coincidences.h>

#include "channels/ChannelHashMap.h"
#include "channels/TagQueue.h"
#include "channels/TagWriter.h"

#include <algorithm>
#include <set>
#include <stdexcept>
#include <utility>

namespace chronotick {

// Per distinct channel (by bit index) its latest time and the groups that
// hold it; per group its mask and its channels as bit indices.
struct Coincidences::State {
  ChannelHashMap bit_of_channel;
  std::vector<std::int64_t> last_time;
  std::vector<std::vector<std::uint32_t>> groups_of_channel;
  std::vector<std::uint64_t> group_masks;
  std::vector<std::vector<std::uint32_t>> group_bits;
  // groups_of_channel flattened: the groups of bit b are
  // channel_groups[group_begin[b] .. group_begin[b + 1]).
  std::vector<std::uint32_t> group_begin;
  std::vector<std::uint32_t> channel_groups;
  // Coincidence tags not yet due, a min-heap by time.
  std::vector<Tag> pending;

  // A function object rather than a function, so that the heap inlines it.
  struct Later {
    bool operator()(const Tag &a, const Tag &b) const { return a.time > b.time; }
  };

  void releaseBefore(std::int64_t time, TagWriter &output) {
    while (!pending.empty() && timeBefore(pending.front().time, time)) {
      std::pop_heap(pending.begin(), pending.end(), Later{});
      output.push(pending.back());
      pending.pop_back();
    }
  }

  void hold(const Tag &tag) {
    pending.push_back(tag);
    std::push_heap(pending.begin(), pending.end(), Later{});
  }
};

namespace {

// sum / n, truncated toward zero; small group sizes get a division by a
// constant, which compiles to a multiplication.
inline std::int64_t averageOffset(std::int64_t sum, std::size_t n) {
  switch (n) {
  case 1:
    return sum;
  case 2:
    return sum / 2;
  case 3:
    return sum / 3;
  case 4:
    return sum / 4;
  default:
    return sum / static_cast<std::int64_t>(n);
  }
}

} // namespace

Coincidences::Coincidences(ChronotickBase *tagger, std::vector<std::vector<std::int32_t>> coincidenceGroups,
                           std::int64_t coincidenceWindow, CoincidenceTimestamp timestamp)
    : IteratorBase(tagger), state(std::make_unique<State>()), window(coincidenceWindow), timestamp_type(timestamp) {
  const auto type = static_cast<std::int32_t>(timestamp);
  if (type < 0 || type > 3)
    throw std::runtime_error("invalid coincidence timestamp type");
  if (coincidenceGroups.empty())
    throw std::runtime_error("coincidences groups are empty");
  std::set<std::int32_t> distinct;
  for (const auto &group : coincidenceGroups) {
    if (group.empty())
      throw std::runtime_error("one of the groups is empty");
    distinct.insert(group.begin(), group.end());
  }
  if (distinct.size() > 64)
    throw std::runtime_error("no more than 64 different channels can be used at once on a single Coincidences "
                             "measurement. Split the groups into multiple measurements");

  State &s = *state;
  for (std::uint32_t g = 0; g < coincidenceGroups.size(); ++g) {
    std::uint64_t mask = 0;
    std::vector<std::uint32_t> bits;
    std::set<std::uint32_t> seen_in_group;
    for (std::int32_t channel : coincidenceGroups[g]) {
      const std::int32_t *found = s.bit_of_channel.find(channel);
      std::uint32_t bit;
      if (found) {
        bit = static_cast<std::uint32_t>(*found);
      } else {
        bit = static_cast<std::uint32_t>(s.last_time.size());
        s.bit_of_channel.insert(channel, static_cast<std::int32_t>(bit));
        s.last_time.push_back(-window);
        s.groups_of_channel.emplace_back();
        registerChannel(channel);
      }
      // A channel listed twice in a group is tested once.
      if (seen_in_group.insert(bit).second)
        s.groups_of_channel[bit].push_back(g);
      mask |= std::uint64_t{1} << bit;
      bits.push_back(bit);
    }
    s.group_masks.push_back(mask);
    s.group_bits.push_back(std::move(bits));
  }
  for (const auto &groups_of_bit : s.groups_of_channel) {
    s.group_begin.push_back(static_cast<std::uint32_t>(s.channel_groups.size()));
    s.channel_groups.insert(s.channel_groups.end(), groups_of_bit.begin(), groups_of_bit.end());
  }
  s.group_begin.push_back(static_cast<std::uint32_t>(s.channel_groups.size()));
  for (std::size_t g = 0; g < coincidenceGroups.size(); ++g)
    virtual_channels.push_back(getNewVirtualChannel());
  finishInitialization();
}

Coincidences::~Coincidences() {
  stop();
}

std::vector<std::int32_t> Coincidences::getChannels() {
  return virtual_channels;
}

void Coincidences::setCoincidenceWindow(std::int64_t new_window) {
  auto lk = getLock();
  if (new_window == window)
    return;
  window = new_window;
}

bool Coincidences::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  switch (timestamp_type) {
  case CoincidenceTimestamp::Last:
    process<CoincidenceTimestamp::Last>(tags, end_time);
    break;
  case CoincidenceTimestamp::Average:
    process<CoincidenceTimestamp::Average>(tags, end_time);
    break;
  case CoincidenceTimestamp::First:
    process<CoincidenceTimestamp::First>(tags, end_time);
    break;
  case CoincidenceTimestamp::ListedFirst:
    process<CoincidenceTimestamp::ListedFirst>(tags, end_time);
    break;
  default:
    throw std::runtime_error("invalid timestamp type for Coincidences Measurement");
  }
  return true;
}

template <CoincidenceTimestamp type> void Coincidences::process(std::vector<Tag> &tags, std::int64_t end_time) {
  State &s = *state;
  TagWriter writer(output);
  const std::int64_t w = window;
  const std::size_t n_channels = s.last_time.size();
  std::int64_t *last = s.last_time.data();
  const std::uint32_t *group_begin = s.group_begin.data();
  const std::uint32_t *channel_groups = s.channel_groups.data();
  const std::uint64_t *group_masks = s.group_masks.data();
  const std::int32_t *outputs = virtual_channels.data();

  for (const Tag &tag : tags) {
    if constexpr (type != CoincidenceTimestamp::Last)
      s.releaseBefore(tag.time, writer);
    writer.push(tag);
    if (tag.type != Tag::Type::TimeTag) {
      // Nothing is detected across a gap in the data.
      for (std::size_t i = 0; i < n_channels; ++i)
        last[i] = -w;
      continue;
    }
    std::int32_t found = 0;
    if (!s.bit_of_channel.lookup(tag.channel, found))
      continue;
    const auto bit = static_cast<std::uint32_t>(found);
    const std::int64_t t = tag.time;
    last[bit] = t;

    std::uint64_t mask = 0;
    for (std::size_t i = 0; i < n_channels; ++i) {
      const auto distance =
          static_cast<std::int64_t>(static_cast<std::uint64_t>(t) - static_cast<std::uint64_t>(last[i]));
      mask |= static_cast<std::uint64_t>(distance < w) << i;
    }

    for (std::uint32_t k = group_begin[bit]; k != group_begin[bit + 1]; ++k) {
      const std::uint32_t g = channel_groups[k];
      const std::uint64_t group_mask = group_masks[g];
      const bool fires = (mask & group_mask) == group_mask;
      Tag fired = tag;
      fired.channel = outputs[g];
      if constexpr (type == CoincidenceTimestamp::Last) {
        // Whether a group fires is random: written always, kept if it fires.
        writer.pushIf(fired, fires);
      } else {
        if (!fires)
          continue;
        const std::vector<std::uint32_t> &bits = s.group_bits[g];
        if constexpr (type == CoincidenceTimestamp::First) {
          std::int64_t earliest = last[bits.front()] - t;
          for (std::uint32_t b : bits)
            earliest = std::min(earliest, last[b] - t);
          fired.time = t + earliest + w;
        } else if constexpr (type == CoincidenceTimestamp::Average) {
          std::int64_t sum = 0;
          for (std::uint32_t b : bits)
            sum += last[b] - t;
          fired.time = t + averageOffset(sum, bits.size()) + w;
        } else {
          fired.time = last[bits.front()] + w;
        }
        s.hold(fired);
      }
    }
  }
  if constexpr (type != CoincidenceTimestamp::Last)
    s.releaseBefore(end_time, writer);
  writer.finish();
  output.swap(tags);
}

} // namespace chronotick
