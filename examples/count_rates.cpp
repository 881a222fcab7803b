// Prints the count rate of each channel of a recording:
//   count_rates run.ctbin [channel ...]
// The measurement is built before the replay starts, so it sees every block.

#include <chronotick/Chronotick.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using namespace chronotick;

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s recording.ctbin [channel ...]\n", argv[0]);
    return 2;
  }
  std::vector<std::int32_t> channels;
  for (int i = 2; i < argc; ++i) {
    channels.push_back(static_cast<std::int32_t>(std::atoi(argv[i])));
  }
  if (channels.empty()) {
    channels = {1, 2, 3, 4};
  }

  ChronotickVirtual *tagger = createChronotickVirtual();
  int status = 0;
  {
    Countrate rate(tagger, channels);
    tagger->setReplaySpeed(-1); // as fast as possible
    try {
      tagger->replay(argv[1]);
      tagger->waitForCompletion();
    } catch (const std::exception &e) {
      std::fprintf(stderr, "%s\n", e.what());
      status = 1;
    }
    std::vector<double> rates;
    rate.getData([&](std::size_t n) {
      rates.resize(n);
      return rates.data();
    });
    for (std::size_t i = 0; i < rates.size(); ++i) {
      std::printf("channel %3d: %.1f counts/s\n", channels[i], rates[i]);
    }
    rate.stop();
  }
  freeChronotick(tagger);
  return status;
}
