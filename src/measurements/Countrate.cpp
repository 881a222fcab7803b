#include <chronotick/Countrate.h>

#include "ChannelLookup.h"

#include <algorithm>
#include <utility>

namespace chronotick {

Countrate::Countrate(ChronotickBase *tagger, std::vector<std::int32_t> channels_)
    : IteratorBase(tagger), channels(std::move(channels_)), last_time(0), first_time(0),
      counts_period(channels.size(), 0), counts_total(channels.size(), 0), lookup_min(0) {
  buildChannelLookup(channels, lookup, lookup_min, [](std::size_t i) { return static_cast<std::int32_t>(i); });
  for (std::int32_t channel : channels)
    registerChannel(channel);
  clear();
  finishInitialization();
}

Countrate::~Countrate() {
  stop();
}

void Countrate::getData(std::function<double *(std::size_t)> allocate) {
  double *out = allocate(channels.size());
  auto guard = getLock();
  for (std::size_t i = 0; i < channels.size(); ++i) {
    if (last_time == first_time)
      out[i] = 0.0;
    else
      out[i] = static_cast<double>(counts_period[i]) * 1e12 / static_cast<double>(last_time - first_time);
  }
}

void Countrate::getCountsTotal(std::function<std::int64_t *(std::size_t)> allocate) {
  std::int64_t *out = allocate(channels.size());
  auto guard = getLock();
  std::copy(counts_total.begin(), counts_total.end(), out);
}

void Countrate::clear_impl() {
  std::fill(counts_period.begin(), counts_period.end(), 0);
  std::fill(counts_total.begin(), counts_total.end(), 0);
  first_time = 0;
  last_time = 0;
}

// A rate always begins afresh on start, the total included.
void Countrate::on_start() {
  clear_impl();
}

struct CountrateLoop {
  // forEachIndex(channel, f) calls f(i) for each i with channels[i] equal
  // to the channel.
  template <class ForEachIndex>
  static void run(Countrate &c, const std::vector<Tag> &tags, ForEachIndex &&forEachIndex) {
    const std::size_t n_channels = c.channels.size();
    std::int64_t *period = c.counts_period.data();
    std::int64_t *total = c.counts_total.data();
    std::int64_t first = c.first_time;

    for (const Tag &tag : tags) {
      std::int64_t n;
      if (tag.type == Tag::Type::TimeTag) {
        n = 1;
      } else if (tag.type == Tag::Type::MissedEvents) {
        n = tag.missed_events;
      } else {
        if (tag.type == Tag::Type::Error) {
          // The rate restarts; the total goes on.
          first = 0;
          std::fill(period, period + n_channels, 0);
        }
        continue;
      }
      forEachIndex(tag.channel, [&](std::size_t i) {
        if (first == 0)
          first = tag.time;
        period[i] += n;
        total[i] += n;
      });
    }
    c.first_time = first;
  }
};

bool Countrate::next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) {
  if (first_time == 0)
    first_time = begin_time;

  if (!lookup.empty()) {
    const ChannelTable table(lookup, lookup_min);
    CountrateLoop::run(*this, tags, [&](std::int32_t channel, auto &&f) {
      const std::int32_t index = table[channel];
      if (index >= 0)
        f(static_cast<std::size_t>(index));
    });
  } else {
    // A channel listed twice counts at each of its places.
    const std::int32_t *listed = channels.data();
    const std::size_t n_channels = channels.size();
    CountrateLoop::run(*this, tags, [&](std::int32_t channel, auto &&f) {
      for (std::size_t i = 0; i < n_channels; ++i)
        if (channel == listed[i])
          f(i);
    });
  }

  last_time = end_time;
  if (first_time == 0)
    first_time = end_time;
  return false;
}

} // namespace chronotick
