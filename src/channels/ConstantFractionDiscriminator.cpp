#include <chronotick/ChronotickBase.h>
#include <chronotick/ConstantFractionDiscriminator.h>

#include "channels/TagTime.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace chronotick {

namespace {

// Order of the centres: equal times go by channel, so that the output doesn't
// depend on where the blocks were cut.
struct LaterTag {
  bool operator()(const Tag &a, const Tag &b) const {
    return tagTimeBefore(b.time, a.time) || (a.time == b.time && a.channel > b.channel);
  }
};

constexpr std::int64_t max_lookup_span = 1 << 16;

} // namespace

ConstantFractionDiscriminator::ConstantFractionDiscriminator(ChronotickBase *tagger_,
                                                             std::vector<std::int32_t> channels,
                                                             std::int64_t search_window_)
    : IteratorBase(tagger_), search_window(search_window_), delay(search_window_ / 2) {
  if (search_window < 1)
    throw std::invalid_argument("search_window must be at least 1 ps");

  pairs.resize(2);
  for (std::int32_t c : channels) {
    std::int32_t inverted = tagger->getInvertedChannel(c);
    if (tagger->isUnusedChannel(inverted))
      throw std::invalid_argument("Channel number " + std::to_string(c) + " has no inverted edge required for the CFD");
    std::size_t lead = findOrAddRoute(c);
    std::size_t trail = findOrAddRoute(inverted);
    if (routes[trail].trails != 1) {
      // Naming a channel twice hands out its virtual channel twice.
      output_channels.push_back(pairs[static_cast<std::size_t>(routes[trail].trails)].output_channel);
      continue;
    }
    std::int32_t pair = static_cast<std::int32_t>(pairs.size());
    pairs.push_back(Pair{0, false, getNewVirtualChannel()});
    routes[lead].leads = pair;
    routes[trail].trails = pair;
    output_channels.push_back(pairs.back().output_channel);
    registerChannel(c);
    registerChannel(inverted);
  }
  buildLookup();
  finishInitialization();
}

ConstantFractionDiscriminator::~ConstantFractionDiscriminator() {
  stop();
}

std::vector<std::int32_t> ConstantFractionDiscriminator::getChannels() {
  return output_channels;
}

std::size_t ConstantFractionDiscriminator::findOrAddRoute(std::int32_t channel) {
  auto it = std::find(route_channels.begin(), route_channels.end(), channel);
  if (it != route_channels.end())
    return static_cast<std::size_t>(it - route_channels.begin());
  route_channels.push_back(channel);
  routes.emplace_back();
  return routes.size() - 1;
}

void ConstantFractionDiscriminator::buildLookup() {
  lookup.clear();
  if (route_channels.empty())
    return;
  auto [lo, hi] = std::minmax_element(route_channels.begin(), route_channels.end());
  std::int64_t span = std::int64_t(*hi) - std::int64_t(*lo) + 1;
  if (span > max_lookup_span)
    return;
  lookup_base = *lo;
  lookup.assign(static_cast<std::size_t>(span), Route{});
  for (std::size_t i = 0; i < route_channels.size(); ++i)
    lookup[static_cast<std::size_t>(route_channels[i] - lookup_base)] = routes[i];
}

ConstantFractionDiscriminator::Route ConstantFractionDiscriminator::routeOf(std::int32_t channel) const {
  if (!lookup.empty()) {
    std::uint64_t index = static_cast<std::uint64_t>(std::int64_t(channel) - lookup_base);
    return index < lookup.size() ? lookup[index] : Route{};
  }
  for (std::size_t i = 0; i < route_channels.size(); ++i)
    if (route_channels[i] == channel)
      return routes[i];
  return Route{};
}

void ConstantFractionDiscriminator::on_start() {
  for (Pair &pair : pairs)
    pair.valid = false;
  delayed.clear();
  delayed_head = 0;
  centres.clear();
  centres_head = 0;
}

// Keeps centres[centres_head..] sorted by (time, channel). A new centre lies
// at most one delay before the latest, so it moves back only a few places.
void ConstantFractionDiscriminator::addCentre(const Tag &centre) {
  centres.push_back(centre);
  std::size_t i = centres.size() - 1;
  while (i > centres_head && LaterTag()(centres[i - 1], centre)) {
    centres[i] = centres[i - 1];
    --i;
  }
  centres[i] = centre;
}

// Moves every waiting tag due before `time` to the output, in time order; a
// delayed input goes before a centre of the same time.
void ConstantFractionDiscriminator::releaseBelow(std::int64_t time) {
  const Tag *d = delayed.data() + delayed_head;
  const Tag *d_end = delayed.data() + delayed.size();
  const Tag *c = centres.data() + centres_head;
  const Tag *c_end = centres.data() + centres.size();
  while (d != d_end && c != c_end) {
    bool take_centre = tagTimeBefore(c->time, d->time);
    const Tag &next = take_centre ? *c : *d;
    if (!tagTimeBefore(next.time, time))
      break;
    output.push_back(next);
    c += take_centre;
    d += !take_centre;
  }
  for (; d != d_end && tagTimeBefore(d->time, time); ++d)
    output.push_back(*d);
  for (; c != c_end && tagTimeBefore(c->time, time); ++c)
    output.push_back(*c);
  delayed_head = static_cast<std::size_t>(d - delayed.data());
  centres_head = static_cast<std::size_t>(c - centres.data());
}

// Moves what still waits to the front of its vector, so that the vectors
// stay as small as one delay's worth of tags.
static void compact(std::vector<Tag> &tags, std::size_t &head) {
  tags.erase(tags.begin(), tags.begin() + static_cast<std::ptrdiff_t>(head));
  head = 0;
}

bool ConstantFractionDiscriminator::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  output.clear();
  const std::size_t n = tags.size();
  std::size_t i = 0;
  while (true) {
    // A stretch of time tags: pair the edges and queue everything delayed.
    // Every tag goes through the same steps, with the sinks standing in for
    // roles that its channel doesn't have, so that nothing depends on
    // branches that random channels would make unpredictable.
    if (fresh_centres.size() < n)
      fresh_centres.resize(n);
    Tag *fresh = fresh_centres.data();
    Pair *pair = pairs.data();
    for (; i < n && tags[i].type == Tag::Type::TimeTag; ++i) {
      const Tag &tag = tags[i];
      const Route route = routeOf(tag.channel);
      Pair &lead = pair[route.leads];
      lead.time = tag.time;
      lead.valid = true;
      Pair &trail = pair[route.trails];
      const std::int64_t width = tag.time - trail.time;
      const bool centre = trail.valid & (width < search_window);
      trail.valid = false;
      *fresh = Tag{Tag::Type::TimeTag, 0, 0, trail.output_channel, tagTimeAdd(tag.time, delay - width / 2)};
      fresh += centre;
      delayed.push_back(tag);
      delayed.back().time = tagTimeAdd(tag.time, delay);
    }
    for (const Tag *c = fresh_centres.data(); c != fresh; ++c)
      addCentre(*c);
    if (i == n)
      break;
    // A break: what is due before it leaves, what would come after it can't
    // be trusted and is dropped, and the break itself passes undelayed.
    releaseBelow(tags[i].time);
    on_start();
    output.push_back(tags[i]);
    ++i;
  }
  releaseBelow(end_time);
  compact(delayed, delayed_head);
  compact(centres, centres_head);
  tags.swap(output);
  return true;
}

} // namespace chronotick
