#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace chronotick {

enum EventLevel : std::int32_t {
  LevelUnknown = 0,
  LevelHigh = 1,
  LevelLow = 2,
};

// One entry of a Scope trace: picoseconds after the trigger, and the level
// from this event on.
struct Event {
  std::int64_t time;
  EventLevel level;
};

// One open window of a Scope.
struct ScopeTrigger {
  std::int64_t time;
  std::int32_t trace;
};

// Records digital signals like a logic analyser: a trigger tag opens a window
// in which every edge of the watched channels (both edges of each) becomes an
// event with the level that follows it. With n_traces below 1 the scope runs
// continuously: it publishes each finished window and rearms itself.
class CHRONOTICK_API Scope : public IteratorBase {
public:
  Scope(ChronotickBase *tagger, std::vector<std::int32_t> event_channels, std::int32_t trigger_channel,
        std::int64_t window_size, std::int32_t n_traces, std::int32_t n_max_events);
  ~Scope() override;

  // n_traces * n_channels lists; trace t, channel c is at t * n_channels + c.
  std::vector<std::vector<Event>> getData();
  std::int64_t getWindowSize();
  // Traces begun since the last rearm.
  std::int32_t triggered();
  bool ready();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void reset();

  std::deque<ScopeTrigger> open_triggers;
  std::vector<std::int32_t> channel_levels;
  std::int32_t triggered_count;
  std::vector<std::vector<Event>> traces;
  std::vector<std::vector<Event>> published;
  bool continuous;
  std::vector<std::int32_t> edge_channels;
  std::int32_t trigger_channel;
  std::int64_t window_size;
  std::int32_t n_traces;
  std::uint64_t n_max_events;
  std::uint64_t n_channels;
  std::vector<std::int64_t> edge_deadtimes;
};

} // namespace chronotick
