#include <chronotick/Iterator.h>

#include <chrono>
#include <thread>

namespace chronotick {

Iterator::Iterator(ChronotickBase *tagger_, std::int32_t channel_) : IteratorBase(tagger_), channel(channel_) {
  registerChannel(channel);
  clear();
  finishInitialization();
}

Iterator::~Iterator() {
  stop();
}

std::int64_t Iterator::next() {
  for (;;) {
    {
      auto guard = getLock();
      if (!timestamps.empty()) {
        const std::int64_t value = timestamps.front();
        timestamps.pop_front();
        return value;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::uint64_t Iterator::size() {
  auto guard = getLock();
  return timestamps.size();
}

void Iterator::clear_impl() {
  timestamps.clear();
}

bool Iterator::next_impl(std::vector<Tag> &tags, std::int64_t, std::int64_t) {
  for (const Tag &tag : tags) {
    if (tag.type == Tag::Type::TimeTag && tag.channel == channel) {
      timestamps.push_back(tag.time);
    }
  }
  return false;
}

} // namespace chronotick
