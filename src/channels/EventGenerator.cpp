#include <chronotick/ChronotickBase.h>
#include <chronotick/EventGenerator.h>

#include "channels/TagFifo.h"

#include <algorithm>
#include <stdexcept>

namespace chronotick {

namespace {

struct LaterTime {
  bool operator()(const Tag &a, const Tag &b) const { return tagTimeBefore(b.time, a.time); }
};

} // namespace

EventGenerator::EventGenerator(ChronotickBase *tagger_, std::int32_t trigger_channel_,
                               std::vector<std::int64_t> pattern_, std::uint64_t trigger_divider,
                               std::uint64_t divider_offset, std::int32_t stop_channel_)
    : IteratorBase(tagger_), trigger_channel(trigger_channel_), stop_channel(stop_channel_),
      divider_top(static_cast<std::int64_t>(trigger_divider - 1)), offset(divider_offset), counter(0),
      in_overflow(false), pattern(std::move(pattern_)), direct(true), shift(0),
      input_queue(std::make_unique<TagFifo>()) {
  output_channel = getNewVirtualChannel();
  clear();
  if (divider_top < 0)
    throw std::runtime_error("negative or zero trigger dividers are not supported");
  if (divider_offset >= trigger_divider)
    throw std::runtime_error("divider_offset must be smaller than trigger_divider");
  std::sort(pattern.begin(), pattern.end());
  // An empty pattern generates nothing and delays nothing.
  if (!pattern.empty() && pattern.front() < 0) {
    shift = -pattern.front();
    for (std::int64_t &value : pattern)
      value += shift;
    direct = false;
  }
  registerChannel(trigger_channel);
  clear_impl();
  finishInitialization();
}

EventGenerator::~EventGenerator() {
  stop();
}

std::int32_t EventGenerator::getChannel() {
  return output_channel;
}

void EventGenerator::clear_impl() {
  heap.clear();
  if (!direct)
    input_queue->clear();
  counter = 0;
}

void EventGenerator::on_start() {
  clear_impl();
}

void EventGenerator::trigger(std::int64_t time) {
  std::uint64_t c = counter;
  counter = c == static_cast<std::uint64_t>(divider_top) ? 0 : c + 1;
  if (c != offset)
    return;
  for (std::int64_t value : pattern) {
    heap.push_back(Tag{Tag::Type::TimeTag, 0, 0, output_channel, tagTimeAdd(time, value)});
    std::push_heap(heap.begin(), heap.end(), LaterTime());
  }
}

void EventGenerator::releaseGenerated() {
  std::pop_heap(heap.begin(), heap.end(), LaterTime());
  Tag tag = heap.back();
  heap.pop_back();
  if (in_overflow) {
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  }
  output.push_back(tag);
}

void EventGenerator::releaseBelow(std::int64_t time) {
  while (!heap.empty() && tagTimeBefore(heap.front().time, time))
    releaseGenerated();
}

// A tag of the (delayed) stream reaches the output and acts on the state.
void EventGenerator::passStreamTag(const Tag &tag) {
  output.push_back(tag);
  switch (tag.type) {
  case Tag::Type::Error:
    heap.clear();
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
}

// Merges the delayed stream and the generated tags due before `time`; on
// equal times the stream goes first.
void EventGenerator::releaseBothBelow(std::int64_t time) {
  TagFifo &queue = *input_queue;
  while (true) {
    bool from_queue = !queue.empty() && tagTimeBefore(queue.front().time, time);
    if (!heap.empty() && tagTimeBefore(heap.front().time, time) &&
        (!from_queue || tagTimeBefore(heap.front().time, queue.front().time))) {
      releaseGenerated();
    } else if (from_queue) {
      Tag tag = queue.front();
      queue.pop();
      passStreamTag(tag);
    } else {
      return;
    }
  }
}

bool EventGenerator::nextDirect(std::vector<Tag> &tags, std::int64_t end_time) {
  for (const Tag &tag : tags) {
    releaseBelow(tag.time);
    if (tag.channel == stop_channel && stop_channel != CHANNEL_UNUSED)
      heap.clear();
    passStreamTag(tag);
    if (tag.type == Tag::Type::TimeTag && tag.channel == trigger_channel)
      trigger(tag.time);
  }
  releaseBelow(end_time);
  return true;
}

bool EventGenerator::nextDelayed(std::vector<Tag> &tags, std::int64_t end_time) {
  for (const Tag &tag : tags) {
    releaseBothBelow(tag.time);
    // Stop and trigger act on arrival; the pattern is shifted to match.
    if (tag.channel == stop_channel && stop_channel != CHANNEL_UNUSED)
      heap.clear();
    Tag delayed = tag;
    delayed.time = tagTimeAdd(delayed.time, shift);
    input_queue->push(delayed);
    if (tag.type == Tag::Type::TimeTag && tag.channel == trigger_channel)
      trigger(tag.time);
  }
  releaseBothBelow(end_time);
  return true;
}

bool EventGenerator::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  output.clear();
  if (direct)
    nextDirect(tags, end_time);
  else
    nextDelayed(tags, end_time);
  tags.swap(output);
  return true;
}

} // namespace chronotick
