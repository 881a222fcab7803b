#include <chronotick/GatedChannel.h>

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
  output.clear();
  bool open = gate_open;
  for (const Tag &tag : tags) {
    output.push_back(tag);
    if (tag.type != Tag::Type::TimeTag) {
      // Any mark of lost data closes the gate: its state is unknown from here.
      open = false;
      continue;
    }
    if (tag.channel == gate_stop_channel) {
      open = false;
      continue;
    }
    if (tag.channel == gate_start_channel)
      open = true;
    if (open && tag.channel == input_channel) {
      Tag copy = tag;
      copy.channel = virtual_channel;
      output.push_back(copy);
    }
  }
  gate_open = open;
  output.swap(tags);
  return true;
}

} // namespace chronotick
