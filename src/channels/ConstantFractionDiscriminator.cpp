#include <chronotick/ChronotickBase.h>
#include <chronotick/ConstantFractionDiscriminator.h>

#include "channels/TagFifo.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace chronotick {

namespace {

// Min-heap order for std::push_heap; equal times go by channel so that the
// output doesn't depend on where the blocks were cut.
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
    : IteratorBase(tagger_), search_window(search_window_), delay(search_window_ / 2),
      delayed(std::make_unique<TagFifo>()) {
  if (search_window < 1)
    throw std::invalid_argument("search_window must be at least 1 ps");

  for (std::int32_t c : channels) {
    std::int32_t inverted = tagger->getInvertedChannel(c);
    if (tagger->isUnusedChannel(inverted))
      throw std::invalid_argument("Channel number " + std::to_string(c) + " has no inverted edge required for the CFD");
    std::int32_t lead = findOrAddEdge(c);
    std::int32_t trail = findOrAddEdge(inverted);
    if (edges[trail].trailing) {
      // Naming a channel twice hands out its virtual channel twice.
      output_channels.push_back(edges[trail].output_channel);
      continue;
    }
    edges[lead].leading = true;
    edges[trail].trailing = true;
    edges[trail].partner = lead;
    edges[trail].output_channel = getNewVirtualChannel();
    output_channels.push_back(edges[trail].output_channel);
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

std::int32_t ConstantFractionDiscriminator::findOrAddEdge(std::int32_t channel) {
  auto it = std::find(edge_channels.begin(), edge_channels.end(), channel);
  if (it != edge_channels.end())
    return static_cast<std::int32_t>(it - edge_channels.begin());
  edge_channels.push_back(channel);
  edges.emplace_back();
  return static_cast<std::int32_t>(edges.size() - 1);
}

void ConstantFractionDiscriminator::buildLookup() {
  lookup.clear();
  if (edge_channels.empty())
    return;
  auto [lo, hi] = std::minmax_element(edge_channels.begin(), edge_channels.end());
  std::int64_t span = std::int64_t(*hi) - std::int64_t(*lo) + 1;
  if (span > max_lookup_span)
    return;
  lookup_base = *lo;
  lookup.assign(static_cast<std::size_t>(span), -1);
  for (std::size_t i = 0; i < edge_channels.size(); ++i)
    lookup[static_cast<std::size_t>(edge_channels[i] - lookup_base)] = static_cast<std::int32_t>(i);
}

std::int32_t ConstantFractionDiscriminator::edgeOf(std::int32_t channel) const {
  if (!lookup.empty()) {
    std::uint64_t index = static_cast<std::uint64_t>(std::int64_t(channel) - lookup_base);
    return index < lookup.size() ? lookup[index] : -1;
  }
  for (std::size_t i = 0; i < edge_channels.size(); ++i)
    if (edge_channels[i] == channel)
      return static_cast<std::int32_t>(i);
  return -1;
}

void ConstantFractionDiscriminator::on_start() {
  for (Edge &edge : edges)
    edge.valid = false;
  centres.clear();
  delayed->clear();
}

// Moves every waiting tag due before `time` to the output, in time order; a
// delayed input goes before a centre of the same time.
void ConstantFractionDiscriminator::releaseBelow(std::int64_t time) {
  TagFifo &fifo = *delayed;
  while (true) {
    bool from_fifo = !fifo.empty() && tagTimeBefore(fifo.front().time, time);
    if (!centres.empty() && tagTimeBefore(centres.front().time, time) &&
        (!from_fifo || tagTimeBefore(centres.front().time, fifo.front().time))) {
      std::pop_heap(centres.begin(), centres.end(), LaterTag());
      output.push_back(centres.back());
      centres.pop_back();
    } else if (from_fifo) {
      output.push_back(fifo.front());
      fifo.pop();
    } else {
      return;
    }
  }
}

bool ConstantFractionDiscriminator::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  output.clear();
  for (const Tag &tag : tags) {
    releaseBelow(tag.time);
    if (tag.type != Tag::Type::TimeTag) {
      // What is still waiting lies beyond the break and can't be trusted.
      on_start();
      output.push_back(tag);
      continue;
    }
    std::int32_t index = edgeOf(tag.channel);
    if (index >= 0) {
      Edge &edge = edges[static_cast<std::size_t>(index)];
      if (edge.leading) {
        edge.time = tag.time;
        edge.valid = true;
      }
      if (edge.trailing) {
        Edge &lead = edges[static_cast<std::size_t>(edge.partner)];
        if (lead.valid) {
          lead.valid = false;
          std::int64_t width = tag.time - lead.time;
          if (width < search_window) {
            Tag centre{Tag::Type::TimeTag, 0, 0, edge.output_channel, tagTimeAdd(tag.time, delay - width / 2)};
            centres.push_back(centre);
            std::push_heap(centres.begin(), centres.end(), LaterTag());
          }
        }
      }
    }
    Tag moved = tag;
    moved.time = tagTimeAdd(moved.time, delay);
    delayed->push(moved);
  }
  releaseBelow(end_time);
  tags.swap(output);
  return true;
}

} // namespace chronotick
