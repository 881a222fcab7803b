#include <chronotick/GatedChannel.h>

#include "channels/TagWriter.h"

#include <stdexcept>

namespace chronotick {

GatedChannel::GatedChannel(ChronotickBase *tagger, std::int32_t input_channel_, std::int32_t gate_start_channel_,
                           std::int32_t gate_stop_channel_)
    : IteratorBase(tagger), input_channel(input_channel_), gate_start_channel(gate_start_channel_),
      gate_stop_channel(gate_stop_channel_) {
  virtual_channel = getNewVirtualChannel();
  if (gate_start_channel == gate_stop_channel)
    throw std::runtime_error("Gate start and stop channel must not be the same.");
  registerChannel(input_channel);
  registerChannel(gate_start_channel);
  registerChannel(gate_stop_channel);
  finishInitialization();
}

GatedChannel::~GatedChannel() {
  stop();
}

std::int32_t GatedChannel::getChannel() {
  return virtual_channel;
}

bool GatedChannel::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  TagWriter writer(output);
  const std::int32_t input = input_channel;
  const std::int32_t start = gate_start_channel;
  const std::int32_t stop = gate_stop_channel;
  bool open = gate_open;
  for (const Tag &tag : tags) {
    writer.push(tag);
    // Any mark of lost data closes the gate, as does the stop channel, which
    // is never passed itself; the start channel opens it, and passes if it is
    // the input too. Start and stop differ, so at most one of them matches.
    const bool time_tag = tag.type == Tag::Type::TimeTag;
    const bool is_stop = tag.channel == stop;
    open = time_tag & !is_stop & (open | (tag.channel == start));
    Tag copy = tag;
    copy.channel = virtual_channel;
    writer.pushIf(copy, open & (tag.channel == input));
  }
  gate_open = open;
  writer.finish();
  output.swap(tags);
  return true;
}

} // namespace chronotick
