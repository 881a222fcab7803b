#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Average rate of each channel since the measurement began, and the total
// number of its tags.
//
// Events handled: TimeTag on a listed channel: one count. MissedEvents on a
// listed channel: missed_events counts, so tags lost in an overflow still
// count. Error: the rate restarts, counting from the first tag of a listed
// channel after it; the total goes on. OverflowBegin/End: ignored. A channel
// listed twice counts at each of its places.
// A start begins afresh, the totals included, as does clear.
// Thread safety: getters may be called from any thread while the stream runs;
// they take the measurement's lock.
class CHRONOTICK_API Countrate : public IteratorBase {
public:
  Countrate(ChronotickBase *tagger, std::vector<std::int32_t> channels);
  ~Countrate() override;

  // allocate(number of channels); counts per second: the counts since the
  // start (or the last Error) divided by the stream time from the beginning
  // of the first block after the start (or from the first tag counted after
  // the Error) to the end of the last block seen; 0 before any time passed.
  void getData(std::function<double *(std::size_t)> allocate);
  // allocate(number of channels); counts (tags and missed events) since the
  // last start or clear.
  void getCountsTotal(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;
  void clear_impl() override;
  void on_start() override;

private:
  friend struct CountrateLoop;

  std::vector<std::int32_t> channels;
  std::int64_t last_time;
  std::int64_t first_time; // 0: not anchored yet
  std::vector<std::int64_t> counts_period;
  std::vector<std::int64_t> counts_total;

  // Channel lookup for the loop: lookup[channel - lookup_min] is the index
  // into channels, or -1. Empty if the channels are too far apart or one is
  // listed twice; the loop then scans the list.
  std::vector<std::int32_t> lookup;
  std::int32_t lookup_min;
};

} // namespace chronotick
