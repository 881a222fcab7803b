#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Merges several channels into one new channel and counts the tags of each
// input. The block's own tags stay; each copy stands right behind its source.
class CHRONOTICK_API Combiner : public IteratorBase {
public:
  Combiner(ChronotickBase *tagger, std::vector<std::int32_t> channels);
  ~Combiner() override;

  // The new channel.
  std::int32_t getChannel();
  // Tags seen per input since the last clear, in the order of the inputs.
  void getData(std::function<std::int64_t *(std::size_t)> allocator);

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> counts;
  std::int32_t virtual_channel;
  std::vector<Tag> output;
};

} // namespace chronotick
