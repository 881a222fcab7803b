#pragma once

#include <chronotick/IteratorBase.h>

#include <cstdint>
#include <deque>

namespace chronotick {

// Hands out the time stamps of one channel, one at a time, for simple polling.
class CHRONOTICK_API Iterator : public IteratorBase {
public:
  Iterator(ChronotickBase *tagger, std::int32_t channel);
  ~Iterator() override;

  // The oldest stored time stamp; waits (polling every 10 ms) until one is there.
  std::int64_t next();
  // Number of stored time stamps.
  std::uint64_t size();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::deque<std::int64_t> timestamps;
  std::int32_t channel;
};

} // namespace chronotick
