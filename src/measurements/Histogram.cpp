#include <chronotick/Histogram.h>

#include <utility>

namespace chronotick {

Histogram::Histogram(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel,
                     std::int64_t binwidth, std::int32_t n_bins)
    : TimeDifferences(tagger, click_channel, start_channel, CHANNEL_UNUSED, CHANNEL_UNUSED, binwidth, n_bins, 1) {}

void Histogram::getData(std::function<std::int32_t *(std::size_t)> allocate) {
  TimeDifferences::getData([&allocate](std::size_t, std::size_t n_bins) { return allocate(n_bins); });
}

void Histogram::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  TimeDifferences::getIndex(std::move(allocate));
}

void Histogram::start() {
  IteratorBase::start();
}
void Histogram::startFor(std::int64_t capture_duration, bool clear) {
  IteratorBase::startFor(capture_duration, clear);
}
void Histogram::stop() {
  IteratorBase::stop();
}
void Histogram::clear() {
  IteratorBase::clear();
}
std::int64_t Histogram::getCaptureDuration() {
  return IteratorBase::getCaptureDuration();
}
bool Histogram::isRunning() {
  return IteratorBase::isRunning();
}

} // namespace chronotick
