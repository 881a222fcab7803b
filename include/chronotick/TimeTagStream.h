#pragma once

#include <chronotick/IteratorBase.h>
#include <chronotick/Tag.h>
#include <chronotick/TimeTagStreamBuffer.h>

#include <cstdint>
#include <vector>

namespace chronotick {

// Gathers the tags of some channels (all of them with an empty filter) into a
// buffer of at most n_max_events tags, which the client drains with getData.
//
// Events handled: TimeTag and MissedEvents are kept if their channel is in
// the filter; Error and OverflowBegin/End are always kept, filter or not.
// Once the buffer holds n_max_events tags, further tags are dropped, without
// a mark, until the next getData.
// Room for n_max_events tags (15 bytes each) is reserved at construction and
// after each read; a number too large for the memory throws std::bad_alloc or
// std::length_error. Stop and start keep the buffer; clear empties it.
// Thread safety: getCounts and getData may be called from any thread while
// the stream runs; they take the measurement's lock.
class CHRONOTICK_API TimeTagStream : public IteratorBase {
public:
  TimeTagStream(ChronotickBase *tagger, std::uint64_t n_max_events, std::vector<std::int32_t> channels = {});
  ~TimeTagStream() override;

  // Tags in the buffer now, waiting for getData.
  std::uint64_t getCounts();
  // Takes everything buffered; the next read continues where this one ended.
  // The result's t_get_data is the end of the last block seen, in ps; its
  // t_start is where the previous read ended, or for the first read after
  // construction or clear, the end of the first block seen.
  TimeTagStreamBuffer getData();

protected:
  void clear_impl() override;
  bool next_impl(std::vector<Tag> &tags, std::int64_t begin_time, std::int64_t end_time) override;

private:
  std::vector<std::int32_t> channels;
  std::uint64_t n_max_events;
  std::int64_t t_get_data;
  std::int64_t t_start;
  TagColumns columns;
};

} // namespace chronotick
