#include <chronotick/TimeTagStream.h>

#include <algorithm>
#include <utility>

namespace chronotick {

TimeTagStream::TimeTagStream(ChronotickBase *tagger_, std::uint64_t n_max_events_, std::vector<std::int32_t> channels_)
    : IteratorBase(tagger_), channels(std::move(channels_)), n_max_events(n_max_events_), t_get_data(0), t_start(-1) {
  clear_impl();
  for (std::int32_t channel : channels) {
    registerChannel(channel);
  }
  finishInitialization();
}

TimeTagStream::~TimeTagStream() {
  stop();
}

std::uint64_t TimeTagStream::getCounts() {
  auto guard = getLock();
  return columns.size();
}

TimeTagStreamBuffer TimeTagStream::getData() {
  auto guard = getLock();
  // Empty columns stay here, with the room they have.
  TagColumns taken;
  if (columns.size() != 0) {
    std::swap(taken, columns);
  }
  TimeTagStreamBuffer result(std::move(taken), t_start, t_get_data);
  clear_impl();
  t_start = t_get_data; // the next read continues where this one ended
  return result;
}

void TimeTagStream::clear_impl() {
  columns.clear();
  columns.reserve(n_max_events);
  t_start = -1;
}

bool TimeTagStream::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  t_get_data = end_time;
  if (columns.size() == 0 && t_start == -1) {
    t_start = end_time;
  }
  auto take = [this](const Tag &tag) { columns.push(tag); };
  const std::uint64_t held = columns.size();
  if (held >= n_max_events) {
    return false;
  }
  if (channels.empty()) {
    const std::size_t k = static_cast<std::size_t>(std::min<std::uint64_t>(tags.size(), n_max_events - held));
    for (std::size_t i = 0; i < k; ++i) {
      take(tags[i]);
    }
    return false;
  }
  // A short filter is a linear scan; it beats any set for the usual 1 to 8 channels.
  const std::int32_t *filter = channels.data();
  const std::size_t n_filter = channels.size();
  std::uint64_t room = n_max_events - held;
  for (const Tag &tag : tags) {
    if (room == 0) {
      break;
    }
    bool wanted;
    if (tag.type == Tag::Type::TimeTag || tag.type == Tag::Type::MissedEvents) {
      wanted = std::find(filter, filter + n_filter, tag.channel) != filter + n_filter;
    } else {
      wanted = true;
    }
    if (wanted) {
      take(tag);
      --room;
    }
  }
  return false;
}

} // namespace chronotick
