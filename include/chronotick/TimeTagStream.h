#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>

#include <cstdint>
#include <vector>

namespace chronotick {

// Gathers the tags of some channels (all of them with an empty filter) into a
// buffer of at most n_max_events tags, which the client drains with getData.
class CHRONOTICK_API TimeTagStream : public IteratorBase {
public:
  TimeTagStream(ChronotickBase *tagger, std::uint64_t n_max_events, std::vector<std::int32_t> channels = {});
  ~TimeTagStream() override;

  std::uint64_t getCounts();
  // Takes everything buffered; the next read continues where this one ended.
  TimeTagStreamBuffer getData();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int32_t> channels;
  std::uint64_t n_max_events;
  std::int64_t t_get_data;
  bool has_overflows;
  std::int64_t t_start;
  std::vector<std::int32_t> tagChannels;
  std::vector<std::int64_t> tagTimestamps;
  std::vector<std::uint16_t> tagMissedEvents;
  std::vector<std::uint8_t> tagTypes;
};

} // namespace chronotick
