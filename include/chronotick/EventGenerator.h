#pragma once

#include <chronotick/Export.h>
#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace chronotick {

class ChronotickBase;
class TagFifo;

// Plays `pattern` (times relative to the trigger, ps) on a virtual channel
// for every trigger_divider-th tag of the trigger channel, starting with the
// one numbered divider_offset. A tag on stop_channel cancels whatever is
// still pending. Negative pattern values delay the whole stream so that the
// generated tags can be put in order.
class CHRONOTICK_API EventGenerator : public IteratorBase {
public:
  EventGenerator(ChronotickBase *tagger, std::int32_t trigger_channel, std::vector<std::int64_t> pattern,
                 std::uint64_t trigger_divider = 1, std::uint64_t divider_offset = 0,
                 std::int32_t stop_channel = CHANNEL_UNUSED);
  ~EventGenerator() override;

  std::int32_t getChannel();

protected:
  void clear_impl() override;
  void on_start() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  bool nextDirect(std::vector<Tag> &tags, std::int64_t end_time);
  bool nextDelayed(std::vector<Tag> &tags, std::int64_t end_time);
  void trigger(std::int64_t time);
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
  std::vector<Tag> heap; // generated tags, min-heap by time
  bool direct;
  std::int64_t shift;
  std::unique_ptr<TagFifo> input_queue; // delayed input tags, only if not direct
};

} // namespace chronotick
