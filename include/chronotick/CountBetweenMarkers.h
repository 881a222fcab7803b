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
//
// Events handled: TimeTag on click_channel: counted in the open bin, if any.
// A tag that is both a click and a begin counts in the bin it opens; one that
// is both a click and an end isn't counted. Further begin tags after the last
// bin change nothing. Error, OverflowBegin/End and MissedEvents are ignored:
// an open bin stays open across a break, and lost tags are not counted.
// Stop and start keep the state; clear starts over.
// Arguments: nothing is checked. A negative n_values throws std::length_error
// (from std::vector); 0 gives empty results.
// Thread safety: getters may be called from any thread while the stream runs;
// they take the measurement's lock.
class CHRONOTICK_API CountBetweenMarkers : public IteratorBase {
public:
  CountBetweenMarkers(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t begin_channel,
                      std::int32_t end_channel, std::int32_t n_values);
  ~CountBetweenMarkers() override;

  // allocate(n_values): clicks counted in each bin; 0 for bins not begun.
  void getData(std::function<std::int32_t *(std::size_t)> allocate);
  // allocate(n_values): width of each closed bin in ps; 0 while a bin is not
  // closed.
  void getBinWidths(std::function<std::int64_t *(std::size_t)> allocate);
  // allocate(n_values): begin time of each bin in ps, relative to the first
  // begin tag; 0 for bins not begun.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);
  // True once all n_values bins are complete (the last closed by an end tag
  // or the next begin tag).
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
