#include <chronotick/Coincidence.h>

#include <utility>

namespace chronotick {

Coincidence::Coincidence(ChronotickBase *tagger, std::vector<std::int32_t> channels, std::int64_t coincidenceWindow,
                         CoincidenceTimestamp timestamp)
    : Coincidences(tagger, {std::move(channels)}, coincidenceWindow, timestamp) {}

Coincidence::~Coincidence() {
  stop();
}

std::int32_t Coincidence::getChannel() {
  return getChannels().front();
}

} // namespace chronotick
