#include <chronotick/ChronotickBase.h>
#include <chronotick/EventGenerator.h>

#include "channels/TagTime.h"

#include <algorithm>
#include <stdexcept>

namespace chronotick {

namespace {

// Min-heap order of the pattern cursors.
struct LaterCursor {
  template <class Cursor> bool operator()(const Cursor &a, const Cursor &b) const {
    return tagTimeBefore(b.time, a.time);
  }
};

} // namespace

EventGenerator::EventGenerator(ChronotickBase *tagger_, std::int32_t trigger_channel_,
                               std::vector<std::int64_t> pattern_, std::uint64_t trigger_divider,
                               std::uint64_t divider_offset, std::int32_t stop_channel_)
    : IteratorBase(tagger_), trigger_channel(trigger_channel_), stop_channel(stop_channel_),
      divider_top(static_cast<std::int64_t>(trigger_divider - 1)), offset(divider_offset), counter(0),
      in_overflow(false), pattern(std::move(pattern_)), direct(true), shift(0) {
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
  dropGenerated();
  if (!direct) {
    delayed.clear();
    delayed_head = 0;
    error_dues.clear();
    error_head = 0;
  }
  counter = 0;
}

void EventGenerator::on_start() {
  clear_impl();
}

void EventGenerator::dropGenerated() {
  cursors.clear();
  idle_values = pattern;
  starts.clear();
  starts_base = n_starts;
}

// Each pattern value has a cursor that walks the started patterns in order,
// so the generated tags come from a merge of pattern-size sorted sequences:
// a cursor is idle while it has caught up with the last start.
void EventGenerator::trigger(std::int64_t time) {
  std::uint64_t c = counter;
  counter = c == static_cast<std::uint64_t>(divider_top) ? 0 : c + 1;
  if (c != offset)
    return;
  starts.push_back(time);
  for (std::int64_t value : idle_values) {
    cursors.push_back(Cursor{tagTimeAdd(time, value), n_starts, value});
    std::push_heap(cursors.begin(), cursors.end(), LaterCursor());
  }
  idle_values.clear();
  ++n_starts;
}

void EventGenerator::releaseGenerated() {
  std::pop_heap(cursors.begin(), cursors.end(), LaterCursor());
  Cursor &cursor = cursors.back();
  Tag tag{Tag::Type::TimeTag, 0, 0, output_channel, cursor.time};
  if (in_overflow) {
    tag.type = Tag::Type::MissedEvents;
    tag.missed_events = 1;
  }
  output.push_back(tag);
  if (++cursor.start < n_starts) {
    cursor.time = tagTimeAdd(starts[static_cast<std::size_t>(cursor.start - starts_base)], cursor.value);
    std::push_heap(cursors.begin(), cursors.end(), LaterCursor());
  } else {
    idle_values.push_back(cursor.value);
    cursors.pop_back();
  }
}

void EventGenerator::releaseBelow(std::int64_t time) {
  while (!cursors.empty() && tagTimeBefore(cursors.front().time, time))
    releaseGenerated();
}

// Forgets the starts that every cursor has passed.
void EventGenerator::compactStarts() {
  std::uint64_t oldest = n_starts;
  for (const Cursor &cursor : cursors)
    oldest = std::min(oldest, cursor.start);
  starts.erase(starts.begin(), starts.begin() + static_cast<std::ptrdiff_t>(oldest - starts_base));
  starts_base = oldest;
}

// A tag of the (delayed) stream reaches the output and acts on the state.
void EventGenerator::passStreamTag(const Tag &tag) {
  output.push_back(tag);
  switch (tag.type) {
  case Tag::Type::Error:
    dropGenerated();
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
  const Tag *d = delayed.data() + delayed_head;
  const Tag *const d_end = delayed.data() + delayed.size();
  while (true) {
    const bool generated_due = !cursors.empty() && tagTimeBefore(cursors.front().time, time);
    const Tag *run = d;
    if (generated_due) {
      const std::int64_t next_generated = cursors.front().time;
      while (d != d_end && !tagTimeBefore(next_generated, d->time) && d->type == Tag::Type::TimeTag)
        ++d;
    } else {
      while (d != d_end && tagTimeBefore(d->time, time) && d->type == Tag::Type::TimeTag)
        ++d;
    }
    output.insert(output.end(), run, d);
    // A break in the run: it acts on what is waiting, then look again.
    if (d != d_end && d->type != Tag::Type::TimeTag &&
        (generated_due ? !tagTimeBefore(cursors.front().time, d->time) : tagTimeBefore(d->time, time))) {
      if (d->type == Tag::Type::Error)
        ++error_head;
      passStreamTag(*d);
      ++d;
      continue;
    }
    if (!generated_due)
      break;
    releaseGenerated();
  }
  delayed_head = static_cast<std::size_t>(d - delayed.data());
}

bool EventGenerator::nextDirect(std::vector<Tag> &tags, std::int64_t end_time) {
  for (const Tag &tag : tags) {
    releaseBelow(tag.time);
    if (tag.channel == stop_channel && stop_channel != CHANNEL_UNUSED)
      dropGenerated();
    passStreamTag(tag);
    if (tag.type == Tag::Type::TimeTag && tag.channel == trigger_channel)
      trigger(tag.time);
  }
  releaseBelow(end_time);
  compactStarts();
  return true;
}

// The stream is queued and leaves in bulk when a block ends. It must leave
// earlier only where what is waiting matters: before a stop tag, and before
// the first tag that comes after a queued Error has become due.
bool EventGenerator::nextDelayed(std::vector<Tag> &tags, std::int64_t end_time) {
  for (const Tag &tag : tags) {
    if (error_head != error_dues.size() && tagTimeBefore(error_dues[error_head], tag.time))
      releaseBothBelow(tag.time);
    // Stop and trigger act on arrival; the pattern is shifted to match.
    if (tag.channel == stop_channel && stop_channel != CHANNEL_UNUSED) {
      releaseBothBelow(tag.time);
      dropGenerated();
    }
    delayed.push_back(tag);
    delayed.back().time = tagTimeAdd(tag.time, shift);
    if (tag.type == Tag::Type::Error)
      error_dues.push_back(delayed.back().time);
    else if (tag.type == Tag::Type::TimeTag && tag.channel == trigger_channel)
      trigger(tag.time);
  }
  releaseBothBelow(end_time);
  // Keep only what still waits, at the front.
  delayed.erase(delayed.begin(), delayed.begin() + static_cast<std::ptrdiff_t>(delayed_head));
  delayed_head = 0;
  error_dues.erase(error_dues.begin(), error_dues.begin() + static_cast<std::ptrdiff_t>(error_head));
  error_head = 0;
  compactStarts();
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
