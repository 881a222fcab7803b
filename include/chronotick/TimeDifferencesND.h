#pragma once

#include <chronotick/FastBinning.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// One open start of TimeDifferencesND: its time and the index in the data of
// bin 0 of the histogram that was selected when it arrived.
struct TimeDifferencesNDStart {
  std::int64_t time;
  std::uint64_t offset;
};

// Multi-start, multi-stop histograms, one for each combination of positions
// in several dimensions. Each dimension moves on its own next channel and may
// be re-armed by its own sync channel.
class CHRONOTICK_API TimeDifferencesND : public IteratorBase {
public:
  TimeDifferencesND(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel,
                    std::vector<std::int32_t> next_channels, std::vector<std::int32_t> sync_channels,
                    std::vector<std::int32_t> n_histograms, std::int64_t binwidth, std::uint64_t n_bins);
  ~TimeDifferencesND() override;

  // (number of histograms, n_bins); the first dimension varies fastest.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // Lower edge of each bin.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);

protected:
  void on_start() override;
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  template <class ModeTag> void process(const std::vector<Tag> &tags, std::int64_t end_time);
  void growStarts();
  void selectHistogram();

  std::int32_t click_channel;
  std::int32_t start_channel;
  std::vector<std::int32_t> next_channels;
  std::vector<std::int32_t> sync_channels;
  std::vector<unsigned char> sync_unused;
  std::vector<std::int32_t> n_histograms;
  std::int64_t binwidth;
  std::uint64_t n_bins;
  std::uint64_t n_dimensions;
  // The open starts, oldest first: a ring of power-of-two length, so that the
  // queue reuses its storage as it moves instead of allocating per block.
  std::vector<TimeDifferencesNDStart> starts;
  std::size_t starts_front;
  std::size_t starts_count;
  std::vector<std::int32_t> data;
  std::vector<unsigned char> waiting_for_sync;
  std::vector<std::int32_t> histogram_index;
  std::uint64_t histogram_offset;
  bool histogram_valid;
  FastBinning binner;
  std::int32_t position_channels_min; // the next and sync channels lie in between
  std::int32_t position_channels_max;
};

} // namespace chronotick
