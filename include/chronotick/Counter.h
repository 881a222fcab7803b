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
class CHRONOTICK_API Counter : public IteratorBase {
public:
  Counter(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t binwidth = 1000000000,
          std::int32_t n_values = 1);
  ~Counter() override;

  // allocate(number of channels, n_values); oldest bin first, the bin being
  // filled is left out.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_values); element i is i * binwidth.
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
