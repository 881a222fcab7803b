#pragma once

#include <chronotick/IteratorBase.h>

#include <cstddef>
#include <cstdint>
#include <vector>

namespace chronotick {

// Hands out the time stamps of one channel, one at a time, for simple polling.
//
// Events handled: TimeTag on the channel: its time (ps) is stored. Every
// other tag, MissedEvents of the channel and breaks included, is ignored, so
// gaps in the data don't show. The store has no limit: it grows while nobody
// reads. Stop and start keep it; clear empties it.
// Thread safety: next and size may be called from any thread while the stream
// runs; they take the measurement's lock.
class CHRONOTICK_API Iterator : public IteratorBase {
public:
  Iterator(ChronotickBase *tagger, std::int32_t channel);
  ~Iterator() override;

  // The oldest stored time stamp, in ps, which it removes; waits (polling every
  // 10 ms) until one is there, without a time limit, even if no tag can come
  // any more.
  std::int64_t next();
  // Number of stored time stamps.
  std::uint64_t size();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int64_t> timestamps; // those before `taken` were handed out
  std::size_t taken = 0;
  std::int32_t channel;
};

} // namespace chronotick
