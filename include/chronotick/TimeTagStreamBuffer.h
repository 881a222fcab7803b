#pragma once

#include <chronotick/Export.h>
#include <chronotick/Tag.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace chronotick {

// Tags as four columns, the way a producer of a TimeTagStreamBuffer gathers them.
struct TagColumns {
  std::vector<std::int32_t> channels;
  std::vector<std::int64_t> timestamps;
  std::vector<std::uint16_t> missed_events;
  std::vector<std::uint8_t> types;
  bool has_overflows = false; // a tag other than a TimeTag was pushed

  std::size_t size() const { return timestamps.size(); }
  void push(const Tag &tag) {
    channels.push_back(tag.channel);
    timestamps.push_back(tag.time);
    missed_events.push_back(tag.missed_events);
    types.push_back(static_cast<std::uint8_t>(tag.type));
    has_overflows |= tag.type != Tag::Type::TimeTag;
  }
  void reserve(std::size_t n) {
    channels.reserve(n);
    timestamps.reserve(n);
    missed_events.reserve(n);
    types.reserve(n);
  }
  void clear() {
    channels.clear();
    timestamps.clear();
    missed_events.clear();
    types.clear();
    has_overflows = false;
  }
};

// The tags of one read, as columns. Getters hand each column out through a
// caller-supplied allocation function, called exactly once with `size`.
class CHRONOTICK_API TimeTagStreamBuffer {
public:
  TimeTagStreamBuffer();
  // Takes the columns over; `size` and `has_overflows` come from them.
  TimeTagStreamBuffer(TagColumns &&columns, std::int64_t t_start, std::int64_t t_get_data);
  ~TimeTagStreamBuffer();
  TimeTagStreamBuffer(const TimeTagStreamBuffer &);
  TimeTagStreamBuffer(TimeTagStreamBuffer &&) noexcept;
  TimeTagStreamBuffer &operator=(const TimeTagStreamBuffer &);
  TimeTagStreamBuffer &operator=(TimeTagStreamBuffer &&) noexcept;

  // Channel of each tag.
  void getChannels(std::function<std::int32_t *(std::size_t)> alloc) const;
  // Time of each tag, ps.
  void getTimestamps(std::function<std::int64_t *(std::size_t)> alloc) const;
  // Count of lost tags of a MissedEvents tag, else 0.
  void getMissedEvents(std::function<std::uint16_t *(std::size_t)> alloc) const;
  // Tag::Type of each tag as a number (0 TimeTag ... 4 MissedEvents).
  void getEventTypes(std::function<std::uint8_t *(std::size_t)> alloc) const;
  // 1 for each tag that isn't a TimeTag, else 0.
  void getOverflows(std::function<std::uint8_t *(std::size_t)> alloc) const;

  std::uint64_t size;
  bool has_overflows;
  std::int64_t t_start;    // stream time where this read begins, ps
  std::int64_t t_get_data; // stream time where it ends, ps

private:
  TagColumns columns;
};

} // namespace chronotick
