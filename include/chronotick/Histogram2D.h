#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Two-dimensional histogram of the times from one start to a stop on each of
// two channels. One triple at a time: a start and one stop of each kind make
// a count, after which a new start is needed.
//
// A start tag begins a triple and forgets the stops before it; after it the
// latest stop of each kind is kept. Once both are there, the triple counts in
// bin (i, j) = ((stop_1 - start) / binwidth_1, (stop_2 - start) / binwidth_2),
// rounded down, if that lies within (n_bins_1, n_bins_2), and ends. One tag may
// play several roles.
// Events handled: Error, OverflowBegin/End and MissedEvents drop the triple
// being assembled.
// Stop and start keep the triple; clear drops it and the histogram.
// Arguments: throws std::invalid_argument("binwidth_1 and binwidth_2 must be
// at least 1 ps"), ("n_bins_1 and n_bins_2 must be at least 1") or
// ("n_bins_1 times n_bins_2 must not exceed 2147483647").
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API Histogram2D : public IteratorBase {
public:
  Histogram2D(ChronotickBase *tagger, std::int32_t start_channel, std::int32_t stop_channel_1,
              std::int32_t stop_channel_2, std::int64_t binwidth_1, std::int64_t binwidth_2, std::int32_t n_bins_1,
              std::int32_t n_bins_2);
  ~Histogram2D() override;

  // allocate(n_bins_1, n_bins_2): n_bins_1 rows of n_bins_2 counts.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins_1, n_bins_2, 2); for each bin (i, j) its lower edges in
  // ps: i * binwidth_1, j * binwidth_2.
  void getIndex(std::function<std::int64_t *(std::size_t, std::size_t, std::size_t)> allocate);
  // allocate(n_bins_1); lower edges along the first axis, i * binwidth_1 ps.
  void getIndex_1(std::function<std::int64_t *(std::size_t)> allocate);
  // allocate(n_bins_2); lower edges along the second axis, j * binwidth_2 ps.
  void getIndex_2(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::int64_t start_time;
  std::int64_t stop_1_time;
  std::int64_t stop_2_time;
  bool have_start;
  bool have_stop_1;
  bool have_stop_2;
  std::int32_t start_channel;
  std::int32_t stop_channel_1;
  std::int32_t stop_channel_2;
  std::int64_t binwidth_1;
  std::int64_t binwidth_2;
  std::int32_t n_bins_1;
  std::int32_t n_bins_2;
  std::vector<std::int32_t> data;
};

} // namespace chronotick
