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
class CHRONOTICK_API Histogram2D : public IteratorBase {
public:
  Histogram2D(ChronotickBase *tagger, std::int32_t start_channel, std::int32_t stop_channel_1,
              std::int32_t stop_channel_2, std::int64_t binwidth_1, std::int64_t binwidth_2, std::int32_t n_bins_1,
              std::int32_t n_bins_2);
  ~Histogram2D() override;

  // n_bins_1 rows of n_bins_2 counts.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // For each bin (i, j): i * binwidth_1, j * binwidth_2.
  void getIndex(std::function<std::int64_t *(std::size_t, std::size_t, std::size_t)> allocate);
  void getIndex_1(std::function<std::int64_t *(std::size_t)> allocate);
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
