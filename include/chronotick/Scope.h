#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// The level of a signal right after an event of a Scope trace.
enum EventLevel : std::int32_t {
  LevelUnknown = 0, // no edge seen yet, or edges or data may have been lost
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
//
// A watched channel's tags are its rising edges (level high after them), its
// inverted channel's tags its falling edges (level low). A TimeTag on the
// trigger channel opens the next trace, until n_traces have been begun; each
// trace starts with one event per channel at time 0 with the level known then.
// Edges less than window_size ps after the trigger are added, at most
// n_max_events per channel and trace (the first event aside; a negative
// n_max_events is no limit). An edge proves the opposite level before it, so
// an unknown level is corrected by the next edge. An edge that follows the
// opposite edge by less than that edge channel's dead time (read once, at
// construction) gets LevelUnknown, since edges may have been lost between.
// A window closes once the stream has passed window_size after its trigger,
// or its channels are all full. In continuous mode one trace is taken at a
// time; when its window has closed, it is published at the end of that block
// and the scope rearms, so triggers before that are ignored.
// Events handled: Error, OverflowBegin/End and MissedEvents: every level
// becomes unknown; each open window gets a LevelUnknown event per channel at
// the break and closes there. (In continuous mode such a window is not
// published, and the scope doesn't rearm until clear.)
// Stop and start keep the traces and levels; clear drops them, the published
// window too.
// Arguments: nothing is checked.
// Thread safety: getters may be called from any thread while the stream runs;
// they take the measurement's lock.
class CHRONOTICK_API Scope : public IteratorBase {
public:
  Scope(ChronotickBase *tagger, std::vector<std::int32_t> event_channels, std::int32_t trigger_channel,
        std::int64_t window_size, std::int32_t n_traces, std::int32_t n_max_events);
  ~Scope() override;

  // n_traces * n_channels lists of events; trace t, channel c is at
  // t * n_channels + c. In continuous mode the last published window (one
  // trace), with empty lists before the first.
  std::vector<std::vector<Event>> getData();
  // The window after each trigger, in ps.
  std::int64_t getWindowSize();
  // Traces begun since the last clear or rearm.
  std::int32_t triggered();
  // Single shot: true once all n_traces traces are begun and their windows
  // closed. Continuous: true once a window has been published.
  bool ready();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  void reset();

  std::vector<ScopeTrigger> open_triggers; // oldest first
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
