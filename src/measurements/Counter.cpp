#include <chronotick/Counter.h>

#include "ChannelLookup.h"

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <utility>

namespace chronotick {

Counter::Counter(ChronotickBase *tagger, std::vector<std::int32_t> channels_, std::int64_t binwidth_,
                 std::int32_t n_values_)
    : IteratorBase(tagger), channels(std::move(channels_)), binwidth(binwidth_), n_values(n_values_), current_index(0),
      bin_start(-1), lookup_min(0) {
  if (binwidth < 1)
    throw std::invalid_argument("binwidth must be at least 1 ps");
  if (n_values < 1)
    throw std::invalid_argument("n_values must be at least 1");
  data.assign((static_cast<std::size_t>(n_values) + 1) * channels.size(), 0);
  if (data.size() <= static_cast<std::size_t>(INT32_MAX))
    buildChannelLookup(channels, lookup, lookup_min, [&](std::size_t c) {
      return static_cast<std::int32_t>(c * (static_cast<std::size_t>(n_values) + 1));
    });
  clear();
  for (std::int32_t channel : channels)
    registerChannel(channel);
  finishInitialization();
}

Counter::~Counter() {
  stop();
}

void Counter::getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate) {
  const std::size_t n_channels = channels.size();
  const std::size_t n = static_cast<std::size_t>(n_values);
  std::int32_t *out = allocate(n_channels, n);
  auto guard = getLock();
  const std::size_t stride = n + 1;
  for (std::size_t c = 0; c < n_channels; ++c) {
    const std::int32_t *row = data.data() + c * stride;
    for (std::size_t j = 0; j < n; ++j)
      out[c * n + j] = row[(static_cast<std::size_t>(current_index) + 1 + j) % stride];
  }
}

void Counter::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(static_cast<std::size_t>(n_values));
  for (std::int32_t i = 0; i < n_values; ++i)
    out[i] = i * binwidth;
}

void Counter::clear_impl() {
  bin_start = -1;
  current_index = 0;
  std::fill(data.begin(), data.end(), 0);
}

void Counter::on_start() {
  // The reported history survives a stop; only the bin being filled is lost.
  bin_start = -1;
  const std::size_t stride = static_cast<std::size_t>(n_values) + 1;
  for (std::size_t c = 0; c < channels.size(); ++c)
    data[c * stride + static_cast<std::size_t>(current_index)] = 0;
}

void Counter::setBinPosition(std::int64_t time) {
  const std::size_t stride = static_cast<std::size_t>(n_values) + 1;
  if (time >= bin_start + static_cast<std::int64_t>(stride) * binwidth) {
    // The whole ring has gone by. The new grid is anchored on the cleared
    // bin_start (-1), not on the old phase.
    clear_impl();
    bin_start = bin_start + binwidth * ((time - bin_start) / binwidth);
    return;
  }
  while (time >= bin_start + binwidth) {
    current_index = static_cast<std::int32_t>((static_cast<std::size_t>(current_index) + 1) % stride);
    bin_start += binwidth;
    for (std::size_t c = 0; c < channels.size(); ++c)
      data[c * stride + static_cast<std::size_t>(current_index)] = 0;
  }
}

struct CounterLoop {
  // forEachRow(channel, f) calls f(first element of the row) for each row
  // of the channel, in list order.
  template <class ForEachRow> static void run(Counter &c, const std::vector<Tag> &tags, ForEachRow &&forEachRow) {
    const std::size_t stride = static_cast<std::size_t>(c.n_values) + 1;
    const std::size_t n_channels = c.channels.size();
    std::int32_t *rows = c.data.data();
    // Working copies, so that the stores into the rows don't force reloads.
    std::int64_t start = c.bin_start;
    std::size_t index = static_cast<std::size_t>(c.current_index);
    const std::int64_t width = c.binwidth;

    for (const Tag &tag : tags) {
      if (tag.type != Tag::Type::TimeTag) {
        // A break in the stream costs the bin being filled.
        start = -1;
        for (std::size_t ch = 0; ch < n_channels; ++ch)
          rows[ch * stride + index] = 0;
        continue;
      }
      const std::int64_t time = tag.time;
      forEachRow(tag.channel, [&](std::size_t row) {
        if (start == -1)
          start = time;
        if (time >= start + width) {
          c.bin_start = start;
          c.current_index = static_cast<std::int32_t>(index);
          c.setBinPosition(time);
          start = c.bin_start;
          index = static_cast<std::size_t>(c.current_index);
        }
        ++rows[row + index];
      });
    }
    c.bin_start = start;
    c.current_index = static_cast<std::int32_t>(index);
  }
};

bool Counter::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  if (bin_start == -1)
    bin_start = begin_time;

  if (!lookup.empty()) {
    const ChannelTable table(lookup, lookup_min);
    CounterLoop::run(*this, tags, [&](std::int32_t channel, auto &&f) {
      const std::int32_t index = table[channel];
      if (index >= 0)
        f(static_cast<std::size_t>(index));
    });
  } else {
    // A channel listed twice counts in both rows.
    const std::size_t stride = static_cast<std::size_t>(n_values) + 1;
    const std::int32_t *listed = channels.data();
    const std::size_t n_channels = channels.size();
    CounterLoop::run(*this, tags, [&](std::int32_t channel, auto &&f) {
      for (std::size_t c = 0; c < n_channels; ++c)
        if (channel == listed[c])
          f(c * stride);
    });
  }

  if (bin_start == -1)
    bin_start = end_time;
  setBinPosition(end_time);
  return false;
}

} // namespace chronotick
