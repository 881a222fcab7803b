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
      if (taken < timestamps.size()) {
        const std::int64_t value = timestamps[taken++];
        // Handed-out times go once they are the larger part, so that memory
        // follows what is waiting and each time moves at most once on average.
        if (2 * taken >= timestamps.size()) {
          timestamps.erase(timestamps.begin(), timestamps.begin() + static_cast<std::ptrdiff_t>(taken));
          taken = 0;
        }
        return value;
      }
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

std::uint64_t Iterator::size() {
  auto guard = getLock();
  return timestamps.size() - taken;
}

void Iterator::clear_impl() {
  timestamps.clear();
  taken = 0;
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
