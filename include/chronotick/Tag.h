#pragma once

#include <chronotick/Export.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <vector>

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

// Channel number schemes, see setChronotickChannelNumberScheme.
constexpr int CT_CHANNEL_NUMBER_SCHEME_AUTO = 0;
constexpr int CT_CHANNEL_NUMBER_SCHEME_ZERO = 1;
constexpr int CT_CHANNEL_NUMBER_SCHEME_ONE = 2;

// Process-wide requested scheme; a tagger copies it when it is built.
CHRONOTICK_API void setChronotickChannelNumberScheme(int scheme);
CHRONOTICK_API int getChronotickChannelNumberScheme();

class TimeTagStream;
class FileReader;

// The tags of one read, as columns. Getters hand each column out through a
// caller-supplied allocation function, called exactly once with `size`.
class CHRONOTICK_API TimeTagStreamBuffer {
public:
  TimeTagStreamBuffer();
  ~TimeTagStreamBuffer();
  TimeTagStreamBuffer(const TimeTagStreamBuffer &);
  TimeTagStreamBuffer(TimeTagStreamBuffer &&) noexcept;
  TimeTagStreamBuffer &operator=(const TimeTagStreamBuffer &);
  TimeTagStreamBuffer &operator=(TimeTagStreamBuffer &&) noexcept;

  void getChannels(std::function<std::int32_t *(std::size_t)> alloc) const;
  void getTimestamps(std::function<std::int64_t *(std::size_t)> alloc) const;
  void getMissedEvents(std::function<std::uint16_t *(std::size_t)> alloc) const;
  void getEventTypes(std::function<std::uint8_t *(std::size_t)> alloc) const;
  void getOverflows(std::function<std::uint8_t *(std::size_t)> alloc) const;

  std::uint64_t size;
  bool has_overflows;
  std::int64_t t_start;
  std::int64_t t_get_data;

private:
  friend class TimeTagStream;
  friend class FileReader;

  std::vector<std::int32_t> tagChannels;
  std::vector<std::int64_t> tagTimestamps;
  std::vector<std::uint16_t> tagMissedEvents;
  std::vector<std::uint8_t> tagTypes;
};

} // namespace chronotick
