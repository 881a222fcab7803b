#include <chronotick/Flim.h>

#include <utility>

namespace chronotick {

Flim::Flim(ChronotickBase *tagger, std::int32_t click_channel, std::int32_t start_channel, std::int32_t next_channel,
           std::int64_t binwidth, std::int32_t n_bins, std::int32_t n_histograms)
    : TimeDifferences(tagger, click_channel, start_channel, next_channel, CHANNEL_UNUSED, binwidth, n_bins,
                      n_histograms) {}

void Flim::getData(std::function<std::int32_t *(std::size_t, std::size_t)> allocate) {
  TimeDifferences::getData(std::move(allocate));
}

void Flim::getIndex(std::function<std::int64_t *(std::size_t)> allocate) {
  TimeDifferences::getIndex(std::move(allocate));
}

void Flim::start() {
  IteratorBase::start();
}
void Flim::startFor(std::int64_t capture_duration, bool clear) {
  IteratorBase::startFor(capture_duration, clear);
}
void Flim::stop() {
  IteratorBase::stop();
}
void Flim::clear() {
  IteratorBase::clear();
}
std::int64_t Flim::getCaptureDuration() {
  return IteratorBase::getCaptureDuration();
}

} // namespace chronotick
