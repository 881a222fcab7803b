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
//
// Every click less than n_bins * binwidth ps after an open start counts in
// bin floor((click - start) / binwidth) of the histogram selected when the
// start came; all pairs count. With start_channel unused each click is also a
// start and pairs with itself in bin 0. A click and a start on different
// channels at the same time pair only if the start stands first.
// Sequence: without a next channel every start goes to histogram 0. With one,
// nothing is recorded before the first next tag, which selects histogram 0;
// each further next tag moves on by one. The next tag after the last
// histogram completes a pass (getCounts) and wraps to histogram 0, or, with a
// sync channel, stops recording until a sync tag. With a sync channel nothing
// is recorded before the first sync tag; each sync tag re-arms the sequence
// as at the beginning, and completes a pass if it cuts one short.
// With max_counts set, once that many passes are complete, start, next and
// sync tags are ignored; open starts still collect clicks until they are out
// of range.
// Events handled: Error, OverflowBegin/End and MissedEvents drop the open
// starts and rewind the sequence as at the beginning: with a next or sync
// channel, recording resumes only as it would after a start. The pass count
// stays.
// A start does the same; clear also empties the histograms and the pass
// count (max_counts stays).
// Arguments: throws std::invalid_argument("binwidth must be at least 1 ps"),
// std::invalid_argument("n_bins must be at least 1"),
// std::invalid_argument("n_histograms must be at least 1") or
// std::invalid_argument("n_bins times n_histograms must not exceed 2147483647").
// Thread safety: getters and setMaxCounts may be called from any thread while
// the stream runs; they take the measurement's lock.
class CHRONOTICK_API TimeDifferences : public IteratorBase {
public:
  TimeDifferences(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel = CHANNEL_UNUSED,
                  std::int32_t next_channel = CHANNEL_UNUSED, std::int32_t sync_channel = CHANNEL_UNUSED,
                  std::int64_t binwidth = 1000, std::int32_t n_bins = 1000, std::int32_t n_histograms = 1);
  ~TimeDifferences() override;

  // allocate(n_histograms, n_bins): counts, row by row.
  void getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate);
  // allocate(n_bins); lower bin edges, element i is i * binwidth, in ps.
  void getIndex(std::function<std::int64_t *(std::size_t)> allocate);
  // Limit of completed passes through the histograms; 0 for none.
  void setMaxCounts(std::uint64_t max_counts);
  // Passes through the histograms completed since the last clear.
  std::uint64_t getCounts();
  // True once max_counts passes are done and no start is open any more.
  // Without a limit it only tells whether no start is open.
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
