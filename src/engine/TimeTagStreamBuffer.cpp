#include <chronotick/TimeTagStreamBuffer.h>

#include <cstring>

namespace chronotick {

namespace {
template <typename T> void copyColumn(const std::vector<T> &column, std::size_t size, T *out) {
  if (size != 0) {
    std::memcpy(out, column.data(), size * sizeof(T));
  }
}
} // namespace

TimeTagStreamBuffer::TimeTagStreamBuffer() : size(0), has_overflows(false), t_start(0), t_get_data(0) {}
TimeTagStreamBuffer::TimeTagStreamBuffer(TagColumns &&columns_, std::int64_t t_start_, std::int64_t t_get_data_)
    : size(columns_.size()), has_overflows(columns_.has_overflows), t_start(t_start_), t_get_data(t_get_data_),
      columns(std::move(columns_)) {}
TimeTagStreamBuffer::~TimeTagStreamBuffer() = default;
TimeTagStreamBuffer::TimeTagStreamBuffer(const TimeTagStreamBuffer &) = default;
TimeTagStreamBuffer::TimeTagStreamBuffer(TimeTagStreamBuffer &&) noexcept = default;
TimeTagStreamBuffer &TimeTagStreamBuffer::operator=(const TimeTagStreamBuffer &) = default;
TimeTagStreamBuffer &TimeTagStreamBuffer::operator=(TimeTagStreamBuffer &&) noexcept = default;

void TimeTagStreamBuffer::getChannels(std::function<std::int32_t *(std::size_t)> alloc) const {
  copyColumn(columns.channels, size, alloc(size));
}

void TimeTagStreamBuffer::getTimestamps(std::function<std::int64_t *(std::size_t)> alloc) const {
  copyColumn(columns.timestamps, size, alloc(size));
}

void TimeTagStreamBuffer::getMissedEvents(std::function<std::uint16_t *(std::size_t)> alloc) const {
  copyColumn(columns.missed_events, size, alloc(size));
}

void TimeTagStreamBuffer::getEventTypes(std::function<std::uint8_t *(std::size_t)> alloc) const {
  copyColumn(columns.types, size, alloc(size));
}

void TimeTagStreamBuffer::getOverflows(std::function<std::uint8_t *(std::size_t)> alloc) const {
  std::uint8_t *out = alloc(size);
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = columns.types[i] != 0 ? 1 : 0;
  }
}

} // namespace chronotick
