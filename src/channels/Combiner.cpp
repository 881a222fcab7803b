#include <chronotick/Combiner.h>

#include "channels/TagWriter.h"

#include <algorithm>
#include <utility>

namespace chronotick {

Combiner::Combiner(ChronotickBase *tagger, std::vector<std::int32_t> channels_)
    : IteratorBase(tagger), channels(std::move(channels_)) {
  counts.resize(channels.size());
  clear();
  for (std::int32_t channel : channels)
    registerChannel(channel);
  virtual_channel = getNewVirtualChannel();
  finishInitialization();
}

Combiner::~Combiner() {
  stop();
}

std::int32_t Combiner::getChannel() {
  return virtual_channel;
}

void Combiner::getData(std::function<std::int64_t *(std::size_t)> allocator) {
  std::int64_t *data = allocator(counts.size());
  auto lk = getLock();
  std::copy(counts.begin(), counts.end(), data);
}

void Combiner::clear_impl() {
  std::fill(counts.begin(), counts.end(), 0);
}

bool Combiner::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  TagWriter writer(output);
  const std::size_t n = channels.size();
  const std::int32_t *inputs = channels.data();
  std::int64_t *count = counts.data();
  for (const Tag &tag : tags) {
    writer.push(tag);
    Tag copy = tag;
    copy.channel = virtual_channel;
    // Written every time, kept only on a match: no branch to mispredict.
    for (std::size_t i = 0; i < n; ++i) {
      const bool match = tag.channel == inputs[i];
      count[i] += match;
      writer.pushIf(copy, match);
    }
  }
  writer.finish();
  output.swap(tags);
  return true;
}

} // namespace chronotick
