#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Counts the tags of one channel in bins opened by begin tags; a bin ends at
// the next begin tag or at an end tag. Fills n_values bins once, in order,
// recording each bin's width and its begin time from the first begin tag.
class CHRONOTICK_API CountBetweenMarkers : public IteratorBase {
public:
  CountBetweenMarkers(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t begin_channel,
                      std::int32_t end_channel, std::int32_t n_values);
  ~CountBetweenMarkers() override;

  // Counts of each bin, n_values long.
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // Width of each closed bin in picoseconds; 0 while a bin is not closed.
  void getBinWidths(std::function<std::int64_t *(std::size_t)> allocate);
  // Begin time of each bin, relative to the first begin tag.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);
  // True once all n_values bins are complete.
  bool ready();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int32_t> data;
  std::vector<std::int64_t> binwidths;
  std::vector<std::int64_t> index;
  std::int32_t click_channel;
  std::int32_t begin_channel;
  std::int32_t end_channel;
  std::int32_t n_values;
  std::int32_t current_bin; // -1 before the first begin tag; may grow beyond n_values
  bool between_bins;
  std::int64_t last_begin;
  std::int64_t first_begin;
};

} // namespace chronotick
