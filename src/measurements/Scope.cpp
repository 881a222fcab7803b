#include <chronotick/ChronotickBase.h>
#include <chronotick/Scope.h>

#include <algorithm>
#include <utility>

namespace chronotick {

Scope::Scope(ChronotickBase *tagger_, std::vector<std::int32_t> event_channels, std::int32_t trigger_channel_,
             std::int64_t window_size_, std::int32_t n_traces_, std::int32_t n_max_events_)
    : IteratorBase(tagger_), triggered_count(0), continuous(n_traces_ < 1), trigger_channel(trigger_channel_),
      window_size(window_size_), n_traces(n_traces_ < 1 ? 1 : n_traces_),
      // Sign-extended, then compared as unsigned: a negative limit is no limit.
      n_max_events(static_cast<std::uint64_t>(static_cast<std::int64_t>(n_max_events_))),
      n_channels(event_channels.size()) {
  for (std::int32_t channel : event_channels) {
    edge_channels.push_back(channel);
    edge_channels.push_back(tagger->getInvertedChannel(channel));
  }
  registerChannel(trigger_channel);
  for (std::int32_t channel : edge_channels) {
    registerChannel(channel);
  }
  // Read once: later changes of the dead times don't reach this scope.
  for (std::int32_t channel : edge_channels) {
    edge_deadtimes.push_back(tagger->getDeadtime(channel));
  }
  channel_levels.assign(n_channels, LevelUnknown);
  traces.resize(static_cast<std::size_t>(n_traces) * n_channels);
  if (continuous) {
    published.resize(traces.size());
  }
  clear();
  finishInitialization();
}

Scope::~Scope() {
  stop();
}

void Scope::reset() {
  open_triggers.clear();
  triggered_count = 0;
  for (auto &list : traces) {
    list.clear(); // keeps the capacity for the next window
  }
}

void Scope::clear_impl() {
  reset();
  std::fill(channel_levels.begin(), channel_levels.end(), LevelUnknown);
  for (auto &list : published) {
    list.clear();
  }
}

namespace {
inline EventLevel opposite(EventLevel level) {
  return level == LevelHigh ? LevelLow : LevelHigh;
}
} // namespace

bool Scope::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t end_time) {
  for (const Tag &tag : tags) {
    if (tag.type != Tag::Type::TimeTag) {
      // Lost data: the levels are unknown from here on, and the open windows
      // end with that fact.
      std::fill(channel_levels.begin(), channel_levels.end(), LevelUnknown);
      for (const ScopeTrigger &trigger : open_triggers) {
        const std::int64_t e = tag.time - trigger.time;
        if (e < window_size) {
          for (std::uint64_t c = 0; c < n_channels; ++c) {
            auto &list = traces[trigger.trace * n_channels + c];
            if (list.size() < n_max_events) {
              list.push_back(Event{e, LevelUnknown});
            }
          }
        }
      }
      open_triggers.clear();
      continue;
    }

    const std::int32_t channel = tag.channel;
    for (std::uint64_t c = 0; c < n_channels; ++c) {
      if (channel == edge_channels[2 * c]) {
        channel_levels[c] = LevelHigh;
      } else if (channel == edge_channels[2 * c + 1]) {
        channel_levels[c] = LevelLow;
      }
    }

    if (channel == trigger_channel && triggered_count < n_traces) {
      open_triggers.push_back(ScopeTrigger{tag.time, triggered_count});
      for (std::uint64_t c = 0; c < n_channels; ++c) {
        // The first event isn't subject to n_max_events.
        traces[triggered_count * n_channels + c].push_back(Event{0, static_cast<EventLevel>(channel_levels[c])});
      }
      ++triggered_count;
    }

    for (const ScopeTrigger &trigger : open_triggers) {
      if (tag.time == trigger.time && channel == trigger_channel) {
        continue; // the trigger itself, already shown by the first events
      }
      const std::int64_t e = tag.time - trigger.time;
      for (std::uint64_t c = 0; c < n_channels; ++c) {
        EventLevel level;
        if (channel == edge_channels[2 * c]) {
          level = LevelHigh;
        } else if (channel == edge_channels[2 * c + 1]) {
          level = LevelLow;
        } else {
          continue;
        }
        auto &list = traces[trigger.trace * n_channels + c];
        if (!list.empty()) {
          Event &last = list.back();
          if (last.level == LevelUnknown) {
            if (list.size() >= n_max_events) {
              continue;
            }
            // An edge to high proves that the signal was low before it.
            last.level = opposite(level);
          }
          if (last.level == LevelLow && level == LevelHigh) {
            if (e - last.time < edge_deadtimes[2 * c + 1]) {
              level = LevelUnknown;
            }
          } else if (last.level == LevelHigh && level == LevelLow) {
            if (e - last.time < edge_deadtimes[2 * c]) {
              level = LevelUnknown;
            }
          }
        }
        if (list.size() < n_max_events && e < window_size) {
          list.push_back(Event{e, level});
        }
      }
    }
  }

  const bool had_open = !open_triggers.empty();
  std::size_t closed = 0; // windows that are complete, oldest first
  while (closed < open_triggers.size()) {
    const ScopeTrigger &front = open_triggers[closed];
    bool finished = n_channels == 0 || end_time - front.time >= window_size;
    if (!finished) {
      finished = true;
      for (std::uint64_t c = 0; c < n_channels; ++c) {
        if (traces[front.trace * n_channels + c].size() < n_max_events) {
          finished = false;
          break;
        }
      }
    }
    if (!finished) {
      break; // later triggers wait behind it
    }
    ++closed;
  }
  open_triggers.erase(open_triggers.begin(), open_triggers.begin() + static_cast<std::ptrdiff_t>(closed));
  if (continuous && had_open && open_triggers.empty()) {
    published = traces; // element-wise: the lists of published keep their capacity
    reset();
  }
  return false;
}

std::vector<std::vector<Event>> Scope::getData() {
  auto guard = getLock();
  return continuous ? published : traces;
}

std::int64_t Scope::getWindowSize() {
  auto guard = getLock();
  return window_size;
}

std::int32_t Scope::triggered() {
  auto guard = getLock();
  return triggered_count;
}

bool Scope::ready() {
  auto guard = getLock();
  if (continuous) {
    return !published.empty() && !published.front().empty();
  }
  return triggered_count == n_traces && open_triggers.empty();
}

} // namespace chronotick
