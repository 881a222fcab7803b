#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace chronotick {

// One record of the tag stream. The layout is fixed: blocks are copied with
// whole-record moves and written to disk as they stand.
struct Tag {
  enum class Type : std::uint8_t {
    TimeTag = 0,       // one detected edge on `channel` at `time`
    Error = 1,         // the stream is not continuous here
    OverflowBegin = 2, // from here on data are being lost
    OverflowEnd = 3,   // data flow again
    MissedEvents = 4,  // `missed_events` tags on `channel` were lost
  };

  Type type;
  std::uint8_t reserved;
  std::uint16_t missed_events;
  std::int32_t channel;
  std::int64_t time; // picoseconds
};

static_assert(sizeof(Tag) == 16, "Tag must stay a 16-byte record");
static_assert(std::is_trivially_copyable<Tag>::value, "Tag must stay trivially copyable");
static_assert(offsetof(Tag, missed_events) == 2 && offsetof(Tag, channel) == 4 && offsetof(Tag, time) == 8,
              "Tag field layout is part of the file format");

// The number that means "no channel" (bit pattern 0xF8000000).
constexpr std::int32_t CHANNEL_UNUSED = -134217728;

} // namespace chronotick
