#include <chronotick/Tag.h>

#include <atomic>
#include <cstring>

namespace chronotick {

namespace {
std::atomic<int> channelNumberScheme{CT_CHANNEL_NUMBER_SCHEME_AUTO};

template <typename T> void copyColumn(const std::vector<T> &column, std::size_t size, T *out) {
  if (size != 0) {
    std::memcpy(out, column.data(), size * sizeof(T));
  }
}
} // namespace

void setChronotickChannelNumberScheme(int scheme) {
  channelNumberScheme.store(scheme);
}
int getChronotickChannelNumberScheme() {
  return channelNumberScheme.load();
}

TimeTagStreamBuffer::TimeTagStreamBuffer() : size(0), has_overflows(false), t_start(0), t_get_data(0) {}
TimeTagStreamBuffer::~TimeTagStreamBuffer() = default;
TimeTagStreamBuffer::TimeTagStreamBuffer(const TimeTagStreamBuffer &) = default;
TimeTagStreamBuffer::TimeTagStreamBuffer(TimeTagStreamBuffer &&) noexcept = default;
TimeTagStreamBuffer &TimeTagStreamBuffer::operator=(const TimeTagStreamBuffer &) = default;
TimeTagStreamBuffer &TimeTagStreamBuffer::operator=(TimeTagStreamBuffer &&) noexcept = default;

void TimeTagStreamBuffer::getChannels(std::function<std::int32_t *(std::size_t)> alloc) const {
  copyColumn(tagChannels, size, alloc(size));
}

void TimeTagStreamBuffer::getTimestamps(std::function<std::int64_t *(std::size_t)> alloc) const {
  copyColumn(tagTimestamps, size, alloc(size));
}

void TimeTagStreamBuffer::getMissedEvents(std::function<std::uint16_t *(std::size_t)> alloc) const {
  copyColumn(tagMissedEvents, size, alloc(size));
}

void TimeTagStreamBuffer::getEventTypes(std::function<std::uint8_t *(std::size_t)> alloc) const {
  std::uint8_t *out = alloc(size);
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = tagTypes[i];
  }
}

void TimeTagStreamBuffer::getOverflows(std::function<std::uint8_t *(std::size_t)> alloc) const {
  std::uint8_t *out = alloc(size);
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = tagTypes[i] != 0 ? 1 : 0;
  }
}

} // namespace chronotick
