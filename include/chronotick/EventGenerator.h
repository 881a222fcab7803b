#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

class ChronotickBase;

// Plays `pattern` (times relative to the trigger, ps) on a virtual channel
// for every trigger_divider-th tag of the trigger channel, starting with the
// one numbered divider_offset. A tag on stop_channel cancels whatever is
// still pending. Negative pattern values delay the whole stream so that the
// generated tags can be put in order.
//
// Triggers are numbered from 0 at each start and clear. The patterns of
// successive triggers may overlap; all are played. The pattern is sorted, and
// an empty one generates nothing. With a negative smallest value v, every tag
// of the stream (all channels, breaks included) leaves -v ps later than it
// came, and the generated tags keep their place relative to the delayed
// trigger. Generated tags stand behind stream tags of the same time.
// Events handled: TimeTag on the trigger channel: a trigger as above (a
// MissedEvents tag there is not one). A tag on stop_channel: every generated
// tag timed at or after the stop tag's arrival time is cancelled; with a
// negative pattern value the stop tag itself leaves -v later, so generated
// tags up to -v before it are cancelled too. Error: generated tags due before
// it go out, the rest of every pattern being played is dropped; the trigger
// count goes on. OverflowBegin/End: generated tags that fall between the two become
// MissedEvents tags (missed_events 1). MissedEvents: passes unchanged.
// A start or clear drops every pattern being played and what is held back of
// the stream, so with a negative pattern value the last -v of the stream
// before a stop never reaches later measurements.
// Arguments: throws std::runtime_error("negative or zero trigger dividers are
// not supported") for a trigger_divider of 0, and std::runtime_error(
// "divider_offset must be smaller than trigger_divider").
// Thread safety: getChannel returns what was fixed at construction and may be
// called from any thread.
class CHRONOTICK_API EventGenerator : public IteratorBase {
public:
  EventGenerator(ChronotickBase *tagger, std::int32_t trigger_channel, std::vector<std::int64_t> pattern,
                 std::uint64_t trigger_divider = 1, std::uint64_t divider_offset = 0,
                 std::int32_t stop_channel = CHANNEL_UNUSED);
  ~EventGenerator() override;

  // The channel of the generated tags.
  std::int32_t getChannel();

protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  bool nextDirect(std::vector<Tag> &tags, std::int64_t end_time);
  bool nextDelayed(std::vector<Tag> &tags, std::int64_t end_time);
  void trigger(std::int64_t time);
  void dropGenerated();
  void compactStarts();
  void releaseGenerated();
  void releaseBelow(std::int64_t time);
  void releaseBothBelow(std::int64_t time);
  void passStreamTag(const Tag &tag);

  std::int32_t trigger_channel;
  std::int32_t output_channel;
  std::int32_t stop_channel;
  std::int64_t divider_top;
  std::uint64_t offset;
  std::uint64_t counter;
  bool in_overflow;
  std::vector<std::int64_t> pattern;
  std::vector<Tag> output;
  // Generated tags: the times of the started patterns, from start number
  // starts_base on, and for each pattern value the cursor that will give its
  // next tag, on a min-heap by time; values whose cursor has caught up with
  // the last start wait in idle_values.
  struct Cursor {
    std::int64_t time;
    std::uint64_t start;
    std::int64_t value;
  };
  std::vector<std::int64_t> starts;
  std::uint64_t starts_base = 0;
  std::uint64_t n_starts = 0;
  std::vector<Cursor> cursors;
  std::vector<std::int64_t> idle_values;
  bool direct;
  std::int64_t shift;
  // The delayed input stream from [delayed_head] on, only if not direct, and
  // the times at which its Error tags leave it.
  std::vector<Tag> delayed;
  std::size_t delayed_head = 0;
  std::vector<std::int64_t> error_dues;
  std::size_t error_head = 0;
};

} // namespace chronotick
