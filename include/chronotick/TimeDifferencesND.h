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
//
// Every click less than n_bins * binwidth ps after an open start counts in bin
// floor((click - start) / binwidth) of the histogram selected when the start
// came; all pairs count, and a tag on both the start and the click channel
// pairs with itself in bin 0. start_channel must be a channel in use: it does
// not default to the click channel.
// Positions: each dimension starts without one, and a start opens only while
// every dimension has one. The first next tag of a dimension selects position
// 0, each further one moves on by one; after the last position it wraps to 0,
// or, with a sync channel, waits for a sync tag. A sync tag (needed first of
// all where there is a sync channel) takes its dimension back to no position.
// A dimension whose next channel is unused never gets a position, and with no
// dimensions at all nothing is recorded. sync_channels may be empty for none,
// or hold CHANNEL_UNUSED for a dimension without one.
// Events handled: Error, OverflowBegin/End and MissedEvents: the positions of
// all dimensions are forgotten as at a start; the data and the open starts
// stay, so a start before a break still pairs with clicks after it.
// A start forgets the positions and keeps the open starts; clear drops the
// starts and the data and keeps the positions.
// Arguments: throws std::invalid_argument with "dimension mismatch of input
// arguments" (n_histograms, or a non-empty sync_channels, not as long as
// next_channels), "binwidth must be at least 1 ps", "n_bins must be at least
// 1" or "all elements of n_histograms must be at least 1".
// Thread safety: getters may be called from any thread while the stream runs;
// getData takes the measurement's lock.
class CHRONOTICK_API TimeDifferencesND : public IteratorBase {
public:
  TimeDifferencesND(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel,
                    std::vector<std::int32_t> next_channels, std::vector<std::int32_t> sync_channels,
                    std::vector<std::int32_t> n_histograms, std::int64_t binwidth, std::uint64_t n_bins);
  ~TimeDifferencesND() override;

  // allocate(product of n_histograms, n_bins): counts, one row per
  // combination of positions; the first dimension varies fastest.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins): lower edge of each bin in ps, i * binwidth.
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
