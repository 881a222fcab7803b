#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Rolling trace of the number of tags per time bin, one row a channel, for
// the most recent n_values bins.
//
// Bins are binwidth ps wide. The grid is anchored at the beginning of the
// first block after a start or clear, and after a break at the next counted
// tag (or the end of the block).
// Events handled: TimeTag on a listed channel: counted in the bin of its time;
// a channel listed twice counts in both rows. Error, OverflowBegin/End and
// MissedEvents: the bin being filled is emptied on every row and the grid
// re-anchors as above; finished bins stay, and no bin marks the gap. Lost
// tags are not counted.
// A start keeps the finished bins and drops the bin being filled; clear
// empties every bin.
// Arguments: throws std::invalid_argument("binwidth must be at least 1 ps")
// and std::invalid_argument("n_values must be at least 1").
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API Counter : public IteratorBase {
public:
  Counter(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t binwidth = 1000000000,
          std::int32_t n_values = 1);
  ~Counter() override;

  // allocate(number of channels, n_values): tags per bin, oldest bin first;
  // the bin being filled is left out, bins not reached yet are 0.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_values); element i is i * binwidth, in ps.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;
  void clear_impl() override;
  void on_start() override;

private:
  friend struct CounterLoop;

  void setBinPosition(std::int64_t time);

  std::vector<std::int32_t> data; // one ring of n_values + 1 slots per channel
  std::vector<std::int32_t> channels;
  std::int64_t binwidth;
  std::int32_t n_values;
  std::int32_t current_index;
  std::int64_t bin_start; // -1: not anchored yet

  // Channel lookup for the loop: lookup[channel - lookup_min] is the first
  // element of the channel's row in data, or -1. Empty if the channels are
  // too far apart or one is listed twice; the loop then scans the list.
  std::vector<std::int32_t> lookup;
  std::int32_t lookup_min;
};

} // namespace chronotick
