#pragma once

#include <chronotick/Export.h>
#include <chronotick/FastBinning.h>
#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

class ChronotickBase;

// One open start: its time and the histogram it fills.
struct TimeDifferencesStart {
  std::int64_t time;
  std::int32_t histogram;
  std::int32_t offset; // histogram * n_bins, the row's first element in data
};

// Histograms of the time from each start to every later click within
// n_bins * binwidth; a next channel moves on to the following histogram and a
// sync channel re-arms the sequence.
class CHRONOTICK_API TimeDifferences : public IteratorBase {
public:
  TimeDifferences(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel = CHANNEL_UNUSED,
                  std::int32_t next_channel = CHANNEL_UNUSED, std::int32_t sync_channel = CHANNEL_UNUSED,
                  std::int64_t binwidth = 1000, std::int32_t n_bins = 1000, std::int32_t n_histograms = 1);
  ~TimeDifferences() override;

  // allocate(n_histograms, n_bins); row by row.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins); element i is i * binwidth.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);
  // Limit of completed passes through the histograms; 0 for none.
  void setMaxCounts(std::uint64_t max_counts);
  std::uint64_t getCounts();
  // True once max_counts passes are done and no start is open any more.
  bool ready();

protected:
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;
  void clear_impl() override;
  void on_start() override;

private:
  friend struct TimeDifferencesLoop;

  // Empties the starts and rewinds the sequence of histograms; `release`
  // also gives back the queue's storage.
  void restart(bool release);
  void pushStart(std::int64_t time);

  std::int32_t click_channel;
  std::int32_t start_channel;
  std::int32_t next_channel;
  std::int32_t sync_channel;
  bool next_unused;
  bool sync_unused;
  std::int32_t n_bins;
  std::int32_t n_histograms;
  std::int64_t binwidth;
  std::int64_t range; // n_bins * binwidth
  std::vector<std::int32_t> data;
  // Queue of open starts, oldest first: the live entries are
  // [starts_head, starts_tail) of a buffer that is reused as they move.
  std::vector<TimeDifferencesStart> starts;
  std::size_t starts_head;
  std::size_t starts_tail;
  bool waiting_for_sync;
  std::int32_t histogram_index; // -1: the first next tag has not come yet
  std::uint64_t counts;
  std::uint64_t max_counts;
  FastBinning binner;
};

} // namespace chronotick
