#include <chronotick/ChannelScheme.h>

#include <atomic>

namespace chronotick {

namespace {
std::atomic<int> channelNumberScheme{CT_CHANNEL_NUMBER_SCHEME_AUTO};
} // namespace

void setChronotickChannelNumberScheme(int scheme) {
  channelNumberScheme.store(scheme);
}

int getChronotickChannelNumberScheme() {
  return channelNumberScheme.load();
}

} // namespace chronotick
