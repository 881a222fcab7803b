// The instrument at work, without an instrument: a simulated "CT-Ultra" sees
// a pulsed laser's sync, a fluorescence detector and a second detector.
//
//   1. The board is added to the simulation and opened like a real one with
//      createChronotick(serial).
//   2. Countrate, a lifetime Histogram (detector clicks after the laser sync),
//      a Correlation of the two detectors and a FileWriter run together for
//      one second; the lifetime fitted to the histogram is printed next to
//      the simulated one.
//   3. A replay tagger plays the recording as fast as possible into the same
//      lifetime histogram, which comes out bin for bin the same.

#include <chronotick/Chronotick.h>
#include <chronotick/Simulation.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

using namespace chronotick;
namespace sim = chronotick::simulation;

namespace {

constexpr std::int64_t LASER_PERIOD = 100000; // ps: a 10 MHz pulsed laser
constexpr std::int64_t LIFETIME = 3000;       // ps
constexpr std::int64_t BIN = 20;              // ps
constexpr std::int32_t BINS = 2500;           // 50 ns of delays after each sync

template <typename T, typename Measurement> std::vector<T> dataOf(Measurement &m) {
  std::vector<T> v;
  m.getData([&](std::size_t n) { return v.resize(n), v.data(); });
  return v;
}

// Fits counts = a exp(-t / tau) to the decay after the peak: a weighted
// straight line through the logarithm of the counts.
double fitLifetime(const std::vector<std::int32_t> &counts) {
  std::size_t peak = 0;
  for (std::size_t i = 0; i < counts.size(); ++i)
    if (counts[i] > counts[peak])
      peak = i;
  double sw = 0, st = 0, sy = 0, stt = 0, sty = 0;
  for (std::size_t i = peak + 10; i < counts.size() && i < peak + 10 + 5 * LIFETIME / BIN; ++i) {
    if (counts[i] <= 0)
      continue;
    const double w = counts[i], t = static_cast<double>(i) * BIN, y = std::log(counts[i]);
    sw += w, st += w * t, sy += w * y, stt += w * t * t, sty += w * t * y;
  }
  const double slope = (sw * sty - st * sy) / (sw * stt - st * st);
  return -1.0 / slope;
}

void removeRecording(const std::string &base) {
  for (int part = 0;; ++part) {
    std::string name = base;
    if (part > 0)
      name.append(".").append(std::to_string(part));
    if (!std::filesystem::remove(name + ".ctbin"))
      break;
  }
}

} // namespace

int main() {
  std::printf("Chronotick %s\n\n", getVersion().c_str());

  // 1. A simulated board: laser sync on input 1, a fluorescence detector that
  // clicks after 2% of the pulses on input 2, a second detector on input 3.
  sim::BoardSpec spec;
  spec.model = "CT-Ultra";
  const std::string serial = sim::addBoard(spec);
  sim::setSignal(serial, 0, sim::Signal::periodic(LASER_PERIOD, 3));
  sim::setSignal(serial, 1, sim::Signal::fluorescence(0, 0.02, LIFETIME, 5000));
  sim::setSignal(serial, 2, sim::Signal::fluorescence(0, 0.02, LIFETIME, 5000));

  Chronotick *tagger = createChronotick(serial);
  std::printf("Opened a simulated %s, serial %s (%s)\n", tagger->getModel().c_str(), tagger->getSerial().c_str(),
              tagger->getFirmwareVersion().c_str());
  std::printf("  %zu inputs, clock %lld ps\n\n", tagger->getChannelList().size(),
              static_cast<long long>(tagger->getPsPerClock()));

  // 2. One second of measuring and recording. The group starts and stops all
  // of them at the same point of the stream, so that the recording holds
  // exactly the tags that the measurements saw.
  const std::string recording = (std::filesystem::temp_directory_path() / "chronotick_demo").string();
  SynchronizedMeasurements group(tagger);
  Countrate rates(group.getTagger(), {1, 2, 3});
  Histogram lifetime(group.getTagger(), 2, 1, BIN, BINS);
  Correlation g2(group.getTagger(), 2, 3, 1000, 500);
  FileWriter writer(group.getTagger(), recording, {1, 2, 3});
  group.start();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  group.stop();
  const std::int64_t recorded = writer.getTotalEvents();
  writer.stop();

  const std::vector<double> r = dataOf<double>(rates);
  std::printf("Count rates: sync %.2f MHz, detector 1 %.1f kHz, detector 2 %.1f kHz\n", r[0] / 1e6, r[1] / 1e3,
              r[2] / 1e3);
  const std::vector<std::int32_t> decay = dataOf<std::int32_t>(lifetime);
  std::printf("Lifetime: fitted %.2f ns, simulated %.2f ns\n", fitLifetime(decay) / 1e3, LIFETIME / 1e3);
  // Both detectors follow the same laser pulses: their correlation has a
  // peak at every multiple of the laser period.
  const std::vector<std::int32_t> c = dataOf<std::int32_t>(g2);
  std::vector<std::int64_t> delays;
  g2.getIndex([&](std::size_t n) { return delays.resize(n), delays.data(); });
  double mean = 0;
  for (std::int32_t v : c)
    mean += v / static_cast<double>(c.size());
  std::printf("Correlation of the detectors, peaks at:");
  for (std::size_t i = 0; i < c.size(); ++i) {
    // The centre of mass of each stretch above three times the mean.
    if (c[i] <= 3 * mean)
      continue;
    double weight = 0, moment = 0;
    for (; i < c.size() && c[i] > 3 * mean; ++i) {
      weight += c[i];
      moment += c[i] * (static_cast<double>(delays[i]) + 500.0);
    }
    std::printf(" %+.1f ns", moment / weight / 1e3);
  }
  std::printf("\n\n");
  freeChronotick(tagger);
  sim::removeBoard(serial);

  // 3. The recording, replayed as fast as possible into the same histogram.
  ChronotickVirtual *player = createChronotickVirtual();
  player->setReplaySpeed(-1.0);
  Histogram replayed(player, 2, 1, BIN, BINS);
  const auto start = std::chrono::steady_clock::now();
  player->waitForCompletion(player->replay(recording));
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  player->sync();
  const bool same = dataOf<std::int32_t>(replayed) == decay;
  std::printf("Recorded %lld tags into %s.ctbin, replayed in %.3f s (%.1f M tags/s)\n",
              static_cast<long long>(recorded), recording.c_str(), seconds,
              static_cast<double>(recorded) / seconds / 1e6);
  std::printf("Lifetime histogram of the replay: %s\n", same ? "identical, bin for bin" : "DIFFERENT");
  freeChronotick(player);
  removeRecording(recording);
  return same ? 0 : 1;
}
